// Tabulated distributions against their closed forms (the tables must pay off), and the
// cost of the legacy models per call.
//
// D and Sample run over half vectors and sample records drawn from each distribution at
// roughness 0.1, 0.3 and 0.6. Argument 0 mixes the three in runs of 64 samples of one
// material, as a renderer shading a tile or a bucket meets them; 1..3 take one roughness
// each; 4 switches material at every sample, the worst case for branch prediction.
// "table" runs on a warm table.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <random>
#include <vector>

#include "bench_main.h"
#include "host.h"
#include "implementation/legacy_renderers/microfacet_distribution.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"

namespace kelvo::legacy {
namespace {

constexpr double kRoughness[] = {0.1, 0.3, 0.6};
constexpr size_t kPerRoughness = 4096;

using Record = std::array<float, kSampleRecordFloats>;

std::vector<Record> MakeRecords(uint64_t seed, size_t n) {
    std::mt19937_64 rng(seed);
    auto u = [&] { return float(rng() >> 40) * 0x1p-24f; };
    std::vector<Record> out(n);
    for (Record& r : out) {
        for (float& v : r) v = u();
        double phi = 6.283185307179586 * u();
        r[SAMPLERECORD_AZIMUTHCOS] = float(std::cos(phi));
        r[SAMPLERECORD_AZIMUTHSIN] = float(std::sin(phi));
        double c2 = u();
        r[SAMPLERECORD_POLARCOS] = float(std::sqrt(c2));
        r[SAMPLERECORD_POLARSIN] = float(std::sqrt(1.0 - c2));
    }
    return out;
}

MicrofacetDistributionCachesInterface& Caches() {
    static StrongRef<MicrofacetDistributionCachesInterface> caches = [] {
        auto made = CreateComponent<MicrofacetDistributionCachesInterface>();
        if (!made || !(*made)->Alloc()) std::abort();
        (*made)->Init();
        return *made;
    }();
    return *caches;
}

DataDictionary MakeData(double roughness, bool table) {
    DataDictionary d;
    (void)d.Set(bsdfdata::kRoughness, roughness);
    (void)bsdfdata::SetDistributionTables(d, table ? &Caches() : nullptr);
    return d;
}

// The distributions of the chosen roughness values, and for each a list of
// (distribution, half vector, sample record) drawn from the distribution itself.
template <typename Dist>
struct Workload {
    std::vector<Dist> dists;
    std::vector<size_t> which;
    std::vector<Vec3> halfVectors;
    std::vector<Record> records;

    static constexpr size_t kRun = 64;
    static size_t Unit(int arg) { return arg == 4 ? 1 : kRun; }

