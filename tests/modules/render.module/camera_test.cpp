#include "kelvo/camera.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>
#include <vector>

#include "host.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {
namespace P = CAMERAPARAMETERS;

StrongRef<CameraInterface> MakeCamera(const Id& classId, const StrongRef<DataDictionary>& params,
                                      bool flipped = false) {
    auto made = CreateClass<CameraInterface>(classId);
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    if (!made) return nullptr;
    EXPECT_TRUE((*made)->Init(params, flipped).Ok());
    return *made;
}

StrongRef<DataDictionary> Params(Vec2 resolution) {
    auto p = std::make_shared<DataDictionary>();
    (void)p->Set(P::SCREENRESOLUTION, resolution);
    return p;
}

// A rotated, scaled, shifted camera that is not orthonormal.
Matrix Skewed() {
    Matrix m;
    m.offset = {3, -2, 5};
    m.xAxis = {0.8, 0.0, -0.6};
    m.yAxis = {0.1, 1.2, 0.0};
    m.zAxis = {0.6, 0.0, 0.8};
    return m;
}

void ExpectNear(const Vec3& a, const Vec3& b, double tolerance = 1e-12) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}

TEST(CameraRegistryTest, BothClassesAreRegisteredAsCameras) {
    auto members = RegistryMembers(kCameraClassesRegistry);
    ASSERT_EQ(members.size(), 2u);
    for (const Id& id : {kPerspectiveCameraClass, kParallelCameraClass})
        EXPECT_NE(FindClass(id, CameraInterface::InterfaceId()), nullptr) << id.Text();
    EXPECT_EQ(FindEntry(kParallelCameraClass)->source.Path(),
              "modules/render.module/source/implementation/camera/parallel");
}

TEST(PerspectiveCameraTest, CentreEdgeAndVerticalFlipAt640x480) {
    auto camera = MakeCamera(kPerspectiveCameraClass, Params({640, 480}));
    Ray ray;
    ray.rendererData[2] = 42.0;
    ray.time = 0.5;
    camera->CreateScreenRay({320, 240}, ray);
    EXPECT_EQ(ray.origin, Vec3{});
    EXPECT_EQ(ray.direction, (Vec3{0, 0, 1}));
    // The renderer's members stay as they were.
    EXPECT_EQ(ray.rendererData[2], 42.0);
    EXPECT_EQ(ray.time, 0.5);

    camera->CreateScreenRay({640, 240}, ray);
    ExpectNear(ray.direction, Normalize(Vec3{0.25, 0, 1}));
    EXPECT_EQ(ray.xDifferentialOrigin, ray.origin);
    EXPECT_EQ(ray.yDifferentialOrigin, ray.origin);
    EXPECT_EQ(ray.xDifferentialDirection, ray.direction);
    EXPECT_EQ(ray.yDifferentialDirection, ray.direction);

    // Screen y grows downward, and the vertical scale goes by the width, not the height.
    camera->CreateScreenRay({320, 480}, ray);
    ExpectNear(ray.direction, Normalize(Vec3{0, -0.5 * 240 / 640, 1}));
    EXPECT_EQ(camera->GetFeatures(), 2u);
}

TEST(PerspectiveCameraTest, FlippedLooksAlongMinusZ) {
    auto camera = MakeCamera(kPerspectiveCameraClass, Params({640, 480}), true);
    Ray ray;
    camera->CreateScreenRay({320, 240}, ray);
    EXPECT_EQ(ray.direction, (Vec3{0, 0, -1}));
    EXPECT_EQ(camera->GetFeatures(), 10u);
    EXPECT_EQ(MakeCamera(kParallelCameraClass, Params({640, 480}), true)->GetFeatures(), 10u);
    EXPECT_EQ(MakeCamera(kParallelCameraClass, Params({640, 480}))->GetFeatures(), 2u);
    // A point in front of a flipped camera has negative depth and projects normally.
    Vec3 s = camera->WorldToScreen({1, 0, -2});
    EXPECT_DOUBLE_EQ(s.x, 320 + 0.5 * 640);
    EXPECT_EQ(s.z, -2);
}

TEST(PerspectiveCameraTest, DepthBehindTheCameraIsClampedTo0001) {
    auto camera = MakeCamera(kPerspectiveCameraClass, Params({640, 480}));
    // Divided by 0.001, not by -5 (which would mirror the point) nor by 0.
    Vec3 behind = camera->WorldToScreen({1, 0, -5});
    EXPECT_DOUBLE_EQ(behind.x, 1 / 0.001 * 640 + 320);
    EXPECT_EQ(behind.z, -5);
    Vec3 onPlane = camera->CameraToScreen({0, 1, 0});
    EXPECT_DOUBLE_EQ(onPlane.y, 1 / 0.001 * -640 + 240);
    Vec3 back = camera->ScreenToCamera({640, 240, -3});
    EXPECT_DOUBLE_EQ(back.x, 0.5 * 0.001);
    EXPECT_EQ(back.z, -3);
}

