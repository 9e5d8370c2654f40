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

// Everything one worker needs that must not be shared: the model objects.
struct BsdfSet {
    StrongRef<BSDFLegacyInterface> material;
    StrongRef<BSDFLegacyInterface> stage;
};

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
    Result<BsdfSet> TakeBsdfs();
    void ReturnBsdfs(BsdfSet set);
    Col3 SurfaceColour(const IntersectionResult64& hit, const Ray& ray, bool primary, double px,
                       double py) const;

    PreviewSettings _settings;
    PreviewMaterial _material;
    PreviewLight _light;
    StrongRef<CameraInterface> _camera;
    StrongRef<IntersectorInterface> _scene;
    StrongRef<MicrofacetDistributionCachesInterface> _caches;
    StrongRef<DataDictionary> _materialData;
    StrongRef<DataDictionary> _stageData;
    StrongRef<TextureSamplerInterface> _texture;
    StrongRef<IesInterface> _profile;
    std::vector<bool> _objectUsesMaterial;
    // The light's frame: the profile's -z axis (its nadir) points at the target.
    Vec3 _lightX, _lightY, _lightZ;
    std::string _intersectorId;
    double _fieldOfView = 1.0;
    bool _textureSrgb = false;

    std::mutex _poolLock;
    std::vector<BsdfSet> _pool;

    std::vector<double> _sum;  // width x height x 3
    int64_t _samples = 0;
    int64_t _iterations = 0;
    int64_t _rays = 0;
    double _seconds = 0.0, _lastSeconds = 0.0;
};

}  // namespace kelvo::preview
