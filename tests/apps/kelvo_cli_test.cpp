#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>
#include <vector>

#include "../image_test_util.h"
#include "cli_common.h"
#include "cli_test_util.h"
#include "host.h"
#include "kelvo/mediasession_output.h"
#include "picture_writer.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;
using namespace testing_cli;

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
    // One rule for the whole text, as data descriptions have it: any stray byte makes all
    // of it Latin-1.
    EXPECT_EQ(JsonString("\xc3\xa9\xe9"), "\"\xc3\x83\xc2\xa9\xc3\xa9\"");
    JsonWriter w;
    w.Object().Key("m").Mat(Matrix{}).Key("v").Vec(Vec2{1, 2}).End();
    EXPECT_EQ(w.Text(),
              "{\"m\":{\"offset\":[0.0,0.0,0.0],\"xAxis\":[1,0.0,0.0],\"yAxis\":[0.0,1,0.0],"
              "\"zAxis\":[0.0,0.0,1]},\"v\":[1,2]}");
}

TEST(JsonLinesTest, EveryRequestIsAnsweredInOrderWithItsOpAndName) {
    std::istringstream in(
        "{\"op\":\"twice\",\"name\":\"a\",\"x\":1}\nnot json\n\n{\"op\":\"twice\",\"x\":2}\r\n"
        "{\"op\":\"fail\",\"name\":\"b\",\"x\":3}\n[1]\n{\"op\":7,\"name\":[]}");
    std::ostringstream out;
    auto failed = RunJsonLines(in, out, [](const nlohmann::json& r, JsonWriter& w) -> Result<void> {
        KELVO_ASSIGN_OR_RETURN(double x, NumberMember(r, "x"));
        w.Key("y").Number(2 * x);  // dropped when the request then fails
        if (Member(r, "op") == "fail") return IllegalArgumentError(KELVO_HERE, "Bad \"request\".");
        return OK();
    });
    EXPECT_EQ(*failed, 4);
    EXPECT_EQ(
        out.str(),
        "{\"op\":\"twice\",\"name\":\"a\",\"y\":2}\n"
        "{\"error\":\"Illegal argument: The line is not valid JSON.\"}\n"
        "{\"op\":\"twice\",\"y\":4}\n"
        "{\"op\":\"fail\",\"name\":\"b\",\"error\":\"Illegal argument: Bad \\\"request\\\".\"}\n"
        "{\"error\":\"Illegal argument: x is missing.\"}\n"
        "{\"error\":\"Illegal argument: x is missing.\"}\n");
}

TEST(JsonLinesTest, LongLinesAndReadOrWriteErrorsEndTheRun) {
    auto echo = [](const nlohmann::json&, JsonWriter&) { return OK(); };
    std::istringstream longLine("{\"op\":\"a\"}\n" + std::string(65, ' ') + "\n{\"op\":\"b\"}\n");
    std::ostringstream out;
    EXPECT_EQ(RunJsonLines(longLine, out, echo, {.maxLineBytes = 64}).GetError().Message(),
              "Illegal argument: Line 2 is longer than 64 bytes.");
    EXPECT_EQ(out.str(), "{\"op\":\"a\"}\n");

    // A stream that fails after its first line, as a read(2) error would.
    struct FailingBuffer : std::streambuf {
        std::string line = "{\"op\":\"a\"}\n";
        int_type underflow() override {
            if (eback() == line.data()) throw std::system_error(EIO, std::generic_category());
            setg(line.data(), line.data(), line.data() + line.size());
            return traits_type::to_int_type(line[0]);
        }
    } buffer;
    std::istream failing(&buffer);
    out.str("");
    EXPECT_EQ(RunJsonLines(failing, out, echo).GetError().Message(),
              "Cannot read the requests: Input/output error");
    EXPECT_EQ(out.str(), "{\"op\":\"a\"}\n");

    std::istringstream one("{\"op\":\"a\"}\n");
    std::ostringstream full;
    full.setstate(std::ios::badbit);
    EXPECT_EQ(RunJsonLines(one, full, echo).GetError().Message(),
              "Cannot write to standard output.");
}

TEST(RequestReadersTest, OneWordingAndNoIntegerIsRoundedOrWrapped) {
    auto r = nlohmann::json::parse(
        R"({"big":18446744073709551615,"frac":2.5,"exp":1e3,"neg":-3,"flag":1,"text":"x"})");
    EXPECT_EQ(IntegerMember(r, "big", 0).GetError().Message(),
              "Illegal argument: big must be an integer from -9223372036854775808 to "
              "9223372036854775807.");
    EXPECT_EQ(IntegerMember(r, "frac", 0).GetError().Message(),
              "Illegal argument: frac must be an integer.");
    EXPECT_EQ(IntegerMember(r, "exp", 0).GetError().Message(),
              "Illegal argument: exp must be an integer.");
    EXPECT_EQ(IntegerMember(r, "neg", 0, 0, 400).GetError().Message(),
              "Illegal argument: neg must be an integer from 0 to 400.");
    EXPECT_EQ(*IntegerMember(r, "absent", 7), 7);
    EXPECT_EQ(BoolMember(r, "flag", false).GetError().Message(),
              "Illegal argument: flag must be true or false.");
    EXPECT_EQ(NumberMember(r, "text").GetError().Message(),
              "Illegal argument: text must be a number.");
    EXPECT_EQ(StringMember(r, "absent").GetError().Message(),
              "Illegal argument: absent must be a string.");
    for (const char* bad : {"1,2", "1,2,3,4", "1,,3", "1,2,", "1,2,x", ""})
        EXPECT_EQ(ParseVec3(bad, "--dir").GetError().Message(),
                  std::string("Illegal argument: --dir expects 3 numbers separated by commas, "
                              "not '") +
                      bad + "'.")
            << bad;
    EXPECT_EQ(*ParseVec3("1,-2.5,inf", "--dir"), (Vec3{1, -2.5, HUGE_VAL}));
}

