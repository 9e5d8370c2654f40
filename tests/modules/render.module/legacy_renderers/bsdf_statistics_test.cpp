// Physical checks of the distributions and the diffuse models: normalisation by
// quadrature and chi-square tests of the samplers (fixed seeds).
#include <gtest/gtest.h>

#include "bsdf_test_support.h"
#include "legacy_renderers/microfacet_distribution.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_support;

// Every chi-square test of this suite, for the Sidak correction.
constexpr int kChiSquareTests = 12;

DataDictionary Record(double roughness, double anisotropy = 0.0, double rotation = 0.0) {
    DataDictionary d;
    EXPECT_TRUE(d.Set(bsdfdata::kRoughness, roughness).Ok());
    EXPECT_TRUE(d.Set(bsdfdata::kAnisotropy, anisotropy).Ok());
    EXPECT_TRUE(d.Set(bsdfdata::kRotation, rotation).Ok());
    return d;
}

// Composite Simpson over theta in [0, pi/2] of an isotropic integrand f(theta).
template <typename F>
double IntegrateTheta(F&& f, int intervals = 400000) {
    double h = kPi / 2 / intervals, sum = f(0.0) + f(kPi / 2);
    for (int i = 1; i < intervals; ++i) sum += f(i * h) * (i % 2 ? 4.0 : 2.0);
    return sum * h / 3.0;
}

template <typename Dist>
double HemisphereIntegral(const Dist& d, bool withCosine) {
    return 2.0 * kPi * IntegrateTheta([&](double t) {
        double p, c = std::cos(t);
        double v = d.ExactD(c, p);
        return v * (withCosine ? c : 1.0) * std::sin(t);
    });
}

TEST(DistributionNormalisationTest, ClosedFormsIntegrateToOne) {
    for (double r : {0.05, 0.1, 0.3, 0.6, 1.0}) {
        BeckmannDistribution b;
        GGXDistribution g;
        PhongDistribution p;
        WardDistribution w;
        ASSERT_TRUE(b.Update(Record(r)).Ok());
        ASSERT_TRUE(g.Update(Record(r)).Ok());
        ASSERT_TRUE(p.Update(Record(r)).Ok());
        ASSERT_TRUE(w.Update(Record(r)).Ok());
        EXPECT_NEAR(HemisphereIntegral(b, true), 1.0, 1e-3) << r;
        EXPECT_NEAR(HemisphereIntegral(g, true), 1.0, 1e-3) << r;
        EXPECT_NEAR(HemisphereIntegral(p, true), 1.0, 1e-3) << r;
        EXPECT_NEAR(HemisphereIntegral(w, false), 1.0, 1e-3) << r;  // Ward without the cosine
    }
    for (auto [r, an] : {std::pair{0.5, 0.3}, {0.7, 0.6}, {0.4, 0.0}}) {
        AnisotropicDistribution a;
        ASSERT_TRUE(a.Update(Record(r, an, 0.4)).Ok());
        const int nt = 1500, np = 1500;
        double sum = 0.0, dt = kPi / 2 / nt, dp = 2 * kPi / np;
        for (int i = 0; i < nt; ++i) {
            double t = (i + 0.5) * dt;
            for (int j = 0; j < np; ++j) {
                Vec3 h = SphericalDirection(t, (j + 0.5) * dp);
                double pdf;
                sum += a.D(h, false, pdf) * h.z * std::sin(t);
            }
        }
        EXPECT_NEAR(sum * dt * dp, 1.0, 1e-3) << r << " " << an;
    }
}

ChiSquareSetup HalfVectorSetup() {
    ChiSquareSetup s;
    s.thetaMax = kPi / 2;
    s.testCount = kChiSquareTests;
    return s;
}

