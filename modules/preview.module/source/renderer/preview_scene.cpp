#include "preview_scene.h"

#include <algorithm>
#include <cmath>

namespace kelvo::preview {
namespace {

constexpr double kPi = 3.14159265358979323846;

// Two triangles per grid cell of a (columns + 1) x (rows + 1) vertex grid starting at base,
// counter-clockwise seen from the side the normals point to.
void AddGrid(MeshData& m, uint32_t base, int columns, int rows, bool flip) {
    const uint32_t stride = uint32_t(columns) + 1;
    for (int j = 0; j < rows; ++j)
        for (int i = 0; i < columns; ++i) {
            uint32_t a = base + uint32_t(j) * stride + uint32_t(i), b = a + 1, c = a + stride,
                     d = c + 1;
            if (flip)
                m.indices.insert(m.indices.end(), {a, b, c, b, d, c});
            else
                m.indices.insert(m.indices.end(), {a, c, b, b, c, d});
        }
}

}  // namespace

MeshData MakeSphere(int segments) {
    const int columns = std::max(segments, 4), rows = std::max(segments / 2, 2);
    MeshData m;
    for (int j = 0; j <= rows; ++j) {
        const double v = double(j) / rows, theta = v * kPi;
        for (int i = 0; i <= columns; ++i) {
            const double u = double(i) / columns, phi = u * 2.0 * kPi;
            Vec3 n{std::sin(theta) * std::cos(phi), std::cos(theta),
                   std::sin(theta) * std::sin(phi)};
            m.positions.push_back(n);
            m.normals.push_back(n);
            m.uvs.push_back({u, v});
        }
    }
    AddGrid(m, 0, columns, rows, false);
    return m;
}

MeshData MakeRoundedCube(int segments, double radius) {
    const int n = std::max(segments / 2, 2);
    const double r = std::clamp(radius, 0.0, 1.0), core = 1.0 - r;
    MeshData m;
    // Each face: a grid over the cube's face, pushed onto the rounded surface.
    const Vec3 axes[6][3] = {
        {{1, 0, 0}, {0, 0, -1}, {0, 1, 0}}, {{-1, 0, 0}, {0, 0, 1}, {0, 1, 0}},
        {{0, 1, 0}, {1, 0, 0}, {0, 0, -1}}, {{0, -1, 0}, {1, 0, 0}, {0, 0, 1}},
        {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}},  {{0, 0, -1}, {-1, 0, 0}, {0, 1, 0}}};
    for (const auto& face : axes) {
        const uint32_t base = uint32_t(m.positions.size());
        for (int j = 0; j <= n; ++j)
            for (int i = 0; i <= n; ++i) {
                // Points crowd towards the edges, where the rounding bends the surface.
                auto spread = [](double t) { return std::sin((t - 0.5) * kPi); };
                const double s = spread(double(i) / n), t = spread(double(j) / n);
                Vec3 q = face[0] + face[1] * s + face[2] * t;
                Vec3 inner{std::clamp(q.x, -core, core), std::clamp(q.y, -core, core),
                           std::clamp(q.z, -core, core)};
                Vec3 normal = Normalize(q - inner);
                if (SquaredLength(normal) == 0.0) normal = face[0];
                m.positions.push_back(inner + normal * r);
                m.normals.push_back(normal);
                m.uvs.push_back({double(i) / n, 1.0 - double(j) / n});
            }
        AddGrid(m, base, n, n, true);
    }
    return m;
}

