// Checks of the woven-cloth model: pattern data, lookup, symmetries, building blocks,
// energy and sampling.
#include <gtest/gtest.h>

#include "bsdf_test_util.h"
#include "implementation/legacy_renderers/cloth_model.h"
#include "kelvo/legacy_renderers/clothweavepattern.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

const cloth::Scattering kScattering{0.01, 4.0, 0.5, 0.5};

WeavePattern WithoutVariation(const WeavePattern& p) {
    WeavePattern q = p;
    q.period = 0.0;
    q.fineness = 0.0;
    return q;
}

Vec3 CosineDirection(Rng& rng) {
    double r = std::sqrt(rng.NextDouble()), phi = 2 * kPi * rng.NextDouble();
    return {r * std::cos(phi), r * std::sin(phi), std::sqrt(std::max(0.0, 1 - r * r))};
}

TEST(ClothPatternTest, StandardDataIsConsistent) {
    ASSERT_EQ(StandardWeavePatterns().size(), 6u);
    for (const WeavePattern& p : StandardWeavePatterns()) {
        SCOPED_TRACE(std::string(p.name));
        const int n = int(p.segments.size());
        ASSERT_EQ(p.grid.size(), size_t(p.columns * p.rows));
        std::vector<int> used(n, 0);
        int warp = 0, weft = 0;
        for (uint8_t k : p.grid) {
            ASSERT_GE(k, 1);
            ASSERT_LE(k, n);
            ++used[k - 1];
            (p.segments[k - 1].weft ? weft : warp) += 1;
        }
        for (int k = 0; k < n; ++k) EXPECT_GT(used[k], 0) << "segment " << k + 1;
        EXPECT_DOUBLE_EQ(double(warp) / weft, p.areaWarp / p.areaWeft);
        EXPECT_TRUE(p.smoothing >= 0.0 && p.smoothing < 1.0);
        // Rectangles in cells (x from the left, y from the top), and their tile copies.
        auto contains = [&](const YarnSegment& s, double x, double y, double margin) {
            double hx = (s.weft ? s.length : s.width) / 2, hy = (s.weft ? s.width : s.length) / 2;
            for (int i = -1; i <= 1; ++i)
                for (int j = -1; j <= 1; ++j) {
                    double cx = s.cu * p.columns + i * p.columns,
                           cy = (1 - s.cv) * p.rows + j * p.rows;
                    if (std::abs(x - cx) < hx + margin && std::abs(y - cy) < hy + margin)
                        return true;
                }
            return false;
        };
        auto sameFloat = [&](const YarnSegment& a, const YarnSegment& b) {
            // The two halves of a wrapped float: one rectangle, a tile apart.
            return a.weft == b.weft && contains(a, b.cu * p.columns, (1 - b.cv) * p.rows, 0.02);
        };
        for (int r = 0; r < p.rows; ++r) {
            for (int c = 0; c < p.columns; ++c) {
                const YarnSegment& own = p.segments[p.grid[r * p.columns + c] - 1];
                EXPECT_TRUE(contains(own, c + 0.5, r + 0.5, 0.01)) << "cell " << r << "," << c;
                for (const YarnSegment& other : p.segments) {
                    if (&other == &own || sameFloat(own, other)) continue;
                    EXPECT_FALSE(contains(other, c + 0.5, r + 0.5, -0.01))
                        << "cell " << r << "," << c;
                }
            }
        }
        for (const YarnSegment& s : p.segments) {
            // The published twill weft (w 2, l 1, umax 36) is too short for its width: it
            // keeps its diffuse term only.
            if (p.name != "twill" || !s.weft) {
                EXPECT_LT(s.width * std::sin(s.umax * kPi / 180), s.length);
            }
            EXPECT_GT(s.kappa, -1.0);
        }
    }
}

