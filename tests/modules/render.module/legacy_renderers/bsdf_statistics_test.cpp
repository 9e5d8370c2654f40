// Physical checks of the distributions and the diffuse models: normalisation by
// quadrature and chi-square tests of the samplers (fixed seeds).
#include <gtest/gtest.h>

#include "bsdf_test_util.h"
#include "implementation/legacy_renderers/microfacet_distribution.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

// Every chi-square test of this suite, for the Sidak correction.
constexpr int kChiSquareTests = 12;

DataDictionary Anisotropic(double roughness, double anisotropy, double rotation) {
    return Dict(bsdfdata::kRoughness, roughness, bsdfdata::kAnisotropy, anisotropy,
                bsdfdata::kRotation, rotation);
}

// An isotropic density needs a single azimuth step.
template <typename Dist>
double HemisphereIntegral(const Dist& d, bool withCosine) {
    return IntegrateHemisphere(
        [&](const Vec3& h) {
            double p, v = d.ExactD(h.z, p);
            return withCosine ? v * h.z : v;
        },
        400000, 1);
}

TEST(DistributionNormalisationTest, ClosedFormsIntegrateToOne) {
    for (double r : {0.05, 0.1, 0.3, 0.6, 1.0}) {
        SCOPED_TRACE(r);
        EXPECT_NEAR(HemisphereIntegral(Updated<BeckmannDistribution>(Record(r)), true), 1.0, 1e-3);
        EXPECT_NEAR(HemisphereIntegral(Updated<GGXDistribution>(Record(r)), true), 1.0, 1e-3);
        EXPECT_NEAR(HemisphereIntegral(Updated<PhongDistribution>(Record(r)), true), 1.0, 1e-3);
        // Ward's density integrates to one without the cosine.
        EXPECT_NEAR(HemisphereIntegral(Updated<WardDistribution>(Record(r)), false), 1.0, 1e-3);
    }
    for (auto [r, an] : {std::pair{0.5, 0.3}, {0.7, 0.6}, {0.4, 0.0}}) {
        auto a = Updated<AnisotropicDistribution>(Anisotropic(r, an, 0.4));
        double integral = IntegrateHemisphere(
            [&](const Vec3& h) {
                double pdf;
                return a.D(h, false, pdf) * h.z;
            },
            1500, 1500);
        EXPECT_NEAR(integral, 1.0, 1e-3) << r << " " << an;
    }
}

const ChiSquareSetup kHalfVectors{.thetaMax = kPi / 2, .testCount = kChiSquareTests};

// Beckmann and GGX sample D cos(theta_h), whatever density they state; Phong, Ward and
// anisotropic sample exactly their stated sampling density.
template <typename Dist>
void ExpectSamplesFollowTheirDensity(const DataDictionary& record, bool dCos = false) {
    auto d = Updated<Dist>(record);
    std::string failure = ChiSquare(
        kHalfVectors,
        [&](Rng& rng) -> std::optional<Vec3> {
            SampleRecord rec = MakeSample(rng);
            double dv, pdf, stated;
            Vec3 h = d.Sample(rec.data(), dv, pdf);
            d.D(h, false, stated);
            if (!dCos) {
                EXPECT_NEAR(pdf, stated, 1e-9 * std::max(1.0, stated));
            }
            return h;
        },
        [&](const Vec3& h) {
            double p, v = d.D(h, false, p);
            return dCos ? v * std::max(0.0, h.z) : p;
        });
    EXPECT_EQ(failure, "");
}

TEST(DistributionSamplingTest, HalfVectorsFollowTheirDensities) {
    for (double r : {0.3, 0.8}) {
        SCOPED_TRACE(r);
        ExpectSamplesFollowTheirDensity<BeckmannDistribution>(Record(r), true);
        ExpectSamplesFollowTheirDensity<GGXDistribution>(Record(r), true);
        ExpectSamplesFollowTheirDensity<WardDistribution>(Record(r));
    }
    ExpectSamplesFollowTheirDensity<PhongDistribution>(Record(0.5));
    ExpectSamplesFollowTheirDensity<PhongDistribution>(Record(0.8));
    ExpectSamplesFollowTheirDensity<AnisotropicDistribution>(Anisotropic(0.5, 0.3, 0.0));
    ExpectSamplesFollowTheirDensity<AnisotropicDistribution>(Anisotropic(0.7, 0.0, 0.0));
}

TEST(DiffuseSamplingTest, SampleFFollowsPdfIndirect) {
    DataDictionary record = Dict(bsdfdata::kOrenNayarSigma, 0.6);
    for (const char* suffix : {"lambertbrdf", "orennayarbrdf"}) {
        auto m = MakeModel(suffix, record);
        EXPECT_EQ(SampleFChiSquare(*m, Normalize(Vec3{0.4, 0.2, 0.7}), kChiSquareTests, true), "")
            << suffix;
    }
}

}  // namespace
}  // namespace kelvo::legacy