TEST(KelvoToolTest, ModulesAndConfigShowWhatTheModuleDeclares) {
    ToolRun modules = Kelvo("modules");
    ASSERT_EQ(modules.status, 0) << modules.out;
    for (const char* id : {"net.kelvo.render.ray", "net.kelvo.render.registry.cameraclasses",
                           "g_polygonIntersection", "net.kelvo.render.interface.rendergeneral"})
        EXPECT_NE(modules.out.find(id), std::string::npos) << id;
    // Classes reached by id alone are listed after the registries, each once.
    const size_t outside = modules.out.find("\noutside any registry (");
    ASSERT_NE(outside, std::string::npos) << modules.out;
    for (const char* line :
         {"net.kelvo.class.nodespace.base  [class]",
          "net.kelvo.nodes.class.materialexchange.default  [class]",
          "net.kelvo.nodes.class.previewimagerequest  [class]", "TextureImpl  [component]"})
        EXPECT_NE(modules.out.find(std::string("\n  ") + line + "\n", outside), std::string::npos)
            << line;
    auto listed = nlohmann::json::parse(Kelvo("modules --json").out)["outsideRegistries"];
    std::set<std::string> ids;
    for (const auto& e : listed) EXPECT_TRUE(ids.insert(e["id"].get<std::string>()).second) << e;
    EXPECT_TRUE(ids.count("net.kelvo.nodes.class.previewimagerequest"));
    EXPECT_FALSE(ids.count("net.kelvo.render.cameraclass.perspective"));  // in a registry

    ToolRun config = Kelvo("config --json");
    ASSERT_EQ(config.status, 0) << config.out;
    auto vars = nlohmann::json::parse(config.out);
    ASSERT_EQ(vars.size(), 3u);
    EXPECT_EQ(vars[0]["name"], "g_maxImageBytes");  // the host's own
    EXPECT_EQ(vars[0]["value"], "1073741824");
    EXPECT_EQ(vars[1]["name"], "g_polygonIntersection");
    EXPECT_EQ(vars[1]["value"], "");
    EXPECT_EQ(vars[1]["help"], "");
    EXPECT_EQ(vars[2]["help"], "Run render unittest statistics");

    ToolRun set = Kelvo("--set g_runUnitTestRenderStatistics=true config --json");
    EXPECT_EQ(nlohmann::json::parse(set.out)[2]["value"], "true");
}

// A word that names no command is named back with the nearest commands, at any depth; a
// command given without its subcommand keeps the parser's own message.
TEST(KelvoToolTest, AMisspeltCommandIsNamedWithTheNearestCommands) {
    EXPECT_EQ(Kelvo("previwe"), Failed("'previwe' is not a kelvo command. See 'kelvo --help'."
                                       "\n\nThe most similar command is\n\tpreview"));
    EXPECT_EQ(Kelvo("preview rendr --size 8"),
              Failed("'rendr' is not a kelvo preview command. See 'kelvo preview --help'."
                     "\n\nThe most similar command is\n\trender"));
    EXPECT_EQ(Kelvo("imag info x.png"), Failed("'imag' is not a kelvo command. See 'kelvo --help'."
                                               "\n\nThe most similar command is\n\timage"));
    // Two edits from both: every equally near command, in the order of kelvo --help.
    EXPECT_EQ(Kelvo("imges"), Failed("'imges' is not a kelvo command. See 'kelvo --help'."
                                     "\n\nThe most similar commands are\n\timage\n\ties"));
    ToolRun bare = Kelvo("preview");
    EXPECT_EQ(bare.status, 1);
    EXPECT_EQ(bare.out.find("is not a"), std::string::npos) << bare.out;
}

// --help lists exactly the operations the session answers.
TEST(KelvoToolTest, BsdfHelpListsEveryOperation) {
    ToolRun help = Kelvo("bsdf --help");
    ASSERT_EQ(help.status, 0) << help.out;
    std::istringstream lines(help.out.substr(help.out.find("Operations (")));
    std::string line;
    std::getline(lines, line);
    std::set<std::string> listed;
    while (std::getline(lines, line) && line.rfind("  ", 0) == 0)
        listed.insert(line.substr(2, line.find(' ', 2) - 2));
    const std::set<std::string> expected = {"new",
                                            "update",
                                            "reset",
                                            "ComputeBSDF",
                                            "SampleF",
                                            "PdfIndirect",
                                            "ComputeBSDFFrame",
                                            "ComputeMIPAngle",
                                            "ComputeAngle",
                                            "ComputeF_UVW",
                                            "D",
                                            "G",
                                            "Sample",
                                            "cache",
                                            "caches",
                                            "state",
                                            "models"};
    EXPECT_EQ(listed, expected);
    std::string requests;
    for (const auto& op : listed) requests += R"({"op":")" + op + "\"}\n";
    ToolRun answers = Kelvo("bsdf", requests + R"({"op":"Nope"})");
    EXPECT_EQ(answers.status, 0);
    const size_t unknown = answers.out.find("Unknown operation");
    EXPECT_NE(unknown, std::string::npos) << answers.out;
    EXPECT_EQ(answers.out.find("Unknown operation", unknown + 1), std::string::npos)
        << answers.out;  // only Nope's
}

TEST(KelvoToolTest, ErrorsGoToStderrWithStatusOne) {
    EXPECT_EQ(
        Kelvo("--set g_runUnitTestRenderStatistics=maybe config"),
        Failed("Illegal argument: Value 'maybe' is not a bool for g_runUnitTestRenderStatistics."));
    EXPECT_EQ(Kelvo("--set novalue config"),
              Failed("Illegal argument: --set expects NAME=VALUE, not 'novalue'."));
    EXPECT_EQ(Kelvo("--set g_runUnitTestRenderStatistic=true config"),
              Failed("Illegal argument: Configuration variable g_runUnitTestRenderStatistic "
                     "not found."));
    EXPECT_EQ(Kelvo("nosuchcommand"),
              Failed("'nosuchcommand' is not a kelvo command. See 'kelvo --help'."));
    EXPECT_EQ(Kelvo("--help").status, 0);
    // A full disk on stdout and a folder as stdin.
    EXPECT_EQ(Shell(Tool("modules") + " 2>&1 >/dev/full"),
              Failed("Cannot write to standard output."));
    EXPECT_EQ(
        Shell("echo '{\"op\":\"models\"}' | " + std::string(KELVO_TOOL) + " bsdf 2>&1 >/dev/full"),
        Failed("Cannot write to standard output."));
    EXPECT_EQ(Shell(Tool("bsdf") + " </ 2>&1"), Failed("Cannot read the requests: Is a directory"));
}

