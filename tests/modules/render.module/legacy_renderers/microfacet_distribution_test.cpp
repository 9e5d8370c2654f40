#include "implementation/legacy_renderers/microfacet_distribution.h"

#include <gtest/gtest.h>

#include <cstring>

#include "bsdf_test_util.h"
#include "host.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

Vec3 HalfVector(double c, double phi = 0.3) {
    double s = std::sqrt(std::max(0.0, 1.0 - c * c));
    return {s * std::cos(phi), s * std::sin(phi), c};
}

TEST(DistributionCachesTest, BlockLayoutMarkerAndKinds) {
    auto caches = MakeCaches();
    ASSERT_TRUE(caches);
    float* first = caches->GetCache(DISTRIBUTIONKIND_BECKMANN);
    ASSERT_NE(first, nullptr);
    for (int32_t kind = 0; kind < 4; ++kind) {
        float* t = caches->GetCache(kind);
        ASSERT_EQ(reinterpret_cast<char*>(t) - reinterpret_cast<char*>(first), kind * 4812000);
        for (size_t i = 0; i < kSamplerCacheFloats; ++i)
            ASSERT_EQ(t[i], -1.0f) << "kind " << kind << " entry " << i;
    }
    for (int32_t kind : {4, 5, -1, 1000, INT32_MIN})
        EXPECT_EQ(caches->GetCache(kind), nullptr) << kind;

    // A new Init clears what readers filled; Free leaves no table behind.
    first[12345] = 0.5f;
    caches->Init();
    EXPECT_EQ(first[12345], -1.0f);
    caches->Free();
    EXPECT_EQ(caches->GetCache(0), nullptr);
    caches->Free();
}

TEST(DistributionCachesTest, AllocationGoesThroughTheFrameworkAndCanFail) {
    auto made = CreateComponent<MicrofacetDistributionCachesInterface>();
    ASSERT_TRUE(made.Ok());
    int64_t before = host::LiveAllocations();
    host::FailNthAllocation(1);
    Result<void> failed = (*made)->Alloc();
    ASSERT_FALSE(failed.Ok());
    EXPECT_EQ(failed.GetError().Message(), "Out of memory.");
    EXPECT_EQ((*made)->GetCache(0), nullptr);
    ASSERT_TRUE((*made)->Alloc().Ok());
    EXPECT_EQ(host::LiveAllocations(), before + 1);
    (*made)->Free();
    EXPECT_EQ(host::LiveAllocations(), before);
}

template <typename T>
class IsotropicUpdateTest : public ::testing::Test {};
using IsotropicKinds =
    ::testing::Types<BeckmannDistribution, GGXDistribution, WardDistribution, PhongDistribution>;
TYPED_TEST_SUITE(IsotropicUpdateTest, IsotropicKinds);

TYPED_TEST(IsotropicUpdateTest, RoughnessLimitsAndEqualUpdates) {
    constexpr bool phong = !TypeParam::kTabulated;
    for (double r : {0.0, -0.5}) {
        auto d = Updated<TypeParam>(Record(r));
        EXPECT_EQ(d._roughness, r);
        EXPECT_DOUBLE_EQ(d._cubedRoughness, 1e-9);
        if (phong) {
            EXPECT_EQ(d._alpha, 100000.0);  // the upper clamp
            EXPECT_EQ(d._dOffset, -1);
        } else {
            EXPECT_NEAR(d._alpha, std::sqrt(1e-9 / (2.0 - 1e-9)), 1e-15);
            EXPECT_EQ(d._dOffset, 0);
            EXPECT_EQ(d._sOffset, 0);
        }
    }
    auto one = Updated<TypeParam>(Record(1.0));
    EXPECT_EQ(one._alpha, phong ? 1e-6 : 1.0);
    if (!phong) {
        EXPECT_EQ(one._dOffset, 800000);
        EXPECT_EQ(one._sOffset, 400000);
    }

    // An update with the same clamped cube stops early, but the table and the raw
    // roughness are always taken.
    auto caches = MakeCaches();
    TypeParam d;
    ASSERT_TRUE(d.Update(Record(0.3)).Ok());
    double lobe = d._lobeCosine;
    int64_t offset = d._dOffset;
    d._alpha = 42.0;
    ASSERT_TRUE(d.Update(Record(0.3, caches.get())).Ok());
    EXPECT_EQ(d._alpha, 42.0);
    EXPECT_EQ(d._lobeCosine, lobe);
    EXPECT_EQ(d._dOffset, offset);
    EXPECT_EQ(d._table == nullptr, phong);
    ASSERT_TRUE(d.Update(Record(0.30001)).Ok());
    EXPECT_NE(d._alpha, 42.0);
    EXPECT_EQ(d._table, nullptr);
}

