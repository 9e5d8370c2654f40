// Shared helpers of the legacy BSDF tests: sample records from a fixed-seed generator,
// a fresh set of distribution tables, and the chi-square goodness-of-fit test.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>
#include <numeric>
#include <optional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/registry.h"

namespace kelvo::testing_bsdf {

inline constexpr double kPi = 3.14159265358979323846;

// Uniform floats in [0, 1) that never round up to 1.
class Rng {
public:
    explicit Rng(uint64_t seed) : _engine(seed) {}
    float Next() { return float(_engine() >> 40) * 0x1p-24f; }
    double NextDouble() { return double(_engine() >> 11) * 0x1p-53; }

private:
    std::mt19937_64 _engine;
};

using SampleRecord = std::array<float, kSampleRecordFloats>;

// A record as the legacy sampler fills it: uniform numbers, a uniform azimuth, and a
// cosine-weighted polar angle.
inline SampleRecord MakeSample(Rng& rng) {
    SampleRecord r{};
    r[0] = rng.Next();
    r[SAMPLERECORD_U1] = rng.Next();
    r[SAMPLERECORD_U2] = rng.Next();
    double phi = 2.0 * kPi * rng.NextDouble();
    r[SAMPLERECORD_AZIMUTHCOS] = float(std::cos(phi));
    r[SAMPLERECORD_AZIMUTHSIN] = float(std::sin(phi));
    double u = rng.NextDouble();
    r[SAMPLERECORD_POLARCOS] = float(std::sqrt(u));
    r[SAMPLERECORD_POLARSIN] = float(std::sqrt(1.0 - u));
    return r;
}

inline Vec3 SphericalDirection(double theta, double phi) {
    return {std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi), std::cos(theta)};
}

// A caches component with its block allocated and initialised.
inline StrongRef<MicrofacetDistributionCachesInterface> MakeCaches() {
    auto made = CreateComponent<MicrofacetDistributionCachesInterface>();
    EXPECT_TRUE(made.Ok());
    if (!made) return nullptr;
    EXPECT_TRUE((*made)->Alloc().Ok());
    (*made)->Init();
    return *made;
}

inline StrongRef<BSDFLegacyInterface> MakeModel(const std::string& suffix) {
    auto id = Id::FromText("net.kelvo.render.bsdflegacyclass." + suffix);
    EXPECT_TRUE(id.Ok());
    auto made = CreateClass<BSDFLegacyInterface>(*id);
    EXPECT_TRUE(made.Ok()) << suffix;
    return made ? *made : nullptr;
}

inline StrongRef<BSDFLegacyInterface> MakeModel(const std::string& suffix,
                                                const DataDictionary& d) {
    auto m = MakeModel(suffix);
    EXPECT_TRUE(m && m->Init(d).Ok()) << suffix;
    return m;
}

// Stores (key, value, key, value, ...) pairs.
inline void SetAll(DataDictionary&) {}
template <typename V, typename... Rest>
void SetAll(DataDictionary& d, const Id& key, V&& value, Rest&&... rest) {
    EXPECT_TRUE(d.Set(key, Data(std::forward<V>(value))).Ok()) << key.Text();
    SetAll(d, std::forward<Rest>(rest)...);
}
template <typename... Args>
DataDictionary Dict(Args&&... args) {
    DataDictionary d;
    SetAll(d, std::forward<Args>(args)...);
    return d;
}

// A roughness record with the caches' tables (null tables without caches).
inline DataDictionary Record(double roughness,
                             const MicrofacetDistributionCachesInterface* caches = nullptr) {
    DataDictionary d = Dict(bsdfdata::kRoughness, roughness);
    EXPECT_TRUE(bsdfdata::SetDistributionTables(d, caches).Ok());
    return d;
}

template <typename Dist>
Dist Updated(const DataDictionary& record) {
    Dist d;
    EXPECT_TRUE(d.Update(record).Ok());
    return d;
}

// Midpoint rule for the integral of f(direction) over the upper hemisphere.
template <typename F>
double IntegrateHemisphere(F&& f, int thetaSteps, int phiSteps) {
    double sum = 0.0, dt = kPi / 2 / thetaSteps, dp = 2 * kPi / phiSteps;
    for (int i = 0; i < thetaSteps; ++i) {
        double t = (i + 0.5) * dt, st = std::sin(t);
        for (int j = 0; j < phiSteps; ++j) sum += f(SphericalDirection(t, (j + 0.5) * dp)) * st;
    }
    return sum * dt * dp;
}

// Regularised upper incomplete gamma function Q(a, x), by its series below a + 1 and by
// its continued fraction above.
inline double GammaQ(double a, double x) {
    if (x <= 0.0) return 1.0;
    double lnPrefix = a * std::log(x) - x - std::lgamma(a);
    if (x < a + 1.0) {
        double term = 1.0 / a, sum = term;
        for (int n = 1; n < 10000 && std::abs(term) > std::abs(sum) * 1e-15; ++n) {
            term *= x / (a + n);
            sum += term;
        }
        return std::max(0.0, 1.0 - sum * std::exp(lnPrefix));
    }
    // Modified Lentz for the continued fraction of Q.
    double b = x + 1.0 - a, c = 1e300, d = 1.0 / b, h = d;
    for (int i = 1; i < 10000; ++i) {
        double an = -i * (i - a);
        b += 2.0;
        d = an * d + b;
        if (std::abs(d) < 1e-300) d = 1e-300;
        c = b + an / c;
        if (std::abs(c) < 1e-300) c = 1e-300;
        d = 1.0 / d;
        double delta = d * c;
        h *= delta;
        if (std::abs(delta - 1.0) < 1e-15) break;
    }
    return std::exp(lnPrefix) * h;
}