MeshData MakeStage(int segments) {
    // Profile in (z, y): floor from the front to the foot of the curve, a quarter circle,
    // then the wall. The stage spans x in -width..width.
    constexpr double width = 12.0, front = -12.0, foot = 2.5, radius = 3.0, top = 14.0;
    std::vector<std::pair<double, double>> profile{{front, -1.0}, {foot, -1.0}};
    const int arc = std::max(segments / 4, 4);
    for (int k = 1; k <= arc; ++k) {
        double a = 0.5 * kPi * k / arc;
        profile.push_back({foot + radius * std::sin(a), -1.0 + radius * (1.0 - std::cos(a))});
    }
    profile.push_back({foot + radius, top});
    MeshData m;
    double length = 0.0;
    for (size_t k = 0; k < profile.size(); ++k) {
        if (k > 0)
            length += std::hypot(profile[k].first - profile[k - 1].first,
                                 profile[k].second - profile[k - 1].second);
        // The normal of the profile at this point: up on the floor, towards -z on the wall.
        Vec3 normal{0, 1, 0};
        if (k > 1 && k < profile.size() - 1) {
            double a = 0.5 * kPi * double(k - 1) / arc;
            normal = {0, std::cos(a), -std::sin(a)};
        } else if (k == profile.size() - 1) {
            normal = {0, 0, -1};
        }
        for (int i = 0; i <= 1; ++i) {
            m.positions.push_back({i ? width : -width, profile[k].second, profile[k].first});
            m.normals.push_back(normal);
            m.uvs.push_back({double(i), length});
        }
    }
    AddGrid(m, 0, 1, int(profile.size()) - 1, false);
    return m;
}

MeshData MakePlane(double halfWidth) {
    MeshData m;
    for (int j = 0; j <= 1; ++j)
        for (int i = 0; i <= 1; ++i) {
            m.positions.push_back({i ? halfWidth : -halfWidth, 0.0, j ? -halfWidth : halfWidth});
            m.normals.push_back({0, 1, 0});
            m.uvs.push_back({double(i), double(j)});
        }
    AddGrid(m, 0, 1, 1, true);
    return m;
}

Matrix LookAt(const Vec3& eye, const Vec3& target) {
    Vec3 forward = Normalize(target - eye);
    Vec3 right = Normalize(Cross(forward, Vec3{0, 1, 0}));
    if (SquaredLength(right) == 0.0) right = {1, 0, 0};
    Matrix m;
    m.offset = eye;
    m.xAxis = right;
    m.yAxis = Cross(right, forward);
    m.zAxis = forward;
    return m;
}

SceneData MakeScene(PREVIEWSCENE scene, int segments) {
    SceneData s;
    s.camera = {{0.0, 1.2, -5.0}, {0.0, -0.1, 0.0}, 0.9};
    switch (scene) {
        case PREVIEWSCENE::OPEN:
            s.meshes.push_back(MakeSphere(segments));
            s.meshes.back().usesMaterial = true;
            s.camera = {{0.0, 0.0, -4.0}, {0.0, 0.0, 0.0}, 0.6};
            break;
        case PREVIEWSCENE::SPHERE:
        case PREVIEWSCENE::CUBE:
            s.meshes.push_back(scene == PREVIEWSCENE::SPHERE ? MakeSphere(segments)
                                                             : MakeRoundedCube(segments, 0.25));
            s.meshes.back().usesMaterial = true;
            if (scene == PREVIEWSCENE::CUBE) {
                // Turned so that two faces and an edge face the camera.
                const double c = std::cos(0.6), sn = std::sin(0.6);
                auto turn = [&](Vec3& v) { v = {c * v.x + sn * v.z, v.y, -sn * v.x + c * v.z}; };
                for (Vec3& p : s.meshes.back().positions) turn(p);
                for (Vec3& n : s.meshes.back().normals) turn(n);
            }
            s.meshes.push_back(MakeStage(segments));
            break;
        case PREVIEWSCENE::BACKDROP:
            s.meshes.push_back(MakeStage(segments));
            break;
        case PREVIEWSCENE::PLANE:
            s.meshes.push_back(MakePlane(4.0));
            s.meshes.back().usesMaterial = true;
            s.camera = {{0.0, 1.5, -4.5}, {0.0, 0.0, 0.5}, 1.0};
            break;
    }
    return s;
}

}  // namespace kelvo::preview