TEST(ParallelCameraTest, EqualDirectionsAndOriginsSteppingByAxisOverScaledWidth) {
    auto params = Params({640, 480});
    (void)params->Set(P::MATRIX, Skewed());
    (void)params->Set(P::SCREENSCALE, Vec2{2, 3});
    (void)params->Set(P::FIELDOFVIEW, 0.25);  // not read by parallel cameras
    auto camera = MakeCamera(kParallelCameraClass, params);
    Ray a, b, c;
    camera->CreateScreenRay({100, 50}, a);
    camera->CreateScreenRay({101, 50}, b);
    camera->CreateScreenRay({100, 51}, c);
    EXPECT_EQ(a.direction, Skewed().zAxis);  // the axis itself, not normalised
    EXPECT_EQ(b.direction, a.direction);
    EXPECT_EQ(c.direction, a.direction);
    ExpectNear(b.origin - a.origin, Skewed().xAxis * (1.0 / (2 * 640)), 1e-15);
    // Vertically by the width too, and downward.
    ExpectNear(c.origin - a.origin, Skewed().yAxis * (-1.0 / (3 * 640)), 1e-15);
    EXPECT_EQ(a.xDifferentialOrigin, a.origin);
    EXPECT_EQ(a.yDifferentialDirection, a.direction);
    // The centre pixel starts at the camera position.
    camera->CreateScreenRay({320, 240}, a);
    EXPECT_EQ(a.origin, Skewed().offset);

    // With a power-of-two width every step is exact.
    auto exact = MakeCamera(kParallelCameraClass, Params({512, 256}));
    for (double x = 0; x < 512; x += 37) {
        exact->CreateScreenRay({x, 7}, a);
        exact->CreateScreenRay({x + 1, 7}, b);
        EXPECT_EQ(b.origin.x - a.origin.x, 1.0 / 512);
    }
}

TEST(CameraTest, WithoutUsableParametersEveryRayGoesAlongForward) {
    // An empty dictionary has a zero resolution, so the screen scale and its reciprocals
    // are 0; no dictionary at all makes every value 0.
    for (const auto& params : {std::make_shared<DataDictionary>(), StrongRef<DataDictionary>()}) {
        auto camera = MakeCamera(kPerspectiveCameraClass, params);
        Ray ray;
        for (Vec2 p : {Vec2{0, 0}, Vec2{1e6, -3}, Vec2{-7, 480}}) {
            camera->CreateScreenRay(p, ray);
            EXPECT_EQ(ray.direction, (Vec3{0, 0, 1}));
        }
        EXPECT_EQ(camera->GetParameters(), params);
        Vec3 s = camera->WorldToScreen({1, 2, 3});
        EXPECT_EQ(s, (Vec3{0, 0, 3}));  // the scale is 0, never NaN
        EXPECT_EQ(camera->ScreenToCamera({5, 5, 2}), (Vec3{0, 0, 2}));
    }
    // A wrongly typed resolution reads as absent.
    auto params = std::make_shared<DataDictionary>();
    (void)params->Set(P::SCREENRESOLUTION, Vec3{640, 480, 1});
    Ray ray;
    MakeCamera(kPerspectiveCameraClass, params)->CreateScreenRay({640, 0}, ray);
    EXPECT_EQ(ray.direction, (Vec3{0, 0, 1}));
}

TEST(CameraTest, WithoutADictionaryTheFrameworkDefaultsApply) {
    // The framework's default dictionary is read but never stored (it is not the camera's
    // to write); only when the host has none is every value 0.
    auto defaults = Params({640, 480});
    host::SetDefaultDataDictionary(defaults);
    for (const Id& id : {kPerspectiveCameraClass, kParallelCameraClass}) {
        auto camera = MakeCamera(id, nullptr);
        EXPECT_EQ(camera->GetParameters(), nullptr);
        EXPECT_EQ(camera->WorldToScreen({0, 0, 1}), (Vec3{320, 240, 1}));
        camera->SetMatrix(Skewed());
        EXPECT_FALSE(defaults->Contains(P::MATRIX));
    }
    Ray ray;
    MakeCamera(kPerspectiveCameraClass, nullptr)->CreateScreenRay({640, 240}, ray);
    ExpectNear(ray.direction, Normalize(Vec3{0.25, 0, 1}));
    host::SetDefaultDataDictionary(nullptr);
    MakeCamera(kPerspectiveCameraClass, nullptr)->CreateScreenRay({640, 240}, ray);
    EXPECT_EQ(ray.direction, (Vec3{0, 0, 1}));
    host::SetDefaultDataDictionary(std::make_shared<DataDictionary>());
}