    Workload(int arg, bool table) {
        const bool mixed = arg == 0 || arg == 4;
        size_t first = mixed ? 0 : size_t(arg - 1), last = mixed ? 3 : size_t(arg);
        auto records0 = MakeRecords(17, kPerRoughness * 3);
        for (size_t k = first; k < last; ++k) {
            Dist d;
            (void)d.Update(MakeData(kRoughness[k], table));
            Dist closed;
            (void)closed.Update(MakeData(kRoughness[k], false));
            dists.push_back(d);
            for (size_t i = 0; i < kPerRoughness; ++i) {
                const Record& r = records0[k * kPerRoughness + i];
                double dv, pdf;
                halfVectors.push_back(closed.Sample(r.data(), dv, pdf));
                records.push_back(r);
                which.push_back(dists.size() - 1);
            }
        }
        // Interleave the materials: whole runs for the mix, single samples for argument 4.
        const size_t unit = Unit(arg);
        std::vector<size_t> units(which.size() / unit);
        for (size_t i = 0; i < units.size(); ++i) units[i] = i;
        std::mt19937_64 rng(5);
        std::shuffle(units.begin(), units.end(), rng);
        std::vector<size_t> order;
        for (size_t u : units)
            for (size_t i = 0; i < unit; ++i) order.push_back(u * unit + i);
        auto permute = [&](auto& v) {
            auto copy = v;
            for (size_t i = 0; i < order.size(); ++i) v[i] = copy[order[i]];
        };
        permute(which);
        permute(halfVectors);
        permute(records);
        // Warm the table.
        for (size_t i = 0; i < which.size(); ++i) {
            double p, dv;
            dists[which[i]].D(halfVectors[i], true, p);
            dists[which[i]].Sample(records[i].data(), dv, p);
        }
    }
};

// The renderer holds a material's distribution for a run of samples; the lookup of the
// next one is harness cost, paid once a run (once a sample for argument 4).
template <typename Dist, bool kTable, typename Call>
void RunWorkload(benchmark::State& state, Call call) {
    Workload<Dist> w(int(state.range(0)), kTable);
    const size_t n = w.which.size(), unit = w.Unit(int(state.range(0)));
    size_t i = 0, left = unit;
    const Dist* dist = &w.dists[w.which[0]];
    for (auto _ : state) {
        call(*dist, w, i);
        if (++i == n) i = 0;
        if (--left == 0) {  // n is a multiple of the run
            dist = &w.dists[w.which[i]];
            left = unit;
        }
    }
}

template <typename Dist, bool kTable>
void BM_D(benchmark::State& state) {
    RunWorkload<Dist, kTable>(state, [](const Dist& dist, const Workload<Dist>& w, size_t i) {
        double p;
        benchmark::DoNotOptimize(dist.D(w.halfVectors[i], true, p));
        benchmark::DoNotOptimize(p);
    });
}

template <typename Dist, bool kTable>
void BM_Sample(benchmark::State& state) {
    RunWorkload<Dist, kTable>(state, [](const Dist& dist, const Workload<Dist>& w, size_t i) {
        double d, p;
        benchmark::DoNotOptimize(dist.Sample(w.records[i].data(), d, p));
        benchmark::DoNotOptimize(d);
    });
}

#define KELVO_DIST_BENCH(Dist)                                                                   \
    BENCHMARK_TEMPLATE(BM_D, Dist, true)->Name("D/" #Dist "/table")->DenseRange(0, 4);           \
    BENCHMARK_TEMPLATE(BM_D, Dist, false)->Name("D/" #Dist "/closed")->DenseRange(0, 4);         \
    BENCHMARK_TEMPLATE(BM_Sample, Dist, true)->Name("Sample/" #Dist "/table")->DenseRange(0, 4); \
    BENCHMARK_TEMPLATE(BM_Sample, Dist, false)->Name("Sample/" #Dist "/closed")->DenseRange(0, 4)
KELVO_DIST_BENCH(BeckmannDistribution);
KELVO_DIST_BENCH(GGXDistribution);
KELVO_DIST_BENCH(WardDistribution);

// A registered model, updated from a record that sets every parameter it may read.
struct Model {
    StrongRef<BSDFLegacyInterface> bsdf;
    std::vector<Record> records = MakeRecords(23, 4096);
    std::vector<std::pair<Vec3, Vec3>> pairs;

    Model(const std::string& suffix, bool table) {
        auto id = Id::FromText("net.kelvo.render.bsdflegacyclass." + suffix);
        auto made = CreateClass<BSDFLegacyInterface>(*id);
        if (!made) std::abort();
        bsdf = *made;
        DataDictionary d = MakeData(0.3, table);
        (void)d.Set(bsdfdata::kOrenNayarSigma, 0.5);
        (void)d.Set(bsdfdata::kAnisotropy, 0.4);
        (void)d.Set(bsdfdata::kIorIn, 1.5);
        (void)d.Set(bsdfdata::kIorOut, 1.0);
        (void)d.Set(bsdfdata::kBlurryExponent, 30.0);
        (void)d.Set(bsdfdata::kBlurrySamplingExponent, 0.05);
        if (table) {
            (void)bsdfdata::SetTable(d, bsdfdata::kBlurryTable,
                                     Caches().GetCache(DISTRIBUTIONKIND_GGX));
            (void)d.Set(bsdfdata::kBlurryDensityRow, int64_t(2000 * 120));
            (void)d.Set(bsdfdata::kBlurrySamplingRow, int64_t(1000 * 120));
        }
        (void)d.Set(bsdfdata::kClothPattern, std::string("denim"));
        (void)d.Set(bsdfdata::kTextureCoordinate, Vec2{0.31, 0.62});
        (void)d.Set(bsdfdata::kWarpDiffuse, 0.2);
        (void)d.Set(bsdfdata::kWarpSpecular, 1.0);
        (void)d.Set(bsdfdata::kWeftDiffuse, 0.2);
        (void)d.Set(bsdfdata::kWeftSpecular, 1.0);
        (void)bsdf->Init(d);
        Vec3 wo = Normalize(Vec3{0.3, 0.1, 0.8});
        for (const Record& r : records) {
            Vec3 wi;
            double p;
            bsdf->SampleF(wo, r.data(), wi, p);
            if (p == 0.0) wi = Normalize(Vec3{r[1] - 0.5, r[2] - 0.5, 0.3});
            pairs.emplace_back(wo, wi);
        }
    }
};

void BM_ComputeBSDF(benchmark::State& state, const std::string& suffix, bool table) {
    Model m(suffix, table);
    size_t i = 0;
    for (auto _ : state) {
        double p;
        const auto& [wo, wi] = m.pairs[i];
        benchmark::DoNotOptimize(m.bsdf->ComputeBSDF(wo, wi, wi, p));
        if (++i == m.pairs.size()) i = 0;
    }
}

void BM_SampleF(benchmark::State& state, const std::string& suffix, bool table) {
    Model m(suffix, table);
    size_t i = 0;
    Vec3 wo = m.pairs[0].first;
    for (auto _ : state) {
        double p;
        Vec3 wi;
        benchmark::DoNotOptimize(m.bsdf->SampleF(wo, m.records[i].data(), wi, p));
        if (++i == m.records.size()) i = 0;
    }
}

// Every model, with the tables ("table") and without ("closed"); models that read no
// table run the same code twice, as a check of the noise.
void RegisterModels() {
    for (const char* suffix :
         {"lambertbrdf", "orennayarbrdf", "irawanbrdf", "blurrysimplebrdf", "blurryspecularbrdf",
          "beckmannbrdf", "beckmannbtdf", "ggxbrdf", "ggxbtdf", "phongbrdf", "phongbtdf",
          "wardbrdf", "wardbtdf", "anisotropicbrdf", "anisotropicbtdf"}) {
        for (bool table : {true, false}) {
            std::string tail = std::string(suffix) + (table ? "/table" : "/closed");
            benchmark::RegisterBenchmark(("ComputeBSDF/" + tail).c_str(), BM_ComputeBSDF,
                                         std::string(suffix), table);
            benchmark::RegisterBenchmark(("SampleF/" + tail).c_str(), BM_SampleF,
                                         std::string(suffix), table);
        }
    }
}

}  // namespace
}  // namespace kelvo::legacy

kelvo::Result<void> kelvo::bench::SetUp() {
    legacy::RegisterModels();
    return OK();
}
