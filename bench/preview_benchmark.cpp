// The preview renderer's rays per second on 1 and 2 threads, beside the intersection
// class's own rays per second on the very rays the renderer traced (replayed without any
// shading): the gap is the time spent on cameras, BSDFs, textures and bookkeeping.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <mutex>
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

preview::PreviewRendererImpl* MakeRenderer(int threads) {
    auto* r = new preview::PreviewRendererImpl;
    PreviewSettings s;
    s.width = s.height = 64;
    s.scene = PREVIEWSCENE::SPHERE;
    s.threads = threads;
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
    std::unique_ptr<preview::PreviewRendererImpl> r(MakeRenderer(int(state.range(0))));
    (void)r->RenderIteration({});  // the tables and textures filled outside the timing
    const int64_t before = r->GetStatistics().rays;
    for (auto _ : state) (void)r->RenderIteration({});
    state.counters["rays/s"] =
        benchmark::Counter(double(r->GetStatistics().rays - before), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_RendererIteration)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();

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
