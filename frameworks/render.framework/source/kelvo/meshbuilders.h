// Simple triangle meshes for previews, tools and tests: a latitude-longitude sphere and
// a square, with normals and uv. Allocation goes through the framework allocator (wrap
// calls in CatchOutOfMemory where running out of memory must be reported).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/intersector.h"

namespace kelvo {

struct OwnedTriangleMesh {
    template <typename T>
    using Vector = std::vector<T, Allocator<T>>;
    Vector<Vec3> positions;
    Vector<uint32_t> indices;
    Vector<Vec3> normals;
    Vector<Vec2> uvs;

    TriangleMesh View() const { return {positions, indices, normals, uvs}; }
};

// A sphere around the origin, counter-clockwise seen from outside, u around z and v from
// the north pole (+z) to the south pole. No point of it lies farther inside the true
// sphere than SphereChordError(radius, rings, segments).
inline OwnedTriangleMesh MakeSphereMesh(double radius, uint32_t rings, uint32_t segments) {
    rings = std::max(rings, 2u);
    segments = std::max(segments, 3u);
    OwnedTriangleMesh mesh;
    const size_t columns = size_t(segments) + 1;  // the seam is doubled for its uv
    mesh.positions.reserve(columns * (rings + 1));
    mesh.normals.reserve(columns * (rings + 1));
    mesh.uvs.reserve(columns * (rings + 1));
    for (uint32_t i = 0; i <= rings; ++i) {
        double theta = std::numbers::pi * i / rings;
        for (uint32_t j = 0; j <= segments; ++j) {
            double phi = 2.0 * std::numbers::pi * j / segments;
            Vec3 n{std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                   std::cos(theta)};
            mesh.positions.push_back(n * radius);
            mesh.normals.push_back(n);
            mesh.uvs.push_back({double(j) / segments, double(i) / rings});
        }
    }
    mesh.indices.reserve(size_t(rings) * segments * 6);
    for (uint32_t i = 0; i < rings; ++i)
        for (uint32_t j = 0; j < segments; ++j) {
            uint32_t a = uint32_t(i * columns + j), b = uint32_t((i + 1) * columns + j);
            mesh.indices.insert(mesh.indices.end(), {a, b, b + 1, a, b + 1, a + 1});
        }
    return mesh;
}

// How far a triangle of MakeSphereMesh may lie inside the sphere: a face's vertices are
// at most one cell diagonal apart on the sphere.
inline double SphereChordError(double radius, uint32_t rings, uint32_t segments) {
    double dTheta = std::numbers::pi / std::max(rings, 2u);
    double dPhi = 2.0 * std::numbers::pi / std::max(segments, 3u);
    return radius * (1.0 - std::cos(std::hypot(dTheta, dPhi)));
}

// The square [-halfSize, halfSize]^2 of the plane z = 0, facing +z, uv from 0 to 1 along
// x and y.
inline OwnedTriangleMesh MakeSquareMesh(double halfSize) {
    OwnedTriangleMesh mesh;
    const double h = halfSize;
    mesh.positions = {{-h, -h, 0}, {h, -h, 0}, {h, h, 0}, {-h, h, 0}};
    mesh.indices = {0, 1, 2, 0, 2, 3};
    mesh.normals.assign(4, Vec3{0, 0, 1});
    mesh.uvs = {{0, 0}, {1, 0}, {1, 1}, {0, 1}};
    return mesh;
}

}  // namespace kelvo
