#include "bsdf_selftest.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <vector>

#include "distribution_table.h"
#include "kelvo/config.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"
#include "kelvo/selftest.h"

namespace kelvo::legacy {
namespace {

struct Variant {
    const char* name;    // "Beckmann", as the report names it
    const char* suffix;  // the class id suffix
    bool tabulated;
};
constexpr Variant kVariants[] = {
    {"Beckmann", "beckmannbrdf", true},
    {"GGX", "ggxbrdf", true},
    {"Ward", "wardbrdf", true},
    {"Phong", "phongbrdf", false},
    {"Anisotropic", "anisotropicbrdf", false},
};
constexpr double kRoughness[] = {0.2, 0.5};
constexpr int kPairs = 4000;

// A fixed-seed sample record source.
class Records {
public:
    float Next() {
        _state = _state * 6364136223846793005ull + 1442695040888963407ull;
        return float(_state >> 40) * 0x1p-24f;
    }
    std::array<float, kSampleRecordFloats> Record() {
        std::array<float, kSampleRecordFloats> r{};
        r[0] = Next();
        r[SAMPLERECORD_U1] = Next();
        r[SAMPLERECORD_U2] = Next();
        double phi = kTwoPi * Next(), c2 = Next();
        r[SAMPLERECORD_AZIMUTHCOS] = float(std::cos(phi));
        r[SAMPLERECORD_AZIMUTHSIN] = float(std::sin(phi));
        r[SAMPLERECORD_POLARCOS] = float(std::sqrt(c2));
        r[SAMPLERECORD_POLARSIN] = float(std::sqrt(1.0 - c2));
        return r;
    }

private:
    uint64_t _state = 0x853c49e6748fea9bull;
};

Result<StrongRef<BSDFLegacyInterface>> Make(const char* suffix, double roughness,
                                            MicrofacetDistributionCachesInterface* caches) {
    KELVO_ASSIGN_OR_RETURN(Id id,
                           Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + suffix));
    KELVO_ASSIGN_OR_RETURN(StrongRef<BSDFLegacyInterface> m, CreateClass<BSDFLegacyInterface>(id));
    DataDictionary d;
    KELVO_TRY(d.Set(bsdfdata::kRoughness, roughness));
    KELVO_TRY(d.Set(bsdfdata::kAnisotropy, 0.4));
    KELVO_TRY(d.Set(bsdfdata::kRotation, 0.3));
    KELVO_TRY(bsdfdata::SetDistributionTables(d, caches));
    KELVO_TRY(m->Init(d));
    return m;
}

std::string Line(const char* fmt, double a = 0, double b = 0, double c = 0) {
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, a, b, c);
    return buf;
}

