// kelvo preview render: the swatch reaches the file, the report names the engine, and bad
// requests fail with our own messages.
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "../modules/render.module/ies_test_util.h"

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

    EXPECT_EQ(Kelvo("preview render --scene stage -o /dev/null"),
              Failed("Illegal argument: Unknown scene 'stage' (open, sphere, cube, plane)."));
    EXPECT_EQ(Kelvo("preview render --size 0,8 -o /dev/null"),
              Failed("Illegal argument: Preview size 0 x 8 is out of range."));
    EXPECT_EQ(Kelvo("preview render --material '{\"color\":[1,1,1]}' -o /dev/null"),
              Failed("Illegal argument: Unknown material member 'color'."));
    EXPECT_EQ(Kelvo("preview render --material '{\"colour\":\"red\"}' -o /dev/null"),
              Failed("Illegal argument: colour must be an array of 3 numbers."));
    EXPECT_EQ(
        Kelvo("preview render --material '{\"ies\":\"/nonexistent.ies\"}' -o /dev/null").status, 1);
}

}  // namespace
}  // namespace kelvo::cli