TEST(KelvoToolTest, DemoWritesItsReportsAndPreviewsTheSampleProfile) {
    fs::path out = fs::temp_directory_path() / ("kelvo_demo_" + std::to_string(::getpid()));
    ToolRun demo = Kelvo("demo --out " + out.string());
    ASSERT_EQ(demo.status, 0) << demo.out;
    for (const char* f :
         {"modules.txt", "modules.json", "config.json", "ramp.png", "pictures.txt", "cameras.json"})
        EXPECT_TRUE(fs::file_size(out / f) > 0) << f;
    EXPECT_EQ(PngSize(out / "ies_preview.png"), (std::pair<uint32_t, uint32_t>(512, 512)));
    // The library in resources/, a thumbnail and a sidecar per line.
    EXPECT_EQ(PngSize(out / "thumbnails" / "brushed steel.png"),
              (std::pair<uint32_t, uint32_t>(64, 64)));
    EXPECT_EQ(std::distance(fs::directory_iterator(out / "thumbnails"), fs::directory_iterator()),
              18);
    fs::remove_all(out);
}

TEST(KelvoCameraTest, CommandLinePrintsRaysWithRoundTripPrecision) {
    ToolRun run = Kelvo("camera --resolution 640,480 -p 640,240 -p 320,480");
    ASSERT_EQ(run.status, 0) << run.out;
    auto j = nlohmann::json::parse(run.out);
    EXPECT_EQ(j["class"], "net.kelvo.render.cameraclass.perspective");
    EXPECT_EQ(j["features"], 2);
    ASSERT_EQ(j["rays"].size(), 2u);
    // The edge ray's unnormalised direction is (0.25, 0, 1); every digit survives.
    const double n = 1 / std::sqrt(0.25 * 0.25 + 1);
    EXPECT_EQ(*ReadNumber(j["rays"][0]["direction"][0], "x"), 0.25 * n);
    EXPECT_EQ(*ReadNumber(j["rays"][0]["direction"][2], "z"), n);
    EXPECT_LT(*ReadNumber(j["rays"][1]["direction"][1], "y"), 0.0);  // screen y grows downward
    for (const char* m : {"origin", "xDifferentialOrigin", "yDifferentialOrigin",
                          "xDifferentialDirection", "yDifferentialDirection"})
        EXPECT_TRUE(j["rays"][1].contains(m)) << m;

    // Looking from +z back at the origin. A parallel camera keeps its direction when
    // flipped; only the feature bits change.
    run = Kelvo("camera --class parallel --position 0,0,5 --look-at 0,0,0 --flipped -p 320,240");
    ASSERT_EQ(run.status, 0) << run.out;
    j = nlohmann::json::parse(run.out);
    EXPECT_EQ(j["features"], 10);
    EXPECT_EQ(*ReadVec3(j["rays"][0]["origin"], "o"), (Vec3{0, 0, 5}));
    EXPECT_EQ(*ReadVec3(j["rays"][0]["direction"], "d"), (Vec3{0, 0, -1}));

    EXPECT_EQ(Kelvo("camera --class fisheye"),
              Failed("Illegal argument: Class fisheye not found."));
    EXPECT_EQ(Kelvo("camera -p 3"),
              Failed("Illegal argument: --pixel expects 2 numbers separated by commas, not '3'."));
    EXPECT_EQ(Kelvo("camera --position 1,2,3 --look-at 1,2,3"),
              Failed("Illegal argument: --look-at must differ from --position."));
    EXPECT_EQ(Kelvo("camera --position 0,0,0 --look-at 0,5,0"),
              Failed("Illegal argument: --up must not be parallel to the viewing direction."));
    for (const char* r : {"0,480", "640,-1", "nan,480"})
        EXPECT_EQ(Kelvo(std::string("camera --resolution ") + r),
                  Failed("Illegal argument: --resolution must be at least 1,1 and finite, not '" +
                         std::string(r) + "'."));
}

