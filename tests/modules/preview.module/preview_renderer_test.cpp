// The preview renderer as it ships, checked against physics on small images: the white
// furnace, determinism over thread counts, convergence, the IES key light and texture
// filtering.
#include "renderer/preview_renderer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <span>
#include <vector>

#include "host.h"
#include "kelvo/image.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"
#include "preview_test_util.h"
#include "renderer/preview_scene.h"

namespace kelvo::preview {
namespace {

constexpr double kPi = 3.14159265358979323846;

struct Render {
    PreviewSettings settings;
    PreviewMaterial material;
    PreviewLight light;
    Render(PREVIEWSCENE scene, int64_t size) {
        settings.scene = scene;
        settings.width = settings.height = size;
        settings.sphereSegments = 96;
        light.enabled = false;
    }
    std::vector<float> Run(int iterations) {
        PreviewRendererImpl r;
        auto ok = r.Init(settings, material, light);
        EXPECT_TRUE(ok.Ok()) << ok.GetError().Message();
        for (int i = 0; i < iterations; ++i) EXPECT_TRUE(r.RenderIteration({}).Ok());
        std::vector<float> rgb(size_t(settings.width * settings.height * 3));
        EXPECT_TRUE(r.GetImage(rgb).Ok());
        return rgb;
    }
};

double Rms(const std::vector<float>& a, const std::vector<float>& b) {
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i) s += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return std::sqrt(s / double(a.size()));
}

class PreviewRendererTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { testing_preview::LoadEngineModule(); }
};

// A convex white Lambert sphere under a uniform environment reflects exactly what arrives;
// with light and BSDF samples weighted by MIS every sample is exact, so the check is tight,
// also with the bound on indirect light far down (no contribution of a furnace exceeds 1).
TEST_F(PreviewRendererTest, WhiteFurnaceAndHalfColour) {
    for (double bound : {10.0, 1.0}) {
        Render white(PREVIEWSCENE::OPEN, 12);
        white.settings.samplesPerIteration = 4;
        white.settings.indirectBound = bound;
        double sum = 0.0;
        const std::vector<float> rgb = white.Run(2);
        for (float v : rgb) {
            EXPECT_NEAR(v, 1.0, 0.02);
            sum += v;
        }
        EXPECT_NEAR(sum / double(rgb.size()), 1.0, 0.005) << bound;
    }

    Render half(PREVIEWSCENE::OPEN, 12);
    half.material.colour = {0.5, 0.5, 0.5};
    half.settings.samplesPerIteration = 4;
    std::vector<float> rgb = half.Run(2);
    EXPECT_NEAR(rgb[size_t((6 * 12 + 6) * 3)], 0.5, 0.01);  // the sphere's middle
    EXPECT_NEAR(rgb[0], 1.0, 1e-6);                         // the environment in the corner
}

StrongRef<DataDictionary> Glass(double ior, double roughness) {
    auto d = *NewObject<DataDictionary>();
    EXPECT_TRUE(d->Set(bsdfdata::kRoughness, roughness).Ok());
    EXPECT_TRUE(d->Set(bsdfdata::kIorIn, ior).Ok());
    EXPECT_TRUE(d->Set(bsdfdata::kIorOut, 1.0).Ok());
    return d;
}

// Both sequences, a glossy and a glass swatch: the tiles a thread takes change nothing.
TEST_F(PreviewRendererTest, SameSeedSameImageOnOneAndTwoThreads) {
    host::SetHostThreads(2);
    for (PREVIEWSEQUENCE sequence : {PREVIEWSEQUENCE::SOBOL, PREVIEWSEQUENCE::INDEPENDENT})
        for (const char* model : {"ggxbrdf", "ggxbtdf"}) {
            Render a(PREVIEWSCENE::SPHERE, 16);
            a.material.model =
                *Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + model);
            a.material.data = Glass(1.5, 0.3);
            a.light.enabled = true;
            a.settings.seed = 7;
            a.settings.tileSize = 4;
            a.settings.sequence = sequence;
            Render b = a;
            a.settings.threads = 1;
            b.settings.threads = 2;
            std::vector<float> one = a.Run(2), two = b.Run(2);
            EXPECT_EQ(one, two) << model;
            b.settings.seed = 8;
            EXPECT_NE(one, b.Run(2)) << model;
        }
}

