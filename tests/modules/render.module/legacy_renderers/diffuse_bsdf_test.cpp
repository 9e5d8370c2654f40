#include <gtest/gtest.h>

#include "bsdf_test_util.h"
#include "kelvo/data.h"

namespace kelvo {
namespace {
using namespace kelvo::testing_bsdf;

constexpr double kInvPi = 0.3183098861837907;

DataDictionary OrenNayarRecord(double sigma, bool simple) {
    return Dict(bsdfdata::kOrenNayarSigma, sigma, bsdfdata::kSimpleModel, simple);
}

TEST(BsdfRegistryTest, CachedSampleType) {
    const DataType* type = FindDataType(Id("net.kelvo.render.bsdfcachedsample"));
    ASSERT_NE(type, nullptr);
    EXPECT_EQ(type->ops.size, sizeof(BsdfCachedSample));
    BsdfCachedSample s{{0, 0, 1}, {1, 1, 1}, 0.25}, t;
    type->ops.copy(&t, &s);
    EXPECT_TRUE(type->ops.equal(&t, &s));
}

TEST(LambertTest, SidesGrazingAndTheUntestedDensity) {
    auto m = MakeModel("lambertbrdf", DataDictionary{});
    Vec3 wo{0, 0.6, 0.8}, wi{0.8, 0, 0.6}, below{0.8, 0, -0.6};
    double pdf = -1;
    EXPECT_EQ(m->ComputeBSDF(wo, wi, wi, pdf), (Col3{1, 1, 1}));
    EXPECT_DOUBLE_EQ(pdf, 0.6 * kInvPi);
    EXPECT_EQ(m->ComputeBSDF(wo, below, below, pdf), (Col3{0, 0, 0}));
    EXPECT_EQ(pdf, 0.0);
    EXPECT_DOUBLE_EQ(m->PdfIndirect(wo, below), 0.6 * kInvPi);  // no hemisphere test, kept
    Vec3 grazing{1, 0, 1e-11};
    EXPECT_EQ(m->ComputeBSDF(wo, grazing, grazing, pdf), (Col3{0, 0, 0}));
    EXPECT_EQ(pdf, 0.0);

    // Sampling takes the ready-made direction without a side test.
    SampleRecord rec{};
    rec[SAMPLERECORD_AZIMUTHCOS] = 0.6f;
    rec[SAMPLERECORD_AZIMUTHSIN] = 0.8f;
    rec[SAMPLERECORD_POLARCOS] = 0.5f;
    rec[SAMPLERECORD_POLARSIN] = float(std::sqrt(0.75));
    Vec3 sampled;
    EXPECT_EQ(m->SampleF(Vec3{0, 0, -1}, rec.data(), sampled, pdf), (Col3{1, 1, 1}));
    EXPECT_NEAR(sampled.x, 0.6 * std::sqrt(0.75), 1e-7);
    EXPECT_NEAR(sampled.y, 0.8 * std::sqrt(0.75), 1e-7);
    EXPECT_EQ(sampled.z, 0.5);
    EXPECT_DOUBLE_EQ(pdf, 0.5 * kInvPi);
    rec[SAMPLERECORD_POLARCOS] = 1e-11f;
    EXPECT_EQ(m->SampleF(wo, rec.data(), sampled, pdf), (Col3{0, 0, 0}));
    EXPECT_EQ(pdf, 0.0);

    EXPECT_EQ(m->ComputeF_UVW(), (Col3{1, 1, 1}));
    EXPECT_EQ(m->ComputeAngle(rec.data()), 0.0);
    EXPECT_EQ(m->ComputeMIPAngle(0.37), 0.37);
}

TEST(OrenNayarTest, SigmaZeroNormalDirectionsAndGrazing) {
    auto m = MakeModel("orennayarbrdf", DataDictionary{});  // without sigma: Lambert
    Vec3 wo = Normalize(Vec3{0.3, -0.4, 0.7}), wi = Normalize(Vec3{-0.5, 0.2, 0.4});
    double pdf;
    EXPECT_EQ(m->ComputeBSDF(wo, wi, wi, pdf), (Col3{1, 1, 1}));
    EXPECT_DOUBLE_EQ(pdf, wi.z * kInvPi);

    const double s2 = 0.25, coefA = 1 - s2 / (2 * (s2 + 0.33)), inter = 0.17 * s2 / (s2 + 0.13);
    Vec3 n{0, 0, 1};
    ASSERT_TRUE(m->Update(OrenNayarRecord(0.5, true)).Ok());
    EXPECT_NEAR(m->ComputeBSDF(n, wi, wi, pdf).r, coefA, 1e-15);
    EXPECT_NEAR(m->ComputeBSDF(wo, n, n, pdf).g, coefA, 1e-15);
    ASSERT_TRUE(m->Update(OrenNayarRecord(0.5, false)).Ok());
    // Along the normal cos dphi = 0 and beta = 0: only A and the interreflection term remain.
    EXPECT_NEAR(m->ComputeBSDF(n, wi, wi, pdf).b, coefA + inter, 1e-15);

    // Both cosines tiny: sines and tangent 0, the value stays finite.
    Vec3 g1{1, 0, 1e-17}, g2{0, 1, 1e-17};
    SampleRecord rec{};
    rec[SAMPLERECORD_AZIMUTHCOS] = 1.0f;
    rec[SAMPLERECORD_POLARCOS] = 1e-11f;
    rec[SAMPLERECORD_POLARSIN] = 1.0f;
    Vec3 sampled;
    EXPECT_EQ(m->SampleF(g1, rec.data(), sampled, pdf), (Col3{0, 0, 0}));
    EXPECT_EQ(pdf, 0.0);
    rec[SAMPLERECORD_POLARCOS] = 1e-9f;
    Col3 v = m->SampleF(g2, rec.data(), sampled, pdf);
    EXPECT_TRUE(std::isfinite(v.r));
    EXPECT_EQ(m->ComputeBSDF(g1, Vec3{0, 0, -1}, n, pdf), (Col3{0, 0, 0}));  // opposite sides
    EXPECT_EQ(pdf, 0.0);
}

TEST(OrenNayarTest, FullModelMatchesItsTermsAndIsReciprocal) {
    auto m = MakeModel("orennayarbrdf", OrenNayarRecord(0.8, false));
    auto simple = MakeModel("orennayarbrdf", OrenNayarRecord(0.8, true));
    auto lambert = MakeModel("lambertbrdf");
    Rng rng(3);
    for (int n = 0; n < 2000; ++n) {
        Vec3 a = SphericalDirection(std::acos(rng.NextDouble()), 6.283 * rng.NextDouble());
        Vec3 b = SphericalDirection(std::acos(rng.NextDouble()), 6.283 * rng.NextDouble());
        double p1, p2;
        for (auto* model : {m.get(), simple.get(), lambert.get()}) {
            Col3 ab = model->ComputeBSDF(a, b, b, p1), ba = model->ComputeBSDF(b, a, a, p2);
            ASSERT_NEAR(ab.r, ba.r, 1e-12);
            ASSERT_EQ(ab.r, ab.g);
            ASSERT_EQ(ab.r, ab.b);
        }
    }
    // A retro-reflective pair is brighter than a forward one (the point of the model).
    double pdf;
    Vec3 wo = SphericalDirection(1.2, 0.0);
    double back = m->ComputeBSDF(wo, SphericalDirection(1.0, 0.0), wo, pdf).r;
    double forward = m->ComputeBSDF(wo, SphericalDirection(1.0, kPi), wo, pdf).r;
    EXPECT_GT(back, forward);
}

TEST(BsdfFrameTest, BuiltAndGivenFrames) {
    auto m = MakeModel("lambertbrdf");
    BsdfFrame f = m->ComputeBSDFFrame({0, 0, 1}, {}, {}, false);
    EXPECT_EQ(f, (BsdfFrame{{0, 0, 1}, {1, 0, 0}, {0, -1, 0}}));
    BsdfFrame given = m->ComputeBSDFFrame({0, 0, 1}, {0, 1, 0}, {-1, 0, 0}, true);
    EXPECT_EQ(given, (BsdfFrame{{0, 0, 1}, {0, 1, 0}, {-1, 0, 0}}));
    // Short tangents are not trusted.
    EXPECT_EQ(m->ComputeBSDFFrame({0, 0, 1}, {0, 0.9, 0}, {-1, 0, 0}, true), f);
    Vec3 n = Normalize(Vec3{0.8, 0.1, -0.3});
    BsdfFrame b = m->ComputeBSDFFrame(n, {}, {}, false);
    EXPECT_NEAR(Dot(b.tangentU, n), 0.0, 1e-15);
    EXPECT_NEAR(Dot(b.tangentV, n), 0.0, 1e-15);
    EXPECT_NEAR(Length(b.tangentU), 1.0, 1e-15);
    EXPECT_NEAR(Dot(b.tangentU, b.tangentV), 0.0, 1e-15);
    BsdfFrame zero = m->ComputeBSDFFrame({0, 0, 0}, {}, {}, false);
    EXPECT_EQ(zero.tangentU, (Vec3{0, 0, 0}));
}

}  // namespace
}  // namespace kelvo
