// The job system's own cost, beside plain std::thread doing the same work in the same run:
// ParallelFor per chunk (empty chunks, so only the overhead counts) and the round trip of
// an empty job on a queue (create, enqueue, wait).
#include <benchmark/benchmark.h>

#include <atomic>
#include <thread>
#include <vector>

#include "host.h"
#include "kelvo/jobs.h"

namespace {

constexpr int64_t kChunks = 4096;

int Threads() {
    kelvo::host::Initialize();
    return kelvo::HostThreadCount();
}

void BM_ParallelForPerChunk(benchmark::State& state) {
    const int threads = Threads();
    std::atomic<int64_t> sink{0};
    for (auto _ : state) {
        auto r = kelvo::ParallelFor(
            0, kChunks, [&](int64_t i) { sink.fetch_add(i, std::memory_order_relaxed); },
            {1, threads});
        benchmark::DoNotOptimize(r.Ok());
    }
    state.SetItemsProcessed(state.iterations() * kChunks);
    state.counters["threads"] = threads;
}
BENCHMARK(BM_ParallelForPerChunk)->UseRealTime();

// The same loop on freshly started threads sharing an atomic chunk counter.
void BM_StdThreadPerChunk(benchmark::State& state) {
    const int threads = Threads();
    std::atomic<int64_t> sink{0};
    for (auto _ : state) {
        std::atomic<int64_t> next{0};
        auto body = [&] {
            for (int64_t i; (i = next.fetch_add(1, std::memory_order_relaxed)) < kChunks;)
                sink.fetch_add(i, std::memory_order_relaxed);
        };
        std::vector<std::thread> pool;
        for (int t = 1; t < threads; ++t) pool.emplace_back(body);
        body();
        for (auto& t : pool) t.join();
    }
    state.SetItemsProcessed(state.iterations() * kChunks);
    state.counters["threads"] = threads;
}
BENCHMARK(BM_StdThreadPerChunk)->UseRealTime();

void BM_EmptyJobRoundTrip(benchmark::State& state) {
    Threads();
    auto queue = *kelvo::CreateJobQueue("Bench Queue", 1);
    for (auto _ : state) {
        auto job = *kelvo::CreateJob("Empty", [](kelvo::JobInterface&) { return kelvo::OK(); });
        (void)queue->Enqueue(job);
        benchmark::DoNotOptimize(job->Wait().Ok());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_EmptyJobRoundTrip)->UseRealTime();

void BM_StdThreadRoundTrip(benchmark::State& state) {
    std::atomic<int> sink{0};
    for (auto _ : state) {
        std::thread t([&] { sink.fetch_add(1, std::memory_order_relaxed); });
        t.join();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdThreadRoundTrip)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
