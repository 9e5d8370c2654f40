// CreateScreenRay per ray for both camera classes, beside a baseline that only
// normalises xAxis*u + yAxis*v + forward into the same ray record, called the same way
// (through the camera interface, over the same pixels). Every operator new of the
// process and every framework allocation is counted: ray generation must not allocate.
#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <new>

#include "bench_main.h"
#include "host.h"
#include "kelvo/camera.h"
#include "kelvo/registry.h"

namespace {
std::atomic<int64_t> g_heapAllocations{0};
std::atomic<int64_t> g_frameworkAllocations{0};
void* (*g_frameworkAllocate)(size_t, size_t) = nullptr;

void* CountingFrameworkAllocate(size_t size, size_t align) {
    g_frameworkAllocations.fetch_add(1, std::memory_order_relaxed);
    return g_frameworkAllocate(size, align);
}
}  // namespace

void* operator new(size_t size) {
    g_heapAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace kelvo {
namespace {

// The least a pinhole camera has to do per ray.
class BaselineCamera final : public Implements<CameraInterface> {
public:
    Result<void> Init(const StrongRef<DataDictionary>& parameters, bool) override {
        const Vec2 r = parameters->Get<Vec2>(CAMERAPARAMETERS::SCREENRESOLUTION);
        const double fov = parameters->Get<double>(CAMERAPARAMETERS::FIELDOFVIEW, 0.5);
        _center = {r.x * 0.5, r.y * 0.5};
        _scale = {fov / r.x, -fov / r.x};
        _matrix = parameters->Get<Matrix>(CAMERAPARAMETERS::MATRIX, Matrix{});
        return OK();
    }
    void CreateScreenRay(const Vec2& s, Ray& ray) const override {
        const double u = (s.x - _center.x) * _scale.x;
        const double v = (s.y - _center.y) * _scale.y;
        ray.direction = Normalize(_matrix.xAxis * u + _matrix.yAxis * v + _matrix.zAxis);
    }

    void SetMatrix(const Matrix&) override {}
    StrongRef<DataDictionary> GetParameters() const override { return nullptr; }
    void CalculateMIPComponents(const Vec2&, Ray&, ShadingPoint&) const override {}
    uint32_t GetFeatures() const override { return 0; }
    bool VisibilityTest(const Vec3&) const override { return true; }
    Vec3 WorldToCamera(const Vec3& p) const override { return p; }
    Vec3 CameraToWorld(const Vec3& p) const override { return p; }
    Vec3 VectorWorldToCamera(const Vec3& p) const override { return p; }
    Vec3 VectorCameraToWorld(const Vec3& p) const override { return p; }
    Vec3 WorldToScreen(const Vec3& p) const override { return p; }
    Vec3 ScreenToWorld(const Vec3& p) const override { return p; }
    Vec3 CameraToScreen(const Vec3& p) const override { return p; }
    Vec3 ScreenToCamera(const Vec3& p) const override { return p; }
    const Matrix& GetCameraToWorldMatrix() const override { return _matrix; }
    const Matrix& GetWorldToCameraMatrix() const override { return _matrix; }

private:
    Vec2 _center, _scale;
    Matrix _matrix;
};

constexpr int kTile = 64;  // pixels per side of the tile each iteration renders

StrongRef<DataDictionary> Parameters() {
    auto p = std::make_shared<DataDictionary>();
    (void)p->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{640, 480});
    (void)p->Set(CAMERAPARAMETERS::FIELDOFVIEW, 0.8);
    Matrix m;
    m.offset = {1, 2, -10};
    m.xAxis = {0.8, 0, -0.6};
    m.zAxis = {0.6, 0, 0.8};
    (void)p->Set(CAMERAPARAMETERS::MATRIX, m);
    return p;
}

void RenderTile(benchmark::State& state, const StrongRef<CameraInterface>& camera) {
    const CameraInterface* cam = camera.get();
    benchmark::DoNotOptimize(cam);  // no devirtualisation: every call goes through the interface
    Ray ray;
    const int64_t heapBefore = g_heapAllocations.load();
    const int64_t frameworkBefore = g_frameworkAllocations.load();
    for (auto _ : state) {
        for (int y = 0; y < kTile; ++y)
            for (int x = 0; x < kTile; ++x) {
                cam->CreateScreenRay({x + 288.5, y + 208.5}, ray);
                benchmark::DoNotOptimize(ray);
            }
    }
    const int64_t allocations =
        g_heapAllocations.load() - heapBefore + g_frameworkAllocations.load() - frameworkBefore;
    state.SetItemsProcessed(state.iterations() * kTile * kTile);
    state.counters["allocations"] = double(allocations);
    if (allocations != 0) state.SkipWithError("CreateScreenRay allocated");
}

}  // namespace
}  // namespace kelvo

kelvo::Result<void> kelvo::bench::SetUp() {
    g_frameworkAllocate = g_kelvo.host.Allocate;
    g_kelvo.host.Allocate = CountingFrameworkAllocate;
    // The counters must see allocations, or a zero count would prove nothing.
    const int64_t heap = g_heapAllocations.load(), framework = g_frameworkAllocations.load();
    benchmark::DoNotOptimize(std::make_unique<int>(1));
    Free(Allocate(16));
    if (g_heapAllocations.load() == heap || g_frameworkAllocations.load() == framework)
        return UnexpectedError(KELVO_HERE, "the allocation counters do not count");

    auto params = Parameters();
    auto baseline = std::make_shared<BaselineCamera>();
    (void)baseline->Init(params, false);
    auto perspective = CreateClass<CameraInterface>(kPerspectiveCameraClass);
    auto parallel = CreateClass<CameraInterface>(kParallelCameraClass);
    if (!perspective || !parallel)
        return UnexpectedError(KELVO_HERE, "cannot create the camera classes");
    (void)(*perspective)->Init(params, false);
    (void)(*parallel)->Init(params, false);

    StrongRef<CameraInterface> cameras[] = {baseline, *perspective, *parallel};
    const char* names[] = {"CreateScreenRay/baseline", "CreateScreenRay/perspective",
                           "CreateScreenRay/parallel"};
    for (int i = 0; i < 3; ++i) {
        StrongRef<CameraInterface> camera = cameras[i];
        benchmark::RegisterBenchmark(names[i],
                                     [camera](benchmark::State& s) { RenderTile(s, camera); });
    }
    return OK();
}
