// Textures on a 4096 x 4096 RGBA8 image held in memory: mip map, rip map and summed area
// builds beside the memory-bandwidth floor of the same run (a memcpy moving as many bytes
// as the build must read plus write), on 1 and 2 threads; then the cost of one sample in each
// filter beside bilinear, the floor of any filtered lookup.
//
//   bench/kelvo_texture_benchmark --benchmark_filter=Build   (builds only)
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <sys/resource.h>

#include <cstring>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "bench_main.h"
#include "host.h"
#include "implementation/texture_impl.h"
#include "kelvo/jobs.h"
#include "kelvo/registry.h"

namespace {
using namespace kelvo;

constexpr int64_t kSize = 4096;

StrongRef<ImageInterface> Image() {
    static StrongRef<ImageInterface> image = [] {
        std::mt19937 rng(1);
        std::vector<uint32_t> pixels(size_t(kSize * kSize));
        for (auto& p : pixels) p = rng();
        auto made = *CreateImage(kSize, kSize);
        auto layer = *CreateImageLayer(kSize, kSize, kPixelRgba8, COLORPROFILE::SRGB);
        auto writer = *layer->SetPixelHandler(kPixelRgba8, COLORPROFILE::SRGB);
        for (int64_t y = 0; y < kSize; ++y)
            (void)writer->SetPixels(0, y, kSize, &pixels[size_t(y * kSize)]);
        (void)made->AddLayer(layer);
        return made;
    }();
    return image;
}

// Bytes a build must read and write: every source level once, every new level once.
struct Traffic {
    int64_t read = 0;
    int64_t written = 0;
    int64_t total() const { return read + written; }
};

Traffic CountTraffic(TEXTUREPYRAMID pyramid) {
    auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
    (void)texture->Init(Image(), {});
    (void)texture->Build(pyramid);
    const int64_t base = texture->GetByteSize(TEXTUREPYRAMID::BASELEVEL);
    const int64_t levels = texture->GetByteSize(pyramid) - base;
    switch (pyramid) {
        case TEXTUREPYRAMID::MIPMAP: {
            const auto last = texture->GetMipLevel(texture->GetMipLevelCount() - 1);
            return {base + levels - last.width * last.height * 4, levels};
        }
        case TEXTUREPYRAMID::RIPMAP: {
            // Sources: the first row of levels and every level except the bottom row.
            int64_t read = 0;
            const int nx = texture->GetRipLevelCountX(), ny = texture->GetRipLevelCountY();
            for (int j = 0; j < ny; ++j)
                for (int i = 0; i < nx; ++i) {
                    const bool isSource = j < ny - 1 || (j == 0 && i < nx - 1);
                    const auto l = texture->GetRipLevel(i, j);
                    if (isSource) read += l.width * l.height * 4;
                }
            return {read, levels};
        }
        default:
            return {base, texture->GetByteSize(TEXTUREPYRAMID::SUMMEDAREA)};
    }
}

Traffic TrafficBytes(TEXTUREPYRAMID pyramid) {
    static std::map<TEXTUREPYRAMID, Traffic> counted;
    auto found = counted.find(pyramid);
    if (found == counted.end()) found = counted.emplace(pyramid, CountTraffic(pyramid)).first;
    return found->second;
}

void SetThreads(benchmark::State& state) {
    host::SetHostThreads(int(state.range(0)));
    state.counters["threads"] = double(state.range(0));
}

// Gives the heap's free pages back to the system, so that the next build writes into pages
// it touches first (glibc keeps freed blocks of a texture's level sizes otherwise).
void ReleaseFreePages() { malloc_trim(0); }

int64_t MinorFaults() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// `cold`: every build writes into fresh pages. Otherwise the allocator holds pages of the
// levels' sizes from earlier builds, as in a renderer that has built textures before.
void BM_Build(benchmark::State& state, TEXTUREPYRAMID pyramid, bool cold) {
    SetThreads(state);
    for (int warm = 0; warm < (cold ? 0 : 2); ++warm) {
        auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
        (void)texture->Init(Image(), {});
        (void)texture->Build(pyramid);
    }
    int64_t faults = 0;
    for (auto _ : state) {
        state.PauseTiming();
        auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
        (void)texture->Init(Image(), {});
        (void)texture->Build(TEXTUREPYRAMID::BASELEVEL);
        if (cold) ReleaseFreePages();
        const int64_t before = MinorFaults();
        state.ResumeTiming();
        if (!texture->Build(pyramid).Ok()) state.SkipWithError("build failed");
        state.PauseTiming();
        faults += MinorFaults() - before;
        texture.reset();  // freeing is not the build's cost
        state.ResumeTiming();
    }
    // Pages touched for the first time per build: in this sandbox each costs tens of µs.
    state.counters["faults"] =
        benchmark::Counter(double(faults), benchmark::Counter::kAvgIterations);
    state.SetBytesProcessed(int64_t(state.iterations()) * TrafficBytes(pyramid).total());
}

// The floor: a memcpy reading and writing as many bytes as the build, in chunks over the same
// pool. Warm, the destination was touched before; cold, as many destination bytes as the build
// writes new levels are fresh pages (the rest of the copy goes to touched memory).
void BM_Floor(benchmark::State& state, TEXTUREPYRAMID pyramid, bool cold) {
    SetThreads(state);
    const Traffic traffic = TrafficBytes(pyramid);
    const int64_t half = traffic.total() / 2;
    const int64_t fresh = cold ? std::min(traffic.written, half) : 0;
    std::vector<uint8_t> from(size_t(half), 7), touched(size_t(half - fresh), 0);
    for (auto _ : state) {
        state.PauseTiming();
        if (cold) ReleaseFreePages();
        uint8_t* to = fresh ? static_cast<uint8_t*>(Allocate(size_t(fresh))) : nullptr;
        state.ResumeTiming();
        constexpr int64_t kChunk = int64_t(1) << 20;
        (void)ParallelFor(0, (half + kChunk - 1) / kChunk, [&](int64_t c) {
            const int64_t at = c * kChunk, n = std::min(kChunk, half - at);
            for (int64_t i = at; i < at + n;) {  // a chunk may straddle the two destinations
                const int64_t run = i < fresh ? std::min(at + n, fresh) - i : at + n - i;
                uint8_t* dst = i < fresh ? to + i : touched.data() + (i - fresh);
                std::memcpy(dst, from.data() + i, size_t(run));
                i += run;
            }
        });
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
        state.PauseTiming();
        Free(to);
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * half * 2);
}

// One sample at random uv with a footprint of about 3 x 5 texels (a surface at an angle).
void BM_Sample(benchmark::State& state, TEXTUREMODE mode) {
    host::SetHostThreads(0);
    static StrongRef<TextureSamplerInterface> sampler = *CreateTextureSampler(Image());
    if (!sampler->Prepare(mode).Ok()) state.SkipWithError("no pyramid");
    std::mt19937 rng(2);
    std::uniform_real_distribution<double> d(0, 1);
    std::vector<Vec2> uvs(4096);
    for (auto& uv : uvs) uv = {d(rng), d(rng)};
    const TextureFootprint footprint{3.0 / kSize, 0.5 / kSize, -0.4 / kSize, 5.0 / kSize};
    const TextureSampleOptions options{mode, TEXTUREWRAP::REPEAT, false};
    size_t i = 0;
    double sum = 0;
    for (auto _ : state) {
        auto c = sampler->ThreadedTextureSample(uvs[i++ & 4095], footprint, options);
        sum += c->r;
    }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations()));
}

