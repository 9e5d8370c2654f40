#include <gtest/gtest.h>

#include "bsdf_test_util.h"
#include "host.h"
#include "implementation/legacy_renderers/bsdf_selftest.h"
#include "implementation/legacy_renderers/microfacet_distribution.h"
#include "kelvo/legacy_renderers/legacystate.h"
#include "kelvo/legacy_renderers/microfacetdistribution.h"
#include "kelvo/selftest.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

DataDictionary Glossy(double roughness, double iorIn = 1.5) {
    DataDictionary d = Record(roughness);
    SetAll(d, bsdfdata::kIorIn, iorIn, bsdfdata::kIorOut, 1.0);
    return d;
}

const char* const kKinds[] = {"beckmann", "ggx", "phong", "ward", "anisotropic"};

TEST(LegacyRegistryTest, HoldsExactlyTheFifteenModels) {
    auto members = RegistryMembers(kBsdfLegacyClassesRegistry);
    EXPECT_EQ(members.size(), 15u);
    for (const EntryRecord* e : members) {
        auto m = CreateClass<BSDFLegacyInterface>(e->GetId());
        EXPECT_TRUE(m.Ok()) << e->GetId().Text();
    }
    EXPECT_EQ(RegistryMembers(kUnitTestClassesRegistry).size(), 1u);
    EXPECT_EQ(RegistryMembers(kSpeedTestClassesRegistry).size(), 1u);
}

// Reset returns a model to its fresh state, whose distribution has no width yet: every
// answer must still be a number (it was 0 / 0 for Beckmann, GGX and Ward).
TEST(LegacyRegistryTest, EveryModelAnswersNumbersAfterReset) {
    for (const EntryRecord* e : RegistryMembers(kBsdfLegacyClassesRegistry)) {
        auto m = *CreateClass<BSDFLegacyInterface>(e->GetId());
        ASSERT_TRUE(m->Init(Glossy(0.4)).Ok());
        m->Reset();
        Vec3 wo = Normalize(Vec3{0.3, 0.2, 0.9}), wi{0, 0, 1};
        SampleRecord rec{};
        rec[SAMPLERECORD_U1] = rec[SAMPLERECORD_U2] = 0.5f;
        rec[SAMPLERECORD_AZIMUTHCOS] = 1.0f;
        double p = 0, q = 0;
        Col3 v = m->ComputeBSDF(wo, wi, wi, p), s = m->SampleF(wo, rec.data(), wi, q);
        for (double x : {v.r, v.g, s.b, p, q, m->PdfIndirect(wo, Vec3{0, 0, 1}),
                         m->ComputeAngle(rec.data()), m->ComputeMIPAngle(0.5)})
            EXPECT_TRUE(std::isfinite(x)) << e->GetId().Text();
    }
}

TEST(MicrofacetBsdfTest, ZeroSumsAndWrongSidesGiveNothing) {
    for (const char* kind : kKinds) {
        auto brdf = MakeModel(std::string(kind) + "brdf", Glossy(0.4));
        auto btdf = MakeModel(std::string(kind) + "btdf", Glossy(0.4, 2.0));
        Vec3 wo = Normalize(Vec3{0.3, 0.2, 0.9});
        double p = -1;
        // wl = -wo: the half vector does not exist.
        EXPECT_EQ(brdf->ComputeBSDF(wo, wo, -wo, p), (Col3{0, 0, 0})) << kind;
        EXPECT_EQ(p, 0.0);
        // wo + eta wl = 0 with eta = 2 for wo above (exact in floating point).
        Vec3 wl = -wo / 2.0, wi{wo.x, wo.y, -wo.z};
        EXPECT_EQ(btdf->ComputeBSDF(wo, wi, wl, p), (Col3{0, 0, 0})) << kind;
        EXPECT_EQ(p, 0.0);
        // Reflection needs both above, transmission one on each side.
        EXPECT_EQ(brdf->ComputeBSDF(wo, wi, wi, p), (Col3{0, 0, 0}));
        EXPECT_EQ(btdf->ComputeBSDF(wo, wo, wo, p), (Col3{0, 0, 0}));
        // The transmission density is the reflection one: 0 for every transmitted pair.
        EXPECT_EQ(btdf->PdfIndirect(wo, wi), 0.0) << kind;
        EXPECT_GT(btdf->PdfIndirect(wo, Normalize(Vec3{-0.2, 0.1, 0.9})), 0.0) << kind;
        EXPECT_EQ(brdf->ComputeMIPAngle(2.0) <= 1.0, std::string(kind) != "ward");
        EXPECT_EQ(brdf->ComputeMIPAngle(0.01), 0.01);
    }
}

