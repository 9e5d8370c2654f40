// Microfacet reflection and transmission for the five distributions.
#include <algorithm>
#include <cmath>

#include "bsdf_legacy_base.h"
#include "kelvo/entry.h"
#include "microfacet_distribution.h"

namespace kelvo::legacy {
namespace {

// A refractive index must be positive; anything else reads as vacuum.
double ReadIor(const DataDictionary& data, const Id& key) {
    double v = data.Get<double>(key, 1.0);
    return v > 0.0 && std::isfinite(v) ? v : 1.0;
}

template <typename Dist>
class MicrofacetBase : public BsdfLegacyBase {
public:
    static constexpr bool kAnisotropic = std::is_same_v<Dist, AnisotropicDistribution>;

    Result<void> Update(const DataDictionary& data) override {
        _iorOut = ReadIor(data, bsdfdata::kIorOut);
        _iorIn = ReadIor(data, bsdfdata::kIorIn);
        return _dist.Update(data);
    }
    void Reset() override {
        _dist = Dist{};
        _iorOut = 1.0;
        _iorIn = 1.0;
    }
    void VisitState(const LegacyStateVisitor& field) const override {
        _dist.Visit(field);
        field("_iorOut", _iorOut);
        field("_iorIn", _iorIn);
    }
    // The distribution's own lobe width.
    double ComputeMIPAngle(double angle) override { return std::min(_dist._lobeCosine, angle); }

    // Reflection density, shared by the transmission classes on purpose: it requires wo
    // and wi on the same side, so it is 0 for every transmitted pair.
    double PdfIndirect(const Vec3& wo, const Vec3& wi) override {
        double zz = wo.z * wi.z;
        if (!(zz > 0.0) || std::abs(zz) < 1e-16) return 0.0;
        Vec3 s = wo + wi;
        if (s == Vec3{}) return 0.0;
        Vec3 h = Normalize(s);
        if (h.z < 0.0) h = -h;
        double c = std::abs(Dot(wo, h));
        if (c < 1e-16) return 0.0;
        double ph;
        if (D(h, ph) < 1e-16) return 0.0;
        return ph / (4.0 * c);
    }

protected:
    // The anisotropic lobe's u axis is the shading x axis turned by the rotation towards
    // y; D depends on the tangent frame, while the V-cavity G only on dot products and z.
    Vec3 ToLobe(const Vec3& h) const {
        if constexpr (kAnisotropic) {
            double c = _dist._rotationCos, s = _dist._rotationSin;
            return {c * h.x + s * h.y, -s * h.x + c * h.y, h.z};
        } else {
            return h;
        }
    }
    Vec3 FromLobe(const Vec3& h) const {
        if constexpr (kAnisotropic) {
            double c = _dist._rotationCos, s = _dist._rotationSin;
            return {c * h.x - s * h.y, s * h.x + c * h.y, h.z};
        } else {
            return h;
        }
    }
    double D(const Vec3& h, double& ph) const { return _dist.D(ToLobe(h), true, ph); }
    Vec3 SampleH(const float* sample, double& d, double& ph) const {
        return FromLobe(_dist.Sample(sample, d, ph));
    }

    Dist _dist;
    double _iorOut = 1.0;
    double _iorIn = 1.0;
};

template <typename Dist>
class MicrofacetBrdfImpl final : public MicrofacetBase<Dist> {
    using Base = MicrofacetBase<Dist>;

public:
    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& wl, double& density) override {
        density = 0.0;
        double zz = wo.z * wi.z;
        if (!(zz > 0.0) || std::abs(zz) < 1e-16) return kBlack;
        Vec3 s = wo + wl;
        if (s == Vec3{}) return kBlack;
        Vec3 h = Normalize(s);
        if (h.z < 0.0) h = -h;
        double c = std::abs(Dot(wo, h));
        if (c < 1e-16) return kBlack;
        double ph;
        double d = Base::D(h, ph);
        if (d < 1e-16) return kBlack;
        density = ph / (4.0 * c);
        return Grey(kPi * d * Base::_dist.G(wo, wl, h) / (4.0 * std::abs(zz)));
    }

    Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) override {
        density = 0.0;
        double d, ph;
        Vec3 h = Base::SampleH(sample, d, ph);
        if (!(d >= 1e-16)) return kBlack;
        if (h.z < 0.0) h = -h;
        wi = 2.0 * Dot(wo, h) * h - wo;
        double zz = wo.z * wi.z;
        if (!(zz > 0.0) || std::abs(zz) < 1e-16) return kBlack;
        double c = Dot(wo, h);
        if (c < 1e-16) return kBlack;
        density = ph / (4.0 * std::abs(c));
        // The D of the sample itself, not looked up again.
        return Grey(kPi * d * Base::_dist.G(wo, wi, h) / (4.0 * std::abs(wo.z) * std::abs(wi.z)));
    }
};