void Register() {
    const std::pair<const char*, TEXTUREPYRAMID> builds[] = {
        {"MipMap", TEXTUREPYRAMID::MIPMAP},
        {"RipMap", TEXTUREPYRAMID::RIPMAP},
        {"SummedArea", TEXTUREPYRAMID::SUMMEDAREA}};
    for (auto [name, pyramid] : builds) {
        for (bool cold : {false, true}) {
            const std::string suffix = std::string(cold ? "Cold/" : "/") + name;
            for (auto [prefix, function] :
                 {std::pair{"BM_Build", &BM_Build}, std::pair{"BM_BuildFloor", &BM_Floor}})
                benchmark::RegisterBenchmark((prefix + suffix).c_str(), function, pyramid, cold)
                    ->Arg(1)
                    ->Arg(2)
                    ->Iterations(4)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
        }
    }
    const std::pair<const char*, TEXTUREMODE> modes[] = {{"Bilinear", TEXTUREMODE::BILINEAR},
                                                         {"Nearest", TEXTUREMODE::NEAREST},
                                                         {"MipMap", TEXTUREMODE::MIPMAP},
                                                         {"RipMap", TEXTUREMODE::RIPMAP},
                                                         {"SummedArea", TEXTUREMODE::SUMMEDAREA}};
    for (auto [name, mode] : modes)
        benchmark::RegisterBenchmark((std::string("BM_Sample/") + name).c_str(), BM_Sample, mode)
            ->MinTime(0.2);
}

}  // namespace

kelvo::Result<void> kelvo::bench::SetUp() {
    // Freed levels stay in the heap for the next warm build. glibc would otherwise map blocks
    // past its threshold (at most 32 MiB, so the summed area table and the large rip levels)
    // afresh on every build; cold builds hand the pages back explicitly.
    mallopt(M_MMAP_MAX, 0);
    mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
    Register();
    return OK();
}