TEST(CameraTest, SingularMatrixGivesIdentityInverseAndZeroDirection) {
    Matrix flat;
    flat.zAxis = {0, 0, 0};
    auto params = Params({640, 480});
    (void)params->Set(P::MATRIX, flat);
    for (const Id& id : {kPerspectiveCameraClass, kParallelCameraClass}) {
        auto camera = MakeCamera(id, params);
        EXPECT_EQ(camera->GetWorldToCameraMatrix(), Matrix{});
        EXPECT_EQ(camera->GetCameraToWorldMatrix(), flat);
        EXPECT_EQ(camera->WorldToCamera({1, 2, 3}), (Vec3{1, 2, 3}));
    }
    // The centre ray of a camera with no forward axis is the zero vector, not NaN.
    Ray ray;
    MakeCamera(kPerspectiveCameraClass, params)->CreateScreenRay({320, 240}, ray);
    EXPECT_EQ(ray.direction, Vec3{});
}

TEST(CameraTest, SetMatrixKeepsInverseRaysAndTheStoredDictionaryInStep) {
    for (const Id& id : {kPerspectiveCameraClass, kParallelCameraClass}) {
        auto params = Params({640, 480});
        auto camera = MakeCamera(id, params);
        camera->SetMatrix(Skewed());
        EXPECT_EQ(params->Get<Matrix>(P::MATRIX), Skewed());  // the caller's dictionary
        EXPECT_EQ(camera->GetParameters()->Get<Matrix>(P::MATRIX), Skewed());
        ExpectNear(camera->WorldToCamera(camera->CameraToWorld({1, 2, 3})), {1, 2, 3});
        ExpectNear(camera->VectorWorldToCamera(camera->VectorCameraToWorld({1, 2, 3})), {1, 2, 3});
        Ray ray;
        camera->CreateScreenRay({320, 240}, ray);
        EXPECT_EQ(ray.origin, Skewed().offset);
        ExpectNear(ray.direction,
                   id == kParallelCameraClass ? Skewed().zAxis : Normalize(Skewed().zAxis));
    }
    // A failed write into the dictionary still moves the camera; without a dictionary
    // only the camera moves.
    auto params = Params({640, 480});
    auto camera = MakeCamera(kPerspectiveCameraClass, params);
    host::FailAllAllocations();
    camera->SetMatrix(Skewed());
    host::FailNthAllocation(0);
    EXPECT_FALSE(params->Contains(P::MATRIX));
    EXPECT_EQ(camera->GetCameraToWorldMatrix(), Skewed());
    auto bare = MakeCamera(kParallelCameraClass, nullptr);
    bare->SetMatrix(Skewed());
    EXPECT_EQ(bare->GetParameters(), nullptr);
    EXPECT_EQ(bare->GetCameraToWorldMatrix(), Skewed());
}

TEST(CameraTest, WorldScreenWorldRoundTripsInFrontOfTheCamera) {
    for (const Id& id : {kPerspectiveCameraClass, kParallelCameraClass}) {
        for (bool flipped : {false, true}) {
            auto params = Params({800, 600});
            (void)params->Set(P::MATRIX, Skewed());
            (void)params->Set(P::SCREENOFFSET, Vec2{12, -7});
            (void)params->Set(P::SCREENSCALE, Vec2{1.5, 0.75});
            (void)params->Set(P::FIELDOFVIEW, 0.8);
            auto camera = MakeCamera(id, params, flipped);
            for (Vec3 c : {Vec3{0.3, -0.2, 4}, Vec3{-5, 3, 0.5}, Vec3{0, 0, 100}}) {
                if (flipped) c.z = -c.z;  // in front of a flipped camera
                Vec3 world = camera->CameraToWorld(c);
                Vec3 screen = camera->WorldToScreen(world);
                ExpectNear(camera->ScreenToWorld(screen), world, 1e-10);
                ExpectNear(camera->ScreenToCamera(camera->CameraToScreen(c)), c, 1e-12);
            }
        }
    }
}

TEST(PerspectiveCameraTest, OnlyRayGenerationCarriesTheFieldOfView) {
    for (double fov : {1.0, 0.5}) {
        auto params = Params({640, 480});
        (void)params->Set(P::MATRIX, Skewed());
        (void)params->Set(P::FIELDOFVIEW, fov);
        auto camera = MakeCamera(kPerspectiveCameraClass, params);
        Ray ray;
        camera->CreateScreenRay({500, 100}, ray);
        Vec3 screen = camera->WorldToScreen(ray.origin + ray.direction * 7.0);
        // At fieldofview f the ray through x projects back to centre + (x - centre) * f.
        EXPECT_NEAR(screen.x, 320 + (500 - 320) * fov, 1e-9);
        EXPECT_NEAR(screen.y, 240 + (100 - 240) * fov, 1e-9);
    }
}