// Where the unit ball lies in a Render's picture: the pixels whose centre ray meets it, and
// among them those that look at it within `cosine` of head-on.
std::vector<int64_t> BallPixels(const Render& r, double cosine) {
    const SceneData scene = MakeScene(r.settings.scene, 4);
    auto camera = *CreateClass<CameraInterface>(kPerspectiveCameraClass);
    auto params = *NewObject<DataDictionary>();
    EXPECT_TRUE(
        params->Set(CAMERAPARAMETERS::MATRIX, LookAt(scene.camera.position, scene.camera.target))
            .Ok());
    const int64_t w = r.settings.width, h = r.settings.height;
    EXPECT_TRUE(params->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{double(w), double(h)}).Ok());
    EXPECT_TRUE(params->Set(CAMERAPARAMETERS::FIELDOFVIEW, scene.camera.fieldOfView).Ok());
    EXPECT_TRUE(camera->Init(params, false).Ok());
    std::vector<int64_t> pixels;
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            Ray ray;
            camera->CreateScreenRay({x + 0.5, y + 0.5}, ray);
            const Vec3 d = Normalize(ray.direction);
            const double b = Dot(ray.origin, d), c = SquaredLength(ray.origin) - 1.0;
            const double disc = b * b - c;
            if (disc <= 0.0) continue;
            const Vec3 p = ray.origin + d * (-b - std::sqrt(disc));
            if (-Dot(p, d) >= cosine) pixels.push_back(y * w + x);
        }
    return pixels;
}

double Luminance(const std::vector<float>& rgb, int64_t pixel) {
    const float* p = &rgb[size_t(pixel * 3)];
    return (double(p[0]) + p[1] + p[2]) / 3.0;
}

// A smooth glass ball before a checker is a lens: what lies behind it shows upside down
// and mirrored (the light enters, crosses and leaves again; inside, the indices are the
// other way round). A ball of index 1.01 bends nothing and nearly vanishes.
TEST_F(PreviewRendererTest, GlassBallInvertsTheCheckerAndIndexOneNearlyVanishes) {
    constexpr int64_t kSize = 64;
    auto render = [&](PREVIEWSCENE scene, double ior) {
        Render r(scene, kSize);
        r.settings.stageChecker = 1.0;
        r.settings.samplesPerIteration = 16;
        r.material.model = Id("net.kelvo.render.bsdflegacyclass.ggxbtdf");
        r.material.data = Glass(ior, 0.0);
        return r.Run(1);
    };
    const std::vector<float> stage = render(PREVIEWSCENE::BACKDROP, 1.5);
    const std::vector<float> clear = render(PREVIEWSCENE::SPHERE, 1.01);
    const std::vector<float> glass = render(PREVIEWSCENE::SPHERE, 1.5);
    const std::vector<int64_t> ball = BallPixels(Render(PREVIEWSCENE::SPHERE, kSize), 0.5);
    ASSERT_GT(ball.size(), 100u);

    // Index 1.01: the stage through the ball as without it (the contrast of the checker
    // is 0.65; the floor behind the ball lies in its shadow, hence the margin).
    double difference = 0.0;
    for (int64_t p : ball) difference += std::abs(Luminance(clear, p) - Luminance(stage, p));
    EXPECT_LT(difference / double(ball.size()), 0.08) << difference / double(ball.size());

    // Index 1.5: the stage seen through the ball's centre c matches the stage without it
    // at c - s (p - c) for some s > 0 (inverted), far better than at c + s (p - c).
    double cx = 0.0, cy = 0.0;
    for (int64_t p : ball) cx += double(p % kSize), cy += double(p / kSize);
    cx /= double(ball.size());
    cy /= double(ball.size());
    auto correlation = [&](double s) {
        std::vector<double> a, b;
        for (int64_t p : ball) {
            const double dx = double(p % kSize) - cx, dy = double(p / kSize) - cy;
            const int64_t x = std::clamp(int64_t(std::lround(cx + s * dx)), int64_t(0), kSize - 1);
            const int64_t y = std::clamp(int64_t(std::lround(cy + s * dy)), int64_t(0), kSize - 1);
            a.push_back(Luminance(glass, p));
            b.push_back(Luminance(stage, y * kSize + x));
        }
        double ma = 0, mb = 0, ab = 0, aa = 0, bb = 0;
        for (size_t i = 0; i < a.size(); ++i) ma += a[i], mb += b[i];
        ma /= double(a.size());
        mb /= double(b.size());
        for (size_t i = 0; i < a.size(); ++i) {
            ab += (a[i] - ma) * (b[i] - mb);
            aa += (a[i] - ma) * (a[i] - ma);
            bb += (b[i] - mb) * (b[i] - mb);
        }
        return aa > 0 && bb > 0 ? ab / std::sqrt(aa * bb) : 0.0;
    };
    double inverted = -1.0, upright = -1.0;
    for (double s = 0.25; s <= 3.0; s += 0.125) {
        inverted = std::max(inverted, correlation(-s));
        upright = std::max(upright, correlation(s));
    }
    EXPECT_GT(inverted, 0.5);
    EXPECT_GT(inverted, upright + 0.2) << inverted << " " << upright;
}

