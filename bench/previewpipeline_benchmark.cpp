// Material previews through the preview pipeline beside the renderer called directly: the
// time to the first 128 x 128 image (request, scheduler, job, provider, delivery) beside
// building the swatch and rendering one iteration in place; each further image beside one
// more iteration; and a sheet of 15 swatches refined round-robin beside rendering them one
// after another.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <vector>

#include "host.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {

namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

constexpr const char* kMaterial = R"({"model":"ggxbrdf","data":{"roughness":0.3}})";

void Check(const Result<void>& r) {
    if (!r) {
        std::fprintf(stderr, "%s\n", r.GetError().Message().c_str());
        std::exit(1);
    }
}

// A request of the provider for the material, counting its deliveries.
StrongRef<nodes::PreviewImageRequestInterface> Request(int64_t size, int64_t count,
                                                       std::atomic<int64_t>& delivered) {
    auto request = nodes::CreatePreviewImageRequest();
    Check(request.Ok() ? OK() : request.GetError());
    DataDictionary& d = *(*request)->GetData();
    auto f = nodes::MakeResultCompleteFunc([&delivered](const Result<DataDictionary>& r) {
        if (!r) {
            std::fprintf(stderr, "%s\n", r.GetError().Message().c_str());
            std::exit(1);
        }
        delivered.fetch_add(1);
        delivered.notify_all();
    });
    Check(d.Set(REQUEST::RESULTCOMPLETEFUNC, *f));
    Check(d.Set(REQUEST::TEXTURESIZE, Vec2{double(size), double(size)}));
    Check(d.Set(REQUEST::ITERATIONCOUNT, count));
    Check(d.Set(REQUEST::SUBJECT, std::string(kMaterial)));
    Check(d.Set(REQUEST::PROVIDER, kPreviewImageProviderClass));
    return *request;
}

// Blocks rather than spins: on two cores a spinning waiter takes its time from the render.
void WaitFor(const std::atomic<int64_t>& delivered, int64_t n) {
    for (int64_t seen = delivered.load(); seen < n; seen = delivered.load()) delivered.wait(seen);
}

StrongRef<PreviewRendererInterface> Direct(
    int64_t size, StrongRef<MicrofacetDistributionCachesInterface> caches = nullptr) {
    auto r = CreateClass<PreviewRendererInterface>(kPreviewRendererClass);
    Check(r.Ok() ? OK() : r.GetError());
    PreviewSettings s;
    s.width = s.height = size;
    s.caches = std::move(caches);
    PreviewMaterial m;
    m.model = Id("net.kelvo.render.bsdflegacyclass.ggxbrdf");
    m.data = *NewObject<DataDictionary>();
    Check(m.data->Set(Id("net.kelvo.render.bsdfdata.roughness"), 0.3));
    Check((*r)->Init(s, m, {}));
    return *r;
}

void BM_FirstImageThroughPipeline(benchmark::State& state) {
    for (auto _ : state) {
        std::atomic<int64_t> delivered{0};
        auto request = Request(128, 1000, delivered);
        Check(request->Submit());
        WaitFor(delivered, 1);
        state.PauseTiming();
        request->Reset();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_FirstImageThroughPipeline)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_FirstImageDirect(benchmark::State& state) {
    std::vector<float> rgb(128 * 128 * 3);
    for (auto _ : state) {
        auto r = Direct(128);
        Check(r->RenderIteration({}));
        Check(r->GetImage(rgb));
    }
}
BENCHMARK(BM_FirstImageDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

// Images after the first: one iteration each, delivered through the queue.
void BM_NextImageThroughPipeline(benchmark::State& state) {
    std::atomic<int64_t> delivered{0};
    auto request = Request(128, kPreviewMaxIterations, delivered);
    Check(request->Submit());
    WaitFor(delivered, 2);
    int64_t seen = delivered.load();
    for (auto _ : state) WaitFor(delivered, ++seen);
    request->Reset();
}
BENCHMARK(BM_NextImageThroughPipeline)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_NextImageDirect(benchmark::State& state) {
    auto r = Direct(128);
    std::vector<float> rgb(128 * 128 * 3);
    Check(r->RenderIteration({}));
    for (auto _ : state) {
        Check(r->RenderIteration({}));
        Check(r->GetImage(rgb));
    }
}
BENCHMARK(BM_NextImageDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

// 15 swatches of 64 x 64, 8 iterations each.
constexpr int kSwatches = 15;
constexpr int64_t kSheetSize = 64, kSheetIterations = 8;

void BM_SheetThroughPipeline(benchmark::State& state) {
    for (auto _ : state) {
        std::atomic<int64_t> delivered{0};
        std::vector<StrongRef<nodes::PreviewImageRequestInterface>> requests;
        for (int i = 0; i < kSwatches; ++i) {
            requests.push_back(Request(kSheetSize, kSheetIterations, delivered));
            Check(requests.back()->Submit());
        }
        WaitFor(delivered, kSwatches * kSheetIterations);
        state.PauseTiming();
        requests.clear();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_SheetThroughPipeline)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_SheetOneAfterAnotherDirect(benchmark::State& state) {
    std::vector<float> rgb(size_t(kSheetSize * kSheetSize * 3));
    for (auto _ : state) {
        // One caches object for the sheet, as the pipeline's tasks share theirs.
        auto caches = CreateComponent<MicrofacetDistributionCachesInterface>();
        Check(caches.Ok() ? (*caches)->Alloc() : caches.GetError());
        (*caches)->Init();
        for (int i = 0; i < kSwatches; ++i) {
            auto r = Direct(kSheetSize, *caches);
            for (int64_t k = 0; k < kSheetIterations; ++k) {
                Check(r->RenderIteration({}));
                Check(r->GetImage(rgb));
            }
        }
    }
}
BENCHMARK(BM_SheetOneAfterAnotherDirect)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kelvo

int main(int argc, char** argv) {
    using namespace kelvo;
    auto module = host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) {
        std::fprintf(stderr, "cannot attach the render module: %s\n",
                     module.GetError().ToString().c_str());
        return 1;
    }
    for (const char* library : {KELVO_EMBREE_MODULE, KELVO_PREVIEW_MODULE})
        if (auto e = host::LoadModule(library); !e) {
            std::fprintf(stderr, "cannot load %s: %s\n", library, e.GetError().Message().c_str());
            return 1;
        }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
