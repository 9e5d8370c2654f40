#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "../image_test_util.h"
#include "cli_test_util.h"
#include "host.h"

namespace {
using namespace kelvo::testing_cli;

// The sample light profile opens as a grey 8-bit picture: stored as RGB.
const std::string kFile = std::string(KELVO_SOURCE_DIR) + "/resources/ies/kelvo_sample_spot.ies";

// Info reads the header alone: a bound far below the picture's 45 bytes of pixels would
// refuse any pixel read, and a picture at the bound would otherwise cost several times it.
TEST(KelvoTextureTest, InfoReadsTheHeaderAloneAndSaysWhatEachPyramidTakes) {
    using namespace kelvo;
    host::Initialize();
    const std::string png = (std::filesystem::temp_directory_path() /
                             ("kelvo_texture_info_" + std::to_string(::getpid()) + ".png"))
                                .string();
    ASSERT_TRUE(ExportImage(Url::FromFile(png),
                            *testing_images::MakeImage(5, 3, kPixelRgb8, COLORPROFILE::SRGB,
                                                       std::vector<uint8_t>(45, 9)))
                    .Ok());
    EXPECT_EQ(Kelvo("--set g_maxImageBytes=10 texture info " + png),
              (ToolRun{0, png + ": 5 x 3, rgb8 (sRGB)\n"
                                "mip map: 4 levels, 72 bytes\n"
                                "  0: 5 x 3\n  1: 3 x 2\n  2: 2 x 1\n  3: 1 x 1\n"
                                "rip map: 4 x 3 levels, 198 bytes\n"
                                "  5x3 3x3 2x3 1x3\n  5x2 3x2 2x2 1x2\n  5x1 3x1 2x1 1x1\n"
                                "summed area table: uint32 entries, 180 bytes\n"}));
    // The same figures as the pyramids built from the pixels.
    auto info = nlohmann::json::parse(Kelvo("texture info --json " + png).out);
    auto rip = nlohmann::json::parse(Kelvo("texture pyramid " + png + " --kind rip --json").out);
    EXPECT_EQ(info["rip"]["levels"].size(), rip["levels"].size());
    EXPECT_EQ(info["sat"], nlohmann::json::parse(R"({"bytes":180,"entries":"uint32"})"));
    std::filesystem::remove(png);
}

TEST(KelvoTextureTest, PyramidJsonListsSmallLevelsAndSampleAnswersPerLine) {
    ToolRun pyramid = Kelvo("texture pyramid " + kFile + " --kind mip --json");
    ASSERT_EQ(pyramid.status, 0) << pyramid.out;
    auto j = nlohmann::json::parse(pyramid.out);
    EXPECT_EQ(j["storage"], "rgb8");
    const auto& levels = j["levels"];
    EXPECT_FALSE(levels[0].contains("pixels"));  // more than 4096 texels
    const auto& last = levels[levels.size() - 1];
    EXPECT_EQ(last["width"], 1);
    ASSERT_EQ(last["pixels"].size(), 1u);
    EXPECT_TRUE(last["pixels"][0][0].is_number_integer());

    ToolRun sample = Kelvo("texture sample " + kFile,
                           R"({"op": "sample", "mode": "mip", "uv": [0.5, 0.5], "dudx": 8})"
                           "\n"
                           R"({"op": "sample", "mode": "sat", "uv": [0.5, 0.5], "wrap": 1})"
                           "\n"
                           R"({"op": "sample", "uv": [0.5, "x"]})"
                           "\n");
    ASSERT_EQ(sample.status, 0) << sample.out;
    std::istringstream lines(sample.out);
    std::string first, second, third;
    std::getline(lines, first);
    std::getline(lines, second);
    std::getline(lines, third);
    // A footprint of eight whole textures reads the 1 x 1 level.
    auto value = nlohmann::json::parse(first)["value"];
    EXPECT_NEAR(value[0].get<double>(), last["pixels"][0][0].get<double>() / 255, 1e-12);
    EXPECT_EQ(value[3], 1.0);
    EXPECT_EQ(second, R"({"op":"sample","error":"Illegal argument: wrap must be a string."})");
    EXPECT_EQ(third,
              R"({"op":"sample","error":"Illegal argument: uv must be an array of 2 numbers."})");
    EXPECT_EQ(Kelvo("texture pyramid " + kFile + " --kind box"),
              Failed("Illegal argument: --kind must be mip, rip or sat, not 'box'."));
}

}  // namespace
