// The Embree intersection classes, loaded through the host loader as a renderer reaches
// them, beside a bare Embree loop over the same scene and rays: single rays (incoherent
// and coherent), packets, occlusion, and BVH builds of a million triangles on 1 and 2
// threads.
#include <benchmark/benchmark.h>
#include <embree3/rtcore.h>

#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

#include "host.h"
#include "kelvo/meshbuilders.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {

constexpr size_t kRays = 1 << 14;

// A sphere of 160,000 triangles above a square, and two ray sets: incoherent rays from a
// surrounding shell towards points inside the sphere, and coherent ones of a pinhole
// camera looking at it.
struct Workload {
    OwnedTriangleMesh sphere = MakeSphereMesh(1.0, 200, 400);
    OwnedTriangleMesh square = MakeSquareMesh(10.0);
    Matrix squarePlace{{0, 0, -1.5}};
    std::vector<Ray> incoherent, coherent;
    std::vector<RayLimits> limits = std::vector<RayLimits>(kRays);

    Workload() {
        std::mt19937 rng(3);
        std::normal_distribution<double> g;
        std::uniform_real_distribution<double> inside(-0.7, 0.7);
        for (size_t i = 0; i < kRays; ++i) {
            Ray ray;
            ray.origin = Normalize(Vec3{g(rng), g(rng), g(rng)}) * 3.0;
            ray.direction = Normalize(Vec3{inside(rng), inside(rng), inside(rng)} - ray.origin);
            incoherent.push_back(ray);
        }
        const size_t side = 128;
        for (size_t y = 0; y < side; ++y)
            for (size_t x = 0; x < side; ++x) {
                Ray ray;
                ray.origin = {0, -4, 0.5};
                ray.direction =
                    Normalize(Vec3{(x + 0.5) / side - 0.5, 1.0, (y + 0.5) / side - 0.5});
                coherent.push_back(ray);
            }
    }
};

Workload& Work() {
    static bool initialized = (host::Initialize(), true);  // the meshes use its allocator
    (void)initialized;
    static Workload work;
    return work;
}

// --- Ours, through the loaded module --------------------------------------------------------
StrongRef<IntersectorInterface> OurScene(const Id& engine) {
    static bool loaded = [] {
        return host::LoadModule(KELVO_RENDER_MODULE).Ok() &&
               host::LoadModule(KELVO_EMBREE_MODULE).Ok();
    }();
    if (!loaded) return nullptr;
    auto made = CreateIntersector(*FindClass(engine, kIntersectionClassKind));
    if (!made) return nullptr;
    StrongRef<IntersectorInterface> scene = *made;
    Workload& w = Work();
    int32_t sphere = *scene->AddMesh(w.sphere.View());
    int32_t square = *scene->AddMesh(w.square.View());
    (void)scene->AddInstance(sphere, Matrix{});
    (void)scene->AddInstance(square, w.squarePlace);
    return scene->Commit().Ok() ? scene : nullptr;
}

void OursSingle(benchmark::State& state, const std::vector<Ray>& rays) {
    auto scene = OurScene(kEmbreeIntersectionClass);
    if (!scene) return state.SkipWithError("no scene");
    IntersectionResult64 hit;
    size_t hits = 0;
    for (auto _ : state)
        for (const Ray& ray : rays) hits += scene->Intersect(ray, RayLimits{}, hit);
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(int64_t(state.iterations() * rays.size()));
}
void BM_Ours_Single_Incoherent(benchmark::State& s) { OursSingle(s, Work().incoherent); }
void BM_Ours_Single_Coherent(benchmark::State& s) { OursSingle(s, Work().coherent); }

void BM_Ours_Packet_Coherent(benchmark::State& state) {
    auto scene = OurScene(kEmbreeIntersectionClass);
    if (!scene) return state.SkipWithError("no scene");
    Workload& w = Work();
    std::vector<IntersectionResult64> hits(kRays);
    for (auto _ : state) {
        scene->IntersectPacket(w.coherent.data(), w.limits.data(), hits.data(), kRays);
        benchmark::DoNotOptimize(hits.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * kRays));
}

void BM_Ours_Occluded_Incoherent(benchmark::State& state) {
    auto scene = OurScene(kEmbreeIntersectionClass);
    if (!scene) return state.SkipWithError("no scene");
    size_t hits = 0;
    for (auto _ : state)
        for (const Ray& ray : Work().incoherent) hits += scene->Occluded(ray, RayLimits{});
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(int64_t(state.iterations() * kRays));
}

