// Images, pixel conversion, the file-format registry and the PNG, TIFF and OpenEXR files.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

#include "../image_test_util.h"
#include "host.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;
using namespace testing_images;

class ImagesTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        _dir = fs::temp_directory_path() / ("kelvo_images_" + std::to_string(::getpid()));
        fs::create_directories(_dir);
    }
    void TearDown() override { fs::remove_all(_dir); }
    Url File(const std::string& name) const { return Url::FromFile((_dir / name).string()); }
    fs::path _dir;
};

TEST_F(ImagesTest, PixelFormatsNameTheirLayout) {
    EXPECT_EQ(kPixelRgba16.GetBitsPerPixel(), 64);
    EXPECT_EQ(kPixelRgb32f.GetBitsPerPixel() / kPixelRgb32f.GetChannelCount(), 32);
    EXPECT_EQ(kPixelGrey8.Name(), "grey8");
    for (PixelFormat f : {kPixelGrey8, kPixelRgb16, kPixelRgba32f})
        EXPECT_EQ(*PixelFormat::FromName(f.Name()), f);
    EXPECT_EQ(PixelFormat::FromName("rgb12").GetError().Message(),
              "Illegal argument: Unknown pixel format 'rgb12'.");
    EXPECT_FALSE((PixelFormat{2, CHANNELTYPE::UINT8}).IsValid());
}

TEST_F(ImagesTest, ConversionsRoundTripEveryByteValue) {
    std::vector<uint8_t> bytes(256), back(256);
    for (int i = 0; i < 256; ++i) bytes[size_t(i)] = uint8_t(i);
    std::vector<uint16_t> words(256);
    std::vector<float> floats(256);
    // Through 16 bits, through float, and through linear light.
    ASSERT_TRUE(ConvertPixels(kPixelGrey8, COLORPROFILE::SRGB, bytes.data(), kPixelGrey16,
                              COLORPROFILE::SRGB, words.data(), 256)
                    .Ok());
    EXPECT_EQ(words[255], 65535);
    EXPECT_EQ(words[1], 257);
    ASSERT_TRUE(ConvertPixels(kPixelGrey16, COLORPROFILE::SRGB, words.data(), kPixelGrey8,
                              COLORPROFILE::SRGB, back.data(), 256)
                    .Ok());
    EXPECT_EQ(back, bytes);
    ASSERT_TRUE(ConvertPixels(kPixelGrey8, COLORPROFILE::SRGB, bytes.data(), kPixelGrey32f,
                              COLORPROFILE::LINEAR, floats.data(), 256)
                    .Ok());
    EXPECT_NEAR(floats[128], 0.2158605, 1e-6);
    ASSERT_TRUE(ConvertPixels(kPixelGrey32f, COLORPROFILE::LINEAR, floats.data(), kPixelGrey8,
                              COLORPROFILE::SRGB, back.data(), 256)
                    .Ok());
    EXPECT_EQ(back, bytes);
}

TEST_F(ImagesTest, ConversionsChangeChannelsAndClamp) {
    const uint8_t grey[2] = {10, 200};
    uint8_t rgba[8];
    ASSERT_TRUE(ConvertPixels(kPixelGrey8, COLORPROFILE::SRGB, grey, kPixelRgba8,
                              COLORPROFILE::SRGB, rgba, 2)
                    .Ok());
    EXPECT_EQ(std::vector<uint8_t>(rgba, rgba + 8),
              (std::vector<uint8_t>{10, 10, 10, 255, 200, 200, 200, 255}));
    const float rgb[9] = {1, 0, 0, -3, 7, 0, 0.5f, 0.5f, 0.5f};
    uint8_t out[3];
    ASSERT_TRUE(ConvertPixels(kPixelRgb32f, COLORPROFILE::LINEAR, rgb, kPixelGrey8,
                              COLORPROFILE::LINEAR, out, 3)
                    .Ok());
    // 0.2126 of red; 7 clamped; mid grey.
    EXPECT_EQ(std::vector<uint8_t>(out, out + 3), (std::vector<uint8_t>{54, 255, 128}));
    const float odd[2] = {NAN, -INFINITY};
    ASSERT_TRUE(ConvertPixels(kPixelGrey32f, COLORPROFILE::LINEAR, odd, kPixelGrey8,
                              COLORPROFILE::SRGB, out, 2)
                    .Ok());
    EXPECT_EQ(std::vector<uint8_t>(out, out + 2), (std::vector<uint8_t>{0, 0}));
    EXPECT_EQ(ConvertPixels(PixelFormat{}, COLORPROFILE::LINEAR, rgb, kPixelGrey8,
                            COLORPROFILE::LINEAR, out, 1)
                  .GetError()
                  .Message(),
              "Illegal argument: Invalid pixel format.");
}

