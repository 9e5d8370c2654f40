// Scattering models of the legacy renderers (registry
// "net.kelvo.render.registry.bsdflegacyclasses").
//
// Conventions every model follows:
// - Directions are unit vectors of doubles in the local shading frame: z along the
//   shading normal, x and y along the tangents. wo is the outgoing (view) direction, wi
//   the incident (light) direction.
// - A value is a grey RGB triple multiplied by pi: a white Lambertian surface returns
//   (1, 1, 1). The caller applies the material's colour.
// - A density is a solid-angle density over wi; 0 means the direction cannot be produced.
// - No operation fails: grazing, opposite-side or degenerate configurations give the
//   value (0, 0, 0) and density 0.
// A model object is used by one thread at a time; the distribution tables it reads are
// shared by all threads (microfacetdistributioncaches.h).
#pragma once

#include <cstddef>

#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo {

inline constexpr Id kBsdfLegacyClassesRegistry("net.kelvo.render.registry.bsdflegacyclasses");

// The sample record: a row of floats from the sampler. Models read these elements.
inline constexpr size_t kSampleRecordFloats = 9;
enum SAMPLERECORD : size_t {
    SAMPLERECORD_U1 = 1,          // uniform in [0, 1)
    SAMPLERECORD_U2 = 2,          // uniform in [0, 1)
    SAMPLERECORD_AZIMUTHCOS = 5,  // cosine of a uniform azimuth
    SAMPLERECORD_AZIMUTHSIN = 6,  // its sine
    SAMPLERECORD_POLARCOS = 7,    // cosine of a cosine-weighted polar angle
    SAMPLERECORD_POLARSIN = 8,    // its sine
};

// An orthonormal shading frame: the normal and two tangents.
struct BsdfFrame {
    Vec3 normal;
    Vec3 tangentU;
    Vec3 tangentV;
    bool operator==(const BsdfFrame&) const = default;
};

// What a renderer keeps to reuse one SampleF result (data type
// "net.kelvo.render.bsdfcachedsample").
struct BsdfCachedSample {
    Vec3 direction;  // the sampled wi
    Col3 value;      // the value SampleF returned
    double density = 0.0;
    bool operator==(const BsdfCachedSample&) const = default;
};

class BSDFLegacyInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.bsdflegacy"); }

    // First setup from a BSDF data record (bsdfdata.h): the fresh state, then Update.
    virtual Result<void> Init(const DataDictionary& data) = 0;
    // Re-reads the parameters. A missing value, or one of another type, reads as null or
    // 0.0 (refractive indices as 1.0). Always succeeds for the built-in models.
    virtual Result<void> Update(const DataDictionary& data) = 0;
    // Returns the model to its fresh state.
    virtual void Reset() = 0;
    // Draws wi for wo from the sample record (kSampleRecordFloats floats) and returns its
    // value; wi and the density go to the outputs. A zero value with density 0 means that
    // sampling failed (wi is then unspecified).
    virtual Col3 SampleF(const Vec3& wo, const float* sample, Vec3& wi, double& density) = 0;
    // The value for the pair (wo, wi); wl is the lobe direction of the glossy models (the
    // diffuse ones ignore it). The density of wi goes to the output.
    virtual Col3 ComputeBSDF(const Vec3& wo, const Vec3& wi, const Vec3& wl, double& density) = 0;
    // The model's own colour factor; (1, 1, 1) unless a model says otherwise.
    virtual Col3 ComputeF_UVW() = 0;
    // The cosine of a lobe-sampled polar angle for models sampled that way; 0.0 otherwise.
    virtual double ComputeAngle(const float* sample) = 0;
    // The density of wi for wo as SampleF would produce it.
    virtual double PdfIndirect(const Vec3& wo, const Vec3& wi) = 0;
    // The cosine a mip-map lookup may blur by, at most `angle`.
    virtual double ComputeMIPAngle(double angle) = 0;
    // The shading frame: the given one when useTangents is set and both tangents have a
    // squared length of at least 0.9999999, otherwise one built from the normal alone.
    virtual BsdfFrame ComputeBSDFFrame(const Vec3& normal, const Vec3& tangentU,
                                       const Vec3& tangentV, bool useTangents) = 0;
};

// The frame every model builds: see BSDFLegacyInterface::ComputeBSDFFrame. A zero normal
// yields zero tangents rather than NaNs.
inline BsdfFrame BuildBsdfFrame(const Vec3& n, const Vec3& u, const Vec3& v, bool useTangents) {
    if (useTangents && SquaredLength(u) >= 0.9999999 && SquaredLength(v) >= 0.9999999)
        return {n, u, v};
    Vec3 t;
    if (std::abs(n.x) > std::abs(n.y)) {
        double len = std::sqrt(n.x * n.x + n.z * n.z);
        t = len > 0.0 ? Vec3{-n.z, 0.0, n.x} / len : Vec3{};
    } else {
        double len = std::sqrt(n.y * n.y + n.z * n.z);
        t = len > 0.0 ? Vec3{0.0, -n.z, n.y} / len : Vec3{};
    }
    return {n, Cross(n, t), t};
}

}  // namespace kelvo
