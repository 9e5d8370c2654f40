#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "host.h"
#include "implementation/texture_impl.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"
#include "texture_test_util.h"

namespace kelvo {
namespace {
using namespace testing_texture;
namespace fs = std::filesystem;

constexpr TEXTUREMODE kModes[] = {TEXTUREMODE::NEAREST, TEXTUREMODE::BILINEAR, TEXTUREMODE::MIPMAP,
                                  TEXTUREMODE::RIPMAP, TEXTUREMODE::SUMMEDAREA};

StrongRef<TextureSamplerInterface> Sampler(const StrongRef<ImageInterface>& image) {
    auto made = CreateTextureSampler(image);
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    return made.Ok() ? *made : nullptr;
}

Col4 Sample(const TextureSamplerInterface& s, Vec2 uv, TextureFootprint f, TEXTUREMODE mode,
            TEXTUREWRAP wrap = TEXTUREWRAP::REPEAT) {
    auto c = s.ThreadedTextureSample(uv, f, {mode, wrap, false});
    EXPECT_TRUE(c.Ok()) << c.GetError().Message();
    return c.ValueOr({});
}

void ExpectNear(const Col4& a, const Col4& b, double tolerance, const std::string& what = "") {
    EXPECT_NEAR(a.r, b.r, tolerance) << what;
    EXPECT_NEAR(a.g, b.g, tolerance) << what;
    EXPECT_NEAR(a.b, b.b, tolerance) << what;
    EXPECT_NEAR(a.a, b.a, tolerance) << what;
}

// The mean of texels [x0, x1) x [y0, y1) of the periodic image, brute force.
Col4 BoxMean(const TextureLevelView& base, int64_t x0, int64_t x1, int64_t y0, int64_t y1) {
    double sum[4] = {};
    const auto* p = static_cast<const uint8_t*>(base.pixels);
    for (int64_t y = y0; y < y1; ++y)
        for (int64_t x = x0; x < x1; ++x) {
            const int64_t wx = (x % base.width + base.width) % base.width;
            const int64_t wy = (y % base.height + base.height) % base.height;
            for (int c = 0; c < 4; ++c) sum[c] += p[(wy * base.width + wx) * 4 + c];
        }
    const double n = double((x1 - x0) * (y1 - y0)) * 255.0;
    return {sum[0] / n, sum[1] / n, sum[2] / n, sum[3] / n};
}

Col4 TexelOf(const TextureLevelView& l) {
    const auto* p = static_cast<const uint8_t*>(l.pixels);
    return {p[0] / 255.0, p[1] / 255.0, p[2] / 255.0, p[3] / 255.0};
}

TEST(TextureSamplerTest, AConstantTextureSamplesToItsValueEverywhere) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<double> uv(-3, 3), d(-2, 2);
    for (PixelFormat f : {kPixelRgba8, kPixelRgb32f}) {
        auto layer = std::make_shared<FakeLayer>(7, 5, f);  // every channel byte is 100
        auto sampler = Sampler(ImageOf(layer));
        float asFloat;
        std::memset(&asFloat, 100, 4);
        const double v = f.IsFloat() ? double(asFloat) : 100.0 / 255.0;
        const Col4 want{v, v, v, f.HasAlpha() ? v : 1.0};
        for (TEXTUREMODE mode : kModes) {
            if (f.IsFloat() && mode == TEXTUREMODE::SUMMEDAREA) continue;
            for (int i = 0; i < 200; ++i) {
                const double s = std::pow(10.0, d(rng) * 2);  // footprints from 1e-4 to 1e4
                TextureFootprint fp{d(rng) * s, d(rng) * s, d(rng) * s, d(rng) * s};
                for (TEXTUREWRAP wrap : {TEXTUREWRAP::REPEAT, TEXTUREWRAP::CLAMP})
                    ExpectNear(Sample(*sampler, {uv(rng), uv(rng)}, fp, mode, wrap), want,
                               1e-12 * std::fabs(v));
            }
        }
        // Numbers never fail: non-finite uv and footprints still give the constant.
        const double nan = std::nan(""), inf = INFINITY;
        for (TEXTUREMODE mode : {TEXTUREMODE::MIPMAP, TEXTUREMODE::RIPMAP})
            ExpectNear(Sample(*sampler, {nan, inf}, {nan, inf, -inf, nan}, mode), want, 1e-12 * v);
    }
}

TEST(TextureSamplerTest, FootprintsOfOneTexelAndOfTheWholeTexture) {
    auto sampler = Sampler(RandomImage(9, 6, kPixelRgba8, 11));
    auto texture = sampler->GetTexture();
    const TextureFootprint texel{1.0 / 9, 0, 0, 1.0 / 6}, whole{1, 0, 0, 1};
    ASSERT_TRUE(sampler->Prepare(TEXTUREMODE::MIPMAP).Ok());
    ASSERT_TRUE(sampler->Prepare(TEXTUREMODE::RIPMAP).Ok());
    ASSERT_TRUE(sampler->Prepare(TEXTUREMODE::SUMMEDAREA).Ok());
    const Col4 smallest = TexelOf(texture->GetMipLevel(texture->GetMipLevelCount() - 1));
    const Col4 smallestRip = TexelOf(
        texture->GetRipLevel(texture->GetRipLevelCountX() - 1, texture->GetRipLevelCountY() - 1));
    const Col4 mean = BoxMean(texture->GetMipLevel(0), 0, 9, 0, 6);
    for (Vec2 uv : {Vec2{0.5, 0.5}, Vec2{0.03, 0.97}, Vec2{-1.3, 2.2}}) {
        for (TEXTUREWRAP wrap : {TEXTUREWRAP::REPEAT, TEXTUREWRAP::CLAMP}) {
            const Col4 bilinear = Sample(*sampler, uv, {}, TEXTUREMODE::BILINEAR, wrap);
            ExpectNear(Sample(*sampler, uv, texel, TEXTUREMODE::MIPMAP, wrap), bilinear, 1e-12);
            ExpectNear(Sample(*sampler, uv, texel, TEXTUREMODE::RIPMAP, wrap), bilinear, 1e-12);
            ExpectNear(Sample(*sampler, uv, whole, TEXTUREMODE::MIPMAP, wrap), smallest, 1e-12);
            ExpectNear(Sample(*sampler, uv, whole, TEXTUREMODE::RIPMAP, wrap), smallestRip, 1e-12);
        }
        // A whole period has the exact mean wherever it starts.
        ExpectNear(Sample(*sampler, uv, whole, TEXTUREMODE::SUMMEDAREA), mean, 1e-12);
    }
    ExpectNear(Sample(*sampler, {0.5, 0.5}, whole, TEXTUREMODE::SUMMEDAREA, TEXTUREWRAP::CLAMP),
               mean, 1e-12);
}

TEST(TextureSamplerTest, SummedAreaBoxesEqualBruteForceAcrossTheEdges) {
    auto sampler = Sampler(RandomImage(9, 6, kPixelRgba8, 17));
    ASSERT_TRUE(sampler->Prepare(TEXTUREMODE::SUMMEDAREA).Ok());
    const TextureLevelView base = sampler->GetTexture()->GetMipLevel(0);
    // Boxes on texel edges: the centre and extent name them exactly.
    struct Box {
        int64_t x0, x1, y0, y1;
    };
    for (Box b : {Box{0, 1, 0, 1}, Box{2, 7, 1, 4}, Box{-3, 2, 4, 9}, Box{7, 12, -2, 3}}) {
        const Vec2 uv{(b.x0 + b.x1) / 18.0, (b.y0 + b.y1) / 12.0};
        const TextureFootprint f{(b.x1 - b.x0) / 9.0 * 0.75, 0, (b.x1 - b.x0) / 9.0 * -0.25,
                                 (b.y1 - b.y0) / 6.0};
        ExpectNear(Sample(*sampler, uv, f, TEXTUREMODE::SUMMEDAREA),
                   BoxMean(base, b.x0, b.x1, b.y0, b.y1), 1e-12,
                   std::to_string(b.x0) + "," + std::to_string(b.y0));
    }
    // Clamped, a box off the texture keeps its edge texels.
    ExpectNear(Sample(*sampler, {-2.0, 0.5 / 6}, {1.0 / 9, 0, 0, 1.0 / 6}, TEXTUREMODE::SUMMEDAREA,
                      TEXTUREWRAP::CLAMP),
               BoxMean(base, 0, 1, 0, 1), 1e-12);
}

TEST(TextureSamplerTest, WrapNearestAndSrgbArePerCall) {
    auto sampler = Sampler(RandomImage(5, 3, kPixelRgba8, 23));
    ASSERT_TRUE(sampler->Prepare(TEXTUREMODE::NEAREST).Ok());
    const TextureLevelView base = sampler->GetTexture()->GetMipLevel(0);
    const TextureFootprint f{0.3, 0.1, -0.2, 0.25};
    for (TEXTUREMODE mode : kModes)
        ExpectNear(Sample(*sampler, {0.37 + 3, 0.61 - 2}, f, mode),
                   Sample(*sampler, {0.37, 0.61}, f, mode), 1e-12);
    ExpectNear(Sample(*sampler, {0.5, 0.5}, {}, TEXTUREMODE::NEAREST), BoxMean(base, 2, 3, 1, 2),
               1e-15);
    ExpectNear(Sample(*sampler, {-7, 9}, {}, TEXTUREMODE::NEAREST, TEXTUREWRAP::CLAMP),
               BoxMean(base, 0, 1, 2, 3), 1e-15);
    // One texel read in linear light: the curve applied to it (to 16 bits).
    const Col4 plain = Sample(*sampler, {0.2, 0.4}, f, TEXTUREMODE::NEAREST);
    auto linear = sampler->ThreadedTextureSample({0.2, 0.4}, f,
                                                 {TEXTUREMODE::NEAREST, TEXTUREWRAP::REPEAT, true});
    ASSERT_TRUE(linear.Ok());
    EXPECT_NEAR(linear->r, SrgbToLinear(float(plain.r)), 2e-5);
    EXPECT_NEAR(linear->b, SrgbToLinear(float(plain.b)), 2e-5);
    EXPECT_NEAR(linear->a, plain.a, 2e-5);
}

// A black-and-white sRGB checker seen from far away is half as bright as white in every
// filter, as light adds up; averaging the stored values would give a fifth. The texture's
// own pyramids keep the stored values.
TEST(TextureSamplerTest, FarSrgbCheckerAveragesToItsLinearMeanInEveryMode) {
    for (PixelFormat format : {kPixelRgb8, kPixelRgba16, kPixelRgb32f}) {
        constexpr int64_t kSize = 64;
        const size_t bytes = format.GetBytesPerPixel();
        std::vector<uint8_t> row(size_t(kSize) * bytes);
        auto image = *CreateImage(kSize, kSize);
        auto layer = *CreateImageLayer(kSize, kSize, format, COLORPROFILE::SRGB);
        auto writer = *layer->SetPixelHandler(format, COLORPROFILE::SRGB);
        for (int64_t y = 0; y < kSize; ++y) {
            for (int64_t x = 0; x < kSize; ++x)
                for (int c = 0; c < format.channels; ++c) {
                    const bool on = (x + y) % 2 || c == 3;
                    uint8_t* p = &row[size_t(x) * bytes + size_t(c) * bytes / format.channels];
                    if (format.IsFloat()) {
                        const float v = on ? 1.0f : 0.0f;
                        std::memcpy(p, &v, 4);
                    } else if (bytes / format.channels == 2) {
                        const uint16_t v = on ? 65535 : 0;
                        std::memcpy(p, &v, 2);
                    } else {
                        *p = on ? 255 : 0;
                    }
                }
            ASSERT_TRUE(writer->SetPixels(0, y, kSize, row.data()).Ok());
        }
        ASSERT_TRUE(image->AddLayer(layer).Ok());
        auto sampler = Sampler(image);
        const TextureFootprint far{0.11, 0.02, -0.03, 0.13};  // about 7 texels a pixel
        for (TEXTUREMODE mode : kModes) {
            if (mode == TEXTUREMODE::SUMMEDAREA && format.IsFloat()) continue;
            double sum = 0.0;
            std::mt19937 rng(5);
            std::uniform_real_distribution<double> uv(0.0, 1.0);
            constexpr int kSamples = 400;
            for (int i = 0; i < kSamples; ++i) {
                auto c = sampler->ThreadedTextureSample({uv(rng), uv(rng)}, far,
                                                        {mode, TEXTUREWRAP::REPEAT, true});
                ASSERT_TRUE(c.Ok()) << c.GetError().Message();
                sum += (c->r + c->g + c->b) / 3.0;
            }
            EXPECT_NEAR(sum / kSamples, 0.5, 0.01) << int(mode) << " " << bytes;
        }
        // The stored-value pyramid is untouched: its coarsest level is the encoded mean.
        ASSERT_TRUE(sampler->GetTexture()->Build(TEXTUREPYRAMID::MIPMAP).Ok());
        const TextureLevelView top =
            sampler->GetTexture()->GetMipLevel(sampler->GetTexture()->GetMipLevelCount() - 1);
        if (format == kPixelRgb8) {
            EXPECT_EQ(static_cast<const uint8_t*>(top.pixels)[0], 127);
        }
    }
}

TEST(TextureSamplerTest, DeepTexturesRefuseSummedAreaEveryTimeAndStillFilter) {
    host::CapturedDiagnostics quiet;
    auto sampler = Sampler(RandomImage(4, 4, kPixelRgb16, 2));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(sampler->ThreadedTextureSample({0.5, 0.5}, {}, {TEXTUREMODE::SUMMEDAREA})
                      .GetError()
                      .Message(),
                  "Summed area tables do not support more than 8 bits depth.");
    EXPECT_TRUE(sampler->ThreadedTextureSample({0.5, 0.5}, {}, {TEXTUREMODE::MIPMAP}).Ok());
    auto fresh = *CreateClass<TextureSamplerInterface>(kThreadedTextureImplClass);
    EXPECT_EQ(fresh->Init(*CreateClass<TextureInterface>(kTextureImplClass)).GetError().Message(),
              "Illegal argument: The texture is not initialised.");
}

// Every allocation of the builds fails in turn: the error comes back, nothing leaks and
// the next sample builds the pyramid.
TEST(TextureSamplerTest, EachAllocationOfABuildFailingInTurn) {
    host::CapturedDiagnostics quiet;
    auto image = RandomImage(37, 21, kPixelRgba8, 9);
    for (TEXTUREMODE mode : kModes) {
        const int64_t before = host::LiveAllocations();
        bool built = false;
        for (int n = 1; !built && n < 1000; ++n) {
            auto sampler = Sampler(image);
            host::FailNthAllocation(n);
            auto first = sampler->ThreadedTextureSample({0.3, 0.6}, {0.1, 0, 0, 0.1}, {mode});
            host::FailNthAllocation(0);
            built = first.Ok();
            if (!built) {
                EXPECT_EQ(first.GetError().Kind(), ERRORKIND::OUTOFMEMORY) << n;
            }
            auto again = sampler->ThreadedTextureSample({0.3, 0.6}, {0.1, 0, 0, 0.1}, {mode});
            ASSERT_TRUE(again.Ok()) << int(mode) << " after failing allocation " << n;
            if (built) ExpectNear(*first, *again, 0);
        }
        EXPECT_TRUE(built);
        EXPECT_EQ(host::LiveAllocations(), before) << int(mode);
    }
}

class TextureManagementTest : public ::testing::Test {
protected:
    void SetUp() override {
        folder = fs::temp_directory_path() / ("kelvo_textures_" + std::to_string(::getpid()));
        fs::create_directories(folder / "tex");
        ASSERT_TRUE(ExportImage(Url::FromFile((folder / "tex" / "b.png").string()),
                                *RandomImage(6, 4, kPixelRgb8, 1))
                        .Ok());
        cache = *CreateClass<TextureManagementInterface>(kTextureManagementImplClass);
        assets = *CreateComponent<AssetManagementInterface>();
        ASSERT_TRUE(assets->Init(Url::FromFile(folder.string())).Ok());
    }
    void TearDown() override { fs::remove_all(folder); }
    fs::path folder;
    StrongRef<TextureManagementInterface> cache;
    StrongRef<AssetManagementInterface> assets;
};

TEST_F(TextureManagementTest, OneSharedTexturePerResolvedUrlWhileHeld) {
    const Url relative = *Url::FromText("relative:///b.png");
    auto a = cache->GetTexture(relative, assets);
    ASSERT_TRUE(a.Ok()) << a.GetError().Message();
    auto b = cache->GetTexture(Url::FromFile((folder / "tex" / "b.png").string()), nullptr);
    EXPECT_EQ(a->get(), b->get());
    EXPECT_EQ(cache->GetTextureCount(), 1);
    EXPECT_EQ((*a)->GetTexture()->GetWidth(), 6);
    *a = nullptr;
    *b = nullptr;
    EXPECT_EQ(cache->GetTextureCount(), 0);
    auto c = cache->GetTexture(relative, assets);
    ASSERT_TRUE(c.Ok());
    // A new texture: nothing of the old one is kept.
    EXPECT_FALSE((*c)->GetTexture()->IsBuilt(TEXTUREPYRAMID::BASELEVEL));
    // Any registered format: the module's own IES import included.
    auto ies = cache->GetTexture(
        Url::FromFile(KELVO_SOURCE_DIR "/resources/ies/kelvo_sample_spot.ies"), nullptr);
    ASSERT_TRUE(ies.Ok()) << ies.GetError().Message();
    EXPECT_EQ((*ies)->GetTexture()->GetStorage(), TEXTURESTORAGE::RGB8);
    // Its layer hands out grey only: rows are converted on the way in.
    EXPECT_TRUE((*ies)->Prepare(TEXTUREMODE::MIPMAP).Ok());
}

TEST_F(TextureManagementTest, FailuresCarryTheUrl) {
    auto missing = cache->GetTexture(*Url::FromText("relative:///none.png"), assets);
    EXPECT_EQ(missing.GetError().Message(), "Asset not found.");
    EXPECT_EQ(missing.GetError().Url(), "relative:///none.png");
    const Url junk = Url::FromFile((folder / "junk.png").string());
    { std::ofstream(folder / "junk.png") << "not a picture"; }
    auto bad = cache->GetTexture(junk, nullptr);
    ASSERT_FALSE(bad.Ok());
    EXPECT_EQ(bad.GetError().Url(), junk.ToString());
    EXPECT_EQ(cache->GetTextureCount(), 0);
}

}  // namespace
}  // namespace kelvo