TEST_F(ImagesTest, LayersCheckSizesAndRanges) {
    EXPECT_EQ(CreateImage(0, 5).GetError().Message(),
              "Illegal argument: Invalid image size 0 x 5.");
    EXPECT_EQ(
        CreateImageLayer(4, int64_t(1) << 25, kPixelRgb8, COLORPROFILE::SRGB).GetError().Message(),
        "Illegal argument: Invalid image size 4 x 33554432.");
    auto image = *CreateImage(4, 3);
    EXPECT_EQ(image->AddLayer(*CreateImageLayer(3, 4, kPixelRgb8, COLORPROFILE::SRGB))
                  .GetError()
                  .Message(),
              "Illegal argument: The layer of 3 x 4 does not fit the image of 4 x 3.");
    auto layer = *CreateImageLayer(4, 3, kPixelRgb16, COLORPROFILE::SRGB);
    auto reader = *layer->GetPixelHandler(kPixelRgba8, COLORPROFILE::SRGB);
    uint8_t buffer[64];
    EXPECT_EQ(reader->GetPixels(2, 1, 3, buffer).GetError().Message(),
              "Illegal argument: Pixels 2 to 4 of row 1 lie outside the 4 x 3 layer.");
    EXPECT_FALSE(reader->GetPixels(0, 3, 1, buffer).Ok());
    EXPECT_FALSE(reader->GetPixels(-1, 0, 1, buffer).Ok());
    EXPECT_TRUE(reader->GetPixels(1, 2, 3, buffer).Ok());
    EXPECT_EQ(buffer[3], 255);  // alpha of a layer without alpha
    EXPECT_EQ(image->GetLayer(0), nullptr);
}

TEST_F(ImagesTest, SuffixCheckIgnoresCase) {
    EXPECT_TRUE(CheckSuffix(Url::FromFile("/a/b.ies"), "ies"));
    EXPECT_TRUE(CheckSuffix(Url::FromFile("B.IeS"), "ies"));
    for (const char* path : {"/a/ies", "/a/.ies", "/a.ies/b", "/a/b.ies.txt", "/a/bies"})
        EXPECT_FALSE(CheckSuffix(Url::FromFile(path), "ies")) << path;
}

TEST_F(ImagesTest, FilesRoundTripThroughTheRegistry) {
    std::vector<uint8_t> rgba(5 * 3 * 4);
    for (size_t i = 0; i < rgba.size(); ++i) rgba[i] = uint8_t(i * 37 + 11);
    auto picture = MakeImage(5, 3, kPixelRgba8, COLORPROFILE::SRGB, rgba);
    std::vector<uint16_t> grey16(5 * 3);
    for (size_t i = 0; i < grey16.size(); ++i) grey16[i] = uint16_t(i * 4099 + 1);
    auto deep = MakeImage(5, 3, kPixelGrey16, COLORPROFILE::SRGB, grey16);
    std::vector<float> floats(5 * 3 * 3);
    for (size_t i = 0; i < floats.size(); ++i) floats[i] = float(i) * 0.37f - 2.0f;
    auto hdr = MakeImage(5, 3, kPixelRgb32f, COLORPROFILE::LINEAR, floats);
    ASSERT_TRUE(hdr->AddLayer(picture->GetLayer(0)).Ok());  // a second page for TIFF

    struct Case {
        std::string name;
        StrongRef<ImageInterface> image;
        const char* format;
    };
    for (const Case& c : {Case{"p.png", picture, "net.kelvo.fileformat.imagepng"},
                          Case{"d.PNG", deep, "net.kelvo.fileformat.imagepng"},
                          Case{"t.tif", hdr, "net.kelvo.fileformat.imagetiff"},
                          Case{"p.tiff", picture, "net.kelvo.fileformat.imagetiff"},
                          Case{"h.exr", hdr, "net.kelvo.fileformat.imageexr"}}) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(ExportImage(File(c.name), *c.image).Ok());
        EXPECT_EQ(DetectFileFormat(File(c.name))->Text(), c.format);
        auto read = ImportImage(File(c.name));
        ASSERT_TRUE(read.Ok()) << read.GetError().Message();
        EXPECT_EQ((*read)->GetProperties().Get<Id>(kImagePropertyFileFormat).Text(), c.format);
        auto layer = (*read)->GetLayer(0);
        PixelFormat f = c.image->GetLayer(0)->GetPixelFormat();
        EXPECT_EQ(layer->GetPixelFormat(), f);
        EXPECT_EQ(layer->GetColorProfile(), c.image->GetLayer(0)->GetColorProfile());
        if (f.type == CHANNELTYPE::FLOAT32)
            EXPECT_EQ(Pixels<float>(**read, 0, f, COLORPROFILE::LINEAR), floats);
        else if (f.type == CHANNELTYPE::UINT16)
            EXPECT_EQ(Pixels<uint16_t>(**read, 0, f, COLORPROFILE::SRGB), grey16);
        else
            EXPECT_EQ(Pixels<uint8_t>(**read, 0, f, COLORPROFILE::SRGB), rgba);
    }
    auto pages = *ImportImage(File("t.tif"));
    ASSERT_EQ(pages->GetLayerCount(), 2);
    EXPECT_EQ(Pixels<uint8_t>(*pages, 1, kPixelRgba8, COLORPROFILE::SRGB), rgba);

    // Half floats keep about three decimal digits.
    DataDictionary half;
    ASSERT_TRUE(half.Set(kExportOptionHalf, true).Ok());
    ASSERT_TRUE(ExportImage(File("half.exr"), *hdr, {}, half).Ok());
    auto back =
        Pixels<float>(**ImportImage(File("half.exr")), 0, kPixelRgb32f, COLORPROFILE::LINEAR);
    for (size_t i = 0; i < floats.size(); ++i)
        EXPECT_NEAR(back[i], floats[i], std::fabs(floats[i]) / 1024 + 1e-7);
}