TEST(MicrofacetBsdfTest, TransmissionValueIsNegativeAndLacksTheSquaredDivisor) {
    auto btdf = MakeModel("ggxbtdf", Glossy(0.5));
    auto dist = Updated<GGXDistribution>(Glossy(0.5));
    Vec3 wo = Normalize(Vec3{0.2, 0.1, 0.9}), wi = Normalize(Vec3{-0.1, 0.05, -0.9});
    double p;
    Col3 v = btdf->ComputeBSDF(wo, wi, wi, p);
    ASSERT_LT(v.r, 0.0);
    double eta = 1.5;
    Vec3 h = Normalize(wo + eta * wi);
    if (h.z < 0) h = -h;
    double a = Dot(wo, h), b = Dot(wi, h), ph;
    double d = dist.D(h, true, ph);
    double factor = std::abs(eta * eta * b);  // no (a + eta b)^2 below it
    double expected =
        kPi * d * dist.G(wo, -wi, h) * factor * std::abs(a) / (eta * eta) / (wo.z * wi.z);
    EXPECT_NEAR(v.r, expected, 1e-12 * std::abs(expected));
    EXPECT_NEAR(p, ph * factor, 1e-12 * ph * factor);

    // Seen from below, Beckmann, GGX and Phong transmission vanish by the masking sign test.
    for (const char* kind : {"beckmann", "ggx", "phong"}) {
        auto m = MakeModel(std::string(kind) + "btdf", Glossy(0.5));
        Rng rng(4);
        for (int n = 0; n < 200; ++n) {
            Vec3 below =
                SphericalDirection(kPi / 2 + 1.4 * rng.NextDouble(), 6.28 * rng.NextDouble());
            Vec3 above = SphericalDirection(1.4 * rng.NextDouble(), 6.28 * rng.NextDouble());
            ASSERT_EQ(m->ComputeBSDF(below, above, above, p), (Col3{0, 0, 0})) << kind;
        }
    }
}

TEST(MicrofacetBsdfTest, SamplingBeyondTheCriticalAngleGivesNothing) {
    // Leaving the denser medium (wo below, iorIn 1.5): grazing wo cannot refract.
    auto btdf = MakeModel("beckmannbtdf", Glossy(0.05));
    Vec3 wo = Normalize(Vec3{0.95, 0.0, -0.2});
    // Entering it, the same view refracts.
    Vec3 above{wo.x, wo.y, -wo.z}, wi;
    Rng rng(5);
    int accepted = 0;
    for (int n = 0; n < 100; ++n) {
        SampleRecord rec = MakeSample(rng);
        double p = -1;
        EXPECT_EQ(btdf->SampleF(wo, rec.data(), wi, p), (Col3{0, 0, 0}));
        EXPECT_EQ(p, 0.0);
        btdf->SampleF(above, rec.data(), wi, p);
        accepted += p > 0.0;
    }
    EXPECT_GT(accepted, 50);
}