// Light leaves the ball through two surfaces, so under a uniform environment it is at
// least as bright as the environment times the model's transmittance through one surface
// (the plane scene's floor, seen at a slant), squared. Rough glass and the other
// distributions too: total internal reflection returns light the model does not transmit.
TEST_F(PreviewRendererTest, GlassBallPassesTheLightThroughTwoSurfaces) {
    for (const char* model : {"ggxbtdf", "beckmannbtdf", "phongbtdf", "wardbtdf"})
        for (double roughness : {0.0, 0.3}) {
            Render plane(PREVIEWSCENE::PLANE, 16);
            plane.material.model =
                *Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + model);
            plane.material.data = Glass(1.5, roughness);
            plane.settings.samplesPerIteration = 64;
            const std::vector<float> floor = plane.Run(1);
            double transmittance = 0.0;
            for (size_t i = 0; i < floor.size(); i += 3) transmittance += floor[i];
            transmittance /= double(floor.size() / 3);

            Render open(PREVIEWSCENE::OPEN, 24);
            open.material = plane.material;
            open.settings.samplesPerIteration = 32;
            const std::vector<float> ball = open.Run(1);
            double mean = 0.0;
            const std::vector<int64_t> pixels = BallPixels(open, 0.0);
            for (int64_t p : pixels) mean += Luminance(ball, p);
            mean /= double(pixels.size());
            EXPECT_GT(transmittance, 0.3) << model << " " << roughness;
            EXPECT_GE(mean, transmittance * transmittance) << model << " " << roughness;
        }
}

// The blurry specular lobe returns far more than it receives from some directions; light
// that bounces off the ball onto the floor would leave isolated bright pixels without the
// bound on indirect light. The blurry simple lobe samples nothing and grows as 1/cos towards
// the horizon: cosine-weighted light samples alone leave it speckled.
TEST_F(PreviewRendererTest, NoFireflyAtSixtyFourIterations) {
    constexpr int64_t kSize = 32;
    for (const char* model : {"blurryspecularbrdf", "blurrysimplebrdf"}) {
        Render r(PREVIEWSCENE::SPHERE, kSize);
        r.material.model = *Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + model);
        r.material.data = *NewObject<DataDictionary>();
        ASSERT_TRUE(r.material.data->Set(bsdfdata::kBlurryExponent, 30.0).Ok());
        r.light.enabled = true;
        const std::vector<float> rgb = r.Run(64);
        int fireflies = 0;
        for (int64_t y = 1; y + 1 < kSize; ++y)
            for (int64_t x = 1; x + 1 < kSize; ++x) {
                std::vector<double> around;
                for (int64_t j = -1; j <= 1; ++j)
                    for (int64_t i = -1; i <= 1; ++i)
                        around.push_back(Luminance(rgb, (y + j) * kSize + x + i));
                std::nth_element(around.begin(), around.begin() + 4, around.end());
                fireflies += Luminance(rgb, y * kSize + x) > 5.0 * around[4];
            }
        EXPECT_EQ(fireflies, 0) << model;
    }
}

TEST_F(PreviewRendererTest, CancelledIterationLeavesTheImageAlone) {
    Render r(PREVIEWSCENE::OPEN, 16);
    r.settings.tileSize = 4;
    PreviewRendererImpl renderer;
    ASSERT_TRUE(renderer.Init(r.settings, r.material, r.light).Ok());
    ASSERT_TRUE(renderer.RenderIteration({}).Ok());
    std::vector<float> before(16 * 16 * 3), after(16 * 16 * 3);
    ASSERT_TRUE(renderer.GetImage(before).Ok());
    int asked = 0;
    auto result = renderer.RenderIteration([&] { return ++asked > 3; });
    ASSERT_FALSE(result.Ok());
    EXPECT_EQ(result.GetError().Message(), "Illegal state: The preview iteration was cancelled.");
    ASSERT_TRUE(renderer.GetImage(after).Ok());
    EXPECT_EQ(before, after);
    EXPECT_EQ(renderer.GetStatistics().iterations, 1);
    EXPECT_EQ(renderer.GetStatistics().intersector, "net.kelvo.render.intersectionclass.embree");
}

