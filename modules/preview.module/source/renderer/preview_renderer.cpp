#include "preview_renderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>

#include "kelvo/io.h"
#include "kelvo/jobs.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"
#include "kelvo/rendergeneral.h"
#include "preview_scene.h"

namespace kelvo::preview {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kInvPi = 1.0 / kPi;
constexpr Id kLambert("net.kelvo.render.bsdflegacyclass.lambertbrdf");
// The stage is a light grey, so that it shows the light without outshining the swatch.
constexpr Col3 kStageColour{0.6, 0.6, 0.6};
// Bounces after which Russian roulette may end a path.
constexpr int kRouletteDepth = 3;

// A counter-based generator: every pixel sample has its own sequence, so the image does
// not depend on which thread renders which tile.
uint64_t Mix(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}
struct SampleRandom {
    uint64_t state;
    SampleRandom(uint64_t seed, uint64_t pixel, uint64_t sample)
        : state(Mix(Mix(Mix(seed + 0x9E3779B97F4A7C15ull) ^ pixel) ^
                    (sample * 0xD1B54A32D192ED03ull))) {}
    double Next() {
        state += 0x9E3779B97F4A7C15ull;
        return double(Mix(state) >> 11) * 0x1.0p-53;
    }
};

double MaxComponent(const Col3& c) { return std::max({c.r, c.g, c.b}); }
bool IsBlack(const Col3& c) { return c.r <= 0.0 && c.g <= 0.0 && c.b <= 0.0; }

// The power heuristic of multiple importance sampling.
double PowerWeight(double a, double b) {
    if (!(a > 0.0)) return 0.0;
    if (!(b > 0.0)) return 1.0;
    return a * a / (a * a + b * b);
}

// The sample record a legacy model reads (kelvo/legacy_renderers/bsdf_legacy.h).
void FillSampleRecord(SampleRandom& random, float* record) {
    const double u1 = random.Next(), u2 = random.Next();
    const double phi = 2.0 * kPi * random.Next(), u = random.Next();
    std::fill(record, record + kSampleRecordFloats, 0.0f);
    record[SAMPLERECORD_U1] = float(u1);
    record[SAMPLERECORD_U2] = float(u2);
    record[SAMPLERECORD_AZIMUTHCOS] = float(std::cos(phi));
    record[SAMPLERECORD_AZIMUTHSIN] = float(std::sin(phi));
    record[SAMPLERECORD_POLARCOS] = float(std::sqrt(1.0 - u));  // cosine-weighted
    record[SAMPLERECORD_POLARSIN] = float(std::sqrt(u));
}

Vec3 ToLocal(const BsdfFrame& f, const Vec3& v) {
    return {Dot(v, f.tangentU), Dot(v, f.tangentV), Dot(v, f.normal)};
}
Vec3 ToWorld(const BsdfFrame& f, const Vec3& v) {
    return f.tangentU * v.x + f.tangentV * v.y + f.normal * v.z;
}

Result<StrongRef<DataDictionary>> CopyRecord(const StrongRef<DataDictionary>& from,
                                             const MicrofacetDistributionCachesInterface& caches) {
    KELVO_ASSIGN_OR_RETURN(auto data, NewObject<DataDictionary>());
    if (from) *data = *from;
    KELVO_TRY(bsdfdata::SetDistributionTables(*data, &caches));
    return data;
}

}  // namespace

Col3 LegacyValue(const Col3& value) {
    auto one = [](double v) { return std::isfinite(v) ? std::abs(v) : 0.0; };
    return {one(value.r), one(value.g), one(value.b)};
}

