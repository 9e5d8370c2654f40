// The two ad-hoc blurry reflection lobes of the legacy renderers.
#include <algorithm>
#include <cmath>

#include "bsdf_legacy_base.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/bsdfdata.h"

namespace kelvo::legacy {
namespace {

// Interpolation in single precision, as the table stores.
inline float Blend(float a, float b, double t) { return a + (b - a) * static_cast<float>(t); }

// A cosine-power lobe around the mirror direction (wi . wo), with an optional table of its
// density (row `_densityRow`) and of its sampled cosines (row `_samplingRow`).
class BlurrySimpleBrdfImpl final : public BsdfLegacyBase {
public:
    Result<void> Update(const DataDictionary& data) override {
        _exponent = data.Get<double>(bsdfdata::kBlurryExponent, 0.0);
        _samplingExponent = data.Get<double>(bsdfdata::kBlurrySamplingExponent, 0.0);
        _table = bsdfdata::GetTable(data, bsdfdata::kBlurryTable);
        _densityRow = data.Get<int64_t>(bsdfdata::kBlurryDensityRow, 0);
        _samplingRow = data.Get<int64_t>(bsdfdata::kBlurrySamplingRow, 0);
        // Rows must leave room for their block; a bad row means no table.
        if (_densityRow < 0 ||
            _densityRow > (kDistributionLevels - 1) * kDistributionDBlockFloats ||
            _samplingRow < 0 ||
            _samplingRow > (kDistributionLevels - 1) * kDistributionSamplingBlockFloats)
            _table = nullptr;
        return OK();
    }
    void Reset() override {
        _table = nullptr;
        _samplingExponent = 0.0;
        _densityRow = 0;
        _samplingRow = 0;
        _exponent = 1.0;
    }

    // Samples nothing: samplers of this lobe use ComputeAngle.
    Col3 SampleF(const Vec3& /*wo*/, const float* /*sample*/, Vec3& wi, double& density) override {
        wi = Vec3{};
        density = 0.0;
        return kBlack;
    }

    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& /*wl*/, double& density) override {
        density = 0.0;
        if (!(std::abs(wi.z) >= 1e-10)) return kBlack;
        double c = Dot(wi, wo);
        if (!(c > 0.0)) return kBlack;
        c = std::min(c, 1.0);
        double v;
        if (_table && c <= 0.999) {
            int64_t i, j;
            double t;
            if (c >= 0.9) {
                double f = (c - 0.9) * 10000.0;
                i = std::clamp<int64_t>(static_cast<int64_t>(std::floor(f)), 0, 999);
                j = std::min<int64_t>(i + 1, 999);
                t = f - double(i);
            } else {
                double f = c * 1000.0;
                i = kDistributionCoarseCells +
                    std::clamp<int64_t>(static_cast<int64_t>(std::floor(f)), 0, 999);
                j = std::min<int64_t>(i + 1, kDistributionCoarseCells + 999);
                t = f - double(i - kDistributionCoarseCells);
            }
            float ei = CachedEntry(_table, _densityRow + i, [&] { return Lobe(CellCosine(i)); });
            float ej = CachedEntry(_table, _densityRow + j, [&] { return Lobe(CellCosine(j)); });
            v = 4.0f * Blend(ei, ej, t);
        } else {
            v = 4.0 * Lobe(c);
        }
        density = v * kInvPi;
        return Grey(v / std::abs(wi.z));
    }

    double ComputeAngle(const float* sample) override {
        double u = sample[SAMPLERECORD_U2];
        if (!_table) return std::pow(1.0 - u, _samplingExponent);
        double f = u * 1000.0;
        int64_t i = std::clamp<int64_t>(static_cast<int64_t>(std::floor(f)), 0, 999);
        int64_t j = std::min<int64_t>(i + 1, 999);
        int64_t base = kDistributionSamplingStart + _samplingRow;
        float ei = CachedEntry(
            _table, base + i, [&] { return std::pow(1.0 - 0.001 * double(i), _samplingExponent); });
        float ej = CachedEntry(
            _table, base + j, [&] { return std::pow(1.0 - 0.001 * double(j), _samplingExponent); });
        return Blend(ei, ej, f - double(i));
    }

