// Pictures built to hurt: sizes that exceed the byte budget across pages, huge chunks,
// pipes, channel layouts the readers mishandled, and files that cannot be opened or written.
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfOutputFile.h>
#include <ImfRgbaFile.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "../image_test_util.h"
#include "host.h"
#include "kelvo/config.h"
#include "kelvo/diagnostics.h"
#include "kelvo/mediasession_output.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;
using namespace testing_images;

std::string Be32(uint32_t v) { return {char(v >> 24), char(v >> 16), char(v >> 8), char(v)}; }

std::string PngChunk(const std::string& type, const std::string& data, uint32_t length) {
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : type + data) {
        crc ^= c;
        for (int k = 0; k < 8; ++k) crc = crc & 1 ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
    }
    return Be32(length) + type + data + Be32(~crc);
}

// A PNG header for w x h pixels of `depth` bits in `type`, then the given chunks.
std::string PngFile(uint32_t w, uint32_t h, char depth, char type, const std::string& rest) {
    std::string ihdr = Be32(w) + Be32(h) + depth + type + std::string(3, '\0');
    return std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr, 13) + rest;
}

class HostileFilesTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        _dir = fs::temp_directory_path() / ("kelvo_hostile_" + std::to_string(::getpid()));
        fs::create_directories(_dir);
    }
    void TearDown() override {
        (void)host::ConfigSet("g_maxImageBytes", "1073741824");
        fs::remove_all(_dir);
    }
    Url File(const std::string& name) const { return Url::FromFile((_dir / name).string()); }
    std::string Write(const std::string& name, const std::string& bytes) {
        std::ofstream(_dir / name, std::ios::binary) << bytes;
        return File(name).ToString();
    }
    fs::path _dir;
};

TEST_F(HostileFilesTest, PixelsBeyondTheByteBudgetAreRefusedFromTheHeaderAlone) {
    // 69 bytes declaring 16384 x 16384 RGBA in 16 bits: 2 GiB, refused before any pixel.
    std::string big = Write(
        "big.png", PngFile(16384, 16384, 16, 6, PngChunk("IDAT", "", 0) + PngChunk("IEND", "", 0)));
    EXPECT_EQ(ImportImage(Url::FromFile(big.substr(7))).GetError().Message(),
              "Cannot read PNG " + big +
                  ": its pixels need more than 1073741824 bytes (g_maxImageBytes).");
    // Its size is still known: the header is all `info` reads.
    auto info = ReadImageInfo(File("big.png"));
    ASSERT_TRUE(info.Ok()) << info.GetError().Message();
    EXPECT_EQ(info->width, 16384);
    EXPECT_EQ(info->layers.at(0).format, kPixelRgba16);

    // A chunk claiming 2 GiB in a tiny file is refused, not allocated.
    std::string chunk = Write("chunk.png", PngFile(4, 4, 8, 2, PngChunk("zTXt", "k", 0x7fff0000u)));
    EXPECT_EQ(ImportImage(File("chunk.png")).GetError().Message(),
              "Cannot read PNG " + chunk +
                  ": the file ends early (chunk zTXt claims 2147418112 bytes, 5 remain).");

    // The budget counts every page together: 20 pages of 16 KiB each pass alone, not jointly.
    auto image = *CreateImage(64, 64);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(image
                        ->AddLayer(MakeImage(64, 64, kPixelRgba8, COLORPROFILE::SRGB,
                                             std::vector<uint8_t>(64 * 64 * 4, uint8_t(i)))
                                       ->GetLayer(0))
                        .Ok());
    ASSERT_TRUE(ExportImage(File("pages.tif"), *image).Ok());
    ASSERT_TRUE(host::ConfigSet("g_maxImageBytes", "100000").Ok());
    EXPECT_EQ(ImportImage(File("pages.tif")).GetError().Message(),
              "Cannot read TIFF " + File("pages.tif").ToString() +
                  ": its pixels need more than 100000 bytes (g_maxImageBytes).");
    ASSERT_TRUE(host::ConfigSet("g_maxImageBytes", "400000").Ok());
    auto pages = ImportImage(File("pages.tif"));
    ASSERT_TRUE(pages.Ok()) << pages.GetError().Message();
    EXPECT_EQ((*pages)->GetLayerCount(), 20);
    EXPECT_EQ(ReadImageInfo(File("pages.tif"))->layers.size(), 20u);
}

