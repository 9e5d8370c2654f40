// The diffuse legacy models: Lambert and Oren-Nayar.
#include <algorithm>
#include <cmath>

#include "bsdf_legacy_base.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/bsdfdata.h"

namespace kelvo::legacy {
namespace {

class LambertBrdfImpl final : public BsdfLegacyBase {
public:
    Result<void> Update(const DataDictionary& /*data*/) override { return OK(); }
    void Reset() override {}

    Col3 SampleF(const Vec3& /*wo*/, const float* sample, Vec3& wi, double& density) override {
        // No test of wo's side: the sampler's direction is taken as it comes.
        wi = CosineSampledDirection(sample);
        density = 0.0;
        if (std::abs(wi.z) < 1e-10) return kBlack;
        density = std::abs(wi.z) * kInvPi;
        return kWhite;
    }
    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& /*wl*/, double& density) override {
        density = 0.0;
        if (!(wo.z * wi.z > 0.0) || std::abs(wi.z) < 1e-10) return kBlack;
        density = std::abs(wi.z) * kInvPi;
        return kWhite;
    }
    // Without a hemisphere test, unlike ComputeBSDF: the legacy renderers rely on it.
    double PdfIndirect(const Vec3& /*wo*/, const Vec3& wi) override {
        return std::abs(wi.z) * kInvPi;
    }
};

class OrenNayarBrdfImpl final : public BsdfLegacyBase {
    double _sigmaSquared = 0.0;
    double _coefA = 1.0;
    double _coefB = 0.0;
    double _c3Factor = 0.0;
    double _coefC1 = 1.0;
    double _interreflection = 0.0;
    bool _useSimpleModel = false;

public:
    Result<void> Update(const DataDictionary& data) override {
        // Sigma as it stands: no clamp, no unit change.
        double sigma = data.Get<double>(bsdfdata::kOrenNayarSigma, 0.0);
        double s2 = sigma * sigma;
        _sigmaSquared = s2;
        _coefA = 1.0 - s2 / (2.0 * (s2 + 0.33));
        _coefB = 0.45 * s2 / (s2 + 0.09);
        _c3Factor = s2 / (s2 + 0.09);
        _coefC1 = 1.0 - 0.5 * s2 / (s2 + 0.33);  // equals _coefA; both are kept
        _interreflection = 0.17 * s2 / (s2 + 0.13);
        _useSimpleModel = data.Get<bool>(bsdfdata::kSimpleModel, false);
        return OK();
    }
    // The fresh state is that of an empty record: sigma 0, the Lambert limit.
    void Reset() override { (void)Update(DataDictionary{}); }
    void VisitState(const LegacyStateVisitor& field) const override {
        field("_sigmaSquared", _sigmaSquared);
        field("_coefA", _coefA);
        field("_coefB", _coefB);
        field("_c3Factor", _c3Factor);
        field("_coefC1", _coefC1);
        field("_interreflection", _interreflection);
        field("_useSimpleModel", _useSimpleModel);
    }

    Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) override {
        wi = CosineSampledDirection(sample);
        density = 0.0;
        if (std::abs(wi.z) < 1e-10) return kBlack;
        density = std::abs(wi.z) * kInvPi;
        return Grey(Value(wo, wi));
    }
    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& /*wl*/, double& density) override {
        density = 0.0;
        if (!(wo.z * wi.z > 0.0) || std::abs(wi.z) < 1e-10) return kBlack;
        density = std::abs(wi.z) * kInvPi;
        return Grey(Value(wo, wi));
    }
    double PdfIndirect(const Vec3& /*wo*/, const Vec3& wi) override {
        return std::abs(wi.z) * kInvPi;
    }

private:
    static double Sine(double c) {
        double s2 = 1.0 - c * c;
        return s2 > 0.0 ? std::sqrt(s2) : 0.0;
    }
    static double Angle(double c) { return c >= 1.0 ? 0.0 : (c <= -1.0 ? kPi : std::acos(c)); }

    // The value without the 1/pi factor.
    double Value(const Vec3& wo, const Vec3& wi) const {
        if (_sigmaSquared == 0.0) return 1.0;
        double sinI = Sine(wi.z), sinO = Sine(wo.z);
        // The azimuth difference is meaningless along the normal; it then counts as 0.
        double cosDPhi = 0.0;
        if (sinI > 0.0001 && sinO > 0.0001) {
            double cx = std::clamp(wi.x / sinI, -1.0, 1.0), cy = std::clamp(wi.y / sinI, -1.0, 1.0);
            double dx = std::clamp(wo.x / sinO, -1.0, 1.0), dy = std::clamp(wo.y / sinO, -1.0, 1.0);
            cosDPhi = cx * dx + cy * dy;
        }
        // beta is the angle nearer the normal; its tangent keeps the sign of its cosine.
        double sinAlpha = 0.0, sinBeta = 0.0, tanBeta = 0.0;
        if (std::abs(wi.z) > std::abs(wo.z)) {
            if (std::abs(wi.z) > 1e-16) {
                sinAlpha = sinO;
                tanBeta = sinI / wi.z;
                sinBeta = sinI;
            }
        } else if (std::abs(wo.z) > 1e-16) {
            sinAlpha = sinI;
            tanBeta = sinO / wo.z;
            sinBeta = sinO;
        }
        if (_useSimpleModel) return _coefA + _coefB * std::max(0.0, cosDPhi) * sinAlpha * tanBeta;

        double thetaI = Angle(wi.z), thetaO = Angle(wo.z);
        double alpha = std::max(thetaI, thetaO), beta = std::min(thetaI, thetaO);
        double b2 = 2.0 * beta / kPi;
        double c2 = cosDPhi <= 0.0 ? _coefB * (sinAlpha - b2 * b2 * b2) : _coefB * sinAlpha;
        double k = 0.40528473456935116 * alpha * beta;  // 4 alpha beta / pi^2
        double c3 = 0.125 * _c3Factor * k * k;
        double cosAlpha = std::sqrt(std::max(0.0, 1.0 - sinAlpha * sinAlpha));
        double cosBeta = std::sqrt(std::max(0.0, 1.0 - sinBeta * sinBeta));
        double tanHalf = (sinAlpha + sinBeta) / std::max(1e-16, cosAlpha + cosBeta);
        // The inter-reflection term without its albedo factor, added whatever the colour.
        return _coefC1 + c2 * cosDPhi * tanBeta + (1.0 - std::abs(cosDPhi)) * c3 * tanHalf +
               _interreflection * (1.0 - b2 * b2 * cosDPhi);
    }
};

KELVO_REGISTER_CLASS(s_lambert, "net.kelvo.render.bsdflegacyclass.lambertbrdf",
                     kBsdfLegacyClassesRegistry, BSDFLegacyInterface::InterfaceId(),
                     LambertBrdfImpl);
KELVO_REGISTER_CLASS(s_orenNayar, "net.kelvo.render.bsdflegacyclass.orennayarbrdf",
                     kBsdfLegacyClassesRegistry, BSDFLegacyInterface::InterfaceId(),
                     OrenNayarBrdfImpl);

}  // namespace
}  // namespace kelvo::legacy