TEST(KelvoCameraTest, JsonLinesDriveNamedCamerasAndAnswerEveryLine) {
    ToolRun run = Kelvo(
        "camera --json-lines",
        R"({"camera":"p","op":"Init","class":"perspective","parameters":{)"
        R"("net.kelvo.render.camera.cameraparameters.screenresolution":[640,480],)"
        R"("net.kelvo.render.camera.cameraparameters.windowform":[1,2],)"
        R"("net.kelvo.render.camera.cameraparameters.fieldofview":1}})"
        "\n"
        R"({"camera":"p","op":"CreateScreenRay","point":[320,240],"ray":{"rendererData":[1,2,3,4],"time":0.5}})"
        "\n"
        R"({"camera":"p","op":"CalculateMIPComponents","point":[320,240],)"
        R"("ray":{"origin":[0,0,0]},"hit":{"position":[0,0,10],"normal":[0,0,1]}})"
        "\n"
        R"({"camera":"p","op":"WorldToScreen","point":[0,0,-1]})"
        "\n"
        R"({"camera":"p","op":"SetMatrix","matrix":{"offset":[1,2,3]}})"
        "\n"
        R"({"camera":"p","op":"GetParameters"})"
        "\n"
        R"({"camera":"q","op":"GetFeatures"})"
        "\n"
        R"({"camera":"p","op":"Turn"})"
        "\n"
        R"({"camera":"p","op":"CreateScreenRay","point":[1]})"
        "\n"
        R"({"camera":"p","op":"CalculateMIPComponents","point":[1,1],"hit":{"position":[0,0,1],"colour":1}})"
        "\n"
        R"({"camera":"q","op":"Init","class":"parallel","flipped":true})"
        "\n"
        R"({"camera":"q","op":"GetFeatures"})"
        "\n"
        R"({"camera":"q","op":"GetWorldToCameraMatrix"})"
        "\n");
    ASSERT_EQ(run.status, 0) << run.out;
    std::vector<nlohmann::json> lines;
    std::istringstream in(run.out);
    for (std::string line; std::getline(in, line);) lines.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(lines.size(), 13u) << run.out;
    EXPECT_EQ(lines[0]["ok"], true);
    // The renderer's members of a given ray come back untouched.
    EXPECT_EQ(lines[1]["ray"]["rendererData"][3], 4);
    EXPECT_EQ(lines[1]["ray"]["time"], 0.5);
    EXPECT_EQ(*ReadVec3(lines[1]["ray"]["direction"], "d"), (Vec3{0, 0, 1}));
    // At fieldofview 1 the footprint is where the next pixel's ray meets the plane.
    EXPECT_EQ(*ReadVec3(lines[2]["hit"]["footprintX"], "x"), (Vec3{10.0 / 640, 0, 10}));
    EXPECT_EQ(*ReadVec3(lines[2]["hit"]["footprintY"], "y"), (Vec3{0, -10.0 / 640, 10}));
    EXPECT_EQ(lines[2]["hit"]["polygonIndex"], -1);
    EXPECT_EQ(*ReadVec3(lines[3]["point"], "s"), (Vec3{320, 240, -1}));
    const auto& params = lines[5]["parameters"];
    EXPECT_EQ(params["net.kelvo.render.camera.cameraparameters.windowform"],
              nlohmann::json::parse("[1,2]"));
    EXPECT_EQ(*ReadVec3(params["net.kelvo.render.camera.cameraparameters.matrix"]["offset"], "o"),
              (Vec3{1, 2, 3}));
    EXPECT_EQ(lines[6]["error"],
              "Illegal argument: No camera named 'q': create it with Init and a class.");
    EXPECT_EQ(lines[7]["error"], "Illegal argument: Unknown operation 'Turn'.");
    EXPECT_EQ(lines[8]["error"], "Illegal argument: point must be an array of 2 numbers.");
    EXPECT_EQ(lines[9]["error"], "Illegal argument: hit has no member 'colour'.");
    EXPECT_EQ(lines[11]["features"], 10);
    EXPECT_EQ(lines[12]["matrix"],
              nlohmann::json::parse(
                  R"({"offset":[0,0,0],"xAxis":[1,0,0],"yAxis":[0,1,0],"zAxis":[0,0,1]})"));
}

class ImageCommandTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        _dir = fs::temp_directory_path() / ("kelvo_cli_images_" + std::to_string(::getpid()));
        fs::create_directories(_dir);
    }
    void TearDown() override { fs::remove_all(_dir); }
    std::string Path(const std::string& name) const { return (_dir / name).string(); }

    template <typename T>
    void Write(const std::string& name, PixelFormat f, COLORPROFILE p, const std::vector<T>& px,
               int64_t w, int64_t h) {
        ASSERT_TRUE(
            ExportImage(Url::FromFile(Path(name)), *testing_images::MakeImage(w, h, f, p, px))
                .Ok());
    }
    template <typename T>
    std::vector<T> Read(const std::string& name, PixelFormat f, COLORPROFILE p,
                        PixelFormat stored = {}) {
        auto image = ImportImage(Url::FromFile(Path(name)));
        EXPECT_TRUE(image.Ok()) << name;
        if (!image) return {};
        EXPECT_EQ((*image)->GetLayer(0)->GetPixelFormat(), stored.IsValid() ? stored : f) << name;
        return testing_images::Pixels<T>(**image, 0, f, p);
    }
    fs::path _dir;
};

TEST_F(ImageCommandTest, ConvertedFilesReadBackEqual) {
    // 8-bit: PNG -> TIFF -> PNG exactly; PNG -> EXR (half) -> PNG exactly. Float: EXR -> TIFF
    // -> EXR exactly; -> EXR --half within half precision.
    std::vector<uint8_t> rgba(7 * 5 * 4);
    for (size_t i = 0; i < rgba.size(); ++i) rgba[i] = uint8_t(i * 53 + 3);
    Write("a.png", kPixelRgba8, COLORPROFILE::SRGB, rgba, 7, 5);
    std::vector<float> rgb(6 * 4 * 3);
    for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = std::ldexp(float(i) + 0.123f, int(i % 9) - 4);
    Write("f.exr", kPixelRgb32f, COLORPROFILE::LINEAR, rgb, 6, 4);
    for (const char* step : {"a.png b.tif", "b.tif c.png", "c.png d.exr --half", "d.exr e.png",
                             "f.exr g.tiff", "g.tiff h.exr", "h.exr i.exr --half"}) {
        std::string s(step), in = s.substr(0, s.find(' ')), rest = s.substr(s.find(' ') + 1);
        ToolRun run = Kelvo("image convert " + Path(in) + " " + (_dir / "").string() + rest);
        ASSERT_EQ(run.status, 0) << step << ": " << run.out;
    }
    EXPECT_EQ(Read<uint8_t>("b.tif", kPixelRgba8, COLORPROFILE::SRGB), rgba);
    EXPECT_EQ(Read<uint8_t>("c.png", kPixelRgba8, COLORPROFILE::SRGB), rgba);
    // Floats become 8-bit sRGB in PNG, as the tool writes every picture: the same bytes.
    EXPECT_EQ(Read<uint8_t>("e.png", kPixelRgba8, COLORPROFILE::SRGB), rgba);
    EXPECT_EQ(Read<float>("h.exr", kPixelRgb32f, COLORPROFILE::LINEAR), rgb);
    auto half = Read<float>("i.exr", kPixelRgb32f, COLORPROFILE::LINEAR);
    ASSERT_EQ(half.size(), rgb.size());
    EXPECT_NE(half, rgb);  // --half reached the writer
    for (size_t i = 0; i < rgb.size(); ++i) EXPECT_NEAR(half[i], rgb[i], rgb[i] / 2048);
}

