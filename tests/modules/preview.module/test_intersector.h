// A plain intersection engine for the renderer's tests, so that they run where no engine
// module is built: every triangle tested against every ray (test scenes are small).
#pragma once

#include <cmath>
#include <vector>

#include "host.h"
#include "kelvo/intersector.h"

namespace kelvo::testing {

class BruteForceIntersector : public Implements<IntersectorInterface> {
public:
    Result<int32_t> AddMesh(const TriangleMesh& mesh) override {
        Mesh m;
        m.positions.assign(mesh.positions.begin(), mesh.positions.end());
        m.normals.assign(mesh.normals.begin(), mesh.normals.end());
        m.uvs.assign(mesh.uvs.begin(), mesh.uvs.end());
        m.indices.assign(mesh.indices.begin(), mesh.indices.end());
        _meshes.push_back(std::move(m));
        return int32_t(_meshes.size() - 1);
    }
    Result<int32_t> AddInstance(int32_t mesh, const Matrix&) override {
        _instances.push_back(mesh);
        return int32_t(_instances.size() - 1);
    }
    Result<void> Commit() override { return OK(); }
    void Release() override { _meshes.clear(), _instances.clear(); }

    bool Intersect(const Ray& ray, const RayLimits& limits,
                   IntersectionResult64& hit) const override {
        double best = limits.tmax;
        int32_t bestObject = -1;
        int64_t bestTri = -1;
        double bu = 0, bv = 0;
        for (size_t o = 0; o < _instances.size(); ++o) {
            const Mesh& m = _meshes[size_t(_instances[o])];
            for (size_t t = 0; t * 3 < m.indices.size(); ++t) {
                if (int32_t(o) == limits.ignoreObject && int64_t(t) == limits.ignorePolygon)
                    continue;
                double d, u, v;
                if (Hit(m, t, ray, d, u, v) && d >= limits.tmin && d <= best) {
                    best = d, bestObject = int32_t(o), bestTri = int64_t(t), bu = u, bv = v;
                }
            }
        }
        if (bestObject < 0) return false;
        const Mesh& m = _meshes[size_t(_instances[size_t(bestObject)])];
        const uint32_t* i = &m.indices[size_t(bestTri) * 3];
        const Vec3 &p0 = m.positions[i[0]], &p1 = m.positions[i[1]], &p2 = m.positions[i[2]];
        const double w = 1.0 - bu - bv;
        hit = {};
        hit.distance = best;
        hit.hitPosition = ray.origin + ray.direction * best;
        hit.geometricNormal = Normalize(Cross(p1 - p0, p2 - p0));
        hit.shadingNormal =
            m.normals.empty()
                ? hit.geometricNormal
                : Normalize(m.normals[i[0]] * w + m.normals[i[1]] * bu + m.normals[i[2]] * bv);
        hit.barycentric = {bu, bv};
        if (!m.uvs.empty()) {
            const Vec2 &a = m.uvs[i[0]], &b = m.uvs[i[1]], &c = m.uvs[i[2]];
            hit.uvw = {a.x * w + b.x * bu + c.x * bv, a.y * w + b.y * bu + c.y * bv, 0.0};
            // Position derivatives along u and v from the triangle's edges.
            const double du1 = b.x - a.x, dv1 = b.y - a.y, du2 = c.x - a.x, dv2 = c.y - a.y;
            const double det = du1 * dv2 - dv1 * du2;
            if (std::abs(det) > 1e-20) {
                const Vec3 e1 = p1 - p0, e2 = p2 - p0;
                hit.dpdu = (e1 * dv2 - e2 * dv1) * (1.0 / det);
                hit.dpdv = (e2 * du1 - e1 * du2) * (1.0 / det);
            }
        }
        hit.polygonIndex = bestTri;
        hit.objectIndex = bestObject;
        hit.backFacing = Dot(hit.geometricNormal, ray.direction) > 0.0;
        return true;
    }
    bool Occluded(const Ray& ray, const RayLimits& limits) const override {
        IntersectionResult64 hit;
        return Intersect(ray, limits, hit);
    }
    void IntersectPacket(const Ray* rays, const RayLimits* limits, IntersectionResult64* hits,
                         size_t count) const override {
        for (size_t i = 0; i < count; ++i)
            if (!Intersect(rays[i], limits[i], hits[i])) hits[i] = {};
    }
    void OccludedPacket(const Ray* rays, const RayLimits* limits, bool* occluded,
                        size_t count) const override {
        for (size_t i = 0; i < count; ++i) occluded[i] = Occluded(rays[i], limits[i]);
    }

private:
    struct Mesh {
        std::vector<Vec3> positions, normals;
        std::vector<Vec2> uvs;
        std::vector<uint32_t> indices;
    };
    static bool Hit(const Mesh& m, size_t t, const Ray& ray, double& d, double& u, double& v) {
        const uint32_t* i = &m.indices[t * 3];
        const Vec3 &p0 = m.positions[i[0]], e1 = m.positions[i[1]] - p0,
                   e2 = m.positions[i[2]] - p0;
        const Vec3 p = Cross(ray.direction, e2);
        const double det = Dot(e1, p);
        if (std::abs(det) < 1e-14) return false;
        const double inv = 1.0 / det;
        const Vec3 s = ray.origin - p0;
        u = Dot(s, p) * inv;
        if (u < 0.0 || u > 1.0) return false;
        const Vec3 q = Cross(s, e1);
        v = Dot(ray.direction, q) * inv;
        if (v < 0.0 || u + v > 1.0) return false;
        d = Dot(e2, q) * inv;
        return true;
    }
    std::vector<Mesh> _meshes;
    std::vector<int32_t> _instances;
};

// Registers the engine under a test id and names it in g_polygonIntersection while alive.
class TestEngine {
public:
    static constexpr Id kId{"net.kelvo.test.intersectionclass.bruteforce"};
    TestEngine() {
        _record.kind = ENTRYKIND::CLASS;
        _record.idText = kId.Text().data();
        _record.idSize = kId.Text().size();
        _record.idHash = kId.Hash();
        _record.registry = kIntersectionClassesRegistry;
        _record.kindId = kIntersectionClassKind;
        _record.source = KELVO_HERE;
        _record.create = &CreateInstance<BruteForceIntersector>;
        (void)host::InsertEntry(_record);
        (void)host::ConfigSet("g_polygonIntersection", kId.Text());
    }
    ~TestEngine() {
        (void)host::ConfigSet("g_polygonIntersection", "");
        host::RemoveEntry(_record);
    }

private:
    EntryRecord _record;
};

}  // namespace kelvo::testing
