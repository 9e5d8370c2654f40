#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli_test_util.h"

namespace {
using namespace kelvo::testing_cli;

// The sample light profile opens as a grey 8-bit picture: stored as RGB.
const std::string kFile = std::string(KELVO_SOURCE_DIR) + "/resources/ies/kelvo_sample_spot.ies";

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