TEST_F(PreviewRendererTest, BadSettingsAndUnknownModelFail) {
    PreviewRendererImpl r;
    PreviewSettings s;
    s.width = 0;
    auto e = r.Init(s, {}, {});
    ASSERT_FALSE(e.Ok());
    EXPECT_EQ(e.GetError().Message(), "Illegal argument: Preview size 0 x 128 is out of range.");
    PreviewMaterial m;
    m.model = Id("net.kelvo.render.bsdflegacyclass.nosuchbrdf");
    e = r.Init({}, m, {});
    ASSERT_FALSE(e.Ok());
    EXPECT_EQ(e.GetError().Message(),
              "Illegal argument: Class net.kelvo.render.bsdflegacyclass.nosuchbrdf not found.");
    std::vector<float> wrong(3);
    EXPECT_FALSE(r.GetImage(wrong).Ok());
    EXPECT_EQ(LegacyValue({-0.5, std::nan(""), 2.0}), (Col3{0.5, 0.0, 2.0}));
}

// The delivered form (colours with alpha 1) is the image itself, converted once; the size
// bound is the one every part of the preview path checks.
TEST_F(PreviewRendererTest, DeliveredColoursAreTheImageAndSizesStopAtTheSharedBound) {
    Render render(PREVIEWSCENE::SPHERE, 6);
    render.settings.height = 4;
    PreviewRendererImpl r;
    ASSERT_TRUE(r.Init(render.settings, render.material, render.light).Ok());
    ASSERT_TRUE(r.RenderIteration({}).Ok());
    ASSERT_TRUE(r.RenderIteration({}).Ok());
    std::vector<float> rgb(6 * 4 * 3);
    std::vector<Col4f> rgba(6 * 4, Col4f{-1, -1, -1, -1});
    ASSERT_TRUE(r.GetImage(rgb).Ok());
    ASSERT_TRUE(r.GetImage(std::span<Col4f>(rgba)).Ok());
    for (size_t i = 0; i < rgba.size(); ++i) {
        EXPECT_EQ(rgba[i].r, rgb[i * 3]);
        EXPECT_EQ(rgba[i].g, rgb[i * 3 + 1]);
        EXPECT_EQ(rgba[i].b, rgb[i * 3 + 2]);
        EXPECT_EQ(rgba[i].a, 1.0f);
    }
    std::vector<Col4f> wrong(6 * 4 * 3);  // floats counted as pixels
    auto e = r.GetImage(std::span<Col4f>(wrong));
    ASSERT_FALSE(e.Ok());
    EXPECT_EQ(e.GetError().Message(), "Illegal argument: The image needs 24 pixels, not 72.");

    PreviewSettings edge;
    edge.width = kPreviewMaxSide;
    edge.height = 1;
    EXPECT_TRUE(PreviewRendererImpl().Init(edge, {}, {}).Ok());
    edge.height = kPreviewMaxSide + 1;
    edge.width = 1;
    e = PreviewRendererImpl().Init(edge, {}, {});
    ASSERT_FALSE(e.Ok());
    EXPECT_EQ(e.GetError().Message(), "Illegal argument: Preview size 1 x 16385 is out of range.");
}

