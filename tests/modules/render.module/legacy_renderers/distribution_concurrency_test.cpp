// Render threads fill the shared tables without a lock: concurrent filling must give the
// values of a single thread, with no data race (run under ThreadSanitizer).
#include <gtest/gtest.h>

#include <thread>

#include "bsdf_test_util.h"
#include "implementation/legacy_renderers/microfacet_distribution.h"

namespace kelvo::legacy {
namespace {
using namespace kelvo::testing_bsdf;

template <typename Dist>
std::vector<double> Evaluate(MicrofacetDistributionCachesInterface& caches, uint64_t seed,
                             int count) {
    std::vector<double> out;
    Rng rng(seed);
    for (int n = 0; n < count; ++n) {
        // Roughness values that share levels: the first writer's value wins, so each
        // thread uses the level's own roughness to keep the reference comparable.
        auto dist = Updated<Dist>(Record((n % 7) / 7.0, &caches));
        SampleRecord rec = MakeSample(rng);
        double dv, pdf;
        Vec3 h = dist.Sample(rec.data(), dv, pdf);
        out.push_back(h.z);
        out.push_back(dv);
        out.push_back(dist.D(Normalize(Vec3{rec[1] - 0.5, rec[2] - 0.5, 0.5 + rec[0]}), true, pdf));
    }
    return out;
}

template <typename Dist>
void CheckConcurrentFill() {
    auto reference = MakeCaches();
    auto shared = MakeCaches();
    constexpr int kThreads = 4, kCount = 3000;
    std::vector<std::vector<double>> results(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] { results[t] = Evaluate<Dist>(*shared, 100 + t % 2, kCount); });
    for (auto& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(results[t], Evaluate<Dist>(*reference, 100 + t % 2, kCount)) << t;
}

TEST(DistributionConcurrencyTest, SharedTablesFillLikeOneThread) {
    CheckConcurrentFill<BeckmannDistribution>();
    CheckConcurrentFill<GGXDistribution>();
    CheckConcurrentFill<WardDistribution>();
}

}  // namespace
}  // namespace kelvo::legacy
