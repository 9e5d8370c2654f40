// IES profiles: Init beside Init with the power estimate done the plain way (one direction
// after another through ComputeLightIntensity, on one thread) and beside the parse alone;
// the estimate alone on one thread beside the plain one; ComputeLightIntensity per call on
// random unit directions; the CRC-32C checksum with the processor instruction beside the
// byte table. The estimate runs on the host's workers, so Init is timed by the wall clock.
#include <benchmark/benchmark.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "bench_main.h"
#include "host.h"
#include "implementation/ies_crc32c.h"
#include "implementation/ies_impl.h"
#include "kelvo/memorystream.h"
#include "kelvo/random.h"

namespace {
namespace fs = std::filesystem;
using namespace kelvo;

struct File {
    const char* label;
    fs::path path;
};

// The largest and the 0-360 files come from the shared corpus (their licences keep them
// out of the repository); the typical one is a copy kept in tests/data.
const File kLargest{
    "largest_263x361",
    fs::path(KELVO_SHARED_DIR) / "data/ies/eulumdat__Preliminar_Interlab_IPT_fotometria_1.ies"};
const File kFull{"full360_181x73",
                 fs::path(KELVO_SHARED_DIR) / "data/ies/eulumdat__ITALO_1_5P5_S05_3.140-3M.IES"};
const File kTypical{"typical_73x37",
                    fs::path(KELVO_SOURCE_DIR) / "tests/data/ies/arnold__profile.ies"};
const File kSmallFull{"full360_37x17",
                      fs::path(KELVO_SOURCE_DIR) / "tests/data/ies/guv__ushio_b1.ies"};

std::string Read(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

template <typename Step>
void RunOnFile(benchmark::State& state, const File& file, Step step) {
    if (!fs::exists(file.path)) {
        state.SkipWithError("file absent");
        return;
    }
    std::string bytes = Read(file.path);
    IesImpl ies;
    for (auto _ : state) {
        state.PauseTiming();
        StrongRef<InputStream> stream = *MemoryInputStream::Make(bytes);
        state.ResumeTiming();
        if (!step(ies, stream)) state.SkipWithError("parse failed");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}

void BM_IesInit(benchmark::State& state, const File* file) {
    RunOnFile(state, *file,
              [](IesImpl& ies, const StrongRef<InputStream>& s) { return ies.Init(s).Ok(); });
}
// Init with the plain estimate in place of the batched one, beside BM_IesInit.
void BM_IesInitSerialPower(benchmark::State& state, const File* file) {
    RunOnFile(state, *file, [](IesImpl& ies, const StrongRef<InputStream>& s) {
        if (!ies.ParseOnly(s).Ok()) return false;
        benchmark::DoNotOptimize(ies.ComputePowerSerial());
        benchmark::DoNotOptimize(ies.ComputeChecksum());
        return true;
    });
}

// The estimate alone: batched on the calling thread only (what the cheaper evaluation
// gains without more threads) and the plain one.
template <bool kPlain>
void PowerOnFile(benchmark::State& state, const File* file) {
    if (!fs::exists(file->path)) {
        state.SkipWithError("file absent");
        return;
    }
    IesImpl ies;
    if (!ies.Init(*MemoryInputStream::Make(Read(file->path)))) {
        state.SkipWithError("parse failed");
        return;
    }
    for (auto _ : state) {
        if constexpr (kPlain)
            benchmark::DoNotOptimize(ies.ComputePowerSerial());
        else
            benchmark::DoNotOptimize(ies.ComputePower(1).ValueOr(0.0));
    }
}
void BM_IesPowerOneThread(benchmark::State& state, const File* file) {
    PowerOnFile<false>(state, file);
}
void BM_IesPowerPlain(benchmark::State& state, const File* file) { PowerOnFile<true>(state, file); }
void BM_IesParseOnly(benchmark::State& state, const File* file) {
    RunOnFile(state, *file,
              [](IesImpl& ies, const StrongRef<InputStream>& s) { return ies.ParseOnly(s).Ok(); });
}

void BM_IesIntensity(benchmark::State& state, const File* file) {
    if (!fs::exists(file->path)) {
        state.SkipWithError("file absent");
        return;
    }
    IesImpl ies;
    if (!ies.Init(*MemoryInputStream::Make(Read(file->path)))) {
        state.SkipWithError("parse failed");
        return;
    }
    // Random unit directions, drawn once: the loop measures the evaluation only.
    Random random(5);
    std::vector<Vec3> directions(4096);
    for (Vec3& d : directions) {
        do {
            d = {random.Get01() * 2 - 1, random.Get01() * 2 - 1, random.Get01() * 2 - 1};
        } while (SquaredLength(d) > 1.0 || SquaredLength(d) == 0.0);
        d = Normalize(d);
    }
    size_t i = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(ies.ComputeLightIntensity(directions[i]));
        i = (i + 1) & 4095;
    }
    state.SetItemsProcessed(state.iterations());
}

// The floor under any evaluator of the formula: the acos and atan2 that turn a direction
// into its two angles, on the same directions.
void BM_DirectionAnglesOnly(benchmark::State& state) {
    Random random(5);
    std::vector<Vec3> directions(4096);
    for (Vec3& d : directions)
        d = Normalize(Vec3{random.Get01() * 2 - 1, random.Get01() * 2 - 1, random.Get01() * 2 - 1});
    size_t i = 0;
    for (auto _ : state) {
        const Vec3& d = directions[i];
        benchmark::DoNotOptimize(std::acos(-d.z * 0.999999) + std::atan2(d.x, d.y));
        i = (i + 1) & 4095;
    }
    state.SetItemsProcessed(state.iterations());
}

std::vector<unsigned char> ChecksumInput() {
    Random random(9);
    std::vector<unsigned char> bytes(1 << 20);
    for (auto& b : bytes) b = static_cast<unsigned char>(random.Next64());
    return bytes;
}

void BM_Crc32cHardware(benchmark::State& state) {
    if (!detail::Crc32cHardwareAvailable()) {
        state.SkipWithError("no CRC32 instruction");
        return;
    }
    auto bytes = ChecksumInput();
    for (auto _ : state)
        benchmark::DoNotOptimize(detail::Crc32cUpdateHardware(~0u, bytes.data(), bytes.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}
void BM_Crc32cTable(benchmark::State& state) {
    auto bytes = ChecksumInput();
    for (auto _ : state)
        benchmark::DoNotOptimize(detail::Crc32cUpdateTable(~0u, bytes.data(), bytes.size()));
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes.size()));
}

BENCHMARK_CAPTURE(BM_IesInit, largest, &kLargest)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_IesParseOnly, largest, &kLargest)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_IesInit, typical, &kTypical)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_IesInitSerialPower, typical, &kTypical)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_IesInit, full360_181x73, &kFull)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK_CAPTURE(BM_IesInitSerialPower, full360_181x73, &kFull)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_IesParseOnly, typical, &kTypical)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_IesPowerOneThread, typical, &kTypical)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IesPowerPlain, typical, &kTypical)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IesPowerOneThread, full360_181x73, &kFull)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IesPowerPlain, full360_181x73, &kFull)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_IesIntensity, full360_181x73, &kFull);
BENCHMARK_CAPTURE(BM_IesIntensity, full360_37x17, &kSmallFull);
BENCHMARK_CAPTURE(BM_IesIntensity, half_73x37, &kTypical);
BENCHMARK(BM_DirectionAnglesOnly);
BENCHMARK(BM_Crc32cHardware);
BENCHMARK(BM_Crc32cTable);

}  // namespace

kelvo::Result<void> kelvo::bench::SetUp() { return OK(); }