TEST(MicrofacetBsdfTest, AnisotropicLobeTurnsWithTheRotation) {
    DataDictionary d0 = Glossy(0.5), d1 = Glossy(0.5);
    SetAll(d0, bsdfdata::kAnisotropy, 0.6);
    SetAll(d1, bsdfdata::kAnisotropy, 0.6, bsdfdata::kRotation, kPi / 2);
    auto m0 = MakeModel("anisotropicbrdf", d0), m1 = MakeModel("anisotropicbrdf", d1);
    auto turn = [](const Vec3& w) { return Vec3{-w.y, w.x, w.z}; };  // by +90 degrees
    Vec3 wo = Normalize(Vec3{0.4, 0.1, 0.8}), wi = Normalize(Vec3{-0.3, 0.2, 0.85});
    double p0, p1;
    Col3 a = m0->ComputeBSDF(wo, wi, wi, p0), b = m1->ComputeBSDF(turn(wo), turn(wi), turn(wi), p1);
    EXPECT_NEAR(a.r, b.r, 1e-12);
    EXPECT_NEAR(p0, p1, 1e-12);
    // The u axis (the larger exponent's partner) lies along x without rotation.
    Vec3 alongU = Normalize(Vec3{0.3, 0, 1}), alongV = Normalize(Vec3{0, 0.3, 1});
    Vec3 n{0, 0, 1};
    EXPECT_LT(m0->ComputeBSDF(n, alongV, alongV, p0).r, m0->ComputeBSDF(n, alongU, alongU, p0).r);
}

TEST(BlurrySpecularTest, OffSwitchSidesAndTheLegacyFactors) {
    DataDictionary d = Dict(bsdfdata::kBlurryExponent, 0.0);
    auto m = MakeModel("blurryspecularbrdf", d);
    Vec3 wo = Normalize(Vec3{0.1, 0, 1}), wi = Normalize(Vec3{-0.1, 0, 1});
    double p = -1;
    EXPECT_EQ(m->ComputeBSDF(wo, wi, wi, p), (Col3{0, 0, 0}));
    EXPECT_EQ(p, 0.0);
    SetAll(d, bsdfdata::kBlurryExponent, 20.0);
    ASSERT_TRUE(m->Update(d).Ok());
    Col3 v = m->ComputeBSDF(wo, wi, wi, p);
    double c = Normalize(wo + wi).z;
    double w = std::min(1.0, 10.0 * wi.z * wo.z);
    EXPECT_NEAR(v.r, 100.0 * w * std::pow(c, 20.0) * kPi / wi.z, 1e-9);
    EXPECT_NEAR(p, 100.0 * w * std::pow(c, 20.0), 1e-9);
    // Both below the surface: refused although wo.z * wi.z > 0.
    EXPECT_EQ(m->ComputeBSDF(-wo, -wi, -wi, p), (Col3{0, 0, 0}));
    EXPECT_EQ(m->PdfIndirect(wo, -wi), 1.0);
    EXPECT_EQ(m->ComputeMIPAngle(1.0), std::pow(0.5, 20.0));
    // Curve mode: flat until the offset, then the curve.
    SetAll(d, bsdfdata::kCurveMode, true, bsdfdata::kCurveFactor, 1.0, bsdfdata::kCurvePower, 1.0,
           bsdfdata::kCurveExponent, 1.0, bsdfdata::kAngleScale, 1.0, bsdfdata::kAngleSlope, 2.0,
           bsdfdata::kAngleOffset, 0.5);
    ASSERT_TRUE(m->Update(d).Ok());
    EXPECT_NEAR(m->ComputeBSDF(wo, wi, wi, p).r, 100.0 * w * kPi / wi.z, 1e-9);
    // Sampling: a Phong half-vector lobe, its value without the factor pi.
    SampleRecord rec{};
    rec[SAMPLERECORD_U1] = 0.5f;
    rec[SAMPLERECORD_U2] = 0.25f;
    Vec3 s;
    Col3 sv = m->SampleF(Vec3{0, 0, 1}, rec.data(), s, p);
    double cosT = std::pow(0.5, 1.0 / 21.0), dd = 22.0 / (2 * kPi) * std::pow(cosT, 20.0);
    EXPECT_NEAR(p, dd / (4 * kPi * cosT), 1e-9);
    EXPECT_NEAR(sv.r, dd / (4.0 * s.z), 1e-9);  // G = 1 along the normal view
}