// --- Bare Embree --------------------------------------------------------------------------
struct BareScene {
    RTCDevice device = nullptr;
    RTCScene scene = nullptr;
    std::vector<Vec3f> vertices[2];
    std::vector<uint32_t> indices[2];

    explicit BareScene(const char* config, const OwnedTriangleMesh* meshes[2],
                       const Matrix places[2]) {
        device = rtcNewDevice(config);
        scene = rtcNewScene(device);
        for (int m = 0; m < 2; ++m) {
            if (!meshes[m]) continue;
            for (const Vec3& p : meshes[m]->positions) {
                Vec3 q = places[m].TransformPoint(p);
                vertices[m].push_back({float(q.x), float(q.y), float(q.z)});
            }
            vertices[m].push_back({});  // Embree reads vertices 16 bytes wide
            indices[m].assign(meshes[m]->indices.begin(), meshes[m]->indices.end());
            RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
            rtcSetSharedGeometryBuffer(g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                       vertices[m].data(), 0, sizeof(Vec3f),
                                       vertices[m].size() - 1);
            rtcSetSharedGeometryBuffer(g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                       indices[m].data(), 0, 3 * sizeof(uint32_t),
                                       indices[m].size() / 3);
            rtcCommitGeometry(g);
            rtcAttachGeometry(scene, g);
            rtcReleaseGeometry(g);
        }
    }
    ~BareScene() {
        rtcReleaseScene(scene);
        rtcReleaseDevice(device);
    }
};

BareScene& Bare() {
    Workload& w = Work();
    static const OwnedTriangleMesh* meshes[2] = {&w.sphere, &w.square};
    static const Matrix places[2] = {Matrix{}, w.squarePlace};
    static BareScene bare("verbose=0", meshes, places);
    static bool committed = (rtcCommitScene(bare.scene), true);
    (void)committed;
    return bare;
}

void SetRay(RTCRay& r, const Ray& ray) {
    r.org_x = float(ray.origin.x);
    r.org_y = float(ray.origin.y);
    r.org_z = float(ray.origin.z);
    r.dir_x = float(ray.direction.x);
    r.dir_y = float(ray.direction.y);
    r.dir_z = float(ray.direction.z);
    r.tnear = 0.0f;
    r.tfar = std::numeric_limits<float>::infinity();
    r.time = 0.0f;
    r.mask = ~0u;
    r.id = 0;
    r.flags = 0;
}

void BareSingle(benchmark::State& state, const std::vector<Ray>& rays) {
    RTCScene scene = Bare().scene;
    size_t hits = 0;
    for (auto _ : state)
        for (const Ray& ray : rays) {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            RTCRayHit rh;
            SetRay(rh.ray, ray);
            rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(scene, &context, &rh);
            hits += rh.hit.geomID != RTC_INVALID_GEOMETRY_ID;
        }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(int64_t(state.iterations() * rays.size()));
}
void BM_Bare_Single_Incoherent(benchmark::State& s) { BareSingle(s, Work().incoherent); }

// The bare loop plus the hit record a renderer needs (position, normals, uv), read from
// the caller's own mesh arrays: what our Intersect replaces.
void BM_BareWithRecord_Single_Incoherent(benchmark::State& state) {
    BareScene& bare = Bare();
    const OwnedTriangleMesh& sphere = Work().sphere;
    std::vector<Vec3f> normals;
    std::vector<Vec2f> uvs;
    for (const Vec3& n : sphere.normals) normals.push_back({float(n.x), float(n.y), float(n.z)});
    for (const Vec2& t : sphere.uvs) uvs.push_back({float(t.x), float(t.y)});
    auto f = [](const Vec3f& v) { return Vec3{v.x, v.y, v.z}; };
    double sum = 0;
    for (auto _ : state)
        for (const Ray& ray : Work().incoherent) {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            RTCRayHit rh;
            SetRay(rh.ray, ray);
            rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
            rtcIntersect1(bare.scene, &context, &rh);
            if (rh.hit.geomID != 0) continue;  // the sphere carries normals and uv
            const uint32_t* c = &bare.indices[0][3 * size_t(rh.hit.primID)];
            double u = rh.hit.u, v = rh.hit.v, w = 1 - u - v;
            const std::vector<Vec3f>& p = bare.vertices[0];
            Vec3 position = f(p[c[0]]) * w + f(p[c[1]]) * u + f(p[c[2]]) * v;
            Vec3 ng = Normalize(Cross(f(p[c[1]]) - f(p[c[0]]), f(p[c[2]]) - f(p[c[0]])));
            Vec3 ns = Normalize(f(normals[c[0]]) * w + f(normals[c[1]]) * u + f(normals[c[2]]) * v);
            double s = uvs[c[0]].x * w + uvs[c[1]].x * u + uvs[c[2]].x * v;
            sum += position.x + ng.y + ns.z + s;
        }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(int64_t(state.iterations() * kRays));
}
void BM_Bare_Single_Coherent(benchmark::State& s) { BareSingle(s, Work().coherent); }

