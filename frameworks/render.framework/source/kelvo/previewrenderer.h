// The material-preview renderer: a progressive path tracer over a small swatch scene,
// built from the registered blocks alone (camera class, legacy BSDF classes, the shared
// distribution tables, IES profiles, textures and the configured intersection class).
//
// Use:
//   KELVO_ASSIGN_OR_RETURN(auto r, CreateClass<PreviewRendererInterface>(kPreviewRendererClass));
//   KELVO_TRY(r->Init(settings, material, light));
//   for (...) KELVO_TRY(r->RenderIteration({}));   // each adds samples to every pixel
//   KELVO_TRY(r->GetImage(rgb));                    // the mean so far, linear RGB
//
// An iteration spreads tiles over ParallelFor. For one seed the image is the same whatever
// the thread count: every pixel sample draws from its own random sequence.
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>

#include "kelvo/data.h"
#include "kelvo/ies.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/texture.h"
#include "kelvo/url.h"
#include "kelvo/vec.h"

namespace kelvo {

inline constexpr Id kPreviewRendererClasses("net.kelvo.render.registry.previewrendererclasses");
inline constexpr Id kPreviewRendererClass("net.kelvo.preview.previewrendererclass.pathtracer");

// The bounds every part of the preview path checks against: pixels per side of a preview,
// and iterations of one preview (one sample per pixel each), with the count used when a
// request names none.
inline constexpr int64_t kPreviewMaxSide = 16384;
inline constexpr int64_t kPreviewMaxIterations = int64_t(1) << 20;
inline constexpr int64_t kPreviewDefaultIterations = 16;

enum class PREVIEWSCENE : uint8_t {
    OPEN,    // the sphere alone under the environment
    SPHERE,  // a sphere on a ground plane before a curved backdrop
    CUBE,    // a rounded cube on the same stage
    PLANE,   // a ground plane alone, seen at a slant (texture and light checks)
};

inline constexpr std::string_view kPreviewSceneNames[] = {"open", "sphere", "cube", "plane"};
inline std::string_view PreviewSceneName(PREVIEWSCENE scene) {
    return kPreviewSceneNames[size_t(scene)];
}
// "open", "sphere", "cube", "plane"; false for any other name.
inline bool ParsePreviewScene(std::string_view name, PREVIEWSCENE& scene) {
    for (size_t i = 0; i < std::size(kPreviewSceneNames); ++i)
        if (kPreviewSceneNames[i] == name) {
            scene = PREVIEWSCENE(i);
            return true;
        }
    return false;
}

struct PreviewMaterial {
    // A class of kBsdfLegacyClassesRegistry.
    Id model = Id("net.kelvo.render.bsdflegacyclass.lambertbrdf");
    // The BSDF data record; the renderer adds the distribution tables. May be null.
    StrongRef<DataDictionary> data;
    // Multiplies the model's colourless value (and the texture, when there is one).
    Col3 colour{1.0, 1.0, 1.0};
    // The colour texture: `textureSampler` when set, else `texture` through the texture
    // cache; an empty url means none.
    StrongRef<TextureSamplerInterface> textureSampler;
    Url texture;
    TEXTUREMODE textureMode = TEXTUREMODE::MIPMAP;
    // Repeats of the texture across the surface's uv range.
    double textureRepeat = 1.0;
};

// A point light above the swatch, shaped by an IES profile when one is given.
struct PreviewLight {
    bool enabled = true;
    Vec3 position{-2.5, 4.0, -3.0};
    Vec3 target{0.0, 0.0, 0.0};  // the profile's nadir points here
    // Radiant intensity along the profile's brightest direction (W/sr per unit colour).
    double intensity = 12.0;
    Col3 colour{1.0, 1.0, 1.0};
    StrongRef<IesInterface> profile;  // used when set
    Url ies;                          // else loaded from here when not empty
};

struct PreviewSettings {
    int64_t width = 128;
    int64_t height = 128;
    PREVIEWSCENE scene = PREVIEWSCENE::SPHERE;
    uint64_t seed = 0;
    int samplesPerIteration = 1;      // per pixel
    int maxDepth = 8;                 // bounces after the camera hit
    Col3 environment{1.0, 1.0, 1.0};  // uniform radiance of the surroundings
    int threads = 0;                  // 0: every host thread
    int tileSize = 16;
    int sphereSegments = 64;  // tessellation of the curved shapes
    // The distribution tables to share with other renderers (allocated and initialised by
    // the caller, kept while the renderer lives); a new caches object of its own when null.
    // Filling a new one costs a good part of a small swatch's first iteration.
    StrongRef<MicrofacetDistributionCachesInterface> caches;
};

struct PreviewStatistics {
    std::string intersector;  // id of the intersection class in use
    int64_t iterations = 0;
    int64_t samplesPerPixel = 0;
    int64_t rays = 0;      // every ray of every iteration: camera, bounce and shadow
    double seconds = 0.0;  // wall time of all iterations
    double lastIterationSeconds = 0.0;
};

class PreviewRendererInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.previewrenderer"); }

    // Builds the scene, the camera, the material and the light, and clears the image.
    // Errors: "Illegal argument: Preview size @ x @ is out of range." (1..kPreviewMaxSide per
    // side), the registries' errors ("Class @ not found.", "No default intersector found.", ...),
    // the texture's and IES profile's loading errors with their url.
    virtual Result<void> Init(const PreviewSettings& settings, const PreviewMaterial& material,
                              const PreviewLight& light) = 0;
    // Adds samplesPerIteration samples to every pixel. `cancelled` is asked between tiles;
    // when it answers true the iteration stops with "Illegal state: The preview iteration
    // was cancelled." and the image stays as it was before the iteration.
    virtual Result<void> RenderIteration(const std::function<bool()>& cancelled) = 0;
    // The mean radiance per pixel, rows from the top, 3 floats per pixel (width x height x 3).
    // Fails with "Illegal argument: The image needs @ floats, not @." for another size.
    virtual Result<void> GetImage(std::span<float> rgb) const = 0;
    // The same as colours with alpha 1 (width x height), the form preview images are
    // delivered in, written without a copy in between. Fails with "Illegal argument: The
    // image needs @ pixels, not @." for another size.
    virtual Result<void> GetImage(std::span<Col4f> rgba) const = 0;
    virtual PreviewStatistics GetStatistics() const = 0;
};

}  // namespace kelvo
