// The preview scheduler's own cost per iteration: a task of empty iterations through the
// scheduler (start, end-of-job observer, finish, requeue, dispatch, an empty delivery)
// beside the least any iteration loop pays on the same queue: a chain of the same empty
// jobs in which each job's end-of-job observer enqueues the next. Both run on one-thread
// queues; the ratio of their times per iteration is the scheduler's overhead.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>

#include "bench_main.h"
#include "host.h"
#include "kelvo/jobs.h"
#include "kelvo/nodes/previewimage.h"
#include "spaces/previewimage_scheduler.h"

namespace kelvo::nodes {
namespace {

constexpr int64_t kIterations = 512;

// Advances its index by one per iteration and delivers an empty result.
class EmptyTask final : public Implements<PreviewImageProviderTaskInterface> {
public:
    Result<void> Iterate(JobInterface&) override {
        _index.fetch_add(1, std::memory_order_relaxed);
        return OK();
    }
    Result<PreviewImageIterationState> GetState() const override {
        return PreviewImageIterationState{_index.load(std::memory_order_relaxed), kIterations};
    }
    Result<DataDictionary> GetResult() const override { return DataDictionary(); }

private:
    std::atomic<int64_t> _index{-1};
};

void BM_SchedulerEmptyIterations(benchmark::State& state) {
    if (!PreviewImageScheduler::Create(1)) state.SkipWithError("no scheduler");
    DataDictionary request;
    (void)request.Set(PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC,
                      *MakeResultCompleteFunc([](const Result<DataDictionary>&) {}));
    (void)request.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{1, 1});
    for (auto _ : state) {
        auto entry = PreviewImageSchedulerEntry::Create(request, *NewObject<EmptyTask>());
        auto subscription = PreviewImageScheduler::SubmitEntry(*entry, false);
        (*entry)->GetCompletion()->Wait();
        benchmark::DoNotOptimize(subscription.Ok());
    }
    state.SetItemsProcessed(state.iterations() * kIterations);
    PreviewImageScheduler::Release();
    (void)PreviewImageScheduler::Create();
}
BENCHMARK(BM_SchedulerEmptyIterations)->UseRealTime()->Unit(benchmark::kMicrosecond);

struct Chain {
    StrongRef<JobQueueInterface> queue;
    StrongRef<ConditionVariableInterface> done;
    int64_t left = 0;
};

void EnqueueNext(Chain& chain) {
    if (chain.left-- == 0) {
        chain.done->Set();
        return;
    }
    auto job = *CreateJob(kPreviewImageIterationJobName, [](JobInterface&) { return OK(); });
    (void)job->AddObserver([&chain](JobInterface&) { EnqueueNext(chain); });
    (void)chain.queue->Enqueue(job);
}

void BM_ObserverChainOfEmptyJobs(benchmark::State& state) {
    Chain chain{*CreateJobQueue("Chain Queue", 1), *CreateConditionVariable(), 0};
    for (auto _ : state) {
        chain.done->Reset();
        chain.left = kIterations;
        EnqueueNext(chain);
        chain.done->Wait();
    }
    state.SetItemsProcessed(state.iterations() * kIterations);
}
BENCHMARK(BM_ObserverChainOfEmptyJobs)->UseRealTime()->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kelvo::nodes

kelvo::Result<void> kelvo::bench::SetUp() { return OK(); }
