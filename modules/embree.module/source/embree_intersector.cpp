// The intersection classes on Embree 3: "embree" builds its BVH on all of Embree's
// threads, "embreesingle" on one thread with Embree's robust (watertight) traversal.
//
// Every object (instance) of the scene is one geometry of the top-level scene under its
// own object index: an untransformed instance shares its mesh's buffers directly, a
// transformed one instances a scene holding the mesh. Hit attributes are computed in
// double precision from the vertices Embree intersected.
#include <dlfcn.h>
#include <embree3/rtcore.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <mutex>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/entry.h"
#include "kelvo/intersector.h"

namespace kelvo {
namespace {

template <typename T>
using Vector = std::vector<T, Allocator<T>>;

// Embree's primitive and geometry ids are unsigned; keep ours within int32.
constexpr size_t kMaxTriangles = size_t(std::numeric_limits<int32_t>::max());
constexpr size_t kMaxObjects = size_t(std::numeric_limits<int32_t>::max());
// Rays handed to Embree's stream calls at once: a few kilobytes on the stack.
constexpr size_t kStreamChunk = 64;

struct Engine {
    const char* deviceConfig;
    RTCSceneFlags sceneFlags;
};
const Engine kParallelEngine{"verbose=0", RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION};
const Engine kSingleEngine{"threads=1,verbose=0",
                           RTC_SCENE_FLAG_CONTEXT_FILTER_FUNCTION | RTC_SCENE_FLAG_ROBUST};

Error EmbreeError(RTCError code) {
    if (code == RTC_ERROR_OUT_OF_MEMORY) return OutOfMemoryError();
    return UnexpectedError(KELVO_HERE, "Embree failed with error code @.", int(code));
}

// One Embree device per engine, shared by its intersectors while any of them lives
// (a device owns Embree's thread pool, too costly to start per scene).
class Device {
public:
    explicit Device(RTCDevice device) : _device(device) {}
    ~Device() { rtcReleaseDevice(_device); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    RTCDevice Get() const { return _device; }

private:
    RTCDevice _device;
};

Result<std::shared_ptr<Device>> AcquireDevice(const Engine& engine) {
    static std::mutex mutex;
    static std::weak_ptr<Device> parallel, single;
    std::lock_guard lock(mutex);
    std::weak_ptr<Device>& cached = &engine == &kSingleEngine ? single : parallel;
    if (auto device = cached.lock()) return device;
    // Embree's thread pool (TBB's workers) outlives every device: unmapping Embree when
    // this module is unloaded would pull the code from under those threads. Pin it.
    static bool pinned = [] {
        Dl_info info;
        return dladdr(reinterpret_cast<void*>(&rtcNewDevice), &info) && info.dli_fname &&
               dlopen(info.dli_fname, RTLD_NOW | RTLD_NOLOAD | RTLD_NODELETE);
    }();
    (void)pinned;
    RTCDevice device = rtcNewDevice(engine.deviceConfig);
    if (!device) return EmbreeError(rtcGetDeviceError(nullptr));
    KELVO_ASSIGN_OR_RETURN(std::shared_ptr<Device> owned, NewObject<Device>(device));
    cached = owned;
    return owned;
}

struct Mesh {
    // Position, normal and uv of a vertex share one cache line: a hit reads three of them.
    // Embree reads positions through a stride (16 bytes wide, so the line's end is safe).
    struct alignas(32) Vertex {
        Vec3f position;
        Vec3f normal;
        Vec2f uv;
    };
    Vector<Vertex> vertices;
    Vector<uint32_t> indices;
    bool hasNormals = false;
    bool hasUvs = false;
    size_t vertexCount = 0;
    size_t triangleCount = 0;
    RTCScene scene = nullptr;  // the mesh alone, for transformed instances; made by Commit
};

struct SceneObject {
    int32_t mesh = 0;
    bool identity = true;
    Matrix transform;
    Matrix inverse;  // its transpose turns object normals into world normals
    // The mesh's vertices moved into place, for a mesh this object alone uses: one flat
    // scene traces faster than an instance. Made by Commit.
    Vector<Vec3f> placed;
};

// An Embree context that carries the query's limits to the filter.
struct QueryContext {
    RTCIntersectContext base;
    const RayLimits* limits;
};

// Drops hits on the triangle a ray starts from. The ray's id indexes the limits.
void IgnoreStartTriangle(const RTCFilterFunctionNArguments* args) {
    const auto* context = reinterpret_cast<const QueryContext*>(args->context);
    for (unsigned i = 0; i < args->N; ++i) {
        if (args->valid[i] != -1) continue;
        const RayLimits& limits = context->limits[RTCRayN_id(args->ray, args->N, i)];
        unsigned instance = RTCHitN_instID(args->hit, args->N, i, 0);
        unsigned object =
            instance != RTC_INVALID_GEOMETRY_ID ? instance : RTCHitN_geomID(args->hit, args->N, i);
        if (int64_t(object) == limits.ignoreObject &&
            int64_t(RTCHitN_primID(args->hit, args->N, i)) == limits.ignorePolygon)
            args->valid[i] = 0;
    }
}

// The largest float not above d, and the smallest not below it, so that rounding never
// widens the interval a caller asked for.
float FloatBelow(double d) {
    float f = float(d);
    return double(f) > d ? std::nextafter(f, -std::numeric_limits<float>::infinity()) : f;
}
float FloatAbove(double d) {
    float f = float(d);
    return double(f) < d ? std::nextafter(f, std::numeric_limits<float>::infinity()) : f;
}

// Embree stops the process on a ray with a coordinate beyond about 1.8e18 (its own
// validity assertion). Directions are rescaled by a power of two into a safe range, which
// is exact and leaves the distances to scale back; an origin that far out is refused.
constexpr double kLargestOrigin = 1.0e18;
constexpr double kEmbreeLargest = 1.7e18;  // a margin below Embree's 1.844e18
constexpr double kLongestDirection = 0x1p40, kShortestDirection = 0x1p-40;

// Fills an Embree ray; false for a ray that cannot hit anything. Embree's distances along
// the stored direction are ldexp(t, shift) along `ray`'s.
bool SetRay(RTCRay& out, const Ray& ray, const RayLimits& limits, unsigned id, int& shift,
            double originLimit) {
    const Vec3& o = ray.origin;
    Vec3 d = ray.direction;
    const double longest = std::max({std::abs(d.x), std::abs(d.y), std::abs(d.z)});
    bool usable = std::abs(o.x) <= originLimit && std::abs(o.y) <= originLimit &&
                  std::abs(o.z) <= originLimit && std::isfinite(d.x) && std::isfinite(d.y) &&
                  std::isfinite(d.z) && longest > 0.0 && limits.tmax >= limits.tmin &&
                  limits.tmax >= 0.0;
    double tmin = std::max(limits.tmin, 0.0), tmax = limits.tmax;
    shift = 0;
    if (usable && (longest > kLongestDirection || longest < kShortestDirection)) {
        std::frexp(longest, &shift);  // the longest component lands in [0.5, 1)
        d = {std::ldexp(d.x, -shift), std::ldexp(d.y, -shift), std::ldexp(d.z, -shift)};
        tmin = std::ldexp(tmin, shift);
        tmax = std::ldexp(tmax, shift);
        shift = -shift;
    }
    out.org_x = float(o.x);
    out.org_y = float(o.y);
    out.org_z = float(o.z);
    out.dir_x = float(d.x);
    out.dir_y = float(d.y);
    out.dir_z = float(d.z);
    out.tnear = FloatAbove(tmin);
    out.tfar = FloatBelow(tmax);
    out.time = 0.0f;
    out.mask = ~0u;
    out.id = id;
    out.flags = 0;
    if (!usable) {
        // Inactive for Embree's packet calls: tnear beyond tfar, and nothing Embree rejects.
        out.org_x = out.org_y = out.org_z = 0.0f;
        out.dir_x = out.dir_y = 0.0f;
        out.dir_z = 1.0f;
        out.tnear = 1.0f;
        out.tfar = 0.0f;
    }
    return usable;
}

// How far out on any axis a ray may start so that Embree, moving it into the frame of an
// instance placed by these single-precision columns, still stays within its limits; 0 for
// a placement that cannot be traced (singular or extreme once rounded to float).
double InstanceReach(const float columns[12]) {
    const Vec3 x{columns[0], columns[1], columns[2]}, y{columns[3], columns[4], columns[5]},
        z{columns[6], columns[7], columns[8]};
    const double det = Dot(x, Cross(y, z));
    if (det == 0.0 || !std::isfinite(det)) return 0.0;
    // Embree forms the cofactors and the determinant in float: every product of two or three
    // components must stay well inside float's range (an axis of 3e38 beside one of 14 does
    // not), and the determinant well above float's smallest normal number.
    double largest = 0.0;
    for (const Vec3& v : {x, y, z})
        largest = std::max({largest, std::abs(v.x), std::abs(v.y), std::abs(v.z)});
    if (largest > 1e12 || std::abs(det) < 1e-36) return 0.0;
    // The inverse's rows are these cross products over the determinant.
    double rows = 0.0;
    for (const Vec3& r : {Cross(y, z), Cross(z, x), Cross(x, y)})
        rows = std::max(rows, (std::abs(r.x) + std::abs(r.y) + std::abs(r.z)) / std::abs(det));
    const double offset =
        std::max({std::abs(columns[9]), std::abs(columns[10]), std::abs(columns[11])});
    // Directions (below 1 per component) must stay far inside the range too.
    if (!std::isfinite(rows) || rows > 1e17 || !std::isfinite(offset)) return 0.0;
    const double reach = std::min(kLargestOrigin, kEmbreeLargest / rows - offset);
    return reach >= 1.0 ? reach : 0.0;
}

Vec3 ToDouble(const Vec3f& v) { return {double(v.x), double(v.y), double(v.z)}; }

// Two unit vectors perpendicular to n and to each other; zeros for a zero n.
void Perpendiculars(const Vec3& n, Vec3& a, Vec3& b) {
    if (SquaredLength(n) == 0.0) {
        a = b = Vec3{};
        return;
    }
    a = Normalize(std::abs(n.x) > std::abs(n.z) ? Vec3{-n.y, n.x, 0.0} : Vec3{0.0, -n.z, n.y});
    b = Normalize(Cross(n, a));
}

class EmbreeIntersector : public Implements<IntersectorInterface> {
public:
    explicit EmbreeIntersector(const Engine& engine) : _engine(engine) {}
    ~EmbreeIntersector() override { ReleaseScene(); }

