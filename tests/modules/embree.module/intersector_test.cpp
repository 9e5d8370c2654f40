// The Embree intersection classes, loaded through the host's loader next to the render
// module and reached by id, as a renderer reaches them.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <thread>

#include "host.h"
#include "kelvo/meshbuilders.h"
#include "kelvo/registry.h"
#include "kelvo/rendergeneral.h"

namespace kelvo {
namespace {

constexpr uint32_t kRings = 64, kSegments = 128;
const double kChord = SphereChordError(1.0, kRings, kSegments);
const double kCellAngle = std::hypot(std::numbers::pi / kRings, 2 * std::numbers::pi / kSegments);

// The ellipsoid's placement: semi-axes (2, 1, 0.5), turned 90 degrees about z, moved to
// (5, 0, 0). World x runs along its 1-axis, world y along its 2-axis.
Matrix EllipsoidTransform() { return {{5, 0, 0}, {0, 2, 0}, {-1, 0, 0}, {0, 0, 0.5}}; }
Vec3 EllipsoidNormal(const Vec3& p) {
    Vec3 d = p - Vec3{5, 0, 0};
    return Normalize(Vec3{d.x / 1.0, d.y / 4.0, d.z / 0.25});
}

Ray MakeRay(const Vec3& origin, const Vec3& direction) {
    Ray ray;
    ray.origin = origin;
    ray.direction = Normalize(direction);
    return ray;
}

Vec3 RandomDirection(std::mt19937& rng) {
    std::normal_distribution<double> g;
    return Normalize(Vec3{g(rng), g(rng), g(rng)});
}

class EmbreeModuleTest : public testing::Test {
public:
    static void SetUpTestSuite() {
        for (const char* library : {KELVO_RENDER_MODULE, KELVO_EMBREE_MODULE}) {
            auto loaded = host::LoadModule(library);
            ASSERT_TRUE(loaded.Ok()) << loaded.GetError().Message();
            s_modules.push_back(*loaded);
        }
    }
    static void TearDownTestSuite() {
        for (auto it = s_modules.rbegin(); it != s_modules.rend(); ++it) host::UnloadModule(*it);
        s_modules.clear();
    }

protected:
    static StrongRef<IntersectorInterface> Create(const Id& engine) {
        const EntryRecord* cls = FindClass(engine, kIntersectionClassKind);
        EXPECT_NE(cls, nullptr);
        auto made = CreateIntersector(*cls);
        EXPECT_TRUE(made.Ok());
        return *made;
    }
    // Object 0: unit sphere (untransformed); 1: the square of half size 100 moved to
    // z = -2; 2: the sphere as ellipsoid (EllipsoidTransform).
    static StrongRef<IntersectorInterface> MakeScene(const Id& engine) {
        auto scene = Create(engine);
        OwnedTriangleMesh sphere = MakeSphereMesh(1.0, kRings, kSegments);
        OwnedTriangleMesh square = MakeSquareMesh(100.0);
        int32_t sphereMesh = *scene->AddMesh(sphere.View());
        int32_t squareMesh = *scene->AddMesh(square.View());
        EXPECT_EQ(*scene->AddInstance(sphereMesh, Matrix{}), 0);
        EXPECT_EQ(*scene->AddInstance(squareMesh, Matrix{{0, 0, -2}}), 1);
        EXPECT_EQ(*scene->AddInstance(sphereMesh, EllipsoidTransform()), 2);
        EXPECT_TRUE(scene->Commit().Ok());
        return scene;
    }
    // Rays from anywhere in [-8, 8]^3 in any direction, with tmax from 0 to 20.
    static void RandomRays(size_t count, std::vector<Ray>& rays, std::vector<RayLimits>& limits) {
        std::mt19937 rng(7);
        std::uniform_real_distribution<double> box(-8, 8), reach(0, 20);
        for (size_t i = 0; i < count; ++i) {
            rays.push_back(MakeRay({box(rng), box(rng), box(rng)}, RandomDirection(rng)));
            limits.push_back({0.0, reach(rng)});
        }
    }
    static inline std::vector<host::ModuleHandle> s_modules;
};

class IntersectorTest : public EmbreeModuleTest, public testing::WithParamInterface<Id> {
protected:
    void SetUp() override { scene = MakeScene(GetParam()); }
    StrongRef<IntersectorInterface> scene;
};

INSTANTIATE_TEST_SUITE_P(Engines, IntersectorTest,
                         testing::Values(kEmbreeIntersectionClass, kEmbreeSingleIntersectionClass),
                         [](const auto& info) {
                             return info.param == kEmbreeIntersectionClass ? "Parallel" : "Single";
                         });

TEST_F(EmbreeModuleTest, SelectionThroughTheLoadedModules) {
    auto general = CreateComponent<RenderGeneralInterface>();
    ASSERT_TRUE(general.Ok());
    auto chosen = (*general)->GetDefaultIntersector();
    ASSERT_TRUE(chosen.Ok());
    EXPECT_EQ((*chosen)->GetId(), kEmbreeIntersectionClass);
    ASSERT_TRUE(
        host::ConfigSet("g_polygonIntersection", kEmbreeSingleIntersectionClass.Text()).Ok());
    chosen = (*general)->GetDefaultIntersector();
    ASSERT_TRUE(chosen.Ok());
    EXPECT_EQ((*chosen)->GetId(), kEmbreeSingleIntersectionClass);
    EXPECT_TRUE(CreateIntersector(**chosen).Ok());
    ASSERT_TRUE(
        host::ConfigSet("g_polygonIntersection", "net.kelvo.render.intersectionclass.emb").Ok());
    chosen = (*general)->GetDefaultIntersector();
    ASSERT_FALSE(chosen.Ok());
    EXPECT_EQ(chosen.GetError().Message(),
              "Intersection class net.kelvo.render.intersectionclass.emb not found.");
    ASSERT_TRUE(host::ConfigSet("g_polygonIntersection", "").Ok());
}

TEST_P(IntersectorTest, HitsMatchTheAnalyticSurfaces) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> uniform(20, 80);
    IntersectionResult64 hit;
    for (int i = 0; i < 500; ++i) {
        // From the sphere's centre outwards: its inside, within the chord error.
        Vec3 d = RandomDirection(rng);
        ASSERT_TRUE(scene->Intersect(MakeRay({0, 0, 0}, d), {}, hit));
        EXPECT_EQ(hit.objectIndex, 0);
        EXPECT_TRUE(hit.distance >= 1 - kChord && hit.distance <= 1 + 1e-6) << hit.distance;
        EXPECT_NEAR(Length(hit.hitPosition), hit.distance, 1e-6);
        EXPECT_GT(Dot(hit.geometricNormal, d), std::cos(kCellAngle));
        EXPECT_GT(Dot(hit.shadingNormal, d), std::cos(kCellAngle));
        EXPECT_TRUE(hit.backFacing);

        // Straight down onto the square, front side, with its uv and derivatives.
        Vec3 target{uniform(rng), uniform(rng) - 50, -2};
        Vec3 origin = target + Vec3{d.x, d.y, std::abs(d.z) + 0.1} * 3;
        Ray down = MakeRay(origin, target - origin);
        ASSERT_TRUE(scene->Intersect(down, {}, hit));
        EXPECT_EQ(hit.objectIndex, 1);
        EXPECT_NEAR(hit.distance, Length(target - origin), 1e-9);
        EXPECT_NEAR(Length(hit.hitPosition - target), 0, 1e-9);
        EXPECT_EQ(hit.geometricNormal, (Vec3{0, 0, 1}));
        EXPECT_FALSE(hit.backFacing);
        EXPECT_NEAR(hit.uvw.x, (target.x + 100) / 200, 1e-6);
        EXPECT_NEAR(hit.uvw.y, (target.y + 100) / 200, 1e-6);
        EXPECT_NEAR(Length(hit.dpdu - Vec3{200, 0, 0}), 0, 1e-9);
        EXPECT_NEAR(Length(hit.dpdv - Vec3{0, 200, 0}), 0, 1e-9);
        ASSERT_TRUE(
            scene->Intersect(MakeRay(target + down.direction * 2, -down.direction), {}, hit));
        EXPECT_EQ(hit.objectIndex, 1);
        EXPECT_TRUE(hit.backFacing);

        // The ellipsoid from outside towards its centre: normals through the transform.
        Vec3 from = Vec3{5, 0, 0} + d * 4;
        ASSERT_TRUE(scene->Intersect(MakeRay(from, Vec3{5, 0, 0} - from), {}, hit));
        if (hit.objectIndex == 1) continue;  // the square lies in front
        EXPECT_EQ(hit.objectIndex, 2);
        Vec3 local = Inverse(EllipsoidTransform()).TransformPoint(hit.hitPosition);
        EXPECT_TRUE(Length(local) >= 1 - kChord && Length(local) <= 1 + 1e-5) << Length(local);
        EXPECT_GT(Dot(hit.geometricNormal, EllipsoidNormal(hit.hitPosition)),
                  std::cos(4 * kCellAngle));
        EXPECT_FALSE(hit.backFacing);
    }
}

TEST_P(IntersectorTest, RaysLeavingSurfacesAndGrazingRays) {
    IntersectionResult64 hit, next;
    // Off the square: leaving upwards and passing through it downwards never hit it again.
    for (double x : {30.0, 40.5, 60.25}) {
        ASSERT_TRUE(scene->Intersect(MakeRay({x, x, 3}, {0.3, -0.2, -1}), {}, hit));
        RayLimits leave{0.0, 1e9, hit.objectIndex, hit.polygonIndex};
        EXPECT_FALSE(scene->Intersect(MakeRay(hit.hitPosition, {0.3, -0.2, 1}), leave, next));
        EXPECT_FALSE(scene->Intersect(MakeRay(hit.hitPosition, {0.3, -0.2, -1}), leave, next));
    }
    // Into the sphere from its surface: the far side, a chord length away.
    for (double a : {0.1, 0.7, 1.3}) {
        Vec3 d = Normalize(Vec3{std::cos(a), std::sin(a), -0.3});
        ASSERT_TRUE(scene->Intersect(MakeRay(d * -3.0, d), {}, hit));
        ASSERT_EQ(hit.objectIndex, 0);
        Vec3 bent = Normalize(d + Vec3{0, 0, 0.2});
        ASSERT_TRUE(scene->Intersect(MakeRay(hit.hitPosition, bent),
                                     {0.0, 1e9, hit.objectIndex, hit.polygonIndex}, next));
        EXPECT_EQ(next.objectIndex, 0);
        EXPECT_NEAR(next.distance, -2 * Dot(hit.hitPosition, bent), 4 * kChord);
        EXPECT_TRUE(next.backFacing);
    }
    // Grazing the square at a thousandth of a radian from 0.01 above it.
    for (double angle : {1e-3, 1e-2}) {
        Ray graze = MakeRay({-50, 10, -1.99}, {std::cos(angle), 0, -std::sin(angle)});
        ASSERT_TRUE(scene->Intersect(graze, {}, hit));
        EXPECT_EQ(hit.objectIndex, 1);
        EXPECT_NEAR(hit.distance / (0.01 / std::sin(angle)), 1.0, 2e-3);
        EXPECT_NEAR(hit.hitPosition.z, -2, 1e-5);
    }
    // Along the square's plane, and rays that cannot be traced: no hit, no failure.
    if (scene->Intersect(MakeRay({-150, 10, -2}, {1, 0, 0}), {}, hit)) {
        EXPECT_EQ(hit.objectIndex, 1);
    }
    EXPECT_FALSE(scene->Intersect(MakeRay({0, 0, 5}, {0, 0, 0}), {}, hit));
    EXPECT_FALSE(scene->Intersect(MakeRay({NAN, 0, 5}, {0, 0, -1}), {}, hit));
    EXPECT_FALSE(scene->Occluded(MakeRay({0, 0, 5}, {0, 0, -1}), {0.0, NAN}));
}

TEST_P(IntersectorTest, LimitsBoundTheHit) {
    Ray ray = MakeRay({50, 50, 3}, {0, 0, -1});  // the square 5 below
    IntersectionResult64 hit;
    EXPECT_FALSE(scene->Intersect(ray, {0.0, 4.999}, hit));
    EXPECT_FALSE(scene->Occluded(ray, {0.0, 4.999}));
    EXPECT_TRUE(scene->Intersect(ray, {0.0, 5.001}, hit));
    EXPECT_TRUE(scene->Occluded(ray, {0.0, 5.001}));
    EXPECT_FALSE(scene->Intersect(ray, {5.001, 10.0}, hit));
    EXPECT_FALSE(scene->Occluded(ray, {5.001, 10.0}));
    EXPECT_FALSE(scene->Intersect(ray, {0.0, -1.0}, hit));
}

// Embree asserts on coordinates beyond about 1.8e18: such rays must neither stop the
// process nor lose their hit. Directions of any length find the square 5 below at 5 / |d|.
TEST_P(IntersectorTest, RaysOfExtremeMagnitude) {
    IntersectionResult64 hit;
    for (double length : {1e19, 1e300, 0x1p41, 1e-19, 1e-300}) {
        Ray down;
        down.origin = {50, 50, 3};
        down.direction = {0, 0, -length};
        const double at = 5.0 / length;
        ASSERT_TRUE(scene->Intersect(down, {}, hit)) << length;
        EXPECT_EQ(hit.objectIndex, 1);
        EXPECT_NEAR(hit.distance / at, 1.0, 1e-6) << length;
        EXPECT_NEAR(hit.hitPosition.z, -2.0, 1e-6) << length;
        EXPECT_TRUE(scene->Occluded(down, {}));
        EXPECT_FALSE(scene->Intersect(down, {0.0, at * 0.999}, hit)) << length;
        EXPECT_FALSE(scene->Occluded(down, {at * 1.001, HUGE_VAL})) << length;
        IntersectionResult64 packet[2];
        bool occluded[2] = {};
        Ray rays[2] = {down, down};
        RayLimits limits[2] = {{}, {0.0, at * 0.999}};
        scene->IntersectPacket(rays, limits, packet, 2);
        scene->OccludedPacket(rays, limits, occluded, 2);
        EXPECT_NEAR(packet[0].distance / at, 1.0, 1e-6) << length;
        EXPECT_LT(packet[1].distance, 0.0);
        EXPECT_TRUE(occluded[0]);
        EXPECT_FALSE(occluded[1]);
    }
    // Origins that far out are refused, alone and among usable rays in a packet.
    const double far[] = {2e18, -1e19, 1e300};
    for (double at : far) {
        for (const Vec3& origin : {Vec3{at, 0, 0}, Vec3{0, at, 0}, Vec3{50, 50, at}}) {
            Ray ray = MakeRay(origin, {0, 0, -1});
            EXPECT_FALSE(scene->Intersect(ray, {}, hit));
            EXPECT_FALSE(scene->Occluded(ray, {}));
            Ray rays[2] = {ray, MakeRay({50, 50, 3}, {0, 0, -1})};
            RayLimits limits[2] = {};
            IntersectionResult64 packet[2];
            bool occluded[2] = {true, false};
            scene->IntersectPacket(rays, limits, packet, 2);
            scene->OccludedPacket(rays, limits, occluded, 2);
            EXPECT_LT(packet[0].distance, 0.0);
            EXPECT_NEAR(packet[1].distance, 5.0, 1e-6);
            EXPECT_FALSE(occluded[0]);
            EXPECT_TRUE(occluded[1]);
        }
    }
    // A direction with one non-finite component among huge ones is no ray at all.
    Ray broken;
    broken.origin = {50, 50, 3};
    broken.direction = {NAN, 1e300, -1e300};
    EXPECT_FALSE(scene->Intersect(broken, {}, hit));
    broken.direction = {1e300, -INFINITY, 0};
    EXPECT_FALSE(scene->Occluded(broken, {}));
}

// Embree inverts an instance's placement in float and moves rays with it: a placement that
// is singular or extreme once rounded to float must hide its copy, not stop the process.
TEST_F(EmbreeModuleTest, PlacementsSingularInFloatHideTheirCopy) {
    for (const Id& engine : {kEmbreeIntersectionClass, kEmbreeSingleIntersectionClass}) {
        auto scene = Create(engine);
        OwnedTriangleMesh square = MakeSquareMesh(1.0);
        int32_t mesh = *scene->AddMesh(square.View());
        ASSERT_TRUE(scene->AddInstance(mesh, Matrix{{0, 0, -2}}).Ok());
        ASSERT_TRUE(
            scene->AddInstance(mesh, Matrix{{0, 0, 0}, {1e-314, 0, 0}, {0, 1, 0}, {0, 0, 1}}).Ok());
        ASSERT_TRUE(
            scene->AddInstance(mesh, Matrix{{0, 0, 1}, {1e-30, 0, 0}, {0, 1e-30, 0}, {0, 0, 1e-30}})
                .Ok());
        ASSERT_TRUE(scene->Commit().Ok());
        IntersectionResult64 hit;
        for (const Vec3& origin : {Vec3{0, 0.5, 5}, Vec3{0, 0, 5}, Vec3{1e-20, 0, 0.5}}) {
            ASSERT_TRUE(scene->Intersect(MakeRay(origin, {0, 0, -1}), {}, hit)) << origin.z;
            EXPECT_EQ(hit.objectIndex, 0);
            EXPECT_NEAR(hit.distance, origin.z + 2, 1e-9);
            EXPECT_TRUE(scene->Occluded(MakeRay(origin, {0, 0, -1}), {}));
        }
        // Regular in double and in float, but its cofactors overflow float (found by fuzzing:
        // a point shared by two placements, the ray passing far from it).
        auto point = Create(engine);
        const std::vector<Vec3> corner{{0, 0, -0.75}};
        const std::vector<uint32_t> once{0, 0, 0};
        const int32_t dot = *point->AddMesh({corner, once, {}, {}});
        ASSERT_TRUE(point->AddInstance(dot, Matrix{}).Ok());
        ASSERT_TRUE(
            point
                ->AddInstance(
                    dot,
                    Matrix{{-0.75, 1, 0}, {3.4e38, -0.75, 0}, {-1, 0, 14.5}, {14.5, 14.5, 14.5}})
                .Ok());
        ASSERT_TRUE(point->Commit().Ok());
        const Ray far = MakeRay({14.5, 14.5, 5e-299}, {-1e19, 0, 0});
        EXPECT_FALSE(point->Intersect(far, {}, hit));
        EXPECT_FALSE(point->Occluded(far, {}));
    }
}

TEST_P(IntersectorTest, OcclusionAndPacketsAgreeWithSingleClosestHits) {
    std::vector<Ray> rays;
    std::vector<RayLimits> limits;
    RandomRays(3000, rays, limits);
    std::vector<IntersectionResult64> packet(rays.size());
    std::unique_ptr<bool[]> occluded(new bool[rays.size()]);
    scene->IntersectPacket(rays.data(), limits.data(), packet.data(), rays.size());
    scene->OccludedPacket(rays.data(), limits.data(), occluded.get(), rays.size());
    size_t hits = 0;
    for (size_t i = 0; i < rays.size(); ++i) {
        IntersectionResult64 single;
        bool found = scene->Intersect(rays[i], limits[i], single);
        hits += found;
        ASSERT_EQ(scene->Occluded(rays[i], limits[i]), found) << i;
        ASSERT_EQ(occluded[i], found) << i;
        ASSERT_EQ(packet[i].distance >= 0, found) << i;
        if (found) {
            EXPECT_NEAR(packet[i].distance, single.distance, 1e-5);
            EXPECT_EQ(packet[i].objectIndex, single.objectIndex);
        }
    }
    EXPECT_GT(hits, rays.size() / 10);
}

TEST_F(EmbreeModuleTest, BothEnginesAgree) {
    auto parallel = MakeScene(kEmbreeIntersectionClass);
    auto single = MakeScene(kEmbreeSingleIntersectionClass);
    std::vector<Ray> rays;
    std::vector<RayLimits> limits;
    RandomRays(3000, rays, limits);
    for (size_t i = 0; i < rays.size(); ++i) {
        IntersectionResult64 a, b;
        bool foundA = parallel->Intersect(rays[i], limits[i], a);
        ASSERT_EQ(single->Intersect(rays[i], limits[i], b), foundA) << i;
        if (!foundA) continue;
        EXPECT_NEAR(a.distance, b.distance, 1e-5);
        EXPECT_EQ(a.objectIndex, b.objectIndex);
        EXPECT_NEAR(Dot(a.geometricNormal, b.geometricNormal), 1.0, 1e-6);
    }
}

TEST_F(EmbreeModuleTest, BadMeshesAndEmptyScenes) {
    auto scene = Create(kEmbreeIntersectionClass);
    IntersectionResult64 hit;
    Ray down = MakeRay({0, 0, 1}, {0, 0, -1});
    EXPECT_FALSE(scene->Intersect(down, {}, hit));  // before any Commit
    OwnedTriangleMesh square = MakeSquareMesh(1.0);
    const std::vector<uint32_t> loose = {0, 1}, outside = {0, 1, 4};
    const std::vector<Vec3> fewNormals(3);
    auto message = [&](const TriangleMesh& mesh) {
        return scene->AddMesh(mesh).GetError().Message();
    };
    EXPECT_EQ(message({square.positions, loose}),
              "Illegal argument: The index count 2 is not a multiple of 3.");
    EXPECT_EQ(message({square.positions, outside}),
              "Illegal argument: Triangle 0 refers to vertex 4 of a mesh with 4 vertices.");
    EXPECT_EQ(message({square.positions, square.indices, fewNormals}),
              "Illegal argument: A mesh with 4 vertices has 3 normals.");
    EXPECT_EQ(scene->AddInstance(0, Matrix{}).GetError().Message(),
              "Illegal argument: Mesh 0 does not exist.");
    host::FailNthAllocation(1);
    auto failed = scene->AddMesh(square.View());
    host::FailNthAllocation(0);
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(failed.GetError().Kind(), ERRORKIND::OUTOFMEMORY);

    // Only the rejected meshes are missing: a singular placement hides its copy.
    int32_t mesh = *scene->AddMesh(square.View());
    ASSERT_EQ(mesh, 0);
    ASSERT_TRUE(scene->AddInstance(mesh, Matrix{{0, 0, 0}, {1, 0, 0}, {0, 0, 0}, {0, 0, 1}}).Ok());
    ASSERT_TRUE(scene->Commit().Ok());
    EXPECT_FALSE(scene->Intersect(down, {}, hit));
    ASSERT_EQ(*scene->AddInstance(mesh, Matrix{}), 1);
    ASSERT_TRUE(scene->Commit().Ok());
    ASSERT_TRUE(scene->Intersect(down, {}, hit));
    EXPECT_EQ(hit.objectIndex, 1);
    scene->Release();
    EXPECT_FALSE(scene->Intersect(down, {}, hit));
    EXPECT_EQ(scene->AddInstance(0, Matrix{}).GetError().Message(),
              "Illegal argument: Mesh 0 does not exist.");
}

// Run under ThreadSanitizer with the single-threaded engine: Embree's own build threads
// are not instrumented, the queries' accesses to our scene records are.
TEST_F(EmbreeModuleTest, ConcurrentQueriesOfOneScene) {
    auto scene = MakeScene(kEmbreeSingleIntersectionClass);
    std::vector<Ray> rays;
    std::vector<RayLimits> limits;
    RandomRays(2000, rays, limits);
    std::vector<IntersectionResult64> expected(rays.size());
    for (size_t i = 0; i < rays.size(); ++i) scene->Intersect(rays[i], limits[i], expected[i]);
    // Even threads ask ray by ray, each from its own starting ray; odd ones in packets.
    std::atomic<size_t> mismatches{0};
    std::vector<std::thread> threads;
    for (size_t t = 0; t < 8; ++t)
        threads.emplace_back([&, t] {
            std::vector<IntersectionResult64> got(rays.size());
            for (size_t n = 0; n < rays.size(); n += t % 2 ? 100 : 1) {
                size_t i = t % 2 ? n : (n + t * 250) % rays.size();
                if (t % 2 == 0)
                    scene->Intersect(rays[i], limits[i], got[i]);
                else
                    scene->IntersectPacket(&rays[i], &limits[i], &got[i],
                                           std::min<size_t>(100, rays.size() - i));
            }
            for (size_t i = 0; i < rays.size(); ++i)
                if (std::abs(got[i].distance - expected[i].distance) > 1e-5) ++mismatches;
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(mismatches.load(), 0u);
}

}  // namespace
}  // namespace kelvo