// One storage policy per format: what a viewer of each expects.
TEST_F(ImageCommandTest, ThePictureWriterStoresWhatEachFormatsViewersExpect) {
    // A wall of linear 0.521 is sRGB 191 on screen; linear times 255 would be 133.
    const std::vector<float> wall = {0.521f, 0.521f, 0.521f, 0.0f, 1.0f, 4.0f};
    const PictureView linear = PictureView::Of(2, 1, kPixelRgb32f, wall.data());
    for (const char* name : {"w.png", "w.exr", "w.tif"})
        ASSERT_TRUE(WritePicture(Path(name), linear).Ok()) << name;
    EXPECT_EQ(Read<uint8_t>("w.png", kPixelRgb8, COLORPROFILE::SRGB),
              (std::vector<uint8_t>{191, 191, 191, 0, 255, 255}));  // clamped above 1
    EXPECT_EQ(Read<float>("w.exr", kPixelRgb32f, COLORPROFILE::LINEAR), wall);
    EXPECT_EQ(Read<float>("w.tif", kPixelRgb32f, COLORPROFILE::LINEAR), wall);

    // 16-bit pictures keep their precision in PNG; bytes become floats in OpenEXR; asked to,
    // the writer stores the pixels as given (a linear PNG).
    const std::vector<uint16_t> deep = {0, 1000, 65535};
    ASSERT_TRUE(WritePicture(Path("d.png"), PictureView::Of(1, 1, kPixelRgb16, deep.data())).Ok());
    EXPECT_EQ(Read<uint16_t>("d.png", kPixelRgb16, COLORPROFILE::SRGB), deep);
    const std::vector<uint8_t> grey = {0, 128, 255, 64};
    ASSERT_TRUE(WritePicture(Path("g.exr"), PictureView::Of(2, 2, kPixelGrey8, grey.data())).Ok());
    EXPECT_EQ(Read<uint8_t>("g.exr", kPixelGrey8, COLORPROFILE::SRGB, kPixelGrey32f), grey);
    PictureOptions keep;
    keep.keepPixelFormat = true;
    ASSERT_TRUE(WritePicture(Path("k.png"), linear, keep).Ok());
    auto k = ImportImage(Url::FromFile(Path("k.png")));
    ASSERT_TRUE(k.Ok());
    EXPECT_EQ((*k)->GetLayer(0)->GetColorProfile(), COLORPROFILE::LINEAR);
}

TEST_F(ImageCommandTest, ThePictureWriterSkipsRowPaddingAndRefusesBadPicturesByName) {
    // Two rows of one pixel, 16 bytes apart.
    const std::vector<uint8_t> padded = {10, 20, 30, 0, 0, 0, 0,  0,  0, 0,
                                         0,  0,  0,  0, 0, 0, 40, 50, 60};
    PictureView view = PictureView::Of(1, 2, kPixelRgb8, padded.data());
    view.rowBytes = 16;
    ASSERT_TRUE(WritePicture(Path("p.png"), view).Ok());
    EXPECT_EQ(Read<uint8_t>("p.png", kPixelRgb8, COLORPROFILE::SRGB),
              (std::vector<uint8_t>{10, 20, 30, 40, 50, 60}));

    auto e = WritePicture(Path("z.png"), PictureView::Of(0, 4, kPixelRgb8, padded.data()));
    EXPECT_EQ(e.GetError().Message(), "Illegal argument: Invalid picture of 0 x 4.");
    e = WritePicture(Path("n.png"), PictureView::Of(1, 1, kPixelRgb8, nullptr));
    EXPECT_EQ(e.GetError().Message(), "Illegal argument: Invalid picture of 1 x 1.");
    e = WritePicture(Path("x.bmp"), view);
    EXPECT_EQ(e.GetError().Message(), "No file format writes file://" + Path("x.bmp") + ".");
    EXPECT_FALSE(fs::exists(Path("x.bmp")));
}

// A linear picture converted to PNG looks as the renderer's own PNG does: a wall of linear
// 0.521 is 191, not 0.521 x 255; and a swatch written as OpenEXR and converted equals the
// swatch written as PNG.
TEST_F(ImageCommandTest, LinearPicturesConvertToThePngsTheRendererWrites) {
    Write("wall.exr", kPixelRgb32f, COLORPROFILE::LINEAR, std::vector<float>(4 * 3, 0.521f), 2, 2);
    ASSERT_EQ(Kelvo("image convert " + Path("wall.exr") + " " + Path("wall.png")).status, 0);
    EXPECT_EQ(Read<uint8_t>("wall.png", kPixelRgb8, COLORPROFILE::SRGB),
              std::vector<uint8_t>(4 * 3, 191));
    ASSERT_EQ(Kelvo("image convert " + Path("wall.png") + " " + Path("back.exr")).status, 0);
    for (float v : Read<float>("back.exr", kPixelRgb32f, COLORPROFILE::LINEAR))
        EXPECT_NEAR(v, 0.521f, 0.002f);

    const std::string swatch = "preview render --scene plane --size 10,6 --spp 2 --quiet -o ";
    ASSERT_EQ(Kelvo(swatch + Path("s.png")).status, 0);
    ASSERT_EQ(Kelvo(swatch + Path("s.exr")).status, 0);
    ASSERT_EQ(Kelvo("image convert " + Path("s.exr") + " " + Path("c.png")).status, 0);
    const auto direct = Read<uint8_t>("s.png", kPixelRgb8, COLORPROFILE::SRGB);
    EXPECT_EQ(Read<uint8_t>("c.png", kPixelRgb8, COLORPROFILE::SRGB), direct);
    EXPECT_NE(direct, std::vector<uint8_t>(direct.size(), 0));
}