TEST_F(ImagesTest, ContentDecidesAndBadFilesFailCleanly) {
    auto image = MakeImage(2, 2, kPixelRgb8, COLORPROFILE::SRGB, std::vector<uint8_t>(12, 7));
    ASSERT_TRUE(ExportImage(File("real.tif"), *image).Ok());
    fs::copy_file(_dir / "real.tif", _dir / "named.png");
    EXPECT_EQ(DetectFileFormat(File("named.png"))->Text(), "net.kelvo.fileformat.imagetiff");

    std::ofstream(_dir / "text.png") << "hello";
    EXPECT_TRUE(DetectFileFormat(File("text.png"))->IsEmpty());
    EXPECT_EQ(ImportImage(File("text.png")).GetError().Message(),
              "No file format recognises " + File("text.png").ToString() + ".");
    // A PNG signature followed by garbage, and a PNG cut short.
    std::ofstream(_dir / "bad.png", std::ios::binary)
        << "\x89PNG\r\n\x1a\n garbage garbage garbage";
    auto bad = ImportImage(File("bad.png"));
    EXPECT_EQ(
        bad.GetError().Message().rfind("Cannot read PNG " + File("bad.png").ToString() + ": ", 0),
        0u)
        << bad.GetError().Message();
    ASSERT_TRUE(ExportImage(File("whole.png"), *image).Ok());
    fs::resize_file(_dir / "whole.png", fs::file_size(_dir / "whole.png") - 20);
    std::ofstream(_dir / "bad.exr", std::ios::binary) << "\x76\x2f\x31\x01 not really";
    std::ofstream(_dir / "bad.tif", std::ios::binary) << "II*\0garbage";
    for (const char* name : {"whole.png", "bad.exr", "bad.tif"})
        EXPECT_FALSE(ImportImage(File(name)).Ok()) << name;

    EXPECT_EQ(ExportImage(File("x.bmp"), *image).GetError().Message(),
              "No file format writes " + File("x.bmp").ToString() + ".");
    EXPECT_EQ(
        ExportImage(File("x.png"), *image, Id("net.kelvo.fileformat.none")).GetError().Message(),
        "No file format writes net.kelvo.fileformat.none.");
    EXPECT_FALSE(ExportImage(Url::FromFile((_dir / "no/such/dir/x.png").string()), *image).Ok());
}