    Result<int32_t> AddMesh(const TriangleMesh& mesh) override {
        size_t vertices = mesh.positions.size();
        if (mesh.indices.size() % 3 != 0)
            return IllegalArgumentError(KELVO_HERE, "The index count @ is not a multiple of 3.",
                                        mesh.indices.size());
        size_t triangles = mesh.indices.size() / 3;
        if (triangles > kMaxTriangles)
            return IllegalArgumentError(KELVO_HERE, "A mesh may have at most @ triangles.",
                                        kMaxTriangles);
        for (size_t i = 0; i < mesh.indices.size(); ++i)
            if (mesh.indices[i] >= vertices)
                return IllegalArgumentError(KELVO_HERE,
                                            "Triangle @ refers to vertex @ of a mesh with @ "
                                            "vertices.",
                                            i / 3, mesh.indices[i], vertices);
        if (!mesh.normals.empty() && mesh.normals.size() != vertices)
            return IllegalArgumentError(KELVO_HERE, "A mesh with @ vertices has @ normals.",
                                        vertices, mesh.normals.size());
        if (!mesh.uvs.empty() && mesh.uvs.size() != vertices)
            return IllegalArgumentError(KELVO_HERE, "A mesh with @ vertices has @ uvs.", vertices,
                                        mesh.uvs.size());
        if (_meshes.size() >= kMaxObjects)
            return IllegalArgumentError(KELVO_HERE, "A scene may have at most @ meshes.",
                                        kMaxObjects);
        return CatchOutOfMemory([&]() -> Result<int32_t> {
            Mesh copy;
            copy.vertexCount = vertices;
            copy.triangleCount = triangles;
            copy.hasNormals = !mesh.normals.empty();
            copy.hasUvs = !mesh.uvs.empty();
            copy.vertices.resize(vertices);
            for (size_t i = 0; i < vertices; ++i) {
                Mesh::Vertex& v = copy.vertices[i];
                const Vec3& p = mesh.positions[i];
                v.position = {float(p.x), float(p.y), float(p.z)};
                if (copy.hasNormals) {
                    const Vec3& n = mesh.normals[i];
                    v.normal = {float(n.x), float(n.y), float(n.z)};
                }
                if (copy.hasUvs) v.uv = {float(mesh.uvs[i].x), float(mesh.uvs[i].y)};
            }
            copy.indices.assign(mesh.indices.begin(), mesh.indices.end());
            _meshes.push_back(std::move(copy));
            return int32_t(_meshes.size() - 1);
        });
    }