TEST_F(ImageCommandTest, InfoNamesFormatLayersAndProfile) {
    Write("g.png", kPixelGrey16, COLORPROFILE::SRGB, std::vector<uint16_t>(6, 999), 3, 2);
    ToolRun text = Kelvo("image info " + Path("g.png"));
    ASSERT_EQ(text.status, 0) << text.out;
    EXPECT_EQ(text.out,
              "file: " + Path("g.png") +
                  "\nformat: net.kelvo.fileformat.imagepng (PNG)\nsize: 3 x 2\nlayers: 1\n"
                  "layer 0: grey16 (16 bits per pixel), sRGB\n");
    ToolRun json = Kelvo("image info --json " + Path("g.png"));
    auto j = nlohmann::json::parse(json.out);
    EXPECT_EQ(j["format"], "net.kelvo.fileformat.imagepng");
    EXPECT_EQ(j["layers"][0]["pixelFormat"], "grey16");

    EXPECT_EQ(Kelvo("image info " + Path("none.png")),
              Failed("Cannot open file://" + Path("none.png") + ": no such file."));
    EXPECT_EQ(Kelvo("image convert " + Path("g.png") + " " + Path("g.bmp")),
              Failed("No file format writes file://" + Path("g.bmp") + "."));
}

TEST(BsdfCommandTest, ObjectsLiveForTheRunAndErrorsAnswerInLine) {
    ToolRun run = Kelvo(
        "bsdf",
        R"({"op":"new","name":"d","distribution":"beckmann","data":{"roughness":0.5},"caches":true}
{"op":"D","name":"d","h":[0,0.6,0.8]}
{"op":"cache","kind":0,"index":401800,"count":1}
{"op":"ComputeBSDF","model":"lambertbrdf","wo":[0,0,1],"wi":[0,0,-1]}
{"op":"PdfIndirect","model":"lambertbrdf","wo":[0,0,1],"wi":[0,0,-1]}
{"op":"cache","kind":4}
{"op":"ComputeBSDF","model":"lambertbrdf","wo":[0,0,1]}
{"op":"D","name":"d","h":[0,0,1],"useTable":"yes"}
)");
    EXPECT_EQ(run.status, 0);
    std::istringstream lines(run.out);
    std::vector<std::string> answers;
    for (std::string line; std::getline(lines, line);) answers.push_back(line);
    ASSERT_EQ(answers.size(), 8u) << run.out;
    EXPECT_EQ(answers[0], R"({"op":"new","name":"d"})");
    // c = 0.8 is coarse cell 800 of level 200: filled by the D request before it.
    auto d = nlohmann::json::parse(answers[1]);
    auto entry = nlohmann::json::parse(answers[2]);
    EXPECT_GT(entry["values"][0].get<double>(), 0.0);
    EXPECT_NEAR(d["D"].get<double>(), entry["values"][0].get<double>(), 1e-6);
    EXPECT_EQ(d["op"], "D");
    EXPECT_EQ(d["name"], "d");
    EXPECT_EQ(answers[3], R"({"op":"ComputeBSDF","value":[0.0,0.0,0.0],"density":0.0})");
    EXPECT_EQ(answers[4], R"({"op":"PdfIndirect","density":0.31830988618379069})");
    EXPECT_EQ(answers[5],
              R"({"op":"cache","error":"Illegal argument: Distribution kind 4 has no table."})");
    EXPECT_EQ(answers[6], R"({"op":"ComputeBSDF","error":"Illegal argument: wi is missing."})");
    EXPECT_EQ(
        answers[7],
        R"({"op":"D","name":"d","error":"Illegal argument: useTable must be true or false."})");
}

// "state" shows the derived fields of a never-updated object too; a fresh caches object
// starts with nothing computed while an object given the earlier tables still reads them.
TEST(BsdfCommandTest, StateShowsDerivedFieldsAndFreshCachesStartEmpty) {
    ToolRun run = Kelvo("bsdf", R"({"op":"state","distribution":"ggx"}
{"op":"new","name":"d","distribution":"beckmann","data":{"roughness":0.5},"caches":true}
{"op":"D","name":"d","h":[0,0.6,0.8]}
{"op":"state","name":"d"}
{"op":"caches","fresh":true}
{"op":"D","name":"d","h":[0,0.6,0.8]}
{"op":"caches"}
{"op":"state","name":"nobody"}
{"op":"caches","fresh":"yes"}
)");
    EXPECT_EQ(run.status, 0);
    std::istringstream lines(run.out);
    std::vector<std::string> a;
    for (std::string line; std::getline(lines, line);) a.push_back(line);
    ASSERT_EQ(a.size(), 9u) << run.out;
    EXPECT_EQ(a[0], R"({"op":"state","state":{"_table":false,"_roughness":0.0,"_lobeCosine":0.0,)"
                    R"("_dOffset":-1,"_sOffset":-1,"_cubedRoughness":-1,"_alpha":0.0,)"
                    R"("_alphaSquared":0.0}})");
    auto d = nlohmann::json::parse(a[3])["state"];
    EXPECT_EQ(d["_table"], true);
    EXPECT_EQ(d["_dOffset"], 200 * 2000);
    EXPECT_EQ(d["_sOffset"], 200 * 1000);
    EXPECT_EQ(d["_cubedRoughness"].get<double>(), 0.125);
    EXPECT_EQ(a[4], R"({"op":"caches","computed":[0,0,0,0]})");
    EXPECT_EQ(a[5], a[2]);
    EXPECT_EQ(a[6], R"({"op":"caches","computed":[0,0,0,0]})");
    EXPECT_EQ(a[7], R"({"op":"state","name":"nobody","error":"Illegal argument: No model or )"
                    R"(distribution named 'nobody'."})");
    EXPECT_EQ(a[8], R"({"op":"caches","error":"Illegal argument: fresh must be true or false."})");
}

