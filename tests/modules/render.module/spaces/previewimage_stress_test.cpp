// The preview scheduler under real threads and under failing allocations.
#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "host.h"
#include "previewimage_test_util.h"

namespace kelvo::nodes {
namespace {

using testing_previewimage::SyntheticTask;

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr int kOpsPerThread = 500;
#else
constexpr int kOpsPerThread = 2500;
#endif

// What one task received, checked against what may arrive.
struct Account {
    StrongRef<PreviewImageSchedulerEntry> entry;
    std::vector<StrongRef<PreviewImageSubscription>> handles;
    std::atomic<int> deliveries[4] = {};
    std::atomic<int> errors{0};
    std::atomic<bool> cancelReturned{false};
    std::atomic<bool> lateDelivery{false};
    int64_t count = 1;
};

TEST(PreviewStressTest, RandomSubmitsCopiesAndReleasesFromFourThreads) {
    PreviewImageScheduler::Release();
    const int64_t before = host::LiveAllocations();
    ASSERT_TRUE(PreviewImageScheduler::Create(4).Ok());
    const int limit = PreviewImageScheduler::GetStatistics()->limit;
    std::vector<std::unique_ptr<Account>> accounts[4];
    std::atomic<bool> overLimit{false};
    auto worker = [&](int t) {
        std::mt19937 rng(1234 + t);
        std::vector<Account*> live;
        for (int op = 0; op < kOpsPerThread; ++op) {
            int what = int(rng() % 4);
            if (what <= 1 || live.empty()) {  // submit, normal or priority
                auto account = std::make_unique<Account>();
                Account* a = account.get();
                a->count = 1 + int64_t(rng() % 4);
                DataDictionary d;
                (void)d.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{2, 2});
                (void)d.Set(
                    PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC,
                    *MakeResultCompleteFunc([a](const Result<DataDictionary>& r) {
                        if (a->cancelReturned.load()) a->lateDelivery = true;
                        if (!r) {
                            a->errors.fetch_add(1);
                            return;
                        }
                        a->deliveries[r->Get<int64_t>(PREVIEWIMAGEREQUEST::ITERATIONINDEX, 0)]
                            .fetch_add(1);
                    }));
                a->entry =
                    *PreviewImageSchedulerEntry::Create(d, *NewObject<SyntheticTask>(a->count));
                a->handles.push_back(
                    *PreviewImageScheduler::SubmitEntry(a->entry, what == 1 && rng() % 4 == 0));
                live.push_back(a);
                accounts[t].push_back(std::move(account));
            } else if (what == 2) {  // copy a handle, as a request copy does
                Account* a = live[rng() % live.size()];
                a->handles.push_back(a->handles.front());
            } else {  // release one handle; the last one cancels
                size_t i = rng() % live.size();
                Account* a = live[i];
                a->handles.pop_back();
                if (a->handles.empty()) {
                    a->cancelReturned = true;
                    live.erase(live.begin() + long(i));
                }
            }
            auto s = *PreviewImageScheduler::GetStatistics();
            if (s.runningNormal > size_t(limit) || s.runningPriority > size_t(limit))
                overLimit = true;
        }
        for (Account* a : live) {
            a->handles.clear();
            a->cancelReturned = true;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(worker, t);
    for (auto& th : threads) th.join();
    PreviewImageScheduler::Release();
    EXPECT_FALSE(overLimit.load());
    size_t finished = 0;
    for (auto& list : accounts) {
        for (auto& a : list) {
            EXPECT_FALSE(a->lateDelivery.load());
            EXPECT_EQ(a->errors.load(), 0);
            EXPECT_LE(a->entry->GetCompletionCount(), 1);
            for (auto& d : a->deliveries) EXPECT_LE(d.load(), 1);
            if (a->deliveries[a->count - 1].load() == 1) {
                ++finished;
                EXPECT_EQ(a->entry->GetCompletionCount(), 1);
            }
        }
    }
    EXPECT_GT(finished, 0u);
    for (auto& list : accounts) list.clear();
    EXPECT_EQ(host::LiveAllocations(), before);
    ASSERT_TRUE(PreviewImageScheduler::Create().Ok());
}

TEST(PreviewFaultTest, EveryAllocationFailsInTurnAndTheSchedulerKeepsServing) {
    host::SetDeterministicJobs(true);
    PreviewImageScheduler::Release();
    const int64_t before = host::LiveAllocations();
    int clean = 0;
    for (int n = 1; n < 2000 && clean < 3; ++n) {
        ASSERT_TRUE(PreviewImageScheduler::Create(1).Ok());
        testing_previewimage::Recorder recorder;
        DataDictionary d = recorder.Request("a");
        ASSERT_TRUE(d.Set(PREVIEWIMAGEREQUEST::FLIPVERTICALLY, true).Ok());
        auto task = *NewObject<SyntheticTask>(2);
        host::FailNthAllocation(n);
        auto entry = PreviewImageSchedulerEntry::Create(d, task);
        Result<StrongRef<PreviewImageSubscription>> sub =
            entry ? PreviewImageScheduler::SubmitEntry(*entry, false)
                  : Result<StrongRef<PreviewImageSubscription>>(entry.GetError());
        host::RunPendingJobs();
        host::FailNthAllocation(0);
        auto d2 = recorder.Deliveries();
        if (!sub) {
            EXPECT_EQ(sub.GetError().Message(), "Out of memory.") << n;
            EXPECT_TRUE(d2.empty());
        } else {
            // Either both iterations arrived or the last thing to arrive was the error.
            ASSERT_FALSE(d2.empty()) << n;
            bool whole = d2.size() == 2 && d2[0].error.empty() && d2[1].error.empty();
            EXPECT_TRUE(whole || d2.back().error == "Out of memory.") << n;
            EXPECT_TRUE((*entry)->GetCompletion()->IsSet()) << n;
            clean = whole ? clean + 1 : 0;
        }
        // The scheduler still serves another task.
        auto other = *PreviewImageSchedulerEntry::Create(recorder.Request("b"),
                                                         *NewObject<SyntheticTask>(1));
        auto s2 = *PreviewImageScheduler::SubmitEntry(other, false);
        host::RunPendingJobs();
        EXPECT_TRUE(other->GetCompletion()->IsSet()) << n;
        sub = Error::OutOfMemory();
        entry = Error::OutOfMemory();
        s2.reset();
        other.reset();
        PreviewImageScheduler::Release();
    }
    EXPECT_EQ(clean, 3);
    EXPECT_EQ(host::LiveAllocations(), before);
    host::SetDeterministicJobs(false);
    ASSERT_TRUE(PreviewImageScheduler::Create().Ok());
}

}  // namespace
}  // namespace kelvo::nodes
