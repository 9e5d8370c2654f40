#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "../modules/render.module/ies_test_util.h"
#include "cli_test_util.h"

namespace {
namespace fs = std::filesystem;
using namespace kelvo::testing_cli;

std::string Data(const char* name) {
    return std::string(KELVO_SOURCE_DIR) + "/tests/data/ies/" + name;
}

TEST(KelvoIesTest, InfoShowsTheHeaderAndJsonEveryMember) {
    ToolRun info = Kelvo("ies info " + Data("kelvo__upper_hemisphere.ies"));
    ASSERT_EQ(info.status, 0) << info.out;
    for (const char* line :
         {"version: 2 (IESNA:LM-63-1995)\n", "tilt: NONE\n",
          "[LUMINAIRE] uplight, vertical angles 90 to 180\n", "shape: 4\n",
          "dimensions (m): 0.1524 0.1524 0.3048\n", "vertical angles: 5 (90 .. 180)\n",
          "horizontal angles: 1 (0 .. 0)\n", "max candela: 200\n"})
        EXPECT_NE(info.out.find(line), std::string::npos) << line << info.out;

    ToolRun json = Kelvo("ies info --json " + Data("kelvo__ballast_factor.ies"));
    ASSERT_EQ(json.status, 0) << json.out;
    auto j = nlohmann::json::parse(json.out);
    EXPECT_EQ(j["properties"]["1000"], 3);
    EXPECT_EQ(j["properties"]["1008"],
              nlohmann::json::parse("[0.29999999999999999,0.20000000000000001,0.0]"));
    EXPECT_EQ(j["_anglesVertical"].size(), 5u);
    EXPECT_EQ(j["_data"][0], 850.0);
    EXPECT_EQ(j["_dataMax"], 850.0);
    EXPECT_TRUE(j["_checksum"].is_number_unsigned());
    EXPECT_NEAR(j["powerRatio"].get<double>(), j["_dataPower"].get<double>() / (4 * M_PI), 1e-15);

    // A failed parse: the error and what was stored up to it.
    ToolRun failed = Kelvo("ies info --json " + Data("kelvo__tilt_file.ies"));
    EXPECT_EQ(failed.status, 1);
    auto f = nlohmann::json::parse(failed.out);
    EXPECT_EQ(f["error"], Data("kelvo__tilt_file.ies") + ": IES file error in line 3");
    EXPECT_EQ(f["properties"]["1002"], " kelvo test data");
    EXPECT_FALSE(f.contains("_data"));
    EXPECT_EQ(Kelvo("ies info " + Data("kelvo__no_tilt.ies")),
              Failed(Data("kelvo__no_tilt.ies") + ": IES Header incomplete"));
    EXPECT_EQ(Kelvo("ies info /nonexistent.ies"),
              Failed("Cannot open file:///nonexistent.ies: no such file."));
}

TEST(KelvoIesTest, EvalTakesDirectionsFromTheCommandLineOrJsonLines) {
    std::string file = Data("kelvo__tilt_include_commas.ies");
    ToolRun args = Kelvo("ies eval " + file + " --dir 0,0,-1 --angles 90,45 --json");
    ASSERT_EQ(args.status, 0) << args.out;
    std::istringstream lines(args.out);
    std::string first, second;
    std::getline(lines, first);
    std::getline(lines, second);
    // At the nadir x = y = 0, which is φ = 90: the plane at 90 holds the maximum.
    EXPECT_NEAR(nlohmann::json::parse(first)["intensity"].get<double>(), 1.0, 1e-3);
    EXPECT_NEAR(nlohmann::json::parse(second)["intensity"].get<double>(), 0.0, 1e-9);

    ToolRun piped =
        Kelvo("ies eval " + file, "[0,0,-1]\n{\"theta\": 0}\nnot json\n{\"direction\": [1]}\n");
    EXPECT_EQ(piped.status, 1);
    std::istringstream answers(piped.out);
    std::vector<nlohmann::json> a;
    for (std::string l; std::getline(answers, l);) a.push_back(nlohmann::json::parse(l));
    ASSERT_EQ(a.size(), 4u) << piped.out;
    EXPECT_EQ(a[0]["intensity"], a[1]["intensity"]);
    EXPECT_EQ(a[2]["error"], "Illegal argument: The line is not valid JSON.");
    EXPECT_TRUE(a[3].contains("error"));

    EXPECT_EQ(Kelvo("ies eval " + file + " --dir 1,2"),
              Failed("Illegal argument: --dir expects 3 numbers separated by commas, not '1,2'."));
    // Any length means its direction; no length, or none that is a number, means none.
    auto intensity = [&](const std::string& dir) {
        ToolRun r = Kelvo("ies eval " + file + " --json --dir " + dir);
        return r.status == 0 ? nlohmann::json::parse(r.out)["intensity"].get<double>() : -1.0;
    };
    EXPECT_EQ(intensity("3,0,-3"), intensity("0.7071067811865476,0,-0.7071067811865476"));
    EXPECT_NE(intensity("1,0,-1"), intensity("0,0,-1"));
    EXPECT_EQ(Kelvo("ies eval " + file + " --dir 0,0,0"),
              Failed("Illegal argument: A direction must be finite and not zero, not (0, 0, 0)."));
    ToolRun zero = Kelvo("ies eval " + file, "[0, 0, 0]\n");
    EXPECT_EQ(zero.status, 1);
    EXPECT_NE(zero.out.find("must be finite and not zero"), std::string::npos) << zero.out;
}

TEST(KelvoIesTest, ConvertWritesTextThatReadsBackToTheSameValues) {
    fs::path out =
        fs::temp_directory_path() / ("kelvo_ies_convert_" + std::to_string(::getpid()) + ".ies");
    std::string file = Data("kelvo__ballast_factor.ies");
    ToolRun convert = Kelvo("ies convert " + file + " -o " + out.string());
    ASSERT_EQ(convert.status, 0) << convert.out;
    auto before = nlohmann::json::parse(Kelvo("ies info --json " + file).out);
    auto after = nlohmann::json::parse(Kelvo("ies info --json " + out.string()).out);
    for (const char* key :
         {"_anglesVertical", "_anglesHorizontal", "_data", "_dataMax", "_dataPower"})
        EXPECT_EQ(before[key], after[key]) << key;

    // Over itself, on a disk that fills up midway (a file-size limit, its signal ignored so
    // that the write fails): the old file stays as it was, and nothing is left beside it.
    fs::copy_file(Data("guv__ushio_b1.ies"), out, fs::copy_options::overwrite_existing);
    const std::string original = kelvo::testing_ies::ReadFile(out);
    ToolRun full = Shell("trap '' XFSZ; ulimit -f 4; " +
                         Tool("ies convert " + out.string() + " -o " + out.string() + " 2>&1"));
    EXPECT_EQ(full, Failed("Cannot write '" + out.string() + "': File too large."));
    EXPECT_EQ(kelvo::testing_ies::ReadFile(out), original);
    for (const auto& e : fs::directory_iterator(out.parent_path()))
        EXPECT_EQ(e.path().filename().string().find(".kelvo_ies_convert_"), std::string::npos);
    ToolRun again = Kelvo("ies convert " + out.string() + " -o " + out.string());
    ASSERT_EQ(again.status, 0) << again.out;
    EXPECT_EQ(
        nlohmann::json::parse(Kelvo("ies info --json " + out.string()).out)["_data"],
        nlohmann::json::parse(Kelvo("ies info --json " + Data("guv__ushio_b1.ies")).out)["_data"]);
    fs::remove(out);
}

TEST(KelvoIesTest, PreviewOpensTheFileAsAPictureAndWritesTheAskedSize) {
    fs::path out =
        fs::temp_directory_path() / ("kelvo_ies_preview_" + std::to_string(::getpid()) + ".png");
    ToolRun preview =
        Kelvo("ies preview " + Data("guv__ushio_b1.ies") + " -o " + out.string() + " --size 96");
    ASSERT_EQ(preview.status, 0) << preview.out;
    EXPECT_EQ(PngSize(out), (std::pair<uint32_t, uint32_t>(96, 96)));
    fs::remove(out);

    EXPECT_EQ(Kelvo("ies preview " + Data("kelvo__tilt_file.ies") + " -o " + out.string()),
              Failed(Data("kelvo__tilt_file.ies") + ": IES file error in line 3"));
    // Only what the file-format registry recognises as IES is previewed.
    EXPECT_EQ(Kelvo("ies preview " + Data("README.md") + " -o " + out.string()),
              Failed("No file format recognises file://" + Data("README.md") + "."));
    EXPECT_FALSE(fs::exists(out));
}

}  // namespace
