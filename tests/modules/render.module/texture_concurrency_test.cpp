// Many threads meeting a fresh texture: each pyramid is built once, each url loaded once.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>
#include <vector>

#include "implementation/texture_impl.h"
#include "kelvo/mediasession_output.h"
#include "texture_test_util.h"

namespace kelvo {
namespace {
using namespace testing_texture;

template <typename F>
void Stampede(int threads, F&& f) {
    std::atomic<int> ready{0};
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < threads) std::this_thread::yield();
            f(t);
        });
    for (auto& t : pool) t.join();
}

TEST(TextureConcurrencyTest, SixteenThreadsBuildEachPyramidOnce) {
    for (int round = 0; round < 5; ++round) {
        auto sampler = *CreateTextureSampler(RandomImage(301, 157, kPixelRgba8, uint32_t(round)));
        std::atomic<int> failures{0};
        Stampede(16, [&](int t) {
            for (int i = 0; i < 50; ++i) {
                const auto mode = TEXTUREMODE((t + i) % 5);
                const double s = 0.001 * (i + 1);
                if (!sampler->ThreadedTextureSample({0.01 * i, 0.3}, {s, 0, 0, s}, {mode}).Ok())
                    failures.fetch_add(1);
            }
        });
        EXPECT_EQ(failures.load(), 0);
        auto* texture = dynamic_cast<TextureImpl*>(sampler->GetTexture().get());
        ASSERT_NE(texture, nullptr);
        for (auto p : {TEXTUREPYRAMID::BASELEVEL, TEXTUREPYRAMID::MIPMAP, TEXTUREPYRAMID::RIPMAP,
                       TEXTUREPYRAMID::SUMMEDAREA})
            EXPECT_EQ(texture->GetBuildCount(p), 1) << int(p);
    }
}

TEST(TextureConcurrencyTest, ConcurrentFirstRequestsLoadOnce) {
    namespace fs = std::filesystem;
    const fs::path file =
        fs::temp_directory_path() / ("kelvo_texture_race_" + std::to_string(::getpid()) + ".png");
    ASSERT_TRUE(ExportImage(Url::FromFile(file.string()), *RandomImage(8, 8, kPixelRgb8, 4)).Ok());
    for (int round = 0; round < 5; ++round) {
        auto cache = *CreateClass<TextureManagementInterface>(kTextureManagementImplClass);
        std::vector<StrongRef<TextureSamplerInterface>> got(12);
        Stampede(12, [&](int t) {
            auto r = cache->GetTexture(Url::FromFile(file.string()), nullptr);
            if (r) got[size_t(t)] = *r;
        });
        for (auto& g : got) EXPECT_EQ(g.get(), got[0].get());
        EXPECT_NE(got[0], nullptr);
        EXPECT_EQ(cache->GetTextureCount(), 1);
    }
    fs::remove(file);
}

}  // namespace
}  // namespace kelvo