TEST_F(HostileFilesTest, OpenExrGreyWithAlphaKeepsItsGrey) {
    const int w = 3, h = 2;
    std::vector<float> y(w * h, 0.25f), a(w * h, 0.5f);
    {
        Imf::Header header(w, h);
        header.channels().insert("Y", Imf::Channel(Imf::FLOAT));
        header.channels().insert("A", Imf::Channel(Imf::FLOAT));
        Imf::FrameBuffer fb;
        fb.insert("Y", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(y.data()), 4, 4 * w));
        fb.insert("A", Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(a.data()), 4, 4 * w));
        Imf::OutputFile file((_dir / "ya.exr").c_str(), header);
        file.setFrameBuffer(fb);
        file.writePixels(h);
    }
    auto image = ImportImage(File("ya.exr"));
    ASSERT_TRUE(image.Ok()) << image.GetError().Message();
    auto px = Pixels<float>(**image, 0, kPixelRgba32f, COLORPROFILE::LINEAR);
    for (size_t i = 0; i < px.size(); i += 4)
        EXPECT_EQ(std::vector<float>(px.begin() + i, px.begin() + i + 4),
                  (std::vector<float>{0.25f, 0.25f, 0.25f, 0.5f}));
}

// Writes an OpenEXR file of w x h pixels with the given float channels, each a constant.
void WriteExrChannels(const fs::path& path, int w, int h,
                      const std::vector<std::pair<std::string, float>>& channels) {
    Imf::Header header(w, h);
    std::vector<std::vector<float>> planes;
    for (const auto& [name, value] : channels) {
        header.channels().insert(name, Imf::Channel(Imf::FLOAT));
        planes.emplace_back(size_t(w * h), value);
    }
    Imf::FrameBuffer fb;
    for (size_t k = 0; k < channels.size(); ++k)
        fb.insert(channels[k].first,
                  Imf::Slice(Imf::FLOAT, reinterpret_cast<char*>(planes[k].data()), 4, 4 * w));
    Imf::OutputFile file(path.c_str(), header);
    file.setFrameBuffer(fb);
    file.writePixels(h);
}

TEST_F(HostileFilesTest, OpenExrChannelLayoutsReadAsTheColourTheyHold) {
    // Luminance with chroma, as the library's RGBA interface writes it: a saturated red.
    {
        const int w = 6, h = 4;
        std::vector<Imf::Rgba> red(size_t(w * h), Imf::Rgba(0.8f, 0.1f, 0.05f, 1.0f));
        Imf::RgbaOutputFile file((_dir / "yc.exr").c_str(), w, h, Imf::WRITE_YCA);
        file.setFrameBuffer(red.data(), 1, w);
        file.writePixels(h);
    }
    auto yc = ImportImage(File("yc.exr"));
    ASSERT_TRUE(yc.Ok()) << yc.GetError().Message();
    ASSERT_EQ((*yc)->GetLayer(0)->GetPixelFormat(), kPixelRgba32f);
    auto px = Pixels<float>(**yc, 0, kPixelRgba32f, COLORPROFILE::LINEAR);
    for (size_t i = 0; i < px.size(); i += 4) {
        EXPECT_NEAR(px[i], 0.8f, 0.02f);  // chroma is stored at half precision
        EXPECT_NEAR(px[i + 1], 0.1f, 0.02f);
        EXPECT_NEAR(px[i + 2], 0.05f, 0.02f);
        EXPECT_EQ(px[i + 3], 1.0f);
    }
    EXPECT_EQ(ReadImageInfo(File("yc.exr"))->layers[0].format, kPixelRgba32f);

    // G with A, and R with Y: colour wins, missing colour channels are 0 and Y is not read.
    WriteExrChannels(_dir / "ga.exr", 2, 2, {{"G", 0.5f}, {"A", 0.25f}});
    WriteExrChannels(_dir / "ry.exr", 2, 2, {{"R", 0.75f}, {"Y", 0.5f}});
    host::CapturedDiagnostics captured;
    const std::vector<std::pair<std::string, std::vector<float>>> cases = {
        {"ga.exr", {0.0f, 0.5f, 0.0f, 0.25f}}, {"ry.exr", {0.75f, 0.0f, 0.0f}}};
    for (const auto& [name, expected] : cases) {
        auto image = ImportImage(File(name));
        ASSERT_TRUE(image.Ok()) << name << ": " << image.GetError().Message();
        const PixelFormat f = expected.size() == 4 ? kPixelRgba32f : kPixelRgb32f;
        EXPECT_EQ((*image)->GetLayer(0)->GetPixelFormat(), f) << name;
        auto got = Pixels<float>(**image, 0, f, COLORPROFILE::LINEAR);
        EXPECT_EQ(std::vector<float>(got.begin(), got.begin() + ptrdiff_t(expected.size())),
                  expected)
            << name;
    }
    EXPECT_EQ(captured.Lines(),
              (std::vector<std::string>{"OpenEXR file " + File("ry.exr").ToString() +
                                        " has colour and luminance channels; Y is not read."}));
    WriteExrChannels(_dir / "uv.exr", 2, 2, {{"U", 0.5f}, {"V", 0.25f}});
    EXPECT_EQ(ImportImage(File("uv.exr")).GetError().Message(),
              "OpenEXR file " + File("uv.exr").ToString() + " has no R, G, B or Y channels.");
}

