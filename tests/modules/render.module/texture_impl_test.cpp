#include "implementation/texture_impl.h"

#include <gtest/gtest.h>

#include <cstring>

#include "host.h"
#include "implementation/texture_kernels.h"
#include "kelvo/registry.h"
#include "texture_test_util.h"

namespace kelvo {
namespace {
using namespace testing_texture;

// A plain reference: a level as components, halved with clamped neighbours.
template <typename T>
struct RefLevel {
    int64_t w = 0, h = 0;
    int n = 0;
    std::vector<T> v;
    T At(int64_t x, int64_t y, int c) const {
        return v[size_t((std::min(y, h - 1) * w + std::min(x, w - 1)) * n + c)];
    }
};

template <typename T>
T Avg(std::initializer_list<T> values) {
    if constexpr (std::is_floating_point_v<T>) {
        T sum = 0;
        for (T x : values) sum += x;
        return sum * (values.size() == 2 ? T(0.5) : T(0.25));
    } else {
        uint32_t sum = 0;
        for (T x : values) sum += x;
        return T(sum >> (values.size() == 2 ? 1 : 2));
    }
}

template <typename T>
RefLevel<T> Halve(const RefLevel<T>& s, bool hx, bool hy) {
    RefLevel<T> d{hx ? std::max<int64_t>(1, (s.w + 1) / 2) : s.w,
                  hy ? std::max<int64_t>(1, (s.h + 1) / 2) : s.h,
                  s.n,
                  {}};
    for (int64_t y = 0; y < d.h; ++y)
        for (int64_t x = 0; x < d.w; ++x)
            for (int c = 0; c < s.n; ++c) {
                const int64_t sx = hx ? 2 * x : x, sy = hy ? 2 * y : y;
                if (hx && hy)
                    d.v.push_back(Avg<T>({s.At(sx, sy, c), s.At(sx + 1, sy, c), s.At(sx, sy + 1, c),
                                          s.At(sx + 1, sy + 1, c)}));
                else if (hx)
                    d.v.push_back(Avg<T>({s.At(sx, sy, c), s.At(sx + 1, sy, c)}));
                else
                    d.v.push_back(Avg<T>({s.At(sx, sy, c), s.At(sx, sy + 1, c)}));
            }
    return d;
}

template <typename T>
void ExpectLevel(const TextureLevelView& got, const RefLevel<T>& want, const std::string& what) {
    ASSERT_FALSE(got.IsEmpty()) << what;
    ASSERT_EQ(got.width, want.w) << what;
    ASSERT_EQ(got.height, want.h) << what;
    EXPECT_EQ(std::memcmp(got.pixels, want.v.data(), want.v.size() * sizeof(T)), 0) << what;
}

template <typename T>
void CheckPyramids(PixelFormat format, int64_t w, int64_t h) {
    const std::string what =
        std::string(format.Name()) + " " + std::to_string(w) + "x" + std::to_string(h);
    auto image = RandomImage(w, h, format, uint32_t(w * 31 + h));
    auto texture = MakeTexture(image);
    ASSERT_TRUE(texture->Build(TEXTUREPYRAMID::MIPMAP).Ok());
    ASSERT_TRUE(texture->Build(TEXTUREPYRAMID::RIPMAP).Ok());
    // Level 0: the image in the storage format (grey in all three channels).
    const int n = TextureStorageChannels(texture->GetStorage());
    PixelFormat stored{uint8_t(n), format.type};
    RefLevel<T> base{w, h, n, std::vector<T>(size_t(w * h * n))};
    auto reader = *image->GetLayer(0)->GetPixelHandler(stored, COLORPROFILE::SRGB);
    for (int64_t y = 0; y < h; ++y)
        ASSERT_TRUE(reader->GetPixels(0, y, w, &base.v[size_t(y * w * n)]).Ok());
    std::vector<RefLevel<T>> mip{base};
    while (mip.back().w > 1 || mip.back().h > 1) mip.push_back(Halve(mip.back(), true, true));
    ASSERT_EQ(texture->GetMipLevelCount(), int(mip.size())) << what;
    for (size_t k = 0; k < mip.size(); ++k)
        ExpectLevel(texture->GetMipLevel(int(k)), mip[k], what + " mip " + std::to_string(k));
    // Rip: the first row halves x from the left; the rest halve y from above.
    const int nx = texture->GetRipLevelCountX(), ny = texture->GetRipLevelCountY();
    for (int i = 0; i < nx; ++i) {
        RefLevel<T> level = base;
        for (int k = 0; k < i; ++k) level = Halve(level, true, false);
        for (int j = 0; j < ny; ++j) {
            if (j > 0) level = Halve(level, false, true);
            ExpectLevel(texture->GetRipLevel(i, j), level,
                        what + " rip " + std::to_string(i) + "," + std::to_string(j));
        }
        EXPECT_EQ(texture->GetRipLevel(i, ny - 1).height, 1);
    }
    EXPECT_EQ(texture->GetRipLevel(nx - 1, 0).width, 1) << what;
    EXPECT_TRUE(texture->GetRipLevel(nx, 0).IsEmpty());
}

TEST(TextureImplTest, LevelsMatchAPlainReferenceForEveryStorageType) {
    const std::pair<int64_t, int64_t> sizes[] = {{1, 1}, {1, 7},  {6, 1},  {5, 3},
                                                 {9, 6}, {4, 11}, {45, 10}};
    for (auto [w, h] : sizes) {
        // 8-bit levels have wide, narrow and scalar loops; widths up to 45 reach all of them.
        for (bool avx2 : {true, false}) {
            AllowAvx2Halving(avx2);
            for (PixelFormat f : {kPixelGrey8, kPixelRgb8, kPixelRgba8})
                CheckPyramids<uint8_t>(f, w, h);
        }
        AllowAvx2Halving(true);
        for (PixelFormat f : {kPixelGrey16, kPixelRgb16, kPixelRgba16})
            CheckPyramids<uint16_t>(f, w, h);
        for (PixelFormat f : {kPixelGrey32f, kPixelRgb32f, kPixelRgba32f})
            CheckPyramids<float>(f, w, h);
    }
}

TEST(TextureImplTest, SizesAndTruncationOfTheEdgeCases) {
    EXPECT_EQ(CountMipLevels(5, 3), 4);  // 5x3, 3x2, 2x1, 1x1
    EXPECT_EQ(CountMipLevels(1, 1), 1);
    EXPECT_EQ(CountRipLevels(1), 1);
    EXPECT_EQ(CountRipLevels(4096), 13);
    // A 3-texel row: (1 + 2) >> 1 = 1, then texel 2 with itself; 255 and 255 stay 255.
    const std::vector<uint8_t> row = {1, 1, 1, 2, 2, 2, 255, 255, 255};
    auto image = *CreateImage(3, 1);
    auto layer = *CreateImageLayer(3, 1, kPixelRgb8, COLORPROFILE::SRGB);
    ASSERT_TRUE((*layer->SetPixelHandler(kPixelRgb8, COLORPROFILE::SRGB))
                    ->SetPixels(0, 0, 3, row.data())
                    .Ok());
    ASSERT_TRUE(image->AddLayer(layer).Ok());
    auto texture = MakeTexture(image);
    ASSERT_TRUE(texture->Build(TEXTUREPYRAMID::MIPMAP).Ok());
    auto level = texture->GetMipLevel(1);
    ASSERT_EQ(level.width, 2);
    const auto* p = static_cast<const uint8_t*>(level.pixels);
    EXPECT_EQ(p[0], 1);
    EXPECT_EQ(p[3], 255);
    EXPECT_EQ(texture->GetMipLevel(1).spanX, 2);
}

// What a tool reports from the header alone must be what a build takes, for every storage
// type, odd sizes and a summed area table on either side of the 32-bit limit.
TEST(TextureImplTest, BytesPlannedFromTheHeaderAreTheBytesBuilt) {
    const std::pair<int64_t, int64_t> sizes[] = {{1, 1}, {5, 3}, {1, 9}, {33, 2}, {7, 7}};
    for (auto [w, h] : sizes)
        for (PixelFormat f : {kPixelGrey8, kPixelRgb8, kPixelRgba8, kPixelRgb16, kPixelRgba32f}) {
            auto texture = MakeTexture(RandomImage(w, h, f, 3));
            TEXTURESTORAGE storage{};
            ASSERT_TRUE(TextureStorageFor(f, storage));
            EXPECT_EQ(storage, texture->GetStorage());
            for (TEXTUREPYRAMID p : {TEXTUREPYRAMID::BASELEVEL, TEXTUREPYRAMID::MIPMAP,
                                     TEXTUREPYRAMID::RIPMAP, TEXTUREPYRAMID::SUMMEDAREA}) {
                (void)texture->Build(p);
                EXPECT_EQ(TexturePyramidBytes(p, w, h, storage), texture->GetByteSize(p))
                    << w << " x " << h << " " << f.Name() << " pyramid " << int(p);
            }
        }
    // 32-bit sums up to 4104 x 4104 texels, 64-bit beyond.
    static_assert(TexturePyramidBytes(TEXTUREPYRAMID::SUMMEDAREA, 4104, 4104,
                                      TEXTURESTORAGE::RGB8) == 4104 * 4104 * 3 * 4);
    static_assert(TexturePyramidBytes(TEXTUREPYRAMID::SUMMEDAREA, 4105, 4105,
                                      TEXTURESTORAGE::RGB8) == int64_t(4105) * 4105 * 3 * 8);
    TEXTURESTORAGE none{};
    EXPECT_FALSE(TextureStorageFor(PixelFormat{5, CHANNELTYPE::UINT8}, none));
    EXPECT_FALSE(TextureStorageFor(PixelFormat{0, CHANNELTYPE::UINT8}, none));
}

TEST(TextureImplTest, SummedAreaTablesMatchBruteForceAndWidenPast4104Squared) {
    // Large enough to be summed in bands, one per worker.
    host::SetHostThreads(3);
    const int64_t w = 151, h = 123;
    auto texture = MakeTexture(RandomImage(w, h, kPixelRgba8, 5));
    ASSERT_TRUE(texture->Build(TEXTUREPYRAMID::BASELEVEL).Ok());
    auto base = texture->GetMipLevel(0);
    const auto* px = static_cast<const uint8_t*>(base.pixels);
    std::vector<uint64_t> want(size_t(w * h * 4));
    auto at = [&](int64_t x, int64_t y, int c) -> uint64_t {
        return x < 0 || y < 0 ? 0 : want[size_t((y * w + x) * 4 + c)];
    };
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x)
            for (int c = 0; c < 4; ++c)
                want[size_t((y * w + x) * 4 + c)] = px[(y * w + x) * 4 + c] + at(x - 1, y, c) +
                                                    at(x, y - 1, c) - at(x - 1, y - 1, c);
    for (bool wide : {false, true}) {
        // The 64-bit layout, forced on a small image; the texture chooses 32 bits here.
        MipMapLevel<Vec4u8> level;
        level.pixels.assign(static_cast<const Vec4u8*>(base.pixels),
                            static_cast<const Vec4u8*>(base.pixels) + w * h);
        level.width = w;
        level.height = h;
        SummedAreaData<Vec4u8> table;
        ASSERT_TRUE(table.Build(level, wide).Ok());
        auto view = table.View();
        ASSERT_EQ(view.type, wide ? TEXTURECHANNEL::UINT64 : TEXTURECHANNEL::UINT32);
        for (size_t i = 0; i < want.size(); ++i)
            ASSERT_EQ(wide ? static_cast<const uint64_t*>(view.pixels)[i]
                           : static_cast<const uint32_t*>(view.pixels)[i],
                      want[i])
                << i;
    }
    host::SetHostThreads(0);
    // 4104 x 4104 white texels sum to 4294918080, which 32 bits hold; one more row or
    // column does not fit.
    static_assert(uint64_t(4104) * 4104 * 255 <= UINT32_MAX);
    static_assert(uint64_t(4104) * 4105 * 255 > UINT32_MAX);
    EXPECT_FALSE(SummedAreaNeedsWideEntries(4104, 4104));
    EXPECT_TRUE(SummedAreaNeedsWideEntries(4104, 4105));
    EXPECT_FALSE(SummedAreaNeedsWideEntries(16777216, 1));
    EXPECT_TRUE(SummedAreaNeedsWideEntries(16777216, 2));
}

TEST(TextureImplTest, InitFailuresAreReportedAndDeepTexturesHaveNoSummedArea) {
    host::CapturedDiagnostics diagnostics;
    auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
    EXPECT_EQ(texture->Build(TEXTUREPYRAMID::MIPMAP).GetError().Message(),
              "Illegal state: The texture is not initialised.");
    EXPECT_EQ(texture->Init(nullptr, {}).GetError().Message(),
              "Illegal argument: The image has no pixel data.");
    EXPECT_EQ(texture->Init(*CreateImage(4, 4), {}).GetError().Message(),
              "Illegal argument: The image has no pixel data.");
    auto odd = std::make_shared<FakeLayer>(4, 4, PixelFormat{5, CHANNELTYPE::UINT8});
    EXPECT_EQ(texture->Init(ImageOf(odd), {}).GetError().Message(),
              "Illegal argument: Unknown pixel format.");
    auto lines = diagnostics.Lines();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2], "TextureImpl::Init Error: Illegal argument: Unknown pixel format.");
    // Storage by bits per channel; grey with alpha goes to four channels.
    auto greyAlpha = std::make_shared<FakeLayer>(2, 2, PixelFormat{2, CHANNELTYPE::UINT16});
    ASSERT_TRUE(texture->Init(ImageOf(greyAlpha), {}).Ok());
    EXPECT_EQ(texture->GetStorage(), TEXTURESTORAGE::RGBA16);
    for (PixelFormat f : {kPixelRgb16, kPixelRgba32f}) {
        auto deep = MakeTexture(RandomImage(3, 3, f, 1));
        for (int i = 0; i < 2; ++i)
            EXPECT_EQ(deep->Build(TEXTUREPYRAMID::SUMMEDAREA).GetError().Message(),
                      "Summed area tables do not support more than 8 bits depth.");
        EXPECT_FALSE(deep->IsBuilt(TEXTUREPYRAMID::BASELEVEL));  // nothing read for it
    }
}

// A row that cannot be read fails the build, which stays unmarked and can be redone.
TEST(TextureImplTest, AFailingRowJobLeavesThePyramidUnbuilt) {
    host::CapturedDiagnostics quiet;
    auto layer = std::make_shared<FakeLayer>(64, 300, kPixelRgba8);
    layer->failRow = 211;
    auto texture = MakeTexture(ImageOf(layer));
    EXPECT_EQ(texture->Build(TEXTUREPYRAMID::MIPMAP).GetError().Message(),
              "Row 211 is unreadable.");
    EXPECT_FALSE(texture->IsBuilt(TEXTUREPYRAMID::BASELEVEL));
    EXPECT_FALSE(texture->IsBuilt(TEXTUREPYRAMID::MIPMAP));
    EXPECT_TRUE(texture->GetMipLevel(0).IsEmpty());
    layer->failRow = -1;
    ASSERT_TRUE(texture->Build(TEXTUREPYRAMID::MIPMAP).Ok());
    EXPECT_EQ(static_cast<const uint8_t*>(texture->GetMipLevel(8).pixels)[0], 100);
}

}  // namespace
}  // namespace kelvo