TEST(BsdfCommandTest, PlotWritesAPngAndRefusesBadOptions) {
    fs::path png =
        fs::temp_directory_path() / ("kelvo_lobe_" + std::to_string(::getpid()) + ".png");
    ToolRun run = Kelvo(
        "bsdf plot -m ggxbtdf --data '{\"roughness\":0.4,\"iorin\":1.5}' --wo 0.3 0 1 "
        "--size 48 --caches -o " +
        png.string());
    EXPECT_EQ(run.status, 0) << run.out;
    std::ifstream in(png, std::ios::binary);
    char head[8] = {};
    in.read(head, 8);
    EXPECT_EQ(std::string(head + 1, 3), "PNG");
    fs::remove(png);
    // The suffix decides the format, also for OpenEXR.
    fs::path exr = png;
    exr.replace_extension(".exr");
    ASSERT_EQ(Kelvo("bsdf plot -m ggxbrdf --size 16 -o " + exr.string()).status, 0);
    std::ifstream exrIn(exr, std::ios::binary);
    exrIn.read(head, 4);
    EXPECT_EQ(std::string(head, 4), std::string("\x76\x2f\x31\x01", 4));
    fs::remove(exr);
    // An index and a count whose sum overflows are outside the table, not a wild read.
    EXPECT_EQ(Kelvo("bsdf", R"({"op":"cache","kind":0,"index":9223372036854775807,"count":2})"
                            "\n")
                  .out,
              R"({"op":"cache","error":"Illegal argument: Entries 9223372036854775807..)"
              R"(9223372036854775807 are outside the table."})"
              "\n");
    EXPECT_EQ(Kelvo("bsdf plot -m ggxbrdf --data '[1]'"),
              Failed("Illegal argument: --data must be a JSON object."));
    EXPECT_EQ(
        Kelvo("bsdf plot -m nosuchbrdf -o /dev/null"),
        Failed("Illegal argument: Class net.kelvo.render.bsdflegacyclass.nosuchbrdf not found."));
}

TEST(SelfTestCommandTest, RunsTheBsdfTestsAndAddsStatisticsOnRequest) {
    ToolRun run = Kelvo("selftest");
    EXPECT_EQ(run.status, 0) << run.out;
    EXPECT_NE(run.out.find("PASS net.kelvo.unittest.bsdftest\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("PASS net.kelvo.speedtestclass.speedtestbsdftest (speed test)"),
              std::string::npos);
    EXPECT_EQ(run.out.find("mean relative difference"), std::string::npos);
    run = Kelvo("--set g_runUnitTestRenderStatistics=true selftest");
    EXPECT_NE(run.out.find("mean relative difference"), std::string::npos) << run.out;
}

TEST(IntersectCommandTest, TracesTheBuiltInSceneOrAnObjFileThroughTheChosenEngine) {
    ToolRun run =
        Kelvo("intersect", R"({"op":"intersect","origin":[0,0,5],"direction":[0,0,-1],"tmax":100})"
                           "\n"
                           R"({"op":"occluded","origin":[0,0,5],"direction":[0,0,1]})"
                           "\n"
                           R"({"op":"intersect","origin":"up"})"
                           "\n");
    ASSERT_EQ(run.status, 0) << run.out;
    std::istringstream lines(run.out);
    std::string line;
    std::vector<nlohmann::json> answers;
    while (std::getline(lines, line)) answers.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(answers.size(), 3u) << run.out;
    EXPECT_EQ(answers[0]["op"], "intersect");
    EXPECT_EQ(answers[0]["hit"], true);
    EXPECT_DOUBLE_EQ(answers[0]["distance"].get<double>(), 4.0);  // the sphere's pole vertex
    EXPECT_EQ(answers[0]["object"], 0);
    EXPECT_EQ(answers[1], (nlohmann::json{{"op", "occluded"}, {"occluded", false}}));
    EXPECT_EQ(answers[2]["error"], "Illegal argument: origin must be an array of 3 numbers.");

    const std::string missing = "net.kelvo.render.intersectionclass.nope";
    const ToolRun notFound = Failed("Intersection class " + missing + " not found.");
    EXPECT_EQ(Kelvo("--set g_polygonIntersection=" + missing + " intersect"), notFound);
    EXPECT_EQ(Kelvo("intersect --class " + missing + " bench"), notFound);

    fs::path obj =
        fs::temp_directory_path() / ("kelvo_quad_" + std::to_string(::getpid()) + ".obj");
    std::ofstream(obj) << "v 0 0 0\nv 2 0 0\nv 2 2 0\nv 0 2 0\nvt 0 0\nvt 1 0\nvt 1 1\nvt 0 1\n"
                          "f 1/1 2/2 3/3 -1/-1\n";
    run = Kelvo(
        "intersect --class net.kelvo.render.intersectionclass.embreesingle -f " + obj.string(),
        R"({"op":"intersect","origin":[0.5,1.5,1],"direction":[0,0,-1]})");
    auto quad = nlohmann::json::parse(run.out);
    ASSERT_EQ(quad["uvw"].size(), 3u) << run.out;
    EXPECT_NEAR(quad["uvw"][0].get<double>(), 0.25, 1e-6);
    EXPECT_NEAR(quad["uvw"][1].get<double>(), 0.75, 1e-6);
    std::ofstream(obj) << "v 0 0 0\nf 1 2 3\n";
    EXPECT_EQ(Kelvo("intersect -f " + obj.string()),
              Failed("Illegal argument: OBJ file '" + obj.string() +
                     "' line 2: vertex '2' refers to a missing element."));
    fs::remove(obj);
}

// --- Limits: statuses, bounds, values and messages that misled ---------------------------------

TEST(KelvoLimitsTest, StatusesSayWhenOutputOrSettingsFailed) {
    EXPECT_EQ(Shell(Tool("--help > /dev/full 2>&1")).status, 1);
    EXPECT_EQ(Shell(Tool("--help 2>&1 > /dev/full")).out,
              "kelvo: Cannot write to standard output.\n");
    EXPECT_EQ(Shell(Tool("--help > /dev/null")).status, 0);
    for (const char* bad : {"1e3", "512M", "-1", "abc"})
        EXPECT_EQ(Kelvo(std::string("--set g_maxImageBytes=") + bad + " config"),
                  Failed(std::string("Illegal argument: Value '") + bad +
                         "' is not a number of bytes for g_maxImageBytes (a whole number from 1 "
                         "to 18446744073709551615)."));
    EXPECT_EQ(Kelvo("--set g_maxImageBytes=4096 config").status, 0);
}

TEST(KelvoLimitsTest, ExtremeIndicesAndCoordinatesNeitherOverflowNorMislead) {
    // index + count - 1 leaves int64 on either side: the sanitizer build stopped here.
    EXPECT_EQ(Kelvo("bsdf", R"({"op":"cache","kind":0,"index":1,"count":9223372036854775807})"
                            "\n"
                            R"({"op":"cache","kind":0,"index":-9223372036854775808,"count":0})"
                            "\n")
                  .out,
              R"({"op":"cache","error":"Illegal argument: Entries 1..9223372036854775807 are )"
              R"(outside the table."})"
              "\n"
              R"({"op":"cache","error":"Illegal argument: Entries -9223372036854775808..)"
              R"(-9223372036854775808 are outside the table."})"
              "\n");
    // A direction whose length is beyond double range still has a direction.
    const std::string ies = std::string(KELVO_SOURCE_DIR) + "/resources/ies/kelvo_sample_spot.ies";
    ToolRun huge = Kelvo("ies eval " + ies + " --dir 1e308,0,-1e308");
    ToolRun unit = Kelvo("ies eval " + ies + " --dir 1,0,-1");
    ASSERT_EQ(huge.status, 0) << huge.out;
    EXPECT_EQ(huge.out.substr(huge.out.find("  ")), unit.out.substr(unit.out.find("  ")));
    EXPECT_EQ(Kelvo("camera --position nan,0,0 --look-at 0,0,1 --pixel 0,0"),
              Failed("Illegal argument: --position must be 3 finite numbers, not 'nan,0,0'."));
    EXPECT_EQ(Kelvo("camera --position 0,0,0 --look-at 0,inf,1 --pixel 0,0"),
              Failed("Illegal argument: --look-at must be 3 finite numbers, not '0,inf,1'."));
    EXPECT_EQ(Kelvo("camera --position -1e308,0,0 --look-at 1e308,0,0 --pixel 0,0").status, 0);
}