Result<void> PreviewRendererImpl::Init(const PreviewSettings& settings,
                                       const PreviewMaterial& material, const PreviewLight& light) {
    if (settings.width < 1 || settings.height < 1 || settings.width > kPreviewMaxSide ||
        settings.height > kPreviewMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Preview size @ x @ is out of range.",
                                    settings.width, settings.height);
    _settings = settings;
    _settings.samplesPerIteration = std::max(1, settings.samplesPerIteration);
    _settings.maxDepth = std::clamp(settings.maxDepth, 0, 64);
    _settings.tileSize = std::clamp(settings.tileSize, 1, 1024);
    _material = material;
    _light = light;

    // The engine: the configured intersection class.
    KELVO_ASSIGN_OR_RETURN(auto general, CreateComponent<RenderGeneralInterface>());
    KELVO_ASSIGN_OR_RETURN(const EntryRecord* engine, general->GetDefaultIntersector());
    KELVO_ASSIGN_OR_RETURN(_scene, CreateIntersector(*engine));
    _intersectorId = std::string(engine->GetId().Text());
    const SceneData scene = MakeScene(settings.scene, std::clamp(settings.sphereSegments, 4, 1024));
    _objectUsesMaterial.clear();
    for (const MeshData& m : scene.meshes) {
        KELVO_ASSIGN_OR_RETURN(int32_t mesh,
                               _scene->AddMesh({m.positions, m.indices, m.normals, m.uvs}));
        KELVO_ASSIGN_OR_RETURN(int32_t object, _scene->AddInstance(mesh, Matrix{}));
        if (size_t(object) >= _objectUsesMaterial.size())
            _objectUsesMaterial.resize(size_t(object) + 1, false);
        _objectUsesMaterial[size_t(object)] = m.usesMaterial;
    }
    KELVO_TRY(_scene->Commit());

    // The camera class, by id.
    KELVO_ASSIGN_OR_RETURN(_camera, CreateClass<CameraInterface>(kPerspectiveCameraClass));
    KELVO_ASSIGN_OR_RETURN(auto parameters, NewObject<DataDictionary>());
    KELVO_TRY(parameters->Set(CAMERAPARAMETERS::MATRIX,
                              LookAt(scene.camera.position, scene.camera.target)));
    KELVO_TRY(parameters->Set(CAMERAPARAMETERS::SCREENRESOLUTION,
                              Vec2{double(settings.width), double(settings.height)}));
    KELVO_TRY(parameters->Set(CAMERAPARAMETERS::FIELDOFVIEW, scene.camera.fieldOfView));
    KELVO_TRY(_camera->Init(parameters, false));
    _fieldOfView = scene.camera.fieldOfView;

    // One caches object for every model of this renderer, or the one the caller shares.
    _caches = settings.caches;
    if (!_caches) {
        KELVO_ASSIGN_OR_RETURN(_caches, CreateComponent<MicrofacetDistributionCachesInterface>());
        KELVO_TRY(_caches->Alloc());
        _caches->Init();
    }
    KELVO_ASSIGN_OR_RETURN(_materialData, CopyRecord(material.data, *_caches));
    KELVO_ASSIGN_OR_RETURN(_stageData, CopyRecord(nullptr, *_caches));
    {
        std::lock_guard lock(_poolLock);
        _pool.clear();
    }
    // Fails early on an unknown model, rather than in the first iteration.
    KELVO_ASSIGN_OR_RETURN(BsdfSet first, TakeBsdfs());
    ReturnBsdfs(std::move(first));

    _texture = material.textureSampler;
    if (!_texture && !material.texture.IsEmpty()) {
        KELVO_ASSIGN_OR_RETURN(auto cache, CreateComponent<TextureManagementInterface>());
        KELVO_ASSIGN_OR_RETURN(_texture, cache->GetTexture(material.texture, nullptr));
    }
    if (_texture) {
        KELVO_TRY(_texture->Prepare(material.textureMode));
        // Textures authored in sRGB are filtered as stored and shaded in linear light.
        auto texture = _texture->GetTexture();
        _textureSrgb = texture && texture->GetColorProfile() == COLORPROFILE::SRGB;
    }

    _profile = light.profile;
    if (!_profile && !light.ies.IsEmpty()) {
        KELVO_ASSIGN_OR_RETURN(auto input, OpenInputStream(light.ies));
        KELVO_ASSIGN_OR_RETURN(_profile, CreateComponent<IesInterface>());
        if (auto ok = _profile->Init(input); !ok) {
            const Error& e = ok.GetError();
            return Error(e.Kind(), e.Location(), e.Message(), light.ies.ToString());
        }
    }
    // The light frame: z points away from the target, so the nadir (-z) points at it.
    _lightZ = Normalize(light.position - light.target);
    if (SquaredLength(_lightZ) == 0.0) _lightZ = {0, 1, 0};
    BsdfFrame frame = BuildBsdfFrame(_lightZ, {}, {}, false);
    _lightX = frame.tangentU;
    _lightY = frame.tangentV;

    _sum.assign(size_t(settings.width * settings.height * 3), 0.0);
    _samples = _iterations = _rays = 0;
    _seconds = _lastSeconds = 0.0;
    return OK();
}