TEST(ClothPatternTest, LookupRepeatsAndWrapsNegativeCoordinates) {
    Rng rng(9);
    for (const WeavePattern& p0 : StandardWeavePatterns()) {
        WeavePattern p = WithoutVariation(p0);
        const double ru = 3, rv = 2;
        for (int n = 0; n < 200; ++n) {
            // Away from cell edges, so shifted coordinates cannot round into the next cell.
            auto inCell = [&](double cells) {
                return (std::floor(rng.NextDouble() * cells) + 0.1 + 0.8 * rng.NextDouble()) /
                       cells;
            };
            double s = inCell(p.columns * ru), t = inCell(p.rows * rv);
            cloth::YarnPoint a = cloth::Locate(p, s, t, ru, rv);
            for (auto [i, j] : {std::pair{1, 0}, {0, 1}, {-2, -3}}) {
                cloth::YarnPoint b = cloth::Locate(p, s + i / ru, t + j / rv, ru, rv);
                ASSERT_EQ(a.segment, b.segment);
                ASSERT_NEAR(a.x, b.x, 1e-9);
                ASSERT_NEAR(a.y, b.y, 1e-9);
            }
            ASSERT_LE(std::abs(a.v), kPi / 2 + 1e-9);
            ASSERT_LE(std::abs(a.u), a.yarn.umax + 1e-9);
        }
    }
    // The centre of a one-cell-wide warp maps to u = v = 0 (denim segment 5, cell 2 of row 3).
    const WeavePattern& denim = *FindWeavePattern("denim");
    cloth::YarnPoint c = cloth::Locate(denim, 0.8333, 0.4167, 1, 1);
    EXPECT_EQ(c.segment, 4);
    EXPECT_NEAR(c.u, 0.0, 1e-8);
    EXPECT_NEAR(c.v, 0.0, 1e-8);
    EXPECT_EQ(cloth::Locate(denim, 1e300, 0.5, 1, 1).segment >= -1, true);  // no crash
    EXPECT_EQ(cloth::Locate(denim, std::nan(""), 0.5, 1, 1).segment, -1);
}

TEST(ClothModelTest, SpecularSymmetries) {
    Rng rng(21);
    const cloth::Yarn yarns[] = {{-30 * kPi / 180, 12 * kPi / 180, 0, 1, 5},
                                 {0.0, 40 * kPi / 180, 2, 1, 9},
                                 {30 * kPi / 180, 30 * kPi / 180, -0.5, 2, 6}};
    auto mx = [](Vec3 w) { return Vec3{-w.x, w.y, w.z}; };
    auto my = [](Vec3 w) { return Vec3{w.x, -w.y, w.z}; };
    for (const cloth::Yarn& y : yarns) {
        cloth::Yarn flipped = y;
        flipped.psi = -y.psi;
        int mismatches = 0, nonzero = 0;
        for (int n = 0; n < 20000; ++n) {
            double x = (rng.NextDouble() - 0.5) * y.width, yy = (rng.NextDouble() - 0.5) * y.length;
            Vec3 wi = CosineDirection(rng), wo = CosineDirection(rng);
            double s = cloth::Specular(y, kScattering, x, yy, wi, wo);
            ASSERT_EQ(s, cloth::Specular(y, kScattering, x, yy, wo, wi));  // bitwise
            nonzero += s > 0.0;
            auto close = [&](double a) { return std::abs(a - s) <= 1e-9 * std::max(a, s); };
            mismatches += !close(cloth::Specular(flipped, kScattering, -x, yy, mx(wi), mx(wo)));
            mismatches += !close(cloth::Specular(flipped, kScattering, x, -yy, my(wi), my(wo)));
            mismatches += !close(cloth::Specular(y, kScattering, -x, -yy, mx(my(wi)), mx(my(wo))));
        }
        EXPECT_GT(nonzero, 500);
        EXPECT_LE(mismatches, 6);  // band-edge rounding only
    }
}