TEST_F(HostileFilesTest, ValuesBeyondHalfRangeSaturateAndHeaderOnlyTiffsSayWhy) {
    auto image = MakeImage(2, 1, kPixelRgb32f, COLORPROFILE::LINEAR,
                           std::vector<float>{1e6f, -1e30f, 0.5f, 70000.0f, 1.0f, -2.0f});
    DataDictionary half;
    ASSERT_TRUE(half.Set(kExportOptionHalf, true).Ok());
    ASSERT_TRUE(ExportImage(File("h.exr"), *image, {}, half).Ok());
    auto back = ImportImage(File("h.exr"));
    ASSERT_TRUE(back.Ok()) << back.GetError().Message();
    EXPECT_EQ(Pixels<float>(**back, 0, kPixelRgb32f, COLORPROFILE::LINEAR),
              (std::vector<float>{65504.0f, -65504.0f, 0.5f, 65504.0f, 1.0f, -2.0f}));

    // A TIFF header alone: its first directory offset is 0, which libtiff does not explain.
    Write("head.tif", std::string("II*\0\0\0\0\0", 8));
    EXPECT_EQ(ImportImage(File("head.tif")).GetError().Message(),
              "Cannot read TIFF " + File("head.tif").ToString() +
                  ": no readable picture directory (the file is cut short or damaged).");
}

TEST_F(HostileFilesTest, TheByteBoundTakesWholeNumbersOnly) {
    ASSERT_TRUE(host::ConfigSet("g_maxImageBytes", "4096").Ok());
    for (const char* bad : {"1e3", "512M", "-1", "abc", "0", "", " 12", "18446744073709551616"})
        EXPECT_EQ(host::ConfigSet("g_maxImageBytes", bad).GetError().Message(),
                  std::string("Illegal argument: Value '") + bad +
                      "' is not a number of bytes for g_maxImageBytes (a whole number from 1 to "
                      "18446744073709551615).");
    EXPECT_EQ(*ConfigGetString("g_maxImageBytes"), "4096");  // a refused value changes nothing
    ASSERT_TRUE(host::ConfigSet("g_maxImageBytes", "18446744073709551615").Ok());
}

TEST_F(HostileFilesTest, PicturesPipedInAreReadOnce) {
    // Detection and import each open the source; a pipe gives its bytes only once.
    std::vector<uint8_t> rgb(5 * 4 * 3, 77);
    for (const char* name : {"p.png", "p.tif", "p.exr"}) {
        ASSERT_TRUE(
            ExportImage(File(name), *MakeImage(5, 4, kPixelRgb8, COLORPROFILE::SRGB, rgb)).Ok());
        std::ifstream in(_dir / name, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        fs::path fifo = _dir / "pipe";
        fs::remove(fifo);
        ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
        std::thread writer([&] { std::ofstream(fifo, std::ios::binary) << bytes; });
        auto image = ImportImage(Url::FromFile(fifo.string()));
        writer.join();
        ASSERT_TRUE(image.Ok()) << name << ": " << image.GetError().Message();
        EXPECT_EQ((*image)->GetWidth(), 5);
        EXPECT_EQ((*image)->GetProperties().Get<Url>(kImagePropertyUrl).ToString(),
                  Url::FromFile(fifo.string()).ToString());
    }
}

TEST_F(HostileFilesTest, FailuresSayWhyAndNameTheFile) {
    auto image = MakeImage(2, 2, kPixelRgb8, COLORPROFILE::SRGB, std::vector<uint8_t>(12, 1));
    std::string missing = File("missing.png").ToString();
    EXPECT_EQ(ImportImage(File("missing.png")).GetError().Message(),
              "Cannot open " + missing + ": no such file.");
    fs::create_directories(_dir / "folder.png");
    EXPECT_EQ(ImportImage(File("folder.png")).GetError().Message(),
              "Cannot open " + File("folder.png").ToString() + ": it is a directory.");
    EXPECT_EQ(ExportImage(Url::FromFile("/dev/full"), *image, Id("net.kelvo.fileformat.imagepng"))
                  .GetError()
                  .Message(),
              "Cannot write PNG file:///dev/full: the disk is full.");
    EXPECT_EQ(
        ExportImage(File("no/such/x.tif"), *image).GetError().Message(),
        "Cannot write TIFF " + File("no/such/x.tif").ToString() + ": its folder does not exist.");
    ASSERT_TRUE(ExportImage(File("whole.png"), *image).Ok());
    fs::resize_file(_dir / "whole.png", fs::file_size(_dir / "whole.png") - 20);
    EXPECT_EQ(ImportImage(File("whole.png")).GetError().Message(),
              "Cannot read PNG " + File("whole.png").ToString() +
                  ": the file ends early (chunk IDAT claims 22 bytes, 18 remain).");
    if (::geteuid() != 0) {  // root reads anything
        ASSERT_TRUE(ExportImage(File("locked.png"), *image).Ok());
        fs::permissions(_dir / "locked.png", fs::perms::none);
        EXPECT_EQ(ImportImage(File("locked.png")).GetError().Message(),
                  "Cannot open " + File("locked.png").ToString() + ": permission denied.");
    }
}

}  // namespace
}  // namespace kelvo