TEST(BlurrySimpleTest, TableAgreesAndIsNeverReadAboveTheCutOff) {
    auto caches = MakeCaches();
    float* table = caches->GetCache(DISTRIBUTIONKIND_GGX);
    DataDictionary d =
        Dict(bsdfdata::kBlurryExponent, 30.0, bsdfdata::kBlurrySamplingExponent, 0.05);
    auto closed = MakeModel("blurrysimplebrdf", d);
    ASSERT_TRUE(bsdfdata::SetTable(d, bsdfdata::kBlurryTable, table).Ok());
    SetAll(d, bsdfdata::kBlurryDensityRow, int64_t(2000 * 7), bsdfdata::kBlurrySamplingRow,
           int64_t(1000 * 7));
    auto tab = MakeModel("blurrysimplebrdf", d);
    Vec3 wo{0, 0, 1};
    for (double c = 0.05; c < 0.9995; c += 0.0013) {
        Vec3 wi{std::sqrt(1 - c * c), 0, c};
        double pt, pc;
        double vt = tab->ComputeBSDF(wo, wi, wi, pt).r, vc = closed->ComputeBSDF(wo, wi, wi, pc).r;
        ASSERT_NEAR(vt, vc, 2e-3 * vc + 1e-9) << c;
        EXPECT_NEAR(pt, pc, 2e-3 * pc + 1e-9);
    }
    // Poisoned fine cells change nothing above 0.999, and are read below it.
    for (int i = 0; i < 1000; ++i) table[2000 * 7 + i] = 1e6f;
    double p;
    Vec3 top{std::sqrt(1 - 0.9995 * 0.9995), 0, 0.9995},
        below{std::sqrt(1 - 0.995 * 0.995), 0, 0.995};
    EXPECT_EQ(tab->ComputeBSDF(wo, top, top, p), closed->ComputeBSDF(wo, top, top, p));
    EXPECT_GT(tab->ComputeBSDF(wo, below, below, p).r, 1e5);
    // The sampled angle, with and without table.
    SampleRecord rec{};
    rec[SAMPLERECORD_U2] = 0.3456f;
    EXPECT_NEAR(tab->ComputeAngle(rec.data()), closed->ComputeAngle(rec.data()), 1e-6);
    EXPECT_NEAR(closed->ComputeAngle(rec.data()), std::pow(1.0 - 0.3456, 0.05), 1e-7);
    EXPECT_EQ(closed->ComputeMIPAngle(0.99), std::min(std::pow(0.5, 0.05), 0.99));
    Vec3 wi{1, 1, 1};
    EXPECT_EQ(tab->SampleF(wo, rec.data(), wi, p), (Col3{0, 0, 0}));
    EXPECT_EQ(wi, (Vec3{0, 0, 0}));
    // Reset: n = 1, no table, s = 0.
    tab->Reset();
    EXPECT_NEAR(tab->PdfIndirect(wo, below), 2.0 / (2 * kPi) * 0.995 * 4.0 / kPi, 1e-12);
    EXPECT_EQ(tab->ComputeMIPAngle(0.3), 0.3);
}

TEST(BsdfSelfTestTest, FailsWhenATableIsWrongAndReportsStatistics) {
    auto caches = MakeCaches();
    std::string report;
    ASSERT_TRUE(RunBsdfSelfTest(*caches, false, report).Ok()) << report;
    EXPECT_EQ(report.find("mean relative difference"), std::string::npos);
    report.clear();
    caches->Init();
    ASSERT_TRUE(RunBsdfSelfTest(*caches, true, report).Ok());
    EXPECT_NE(report.find("mean relative difference"), std::string::npos);

    // A wrong value in the Ward table's fine cells of roughness 0.5 (level 200).
    caches->Init();
    float* ward = caches->GetCache(DISTRIBUTIONKIND_WARD);
    for (int i = 0; i < 990; ++i) ward[200 * 2000 + i] = 3.0f;
    report.clear();
    Result<void> r = RunBsdfSelfTest(*caches, false, report);
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message().rfind(
                  "BlurryTorrance BSDF with cache: Ward distribution differs from "
                  "BlurryTorrance BSDF without cache: Ward distribution",
                  0),
              0u)
        << r.GetError().Message();
    EXPECT_NE(report.find("Ward distribution: DIFFER"), std::string::npos);
}