// Tabulated against closed form on directions drawn from the closed model's own lobe.
Result<void> CompareWithCache(const Variant& v, MicrofacetDistributionCachesInterface& caches,
                              bool statistics, std::string& report) {
    std::string with = std::string("BlurryTorrance BSDF with cache: ") + v.name + " distribution";
    std::string without =
        std::string("BlurryTorrance BSDF without cache: ") + v.name + " distribution";
    double worst = 0.0, sumDiff = 0.0, sumValue = 0.0, albedoTable = 0.0, albedoClosed = 0.0;
    for (double r : kRoughness) {
        KELVO_ASSIGN_OR_RETURN(auto tab, Make(v.suffix, r, &caches));
        KELVO_ASSIGN_OR_RETURN(auto closed, Make(v.suffix, r, nullptr));
        Records rng;
        for (int n = 0; n < kPairs; ++n) {
            auto rec = rng.Record();
            Vec3 wo{rec[SAMPLERECORD_AZIMUTHCOS] * rec[SAMPLERECORD_POLARSIN],
                    rec[SAMPLERECORD_AZIMUTHSIN] * rec[SAMPLERECORD_POLARSIN],
                    rec[SAMPLERECORD_POLARCOS]};
            auto lobe = rng.Record();
            Vec3 wi;
            double p;
            closed->SampleF(wo, lobe.data(), wi, p);
            if (p == 0.0) continue;
            double pt, pc;
            double vt = tab->ComputeBSDF(wo, wi, wi, pt).r,
                   vc = closed->ComputeBSDF(wo, wi, wi, pc).r;
            if (!std::isfinite(vt) || vt < 0.0)
                return UnexpectedError(KELVO_HERE, "@ gives the value @.", with, vt);
            double diff = std::abs(vt - vc);
            // Relative to the value, with a floor for the faint tails of the lobe.
            worst = std::max(worst, diff / (vc + 0.05));
            sumDiff += diff;
            sumValue += vc;
        }
        // Directional albedo at the normal, by cosine sampling: the mean value.
        Records cosine;
        for (int n = 0; n < kPairs; ++n) {
            auto rec = cosine.Record();
            Vec3 wi{rec[SAMPLERECORD_AZIMUTHCOS] * rec[SAMPLERECORD_POLARSIN],
                    rec[SAMPLERECORD_AZIMUTHSIN] * rec[SAMPLERECORD_POLARSIN],
                    rec[SAMPLERECORD_POLARCOS]};
            double p;
            Vec3 n0{0, 0, 1};
            albedoTable += tab->ComputeBSDF(n0, wi, wi, p).r / (kPairs * std::size(kRoughness));
            albedoClosed += closed->ComputeBSDF(n0, wi, wi, p).r / (kPairs * std::size(kRoughness));
        }
    }
    double mean = sumValue > 0.0 ? sumDiff / sumValue : 0.0;
    bool ok = mean < 5e-3 && worst < 0.05;
    report += with + " against " + without + (ok ? ": agree\n" : ": DIFFER\n");
    if (statistics) {
        report += Line("  mean relative difference %.3g, largest %.3g\n", mean, worst);
        report += Line("  albedo at normal view: %.6f with cache, %.6f without\n", albedoTable,
                       albedoClosed);
    }
    if (!ok)
        return UnexpectedError(KELVO_HERE,
                               "@ differs from @ (mean relative difference @, largest @).", with,
                               without, mean, worst);
    return OK();
}

// A model without table: its samples carry the density PdfIndirect states and the value
// ComputeBSDF gives.
Result<void> CheckSampling(const Variant& v, bool statistics, std::string& report) {
    std::string name = std::string("BlurryTorrance BSDF: ") + v.name + " distribution";
    double worst = 0.0;
    int accepted = 0;
    for (double r : kRoughness) {
        KELVO_ASSIGN_OR_RETURN(auto m, Make(v.suffix, r, nullptr));
        Records rng;
        for (int n = 0; n < kPairs; ++n) {
            auto rec = rng.Record();
            Vec3 wo = Normalize(Vec3{rec[1] - 0.5, rec[2] - 0.5, 0.2 + rec[0]});
            Vec3 wi;
            double p;
            Col3 sv = m->SampleF(wo, rec.data(), wi, p);
            if (p == 0.0) continue;
            ++accepted;
            double pc;
            Col3 cv = m->ComputeBSDF(wo, wi, wi, pc);
            double pi = m->PdfIndirect(wo, wi);
            worst = std::max({worst, std::abs(pi - p) / std::max(p, 1e-12),
                              std::abs(pc - p) / std::max(p, 1e-12),
                              std::abs(cv.r - sv.r) / std::max(sv.r, 1e-12)});
        }
    }
    bool ok = worst < 1e-6 && accepted > kPairs / 2;
    report += name + (ok ? ": consistent\n" : ": INCONSISTENT\n");
    if (statistics)
        report += Line("  %.0f samples, largest relative difference %.3g\n", accepted, worst);
    if (!ok)
        return UnexpectedError(KELVO_HERE, "@: samples disagree with the densities (@).", name,
                               worst);
    return OK();
}

