// Woven-cloth reflection (Irawan and Marschner): a Lambertian term per yarn plus the
// specular reflection of the yarns' fibres, normalised so that ks is the specular albedo.
#include <algorithm>
#include <cmath>
#include <string>

#include "bsdf_legacy_base.h"
#include "cloth_weave_pattern_impl.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/bsdfdata.h"

namespace kelvo::legacy {
namespace {

class IrawanBrdfImpl final : public BsdfLegacyBase {
public:
    // Reads the pattern (none: only the warp's diffuse term), the repeats, the texture
    // coordinate of the shading point and the grey yarn weights.
    Result<void> Update(const DataDictionary& data) override {
        _warpDiffuse = data.Get<double>(bsdfdata::kWarpDiffuse, 0.0);
        _warpSpecular = data.Get<double>(bsdfdata::kWarpSpecular, 0.0);
        _weftDiffuse = data.Get<double>(bsdfdata::kWeftDiffuse, 0.0);
        _weftSpecular = data.Get<double>(bsdfdata::kWeftSpecular, 0.0);
        _st = data.Get<Vec2>(bsdfdata::kTextureCoordinate, Vec2{});
        std::string name = data.Get<std::string>(bsdfdata::kClothPattern, std::string());
        if (name.empty()) {
            _pattern.Clear();
            return OK();
        }
        return _pattern.SetPattern(name, data.Get<Vec2>(bsdfdata::kClothRepeat, Vec2{1.0, 1.0}));
    }
    void VisitState(const LegacyStateVisitor& field) const override {
        field("_warpDiffuse", _warpDiffuse);
        field("_warpSpecular", _warpSpecular);
        field("_weftDiffuse", _weftDiffuse);
        field("_weftSpecular", _weftSpecular);
    }
    void Reset() override {
        _pattern.Clear();
        _warpDiffuse = _warpSpecular = _weftDiffuse = _weftSpecular = 0.0;
        _st = {};
    }

    // Cosine-weighted over wo's hemisphere, as the model has no sampler of its own.
    Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) override {
        wi = CosineSampledDirection(sample);
        if (wo.z < 0.0) wi.z = -wi.z;
        return ComputeBSDF(wo, wi, wi, density);
    }

    Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& /*wl*/, double& density) override {
        density = 0.0;
        if (!(wo.z * wi.z > 0.0) || std::abs(wi.z) < 1e-10) return kBlack;
        density = std::abs(wi.z) * kInvPi;
        // Seen from below, the weave is mirrored through the surface; its back is not
        // modelled apart.
        Vec3 i = wi, o = wo;
        if (wo.z < 0.0) {
            i.z = -i.z;
            o.z = -o.z;
        }
        return Grey(Value(i, o));
    }

    double PdfIndirect(const Vec3& wo, const Vec3& wi) override {
        if (!(wo.z * wi.z > 0.0) || std::abs(wi.z) < 1e-10) return 0.0;
        return std::abs(wi.z) * kInvPi;
    }

private:
    double Value(const Vec3& wi, const Vec3& wo) const {
        const WeavePattern* pattern = _pattern.Pattern();
        if (!pattern) return _warpDiffuse;
        const Vec2& r = _pattern.Repeat();
        cloth::YarnPoint p = cloth::Locate(*pattern, _st.x, _st.y, r.x, r.y);
        if (p.segment < 0) return _warpDiffuse;
        double kd = p.weft ? _weftDiffuse : _warpDiffuse;
        double ks = p.weft ? _weftSpecular : _warpSpecular;
        double e = _pattern.Normalisation();
        // E = 0 (no segment reflects at all) switches the specular term off.
        if (ks == 0.0 || !(e > 0.0)) return kd;
        cloth::Scattering sc{pattern->alpha, pattern->beta, pattern->smoothing,
                             pattern->highlightWidth};
        Vec3 i = p.weft ? cloth::ToWeftFrame(wi) : wi, o = p.weft ? cloth::ToWeftFrame(wo) : wo;
        double s = cloth::Specular(p.yarn, sc, p.x, p.y, i, o);
        return kd + ks * p.coverage * p.intensity * s / e;
    }

    ClothWeavePatternImpl _pattern;
    Vec2 _st;
    double _warpDiffuse = 0.0, _warpSpecular = 0.0, _weftDiffuse = 0.0, _weftSpecular = 0.0;
};

KELVO_REGISTER_CLASS(s_irawan, "net.kelvo.render.bsdflegacyclass.irawanbrdf",
                     kBsdfLegacyClassesRegistry, BSDFLegacyInterface::InterfaceId(),
                     IrawanBrdfImpl);

}  // namespace
}  // namespace kelvo::legacy