// A PNG chunk with its CRC-32.
std::string PngChunk(const std::string& type, const std::string& data) {
    auto be = [](uint32_t v) {
        return std::string{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    };
    uint32_t crc = 0xffffffffu;
    for (unsigned char c : type + data) {
        crc ^= c;
        for (int k = 0; k < 8; ++k) crc = crc & 1 ? (crc >> 1) ^ 0xedb88320u : crc >> 1;
    }
    return be(uint32_t(data.size())) + type + data + be(~crc);
}

TEST_F(ImagesTest, AHeaderThatLiesAboutItsSizeIsRefusedBeforeAllocating) {
    std::string ihdr("\x00\x01\x86\xa0\x00\x01\x86\xa0\x08\x02\x00\x00\x00",
                     13);  // 100000 x 100000
    std::ofstream(_dir / "huge.png", std::ios::binary)
        << std::string("\x89PNG\r\n\x1a\n", 8) + PngChunk("IHDR", ihdr) + PngChunk("IDAT", "") +
               PngChunk("IEND", "");
    EXPECT_EQ(ImportImage(File("huge.png")).GetError().Message(),
              "Cannot read PNG " + File("huge.png").ToString() + ": invalid size 100000 x 100000.");
}

TEST_F(ImagesTest, ImportFailsCleanlyWhenMemoryRunsOut) {
    std::vector<uint8_t> rgb(16 * 16 * 3, 90);
    ASSERT_TRUE(
        ExportImage(File("m.png"), *MakeImage(16, 16, kPixelRgb8, COLORPROFILE::SRGB, rgb)).Ok());
    int64_t before = host::LiveAllocations();
    for (int n = 1; n < 40; ++n) {
        host::FailNthAllocation(n);
        auto r = ImportImage(File("m.png"));
        host::FailNthAllocation(0);
        EXPECT_EQ(r.GetError().Message(), r.Ok() ? "" : "Out of memory.") << n;
    }
    EXPECT_EQ(host::LiveAllocations(), before);
}

// A format offered the way a module offers one: three classes created by id.
class TestFormat final : public Implements<FileFormatInterface> {
public:
    Result<bool> Detect(const Url& url) const override {
        if (!CheckSuffix(url, "tst")) return false;
        KELVO_ASSIGN_OR_RETURN(auto in, OpenInputStream(url));
        char head[4] = {};
        KELVO_ASSIGN_OR_RETURN(size_t n, in->Read(head, 4));
        return n == 4 && std::memcmp(head, "TEST", 4) == 0;
    }
    bool MatchesSuffix(const Url& url) const override { return CheckSuffix(url, "tst"); }
    std::string_view GetName() const override { return "Test"; }
};
class TestHandler final : public Implements<FileFormatHandlerInterface> {
public:
    Id GetFileFormat() const override { return Id("net.kelvo.fileformat.test"); }
    Id GetImportClass() const override { return Id("net.kelvo.mediasession.test.import"); }
    Id GetExportClass() const override { return Id(); }
};
class TestImport final : public Implements<MediaImportInterface> {
public:
    Result<StrongRef<ImageInterface>> Import(const Url&) override {
        KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(2, 1));
        KELVO_ASSIGN_OR_RETURN(auto layer,
                               CreateImageLayer(2, 1, kPixelGrey8, COLORPROFILE::LINEAR));
        uint8_t px[2] = {1, 2};
        KELVO_TRY(
            (*layer->SetPixelHandler(kPixelGrey8, COLORPROFILE::LINEAR))->SetPixels(0, 0, 2, px));
        KELVO_TRY(image->AddLayer(layer));
        return image;
    }
};

// A class entry the way a module's binding declares one.
EntryRecord ClassEntry(Id id, Id registry, Id kindId, CreateFunction create) {
    return {ENTRYKIND::CLASS, id.Text().data(), id.Text().size(), id.Hash(), false, registry,
            kindId,           KELVO_HERE,       nullptr,          create,    {},    nullptr};
}

TEST_F(ImagesTest, AModuleFormatOpensLikeTheHostsOwn) {
    EntryRecord entries[] = {
        ClassEntry(Id("net.kelvo.fileformat.test"), kFileFormatsRegistry,
                   FileFormatInterface::InterfaceId(), &CreateInstance<TestFormat>),
        ClassEntry(Id("net.kelvo.fileformathandler.test"), kFileFormatHandlersRegistry,
                   FileFormatHandlerInterface::InterfaceId(), &CreateInstance<TestHandler>),
        ClassEntry(Id("net.kelvo.mediasession.test.import"), Id(),
                   MediaImportInterface::InterfaceId(), &CreateInstance<TestImport>)};
    for (EntryRecord& e : entries) ASSERT_TRUE(host::InsertEntry(e).Ok());

    std::ofstream(_dir / "a.TST") << "TEST data";
    std::ofstream(_dir / "b.tst") << "other";
    auto image = ImportImage(File("a.TST"));
    ASSERT_TRUE(image.Ok()) << image.GetError().Message();
    EXPECT_EQ((*image)->GetProperties().Get<Id>(kImagePropertyFileFormat).Text(),
              "net.kelvo.fileformat.test");
    EXPECT_EQ((*image)->GetProperties().Get<Url>(kImagePropertyUrl), File("a.TST"));
    EXPECT_EQ(Pixels<uint8_t>(**image, 0, kPixelGrey8, COLORPROFILE::LINEAR),
              (std::vector<uint8_t>{1, 2}));
    EXPECT_FALSE(ImportImage(File("b.tst")).Ok());
    // The format has no export step.
    EXPECT_EQ(ExportImage(File("c.tst"), **image).GetError().Message(),
              "No file format writes " + File("c.tst").ToString() + ".");
    for (int i = 2; i >= 0; --i) host::RemoveEntry(entries[i]);
    EXPECT_FALSE(ImportImage(File("a.TST")).Ok());
}

}  // namespace
}  // namespace kelvo
