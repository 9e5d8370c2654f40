// Physical checks of the glossy and cloth models: chi-square sampling tests, reflection
// albedo by quadrature, reciprocity, and the cloth integrand's independence of the
// highlight width.
#include <gtest/gtest.h>

#include "bsdf_test_util.h"
#include "implementation/legacy_renderers/cloth_model.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

constexpr int kChiSquareTests = 7;

DataDictionary Glossy(double roughness, double anisotropy = 0.0) {
    return Dict(bsdfdata::kRoughness, roughness, bsdfdata::kAnisotropy, anisotropy,
                bsdfdata::kRotation, 0.7);
}

void ExpectSampleFFollowsPdfIndirect(const std::string& suffix, const DataDictionary& d,
                                     const Vec3& wo) {
    auto m = MakeModel(suffix, d);
    EXPECT_EQ(SampleFChiSquare(*m, wo, kChiSquareTests), "") << suffix;
}

TEST(GlossySamplingTest, ReflectionSampleFFollowsPdfIndirect) {
    Vec3 wo = Normalize(Vec3{0.5, -0.2, 0.8});
    ExpectSampleFFollowsPdfIndirect("phongbrdf", Glossy(0.5), wo);
    ExpectSampleFFollowsPdfIndirect("phongbrdf", Glossy(0.8), Normalize(Vec3{0.9, 0, 0.3}));
    ExpectSampleFFollowsPdfIndirect("wardbrdf", Glossy(0.4), wo);
    ExpectSampleFFollowsPdfIndirect("wardbrdf", Glossy(0.8), Normalize(Vec3{0.9, 0, 0.3}));
    ExpectSampleFFollowsPdfIndirect("anisotropicbrdf", Glossy(0.6, 0.4), wo);
    ExpectSampleFFollowsPdfIndirect("anisotropicbrdf", Glossy(0.8, 0.0),
                                    Normalize(Vec3{0.9, 0, 0.3}));
    ExpectSampleFFollowsPdfIndirect(
        "irawanbrdf", Dict(bsdfdata::kClothPattern, "gabardine", bsdfdata::kWarpDiffuse, 0.5), wo);
}

// Albedo = integral of value / pi * cos(theta_i) over the hemisphere.
double Albedo(BSDFLegacyInterface& m, const Vec3& wo) {
    return IntegrateHemisphere(
               [&](const Vec3& wi) {
                   double p;
                   return m.ComputeBSDF(wo, wi, wi, p).r * wi.z;
               },
               400, 800) /
           kPi;
}

TEST(GlossyEnergyTest, ReflectionAlbedoStaysAtMostOne) {
    for (const char* suffix : {"beckmannbrdf", "ggxbrdf", "wardbrdf", "anisotropicbrdf"}) {
        for (double r : {0.3, 0.6, 1.0}) {
            auto m = MakeModel(suffix, Glossy(r, 0.3));
            for (double view : {0.0, 0.8, 1.3, 1.5}) {
                double a = Albedo(*m, SphericalDirection(view, 0.4));
                EXPECT_LE(a, 1.0 + 1e-3) << suffix << " roughness " << r << " view " << view;
                EXPECT_GT(a, 0.05) << suffix;
            }
        }
    }
}

TEST(GlossyEnergyTest, ReflectionIsReciprocal) {
    DataDictionary d = Glossy(0.4, 0.3);
    SetAll(d, bsdfdata::kOrenNayarSigma, 0.4, bsdfdata::kClothPattern, "denim",
           bsdfdata::kTextureCoordinate, Vec2{0.3, 0.6}, bsdfdata::kWarpSpecular, 1.0,
           bsdfdata::kWeftSpecular, 1.0);
    for (const char* suffix : {"beckmannbrdf", "ggxbrdf", "phongbrdf", "wardbrdf",
                               "anisotropicbrdf", "irawanbrdf", "orennayarbrdf", "lambertbrdf"}) {
        auto m = MakeModel(suffix, d);
        Rng rng(8);
        for (int n = 0; n < 20000; ++n) {
            Vec3 a = SphericalDirection(1.5 * rng.NextDouble(), 6.28 * rng.NextDouble());
            Vec3 b = SphericalDirection(1.5 * rng.NextDouble(), 6.28 * rng.NextDouble());
            double p;
            double ab = m->ComputeBSDF(a, b, b, p).r, ba = m->ComputeBSDF(b, a, a, p).r;
            ASSERT_NEAR(ab, ba, 1e-9 * std::max(1.0, ab)) << suffix;
        }
    }
}

// The spread band's factors make the segment mean equal the line integral, whatever hw.
TEST(ClothIntegrandTest, SegmentMeanDoesNotDependOnTheHighlightWidth) {
    const cloth::Yarn yarns[] = {{-30 * kPi / 180, 12 * kPi / 180, 0, 1, 5},  // staple
                                 {0.0, 40 * kPi / 180, 2, 1, 9}};             // filament
    Vec3 wi = Normalize(Vec3{0.2, -0.5, 0.7}), wo = Normalize(Vec3{-0.1, 0.6, 0.6});
    for (const cloth::Yarn& y : yarns) {
        double means[2];
        int k = 0;
        for (double hw : {0.5, 0.2}) {
            cloth::Scattering sc{0.02, 4.0, 0.3, hw};
            const int n = 1000;
            double sum = 0.0;
            for (int i = 0; i < n; ++i)
                for (int j = 0; j < n; ++j)
                    sum += cloth::Specular(y, sc, ((i + 0.5) / n - 0.5) * y.width,
                                           ((j + 0.5) / n - 0.5) * y.length, wi, wo);
            means[k++] = sum / (double(n) * n);
        }
        ASSERT_GT(means[0], 0.0);
        EXPECT_NEAR(means[1] / means[0], 1.0, 5e-3) << "psi " << y.psi;
    }
}

}  // namespace
}  // namespace kelvo::legacy
