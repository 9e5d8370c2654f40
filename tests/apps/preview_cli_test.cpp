// kelvo preview render: the swatch reaches the file, the report names the engine, and bad
// requests fail with our own messages; several swatches share a sheet, a failing one shows
// its placeholder, and Ctrl-C keeps what was rendered.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli_test_util.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;
using namespace testing_cli;

TEST(PreviewCommandTest, RendersASwatchWithAReportAndRefusesBadRequests) {
    fs::path png =
        fs::temp_directory_path() / ("kelvo_swatch_" + std::to_string(::getpid()) + ".png");
    ToolRun run = Kelvo(
        "preview render --material '{\"model\":\"ggxbrdf\",\"data\":{\"roughness\":0.3},"
        "\"colour\":[0.8,0.4,0.2]}' --scene cube --size 24,16 --spp 2 --json -o " +
        png.string());
    ASSERT_EQ(run.status, 0) << run.out;
    EXPECT_EQ(PngSize(png), (std::pair<uint32_t, uint32_t>(24, 16)));
    fs::remove(png);
    nlohmann::json report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["intersector"], "net.kelvo.render.intersectionclass.embree");
    EXPECT_EQ(report["samplesPerPixel"], 2);
    EXPECT_EQ(report["secondsPerIteration"].size(), 2u);
    EXPECT_GT(report["raysPerSecond"].get<double>(), 0.0);

    EXPECT_EQ(
        Kelvo("preview render --scene stage -o /dev/null"),
        Failed("Illegal argument: Unknown scene 'stage' (open, sphere, cube, plane, backdrop)."));
    EXPECT_EQ(Kelvo("preview render --size 0,8 -o /dev/null"),
              Failed("Illegal argument: Preview size 0 x 8 is out of range."));
    EXPECT_EQ(Kelvo("preview render --material '{\"color\":[1,1,1]}' -o /dev/null"),
              Failed("Illegal argument: Unknown material member 'color'."));
    EXPECT_EQ(Kelvo("preview render --material '{\"colour\":\"red\"}' -o /dev/null"),
              Failed("Illegal argument: colour must be an array of 3 numbers."));
    EXPECT_EQ(
        Kelvo("preview render --material '{\"ies\":\"/nonexistent.ies\"}' -o /dev/null").status, 1);
}

TEST(PreviewCommandTest, SwatchesShareASheetWhereAFailingOneShowsItsPlaceholderAndNamesItsFile) {
    const std::string stem =
        (fs::temp_directory_path() / ("kelvo_sheet_" + std::to_string(::getpid()))).string();
    ToolRun run = Shell(Tool(
        "preview render --material '{\"model\":\"ggxbrdf\"}' "
        "--material '{\"space\":\"net.kelvo.nodespace.none\"}' "
        "--material '{\"ies\":\"/nonexistent/spot.ies\"}' "
        "--material '{\"model\":\"wardbrdf\"}' --priority 4 --size 12 --iterations 3 --json -o " +
        stem + ".png 2>" + stem + ".err"));
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(PngSize(stem + ".png"), (std::pair<uint32_t, uint32_t>(24, 24)));
    std::ifstream errors(stem + ".err");
    const std::string err((std::istreambuf_iterator<char>(errors)), {});
    fs::remove(stem + ".png");
    fs::remove(stem + ".err");
    EXPECT_NE(err.find("kelvo: swatch 3 (lambertbrdf): "), std::string::npos) << err;
    nlohmann::json report = nlohmann::json::parse(run.out);
    const auto& swatches = report["swatches"];
    ASSERT_EQ(swatches.size(), 4u);
    EXPECT_EQ(swatches[1]["placeholder"], "net.kelvo.nodes.previewimageplaceholder.nospace");
    EXPECT_EQ(swatches[1]["error"],
              "Illegal argument: Node space net.kelvo.nodespace.none not found.");
    EXPECT_EQ(swatches[2]["placeholder"], "net.kelvo.nodes.previewimageplaceholder.error");
    EXPECT_NE(swatches[2]["error"].get<std::string>().find("/nonexistent/spot.ies"),
              std::string::npos);
    for (int i : {0, 3}) {
        EXPECT_EQ(swatches[i]["iterations"], 3);
        EXPECT_GE(swatches[i]["finalImageSeconds"].get<double>(),
                  swatches[i]["firstImageSeconds"].get<double>());
    }
    EXPECT_EQ(report["failed"], 2);

    EXPECT_EQ(Kelvo("preview render --priority 2 -o /dev/null"),
              Failed("Illegal argument: --priority must be a swatch number from 1 to 1."));
    EXPECT_EQ(Kelvo("preview render --iterations 0 -o /dev/null"),
              Failed("Illegal argument: --iterations must be an integer from 1 to 1048576."));
}

TEST(PreviewCommandTest, CtrlCReleasesThePreviewsAndWritesTheImagesSoFar) {
    const std::string exr =
        (fs::temp_directory_path() / ("kelvo_cancel_" + std::to_string(::getpid()) + ".exr"))
            .string();
    // --foreground: otherwise timeout signals the tool twice (it and then its process group),
    // and a second Ctrl-C ends the tool at once, as it should.
    ToolRun run = Shell("cd / && timeout --foreground --preserve-status -s INT 1.5 " +
                        std::string(KELVO_TOOL) +
                        " preview render --material '{}' --material '{\"model\":\"ggxbrdf\"}' "
                        "--size 16 --iterations 1000000 --json -o " +
                        exr + " 2>/dev/null");
    EXPECT_EQ(run.status, 130);
    nlohmann::json report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["cancelled"], true);
    EXPECT_GT(report["swatches"][0]["iterations"].get<int64_t>(), 0);
    EXPECT_TRUE(report["swatches"][0]["finalImageSeconds"].is_null());
    EXPECT_TRUE(fs::exists(exr));
    fs::remove(exr);
}

// A texture and a light profile from FIFOs whose writer never sends: the swatches that
// wait on them must not hold the run past Ctrl-C. The outer timeout turns a hang into a
// failure (status 137).
TEST(PreviewCommandTest, CtrlCEndsSwatchesWaitingOnFifos) {
    const fs::path dir =
        fs::temp_directory_path() / ("kelvo_fifo_swatch_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const fs::path texture = dir / "texture.png", ies = dir / "spot.ies";
    ASSERT_EQ(::mkfifo(texture.c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(ies.c_str(), 0600), 0);
    // Writers that stay and never write (O_RDWR does not wait for a reader).
    const int writers[] = {::open(texture.c_str(), O_RDWR), ::open(ies.c_str(), O_RDWR)};
    ToolRun run = Shell(
        "cd / && timeout -s KILL 30 timeout --foreground --preserve-status -s INT 2 " +
        std::string(KELVO_TOOL) + " preview render --material '{}' --material '{\"texture\":\"" +
        texture.string() + "\"}' --material '{\"ies\":\"" + ies.string() +
        "\"}' --size 8 --iterations 1000000 --json -o " + (dir / "sheet.png").string() +
        " 2>/dev/null");
    for (int fd : writers) ::close(fd);
    EXPECT_EQ(run.status, 130) << run.out;
    EXPECT_TRUE(fs::exists(dir / "sheet.png"));
    fs::remove_all(dir);
    if (run.status != 130) return;
    nlohmann::json report = nlohmann::json::parse(run.out);
    EXPECT_EQ(report["cancelled"], true);
    EXPECT_GT(report["swatches"][0]["iterations"].get<int64_t>(), 0);
}

}  // namespace
}  // namespace kelvo::cli
