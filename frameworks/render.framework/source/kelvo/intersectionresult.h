// Hit records of intersectors, in double and single precision.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

template <typename T>
struct IntersectionResultT {
    T distance = T(-1);  // along the ray, in lengths of its direction; negative for no hit
    Vec3T<T> hitPosition;
    Vec3T<T> geometricNormal;  // unit length, facing the side the polygon was defined on
    Vec3T<T> shadingNormal;    // interpolated vertex normals; the geometric normal without them
    Vec2T<T> barycentric;      // position inside the hit triangle (weights of vertices 1 and 2)
    Vec3T<T> uvw;              // texture coordinates (w = 0); the barycentric ones without uv
    Vec3T<T> dpdu;             // change of the position along u and v of uvw
    Vec3T<T> dpdv;
    int64_t polygonIndex = -1;  // triangle of the mesh
    int32_t objectIndex = -1;   // the instance, as returned by AddInstance
    bool backFacing = false;    // the ray arrived from the side opposite to geometricNormal

    bool operator==(const IntersectionResultT&) const = default;
};

using IntersectionResult64 = IntersectionResultT<double>;
using IntersectionResult32 = IntersectionResultT<float>;

}  // namespace kelvo