Result<BsdfSet> PreviewRendererImpl::TakeBsdfs() {
    {
        std::lock_guard lock(_poolLock);
        if (!_pool.empty()) {
            BsdfSet set = std::move(_pool.back());
            _pool.pop_back();
            return set;
        }
    }
    BsdfSet set;
    KELVO_ASSIGN_OR_RETURN(set.material, CreateClass<BSDFLegacyInterface>(_material.model));
    KELVO_TRY(set.material->Init(*_materialData));
    KELVO_ASSIGN_OR_RETURN(set.stage, CreateClass<BSDFLegacyInterface>(kLambert));
    KELVO_TRY(set.stage->Init(*_stageData));
    return set;
}

void PreviewRendererImpl::ReturnBsdfs(BsdfSet set) {
    std::lock_guard lock(_poolLock);
    _pool.push_back(std::move(set));
}

Col3 PreviewRendererImpl::SurfaceColour(const IntersectionResult64& hit, const Ray& ray,
                                        bool primary, double px, double py) const {
    if (!_texture) return _material.colour;
    ShadingPoint sp;
    sp.position = hit.hitPosition;
    sp.normal = hit.shadingNormal;
    sp.geometricNormal = hit.geometricNormal;
    const double repeat = _material.textureRepeat;
    sp.dpdu = hit.dpdu * (1.0 / repeat);
    sp.dpdv = hit.dpdv * (1.0 / repeat);
    TextureFootprint footprint;
    if (primary) {
        // The camera's differentials give the pixel's footprint on the tangent plane.
        Ray r = ray;
        _camera->CalculateMIPComponents({px, py}, r, sp);
        footprint = ComputeTextureFootprint(sp, _fieldOfView);
    }
    TextureSampleOptions options;
    options.mode = _material.textureMode;
    options.srgbToLinear = _textureSrgb;
    auto c = _texture->ThreadedTextureSampleColor({hit.uvw.x * repeat, hit.uvw.y * repeat},
                                                  footprint, options);
    if (!c) return _material.colour;
    return _material.colour * Col3{c->r, c->g, c->b};
}