    Result<int32_t> AddInstance(int32_t mesh, const Matrix& transform) override {
        if (mesh < 0 || size_t(mesh) >= _meshes.size())
            return IllegalArgumentError(KELVO_HERE, "Mesh @ does not exist.", mesh);
        if (_objects.size() >= kMaxObjects)
            return IllegalArgumentError(KELVO_HERE, "A scene may have at most @ objects.",
                                        kMaxObjects);
        return CatchOutOfMemory([&]() -> Result<int32_t> {
            _objects.push_back({mesh, transform == Matrix{}, transform, Inverse(transform)});
            return int32_t(_objects.size() - 1);
        });
    }

    Result<void> Commit() override {
        ReleaseScene();
        if (!_device) {
            KELVO_ASSIGN_OR_RETURN(_device, AcquireDevice(_engine));
        }
        RTCDevice device = _device->Get();
        RTCScene top = rtcNewScene(device);
        if (!top) return EmbreeError(rtcGetDeviceError(device));
        rtcSetSceneFlags(top, _engine.sceneFlags);
        _scene = top;
        Result<void> placed = CatchOutOfMemory([&]() -> Result<void> {
            Vector<uint32_t> uses(_meshes.size());
            for (const SceneObject& object : _objects) ++uses[size_t(object.mesh)];
            for (SceneObject& object : _objects) {
                object.placed.clear();
                if (object.identity || uses[size_t(object.mesh)] != 1) continue;
                const Mesh& mesh = _meshes[size_t(object.mesh)];
                object.placed.resize(mesh.vertexCount + 1);  // Embree reads 16 bytes wide
                for (size_t v = 0; v < mesh.vertexCount; ++v) {
                    Vec3 p = object.transform.TransformPoint(ToDouble(mesh.vertices[v].position));
                    object.placed[v] = {float(p.x), float(p.y), float(p.z)};
                }
            }
            return OK();
        });
        if (!placed) {
            ReleaseScene();
            return placed.GetError();
        }
        for (size_t i = 0; i < _objects.size(); ++i) {
            const SceneObject& object = _objects[i];
            Mesh& mesh = _meshes[size_t(object.mesh)];
            if (mesh.triangleCount == 0) continue;
            double det = object.transform.Determinant();
            if (det == 0.0 || !std::isfinite(det)) continue;  // nothing left to hit
            RTCGeometry geometry = nullptr;
            if (object.identity) {
                geometry = NewTriangles(device, mesh, nullptr);
            } else if (!object.placed.empty()) {
                geometry = NewTriangles(device, mesh, object.placed.data());
            } else {
                if (!mesh.scene) {
                    mesh.scene = rtcNewScene(device);
                    if (!mesh.scene) break;
                    rtcSetSceneFlags(mesh.scene, _engine.sceneFlags);
                    RTCGeometry triangles = NewTriangles(device, mesh, nullptr);
                    if (!triangles) break;
                    rtcAttachGeometryByID(mesh.scene, triangles, 0);
                    rtcReleaseGeometry(triangles);
                    rtcCommitScene(mesh.scene);
                }
                geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_INSTANCE);
                if (!geometry) break;
                rtcSetGeometryInstancedScene(geometry, mesh.scene);
                const Matrix& m = object.transform;
                const float columnMajor[12] = {
                    float(m.xAxis.x), float(m.xAxis.y),  float(m.xAxis.z),  float(m.yAxis.x),
                    float(m.yAxis.y), float(m.yAxis.z),  float(m.zAxis.x),  float(m.zAxis.y),
                    float(m.zAxis.z), float(m.offset.x), float(m.offset.y), float(m.offset.z)};
                // Embree inverts the placement in float and asserts on the rays it moves
                // with it: a placement singular or extreme in float hides its copy.
                const double reach = InstanceReach(columnMajor);
                if (reach == 0.0) {
                    rtcReleaseGeometry(geometry);
                    continue;
                }
                _originLimit = std::min(_originLimit, reach);
                rtcSetGeometryTransform(geometry, 0, RTC_FORMAT_FLOAT3X4_COLUMN_MAJOR, columnMajor);
                rtcCommitGeometry(geometry);
            }
            if (!geometry) break;
            rtcAttachGeometryByID(top, geometry, unsigned(i));
            rtcReleaseGeometry(geometry);
        }
        rtcCommitScene(top);
        RTCError error = rtcGetDeviceError(device);
        if (error != RTC_ERROR_NONE) {
            ReleaseScene();
            return EmbreeError(error);
        }
        return OK();
    }

