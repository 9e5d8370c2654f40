// Fuzzes the Embree intersection classes as a renderer calls them: a few meshes with any
// vertices and indices, placed by any matrices, then single rays and packets through
// Intersect, Occluded, IntersectPacket and OccludedPacket of both engines. Numbers come
// raw (NaN, infinities, denormals) or from a table of magnitudes around Embree's own
// limits. Bad meshes may be refused; nothing may stop the process, and a hit must name an
// object and a triangle that exist.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <vector>

#include "host.h"
#include "kelvo/intersector.h"
#include "kelvo/registry.h"

namespace {
using namespace kelvo;

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "engine_fuzzer: %s\n", what);
    std::abort();
}

// Reads the input front to back; past its end every read gives zeros.
class Input {
public:
    Input(const uint8_t* data, size_t size) : _data(data), _size(size) {}
    uint8_t Byte() { return _at < _size ? _data[_at++] : 0; }
    bool Done() const { return _at >= _size; }
    double Number() {
        static const double kTable[] = {0.0,
                                        1.0,
                                        -1.0,
                                        0.5,
                                        2.0,
                                        1e-3,
                                        1.8e18,
                                        1.9e18,
                                        -1e19,
                                        1e19,
                                        1e300,
                                        -1e300,
                                        1e-300,
                                        5e-324,
                                        0x1p40,
                                        0x1p-40,
                                        std::numeric_limits<double>::infinity(),
                                        -std::numeric_limits<double>::infinity(),
                                        std::numeric_limits<double>::quiet_NaN(),
                                        3.4e38,
                                        -3.5e38};
        constexpr size_t kEntries = sizeof kTable / sizeof kTable[0];
        const uint8_t pick = Byte();
        if (pick < kEntries) return kTable[pick];
        if (pick < 128) return double(int(pick) - 64) * 0.25;  // small scene coordinates
        double d = 0.0;
        uint8_t raw[8];
        for (uint8_t& b : raw) b = Byte();
        std::memcpy(&d, raw, sizeof d);
        return d;
    }
    Vec3 Vector() {
        const double x = Number(), y = Number();
        return {x, y, Number()};
    }

private:
    const uint8_t* _data;
    size_t _size;
    size_t _at = 0;
};

std::vector<StrongRef<IntersectorInterface>> Engines() {
    std::vector<StrongRef<IntersectorInterface>> out;
    for (const Id& id : {kEmbreeIntersectionClass, kEmbreeSingleIntersectionClass}) {
        const EntryRecord* cls = FindClass(id, kIntersectionClassKind);
        if (!cls) Fail("an Embree class is not registered");
        auto made = CreateIntersector(*cls);
        if (!made) Fail("cannot create an intersector");
        out.push_back(*made);
    }
    return out;
}

}  // namespace

// The modules stay loaded to the end: Embree's pools outlive the run.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    for (const char* library : {KELVO_RENDER_MODULE, KELVO_EMBREE_MODULE})
        if (!kelvo::host::LoadModule(library)) Fail("cannot load the modules");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const uint8_t engine = in.Byte() & 1;
    StrongRef<IntersectorInterface> scene = Engines()[engine];

    // Up to three meshes of up to 12 vertices and 8 triangles; indices may point past the end.
    std::vector<size_t> triangles;
    const int meshes = in.Byte() % 4;
    for (int m = 0; m < meshes; ++m) {
        std::vector<Vec3> positions(in.Byte() % 13), normals;
        for (Vec3& p : positions) p = in.Vector();
        std::vector<uint32_t> indices(3 * size_t(in.Byte() % 9));
        for (uint32_t& i : indices) i = in.Byte() % (positions.size() + 2);
        if (in.Byte() & 1) {
            normals.resize(positions.size());
            for (Vec3& n : normals) n = in.Vector();
        }
        auto added = scene->AddMesh({positions, indices, normals, {}});
        if (added) triangles.push_back(indices.size() / 3);
    }
    // Instances of them, under any placement.
    std::vector<size_t> objectTriangles;
    const int instances = in.Byte() % 5;
    for (int i = 0; i < instances && !triangles.empty(); ++i) {
        const size_t mesh = in.Byte() % triangles.size();
        Matrix m;
        if (in.Byte() & 1) {
            m.offset = in.Vector();
            m.xAxis = in.Vector();
            m.yAxis = in.Vector();
            m.zAxis = in.Vector();
        }
        if (scene->AddInstance(int32_t(mesh), m)) objectTriangles.push_back(triangles[mesh]);
    }
    if (!scene->Commit()) return 0;

    auto check = [&](const IntersectionResult64& hit) {
        if (hit.objectIndex < 0 || size_t(hit.objectIndex) >= objectTriangles.size())
            Fail("a hit names an object that does not exist");
        if (hit.polygonIndex < 0 || size_t(hit.polygonIndex) >= objectTriangles[hit.objectIndex])
            Fail("a hit names a triangle that does not exist");
    };
    // Rays until the input ends, one at a time and then as one packet.
    std::vector<Ray> rays;
    std::vector<RayLimits> limits;
    while (!in.Done() && rays.size() < 64) {
        Ray ray;
        ray.origin = in.Vector();
        ray.direction = in.Vector();
        RayLimits l;
        const uint8_t flags = in.Byte();
        if (flags & 1) l.tmin = in.Number();
        if (flags & 2) l.tmax = in.Number();
        if (flags & 4) {
            l.ignoreObject = int32_t(in.Byte() % 4) - 1;
            l.ignorePolygon = int64_t(in.Byte() % 10) - 1;
        }
        IntersectionResult64 hit;
        if (scene->Intersect(ray, l, hit)) check(hit);
        (void)scene->Occluded(ray, l);
        rays.push_back(ray);
        limits.push_back(l);
    }
    std::vector<IntersectionResult64> hits(rays.size());
    std::unique_ptr<bool[]> occluded(new bool[rays.size() + 1]);
    scene->IntersectPacket(rays.data(), limits.data(), hits.data(), rays.size());
    scene->OccludedPacket(rays.data(), limits.data(), occluded.get(), rays.size());
    for (const IntersectionResult64& hit : hits)
        if (hit.distance >= 0) check(hit);
    scene->Release();
    return 0;
}
