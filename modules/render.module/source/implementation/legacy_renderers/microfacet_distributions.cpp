// The five distributions as registered classes, so that programs reach them by id.
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/legacystate.h"
#include "kelvo/legacy_renderers/microfacetdistribution.h"
#include "microfacet_distribution.h"

namespace kelvo::legacy {
namespace {

template <typename Dist>
class MicrofacetDistributionImpl final
    : public Implements<MicrofacetDistributionInterface, LegacyStateInterface> {
public:
    void VisitState(const LegacyStateVisitor& field) const override { _dist.Visit(field); }
    Result<void> Update(const DataDictionary& data) override { return _dist.Update(data); }
    double D(const Vec3& h, bool useTable, double& samplingDensity) const override {
        return _dist.D(h, useTable, samplingDensity);
    }
    double G(const Vec3& first, const Vec3& second, const Vec3& h) const override {
        return _dist.G(first, second, h);
    }
    Vec3 Sample(const float* sample, double& d, double& samplingDensity) const override {
        return _dist.Sample(sample, d, samplingDensity);
    }

private:
    Dist _dist;
};

constexpr Id kKind = MicrofacetDistributionInterface::InterfaceId();
#define KELVO_DISTRIBUTION(var, suffix, Type)                                         \
    KELVO_REGISTER_CLASS(var, "net.kelvo.render.microfacetdistributionclass." suffix, \
                         kMicrofacetDistributionClassesRegistry, kKind,               \
                         MicrofacetDistributionImpl<Type>)
KELVO_DISTRIBUTION(s_beckmann, "beckmann", BeckmannDistribution);
KELVO_DISTRIBUTION(s_ggx, "ggx", GGXDistribution);
KELVO_DISTRIBUTION(s_phong, "phong", PhongDistribution);
KELVO_DISTRIBUTION(s_ward, "ward", WardDistribution);
KELVO_DISTRIBUTION(s_anisotropic, "anisotropic", AnisotropicDistribution);
#undef KELVO_DISTRIBUTION

}  // namespace
}  // namespace kelvo::legacy
