#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <sstream>

#include "json.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;

struct ToolRun {
    int status;
    std::string out;
};

// Runs the tool from another working directory, capturing stdout and stderr.
ToolRun Kelvo(const std::string& args) {
    std::string cmd = "cd / && " + std::string(KELVO_TOOL) + " " + args + " 2>&1";
    FILE* p = popen(cmd.c_str(), "r");
    std::string out;
    char buf[4096];
    while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    int status = pclose(p);
    return {WEXITSTATUS(status), out};
}

TEST(JsonTest, NumbersRoundTripAndNonFiniteAreStrings) {
    EXPECT_EQ(JsonNumber(0.1), "0.10000000000000001");
    EXPECT_EQ(JsonNumber(1.0 / 3.0), "0.33333333333333331");
    EXPECT_EQ(JsonNumber(HUGE_VAL), "\"inf\"");
    EXPECT_EQ(JsonNumber(-HUGE_VAL), "\"-inf\"");
    EXPECT_EQ(JsonNumber(std::nan("")), "\"nan\"");
    EXPECT_EQ(JsonNumber(-0.0), "-0.0");
    for (double v : {0.1, 1e-310, 123456789.123456789, -2.5e300}) {
        auto back = ReadNumber(nlohmann::json::parse(JsonNumber(v)), "v");
        ASSERT_TRUE(back.Ok());
        EXPECT_EQ(*back, v);
    }
    EXPECT_TRUE(std::isinf(*ReadNumber(nlohmann::json("-inf"), "v")));
    EXPECT_EQ(ReadNumber(nlohmann::json("x"), "fov").GetError().Message(),
              "Illegal argument: fov must be a number.");
}

TEST(JsonTest, TextKeepsUtf8AndMapsOtherBytesToLatin1) {
    EXPECT_EQ(JsonString("a\"b\\\n\x01"), "\"a\\\"b\\\\\\n\\u0001\"");
    EXPECT_EQ(JsonString("caf\xc3\xa9"), "\"caf\xc3\xa9\"");  // valid UTF-8 stays
    EXPECT_EQ(JsonString("caf\xe9"), "\"caf\xc3\xa9\"");      // Latin-1 byte 0xE9 -> U+00E9
    EXPECT_EQ(JsonString("\xff\xc3"), "\"\xc3\xbf\xc3\x83\"");
    EXPECT_EQ(JsonString("\xed\xa0\x80"), "\"\xc3\xad\xc2\xa0\xc2\x80\"");  // no surrogates
    JsonWriter w;
    w.Object().Key("m").Mat(Matrix{}).Key("v").Vec(Vec2{1, 2}).End();
    EXPECT_EQ(w.Text(),
              "{\"m\":{\"offset\":[0.0,0.0,0.0],\"xAxis\":[1,0.0,0.0],\"yAxis\":[0.0,1,0.0],"
              "\"zAxis\":[0.0,0.0,1]},\"v\":[1,2]}");
}

TEST(JsonTest, JsonLinesAnswerEveryLineAndGoOnAfterErrors) {
    std::istringstream in("{\"x\":1}\nnot json\n\n{\"x\":2}\r\n{\"fail\":true}\n");
    std::ostringstream out;
    int failed = RunJsonLines(in, out, [](const nlohmann::json& r) -> Result<std::string> {
        if (r.contains("fail")) return IllegalArgumentError(KELVO_HERE, "Bad \"request\".");
        return JsonNumber(r["x"].get<double>() * 2);
    });
    EXPECT_EQ(failed, 2);
    EXPECT_EQ(out.str(),
              "2\n{\"error\":\"Illegal argument: The line is not valid JSON.\"}\n4\n"
              "{\"error\":\"Illegal argument: Bad \\\"request\\\".\"}\n");
}

TEST(KelvoToolTest, ModulesAndConfigShowWhatTheModuleDeclares) {
    ToolRun modules = Kelvo("modules");
    ASSERT_EQ(modules.status, 0) << modules.out;
    for (const char* id : {"net.kelvo.render.ray", "net.kelvo.render.registry.cameraclasses",
                           "g_polygonIntersection", "net.kelvo.render.interface.rendergeneral"})
        EXPECT_NE(modules.out.find(id), std::string::npos) << id;

    ToolRun config = Kelvo("config --json");
    ASSERT_EQ(config.status, 0) << config.out;
    auto vars = nlohmann::json::parse(config.out);
    ASSERT_EQ(vars.size(), 2u);
    EXPECT_EQ(vars[0]["name"], "g_polygonIntersection");
    EXPECT_EQ(vars[0]["value"], "");
    EXPECT_EQ(vars[0]["help"], "");
    EXPECT_EQ(vars[1]["help"], "Run render unittest statistics");

    ToolRun set = Kelvo("--set g_runUnitTestRenderStatistics=true config --json");
    EXPECT_EQ(nlohmann::json::parse(set.out)[1]["value"], "true");
}

TEST(KelvoToolTest, ErrorsGoToStderrWithStatusOne) {
    ToolRun bad = Kelvo("--set g_runUnitTestRenderStatistics=maybe config");
    EXPECT_EQ(bad.status, 1);
    EXPECT_EQ(bad.out,
              "kelvo: Illegal argument: Value 'maybe' is not a bool for "
              "g_runUnitTestRenderStatistics.\n");
    ToolRun form = Kelvo("--set novalue config");
    EXPECT_EQ(form.status, 1);
    EXPECT_EQ(form.out, "kelvo: Illegal argument: --set expects NAME=VALUE, not 'novalue'.\n");
    EXPECT_EQ(Kelvo("nosuchcommand").status, 1);
    EXPECT_EQ(Kelvo("--help").status, 0);
}

TEST(KelvoToolTest, DemoWritesItsReports) {
    fs::path out = fs::temp_directory_path() / ("kelvo_demo_" + std::to_string(::getpid()));
    ToolRun demo = Kelvo("demo --out " + out.string());
    ASSERT_EQ(demo.status, 0) << demo.out;
    for (const char* f : {"modules.txt", "modules.json", "config.json"})
        EXPECT_TRUE(fs::file_size(out / f) > 0) << f;
    fs::remove_all(out);
}

}  // namespace
}  // namespace kelvo::cli
