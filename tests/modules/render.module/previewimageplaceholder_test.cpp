// Placeholder textures: one load per reason however many threads ask at once, each reason
// its own texture, a failed load kept for its reason only, and failed allocations.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

#include "host.h"
#include "implementation/previewimageplaceholder_impl.h"
#include "kelvo/registry.h"

namespace kelvo::nodes {
namespace {

class PlaceholderTest : public testing::Test {
protected:
    void SetUp() override { host::SetResourceRoot(KELVO_SOURCE_DIR "/resources"); }
    void TearDown() override { host::SetResourceRoot({}); }
};

TEST_F(PlaceholderTest, EveryReasonHasItsOwnTextureOfTheIcon) {
    auto placeholder = CreateComponent<PreviewImagePlaceholderInterface>();
    ASSERT_TRUE(placeholder.Ok()) << placeholder.GetError().Message();
    auto nospace = (*placeholder)->GetPlaceholder(kPlaceholderNoSpace);
    ASSERT_TRUE(nospace.Ok()) << nospace.GetError().Message();
    EXPECT_EQ((*nospace)->GetWidth(), 64);
    EXPECT_EQ((*nospace)->GetHeight(), 64);
    // The middle of the icon is opaque and its corner transparent.
    EXPECT_FLOAT_EQ((*nospace)->GetPixel(32, 8).a, 1.0f);
    EXPECT_FLOAT_EQ((*nospace)->GetPixel(0, 0).a, 0.0f);
    auto error = (*placeholder)->GetPlaceholder(kPlaceholderError);
    ASSERT_TRUE(error.Ok());
    EXPECT_NE(*error, *nospace);
    EXPECT_EQ((*error)->GetSamples(), (*nospace)->GetSamples());
    EXPECT_EQ(*(*placeholder)->GetPlaceholder(kPlaceholderError), *error);
    EXPECT_EQ((*placeholder)->GetPlaceholder(Id("net.kelvo.test.none")).GetError().Message(),
              "Illegal argument: Unknown preview image placeholder net.kelvo.test.none.");
}

TEST_F(PlaceholderTest, ThreadsAskingAtOnceCauseOneLoad) {
    std::atomic<int> loads{0};
    PlaceholderImageTextureCache cache([&](const Url& url) {
        ++loads;
        // Long enough for the other thread to arrive while the load runs.
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        return LoadImageTexture(url);
    });
    std::latch start(4);
    ImageTextureRef seen[4];
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            auto texture = cache.Find(kPlaceholderNoMaterialEndNode)->Get();
            if (texture) seen[i] = *texture;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(loads.load(), 1);
    ASSERT_TRUE(seen[0]);
    for (const auto& texture : seen) EXPECT_EQ(texture, seen[0]);
}

TEST_F(PlaceholderTest, AMissingIconFailsItsReasonOnly) {
    int loads = 0;
    PlaceholderImageTextureCache cache([&](const Url& url) {
        // The first load meets a missing file, as an incomplete installation would.
        if (loads++ == 0)
            return LoadImageTexture(*Url::FromText("relative:///modules/browser/icons/gone.tif"));
        return LoadImageTexture(url);
    });
    const std::string missing =
        "Cannot open relative:///modules/browser/icons/gone.tif: no such file.";
    auto failed = cache.Find(kPlaceholderNoSpace)->Get();
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(failed.GetError().Message(), missing);
    EXPECT_TRUE(cache.Find(kPlaceholderError)->Get().Ok());
    EXPECT_TRUE(cache.Find(kPlaceholderNoMaterialEndNode)->Get().Ok());
    // The failure is kept: asking again does not load again.
    EXPECT_EQ(cache.Find(kPlaceholderNoSpace)->Get().GetError().Message(), missing);
    EXPECT_EQ(loads, 3);
}

TEST_F(PlaceholderTest, FailedAllocationsAreTriedAgainAndLeakNothing) {
    bool loaded = false;
    for (int64_t n = 1; !loaded; ++n) {
        ASSERT_LT(n, 10000);
        const int64_t before = host::LiveAllocations();
        {
            PlaceholderImageTextureCache cache;
            host::FailNthAllocation(n);
            auto texture = cache.Find(kPlaceholderError)->Get();
            host::FailNthAllocation(0);
            loaded = texture.Ok();
            if (!loaded) {
                ASSERT_EQ(texture.GetError().Message(), "Out of memory.") << n;
                EXPECT_TRUE(cache.Find(kPlaceholderError)->Get().Ok()) << n;
            }
        }
        EXPECT_EQ(host::LiveAllocations(), before) << n;
    }
}

}  // namespace
}  // namespace kelvo::nodes