    void Release() override {
        ReleaseScene();
        Vector<Mesh>().swap(_meshes);
        Vector<SceneObject>().swap(_objects);
    }

    bool Intersect(const Ray& ray, const RayLimits& limits,
                   IntersectionResult64& hit) const override {
        if (!_scene) return false;
        QueryContext context = MakeContext(&limits, 1, RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT);
        RTCRayHit rayHit;
        int shift = 0;
        if (!SetRay(rayHit.ray, ray, limits, 0, shift, _originLimit)) return false;
        rayHit.hit.geomID = RTC_INVALID_GEOMETRY_ID;
        rayHit.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
        rtcIntersect1(_scene, &context.base, &rayHit);
        if (rayHit.hit.geomID == RTC_INVALID_GEOMETRY_ID) return false;
        FillHit(ray, rayHit, shift, hit);
        return true;
    }

    bool Occluded(const Ray& ray, const RayLimits& limits) const override {
        if (!_scene) return false;
        QueryContext context = MakeContext(&limits, 1, RTC_INTERSECT_CONTEXT_FLAG_INCOHERENT);
        RTCRay embreeRay;
        int shift = 0;
        if (!SetRay(embreeRay, ray, limits, 0, shift, _originLimit)) return false;
        rtcOccluded1(_scene, &context.base, &embreeRay);
        return embreeRay.tfar == -std::numeric_limits<float>::infinity();
    }

