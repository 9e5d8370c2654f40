#include "preview_renderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>

#include "kelvo/io.h"
#include "kelvo/jobs.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/registry.h"
#include "kelvo/rendergeneral.h"
#include "preview_sampler.h"
#include "preview_scene.h"

namespace kelvo::preview {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kInvPi = 1.0 / kPi;
constexpr Id kLambert("net.kelvo.render.bsdflegacyclass.lambertbrdf");
// The stage is a light grey, so that it shows the light without outshining the swatch.
constexpr Col3 kStageColour{0.6, 0.6, 0.6};
constexpr Col3 kStageLight{0.8, 0.8, 0.8}, kStageDark{0.15, 0.15, 0.15};
// Bounces after which Russian roulette may end a path, and the throughput (brightest
// channel) below which it does.
constexpr int kRouletteDepth = 2;
constexpr double kRouletteBelow = 0.1;
// Bounces whose decisions read the stratified sequence.
constexpr int kStratifiedDepth = 2;

double MaxComponent(const Col3& c) { return std::max({c.r, c.g, c.b}); }
bool IsBlack(const Col3& c) { return c.r <= 0.0 && c.g <= 0.0 && c.b <= 0.0; }

// The power heuristic of multiple importance sampling.
double PowerWeight(double a, double b) {
    if (!(a > 0.0)) return 0.0;
    if (!(b > 0.0)) return 1.0;
    return a * a / (a * a + b * b);
}

// The sample record a legacy model reads (kelvo/legacy_renderers/bsdf_legacy.h), from one
// 2D point: every model reads one pair of its numbers (u1 and u2; or the azimuth and the
// cosine-weighted polar angle; or u2 and the azimuth), and each pair is the point itself, so
// whatever the model, its directions inherit the point's stratification.
void FillSampleRecord(double a, double b, float* record) {
    // The record holds floats: the azimuth's sine and cosine are taken in float too.
    const float phi = float(2.0 * kPi * a);
    std::fill(record, record + kSampleRecordFloats, 0.0f);
    record[SAMPLERECORD_U1] = float(a);
    record[SAMPLERECORD_U2] = float(b);
    record[SAMPLERECORD_AZIMUTHCOS] = std::cos(phi);
    record[SAMPLERECORD_AZIMUTHSIN] = std::sin(phi);
    record[SAMPLERECORD_POLARCOS] = float(std::sqrt(1.0 - b));  // cosine-weighted
    record[SAMPLERECORD_POLARSIN] = float(std::sqrt(b));
}

// A direction about the local normal, cosine-weighted.
Vec3 CosineDirection(double u, double v) {
    const float phi = float(2.0 * kPi * v);
    const double c = std::sqrt(1.0 - u), s = std::sqrt(u);
    return {s * std::cos(phi), s * std::sin(phi), c};
}

// Light samples for a model that samples nothing: uniform over the hemisphere, cosine-
// weighted, and (with an exponent) a cosine-power lobe about `wo`, chosen by `u` in equal
// shares; MixturePdf is the density of the whole mixture. A lobe direction below the surface
// carries nothing.
Vec3 MixtureDirection(const Vec3& wo, double exponent, double u, double v) {
    const int parts = exponent > 0.0 ? 3 : 2;
    const double scaled = u * parts;
    const int part = std::min(int(scaled), parts - 1);
    const double w = scaled - part;
    if (part == 1) return CosineDirection(w, v);
    const double c =
        std::clamp(part == 0 ? 1.0 - w : std::pow(w, 1.0 / (exponent + 1.0)), 0.0, 1.0);
    const double s = std::sqrt(1.0 - c * c);
    const float phi = float(2.0 * kPi * v);
    const Vec3 local{s * std::cos(phi), s * std::sin(phi), c};
    if (part == 0) return local;
    // A frame about wo (unit length): x perpendicular to it, y completing it.
    const Vec3& z = wo;
    const Vec3 x =
        Normalize(std::abs(z.x) < 0.9 ? Cross(Vec3{1, 0, 0}, z) : Cross(Vec3{0, 1, 0}, z));
    const Vec3 y = Cross(z, x);
    return x * local.x + y * local.y + z * local.z;
}
double MixturePdf(const Vec3& wo, double exponent, const Vec3& wi) {
    if (!(wi.z > 0.0)) return 0.0;
    double sum = 0.5 * kInvPi + wi.z * kInvPi;  // uniform and cosine
    if (!(exponent > 0.0)) return 0.5 * sum;
    const double c = Dot(wo, wi);
    if (c > 0.0) sum += (exponent + 1.0) * 0.5 * kInvPi * std::pow(c, exponent);
    return sum / 3.0;
}

// A refractive index as the models read it: positive and finite, else vacuum.
double ReadIor(const DataDictionary& data, const Id& key) {
    const double v = data.Get<double>(key, 1.0);
    return v > 0.0 && std::isfinite(v) ? v : 1.0;
}

// Light that reaches the camera after more than one bounce is bounded after its MIS weight
// is applied, so both strategies' shares of a direction keep their proportion (and a
// contribution below the bound is untouched: a white furnace stays exact).
Col3 Bounded(const Col3& c, double bound) {
    const double m = MaxComponent(c);
    return bound > 0.0 && m > bound ? c * (bound / m) : c;
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

// Asks the model for samples from a few fixed directions and compares the density each
// comes with to PdfIndirect of the same pair (the tables' interpolation allows a few per
// cent). Several legacy models answer something else entirely (a constant, or a reflection
// density for transmitted pairs); weighting their light samples against their BSDF samples
// would then count some directions twice and others not at all.
ENVWEIGHT EnvironmentWeighting(BSDFLegacyInterface& model) {
    float record[kSampleRecordFloats];
    int sampled = 0;
    for (double cosine : {0.95, 0.7, 0.35})
        for (int i = 0; i < 16; ++i) {
            const Vec3 wo{std::sqrt(1.0 - cosine * cosine), 0.0, cosine};
            const int row = i / 4;  // a 4 x 4 grid of cells
            FillSampleRecord((double(i % 4) + 0.5) / 4.0, (double(row) + 0.5) / 4.0, record);
            Vec3 wi;
            double pdf = 0.0;
            const Col3 f = LegacyValue(model.SampleF(wo, record, wi, pdf));
            if (!(pdf > 0.0) || !std::isfinite(pdf) || IsBlack(f)) continue;
            ++sampled;
            const double other = model.PdfIndirect(wo, wi);
            if (!(std::abs(other - pdf) <= 0.05 * pdf)) return ENVWEIGHT::SAMPLES;
        }
    return sampled > 0 ? ENVWEIGHT::POWER : ENVWEIGHT::LIGHT;
}

bool MirrorModelOf(const Id& transmission, Id& reflection) {
    const std::string_view text = transmission.Text();
    if (!text.ends_with("btdf")) return false;
    std::string mirror(text.substr(0, text.size() - 4));
    mirror += "brdf";
    auto id = Id::FromText(mirror);
    if (!id) return false;
    reflection = *id;
    return true;
}

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
    // An iteration takes at least one sample; paths past 64 bounces add nothing a swatch
    // shows; tiles stay between one pixel and a size that still splits among the workers.
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
    // Fewer than 4 segments is no sphere; more than 1024 only costs memory at swatch sizes.
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
    // A transmissive object is entered from outside and left from inside; inside, the model
    // sees its indices exchanged.
    _transmissive = MirrorModelOf(material.model, _mirrorModel);
    if (_settings.stageChecker < 0.0) _settings.stageChecker = _transmissive ? 0.5 : 0.0;
    _insideData = nullptr;
    _etaOutside = 1.0;
    if (_transmissive) {
        const double in = ReadIor(*_materialData, bsdfdata::kIorIn);
        const double out = ReadIor(*_materialData, bsdfdata::kIorOut);
        _etaOutside = out / in;
        KELVO_ASSIGN_OR_RETURN(_insideData, CopyRecord(material.data, *_caches));
        KELVO_TRY(_insideData->Set(bsdfdata::kIorIn, out));
        KELVO_TRY(_insideData->Set(bsdfdata::kIorOut, in));
    }
    KELVO_ASSIGN_OR_RETURN(_stageData, CopyRecord(nullptr, *_caches));
    {
        std::lock_guard lock(_poolLock);
        _pool.clear();
    }
    // Fails early on an unknown model, rather than in the first iteration.
    KELVO_ASSIGN_OR_RETURN(BsdfSet first, TakeBsdfs());
    _materialWeighting = EnvironmentWeighting(*first.material);
    _lobeExponent = 0.0;
    if (_materialWeighting == ENVWEIGHT::LIGHT) {
        const double n = _materialData->Get<double>(bsdfdata::kBlurryExponent, 0.0);
        _lobeExponent = n > 0.0 && std::isfinite(n) ? std::min(n, 1e6) : 0.0;
    }
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
    if (_transmissive) {
        KELVO_ASSIGN_OR_RETURN(set.inside, CreateClass<BSDFLegacyInterface>(_material.model));
        KELVO_TRY(set.inside->Init(*_insideData));
        // A transmission model without a reflection twin simply has no internal reflection.
        if (auto mirror = CreateClass<BSDFLegacyInterface>(_mirrorModel)) {
            set.mirror = *mirror;
            KELVO_TRY(set.mirror->Init(*_materialData));
        }
    }
    return set;
}

bool PreviewRendererImpl::SampleBounce(BsdfSet& bsdfs, BSDFLegacyInterface& model, bool inside,
                                       const Vec3& wo, const float* record, bool isMaterial,
                                       Bounce& b) const {
    b.pdf = 0.0;
    const Col3 f = LegacyValue(model.SampleF(wo, record, b.wi, b.pdf));
    if (b.pdf > 0.0 && std::isfinite(b.pdf) && !IsBlack(f)) {
        b.weight = f * (kInvPi * std::abs(b.wi.z) / b.pdf);
        const ENVWEIGHT weighting = isMaterial ? _materialWeighting : ENVWEIGHT::POWER;
        b.mis = weighting == ENVWEIGHT::POWER ? MIS::POWER : MIS::NONE;
        return true;
    }
    if (!isMaterial || !bsdfs.mirror) return false;
    // No transmitted direction. When that is because the microfacet lies beyond the
    // critical angle, all of the light is reflected about that microfacet: the reflection
    // model of the same distribution draws the same microfacet from the same numbers.
    double pdf = 0.0;
    Vec3 wi;
    const Col3 fr = LegacyValue(bsdfs.mirror->SampleF(wo, record, wi, pdf));
    if (!(pdf > 0.0) || !std::isfinite(pdf) || IsBlack(fr)) return false;
    const Vec3 h = Normalize(wo + wi);
    const double c = Dot(wo, h), eta = inside ? 1.0 / _etaOutside : _etaOutside;
    if (eta * eta * std::max(0.0, 1.0 - c * c) < 1.0) return false;
    b.wi = wi;
    b.pdf = pdf;
    b.weight = fr * (kInvPi * std::abs(wi.z) / pdf);
    b.mis = MIS::NONE;  // no light sample finds an internal reflection
    return true;
}

void PreviewRendererImpl::ReturnBsdfs(BsdfSet set) {
    std::lock_guard lock(_poolLock);
    _pool.push_back(std::move(set));
}

Col3 PreviewRendererImpl::StageColour(const IntersectionResult64& hit) const {
    const double cell = _settings.stageChecker;
    if (!(cell > 0.0)) return kStageColour;
    // Across by x, along the profile by v (the floor's and wall's distance along it).
    const int64_t i = int64_t(std::floor(hit.hitPosition.x / cell));
    const int64_t j = int64_t(std::floor(hit.uvw.y / cell));
    return ((i + j) & 1) ? kStageLight : kStageDark;
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
    SampleSequence random(_settings.sequence, _settings.seed, pixel, sampleIndex);
    double jx, jy;
    random.Next2(jx, jy);
    const double sx = px + jx, sy = py + jy;
    // Rays are 200-odd bytes: the shadow ray is made once, and later rays reuse the camera
    // ray (only its origin and direction are read past the first hit).
    Ray ray, shadow;
    _camera->CreateScreenRay({sx, sy}, ray);
    RayLimits limits;
    Col3 radiance, throughput{1.0, 1.0, 1.0};
    // How the environment found along `ray` is weighted: by the density of the BSDF sample
    // that made it, against the direct estimate's density about `lastNormal`.
    MIS lastMis = MIS::NONE;
    double lastPdf = 0.0;
    Vec3 lastNormal;
    const Col3 env = _settings.environment;
    const bool envOn = !IsBlack(env);
    const double bound = _settings.indirectBound;
    float record[kSampleRecordFloats];

    for (int depth = 0;; ++depth) {
        IntersectionResult64 hit;
        ++stats.rays;
        if (!_scene->Intersect(ray, limits, hit)) {
            if (envOn) {
                double w = 1.0;
                const double lightPdf = std::max(0.0, Dot(lastNormal, ray.direction)) * kInvPi;
                if (lastMis == MIS::POWER) w = PowerWeight(lastPdf, lightPdf);
                const Col3 c = throughput * env * w;
                radiance = radiance + (depth >= 2 ? Bounded(c, bound) : c);
            }
            break;
        }
        if (depth > _settings.maxDepth) break;

        const bool isMaterial = size_t(hit.objectIndex) < _objectUsesMaterial.size() &&
                                _objectUsesMaterial[size_t(hit.objectIndex)];
        const Col3 colour =
            isMaterial ? SurfaceColour(hit, ray, depth == 0, sx, sy) : StageColour(hit);

        // The shading frame faces the viewer. Whether the path is inside the object is
        // decided here, and only here: a ray that meets the surface from behind its normal
        // is inside, where a transmissive model sees its indices exchanged. Every other
        // model looks the same from both sides.
        Vec3 n = SquaredLength(hit.shadingNormal) > 0.0 ? hit.shadingNormal : hit.geometricNormal;
        const bool backFace = Dot(n, ray.direction) > 0.0;
        if (backFace) n = -n;
        const bool inside = isMaterial && _transmissive && backFace;
        BSDFLegacyInterface& model =
            !isMaterial ? *bsdfs.stage : (inside ? *bsdfs.inside : *bsdfs.material);
        const ENVWEIGHT weighting = isMaterial ? _materialWeighting : ENVWEIGHT::POWER;
        const BsdfFrame frame = model.ComputeBSDFFrame(n, {}, {}, false);
        const Vec3 wo = ToLocal(frame, -ray.direction);
        const Vec3 origin = hit.hitPosition;
        // Stratified points for the first bounces, where a swatch's light mostly comes
        // from; later decisions (and the roulette) take plain random numbers, which cost a
        // fraction of a scrambled point and change nothing there that shows.
        const bool stratified = depth < kStratifiedDepth;
        RayLimits leave;
        leave.ignoreObject = hit.objectIndex;
        leave.ignorePolygon = hit.polygonIndex;
        leave.tmin = 1e-7;
        auto visible = [&](const Vec3& dir, double tmax) {
            shadow.origin = origin;
            shadow.direction = dir;
            RayLimits l = leave;
            l.tmax = tmax;
            ++stats.rays;
            return !_scene->Occluded(shadow, l);
        };
        auto add = [&](const Col3& c) {
            radiance = radiance + (depth >= 1 ? Bounded(c, bound) : c);
        };

        // Next-event estimation: the environment. The numbers are drawn whether or not they
        // are used, so that each decision of a path keeps its place in the sequence.
        double eu, ephi;
        random.Next2(eu, ephi, stratified);
        if (envOn && weighting != ENVWEIGHT::SAMPLES) {
            // Cosine-weighted, as the models' own samples; a model that samples nothing may
            // grow as 1/cos towards the horizon (the blurry simple lobe does) and gets a
            // mixture whose uniform part keeps a grazing sample's weight bounded.
            const bool cosine = weighting == ENVWEIGHT::POWER;
            const Vec3 wi =
                cosine ? CosineDirection(eu, ephi) : MixtureDirection(wo, _lobeExponent, eu, ephi);
            const double lightPdf = cosine ? wi.z * kInvPi : MixturePdf(wo, _lobeExponent, wi);
            double unused;
            const Col3 f = LegacyValue(model.ComputeBSDF(wo, wi, wi, unused));
            if (lightPdf > 0.0 && !IsBlack(f)) {
                const double w = weighting == ENVWEIGHT::POWER
                                     ? PowerWeight(lightPdf, model.PdfIndirect(wo, wi))
                                     : 1.0;
                if (w > 0.0 && visible(ToWorld(frame, wi), std::numeric_limits<double>::infinity()))
                    add(throughput * colour * f * env * (kInvPi * std::abs(wi.z) * w / lightPdf));
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
                    add(throughput * colour * f * _light.colour *
                        (_light.intensity * shape * kInvPi * std::abs(wi.z) / d2));
            }
        }

        // Continue along a direction the model samples.
        double ba, bb;
        random.Next2(ba, bb, stratified);
        FillSampleRecord(ba, bb, record);
        Bounce bounce;
        if (!SampleBounce(bsdfs, model, inside, wo, record, isMaterial, bounce)) break;
        throughput = throughput * colour * bounce.weight;
        const double roulette = random.Uniform();
        if (depth + 1 >= kRouletteDepth && !(MaxComponent(throughput) >= kRouletteBelow)) {
            // Only paths that have become dim may end, and a survivor is raised back to the
            // threshold, no further: in a lit room of light surfaces the later bounces
            // carry much of the picture, and ending paths by their full throughput (or a
            // few per cent of even bright ones) was the largest source of noise.
            const double q = MaxComponent(throughput) / kRouletteBelow;
            if (!(q > 0.0) || roulette >= q) break;
            throughput = throughput * (1.0 / q);
        }
        lastMis = bounce.mis;
        lastPdf = bounce.pdf;
        lastNormal = n;
        ray.origin = origin;
        ray.direction = Normalize(ToWorld(frame, bounce.wi));
        limits = leave;
    }
    return radiance;
}

namespace {
// A radiance as a float pixel: colours and environments beyond float range (1e39 is a valid
// double) saturate instead of turning into infinite pixels, and a NaN path is black.
float ToPixel(double v) {
    constexpr double kMax = std::numeric_limits<float>::max();
    return v >= -kMax && v <= kMax ? float(v)
           : v > 0.0               ? float(kMax)
           : v < 0.0               ? -float(kMax)
                                   : 0.0f;
}
}  // namespace

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
                p[0] = ToPixel(c.r);
                p[1] = ToPixel(c.g);
                p[2] = ToPixel(c.b);
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
    for (size_t i = 0; i < _sum.size(); ++i) rgb[i] = ToPixel(_sum[i] * scale);
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
