// The job system under real threads (run under ThreadSanitizer too).
#include "kelvo/jobs.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "host.h"

namespace kelvo {
namespace {

using namespace std::chrono_literals;

class JobsTest : public testing::Test {
protected:
    void SetUp() override {
        host::Initialize();
        host::SetDeterministicJobs(false);
        host::SetHostThreads(4);
    }
    void TearDown() override { host::SetHostThreads(0); }
};

StrongRef<JobInterface> MakeJob(std::string_view name, JobFunction f) {
    auto job = CreateJob(name, std::move(f));
    EXPECT_TRUE(job.Ok());
    return *job;
}

TEST_F(JobsTest, CancelReachesRunningJobAndObserversRunOnce) {
    auto queue = *CreateJobQueue("Cancel Queue", 1);
    auto started = *CreateConditionVariable();
    std::atomic<int> observed{0};
    auto job = MakeJob("Spinner", [&](JobInterface& self) -> Result<void> {
        started->Set();
        while (!self.IsCancelled()) std::this_thread::yield();
        return UnexpectedError(KELVO_HERE, "stopped");
    });
    ASSERT_TRUE(job->AddObserver([&](JobInterface& j) {
                       EXPECT_TRUE(j.IsCancelled());
                       observed.fetch_add(1);
                   })
                    .Ok());
    // A second job waits behind the first; cancelling it ends it at once, unrun.
    std::atomic<bool> secondRan{false};
    auto second = MakeJob("Behind", [&](JobInterface&) -> Result<void> {
        secondRan = true;
        return OK();
    });
    ASSERT_TRUE(second->AddObserver([&](JobInterface&) { observed.fetch_add(10); }).Ok());
    ASSERT_TRUE(queue->Enqueue(job).Ok());
    ASSERT_TRUE(queue->Enqueue(second).Ok());
    started->Wait();
    EXPECT_EQ(job->GetState(), JOBSTATE::RUNNING);

    EXPECT_EQ(CancelAndWait(*second).GetError().Message(), "Job Behind was cancelled.");
    EXPECT_EQ(job->GetState(), JOBSTATE::RUNNING);  // still spinning: second never waited on it

    EXPECT_EQ(CancelAndWait(*job).GetError().Message(), "stopped");
    EXPECT_EQ(job->GetState(), JOBSTATE::ENDED);
    queue->WaitAll();
    EXPECT_FALSE(secondRan);
    EXPECT_EQ(observed.load(), 11);
    // Cancelling or waiting again changes nothing; a late observer runs at once, once.
    job->Cancel();
    EXPECT_EQ(job->Wait().GetError().Message(), "stopped");
    ASSERT_TRUE(job->AddObserver([&](JobInterface&) { observed.fetch_add(100); }).Ok());
    EXPECT_EQ(observed.load(), 111);
}

TEST_F(JobsTest, MisuseIsAnErrorNotAHang) {
    EXPECT_EQ(CreateJobQueue("Q", 0).GetError().Message(),
              "Illegal argument: Invalid thread count 0 for job queue Q.");
    auto queue = *CreateJobQueue("Q", 2);
    auto job = MakeJob("Once", [](JobInterface&) { return OK(); });
    EXPECT_EQ(job->Wait().GetError().Message(), "Illegal state: Job Once was not started.");
    ASSERT_TRUE(queue->Enqueue(job).Ok());
    EXPECT_EQ(queue->Enqueue(job).GetError().Message(),
              "Illegal state: Job Once has already started.");
    EXPECT_TRUE(job->Wait().Ok());
    EXPECT_EQ(job->Run().GetError().Message(), "Illegal state: Job Once has already started.");

    auto selfWait = MakeJob("Self", [&](JobInterface& j) { return j.Wait(); });
    EXPECT_EQ(selfWait->Run().GetError().Message(), "Illegal state: Job Self waits for itself.");

    auto thrower =
        MakeJob("Thrower", [](JobInterface&) -> Result<void> { throw std::runtime_error("boom"); });
    ASSERT_TRUE(queue->Enqueue(thrower).Ok());
    EXPECT_EQ(thrower->Wait().GetError().Message(), "Job Thrower failed: boom");
}

TEST_F(JobsTest, QueueKeepsItsThreadLimitAndOrder) {
    auto wide = *CreateJobQueue("Wide", 2);
    auto narrow = *CreateJobQueue("Narrow", 1);
    std::atomic<int> running{0}, most{0};
    std::mutex orderMutex;
    std::vector<int> order;
    std::vector<StrongRef<JobInterface>> jobs;
    for (int i = 0; i < 12; ++i) {
        jobs.push_back(MakeJob("Limited", [&](JobInterface&) -> Result<void> {
            int now = running.fetch_add(1) + 1;
            int seen = most.load();
            while (now > seen && !most.compare_exchange_weak(seen, now)) {
            }
            std::this_thread::sleep_for(1ms);
            running.fetch_sub(1);
            return OK();
        }));
        ASSERT_TRUE(wide->Enqueue(jobs.back()).Ok());
        auto ordered = MakeJob("Ordered", [&, i](JobInterface&) -> Result<void> {
            std::lock_guard lock(orderMutex);
            order.push_back(i);
            return OK();
        });
        ASSERT_TRUE(narrow->Enqueue(ordered).Ok());
    }
    wide->WaitAll();
    narrow->WaitAll();
    EXPECT_LE(most.load(), 2);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11}));
    for (auto& j : jobs) EXPECT_EQ(j->GetState(), JOBSTATE::ENDED);
}