template <typename Dist>
class MicrofacetBtdfImpl final : public MicrofacetBase<Dist> {
    using Base = MicrofacetBase<Dist>;

public:
    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& wl, double& density) override {
        density = 0.0;
        double zz = wo.z * wi.z;
        if (!(zz < 0.0) || std::abs(zz) < 1e-16) return kBlack;
        double eta = wo.z > 0.0 ? Base::_iorIn / Base::_iorOut : Base::_iorOut / Base::_iorIn;
        Vec3 s = wo + eta * wl;
        if (s == Vec3{}) return kBlack;
        Vec3 h = Normalize(s);
        if (h.z < 0.0) h = -h;
        double a = Dot(wo, h), b = Dot(wi, h);
        if (std::abs(a) < 1e-16) return kBlack;
        double ph;
        double d = Base::D(h, ph);
        if (d < 1e-16) return kBlack;
        double g = Base::_dist.G(wo, -wl, h);
        double factor;
        if (!Factor(a, b, eta, factor)) return kBlack;
        density = ph * factor;
        // Divided by the signed product: negative for every accepted pair, as the legacy
        // renderers expect.
        return Grey(kPi * d * g * factor * std::abs(a) * (1.0 / eta) * (1.0 / eta) / zz);
    }

    Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) override {
        density = 0.0;
        double d, ph;
        Vec3 h = Base::SampleH(sample, d, ph);
        if (!(d >= 1e-16)) return kBlack;
        if (h.z < 0.0) h = -h;
        double etaS = wo.z > 0.0 ? Base::_iorOut / Base::_iorIn : Base::_iorIn / Base::_iorOut;
        double c = Dot(wo, h);
        double sin2T = etaS * etaS * std::max(0.0, 1.0 - c * c);
        if (sin2T >= 1.0) return kBlack;  // total internal reflection
        double t = c * etaS - std::sqrt(1.0 - sin2T);
        wi = -etaS * wo + t * h;
        double zz = wo.z * wi.z;
        if (!(zz < 0.0) || std::abs(zz) < 1e-16) return kBlack;
        double a = Dot(wo, h), b = Dot(h, wi);
        if (std::abs(a) < 1e-16) return kBlack;
        double eta = wo.z > 0.0 ? Base::_iorIn / Base::_iorOut : Base::_iorOut / Base::_iorIn;
        double factor;
        if (!Factor(a, b, eta, factor)) return kBlack;
        density = ph * factor;
        return Grey(kPi * d * Base::_dist.G(wo, -wi, h) * factor * std::abs(a) * (1.0 / eta) *
                    (1.0 / eta) / zz);
    }

private:
    // |(eta^2 b / d) d| with d = a + eta b: the division and the multiplication by the same
    // d are both kept (the legacy factor, without the d^2 of the textbook). A zero d would
    // make it 0/0: that degenerate pair gives nothing.
    static bool Factor(double a, double b, double eta, double& factor) {
        double dd = a + eta * b;
        if (dd == 0.0) return false;
        factor = std::abs((eta * eta * b / dd) * dd);
        return true;
    }
};

constexpr Id kKind = BSDFLegacyInterface::InterfaceId();
#define KELVO_MICROFACET(var, suffix, Type)                               \
    KELVO_REGISTER_CLASS(var, "net.kelvo.render.bsdflegacyclass." suffix, \
                         kBsdfLegacyClassesRegistry, kKind, Type)
KELVO_MICROFACET(s_anisotropicBtdf, "anisotropicbtdf", MicrofacetBtdfImpl<AnisotropicDistribution>);
KELVO_MICROFACET(s_anisotropicBrdf, "anisotropicbrdf", MicrofacetBrdfImpl<AnisotropicDistribution>);
KELVO_MICROFACET(s_wardBtdf, "wardbtdf", MicrofacetBtdfImpl<WardDistribution>);
KELVO_MICROFACET(s_wardBrdf, "wardbrdf", MicrofacetBrdfImpl<WardDistribution>);
KELVO_MICROFACET(s_phongBtdf, "phongbtdf", MicrofacetBtdfImpl<PhongDistribution>);
KELVO_MICROFACET(s_phongBrdf, "phongbrdf", MicrofacetBrdfImpl<PhongDistribution>);
KELVO_MICROFACET(s_ggxBtdf, "ggxbtdf", MicrofacetBtdfImpl<GGXDistribution>);
KELVO_MICROFACET(s_ggxBrdf, "ggxbrdf", MicrofacetBrdfImpl<GGXDistribution>);
KELVO_MICROFACET(s_beckmannBtdf, "beckmannbtdf", MicrofacetBtdfImpl<BeckmannDistribution>);
KELVO_MICROFACET(s_beckmannBrdf, "beckmannbrdf", MicrofacetBrdfImpl<BeckmannDistribution>);
#undef KELVO_MICROFACET

}  // namespace
}  // namespace kelvo::legacy