class BsdfUnitTest final : public Implements<UnitTestInterface> {
public:
    Result<void> Run(std::string& report) override {
        KELVO_ASSIGN_OR_RETURN(auto caches,
                               CreateComponent<MicrofacetDistributionCachesInterface>());
        KELVO_TRY(caches->Alloc());
        caches->Init();
        // An undeclared variable reads as false.
        bool statistics = ConfigGetBool("g_runUnitTestRenderStatistics").ValueOr(false);
        Result<void> r = RunBsdfSelfTest(*caches, statistics, report);
        caches->Free();
        return r;
    }
};

class BsdfSpeedTest final : public Implements<SpeedTestInterface> {
public:
    Result<void> Run(std::string& report) override {
        KELVO_ASSIGN_OR_RETURN(auto caches,
                               CreateComponent<MicrofacetDistributionCachesInterface>());
        KELVO_TRY(caches->Alloc());
        caches->Init();
        Result<void> r = RunBsdfSpeedTest(*caches, report);
        caches->Free();
        return r;
    }
};

KELVO_REGISTER_CLASS(s_bsdfUnitTest, "net.kelvo.unittest.bsdftest", kUnitTestClassesRegistry,
                     UnitTestInterface::InterfaceId(), BsdfUnitTest);
KELVO_REGISTER_CLASS(s_bsdfSpeedTest, "net.kelvo.speedtestclass.speedtestbsdftest",
                     kSpeedTestClassesRegistry, SpeedTestInterface::InterfaceId(), BsdfSpeedTest);

}  // namespace

Result<void> RunBsdfSelfTest(MicrofacetDistributionCachesInterface& caches, bool statistics,
                             std::string& report) {
    Result<void> first;
    for (const Variant& v : kVariants) {
        Result<void> r = v.tabulated ? CompareWithCache(v, caches, statistics, report)
                                     : CheckSampling(v, statistics, report);
        if (!r && first.Ok()) first = r;
    }
    return first;
}

Result<void> RunBsdfSpeedTest(MicrofacetDistributionCachesInterface& caches, std::string& report) {
    constexpr int kCalls = 200000;
    Records rng;
    std::vector<std::array<float, kSampleRecordFloats>> records(4096);
    for (auto& r : records) r = rng.Record();
    const Vec3 wo = Normalize(Vec3{0.3, 0.1, 0.8});
    for (const Variant& v : kVariants) {
        for (bool table : {true, false}) {
            if (table && !v.tabulated) continue;
            KELVO_ASSIGN_OR_RETURN(auto m, Make(v.suffix, 0.3, table ? &caches : nullptr));
            std::vector<Vec3> wis;
            for (const auto& r : records) {
                Vec3 wi;
                double p;
                m->SampleF(wo, r.data(), wi, p);
                wis.push_back(p > 0.0 ? wi : Vec3{0, 0, 1});
            }
            using Clock = std::chrono::steady_clock;
            double sink = 0.0, p;
            auto t0 = Clock::now();
            for (int n = 0; n < kCalls; ++n)
                sink += m->ComputeBSDF(wo, wis[n & 4095], wis[n & 4095], p).r;
            auto t1 = Clock::now();
            Vec3 wi;
            for (int n = 0; n < kCalls; ++n)
                sink += m->SampleF(wo, records[n & 4095].data(), wi, p).r;
            auto t2 = Clock::now();
            double eval = std::chrono::duration<double, std::nano>(t1 - t0).count() / kCalls;
            double sample = std::chrono::duration<double, std::nano>(t2 - t1).count() / kCalls;
            std::string name =
                std::string("BlurryTorrance BSDF") +
                (v.tabulated ? (table ? " with cache: " : " without cache: ") : ": ") + v.name +
                " distribution";
            report += name + Line(": ComputeBSDF %.1f ns, SampleF %.1f ns\n", eval, sample);
            if (!std::isfinite(sink))
                return UnexpectedError(KELVO_HERE, "@ gives non-finite values.", name);
        }
    }
    return OK();
}

}  // namespace kelvo::legacy
