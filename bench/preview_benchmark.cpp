// The preview renderer's rays per second on 1 and 2 threads, beside the intersection
// class's own rays per second on the very rays the renderer traced (replayed without any
// shading): the gap is the time spent on cameras, BSDFs, textures and bookkeeping.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <vector>

#include "bench_main.h"
#include "host.h"
#include "kelvo/config.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"
#include "renderer/preview_renderer.h"

namespace kelvo {
namespace {

// The rays of one recorded render, as queries of the engine.
struct RecordedRay {
    Ray ray;
    RayLimits limits;
    bool occlusion;
};
std::mutex g_recordLock;
std::vector<RecordedRay> g_recorded;

// Forwards to the Embree class and writes every query down.
class RecordingIntersector : public Implements<IntersectorInterface> {
public:
    RecordingIntersector() {
        const EntryRecord* e = FindClass(kEmbreeIntersectionClass, kIntersectionClassKind);
        if (e) _inner = *CreateIntersector(*e);
    }
    Result<int32_t> AddMesh(const TriangleMesh& m) override { return _inner->AddMesh(m); }
    Result<int32_t> AddInstance(int32_t mesh, const Matrix& t) override {
        return _inner->AddInstance(mesh, t);
    }
    Result<void> Commit() override { return _inner->Commit(); }
    void Release() override { _inner->Release(); }
    bool Intersect(const Ray& r, const RayLimits& l, IntersectionResult64& h) const override {
        Record(r, l, false);
        return _inner->Intersect(r, l, h);
    }
    bool Occluded(const Ray& r, const RayLimits& l) const override {
        Record(r, l, true);
        return _inner->Occluded(r, l);
    }
    void IntersectPacket(const Ray* r, const RayLimits* l, IntersectionResult64* h,
                         size_t n) const override {
        _inner->IntersectPacket(r, l, h, n);
    }
    void OccludedPacket(const Ray* r, const RayLimits* l, bool* o, size_t n) const override {
        _inner->OccludedPacket(r, l, o, n);
    }
    const IntersectorInterface& Inner() const { return *_inner; }

private:
    static void Record(const Ray& r, const RayLimits& l, bool occlusion) {
        std::lock_guard lock(g_recordLock);
        g_recorded.push_back({r, l, occlusion});
    }
    StrongRef<IntersectorInterface> _inner;
};

constexpr Id kRecordingClass("net.kelvo.bench.intersectionclass.recording");
EntryRecord g_recordingEntry;

preview::PreviewRendererImpl* MakeRenderer(int threads,
                                           PREVIEWSEQUENCE sequence = PREVIEWSEQUENCE::SOBOL) {
    auto* r = new preview::PreviewRendererImpl;
    PreviewSettings s;
    s.width = s.height = 64;
    s.scene = PREVIEWSCENE::SPHERE;
    s.threads = threads;
    s.sequence = sequence;
    PreviewMaterial m;
    m.model = Id("net.kelvo.render.bsdflegacyclass.ggxbrdf");
    m.data = *NewObject<DataDictionary>();
    (void)m.data->Set(bsdfdata::kRoughness, 0.3);
    m.colour = {0.8, 0.5, 0.3};
    if (auto ok = r->Init(s, m, {}); !ok) {
        std::fprintf(stderr, "%s\n", ok.GetError().Message().c_str());
        std::exit(1);
    }
    return r;
}

void BM_RendererIteration(benchmark::State& state) {
    std::unique_ptr<preview::PreviewRendererImpl> r(
        MakeRenderer(int(state.range(0)), PREVIEWSEQUENCE(state.range(1))));
    (void)r->RenderIteration({});  // the tables and textures filled outside the timing
    const int64_t before = r->GetStatistics().rays;
    for (auto _ : state) (void)r->RenderIteration({});
    state.counters["rays/s"] =
        benchmark::Counter(double(r->GetStatistics().rays - before), benchmark::Counter::kIsRate);
}
// Second argument: 0 the stratified sequences, 1 independent numbers (the cost per sample).
BENCHMARK(BM_RendererIteration)
    ->ArgsProduct({{1, 2}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The same rays (one recorded iteration, one thread) straight to the engine, on one thread.
void BM_EngineSameRays(benchmark::State& state) {
    (void)host::ConfigSet("g_polygonIntersection", kRecordingClass.Text());
    std::unique_ptr<preview::PreviewRendererImpl> r(MakeRenderer(1));
    (void)host::ConfigSet("g_polygonIntersection", "");
    g_recorded.clear();
    (void)r->RenderIteration({});
    const std::vector<RecordedRay> rays = g_recorded;
    const IntersectorInterface& engine =
        dynamic_cast<const RecordingIntersector&>(*r->GetIntersector()).Inner();
    int64_t hits = 0;
    for (auto _ : state) {
        for (const RecordedRay& q : rays) {
            IntersectionResult64 h;
            hits += q.occlusion ? engine.Occluded(q.ray, q.limits)
                                : engine.Intersect(q.ray, q.limits, h);
        }
    }
    benchmark::DoNotOptimize(hits);
    state.counters["rays/s"] = benchmark::Counter(double(rays.size()) * double(state.iterations()),
                                                  benchmark::Counter::kIsRate);
}
BENCHMARK(BM_EngineSameRays)->Unit(benchmark::kMillisecond)->UseRealTime();

// Time to a clean swatch: the error of a 128 x 128 render on 2 threads (RMS of the
// difference from a long render, over that render's mean, averaged over seeds) after each
// 1-sample iteration, and the time at which it first falls to 5% and to 2%. The stratified
// sequences beside independent random numbers, for a diffuse, a GGX 0.3 and a glass swatch.
struct Swatch {
    const char* name;
    const char* model;
    double roughness;
};
constexpr Swatch kSwatches[] = {{"diffuse 0.8", "lambertbrdf", 0.0},
                                {"GGX 0.3", "ggxbrdf", 0.3},
                                {"glass GGX 0.1", "ggxbtdf", 0.1}};

PreviewSettings SwatchSettings(uint64_t seed, int spp, PREVIEWSEQUENCE sequence) {
    PreviewSettings s;
    s.width = s.height = 128;
    s.scene = PREVIEWSCENE::SPHERE;
    s.threads = 2;
    s.seed = seed;
    s.samplesPerIteration = spp;
    s.sequence = sequence;
    return s;
}
PreviewMaterial SwatchMaterial(const Swatch& w) {
    PreviewMaterial m;
    m.model = *Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + w.model);
    m.data = *NewObject<DataDictionary>();
    (void)m.data->Set(bsdfdata::kRoughness, w.roughness);
    (void)m.data->Set(bsdfdata::kIorIn, 1.5);
    (void)m.data->Set(bsdfdata::kIorOut, 1.0);
    m.colour = {0.8, 0.8, 0.8};
    return m;
}

// The long render each swatch is judged against (KELVO_REFERENCE_SAMPLES, default 4096).
const std::vector<float>& Reference(int swatch) {
    static std::vector<float> references[std::size(kSwatches)];
    std::vector<float>& r = references[swatch];
    if (r.empty()) {
        int spp = 4096;
        if (const char* e = std::getenv("KELVO_REFERENCE_SAMPLES"))
            spp = std::max(64, std::atoi(e));
        preview::PreviewRendererImpl renderer;
        (void)renderer.Init(SwatchSettings(1000, 64, PREVIEWSEQUENCE::SOBOL),
                            SwatchMaterial(kSwatches[swatch]), {});
        for (int i = 0; i < spp / 64; ++i) (void)renderer.RenderIteration({});
        r.resize(128 * 128 * 3);
        (void)renderer.GetImage(r);
    }
    return r;
}

void BM_TimeToError(benchmark::State& state) {
    const int swatch = int(state.range(0));
    const auto sequence = PREVIEWSEQUENCE(state.range(1));
    const std::vector<float>& reference = Reference(swatch);
    double mean = 0.0;
    for (float v : reference) mean += v;
    mean /= double(reference.size());
    constexpr int kSeeds = 3, kMaxSamples = 1024;
    std::vector<double> error(kMaxSamples, 0.0), seconds(kMaxSamples, 0.0);
    int limit = kMaxSamples;  // every seed renders as many samples as the first needed
    for (auto _ : state) {
        for (int seed = 0; seed < kSeeds; ++seed) {
            preview::PreviewRendererImpl r;
            (void)r.Init(SwatchSettings(uint64_t(seed + 1), 1, sequence),
                         SwatchMaterial(kSwatches[swatch]), {});
            std::vector<float> image(reference.size());
            for (int n = 0; n < limit; ++n) {
                (void)r.RenderIteration({});
                (void)r.GetImage(image);
                double sum = 0.0;
                for (size_t i = 0; i < image.size(); ++i)
                    sum += (double(image[i]) - reference[i]) * (double(image[i]) - reference[i]);
                error[size_t(n)] += std::sqrt(sum / double(image.size())) / mean / kSeeds;
                seconds[size_t(n)] += r.GetStatistics().seconds / kSeeds;
                if (seed == 0 && n >= 64 && error[size_t(n)] * kSeeds < 0.015) limit = n + 1;
            }
        }
    }
    auto reach = [&](double target, bool time) {
        for (size_t n = 0; n < size_t(limit); ++n)
            if (error[n] > 0.0 && error[n] <= target) return time ? seconds[n] : double(n + 1);
        return -1.0;
    };
    state.SetLabel(std::string(kSwatches[swatch].name) +
                   (sequence == PREVIEWSEQUENCE::SOBOL ? ", sequences" : ", independent"));
    state.counters["err@16"] = error[15];
    state.counters["err@64"] = error[63];
    state.counters["s_to_5%"] = reach(0.05, true);
    state.counters["s_to_2%"] = reach(0.02, true);
    state.counters["spp_to_2%"] = reach(0.02, false);
    state.counters["ms/spp"] = seconds[size_t(limit - 1)] / limit * 1000.0;
}
BENCHMARK(BM_TimeToError)
    ->ArgsProduct({{0, 1, 2}, {int(PREVIEWSEQUENCE::SOBOL), int(PREVIEWSEQUENCE::INDEPENDENT)}})
    ->Iterations(1)
    ->Unit(benchmark::kSecond)
    ->UseRealTime();

}  // namespace
}  // namespace kelvo

kelvo::Result<void> kelvo::bench::SetUp() {
    KELVO_TRY(LoadModules({KELVO_EMBREE_MODULE}));
    host::SetHostThreads(2);
    g_recordingEntry.kind = ENTRYKIND::CLASS;
    g_recordingEntry.idText = kRecordingClass.Text().data();
    g_recordingEntry.idSize = kRecordingClass.Text().size();
    g_recordingEntry.idHash = kRecordingClass.Hash();
    g_recordingEntry.registry = kIntersectionClassesRegistry;
    g_recordingEntry.kindId = kIntersectionClassKind;
    g_recordingEntry.source = KELVO_HERE;
    g_recordingEntry.create = &CreateInstance<RecordingIntersector>;
    return host::InsertEntry(g_recordingEntry);
}