// A chain of jobs, each enqueued by its predecessor's end-of-job observer, as preview
// iterations are.
struct Chain {
    StrongRef<JobQueueInterface> queue;
    std::string name;
    int left = 0;
    std::function<void()> first;  // runs inside the first job
    std::mutex* lock = nullptr;
    std::vector<std::string>* order = nullptr;
    std::vector<std::thread::id> threads;

    void Next() {
        if (left-- == 0) return;
        auto job = MakeJob(name, [this](JobInterface&) -> Result<void> {
            if (first) std::exchange(first, nullptr)();
            threads.push_back(std::this_thread::get_id());
            if (order) {
                std::lock_guard guard(*lock);
                order->push_back(name);
            }
            return OK();
        });
        EXPECT_TRUE(job->AddObserver([this](JobInterface&) { Next(); }).Ok());
        EXPECT_TRUE(queue->Enqueue(job).Ok());
    }
};

TEST_F(JobsTest, AChainKeepsItsWorkerUntilAnotherQueueWaitsThenTheyTakeTurns) {
    // Alone in the pool, the chain's jobs run one after another on one worker: no wake-ups.
    Chain alone{*CreateJobQueue("Alone", 1), "a", 50};
    alone.Next();
    alone.queue->WaitAll();
    ASSERT_EQ(alone.threads.size(), 50u);
    EXPECT_EQ(std::set<std::thread::id>(alone.threads.begin(), alone.threads.end()).size(), 1u);

    // Two chains on a one-thread pool alternate once both are queued.
    host::SetHostThreads(1);
    std::mutex lock;
    std::vector<std::string> order;
    Chain a{*CreateJobQueue("A", 1), "a", 4, {}, &lock, &order};
    Chain b{*CreateJobQueue("B", 1), "b", 4, {}, &lock, &order};
    auto bQueued = *CreateConditionVariable();
    a.first = [&] { bQueued->Wait(); };
    a.Next();
    b.Next();
    bQueued->Set();
    a.queue->WaitAll();
    b.queue->WaitAll();
    EXPECT_EQ(order, (std::vector<std::string>{"a", "b", "a", "b", "a", "b", "a", "b"}));
}

TEST_F(JobsTest, CancelAllEndsEveryJobAndWaitAllReturns) {
    auto queue = *CreateJobQueue("Many", 2);
    std::atomic<int> observers{0}, ran{0};
    std::vector<StrongRef<JobInterface>> jobs;
    for (int i = 0; i < 50; ++i) {
        jobs.push_back(MakeJob("Sleepy", [&](JobInterface& self) -> Result<void> {
            ran.fetch_add(1);
            while (!self.IsCancelled()) std::this_thread::sleep_for(100us);
            return OK();
        }));
        ASSERT_TRUE(jobs.back()->AddObserver([&](JobInterface&) { observers.fetch_add(1); }).Ok());
        ASSERT_TRUE(queue->Enqueue(jobs.back()).Ok());
    }
    queue->CancelAll();
    queue->WaitAll();
    EXPECT_EQ(observers.load(), 50);
    EXPECT_LE(ran.load(), 2);
    for (auto& j : jobs) {
        EXPECT_TRUE(j->IsCancelled());
        EXPECT_EQ(j->GetState(), JOBSTATE::ENDED);
    }
}