Col3 PreviewRendererImpl::TracePath(BsdfSet& bsdfs, double px, double py, uint64_t sampleIndex,
                                    PathStats& stats) const {
    const uint64_t pixel = uint64_t(int64_t(py) * _settings.width + int64_t(px));
    SampleRandom random(_settings.seed, pixel, sampleIndex);
    const double sx = px + random.Next(), sy = py + random.Next();
    Ray ray;
    _camera->CreateScreenRay({sx, sy}, ray);
    RayLimits limits;
    Col3 radiance, throughput{1.0, 1.0, 1.0};
    double lastPdf = 0.0;  // density of the BSDF sample that made `ray`; 0 for the camera
    Vec3 lastNormal;
    const Col3 env = _settings.environment;
    const bool envOn = !IsBlack(env);
    float record[kSampleRecordFloats];

    for (int depth = 0;; ++depth) {
        IntersectionResult64 hit;
        ++stats.rays;
        if (!_scene->Intersect(ray, limits, hit)) {
            if (envOn) {
                // The environment is also sampled directly (cosine-weighted about the normal).
                double w = 1.0;
                if (lastPdf > 0.0) {
                    double lightPdf = std::max(0.0, Dot(lastNormal, ray.direction)) * kInvPi;
                    w = PowerWeight(lastPdf, lightPdf);
                }
                radiance = radiance + throughput * env * w;
            }
            break;
        }
        if (depth > _settings.maxDepth) break;

        const bool isMaterial = size_t(hit.objectIndex) < _objectUsesMaterial.size() &&
                                _objectUsesMaterial[size_t(hit.objectIndex)];
        BSDFLegacyInterface& model = isMaterial ? *bsdfs.material : *bsdfs.stage;
        const Col3 colour = isMaterial ? SurfaceColour(hit, ray, depth == 0, sx, sy) : kStageColour;

        // The shading frame faces the viewer (both sides of a surface look alike).
        Vec3 n = SquaredLength(hit.shadingNormal) > 0.0 ? hit.shadingNormal : hit.geometricNormal;
        if (Dot(n, ray.direction) > 0.0) n = -n;
        const BsdfFrame frame = model.ComputeBSDFFrame(n, {}, {}, false);
        const Vec3 wo = ToLocal(frame, -ray.direction);
        const Vec3 origin = hit.hitPosition;
        RayLimits leave;
        leave.ignoreObject = hit.objectIndex;
        leave.ignorePolygon = hit.polygonIndex;
        leave.tmin = 1e-7;
        auto visible = [&](const Vec3& dir, double tmax) {
            Ray shadow;
            shadow.origin = origin;
            shadow.direction = dir;
            RayLimits l = leave;
            l.tmax = tmax;
            ++stats.rays;
            return !_scene->Occluded(shadow, l);
        };

        // Next-event estimation: the environment.
        if (envOn) {
            const double u = random.Next(), phi = 2.0 * kPi * random.Next();
            const double c = std::sqrt(1.0 - u), s = std::sqrt(u);
            const Vec3 wi{s * std::cos(phi), s * std::sin(phi), c};
            const double lightPdf = c * kInvPi;
            double unused;
            const Col3 f = LegacyValue(model.ComputeBSDF(wo, wi, wi, unused));
            if (lightPdf > 0.0 && !IsBlack(f)) {
                const double bsdfPdf = model.PdfIndirect(wo, wi);
                if (visible(ToWorld(frame, wi), std::numeric_limits<double>::infinity())) {
                    const double w = PowerWeight(lightPdf, bsdfPdf);
                    radiance = radiance + throughput * colour * f * env *
                                              (kInvPi * std::abs(wi.z) * w / lightPdf);
                }
            }
        }
        // Next-event estimation: the key light, a point (no MIS: nothing else can find it).
        if (_light.enabled && _light.intensity > 0.0) {
            Vec3 toLight = _light.position - origin;
            const double d2 = SquaredLength(toLight);
            if (d2 > 0.0) {
                const double d = std::sqrt(d2);
                const Vec3 dir = toLight * (1.0 / d);
                const Vec3 wi = ToLocal(frame, dir);
                double shape = 1.0;
                if (_profile) {
                    const Vec3 out = -dir;  // from the light towards the point, in its frame
                    shape = _profile->ComputeLightIntensity(
                        {Dot(out, _lightX), Dot(out, _lightY), Dot(out, _lightZ)});
                }
                double unused;
                const Col3 f =
                    shape > 0.0 ? LegacyValue(model.ComputeBSDF(wo, wi, wi, unused)) : Col3{};
                if (!IsBlack(f) && visible(dir, d * (1.0 - 1e-9)))
                    radiance =
                        radiance + throughput * colour * f * _light.colour *
                                       (_light.intensity * shape * kInvPi * std::abs(wi.z) / d2);
            }
        }

        // Continue along a direction the model samples.
        FillSampleRecord(random, record);
        Vec3 wi;
        double pdf = 0.0;
        const Col3 f = LegacyValue(model.SampleF(wo, record, wi, pdf));
        if (!(pdf > 0.0) || IsBlack(f) || !std::isfinite(pdf)) break;
        throughput = throughput * colour * f * (kInvPi * std::abs(wi.z) / pdf);
        if (depth + 1 >= kRouletteDepth) {
            const double q = std::min(0.95, MaxComponent(throughput));
            if (!(q > 0.0) || random.Next() >= q) break;
            throughput = throughput * (1.0 / q);
        }
        lastPdf = pdf;
        lastNormal = n;
        ray = Ray{};
        ray.origin = origin;
        ray.direction = Normalize(ToWorld(frame, wi));
        limits = leave;
    }
    return radiance;
}