TEST(ClothModelTest, BuildingBlocks) {
    for (double beta : {0.0, 1.5, 4.0, 7.3, 50.0, 800.0}) {
        const int n = 200000;
        double sum = 0.0;
        for (int i = 0; i < n; ++i) {
            double x = -kPi + (i + 0.5) * 2 * kPi / n;
            sum += std::exp(beta * (std::cos(x) - 1.0));
        }
        EXPECT_NEAR(sum * 2 * kPi / n / (2 * kPi * cloth::ScaledBesselI0(beta)), 1.0, 1e-9) << beta;
    }
    EXPECT_NEAR(cloth::ScaledBesselI0(1.5) * std::exp(1.5), 1.64672319, 1e-8);
    EXPECT_NEAR(cloth::ScaledBesselI0(4.0) * std::exp(4.0), 11.3019220, 1e-6);
    EXPECT_NEAR(cloth::ScaledBesselI0(7.3) * std::exp(7.3), 222.658800, 1e-5);
    Vec3 a = Normalize(Vec3{0.3, 0.2, 0.9}), b = Normalize(Vec3{-0.5, 0.1, 0.4});
    EXPECT_NEAR(cloth::PhaseFunction(a, b, 0.02, 0.0), 0.02 + 1 / (2 * kPi), 1e-15);

    const double umax = 0.5, w = 1.0, l = 4.0, c = l / 2 - w / 2 * std::sin(umax);
    EXPECT_NEAR(cloth::SpineRadius(0.2, umax, 0.0, w, l), c / std::sin(umax), 1e-12);
    for (double u : {0.0, 0.3, 0.49}) {
        double r0 = cloth::SpineRadius(u, umax, 0.0, w, l);
        EXPECT_NEAR(cloth::SpineRadius(u, umax, 1e-10, w, l), r0, 1e-8 * r0);
        EXPECT_NEAR(cloth::SpineRadius(u, umax, -1e-10, w, l), r0, 1e-8 * r0);
        double kp = -1.0 / (1.0 + 1.0 / std::tan(umax));  // rhat = 0: the parabola
        double rp = cloth::SpineRadius(u, umax, kp, w, l);
        EXPECT_NEAR(cloth::SpineRadius(u, umax, kp + 1e-9, w, l), rp, 1e-6 * rp);
        EXPECT_NEAR(cloth::SpineRadius(u, umax, kp - 1e-9, w, l), rp, 1e-6 * rp);
    }
    // Invalid segments reflect nothing: too wide for their length, or kappa <= -1.
    Vec3 wi{0, 0, 1};
    EXPECT_EQ(cloth::Specular({0.5, 1.2, 0, 5, 1}, kScattering, 0, 0, wi, wi), 0.0);
    EXPECT_EQ(cloth::Specular({0.5, 0.2, -1.0, 1, 4}, kScattering, 0, 0, wi, wi), 0.0);
    EXPECT_EQ(cloth::Specular({0.5, 0.2, 0, 1, 4}, kScattering, 0, 0, wi, Vec3{1, 0, 0}), 0.0);
    WeavePattern broken = WithoutVariation(*FindWeavePattern("polyester"));
    const YarnSegment wide[] = {{false, 0, 80, 0, 4, 1, 0.5, 0.5}};
    const uint8_t one[] = {1};
    broken.columns = broken.rows = 1;
    broken.segments = wide;
    broken.grid = one;
    EXPECT_EQ(cloth::Normalisation(broken, 1, 1, 1000), 0.0);
}

// As umax shrinks, the staple average over the segment and both directions converges,
// while a filament reflects only where |h.y / h.z| < tan(umax).
TEST(ClothModelTest, FlatYarnLimits) {
    auto average = [](const cloth::Yarn& y) {
        Rng rng(5);
        double sum = 0.0;
        const int n = 100000;
        for (int i = 0; i < n; ++i) {
            double x = (rng.NextDouble() - 0.5) * y.width, yy = (rng.NextDouble() - 0.5) * y.length;
            Vec3 wi = CosineDirection(rng), wo = CosineDirection(rng);
            sum += cloth::Specular(y, kScattering, x, yy, wi, wo);
        }
        return sum / n;
    };
    const double degree = kPi / 180;
    double a = average({-30 * degree, 0.5 * degree, 0, 1, 5});
    double b = average({-30 * degree, 0.1 * degree, 0, 1, 5});
    ASSERT_GT(a, 0.0);
    EXPECT_NEAR(b / a, 1.0, 0.01);

    const cloth::Yarn filament{0.0, 2 * degree, 0, 1, 5};
    Rng rng(6);
    for (int i = 0; i < 20000; ++i) {
        Vec3 wi = CosineDirection(rng), wo = CosineDirection(rng);
        Vec3 h = Normalize(wi + wo);
        double s = cloth::Specular(filament, kScattering, (rng.NextDouble() - 0.5),
                                   (rng.NextDouble() - 0.5) * 5, wi, wo);
        ASSERT_TRUE(s == 0.0 || std::abs(h.y / h.z) < std::tan(2 * degree)) << s;
    }
}