TEST_F(JobsTest, ParallelForCoversEveryIndexOnceWithAnyChunk) {
    for (int64_t chunk :
         {int64_t(0), int64_t(1), int64_t(3), int64_t(7), int64_t(64), int64_t(1000), INT64_MAX}) {
        for (auto [from, to] : {std::pair<int64_t, int64_t>{0, 1}, {-5, 300}, {10, 1009}}) {
            std::vector<std::atomic<int>> hits(size_t(to - from));
            std::atomic<int> inits{0}, finals{0};
            int64_t total = 0;  // merged in finalise, which never overlaps
            struct Local {
                int64_t sum = 0;
            };
            ASSERT_TRUE(ParallelFor<Local>(
                            from, to, [&](Local&) { inits.fetch_add(1); },
                            [&](Local& l, int64_t i) {
                                hits[size_t(i - from)].fetch_add(1);
                                l.sum += i;
                            },
                            [&](Local& l) {
                                finals.fetch_add(1);
                                total += l.sum;
                            },
                            {chunk, 0})
                            .Ok());
            for (auto& h : hits) ASSERT_EQ(h.load(), 1) << "chunk " << chunk;
            EXPECT_EQ(total, (from + to - 1) * (to - from) / 2);
            EXPECT_EQ(inits.load(), finals.load());
            EXPECT_GE(inits.load(), 1);
            EXPECT_LE(inits.load(), 4);
        }
    }
    int calls = 0;
    EXPECT_TRUE(ParallelFor(5, 5, [&](int64_t) { ++calls; }).Ok());
    EXPECT_TRUE(ParallelFor(5, -3, [&](int64_t) { ++calls; }).Ok());
    EXPECT_EQ(calls, 0);
}

TEST_F(JobsTest, ParallelForHandsBackTheFirstError) {
    // One worker runs the indices in order: the first failing index is the error.
    Result<void> r = ParallelFor(0, 100,
                                 [](int64_t i) -> Result<void> {
                                     if (i == 37 || i == 50)
                                         return IllegalArgumentError(KELVO_HERE, "index @", i);
                                     return OK();
                                 },
                                 {1, 1});
    EXPECT_EQ(r.GetError().Message(), "Illegal argument: index 37");

    // Many workers: the loop stops early, finalise still runs for every initialised worker.
    std::atomic<int> done{0}, inits{0}, finals{0};
    struct Local {};
    r = ParallelFor<Local>(
        0, 100000, [&](Local&) { inits.fetch_add(1); },
        [&](Local&, int64_t i) -> Result<void> {
            if (i == 10) return UnexpectedError(KELVO_HERE, "failed at 10");
            done.fetch_add(1);
            return OK();
        },
        [&](Local&) { finals.fetch_add(1); }, {16, 0});
    EXPECT_EQ(r.GetError().Message(), "failed at 10");
    EXPECT_LT(done.load(), 100000 - 1);
    EXPECT_EQ(inits.load(), finals.load());

    r = ParallelFor<Local>(
        0, 10, [](Local&) { return Error::OutOfMemory(); }, [](Local&, int64_t) {}, [](Local&) {});
    EXPECT_EQ(r.GetError().Message(), "Out of memory.");
}

TEST_F(JobsTest, ParallelForInsideEveryPoolThreadDoesNotDeadlock) {
    auto queue = *CreateJobQueue("Nested", HostThreadCount());
    std::atomic<int64_t> sum{0};
    std::vector<StrongRef<JobInterface>> jobs;
    for (int j = 0; j < 8; ++j) {
        jobs.push_back(MakeJob("Outer", [&](JobInterface&) {
            return ParallelFor(0, 1000, [&](int64_t i) { sum.fetch_add(i); }, {10, 0});
        }));
        ASSERT_TRUE(queue->Enqueue(jobs.back()).Ok());
    }
    for (auto& j : jobs) EXPECT_TRUE(j->Wait().Ok());
    EXPECT_EQ(sum.load(), 8 * 499500);
}

TEST_F(JobsTest, LazyInitRunsOnceUnderAStampede) {
    for (bool fails : {false, true}) {
        LazyInitThreaded<std::vector<int>> lazy;
        std::atomic<int> makes{0}, ready{0};
        std::vector<std::thread> threads;
        std::vector<Result<std::vector<int>*>> results(16, Result<std::vector<int>*>(nullptr));
        for (int t = 0; t < 16; ++t)
            threads.emplace_back([&, t] {
                ready.fetch_add(1);
                while (ready.load() < 16) std::this_thread::yield();
                results[size_t(t)] = lazy.Get([&]() -> Result<std::vector<int>> {
                    makes.fetch_add(1);
                    std::this_thread::sleep_for(5ms);
                    if (fails) return IoError(KELVO_HERE, "x", "Cannot read x.");
                    return std::vector<int>{1, 2, 3};
                });
            });
        for (auto& t : threads) t.join();
        EXPECT_EQ(makes.load(), 1);
        EXPECT_TRUE(lazy.IsInitialized());
        for (auto& r : results) {
            if (fails) {
                EXPECT_EQ(r.GetError().Message(), "Cannot read x.");
            } else {
                ASSERT_TRUE(r.Ok());
                EXPECT_EQ(*r, *results[0]);
                EXPECT_EQ((**r)[2], 3);
            }
        }
        // The outcome is kept: a later call makes nothing.
        auto again = lazy.Get([&]() -> Result<std::vector<int>> {
            makes.fetch_add(1);
            return std::vector<int>{};
        });
        EXPECT_EQ(makes.load(), 1);
        EXPECT_EQ(again.Ok(), !fails);
    }
}