    void IntersectPacket(const Ray* rays, const RayLimits* limits, IntersectionResult64* hits,
                         size_t count) const override {
        RTCRayHit chunk[kStreamChunk];
        int shifts[kStreamChunk];
        for (size_t start = 0; start < count; start += kStreamChunk) {
            size_t n = std::min(kStreamChunk, count - start);
            for (size_t i = 0; i < n; ++i) hits[start + i] = IntersectionResult64{};
            if (!_scene) continue;
            for (size_t i = 0; i < n; ++i) {
                SetRay(chunk[i].ray, rays[start + i], limits[start + i], unsigned(i), shifts[i],
                       _originLimit);
                chunk[i].hit.geomID = RTC_INVALID_GEOMETRY_ID;
                chunk[i].hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
            }
            QueryContext context =
                MakeContext(limits + start, n, RTC_INTERSECT_CONTEXT_FLAG_COHERENT);
            rtcIntersect1M(_scene, &context.base, chunk, unsigned(n), sizeof(RTCRayHit));
            for (size_t i = 0; i < n; ++i)
                if (chunk[i].hit.geomID != RTC_INVALID_GEOMETRY_ID)
                    FillHit(rays[start + i], chunk[i], shifts[i], hits[start + i]);
        }
    }

    void OccludedPacket(const Ray* rays, const RayLimits* limits, bool* occluded,
                        size_t count) const override {
        RTCRay chunk[kStreamChunk];
        for (size_t start = 0; start < count; start += kStreamChunk) {
            size_t n = std::min(kStreamChunk, count - start);
            if (!_scene) {
                std::fill(occluded + start, occluded + start + n, false);
                continue;
            }
            int shift = 0;  // occlusion has no distance to scale back
            for (size_t i = 0; i < n; ++i)
                SetRay(chunk[i], rays[start + i], limits[start + i], unsigned(i), shift,
                       _originLimit);
            QueryContext context =
                MakeContext(limits + start, n, RTC_INTERSECT_CONTEXT_FLAG_COHERENT);
            rtcOccluded1M(_scene, &context.base, chunk, unsigned(n), sizeof(RTCRay));
            for (size_t i = 0; i < n; ++i)
                occluded[start + i] = chunk[i].tfar == -std::numeric_limits<float>::infinity();
        }
    }

private:
    static QueryContext MakeContext(const RayLimits* limits, size_t count,
                                    RTCIntersectContextFlags flags) {
        QueryContext context;
        rtcInitIntersectContext(&context.base);
        context.base.flags = flags;
        context.limits = limits;
        // The filter costs a call per candidate hit: only when some ray needs it.
        for (size_t i = 0; i < count; ++i)
            if (limits[i].ignorePolygon >= 0) {
                context.base.filter = &IgnoreStartTriangle;
                break;
            }
        return context;
    }

