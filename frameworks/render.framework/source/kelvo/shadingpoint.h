// The surface point a shader or BSDF works on.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

struct ShadingPoint {
    Vec3 position;
    // Texture footprint: the points where the x and y ray differentials meet the surface.
    Vec3 footprintX;
    Vec3 footprintY;
    Vec3 normal;           // shading normal, unit length
    Vec3 geometricNormal;  // unit length
    Vec3 uvw;              // texture coordinates
    Vec3 dpdu, dpdv;       // surface tangents along u and v
    int64_t polygonIndex = -1;
    int32_t objectIndex = -1;
    bool backFacing = false;

    bool operator==(const ShadingPoint&) const = default;
};

}  // namespace kelvo