// Lobe cosines and densities of each kind at roughness 0.5.
TEST(DistributionTest, ClosedFormsAtKnownPoints) {
    auto b = Updated<BeckmannDistribution>(Record(0.5));
    auto g = Updated<GGXDistribution>(Record(0.5));
    auto w = Updated<WardDistribution>(Record(0.5));
    auto ph = Updated<PhongDistribution>(Record(0.5));
    double a2 = 2.0 / (4.0 * 0.875 / 0.125 + 2.0);
    EXPECT_NEAR(b._lobeCosine, 1.0 / std::sqrt(a2 * std::log(2.0) + 1.0), 1e-15);
    EXPECT_NEAR(g._lobeCosine, 1.0 / std::sqrt(a2 + 1.0), 1e-15);
    EXPECT_NEAR(w._lobeCosine, 1.0 / std::sqrt(1.0 - a2 * std::log(2.0)), 1e-15);
    EXPECT_GT(w._lobeCosine, 1.0);  // the legacy sign, kept
    EXPECT_NEAR(ph._lobeCosine, std::pow(0.5, 1.0 / 29.0), 1e-15);

    a2 = b._alphaSquared;
    double c = 0.8, t2 = (1 - c * c) / (c * c), p;
    EXPECT_NEAR(b.D(HalfVector(c), false, p), std::exp(-t2 / a2) / (kPi * a2 * std::pow(c, 4)),
                1e-12);
    EXPECT_NEAR(w.D(HalfVector(c), false, p), std::exp(-t2 / a2) / (kPi * a2 * std::pow(c, 3)),
                1e-12);
    EXPECT_NEAR(g.D(HalfVector(c), false, p),
                std::pow(std::sqrt(a2) / (c * c * (t2 + a2)), 2) / kPi, 1e-12);
    EXPECT_NEAR(ph.D(HalfVector(c), false, p), 30.0 * std::pow(c, 28.0) / (2 * kPi), 1e-12);
    EXPECT_NEAR(p, 29.0 * std::pow(c, 28.0) / (2 * kPi), 1e-12);

    DataDictionary d = Record(0.5);
    SetAll(d, bsdfdata::kAnisotropy, 0.5, bsdfdata::kRotation, 0.25);
    auto an = Updated<AnisotropicDistribution>(d);
    double nv = 4.0 * (1.0 - 0.015625) / 0.015625;
    EXPECT_DOUBLE_EQ(an._exponentU, 28.0);
    EXPECT_DOUBLE_EQ(an._exponentV, nv);
    EXPECT_TRUE(an._isAnisotropic);
    EXPECT_DOUBLE_EQ(an._lobeCosine, std::pow(0.5, 1.0 / (nv + 1.0)));
    EXPECT_DOUBLE_EQ(an._rotationSin, std::sin(0.25));
    an._exponentU = 7.0;
    ASSERT_TRUE(an.Update(d).Ok());
    EXPECT_EQ(an._exponentU, 7.0);  // unchanged inputs stop early
}

// The table must agree with the closed formula up to the error of linear interpolation
// between its cells (estimated from the second derivative) and float rounding.
template <typename Dist>
void CheckTableAgainstFormula(MicrofacetDistributionCachesInterface& caches) {
    Rng rng(11);
    for (double r = 0.02; r <= 1.0; r += 0.07) {
        caches.Init();  // each roughness fills its own cells
        auto tab = Updated<Dist>(Record(r, &caches));
        auto exact = Updated<Dist>(Record(r));
        for (int n = 0; n < 3000; ++n) {
            double c = n % 2 ? 0.9 + 0.099 * rng.NextDouble() : 0.9 * rng.NextDouble();
            Vec3 h = HalfVector(c, 6.0 * rng.NextDouble());
            double pt, pe;
            double dt = tab.D(h, true, pt), de = exact.D(h, true, pe);
            EXPECT_EQ(dt, pt);
            double step = c >= 0.9 ? 1e-4 : 1e-3;
            double lo =
                c >= 0.9 ? 0.9 + step * std::floor((c - 0.9) / step) : step * std::floor(c / step);
            double curvature = 0.0, peak = 0.0, unused;
            for (int k = 0; k <= 4; ++k) {
                double x = std::max(lo + step * k / 4.0, 2e-16 + step / 8);
                double e = step / 8;
                double d2 = (exact.ExactD(x + e, unused) - 2.0 * exact.ExactD(x, unused) +
                             exact.ExactD(std::max(x - e, 1e-16), unused)) /
                            (e * e);
                curvature = std::max(curvature, std::abs(d2));
                peak = std::max(peak, exact.ExactD(x, unused));
            }
            // The table reproduces its cells exactly (in float) ...
            DensityCells cells = FindDensityCells(c);
            float vi = float(exact.ExactD(CellCosine(cells.i), unused));
            float vj = float(exact.ExactD(CellCosine(cells.j), unused));
            ASSERT_NEAR(dt, Lerp(vi, vj, cells.t), 1e-6 * peak + 1e-30);
            // ... and they follow the formula, except in the first coarse cell, whose c = 0
            // entry is 0 by the c < 1e-16 rule.
            if (c < 0.001) continue;
            double bound = 1.5 * curvature * step * step / 8.0 + 2e-6 * peak + 1e-30;
            ASSERT_NEAR(dt, de, bound) << "roughness " << r << " c " << c;
        }
    }
}

