// Hit records of intersectors, in double and single precision.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

template <typename T>
struct IntersectionResultT {
    T distance = T(-1);  // along the ray; negative when nothing was hit
    Vec3T<T> hitPosition;
    Vec3T<T> geometricNormal;  // unit length, facing the side the polygon was defined on
    Vec2T<T> barycentric;      // position inside the hit triangle
    int64_t polygonIndex = -1;
    int32_t objectIndex = -1;
    bool backFacing = false;

    bool operator==(const IntersectionResultT&) const = default;
};

using IntersectionResult64 = IntersectionResultT<double>;
using IntersectionResult32 = IntersectionResultT<float>;

}  // namespace kelvo