TEST(PerspectiveCameraTest, FootprintsLandRightAfterTheHitPosition) {
    static_assert(offsetof(ShadingPoint, footprintX) ==
                  offsetof(ShadingPoint, position) + sizeof(Vec3));
    static_assert(offsetof(ShadingPoint, footprintY) ==
                  offsetof(ShadingPoint, footprintX) + sizeof(Vec3));
    // A tilted plane through (0, 0, 10).
    const Vec3 normal = Normalize(Vec3{0.2, -0.3, -1});
    const Vec3 planePoint{0, 0, 10};
    auto hitOnPlane = [&](const Ray& r) {
        double t = Dot(planePoint - r.origin, normal) / Dot(r.direction, normal);
        return r.origin + r.direction * t;
    };
    for (double fov : {1.0, 0.5}) {
        auto params = Params({640, 480});
        (void)params->Set(P::FIELDOFVIEW, fov);
        (void)params->Set(P::MATRIX, Matrix{{1, 2, 3}});
        auto camera = MakeCamera(kPerspectiveCameraClass, params);
        Ray ray, right, below;
        camera->CreateScreenRay({200, 100}, ray);
        ShadingPoint hit;
        hit.position = hitOnPlane(ray);
        hit.normal = normal;
        hit.uvw = {0.25, 0.5, 0};
        camera->CalculateMIPComponents({200, 100}, ray, hit);
        // The pixel steps carry no field-of-view factor: at fieldofview f they reach the
        // ray 1/f pixels away, so only at f = 1 the neighbouring pixel's own ray.
        camera->CreateScreenRay({200 + 1 / fov, 100}, right);
        camera->CreateScreenRay({200, 100 + 1 / fov}, below);
        ExpectNear(hit.footprintX, hitOnPlane(right), 1e-9);
        ExpectNear(hit.footprintY, hitOnPlane(below), 1e-9);
        ExpectNear(ray.xDifferentialDirection, right.direction);
        ExpectNear(ray.yDifferentialDirection, below.direction);
        EXPECT_EQ(hit.uvw, (Vec3{0.25, 0.5, 0}));
    }
    // A differential parallel to the surface has no footprint on it: the origin stands in.
    auto camera = MakeCamera(kPerspectiveCameraClass, Params({640, 480}));
    Ray ray;
    camera->CreateScreenRay({320, 240}, ray);
    ShadingPoint hit;
    hit.position = {0, 0, 10};
    hit.normal = {0, 0, 1};
    camera->CalculateMIPComponents({320, 240}, ray, hit);
    EXPECT_NEAR(hit.footprintX.x, 10.0 / 640, 1e-15);
    hit.normal = {1, 0, 0};  // the plane x = 0 contains the centre ray and the y step
    camera->CalculateMIPComponents({320, 240}, ray, hit);
    EXPECT_EQ(hit.footprintY, ray.origin);
}

TEST(ParallelCameraTest, MipComponentsLeaveRayAndHitAsTheyAre) {
    auto camera = MakeCamera(kParallelCameraClass, Params({640, 480}));
    Ray ray;
    camera->CreateScreenRay({10, 20}, ray);
    ShadingPoint hit;
    hit.position = {1, 2, 3};
    hit.normal = {0, 0, 1};
    const Ray rayBefore = ray;
    const ShadingPoint hitBefore = hit;
    camera->CalculateMIPComponents({10, 20}, ray, hit);
    EXPECT_EQ(ray, rayBefore);
    EXPECT_EQ(hit, hitBefore);
    EXPECT_TRUE(camera->VisibilityTest({0, 0, -1e9}));
}

TEST(CameraTest, ManyThreadsShareOneInitialisedCamera) {
    auto params = Params({64, 64});
    (void)params->Set(P::MATRIX, Skewed());
    auto camera = MakeCamera(kPerspectiveCameraClass, params);
    std::vector<Ray> expected(64 * 64);
    for (int i = 0; i < 64 * 64; ++i)
        camera->CreateScreenRay({double(i % 64), double(i / 64)}, expected[i]);
    std::vector<int> mismatches(4, 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            Ray ray;
            for (int i = t; i < 64 * 64; i += 4) {
                camera->CreateScreenRay({double(i % 64), double(i / 64)}, ray);
                Vec3 s = camera->WorldToScreen(ray.origin + ray.direction);
                mismatches[t] += !(ray == expected[i]) + !std::isfinite(s.x);
            }
        });
    for (auto& th : threads) th.join();
    for (int m : mismatches) EXPECT_EQ(m, 0);
}

}  // namespace
}  // namespace kelvo
