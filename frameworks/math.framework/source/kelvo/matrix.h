// Affine 3x4 matrices: an offset followed by three axes. A point p maps to
// offset + xAxis*p.x + yAxis*p.y + zAxis*p.z; a direction ignores the offset.
#pragma once

#include <cmath>

#include "kelvo/vec.h"

namespace kelvo {

template <typename T>
struct MatrixT {
    Vec3T<T> offset{};
    Vec3T<T> xAxis{1, 0, 0};
    Vec3T<T> yAxis{0, 1, 0};
    Vec3T<T> zAxis{0, 0, 1};

    constexpr Vec3T<T> TransformPoint(const Vec3T<T>& p) const {
        return offset + xAxis * p.x + yAxis * p.y + zAxis * p.z;
    }
    constexpr Vec3T<T> TransformVector(const Vec3T<T>& d) const {
        return xAxis * d.x + yAxis * d.y + zAxis * d.z;
    }
    constexpr MatrixT operator*(const MatrixT& o) const {
        return {TransformPoint(o.offset), TransformVector(o.xAxis), TransformVector(o.yAxis),
                TransformVector(o.zAxis)};
    }
    constexpr T Determinant() const { return Dot(xAxis, Cross(yAxis, zAxis)); }
    constexpr bool operator==(const MatrixT&) const = default;
};

// A singular matrix has no inverse; the identity is returned so that callers never
// propagate NaNs through their transforms.
template <typename T>
MatrixT<T> Inverse(const MatrixT<T>& m) {
    T det = m.Determinant();
    if (det == T(0) || !std::isfinite(det)) return MatrixT<T>{};
    T inv = T(1) / det;
    // Rows of the inverse of the 3x3 part are the cross products of its columns.
    Vec3T<T> r0 = Cross(m.yAxis, m.zAxis) * inv;
    Vec3T<T> r1 = Cross(m.zAxis, m.xAxis) * inv;
    Vec3T<T> r2 = Cross(m.xAxis, m.yAxis) * inv;
    MatrixT<T> out;
    out.xAxis = {r0.x, r1.x, r2.x};
    out.yAxis = {r0.y, r1.y, r2.y};
    out.zAxis = {r0.z, r1.z, r2.z};
    out.offset = -out.TransformVector(m.offset);
    return out;
}

using Matrix = MatrixT<double>;
using Matrix32 = MatrixT<float>;

}  // namespace kelvo
