// The tool's preview requests, in-process: materials and settings read once with their
// bounds, and an inbox whose waiting thread sleeps until a delivery or Ctrl-C and misses
// none of them.
#include "preview_request.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <random>
#include <thread>
#include <vector>

#include "host.h"
#include "kelvo/previewmaterials.h"

namespace kelvo::cli {
namespace {

class PreviewRequestTest : public testing::Test {
protected:
    static void SetUpTestSuite() { host::Initialize(); }

    // A delivery as the pipeline makes it: the iteration and the count.
    static Result<DataDictionary> Delivery(int64_t index, int64_t count) {
        DataDictionary d;
        EXPECT_TRUE(d.Set(nodes::PREVIEWIMAGEREQUEST::ITERATIONINDEX, index).Ok());
        EXPECT_TRUE(d.Set(nodes::PREVIEWIMAGEREQUEST::ITERATIONCOUNT, count).Ok());
        EXPECT_TRUE(d.Set(PREVIEWRESULT::ITERATIONSECONDS, 0.25).Ok());
        return d;
    }
};

TEST_F(PreviewRequestTest, MaterialsAndSettingsAreReadOnceWithTheirBoundsAndMessages) {
    auto m = ParsePreviewMaterial(
        R"({"model": "net.kelvo.render.bsdflegacyclass.ggxbrdf", "space": "net.kelvo.x.y"})");
    ASSERT_TRUE(m.Ok()) << m.GetError().Message();
    EXPECT_EQ(m->label, "ggxbrdf");
    EXPECT_EQ(m->space, Id("net.kelvo.x.y"));
    // The space is the requester's business: the material passed on holds the model alone,
    // already typed.
    EXPECT_EQ(m->material.Size(), 1u);
    EXPECT_EQ(m->material.Get<Id>(PREVIEWMATERIAL::MODEL),
              Id("net.kelvo.render.bsdflegacyclass.ggxbrdf"));
    // The material is read here, once: its errors come before any request is built.
    EXPECT_EQ(ParsePreviewMaterial(R"({"space": "net.kelvo.x.y", "color": [1, 1, 1]})")
                  .GetError()
                  .Message(),
              "Illegal argument: Unknown material member 'color'.");
    EXPECT_EQ(ParsePreviewMaterial(R"({"colour": [1, 1, "1"]})").GetError().Message(),
              "Illegal argument: colour must be an array of 3 numbers.");
    m = ParsePreviewMaterial("{}");
    ASSERT_TRUE(m.Ok());
    EXPECT_EQ(m->label, "lambertbrdf");
    EXPECT_EQ(m->space, kLegacyMaterialNodeSpace);
    EXPECT_EQ(ParsePreviewMaterial("{").GetError().Message(),
              "Illegal argument: --material is not valid JSON (byte 2).");
    EXPECT_EQ(ParsePreviewMaterial("").GetError().Message(),
              "Illegal argument: --material is not valid JSON (byte 1).");
    for (const char* bad : {"[1]", "\"ggx\""})
        EXPECT_EQ(ParsePreviewMaterial(bad).GetError().Message(),
                  "Illegal argument: --material must be a JSON object.")
            << bad;
    EXPECT_EQ(ParsePreviewMaterial(R"({"space": 3})").GetError().Message(),
              "Illegal argument: space must be a string.");

    PreviewRequestSettings s;
    EXPECT_TRUE(CheckPreviewSettings(s).Ok());
    s.width = kPreviewMaxSide;
    s.iterations = kPreviewMaxIterations;
    EXPECT_TRUE(CheckPreviewSettings(s).Ok());
    s.width = kPreviewMaxSide + 1;
    EXPECT_EQ(CheckPreviewSettings(s).GetError().Message(),
              "Illegal argument: Preview size 16385 x 128 is out of range.");
    s.width = 8;
    s.iterations = kPreviewMaxIterations + 1;
    EXPECT_EQ(CheckPreviewSettings(s).GetError().Message(),
              "Illegal argument: --iterations must be an integer from 1 to 1048576.");
    s.iterations = 1;
    s.scene = "stage";
    EXPECT_EQ(CheckPreviewSettings(s).GetError().Message(),
              "Illegal argument: Unknown scene 'stage' (open, sphere, cube, plane, backdrop).");
}

TEST_F(PreviewRequestTest, DeliveriesAndFailuresWakeTheWaiterAndCtrlCEndsTheWait) {
    auto inbox = std::make_shared<PreviewInbox>();
    const size_t a = inbox->Add("a", 2), b = inbox->Add("b", 5), c = inbox->Add("c", 1);
    auto toA = inbox->Receiver(a), toB = inbox->Receiver(b);
    std::thread queue([&] {
        toA(Delivery(0, 2));
        toA(Delivery(1, 2));
        toB(Delivery(0, 5));
        toB(IllegalStateError(KELVO_HERE, "The texture is gone."));
    });
    while (!inbox->Get(a).done || !inbox->Get(b).done) inbox->Wait();
    queue.join();
    const PreviewProgress pa = inbox->Get(a), pb = inbox->Get(b);
    EXPECT_EQ(pa.iterations, 2);
    EXPECT_TRUE(pa.error.empty());
    EXPECT_GE(pa.finalImageSeconds, pa.firstImageSeconds);
    EXPECT_EQ(pa.iterationSeconds, (std::vector<double>{0.25, 0.25}));
    EXPECT_EQ(pb.iterations, 1);
    EXPECT_EQ(pb.error, "Illegal state: The texture is gone.");
    EXPECT_LT(pb.finalImageSeconds, 0.0);  // never finished

    inbox->Fail(c, NoNodeSpaceMessage(Id("net.kelvo.x.y")), nodes::kPlaceholderNoSpace);
    inbox->Wait();  // the failure posted: no sleep
    EXPECT_EQ(inbox->Get(c).error, "Illegal argument: Node space net.kelvo.x.y not found.");
    EXPECT_EQ(inbox->Get(c).placeholder, "net.kelvo.nodes.previewimageplaceholder.nospace");

    {
        InterruptGuard guard(&inbox->GetWakeup());
        EXPECT_FALSE(guard.Interrupted());
        std::raise(SIGINT);  // handled: the test goes on
        inbox->Wait();       // Ctrl-C posted
        EXPECT_TRUE(guard.Interrupted());
    }
    InterruptGuard again;
    EXPECT_FALSE(again.Interrupted());  // a new run starts clean
}

TEST_F(PreviewRequestTest, StressManyRequestsOnManyThreadsLoseNoDelivery) {
    std::mt19937 random(20261125);
    constexpr int kSlots = 24, kThreads = 4;
    auto inbox = std::make_shared<PreviewInbox>();
    std::vector<int64_t> counts;
    for (int i = 0; i < kSlots; ++i) {
        counts.push_back(1 + int64_t(random() % 40));
        inbox->Add("s" + std::to_string(i), counts.back());
    }
    // Each request is delivered by one thread at a time, in order, as the pipeline does;
    // the threads interleave the requests at random.
    std::atomic<int64_t> calls{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t, seed = random()] {
            std::mt19937 r(seed);
            std::vector<std::pair<size_t, int64_t>> next;  // slot, next index
            for (size_t s = size_t(t); s < size_t(kSlots); s += kThreads) next.emplace_back(s, 0);
            while (!next.empty()) {
                const size_t k = r() % next.size();
                auto& [slot, index] = next[k];
                inbox->Receiver(slot)(Delivery(index, counts[slot]));
                calls.fetch_add(1);
                if (++index == counts[slot]) next.erase(next.begin() + std::ptrdiff_t(k));
                if (r() % 8 == 0) std::this_thread::yield();
            }
        });
    int64_t wakes = 0;
    for (;;) {
        bool all = true;
        for (const PreviewProgress& p : inbox->GetAll()) all = all && p.done;
        if (all) break;
        inbox->Wait();
        ++wakes;
    }
    for (auto& t : threads) t.join();
    int64_t total = 0;
    for (int i = 0; i < kSlots; ++i) {
        const PreviewProgress p = inbox->Get(size_t(i));
        EXPECT_EQ(p.iterations, counts[size_t(i)]) << i;
        EXPECT_EQ(int64_t(p.iterationSeconds.size()), counts[size_t(i)]) << i;
        total += counts[size_t(i)];
    }
    EXPECT_EQ(calls.load(), total);
    EXPECT_LE(wakes, total);  // one sleep per delivery at most: no busy waiting
}

}  // namespace
}  // namespace kelvo::cli