TEST(BsdfSelfTestTest, HostRunnerRunsBothTests) {
    auto outcomes = host::RunSelfTests();
    ASSERT_EQ(outcomes.size(), 2u);
    EXPECT_EQ(outcomes[0].id, Id("net.kelvo.unittest.bsdftest"));
    EXPECT_TRUE(outcomes[0].passed) << outcomes[0].error;
    EXPECT_TRUE(outcomes[1].speed);
    EXPECT_NE(outcomes[1].report.find("ComputeBSDF"), std::string::npos);
}

// The state an object shows (LegacyStateInterface) depends on its last Init alone: Reset
// gives back the fresh state, and an earlier update leaves nothing behind that a later
// one skips (the skip test of the distributions, stale table pointers or offsets).
TEST(LegacyStateTest, ResetRestoresTheFreshStateAndUpdatesForgetTheirHistory) {
    using Fields = std::vector<std::pair<std::string, Data>>;
    auto state = [](const StrongRef<Object>& o) {
        Fields fields;
        auto s = Query<LegacyStateInterface>(o);
        EXPECT_TRUE(s);
        if (s) s->VisitState([&](std::string_view n, const Data& v) { fields.emplace_back(n, v); });
        return fields;
    };
    auto caches = MakeCaches();
    DataDictionary a = Glossy(0.4), b = Record(0.05, caches.get());
    SetAll(a, bsdfdata::kAnisotropy, 0.3, bsdfdata::kRotation, 0.2, bsdfdata::kOrenNayarSigma, 0.5,
           bsdfdata::kBlurryExponent, 20.0, bsdfdata::kWarpDiffuse, 0.1);
    SetAll(b, bsdfdata::kAnisotropy, -0.7, bsdfdata::kOrenNayarSigma, 2.0,
           bsdfdata::kBlurryExponent, 3.0, bsdfdata::kCurveMode, true, bsdfdata::kWarpDiffuse, 0.6);
    int withFields = 0;
    for (const EntryRecord* e : RegistryMembers(kBsdfLegacyClassesRegistry)) {
        auto m = *CreateClass<BSDFLegacyInterface>(e->GetId());
        const Fields fresh = state(m);
        withFields += !fresh.empty();
        ASSERT_TRUE(m->Init(a).Ok());
        const Fields once = state(m);
        m->Reset();
        EXPECT_EQ(state(m), fresh) << e->GetId().Text();
        ASSERT_TRUE(m->Init(b).Ok());
        ASSERT_TRUE(m->Init(a).Ok());
        EXPECT_EQ(state(m), once) << e->GetId().Text();
    }
    EXPECT_GE(withFields, 13);
    for (const char* kind : kKinds) {
        auto id =
            *Id::FromText(std::string("net.kelvo.render.microfacetdistributionclass.") + kind);
        auto fresh = *CreateClass<MicrofacetDistributionInterface>(id);
        auto d = *CreateClass<MicrofacetDistributionInterface>(id);
        const Fields before = state(fresh);
        EXPECT_FALSE(before.empty()) << kind;
        ASSERT_TRUE(fresh->Update(a).Ok());
        ASSERT_TRUE(d->Update(b).Ok());
        EXPECT_NE(state(d), before) << kind;
        ASSERT_TRUE(d->Update(a).Ok());
        EXPECT_EQ(state(d), state(fresh)) << kind;
    }
}

}  // namespace
}  // namespace kelvo::legacy
