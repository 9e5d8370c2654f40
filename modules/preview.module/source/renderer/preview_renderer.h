// The preview path tracer (PreviewRendererInterface). It reaches the render module's blocks
// only by id: the perspective camera class, the legacy BSDF classes, the distribution
// caches component, the IES component, the texture cache and the intersection class that
// RenderGeneralInterface names.
#pragma once

#include <atomic>
#include <mutex>
#include <vector>

#include "kelvo/camera.h"
#include "kelvo/intersector.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/previewrenderer.h"

namespace kelvo::preview {

// How the renderer reads a legacy model's value, in one place. The models keep quirks of
// their renderers: the transmission models return negative values (their divisor is the
// signed product of the two cosines), and some lobes return more than they reflect (values
// and albedos above one). The sign carries no meaning, so the magnitude is used; values
// above one are kept as the model gives them (the preview shows a model as it is), and a
// non-finite value counts as 0.
Col3 LegacyValue(const Col3& value);

// Everything one worker needs that must not be shared: the model objects. A transmission
// model has two more: itself with its indices exchanged, for paths inside the object, and
// the reflection model of its distribution, which gives the direction of total internal
// reflection about the same microfacet when no transmitted direction exists.
struct BsdfSet {
    StrongRef<BSDFLegacyInterface> material;
    StrongRef<BSDFLegacyInterface> inside;
    StrongRef<BSDFLegacyInterface> mirror;
    StrongRef<BSDFLegacyInterface> stage;
};

// How a model's environment light is estimated: light and BSDF samples weighted by the
// power heuristic where its densities agree; else its BSDF samples alone, or, for a model
// that samples nothing, its light samples alone.
enum class ENVWEIGHT : uint8_t { POWER, SAMPLES, LIGHT };
ENVWEIGHT EnvironmentWeighting(BSDFLegacyInterface& model);

// The reflection model of the same distribution as a transmission model ("...btdf" to
// "...brdf"); false for a model that does not transmit.
bool MirrorModelOf(const Id& transmission, Id& reflection);

class PreviewRendererImpl : public Implements<PreviewRendererInterface> {
public:
    Result<void> Init(const PreviewSettings& settings, const PreviewMaterial& material,
                      const PreviewLight& light) override;
    Result<void> RenderIteration(const std::function<bool()>& cancelled) override;
    Result<void> GetImage(std::span<float> rgb) const override;
    Result<void> GetImage(std::span<Col4f> rgba) const override;
    PreviewStatistics GetStatistics() const override;

    // The intersector in use (benchmarks compare its own speed on the same rays).
    const StrongRef<IntersectorInterface>& GetIntersector() const { return _scene; }

    struct PathStats {
        int64_t rays = 0;
    };
    // One sample's radiance for pixel position (x, y) (pixels, fractional), sample index s.
    Col3 TracePath(BsdfSet& bsdfs, double x, double y, uint64_t sampleIndex,
                   PathStats& stats) const;

private:
    // One surface scattering event: the direction to continue in, the weight of the path
    // (value x cosine / density x colour), and how the environment met along that direction
    // is to be weighted against its direct estimate.
    enum class MIS : uint8_t {
        NONE,   // nothing else finds this direction: full weight
        POWER,  // the power heuristic with the sample's density
    };
    struct Bounce {
        Vec3 wi;
        Col3 weight;
        double pdf = 0.0;
        MIS mis = MIS::NONE;
    };
    bool SampleBounce(BsdfSet& bsdfs, BSDFLegacyInterface& model, bool inside, const Vec3& wo,
                      const float* record, bool isMaterial, Bounce& bounce) const;
    Result<BsdfSet> TakeBsdfs();
    void ReturnBsdfs(BsdfSet set);
    Col3 StageColour(const IntersectionResult64& hit) const;
    Col3 SurfaceColour(const IntersectionResult64& hit, const Ray& ray, bool primary, double px,
                       double py) const;

    PreviewSettings _settings;
    PreviewMaterial _material;
    PreviewLight _light;
    StrongRef<CameraInterface> _camera;
    StrongRef<IntersectorInterface> _scene;
    StrongRef<MicrofacetDistributionCachesInterface> _caches;
    StrongRef<DataDictionary> _materialData;
    StrongRef<DataDictionary> _insideData;  // indices exchanged; null unless transmissive
    Id _mirrorModel;
    // iorOut / iorIn as seen from outside; inside its inverse.
    double _etaOutside = 1.0;
    ENVWEIGHT _materialWeighting = ENVWEIGHT::POWER;
    // For a model that samples nothing: the exponent of its cosine-power lobe about the view
    // direction (the blurry simple lobe's), which its light samples follow in part; 0: none.
    double _lobeExponent = 0.0;
    StrongRef<DataDictionary> _stageData;
    StrongRef<TextureSamplerInterface> _texture;
    StrongRef<IesInterface> _profile;
    std::vector<bool> _objectUsesMaterial;
    // The light's frame: the profile's -z axis (its nadir) points at the target.
    Vec3 _lightX, _lightY, _lightZ;
    std::string _intersectorId;
    double _fieldOfView = 1.0;
    bool _textureSrgb = false;
    bool _transmissive = false;

    std::mutex _poolLock;
    std::vector<BsdfSet> _pool;

    std::vector<double> _sum;  // width x height x 3
    int64_t _samples = 0;
    int64_t _iterations = 0;
    int64_t _rays = 0;
    double _seconds = 0.0, _lastSeconds = 0.0;
};

}  // namespace kelvo::preview