    // Always the closed form.
    double PdfIndirect(const Vec3& wo, const Vec3& wi) override {
        if (!(std::abs(wi.z) >= 1e-10)) return 0.0;
        double c = std::clamp(Dot(wi, wo), 0.0, 1.0);
        if (c <= 0.0) return 0.0;
        return Lobe(c) * 4.0 * kInvPi;
    }

    void VisitState(const LegacyStateVisitor& field) const override {
        field("_exponent", _exponent);
        field("_samplingExponent", _samplingExponent);
        field("_table", _table != nullptr);
        field("_densityRow", _densityRow);
        field("_samplingRow", _samplingRow);
    }

    double ComputeMIPAngle(double angle) override {
        if (_samplingExponent < 1e-10) return angle;
        return std::min(std::pow(0.5, _samplingExponent), angle);
    }

private:
    double Lobe(double c) const { return (_exponent + 1.0) * kInvTwoPi * std::pow(c, _exponent); }

    double _exponent = 1.0;          // n
    double _samplingExponent = 0.0;  // s
    float* _table = nullptr;
    int64_t _densityRow = 0;
    int64_t _samplingRow = 0;
};

// A highlight lobe with a cosine power or an angular fall-off curve.
class BlurrySpecularBrdfImpl final : public BsdfLegacyBase {
public:
    Result<void> Update(const DataDictionary& data) override {
        _exponent = data.Get<double>(bsdfdata::kBlurryExponent, 0.0);
        _curvePower = data.Get<double>(bsdfdata::kCurvePower, 0.0);
        _angleScale = data.Get<double>(bsdfdata::kAngleScale, 0.0);
        _curveExponent = data.Get<double>(bsdfdata::kCurveExponent, 0.0);
        _curveFactor = data.Get<double>(bsdfdata::kCurveFactor, 0.0);
        _angleSlope = data.Get<double>(bsdfdata::kAngleSlope, 0.0);
        _angleOffset = data.Get<double>(bsdfdata::kAngleOffset, 0.0);
        _cosineThreshold = data.Get<double>(bsdfdata::kCosineThreshold, 0.0);
        _mirrorMode = data.Get<bool>(bsdfdata::kMirrorMode, false);
        _curveMode = data.Get<bool>(bsdfdata::kCurveMode, false);
        return OK();
    }
    void VisitState(const LegacyStateVisitor& field) const override {
        field("_exponent", _exponent);
        field("_curvePower", _curvePower);
        field("_angleScale", _angleScale);
        field("_curveExponent", _curveExponent);
        field("_curveFactor", _curveFactor);
        field("_angleSlope", _angleSlope);
        field("_angleOffset", _angleOffset);
        field("_cosineThreshold", _cosineThreshold);
        field("_mirrorMode", _mirrorMode);
        field("_curveMode", _curveMode);
    }
    void Reset() override {
        _exponent = _curvePower = _angleScale = _curveExponent = 0.0;
        _curveFactor = _angleSlope = _angleOffset = _cosineThreshold = 0.0;
        _mirrorMode = _curveMode = false;
        _lastCosine = -1.0;
    }

    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& wl, double& density) override {
        density = 0.0;
        // Both directions above the surface: wo.z * wi.z > 0 alone would let both below pass.
        if (!(wo.z * wi.z > 0.0) || wo.z < 1e-10 || wi.z < 1e-10 || wo.z * wi.z < 1e-16)
            return kBlack;
        double v = 0.0;
        if (_exponent > 0.0) {
            double c;
            if (_mirrorMode) {
                c = Dot(wo, Vec3{-wl.x, -wl.y, wl.z});
            } else {
                double len = Length(wo + wl);
                c = len == 0.0 ? 0.0 : std::abs(wo.z + wl.z) / len;
            }
            if (c > _cosineThreshold && wl.z * wo.z > 0.0) {
                // Fades the lobe out at grazing angles.
                double w = std::min(1.0, 10.0 * wl.z * wo.z);
                if (_curveMode) {
                    double theta = c >= 1.0 ? 0.0 : (c <= -1.0 ? kPi : std::acos(c));
                    double x = std::clamp((theta - _angleOffset) * _angleSlope, 0.0, kPi / 2) *
                               _angleScale;
                    double curve =
                        std::clamp(1.0 - _curveFactor * std::pow(x, _curvePower), 0.0, 1.0);
                    v = std::pow(curve, _curveExponent) * w * kPi;
                } else {
                    v = w * std::pow(c, _exponent) * kPi;
                }
            }
        }
        // The legacy scale of this lobe, on value and density alike.
        v = 100.0 * v;
        density = v * kInvPi;
        return Grey(v / wi.z);
    }