// The lit spot on a white floor follows the profile: I(direction) cos / (pi d^2).
TEST_F(PreviewRendererTest, IesKeyLightFollowsTheProfile) {
    Render r(PREVIEWSCENE::PLANE, 24);
    r.settings.environment = {0, 0, 0};
    r.settings.samplesPerIteration = 256;
    r.light.enabled = true;
    r.light.position = {0.0, 2.0, 0.5};
    r.light.target = {0.0, 0.0, 0.5};
    r.light.intensity = 10.0;
    auto profile = CreateComponent<IesInterface>();
    ASSERT_TRUE(profile.Ok());
    const double vertical[] = {0, 15, 30, 45, 60, 90}, horizontal[] = {0};
    const double candela[] = {100, 90, 60, 30, 10, 0};
    ASSERT_TRUE((*profile)->SetRawAccess(vertical, horizontal, candela).Ok());
    r.light.profile = *profile;
    std::vector<float> rgb = r.Run(1);

    const SceneData scene = MakeScene(PREVIEWSCENE::PLANE, 4);
    auto camera = CreateClass<CameraInterface>(kPerspectiveCameraClass);
    ASSERT_TRUE(camera.Ok());
    auto params = *NewObject<DataDictionary>();
    ASSERT_TRUE(
        params->Set(CAMERAPARAMETERS::MATRIX, LookAt(scene.camera.position, scene.camera.target))
            .Ok());
    ASSERT_TRUE(params->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{24, 24}).Ok());
    ASSERT_TRUE(params->Set(CAMERAPARAMETERS::FIELDOFVIEW, scene.camera.fieldOfView).Ok());
    ASSERT_TRUE((*camera)->Init(params, false).Ok());
    // The expected value is the pixel's mean over a grid of positions inside it.
    auto expected = [&](int x, int y) {
        double sum = 0.0;
        for (int j = 0; j < 8; ++j)
            for (int i = 0; i < 8; ++i) {
                Ray ray;
                (*camera)->CreateScreenRay({x + (i + 0.5) / 8, y + (j + 0.5) / 8}, ray);
                if (ray.direction.y >= 0.0) continue;
                const Vec3 p = ray.origin + ray.direction * (-ray.origin.y / ray.direction.y);
                if (std::abs(p.x) > 4.0 || std::abs(p.z) > 4.0) continue;  // off the floor
                const Vec3 toPoint = p - r.light.position;
                const double d2 = SquaredLength(toPoint), c = -toPoint.y / std::sqrt(d2);
                const double shape =
                    (*profile)->ComputeLightIntensity({0.0, std::sqrt(1 - c * c), -c});
                sum += 10.0 * shape * c / (kPi * d2);
            }
        return sum / 64;
    };
    int checked = 0;
    for (int y = 8; y < 24; y += 3)
        for (int x = 4; x < 20; x += 5) {
            const double e = expected(x, y);
            EXPECT_NEAR(rgb[size_t((y * 24 + x) * 3)], e, 0.03 * e + 2e-3) << x << "," << y;
            checked += e > 0.01;
        }
    EXPECT_GT(checked, 10);
}

// A fine checker on a slanted floor: the mip-mapped render is far closer to the box-filtered
// truth (64 nearest samples per pixel) than one nearest sample per pixel.
TEST_F(PreviewRendererTest, MipMappedTextureBeatsNearest) {
    constexpr int kSize = 128;
    auto image = CreateImage(kSize, kSize);
    auto layer = CreateImageLayer(kSize, kSize, kPixelRgb8, COLORPROFILE::LINEAR);
    ASSERT_TRUE(image.Ok() && layer.Ok());
    auto writer = (*layer)->SetPixelHandler(kPixelRgb8, COLORPROFILE::LINEAR);
    ASSERT_TRUE(writer.Ok());
    std::vector<uint8_t> row(kSize * 3);
    for (int y = 0; y < kSize; ++y) {
        for (int x = 0; x < kSize; ++x)
            row[size_t(x) * 3] = row[size_t(x) * 3 + 1] = row[size_t(x) * 3 + 2] =
                ((x / 2 + y / 2) % 2) ? 255 : 0;
        ASSERT_TRUE((*writer)->SetPixels(0, y, kSize, row.data()).Ok());
    }
    ASSERT_TRUE((*image)->AddLayer(*layer).Ok());
    auto sampler = CreateTextureSampler(*image);
    ASSERT_TRUE(sampler.Ok());

    auto render = [&](TEXTUREMODE mode, int spp) {
        Render r(PREVIEWSCENE::PLANE, 32);
        r.material.textureSampler = *sampler;
        r.material.textureMode = mode;
        r.material.textureRepeat = 4.0;
        r.settings.samplesPerIteration = spp;
        return r.Run(1);
    };
    const std::vector<float> truth = render(TEXTUREMODE::NEAREST, 64);
    const double mip = Rms(render(TEXTUREMODE::MIPMAP, 1), truth);
    const double nearest = Rms(render(TEXTUREMODE::NEAREST, 1), truth);
    EXPECT_LT(3.0 * mip, nearest) << "mip " << mip << ", nearest " << nearest;
}

}  // namespace
}  // namespace kelvo::preview