Result<void> PreviewRendererImpl::RenderIteration(const std::function<bool()>& cancelled) {
    if (!_scene || !_camera)
        return IllegalStateError(KELVO_HERE, "The preview is not initialised.");
    const auto start = std::chrono::steady_clock::now();
    const int64_t w = _settings.width, h = _settings.height, tile = _settings.tileSize;
    const int64_t tilesX = (w + tile - 1) / tile, tilesY = (h + tile - 1) / tile;
    const int spp = _settings.samplesPerIteration;
    std::vector<float, Allocator<float>> pass;
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        pass.assign(size_t(w * h * 3), 0.0f);
        return OK();
    }));
    struct Local {
        BsdfSet bsdfs;
        PathStats stats;
        bool taken = false;
    };
    std::atomic<int64_t> rays{0};
    const uint64_t firstSample = uint64_t(_samples);
    auto init = [&](Local& local) -> Result<void> {
        KELVO_ASSIGN_OR_RETURN(local.bsdfs, TakeBsdfs());
        local.taken = true;
        return OK();
    };
    auto work = [&](Local& local, int64_t t) -> Result<void> {
        if (cancelled && cancelled())
            return IllegalStateError(KELVO_HERE, "The preview iteration was cancelled.");
        const int64_t x0 = (t % tilesX) * tile, y0 = (t / tilesX) * tile;
        for (int64_t y = y0; y < std::min(h, y0 + tile); ++y)
            for (int64_t x = x0; x < std::min(w, x0 + tile); ++x) {
                Col3 c;
                for (int s = 0; s < spp; ++s)
                    c = c + TracePath(local.bsdfs, double(x), double(y), firstSample + uint64_t(s),
                                      local.stats);
                float* p = &pass[size_t((y * w + x) * 3)];
                p[0] = float(c.r);
                p[1] = float(c.g);
                p[2] = float(c.b);
            }
        return OK();
    };
    auto finalise = [&](Local& local) {
        rays += local.stats.rays;
        if (local.taken) ReturnBsdfs(std::move(local.bsdfs));
    };
    ParallelForOptions options;
    options.chunkSize = 1;
    options.threads = _settings.threads;
    KELVO_TRY(ParallelFor<Local>(0, tilesX * tilesY, init, work, finalise, options));

    for (size_t i = 0; i < _sum.size(); ++i) _sum[i] += double(pass[i]);
    _samples += spp;
    ++_iterations;
    _rays += rays.load();
    _lastSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    _seconds += _lastSeconds;
    return OK();
}

Result<void> PreviewRendererImpl::GetImage(std::span<float> rgb) const {
    if (rgb.size() != _sum.size())
        return IllegalArgumentError(KELVO_HERE, "The image needs @ floats, not @.",
                                    int64_t(_sum.size()), int64_t(rgb.size()));
    const double scale = _samples > 0 ? 1.0 / double(_samples) : 0.0;
    for (size_t i = 0; i < _sum.size(); ++i) rgb[i] = float(_sum[i] * scale);
    return OK();
}

Result<void> PreviewRendererImpl::GetImage(std::span<Col4f> rgba) const {
    if (rgba.size() * 3 != _sum.size())
        return IllegalArgumentError(KELVO_HERE, "The image needs @ pixels, not @.",
                                    int64_t(_sum.size() / 3), int64_t(rgba.size()));
    const double scale = _samples > 0 ? 1.0 / double(_samples) : 0.0;
    for (size_t i = 0; i < rgba.size(); ++i)
        rgba[i] = Col4f{float(_sum[i * 3] * scale), float(_sum[i * 3 + 1] * scale),
                        float(_sum[i * 3 + 2] * scale), 1.0f};
    return OK();
}

PreviewStatistics PreviewRendererImpl::GetStatistics() const {
    PreviewStatistics s;
    s.intersector = _intersectorId;
    s.iterations = _iterations;
    s.samplesPerPixel = _samples;
    s.rays = _rays;
    s.seconds = _seconds;
    s.lastIterationSeconds = _lastSeconds;
    return s;
}

}  // namespace kelvo::preview
