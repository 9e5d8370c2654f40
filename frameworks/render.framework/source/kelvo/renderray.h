// The render ray: a ray with its differentials. Cameras write the origin, the direction
// and the four differential members; everything else belongs to the renderer and is
// never touched by cameras.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

struct Ray {
    Vec3 origin;
    Vec3 direction;               // unit length
    double rendererData[4] = {};  // renderer-owned: cameras leave these untouched
    Vec3 xDifferentialOrigin;     // the ray one pixel to the right
    Vec3 yDifferentialOrigin;     // the ray one pixel below
    Vec3 xDifferentialDirection;
    Vec3 yDifferentialDirection;
    // Renderer-owned as well.
    double time = 0.0;
    double ior = 1.0;
    int32_t depth = 0;
    uint32_t flags = 0;

    bool operator==(const Ray&) const = default;
};

}  // namespace kelvo