    // The mesh's triangles, on its own vertices or on `placed` ones.
    static RTCGeometry NewTriangles(RTCDevice device, const Mesh& mesh, const Vec3f* placed) {
        RTCGeometry geometry = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        if (!geometry) return nullptr;
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3,
                                   placed ? static_cast<const void*>(placed)
                                          : static_cast<const void*>(mesh.vertices.data()),
                                   0, placed ? sizeof(Vec3f) : sizeof(Mesh::Vertex),
                                   mesh.vertexCount);
        rtcSetSharedGeometryBuffer(geometry, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3,
                                   mesh.indices.data(), 0, 3 * sizeof(uint32_t),
                                   mesh.triangleCount);
        rtcCommitGeometry(geometry);
        return geometry;
    }

    void ReleaseScene() {
        if (_scene) rtcReleaseScene(_scene);
        _scene = nullptr;
        _originLimit = kLargestOrigin;
        for (Mesh& mesh : _meshes) {
            if (mesh.scene) rtcReleaseScene(mesh.scene);
            mesh.scene = nullptr;
        }
    }

    // `shift` turns Embree's distance into one along the caller's direction (SetRay).
    void FillHit(const Ray& ray, const RTCRayHit& rayHit, int shift,
                 IntersectionResult64& hit) const {
        unsigned objectIndex = rayHit.hit.instID[0] != RTC_INVALID_GEOMETRY_ID
                                   ? rayHit.hit.instID[0]
                                   : rayHit.hit.geomID;
        const SceneObject& object = _objects[objectIndex];
        const Mesh& mesh = _meshes[size_t(object.mesh)];
        const unsigned polygon = rayHit.hit.primID;
        const uint32_t* corner = &mesh.indices[3 * size_t(polygon)];
        const double u = rayHit.hit.u, v = rayHit.hit.v, w = 1.0 - u - v;
        const Mesh::Vertex& v0 = mesh.vertices[corner[0]];
        const Mesh::Vertex& v1 = mesh.vertices[corner[1]];
        const Mesh::Vertex& v2 = mesh.vertices[corner[2]];
        const Vec3 p0 = ToDouble(v0.position), p1 = ToDouble(v1.position),
                   p2 = ToDouble(v2.position);

        // Object-space normals become world normals through the inverse's transpose.
        auto toWorldNormal = [&](const Vec3& n) {
            if (object.identity) return Normalize(n);
            const Matrix& inv = object.inverse;
            return Normalize(Vec3{Dot(inv.xAxis, n), Dot(inv.yAxis, n), Dot(inv.zAxis, n)});
        };
        auto toWorld = [&](const Vec3& p) {
            return object.identity ? p : object.transform.TransformPoint(p);
        };
        auto toWorldVector = [&](const Vec3& d) {
            return object.identity ? d : object.transform.TransformVector(d);
        };

        // Embree's distance and barycentrics are single precision, off by up to a few
        // millionths of the triangle's size; the ray meets the triangle's plane far more
        // precisely in double. Grazing rays keep Embree's answer.
        const Vec3 normal = Cross(p1 - p0, p2 - p0);
        hit.distance = std::ldexp(double(rayHit.ray.tfar), shift);
        Vec3 position = p0 * w + p1 * u + p2 * v;
        const Vec3 origin =
            object.identity ? ray.origin : object.inverse.TransformPoint(ray.origin);
        const Vec3 direction =
            object.identity ? ray.direction : object.inverse.TransformVector(ray.direction);
        const double facing = Dot(direction, normal);
        if (std::abs(facing) > 1e-6 * std::sqrt(SquaredLength(direction) * SquaredLength(normal))) {
            double t = Dot(p0 - origin, normal) / facing;
            if (std::abs(t - hit.distance) <= 1e-3 * std::max(1.0, hit.distance)) {
                hit.distance = t;
                position = origin + direction * t;
            }
        }
        hit.hitPosition = toWorld(position);
        hit.geometricNormal = toWorldNormal(normal);
        hit.backFacing = Dot(ray.direction, hit.geometricNormal) > 0.0;
        hit.shadingNormal = hit.geometricNormal;
        if (mesh.hasNormals) {
            Vec3 n = ToDouble(v0.normal) * w + ToDouble(v1.normal) * u + ToDouble(v2.normal) * v;
            if (SquaredLength(n) > 0.0) hit.shadingNormal = toWorldNormal(n);
        }
        hit.barycentric = {u, v};

        // Texture coordinates, and the position's derivatives along them.
        Vec2 t0{0.0, 0.0}, t1{1.0, 0.0}, t2{0.0, 1.0};
        if (mesh.hasUvs) {
            const Vec2f &a = v0.uv, &b = v1.uv, &c = v2.uv;
            t0 = {a.x, a.y};
            t1 = {b.x, b.y};
            t2 = {c.x, c.y};
        }
        hit.uvw = {t0.x * w + t1.x * u + t2.x * v, t0.y * w + t1.y * u + t2.y * v, 0.0};
        const double du02 = t0.x - t2.x, dv02 = t0.y - t2.y;
        const double du12 = t1.x - t2.x, dv12 = t1.y - t2.y;
        const double det = du02 * dv12 - dv02 * du12;
        const Vec3 dp02 = p0 - p2, dp12 = p1 - p2;
        if (std::abs(det) > 1e-20) {
            hit.dpdu = toWorldVector((dp02 * dv12 - dp12 * dv02) / det);
            hit.dpdv = toWorldVector((dp12 * du02 - dp02 * du12) / det);
        } else {
            // Degenerate texture coordinates: any frame in the surface will do.
            Perpendiculars(hit.geometricNormal, hit.dpdu, hit.dpdv);
        }
        hit.polygonIndex = int64_t(polygon);
        hit.objectIndex = int32_t(objectIndex);
    }

    const Engine& _engine;
    std::shared_ptr<Device> _device;
    RTCScene _scene = nullptr;
    // How far out rays may start in the committed scene (InstanceReach of its instances).
    double _originLimit = kLargestOrigin;
    Vector<Mesh> _meshes;
    Vector<SceneObject> _objects;
};

class ParallelIntersector final : public EmbreeIntersector {
public:
    ParallelIntersector() : EmbreeIntersector(kParallelEngine) {}
};
class SingleIntersector final : public EmbreeIntersector {
public:
    SingleIntersector() : EmbreeIntersector(kSingleEngine) {}
};

KELVO_REGISTER_CLASS(s_embree, "net.kelvo.render.intersectionclass.embree",
                     kIntersectionClassesRegistry, kIntersectionClassKind, ParallelIntersector);
KELVO_REGISTER_CLASS(s_embreeSingle, "net.kelvo.render.intersectionclass.embreesingle",
                     kIntersectionClassesRegistry, kIntersectionClassKind, SingleIntersector);

}  // namespace
}  // namespace kelvo
