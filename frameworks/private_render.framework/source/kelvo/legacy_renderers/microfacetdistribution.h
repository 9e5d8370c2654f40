// The five half-vector distributions of the glossy legacy models as classes, created by
// id from the registry "net.kelvo.render.registry.microfacetdistributionclasses" (ids
// "net.kelvo.render.microfacetdistributionclass." + beckmann, ggx, phong, ward,
// anisotropic). The BSDF classes hold their distribution by value; these classes let a
// program evaluate one on its own, reached by id like everything a module offers.
//
// Directions are unit vectors in the local shading frame (z along the normal); for the
// anisotropic kind the frame is the lobe's own (x along its first tangent). No operation
// fails: a half vector below the horizon gives D = 0 and density 0.
#pragma once

#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo {

inline constexpr Id kMicrofacetDistributionClassesRegistry(
    "net.kelvo.render.registry.microfacetdistributionclasses");

class MicrofacetDistributionInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.render.interface.microfacetdistribution");
    }

    // Reads roughness (and anisotropy and rotation for the anisotropic kind) and the
    // kind's table from a BSDF data record (bsdfdata.h); a missing table means the
    // closed formulas. Always succeeds for the built-in kinds.
    virtual Result<void> Update(const DataDictionary& data) = 0;
    // D(h), with the sampling density of h in `samplingDensity`; from the table when one
    // is set and useTable is true.
    virtual double D(const Vec3& h, bool useTable, double& samplingDensity) const = 0;
    // The shadowing-masking term for the pair of directions and the half vector h.
    virtual double G(const Vec3& first, const Vec3& second, const Vec3& h) const = 0;
    // A half vector drawn for the sample record (kSampleRecordFloats floats), with D and
    // its sampling density in the outputs.
    virtual Vec3 Sample(const float* sample, double& d, double& samplingDensity) const = 0;
};

}  // namespace kelvo