    // A Phong half-vector lobe of the plain exponent, whatever the modes.
    Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) override {
        double e = _exponent;
        double cosT = std::pow(double(sample[SAMPLERECORD_U1]), 1.0 / (e + 1.0));
        double sinT = std::sqrt(std::max(0.0, 1.0 - cosT * cosT));
        double phi = kTwoPi * double(sample[SAMPLERECORD_U2]);
        double d = (2.0 + e) * kInvTwoPi * std::pow(cosT, e);
        density = 0.0;
        if (!(d >= 1e-16)) return kBlack;
        Vec3 h{std::cos(phi) * sinT, std::sin(phi) * sinT, cosT};
        if (cosT < 0.0) h = -h;
        wi = 2.0 * Dot(wo, h) * h - wo;
        double zz = wo.z * wi.z;
        double c = Dot(wo, h);
        if (!(zz > 0.0) || std::abs(zz) < 1e-16 || c < 1e-16) return kBlack;
        density = d / (4.0 * kPi * std::abs(c));
        double g = Shadowing(wi, cosT, e) * Shadowing(wo, cosT, e);
        // Without the factor pi of the other models: the legacy value, kept.
        return Grey(d * g / (4.0 * std::abs(wo.z) * std::abs(wi.z)));
    }

    double PdfIndirect(const Vec3& /*wo*/, const Vec3& /*wi*/) override { return 1.0; }
    double ComputeMIPAngle(double angle) override {
        return std::min(std::pow(0.5, _exponent), angle);
    }

private:
    // The rational approximation of Beckmann-style shadowing for the Phong exponent e.
    static double Shadowing(const Vec3& d, double cosT, double e) {
        if (cosT * d.z <= 0.0) return 0.0;
        double s2 = 1.0 - d.z * d.z;
        double tau = s2 <= 0.0 ? 0.0 : std::abs(std::sqrt(s2) / d.z);
        if (tau < 1e-16) return 1.0;
        double b = std::sqrt(0.5 * e + 1.0) / tau;
        if (b > 1.6) return 1.0;
        return (2.181 * b + 3.535) * b / (1.0 + 2.276 * b + 2.577 * b * b);
    }

    double _exponent = 0.0;
    double _curvePower = 0.0;
    double _angleScale = 0.0;
    double _curveExponent = 0.0;
    double _curveFactor = 0.0;
    double _angleSlope = 0.0;
    double _angleOffset = 0.0;
    double _cosineThreshold = 0.0;
    bool _mirrorMode = false;
    bool _curveMode = false;
    [[maybe_unused]] double _lastCosine = -1.0;  // legacy state; Reset sets it to -1
};

KELVO_REGISTER_CLASS(s_blurrySpecular, "net.kelvo.render.bsdflegacyclass.blurryspecularbrdf",
                     kBsdfLegacyClassesRegistry, BSDFLegacyInterface::InterfaceId(),
                     BlurrySpecularBrdfImpl);
KELVO_REGISTER_CLASS(s_blurrySimple, "net.kelvo.render.bsdflegacyclass.blurrysimplebrdf",
                     kBsdfLegacyClassesRegistry, BSDFLegacyInterface::InterfaceId(),
                     BlurrySimpleBrdfImpl);

}  // namespace
}  // namespace kelvo::legacy