// An out-of-memory failure is kept only when asked to; other failures always are.
TEST_F(JobsTest, LazyInitRetriesOutOfMemoryOnlyWhenAsked) {
    for (LAZYINIT mode : {LAZYINIT::KEEPFAILURES, LAZYINIT::RETRYOUTOFMEMORY}) {
        LazyInitThreaded<int> lazy(mode);
        int makes = 0;
        auto make = [&]() -> Result<int> {
            if (++makes == 1) return OutOfMemoryError();
            if (makes == 2) return IoError(KELVO_HERE, "x", "Cannot read x.");
            return 7;
        };
        EXPECT_EQ(lazy.Get(make).GetError().Kind(), ERRORKIND::OUTOFMEMORY);
        const bool retries = mode == LAZYINIT::RETRYOUTOFMEMORY;
        EXPECT_EQ(lazy.IsInitialized(), !retries);
        auto second = lazy.Get(make);
        EXPECT_EQ(second.GetError().Kind(), retries ? ERRORKIND::IO : ERRORKIND::OUTOFMEMORY);
        EXPECT_FALSE(lazy.Get(make).Ok());
        EXPECT_EQ(makes, retries ? 2 : 1);
    }
}

TEST_F(JobsTest, ConditionVariableWaitsAndTimesOut) {
    auto cv = *CreateConditionVariable();
    EXPECT_FALSE(cv->WaitFor(0.001));
    cv->Set();
    EXPECT_TRUE(cv->IsSet());
    EXPECT_TRUE(cv->WaitFor(-1));
    cv->Reset();
    EXPECT_FALSE(cv->IsSet());
}

TEST_F(JobsTest, DeterministicModeRunsJobsInEnqueueOrderOnDemand) {
    host::SetDeterministicJobs(true);
    auto a = *CreateJobQueue("A", 3);
    auto b = *CreateJobQueue("B", 1);
    std::vector<std::string> log;  // one thread only: no lock needed
    auto add = [&](const StrongRef<JobQueueInterface>& q, std::string name) {
        auto job = MakeJob(name, [&log, name](JobInterface&) {
            log.push_back(name);
            return OK();
        });
        EXPECT_TRUE(q->Enqueue(job).Ok());
        return job;
    };
    add(a, "a1");
    add(b, "b1");
    auto a2 = add(a, "a2");
    add(b, "b2");
    EXPECT_TRUE(log.empty());
    EXPECT_EQ(host::RunPendingJobs(1), 1u);
    EXPECT_EQ(log, (std::vector<std::string>{"a1"}));
    EXPECT_TRUE(a2->Wait().Ok());  // waiting drives the FIFO up to a2
    EXPECT_EQ(log, (std::vector<std::string>{"a1", "b1", "a2"}));
    b->WaitAll();
    EXPECT_EQ(log, (std::vector<std::string>{"a1", "b1", "a2", "b2"}));
    std::vector<int64_t> indices;
    ASSERT_TRUE(ParallelFor(0, 6, [&](int64_t i) { indices.push_back(i); }, {1, 0}).Ok());
    EXPECT_EQ(indices, (std::vector<int64_t>{0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(host::PendingJobs(), 0u);
    host::SetDeterministicJobs(false);
}

// The preview scheduler's pattern: at the end of each iteration an observer enqueues the
// task's next iteration, so tasks on one queue take turns.
TEST_F(JobsTest, ObserversEnqueueNextIterationsRoundRobin) {
    for (bool deterministic : {true, false}) {
        host::SetDeterministicJobs(deterministic);
        auto queue = *CreateJobQueue("Preview Image Queue", 1);
        std::mutex logMutex;
        std::string log;
        std::function<void(char, int)> start = [&](char task, int iteration) {
            auto job = MakeJob("PreviewImageTaskIteration", [&, task, iteration](JobInterface&) {
                std::lock_guard lock(logMutex);
                log += task;
                log += char('0' + iteration);
                return OK();
            });
            ASSERT_TRUE(job->AddObserver([&, task, iteration](JobInterface&) {
                               if (iteration < 2) start(task, iteration + 1);
                           })
                            .Ok());
            ASSERT_TRUE(queue->Enqueue(job).Ok());
        };
        start('A', 0);
        start('B', 0);
        queue->WaitAll();
        std::lock_guard lock(logMutex);
        if (deterministic) {
            EXPECT_EQ(log, "A0B0A1B1A2B2");
        }
        EXPECT_EQ(log.size(), 12u);
    }
    host::SetDeterministicJobs(false);
}

}  // namespace
}  // namespace kelvo