// Beckmann and GGX sample D cos(theta_h), whatever density they state.
template <typename Dist>
void ExpectSamplesFollowDCos(double roughness) {
    Dist d;
    ASSERT_TRUE(d.Update(Record(roughness)).Ok());
    std::string failure = ChiSquare(
        HalfVectorSetup(),
        [&](Rng& rng) -> std::optional<Vec3> {
            SampleRecord rec = MakeSample(rng);
            double dv, pdf;
            return d.Sample(rec.data(), dv, pdf);
        },
        [&](const Vec3& h) {
            double p;
            return d.D(h, false, p) * std::max(0.0, h.z);
        });
    EXPECT_EQ(failure, "") << "roughness " << roughness;
}

// Phong, Ward and anisotropic sample exactly their stated sampling density.
template <typename Dist>
void ExpectSamplesFollowTheirDensity(const DataDictionary& record) {
    Dist d;
    ASSERT_TRUE(d.Update(record).Ok());
    std::string failure = ChiSquare(
        HalfVectorSetup(),
        [&](Rng& rng) -> std::optional<Vec3> {
            SampleRecord rec = MakeSample(rng);
            double dv, pdf;
            Vec3 h = d.Sample(rec.data(), dv, pdf);
            double stated;
            d.D(h, false, stated);
            EXPECT_NEAR(pdf, stated, 1e-9 * std::max(1.0, stated));
            return h;
        },
        [&](const Vec3& h) {
            double p;
            d.D(h, false, p);
            return p;
        });
    EXPECT_EQ(failure, "");
}

TEST(DistributionSamplingTest, HalfVectorsFollowTheirDensities) {
    ExpectSamplesFollowDCos<BeckmannDistribution>(0.3);
    ExpectSamplesFollowDCos<BeckmannDistribution>(0.8);
    ExpectSamplesFollowDCos<GGXDistribution>(0.3);
    ExpectSamplesFollowDCos<GGXDistribution>(0.8);
    ExpectSamplesFollowTheirDensity<PhongDistribution>(Record(0.5));
    ExpectSamplesFollowTheirDensity<PhongDistribution>(Record(0.8));
    ExpectSamplesFollowTheirDensity<WardDistribution>(Record(0.3));
    ExpectSamplesFollowTheirDensity<WardDistribution>(Record(0.8));
    ExpectSamplesFollowTheirDensity<AnisotropicDistribution>(Record(0.5, 0.3, 0.0));
    ExpectSamplesFollowTheirDensity<AnisotropicDistribution>(Record(0.7, 0.0, 0.0));
}

TEST(DiffuseSamplingTest, SampleFFollowsPdfIndirect) {
    DataDictionary record;
    ASSERT_TRUE(record.Set(bsdfdata::kOrenNayarSigma, 0.6).Ok());
    for (const char* suffix : {"lambertbrdf", "orennayarbrdf"}) {
        auto m = MakeModel(suffix);
        ASSERT_TRUE(m->Init(record).Ok());
        Vec3 wo = Normalize(Vec3{0.4, 0.2, 0.7});
        ChiSquareSetup s;
        s.testCount = kChiSquareTests;
        std::string failure = ChiSquare(
            s,
            [&](Rng& rng) -> std::optional<Vec3> {
                SampleRecord rec = MakeSample(rng);
                Vec3 wi;
                double pdf;
                Col3 v = m->SampleF(wo, rec.data(), wi, pdf);
                if (pdf == 0.0) return std::nullopt;
                EXPECT_NEAR(pdf, m->PdfIndirect(wo, wi), 1e-12);
                double evalPdf;
                Col3 e = m->ComputeBSDF(wo, wi, wi, evalPdf);
                EXPECT_NEAR(v.r, e.r, 1e-12);
                return wi;
            },
            [&](const Vec3& wi) { return m->PdfIndirect(wo, wi) * (wi.z > 0 ? 1.0 : 0.0); });
        EXPECT_EQ(failure, "") << suffix;
    }
}

}  // namespace
}  // namespace kelvo::legacy