TEST(DistributionTableTest, TableAgreesWithTheFormula) {
    auto caches = MakeCaches();
    CheckTableAgainstFormula<BeckmannDistribution>(*caches);
    CheckTableAgainstFormula<GGXDistribution>(*caches);
    CheckTableAgainstFormula<WardDistribution>(*caches);
}

TEST(DistributionTableTest, CellEdgesAndTheTipOfTheLobe) {
    auto caches = MakeCaches();
    float* table = caches->GetCache(DISTRIBUTIONKIND_BECKMANN);
    BeckmannDistribution d;
    ASSERT_TRUE(d.Update(Record(0.5, caches.get())).Ok());
    ASSERT_EQ(d._dOffset, 200 * 2000);
    const int64_t base = d._dOffset;
    double p, unused;

    // c = 0.9 is the first fine cell; 0.8999 the coarse cells 899 and 900.
    d.D(HalfVector(0.9), true, p);
    EXPECT_EQ(table[base + 0], float(d.ExactD(0.9, unused)));
    EXPECT_EQ(table[base + 1], float(d.ExactD(0.9001, unused)));
    EXPECT_EQ(table[base + 2], -1.0f);
    d.D(HalfVector(0.8999), true, p);
    EXPECT_EQ(table[base + 1000 + 899], float(d.ExactD(0.899, unused)));
    EXPECT_EQ(table[base + 1000 + 900], float(d.ExactD(0.9, unused)));
    EXPECT_EQ(table[base + 1000 + 898], -1.0f);

    // From 0.999 on the formula is used and the table is not touched.
    std::vector<float> before(table + base, table + base + 2000);
    for (double c : {0.999, 0.9995, 1.0}) {
        double dt = d.D(HalfVector(c), true, p);
        EXPECT_EQ(dt, d.ExactD(c, unused)) << c;
    }
    EXPECT_EQ(std::memcmp(before.data(), table + base, 2000 * sizeof(float)), 0);
    EXPECT_NE(d.D(HalfVector(0.99899), true, p), d.ExactD(0.99899, unused));
    // The last cosine below the tip still interpolates between fine cells 989 and 990.
    d.D(HalfVector(std::nextafter(0.999, 0.0)), true, p);
    EXPECT_EQ(table[base + 989], float(d.ExactD(CellCosine(989), unused)));
    EXPECT_EQ(table[base + 990], float(d.ExactD(CellCosine(990), unused)));

    // Without asking for the table, or below 1e-16, the formula (or 0) answers.
    EXPECT_EQ(d.D(HalfVector(0.95), false, p), d.ExactD(0.95, unused));
    EXPECT_EQ(d.D(HalfVector(1e-17), true, p), 0.0);
    EXPECT_EQ(p, 0.0);
    EXPECT_EQ(d.D(Vec3{0, 0, -0.5}, true, p), 0.0);
    EXPECT_EQ(d.D(Vec3{0, 0, std::nan("")}, true, p), 0.0);

    // An entry filled by another material of the same level is used as it is.
    table[base + 1000 + 500] = 123.0f;
    table[base + 1000 + 501] = 123.0f;
    EXPECT_FLOAT_EQ(float(d.D(HalfVector(0.5005), true, p)), 123.0f);
}