// The double-cosine average of value is kd + ks (3 standard errors, another seed than
// the normaliser's); with ks = 0 every value is kd.
TEST(IrawanTest, EnergyAndSampling) {
    auto m = MakeModel("irawanbrdf");
    for (const char* name : {"denim", "charmeuse"}) {
        DataDictionary d = Dict(bsdfdata::kClothPattern, name, bsdfdata::kClothRepeat, Vec2{2, 3},
                                bsdfdata::kWarpDiffuse, 0.25, bsdfdata::kWeftDiffuse, 0.25,
                                bsdfdata::kWarpSpecular, 0.5, bsdfdata::kWeftSpecular, 0.5);
        ASSERT_TRUE(m->Init(d).Ok());
        Rng rng(77);
        const int n = 100000;
        double sum = 0.0, sum2 = 0.0;
        for (int i = 0; i < n; ++i) {
            ASSERT_TRUE(
                d.Set(bsdfdata::kTextureCoordinate, Vec2{rng.NextDouble(), rng.NextDouble()}).Ok());
            ASSERT_TRUE(m->Update(d).Ok());
            Vec3 wi = CosineDirection(rng), wo = CosineDirection(rng);
            double p;
            double v = m->ComputeBSDF(wo, wi, wi, p).r;
            sum += v;
            sum2 += v * v;
        }
        double mean = sum / n, se = std::sqrt((sum2 / n - mean * mean) / n);
        // The normaliser's own estimate (10^5 samples, with the intensity variation) moves
        // the specular scale by a few percent; that error adds to ours.
        EXPECT_NEAR(mean, 0.75, 3 * se + 0.05 * 0.5) << name;
    }
    DataDictionary d = Dict(bsdfdata::kClothPattern, "twill", bsdfdata::kWarpDiffuse, 0.4,
                            bsdfdata::kWeftDiffuse, 0.4);
    ASSERT_TRUE(m->Init(d).Ok());
    Rng rng(3);
    for (int i = 0; i < 2000; ++i) {
        SampleRecord rec = MakeSample(rng);
        Vec3 wo = CosineDirection(rng), wi;
        if (i % 2) wo.z = -wo.z;  // seen from below: mirrored
        double p, pc;
        Col3 v = m->SampleF(wo, rec.data(), wi, p);
        if (p == 0.0) continue;
        ASSERT_EQ(v.r, 0.4);
        ASSERT_GT(wo.z * wi.z, 0.0);
        ASSERT_EQ(m->ComputeBSDF(wo, wi, wi, pc), v);
        ASSERT_EQ(pc, p);
        ASSERT_EQ(m->PdfIndirect(wo, wi), p);
    }
    double p;
    EXPECT_EQ(m->ComputeBSDF(Vec3{0, 0, 1}, Vec3{0, 0, -1}, Vec3{}, p), (Col3{0, 0, 0}));
    SetAll(d, bsdfdata::kClothPattern, "velvet");
    Result<void> bad = m->Update(d);
    ASSERT_FALSE(bad.Ok());
    EXPECT_EQ(bad.GetError().Message(), "Illegal argument: Unknown weave pattern 'velvet'.");
}

TEST(ClothWeavePatternTest, ComponentLocatesYarns) {
    auto made = CreateComponent<ClothWeavePatternInterface>();
    ASSERT_TRUE(made.Ok());
    auto& pattern = **made;
    EXPECT_EQ(pattern.PatternCount(), 6u);
    EXPECT_EQ(pattern.PatternName(0), "denim");
    EXPECT_EQ(pattern.Locate({0.5, 0.5}).type, YARNTYPE_NONE);
    ASSERT_TRUE(pattern.SetPattern("polyester", {1, 1}).Ok());
    EXPECT_EQ(pattern.Locate({0.25, 0.25}).type, YARNTYPE_WARP);  // bottom-left cell: segment 1
    EXPECT_EQ(pattern.Locate({0.25, 0.75}).type, YARNTYPE_WEFT);  // top-left cell: segment 3
    EXPECT_NEAR(pattern.Normalisation(), 1.218e-3, 0.1e-3);
}

}  // namespace
}  // namespace kelvo::legacy
