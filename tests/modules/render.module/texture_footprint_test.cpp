#include <gtest/gtest.h>

#include "kelvo/camera.h"
#include "kelvo/registry.h"
#include "kelvo/texture.h"

namespace kelvo {
namespace {

TEST(TextureFootprintTest, ProjectsOffsetsOntoSkewedTangents) {
    // u and v along skewed tangents: p = origin + dpdu * u + dpdv * v.
    const Vec3 dpdu{2, 0, 0}, dpdv{1, 3, 0}, p{5, 5, 0};
    const Vec3 fx = p + dpdu * 0.1 + dpdv * -0.2;
    const Vec3 fy = p + dpdu * 0.05 + dpdv * 0.3 + Vec3{0, 0, 0.4};  // off-plane part is dropped
    TextureFootprint f = ComputeTextureFootprint(p, fx, fy, dpdu, dpdv);
    EXPECT_NEAR(f.dudx, 0.1, 1e-12);
    EXPECT_NEAR(f.dvdx, -0.2, 1e-12);
    EXPECT_NEAR(f.dudy, 0.05, 1e-12);
    EXPECT_NEAR(f.dvdy, 0.3, 1e-12);
    f = ComputeTextureFootprint(p, fx, fy, dpdu, dpdv, 0.5);
    EXPECT_NEAR(f.dudx, 0.05, 1e-12);
    // Parallel or zero tangents: no frame, a zero footprint.
    for (const Vec3& t : {dpdu * 3.0, Vec3{}}) {
        f = ComputeTextureFootprint(p, fx, fy, dpdu, t);
        EXPECT_EQ(f.dudx, 0.0);
        EXPECT_EQ(f.dvdy, 0.0);
    }
}

// The perspective camera's footprints lie 1 / fieldofview pixels away; scaled by the field
// of view they match the uv step to the neighbouring pixel's own ray.
TEST(TextureFootprintTest, CameraFootprintsScaledByFieldOfViewMatchTheNextPixel) {
    const double fov = 0.5;
    auto params = std::make_shared<DataDictionary>();
    ASSERT_TRUE(params->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{640, 480}).Ok());
    ASSERT_TRUE(params->Set(CAMERAPARAMETERS::FIELDOFVIEW, fov).Ok());
    auto camera = *CreateClass<CameraInterface>(kPerspectiveCameraClass);
    ASSERT_TRUE(camera->Init(params, false).Ok());
    // A floor y = -1 mapped as u = x / 2, v = z / 3.
    const Vec3 dpdu{2, 0, 0}, dpdv{0, 0, 3};
    auto hitAt = [&](Vec2 pixel, Ray& ray) {
        camera->CreateScreenRay(pixel, ray);
        return ray.origin + ray.direction * (-1.0 / ray.direction.y);
    };
    auto uv = [](const Vec3& p) { return Vec2{p.x / 2, p.z / 3}; };
    for (Vec2 pixel : {Vec2{400, 300}, Vec2{100, 470}}) {
        Ray ray;
        ShadingPoint hit;
        hit.position = hitAt(pixel, ray);
        hit.normal = {0, 1, 0};
        hit.dpdu = dpdu;
        hit.dpdv = dpdv;
        camera->CalculateMIPComponents(pixel, ray, hit);
        const TextureFootprint f = ComputeTextureFootprint(hit, fov);
        Ray other;
        const Vec2 right = uv(hitAt({pixel.x + 1, pixel.y}, other)) - uv(hit.position);
        const Vec2 down = uv(hitAt({pixel.x, pixel.y + 1}, other)) - uv(hit.position);
        // First order in the step: within a few per cent on a receding floor.
        EXPECT_NEAR(f.dudx, right.x, 0.03 * std::fabs(right.x));
        EXPECT_NEAR(f.dvdy, down.y, 0.03 * std::fabs(down.y));
        EXPECT_NEAR(f.dvdx, right.y, 0.03 * std::fabs(down.y));
    }
}

}  // namespace
}  // namespace kelvo
