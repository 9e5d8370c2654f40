// Statistical checks of the preview renderer (heavy): convergence at the Monte-Carlo rate,
// and each legacy model's albedo under a uniform environment against known values (printed
// for docs/modules.md).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <vector>

#include "kelvo/legacy_renderers/bsdfdata.h"
#include "preview_test_util.h"
#include "renderer/preview_renderer.h"

namespace kelvo::preview {
namespace {

std::vector<float> RenderImage(PreviewSettings s, const PreviewMaterial& m, bool light) {
    PreviewRendererImpl r;
    PreviewLight l;
    l.enabled = light;
    EXPECT_TRUE(r.Init(s, m, l).Ok());
    EXPECT_TRUE(r.RenderIteration({}).Ok());
    std::vector<float> rgb(size_t(s.width * s.height * 3));
    EXPECT_TRUE(r.GetImage(rgb).Ok());
    return rgb;
}

double Rms(const std::vector<float>& a, const std::vector<float>& b) {
    double s = 0.0;
    for (size_t i = 0; i < a.size(); ++i) s += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
    return std::sqrt(s / double(a.size()));
}

StrongRef<DataDictionary> Rough(double roughness) {
    auto d = *NewObject<DataDictionary>();
    (void)d->Set(bsdfdata::kRoughness, roughness);
    (void)d->Set(bsdfdata::kOrenNayarSigma, roughness);
    (void)d->Set(bsdfdata::kIorIn, 1.5);
    (void)d->Set(bsdfdata::kIorOut, 1.0);
    (void)d->Set(bsdfdata::kBlurryExponent, 20.0);
    return d;
}

// The error against a 16 times longer render falls as 1 / sqrt(samples): 4 times the
// samples halve it, within a factor 1.5.
TEST(PreviewStatistics, ErrorFallsAsOneOverSqrtSamples) {
    testing_preview::LoadEngineModule();
    PreviewSettings s;
    s.scene = PREVIEWSCENE::SPHERE;
    s.width = s.height = 16;
    s.sphereSegments = 16;
    PreviewMaterial m;
    m.model = Id("net.kelvo.render.bsdflegacyclass.orennayarbrdf");
    m.data = Rough(0.4);
    m.colour = {0.8, 0.5, 0.3};
    auto error = [&](int spp) {
        s.samplesPerIteration = spp;
        s.seed = 1;
        std::vector<float> image = RenderImage(s, m, true);
        s.samplesPerIteration = 16 * spp;
        s.seed = 2;
        return Rms(image, RenderImage(s, m, true));
    };
    const double e4 = error(4), e16 = error(16);
    const double ratio = e4 / e16;
    EXPECT_GT(ratio, 2.0 / 1.5) << e4 << " " << e16;
    EXPECT_LT(ratio, 2.0 * 1.5) << e4 << " " << e16;
}

// The floor alone under a uniform white environment: each pixel is the directional albedo
// of the model towards the camera (about 20..60 degrees from the normal). The render is
// seeded, so the values are exact; the bounds leave room for a changed sampler, not for a
// model that lost or gained energy. Lambert must give exactly what it receives; blurry
// specular returns 100 times its cosine power (its albedo above one is the model's own).
TEST(PreviewStatistics, ModelAlbedosUnderUniformLight) {
    testing_preview::LoadEngineModule();
    struct Expected {
        const char* model;
        double albedo, tolerance;
    };
    const Expected models[] = {
        {"lambertbrdf", 1.000, 0.005},      {"orennayarbrdf", 0.994, 0.03},
        {"irawanbrdf", 0.381, 0.03},        {"blurrysimplebrdf", 0.413, 0.03},
        {"blurryspecularbrdf", 1.758, 0.1}, {"beckmannbrdf", 0.986, 0.03},
        {"beckmannbtdf", 0.654, 0.03},      {"ggxbrdf", 0.956, 0.03},
        {"ggxbtdf", 0.650, 0.03},           {"phongbrdf", 0.985, 0.03},
        {"phongbtdf", 0.657, 0.03},         {"wardbrdf", 0.985, 0.03},
        {"wardbtdf", 0.654, 0.03},          {"anisotropicbrdf", 0.986, 0.03},
        {"anisotropicbtdf", 0.656, 0.03}};
    PreviewSettings s;
    s.scene = PREVIEWSCENE::PLANE;
    s.width = s.height = 8;
    s.samplesPerIteration = 64;
    for (const auto& expected : models) {
        PreviewMaterial m;
        m.model = *Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + expected.model);
        m.data = Rough(0.3);
        std::vector<float> rgb = RenderImage(s, m, false);
        double mean = 0.0;
        for (size_t i = 0; i < rgb.size(); i += 3) {
            // A colourless model answers grey.
            EXPECT_EQ(rgb[i], rgb[i + 1]) << expected.model << " texel " << i / 3;
            EXPECT_EQ(rgb[i], rgb[i + 2]) << expected.model << " texel " << i / 3;
            mean += rgb[i];
        }
        mean /= double(rgb.size() / 3);
        std::printf("| %s | %.3f |\n", expected.model, mean);
        EXPECT_NEAR(mean, expected.albedo, expected.tolerance) << expected.model;
    }
}

}  // namespace
}  // namespace kelvo::preview