void BM_Bare_Packet_Coherent(benchmark::State& state) {
    RTCScene scene = Bare().scene;
    std::vector<RTCRayHit> stream(kRays);
    for (auto _ : state) {
        for (size_t i = 0; i < kRays; ++i) {
            SetRay(stream[i].ray, Work().coherent[i]);
            stream[i].hit.geomID = RTC_INVALID_GEOMETRY_ID;
        }
        RTCIntersectContext context;
        rtcInitIntersectContext(&context);
        context.flags = RTC_INTERSECT_CONTEXT_FLAG_COHERENT;
        rtcIntersect1M(scene, &context, stream.data(), unsigned(kRays), sizeof(RTCRayHit));
        benchmark::DoNotOptimize(stream.data());
    }
    state.SetItemsProcessed(int64_t(state.iterations() * kRays));
}

void BM_Bare_Occluded_Incoherent(benchmark::State& state) {
    RTCScene scene = Bare().scene;
    size_t hits = 0;
    for (auto _ : state)
        for (const Ray& ray : Work().incoherent) {
            RTCIntersectContext context;
            rtcInitIntersectContext(&context);
            RTCRay r;
            SetRay(r, ray);
            rtcOccluded1(scene, &context, &r);
            hits += r.tfar < 0.0f;
        }
    benchmark::DoNotOptimize(hits);
    state.SetItemsProcessed(int64_t(state.iterations() * kRays));
}

// --- BVH builds of about a million triangles ------------------------------------------------
const OwnedTriangleMesh& BigMesh() {
    static OwnedTriangleMesh mesh = MakeSphereMesh(1.0, 500, 1000);  // 1,000,000 triangles
    return mesh;
}

void BM_Bare_Build_1M(benchmark::State& state) {
    const char* config = state.range(0) == 1 ? "threads=1,verbose=0" : "threads=2,verbose=0";
    const OwnedTriangleMesh* meshes[2] = {&BigMesh(), nullptr};
    const Matrix places[2] = {};
    std::unique_ptr<BareScene> bare;  // released outside the timed part
    for (auto _ : state) {
        state.PauseTiming();
        bare.reset();
        bare = std::make_unique<BareScene>(config, meshes, places);
        state.ResumeTiming();
        rtcCommitScene(bare->scene);
    }
    state.SetItemsProcessed(int64_t(state.iterations() * BigMesh().indices.size() / 3));
}

void OursBuild(benchmark::State& state, const Id& engine) {
    const TriangleMesh view = BigMesh().View();
    OurScene(engine);                       // loads the modules
    StrongRef<IntersectorInterface> scene;  // released outside the timed part
    for (auto _ : state) {
        state.PauseTiming();
        scene.reset();
        scene = *CreateIntersector(*FindClass(engine, kIntersectionClassKind));
        int32_t mesh = *scene->AddMesh(view);
        (void)scene->AddInstance(mesh, Matrix{});
        state.ResumeTiming();
        if (!scene->Commit().Ok()) return state.SkipWithError("commit failed");
    }
    state.SetItemsProcessed(int64_t(state.iterations() * view.indices.size() / 3));
}
void BM_Ours_Build_1M_Embree(benchmark::State& s) { OursBuild(s, kEmbreeIntersectionClass); }
void BM_Ours_Build_1M_EmbreeSingle(benchmark::State& s) {
    OursBuild(s, kEmbreeSingleIntersectionClass);
}

BENCHMARK(BM_Bare_Single_Incoherent);
BENCHMARK(BM_BareWithRecord_Single_Incoherent);
BENCHMARK(BM_Ours_Single_Incoherent);
BENCHMARK(BM_Bare_Single_Coherent);
BENCHMARK(BM_Ours_Single_Coherent);
BENCHMARK(BM_Bare_Packet_Coherent);
BENCHMARK(BM_Ours_Packet_Coherent);
BENCHMARK(BM_Bare_Occluded_Incoherent);
BENCHMARK(BM_Ours_Occluded_Incoherent);
BENCHMARK(BM_Bare_Build_1M)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Ours_Build_1M_Embree)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Ours_Build_1M_EmbreeSingle)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
}  // namespace kelvo

BENCHMARK_MAIN();