struct ChiSquareSetup {
    int thetaCells = 50;
    int phiCells = 100;
    double thetaMax = kPi;  // kPi / 2 for half vectors
    int samples = 1000000;
    int integrationPoints = 32;  // per cell edge
    double significance = 0.01;
    int testCount = 1;  // for the Sidak correction over a suite
    uint64_t seed = 7;
};

// Draws `samples` directions (nullopt: sampling failed) and compares their histogram over
// (theta, phi) cells with the integral of `pdf` (a solid-angle density). Cells expecting
// fewer than 5 samples are pooled. Returns an empty string on success, else a report.
inline std::string ChiSquare(const ChiSquareSetup& s,
                             const std::function<std::optional<Vec3>(Rng&)>& sampler,
                             const std::function<double(const Vec3&)>& pdf) {
    const int cells = s.thetaCells * s.phiCells;
    std::vector<double> observed(cells, 0.0), expected(cells, 0.0);
    Rng rng(s.seed);
    auto cellOf = [&](const Vec3& w) -> int {
        double theta = std::acos(std::clamp(w.z, -1.0, 1.0));
        double phi = std::atan2(w.y, w.x);
        if (phi < 0.0) phi += 2.0 * kPi;
        int ti = std::min(int(theta / s.thetaMax * s.thetaCells), s.thetaCells - 1);
        int pi = std::min(int(phi / (2.0 * kPi) * s.phiCells), s.phiCells - 1);
        return ti < 0 || theta > s.thetaMax ? -1 : ti * s.phiCells + pi;
    };
    int outside = 0;
    for (int n = 0; n < s.samples; ++n) {
        std::optional<Vec3> w = sampler(rng);
        if (!w) continue;
        int c = cellOf(*w);
        if (c < 0) {
            ++outside;
            continue;
        }
        observed[c] += 1.0;
    }
    const double dTheta = s.thetaMax / s.thetaCells, dPhi = 2.0 * kPi / s.phiCells;
    const int m = s.integrationPoints;
    for (int ti = 0; ti < s.thetaCells; ++ti) {
        for (int pi = 0; pi < s.phiCells; ++pi) {
            double sum = 0.0;
            for (int a = 0; a < m; ++a) {
                double theta = (ti + (a + 0.5) / m) * dTheta;
                double st = std::sin(theta);
                for (int b = 0; b < m; ++b) {
                    double phi = (pi + (b + 0.5) / m) * dPhi;
                    sum += pdf(SphericalDirection(theta, phi)) * st;
                }
            }
            expected[ti * s.phiCells + pi] = sum * dTheta * dPhi / (m * m) * s.samples;
        }
    }
    // Pool the cells that expect too few samples, smallest first.
    std::vector<int> order(cells);
    std::iota(order.begin(), order.end(), 0);
    std::sort(order.begin(), order.end(), [&](int a, int b) { return expected[a] < expected[b]; });
    double chi2 = 0.0, pooledObs = 0.0, pooledExp = 0.0;
    int dof = -1;
    for (int i : order) {
        if (expected[i] == 0.0) {
            if (observed[i] > s.samples * 1e-5) {
                std::ostringstream os;
                os << "cell " << i / s.phiCells << "," << i % s.phiCells << " has " << observed[i]
                   << " samples where the density is 0";
                return os.str();
            }
            pooledObs += observed[i];
            continue;
        }
        if (expected[i] < 5.0 || (pooledExp > 0.0 && pooledExp < 5.0)) {
            pooledObs += observed[i];
            pooledExp += expected[i];
            continue;
        }
        double diff = observed[i] - expected[i];
        chi2 += diff * diff / expected[i];
        ++dof;
    }
    if (pooledExp > 0.0) {
        double diff = pooledObs - pooledExp;
        chi2 += diff * diff / pooledExp;
        ++dof;
    }
    if (dof < 1) return "too few cells to test";
    double pValue = GammaQ(dof / 2.0, chi2 / 2.0);
    double alpha = 1.0 - std::pow(1.0 - s.significance, 1.0 / s.testCount);
    if (pValue >= alpha && outside < s.samples / 100000 + 1) return {};
    std::ostringstream os;
    os << "chi2 " << chi2 << " with " << dof << " degrees of freedom, p " << pValue << " < "
       << alpha << ", " << outside << " samples outside the range";
    return os.str();
}

// Chi-square test of a model's SampleF against its PdfIndirect from the view `wo`. A diffuse
// model's samples must also each match PdfIndirect and ComputeBSDF, and as its PdfIndirect
// has no hemisphere test, only the upper hemisphere is expected.
inline std::string SampleFChiSquare(BSDFLegacyInterface& m, const Vec3& wo, int testCount,
                                    bool diffuse = false) {
    return ChiSquare(
        ChiSquareSetup{.testCount = testCount},
        [&](Rng& rng) -> std::optional<Vec3> {
            SampleRecord rec = MakeSample(rng);
            Vec3 wi;
            double pdf, evalPdf;
            Col3 v = m.SampleF(wo, rec.data(), wi, pdf);
            if (pdf == 0.0) return std::nullopt;
            if (diffuse) {
                EXPECT_NEAR(pdf, m.PdfIndirect(wo, wi), 1e-12);
                EXPECT_NEAR(v.r, m.ComputeBSDF(wo, wi, wi, evalPdf).r, 1e-12);
            }
            return wi;
        },
        [&](const Vec3& wi) { return diffuse && wi.z <= 0 ? 0.0 : m.PdfIndirect(wo, wi); });
}

}  // namespace kelvo::testing_bsdf
