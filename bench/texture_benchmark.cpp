// Textures on a 4096 x 4096 RGBA8 image held in memory: mip map, rip map and summed area
// builds beside the memory-bandwidth floor of the same run (a memcpy moving as many bytes
// as the build must read plus write), on 1 and 2 threads; then the cost of one sample in each
// filter beside bilinear, the floor of any filtered lookup.
//
//   bench/kelvo_texture_benchmark --benchmark_filter=Build   (builds only)
#include <benchmark/benchmark.h>

#include <cstring>
#include <map>
#include <random>
#include <vector>

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
int64_t CountTraffic(TEXTUREPYRAMID pyramid) {
    auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
    (void)texture->Init(Image(), {});
    (void)texture->Build(pyramid);
    const int64_t base = texture->GetByteSize(TEXTUREPYRAMID::BASELEVEL);
    const int64_t levels = texture->GetByteSize(pyramid) - base;
    switch (pyramid) {
        case TEXTUREPYRAMID::MIPMAP: {
            const auto last = texture->GetMipLevel(texture->GetMipLevelCount() - 1);
            return base + levels - last.width * last.height * 4 + levels;
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
            return read + levels;
        }
        default:
            return base + texture->GetByteSize(TEXTUREPYRAMID::SUMMEDAREA);
    }
}

int64_t TrafficBytes(TEXTUREPYRAMID pyramid) {
    static std::map<TEXTUREPYRAMID, int64_t> counted;
    auto found = counted.find(pyramid);
    if (found == counted.end()) found = counted.emplace(pyramid, CountTraffic(pyramid)).first;
    return found->second;
}

void SetThreads(benchmark::State& state) {
    host::SetHostThreads(int(state.range(0)));
    state.counters["threads"] = double(state.range(0));
}

void BM_Build(benchmark::State& state, TEXTUREPYRAMID pyramid) {
    SetThreads(state);
    for (auto _ : state) {
        state.PauseTiming();
        auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
        (void)texture->Init(Image(), {});
        (void)texture->Build(TEXTUREPYRAMID::BASELEVEL);
        state.ResumeTiming();
        if (!texture->Build(pyramid).Ok()) state.SkipWithError("build failed");
        state.PauseTiming();
        texture.reset();  // freeing is not the build's cost
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * TrafficBytes(pyramid));
}

// The floor: copy half the build's traffic (reading and writing it), in chunks over the
// same pool. Into memory touched before, it measures bandwidth alone; into fresh memory
// (`fresh`), it also pays the first touch of every written page, as a build's new levels do.
void BM_Floor(benchmark::State& state, TEXTUREPYRAMID pyramid, bool fresh) {
    SetThreads(state);
    const int64_t half = TrafficBytes(pyramid) / 2;
    std::vector<uint8_t> from(size_t(half), 7), touched(fresh ? 0 : size_t(half), 0);
    for (auto _ : state) {
        auto* to = fresh ? static_cast<uint8_t*>(Allocate(size_t(half))) : touched.data();
        constexpr int64_t kChunk = int64_t(1) << 20;
        (void)ParallelFor(0, (half + kChunk - 1) / kChunk, [&](int64_t c) {
            const int64_t at = c * kChunk;
            std::memcpy(to + at, from.data() + at, size_t(std::min(kChunk, half - at)));
        });
        benchmark::DoNotOptimize(to);
        benchmark::ClobberMemory();
        if (fresh) {
            state.PauseTiming();
            Free(to);
            state.ResumeTiming();
        }
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
        benchmark::RegisterBenchmark((std::string("BM_Build/") + name).c_str(), BM_Build, pyramid)
            ->Arg(1)
            ->Arg(2)
            ->Iterations(4)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
        for (bool fresh : {false, true})
            benchmark::RegisterBenchmark(
                (std::string(fresh ? "BM_BuildFloorFresh/" : "BM_BuildFloor/") + name).c_str(),
                BM_Floor, pyramid, fresh)
                ->Arg(1)
                ->Arg(2)
                ->Iterations(4)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime();
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

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    auto module = host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) return 1;
    Register();
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