TEST(DistributionTest, ShadowingSignTestsAndCutOffs) {
    auto b = Updated<BeckmannDistribution>(Record(0.5));
    auto g = Updated<GGXDistribution>(Record(0.5));
    auto p = Updated<PhongDistribution>(Record(0.5));
    auto w = Updated<WardDistribution>(Record(0.5));
    auto a = Updated<AnisotropicDistribution>(Record(0.5));
    Vec3 h{0, 0, 1}, up = Normalize(Vec3{0.6, 0, 0.8}), down{0.6, 0, -0.8}, flat{1, 0, 0};
    for (const Vec3& v : {down, flat}) {
        EXPECT_EQ(b.G(up, v, h), 0.0);
        EXPECT_EQ(g.G(v, up, h), 0.0);
        EXPECT_EQ(p.G(up, v, h), 0.0);
    }
    EXPECT_EQ(b.G(up, up, -h), 0.0);
    // The V-cavity term has no sign test.
    EXPECT_GT(w.G(up, down, h), 0.0);
    EXPECT_GT(a.G(down, down, h), 0.0);
    EXPECT_EQ(w.G(flat, up, Vec3{0, 1, 0}), 1.0);  // first.h exactly 0

    // Along the normal every term is 1; Beckmann's rational form below s = 1.6.
    EXPECT_EQ(b.G(h, h, h), 1.0);
    EXPECT_EQ(g.G(h, h, h), 1.0);
    ASSERT_TRUE(b.Update(Record(1.0)).Ok());
    double tanT = 0.75, s = 1.0 / (b._alpha * tanT);
    ASSERT_LT(s, 1.6);
    double g1 = (3.535 * s + 2.181 * s * s) / (1 + 2.276 * s + 2.577 * s * s);
    EXPECT_NEAR(b.G(up, up, h), g1 * g1, 1e-15);
    double k = g._alpha * tanT, gg = 2.0 / (1.0 + std::sqrt(1.0 + k * k));
    EXPECT_NEAR(g.G(up, h, h), gg, 1e-15);
    EXPECT_NEAR(w.G(up, h, Normalize(up + h)),
                std::min(1.0, 2 * Normalize(up + h).z * 0.8 / Dot(up, Normalize(up + h))), 1e-15);
}

TEST(DistributionTest, SamplingClampsUAndUsesTheSamplingBlock) {
    auto caches = MakeCaches();
    auto tab = Updated<BeckmannDistribution>(Record(0.6, caches.get()));
    auto exact = Updated<BeckmannDistribution>(Record(0.6));
    auto ggx = Updated<GGXDistribution>(Record(0.6));
    auto ward = Updated<WardDistribution>(Record(0.6));
    EXPECT_EQ(exact.SampleCos(1.0), exact.SampleCos(0.99999));
    EXPECT_GT(exact.SampleCos(1.0), 0.0);
    EXPECT_EQ(ggx.SampleCos(1.0), ggx.SampleCos(0.99999));
    EXPECT_EQ(ward.SampleCos(1.0), ward.SampleCos(0.99999));
    EXPECT_NEAR(ward.SampleCos(0.3), exact.SampleCos(0.3), 1e-15);  // same value, other order

    SampleRecord rec{};
    rec[SAMPLERECORD_AZIMUTHCOS] = 0.6f;
    rec[SAMPLERECORD_AZIMUTHSIN] = 0.8f;
    rec[SAMPLERECORD_U2] = 1.0f;
    double d, pdf;
    Vec3 h = exact.Sample(rec.data(), d, pdf);
    EXPECT_TRUE(std::isfinite(h.z));
    EXPECT_GT(h.x, h.y);  // the azimuth's sine goes to x, its cosine to y
    EXPECT_EQ(d, pdf);

    float* table = caches->GetCache(DISTRIBUTIONKIND_BECKMANN);
    const int64_t base = kDistributionSamplingStart + tab._sOffset;
    rec[SAMPLERECORD_U2] = 0.2505f;
    h = tab.Sample(rec.data(), d, pdf);
    EXPECT_EQ(table[base + 250], float(exact.SampleCos(0.25)));
    EXPECT_EQ(table[base + 251], float(exact.SampleCos(0.251)));
    EXPECT_NEAR(h.z, exact.SampleCos(0.2505), 1e-5);
    double dExact;
    EXPECT_NEAR(d, tab.D(h, true, dExact), 0.0);
    EXPECT_EQ(d, pdf);
}

}  // namespace
}  // namespace kelvo::legacy