TEST(KelvoLimitsTest, OutputsAreCheckedBeforeTheWorkAndSwatchesWithinTheBound) {
    const fs::path dir = fs::temp_directory_path() / ("kelvo_limits_" + std::to_string(::getpid()));
    fs::create_directories(dir);
    const std::string bad = (dir / "x.xyz").string(), lost = (dir / "no/x.png").string();
    // The input does not exist: the output's fault is told first, before anything is read.
    EXPECT_EQ(Kelvo("image convert /nonexistent.png " + bad),
              Failed("No file format writes file://" + bad + "."));
    EXPECT_EQ(Kelvo("image convert /nonexistent.png " + lost),
              Failed("Cannot write '" + lost + "': its folder '" + (dir / "no").string() +
                     "' does not exist."));
    EXPECT_EQ(Kelvo("preview render --iterations 100000 -o " + bad),
              Failed("No file format writes file://" + bad + "."));
    EXPECT_EQ(Kelvo("bsdf plot -m ggxbrdf -o " + lost).status, 1);
    EXPECT_FALSE(fs::exists(dir / "no"));
    // Buffers beyond the bound are refused before a swatch renders.
    EXPECT_EQ(Kelvo("preview render --size 16384 -o " + (dir / "x.png").string()),
              Failed("Illegal argument: 1 swatches of 16384 x 16384 need 17179869184 bytes of "
                     "buffers, more than 1073741824 (g_maxImageBytes)."));
    EXPECT_EQ(Kelvo("--set g_maxImageBytes=100000 preview render --size 40 -o " +
                    (dir / "x.png").string()),
              Failed("Illegal argument: 1 swatches of 40 x 40 need 102400 bytes of buffers, "
                     "more than 100000 (g_maxImageBytes)."));
    EXPECT_FALSE(fs::exists(dir / "x.png"));
    fs::remove_all(dir);
}

TEST(KelvoLimitsTest, MaterialsBeyondRangeGetTheirOwnWordsAndFinitePixels) {
    host::Initialize();  // the picture is read back in-process
    EXPECT_EQ(Kelvo("preview render --material '{\"data\":{\"roughness\":1e400}}' -o /dev/null"),
              Failed("Illegal argument: --material holds a number beyond the range of doubles."));
    EXPECT_EQ(Kelvo("preview render --material '{\"colour\":[1,' -o /dev/null"),
              Failed("Illegal argument: --material is not valid JSON (byte 14)."));
    EXPECT_EQ(Kelvo("preview render --material '[1]' -o /dev/null"),
              Failed("Illegal argument: --material must be a JSON object."));
    EXPECT_EQ(Kelvo("preview render --material '{\"colour\":[1,\"x\",1]}' -o /dev/null"),
              Failed("Illegal argument: colour must be an array of 3 numbers."));
    EXPECT_EQ(Kelvo("bsdf plot -m ggxbrdf --data '{\"roughness\":1e400}'"),
              Failed("Illegal argument: --data holds a number beyond the range of doubles."));

    // Colours and environments past float range saturate; no pixel is infinite.
    const fs::path exr =
        fs::temp_directory_path() / ("kelvo_hot_" + std::to_string(::getpid()) + ".exr");
    ToolRun run = Kelvo(
        "preview render --material '{\"colour\":[1e39,1e300,1],\"environment\":[1e300,1e39,"
        "1e300]}' --size 8 --iterations 1 --quiet -o " +
        exr.string());
    ASSERT_EQ(run.status, 0) << run.out;
    auto image = ImportImage(Url::FromFile(exr.string()));
    ASSERT_TRUE(image.Ok()) << image.GetError().Message();
    for (float v : testing_images::Pixels<float>(**image, 0, kPixelRgb32f, COLORPROFILE::LINEAR))
        ASSERT_TRUE(std::isfinite(v)) << v;
    fs::remove(exr);
}

}  // namespace
}  // namespace kelvo::cli
