#include "implementation/media_io_ies.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <string>

#include "../../image_test_util.h"
#include "ies_test_util.h"
#include "kelvo/jobs.h"
#include "kelvo/mediasession_output.h"

namespace kelvo {
namespace {
namespace fs = std::filesystem;
using namespace testing_ies;
using testing_images::Pixels;

TEST(IesDetectTest, ContentWithinTheFirst1024Bytes) {
    EXPECT_TRUE(detail::DetectIesContent("IESNA:LM-63-2002\n[MANUFAC] x\nTILT=NONE\n"));
    EXPECT_TRUE(detail::DetectIesContent("old file without a version line\nTILT=NONE\n"));
    EXPECT_TRUE(detail::DetectIesContent("IES:LM-63-2019\nTILT=NONE"));  // "TILT" admits it
    EXPECT_FALSE(detail::DetectIesContent("IES:LM-63-2019\n"));
    EXPECT_FALSE(detail::DetectIesContent(""));
    EXPECT_FALSE(detail::DetectIesContent(std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16)));
    EXPECT_FALSE(detail::DetectIesContent("tilt=none iesna"));  // the markers are upper case

    // "TILT" ending at byte 1024 counts; one byte later it does not.
    std::string padding(1020, ' ');
    EXPECT_TRUE(detail::DetectIesContent(padding + "TILT=NONE"));
    EXPECT_FALSE(detail::DetectIesContent(padding + " TILT=NONE"));
    EXPECT_FALSE(detail::DetectIesContent(std::string(1024, 'x') + "IESNA91"));
}

class IesImportTest : public testing::Test {
protected:
    void SetUp() override {
        folder = fs::temp_directory_path() /
                 ("kelvo_iesimport_" + std::to_string(::getpid()) + "_" +
                  testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(folder);
    }
    void TearDown() override { fs::remove_all(folder); }
    Url Write(const std::string& name, const std::string& bytes) {
        std::ofstream(folder / name, std::ios::binary) << bytes;
        return Url::FromFile((folder / name).string());
    }
    static std::string Data(const char* name) {
        return ReadFile(fs::path(KELVO_SOURCE_DIR) / "tests/data/ies" / name);
    }
    fs::path folder;
};

TEST_F(IesImportTest, DetectionBySuffixAndFirstBytes) {
    const std::string ies = Data("kelvo__ballast_factor.ies");
    auto detect = [](const Url& url) {
        auto r = DetectFileFormat(url);
        EXPECT_TRUE(r.Ok()) << r.GetError().Message();
        return r.Ok() ? std::string(r->Text()) : std::string("error");
    };
    EXPECT_EQ(detect(Write("a.ies", ies)), "net.kelvo.fileformat.imageies");
    EXPECT_EQ(detect(Write("B.IES", ies)), "net.kelvo.fileformat.imageies");  // case ignored
    EXPECT_EQ(detect(Write("a.txt", ies)), "");
    EXPECT_EQ(detect(Write("old.ies", "free text\nTILT=NONE\n")), "net.kelvo.fileformat.imageies");
    EXPECT_EQ(detect(Write("late.ies", std::string(1024, ' ') + "TILT=NONE\n")), "");
    // A picture named .ies is not ours (the host's PNG format takes it by content).
    Url picture = Write("picture.ies", std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
    auto format = CreateClass<FileFormatInterface>(Id("net.kelvo.fileformat.imageies"));
    ASSERT_TRUE(format.Ok());
    EXPECT_FALSE(*(*format)->Detect(picture));
    EXPECT_NE(detect(picture), "net.kelvo.fileformat.imageies");
    EXPECT_EQ((*format)->GetName(), "IES");
    EXPECT_TRUE((*format)->MatchesSuffix(*Url::FromText("file:///x/LAMP.Ies")));
    EXPECT_EQ(detect(Write("empty.ies", "")), "");
    // A read failure is the detection's error.
    fs::create_directories(folder / "folder.ies");
    auto dir = DetectFileFormat(Url::FromFile((folder / "folder.ies").string()));
    ASSERT_FALSE(dir.Ok());
    EXPECT_EQ(dir.GetError().Message(),
              "Cannot open " + Url::FromFile((folder / "folder.ies").string()).ToString() +
                  ": it is a directory.");
}

TEST_F(IesImportTest, ImportGivesOneGreyLayerThatRefusesOtherFormats) {
    auto image = ImportImage(Write("lamp.ies", Data("kelvo__ballast_factor.ies")));
    ASSERT_TRUE(image.Ok()) << image.GetError().Message();
    EXPECT_EQ((*image)->GetWidth(), 512);
    EXPECT_EQ((*image)->GetLayerCount(), 1);
    EXPECT_EQ((*image)->GetProperties().Get<Id>(kImagePropertyFileFormat),
              Id("net.kelvo.fileformat.imageies"));
    StrongRef<ImageLayerInterface> layer = (*image)->GetLayer(0);
    EXPECT_EQ(layer->GetPixelFormat(), kPixelGrey8);
    EXPECT_EQ(layer->GetColorProfile(), COLORPROFILE::SRGB);
    for (PixelFormat other : {kPixelRgb8, kPixelGrey16, kPixelGrey32f}) {
        auto get = layer->GetPixelHandler(other, COLORPROFILE::SRGB);
        ASSERT_FALSE(get.Ok());
        EXPECT_EQ(get.GetError().Message(), "Wrong pixel format");
        EXPECT_EQ(get.GetError().Kind(), ERRORKIND::UNSUPPORTEDARGUMENT);
        EXPECT_EQ(layer->SetPixelHandler(other, COLORPROFILE::SRGB).GetError().Message(),
                  "Wrong pixel format");
    }
    // A downlight: the floor under the light is bright, the top of the wall dark.
    std::vector<uint8_t> grey = Pixels<uint8_t>(**image, 0, kPixelGrey8, COLORPROFILE::SRGB);
    EXPECT_EQ(grey[256], 0);
    EXPECT_GT(grey[420 * 512 + 256], 200);
    uint8_t row[13];
    EXPECT_EQ((*layer->GetPixelHandler(kPixelGrey8, COLORPROFILE::SRGB))
                  ->GetPixels(500, 3, 13, row)
                  .GetError()
                  .Message(),
              "Illegal argument: Pixels 500 to 512 of row 3 lie outside the 512 x 512 layer.");

    // Parse errors end the import unchanged; an exported copy opens as any picture.
    auto bad = ImportImage(Write("bad.ies", Data("kelvo__tilt_file.ies")));
    ASSERT_FALSE(bad.Ok());
    EXPECT_EQ(bad.GetError().Message(), "IES file error in line 3");
    Url png = Url::FromFile((folder / "lamp.png").string());
    ASSERT_TRUE(ExportImage(png, **image).Ok());
    auto back = ImportImage(png);
    ASSERT_TRUE(back.Ok()) << back.GetError().Message();
    EXPECT_EQ(Pixels<uint8_t>(**back, 0, kPixelGrey8, COLORPROFILE::SRGB), grey);
    // OpenEXR asks for floats, which the layer does not hand out: the writer converts.
    Url exr = Url::FromFile((folder / "lamp.exr").string());
    ASSERT_TRUE(ExportImage(exr, **image).Ok());
    auto floats = ImportImage(exr);
    ASSERT_TRUE(floats.Ok()) << floats.GetError().Message();
    auto again = Pixels<uint8_t>(**floats, 0, kPixelGrey8, COLORPROFILE::SRGB);
    ASSERT_EQ(again.size(), grey.size());
    for (size_t i = 0; i < grey.size(); ++i) ASSERT_NEAR(again[i], grey[i], 1) << i;
}

TEST(IesPreviewTest, RowsInParallelProgressAndErrors) {
    auto p = ParseText(ReadFile(fs::path(KELVO_SOURCE_DIR) / "tests/data/ies/guv__ushio_b1.ies"));
    ASSERT_TRUE(p.result.Ok());
    auto wrong = p.ies->GeneratePreviewImage(64, 32, nullptr, nullptr);
    ASSERT_FALSE(wrong.Ok());
    EXPECT_EQ(wrong.GetError().Message(), "Width and height of image must match.");

    // Every row exactly once, through the handler the delegate made for the asked format.
    struct Recorder final : Implements<SetPixelHandlerInterface> {
        std::mutex mutex;
        std::multiset<int64_t> rows;
        std::vector<float> pixels = std::vector<float>(97 * 97);
        PixelFormat GetPixelFormat() const override { return kPixelGrey32f; }
        COLORPROFILE GetColorProfile() const override { return COLORPROFILE::LINEAR; }
        Result<void> SetPixels(int64_t x, int64_t y, int64_t count, const void* from) override {
            std::lock_guard lock(mutex);
            rows.insert(y);
            std::memcpy(pixels.data() + y * 97 + x, from, size_t(count) * sizeof(float));
            return OK();
        }
    };
    auto recorder = std::make_shared<Recorder>();
    PixelFormat asked{};
    std::vector<float> progress;
    std::atomic<int> inside{0};
    auto r = p.ies->GeneratePreviewImage(
        97, 97,
        [&](PixelFormat f, COLORPROFILE) -> Result<StrongRef<SetPixelHandlerInterface>> {
            asked = f;
            return StrongRef<SetPixelHandlerInterface>(recorder);
        },
        [&](float f) {
            EXPECT_EQ(inside.fetch_add(1), 0);  // never two reports at once
            progress.push_back(f);
            inside.fetch_sub(1);
        });
    ASSERT_TRUE(r.Ok()) << r.GetError().Message();
    EXPECT_EQ(asked, kPixelGrey32f);
    EXPECT_EQ(recorder->rows.size(), 97u);
    EXPECT_EQ(std::set<int64_t>(recorder->rows.begin(), recorder->rows.end()).size(), 97u);
    ASSERT_FALSE(progress.empty());
    EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
    EXPECT_EQ(progress.back(), 1.0f);
    float brightest = *std::max_element(recorder->pixels.begin(), recorder->pixels.end());
    EXPECT_NEAR(brightest, 1.0f, 0.05f);
    EXPECT_GE(*std::min_element(recorder->pixels.begin(), recorder->pixels.end()), 0.0f);

    // A handler's error stops the preview and comes back.
    struct Failing final : Implements<SetPixelHandlerInterface> {
        PixelFormat GetPixelFormat() const override { return kPixelGrey32f; }
        COLORPROFILE GetColorProfile() const override { return COLORPROFILE::LINEAR; }
        Result<void> SetPixels(int64_t, int64_t y, int64_t, const void*) override {
            if (y == 40) return IoError(KELVO_HERE, "mem:", "Disk full.");
            return OK();
        }
    };
    auto failed = p.ies->GeneratePreviewImage(
        64, 64,
        [](PixelFormat, COLORPROFILE) -> Result<StrongRef<SetPixelHandlerInterface>> {
            return StrongRef<SetPixelHandlerInterface>(std::make_shared<Failing>());
        },
        nullptr);
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(failed.GetError().Message(), "Disk full.");

    // The image form equals itself run to run.
    auto a = p.ies->GeneratePreviewImage(48), b = p.ies->GeneratePreviewImage(48);
    ASSERT_TRUE(a.Ok() && b.Ok());
    EXPECT_EQ(Pixels<uint8_t>(**a, 0, kPixelGrey8, COLORPROFILE::SRGB),
              Pixels<uint8_t>(**b, 0, kPixelGrey8, COLORPROFILE::SRGB));
}

}  // namespace
}  // namespace kelvo
