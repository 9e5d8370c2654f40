// Intersection classes: ray-triangle engines that other modules register in
// kIntersectionClassesRegistry and renderers reach by id, usually through
// RenderGeneralInterface::GetDefaultIntersector.
//
// Use:
//   KELVO_ASSIGN_OR_RETURN(const EntryRecord* cls, renderGeneral->GetDefaultIntersector());
//   KELVO_ASSIGN_OR_RETURN(StrongRef<IntersectorInterface> scene, CreateIntersector(*cls));
//   KELVO_ASSIGN_OR_RETURN(int32_t mesh, scene->AddMesh({positions, indices}));
//   KELVO_ASSIGN_OR_RETURN(int32_t object, scene->AddInstance(mesh, Matrix{}));
//   KELVO_TRY(scene->Commit());
//   IntersectionResult64 hit;                       // then, from any number of threads:
//   if (scene->Intersect(ray, RayLimits{}, hit)) ...
//
// Building (AddMesh, AddInstance, Commit, Release) belongs to one thread at a time, while
// no query runs. After Commit the queries are const, allocate nothing, may run on any
// number of threads at once and cost one virtual call each (use the packet calls to
// amortise even that).
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>

#include "kelvo/entry.h"
#include "kelvo/intersectionresult.h"
#include "kelvo/matrix.h"
#include "kelvo/object.h"
#include "kelvo/renderray.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo {

// Registry of the intersection engines, provided by other modules.
inline constexpr Id kIntersectionClassesRegistry("net.kelvo.render.registry.intersectionclasses");
// The kind of class that intersection engines are; an entry of any other kind is no engine.
inline constexpr Id kIntersectionClassKind("net.kelvo.render.interface.intersection");

// Ids of the engines renderers know by name.
inline constexpr Id kEmbreeIntersectionClass("net.kelvo.render.intersectionclass.embree");
inline constexpr Id kEmbreeSingleIntersectionClass(
    "net.kelvo.render.intersectionclass.embreesingle");
inline constexpr Id kYmbIntersectionClass("net.kelvo.render.intersectionclass.ymb");

// A triangle mesh handed to AddMesh. The intersector copies what it keeps: the arrays may
// be released when AddMesh returns.
struct TriangleMesh {
    std::span<const Vec3> positions;
    std::span<const uint32_t> indices;  // three per triangle, counter-clockwise seen from the front
    std::span<const Vec3> normals;      // optional: empty, or one per position
    std::span<const Vec2> uvs;          // optional: empty, or one per position
};

// The part of a ray a query looks at: hits with tmin <= distance <= tmax count.
// A ray leaving a surface names the triangle it starts on (object and polygon index of
// the hit it came from) so that this triangle is never hit again, however the ray's
// origin rounds; other triangles at distance 0 are still found.
struct RayLimits {
    double tmin = 0.0;
    double tmax = std::numeric_limits<double>::infinity();
    int32_t ignoreObject = -1;
    int64_t ignorePolygon = -1;
};

class IntersectorInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return kIntersectionClassKind; }

    // --- Building -------------------------------------------------------------------
    // Copies a mesh and returns its index (0, 1, ...). A mesh is not part of the scene
    // until it is instanced. Errors: "Illegal argument: The index count @ is not a multiple
    // of 3.", "Illegal argument: Triangle @ refers to vertex @ of a mesh with @ vertices.",
    // "Illegal argument: A mesh with @ vertices has @ normals." (the same for "uvs"),
    // "Illegal argument: A mesh may have at most @ triangles.", out of memory. Degenerate
    // triangles are accepted and never hit.
    virtual Result<int32_t> AddMesh(const TriangleMesh& mesh) = 0;
    // Places a mesh in the scene with an object-to-world transform and returns the
    // object index that hits report (0, 1, ... in the order of the calls). A singular
    // transform places nothing that can be hit. Errors: "Illegal argument: Mesh @ does not
    // exist.", out of memory.
    virtual Result<int32_t> AddInstance(int32_t mesh, const Matrix& transform) = 0;
    // Builds the acceleration structure of everything added so far. Meshes and instances
    // added later need another Commit. Errors: out of memory, or the engine's own failure.
    virtual Result<void> Commit() = 0;
    // Drops every mesh, instance and built structure now (the object itself lives on as
    // an empty scene until its last reference goes).
    virtual void Release() = 0;

    // --- Queries (after Commit; before it the scene is empty) ------------------------
    // The closest hit within the limits. Fills `hit` and returns true, or returns false
    // and leaves `hit` untouched. The ray's direction need not be unit length; distances
    // are in multiples of it. A zero or non-finite direction hits nothing.
    virtual bool Intersect(const Ray& ray, const RayLimits& limits,
                           IntersectionResult64& hit) const = 0;
    // Whether anything lies within the limits (cheaper than Intersect: any hit ends it).
    virtual bool Occluded(const Ray& ray, const RayLimits& limits) const = 0;
    // The same for `count` rays at once, faster for coherent rays (camera rays, rays from
    // one point). Rays without a hit get an IntersectionResult64{} (distance -1).
    virtual void IntersectPacket(const Ray* rays, const RayLimits* limits,
                                 IntersectionResult64* hits, size_t count) const = 0;
    virtual void OccludedPacket(const Ray* rays, const RayLimits* limits, bool* occluded,
                                size_t count) const = 0;
};

// A new, empty intersector of an intersection class (as returned by
// GetDefaultIntersector). Fails with "Class @ does not implement @." for an entry that is
// no intersection class, or with the class's own creation error.
inline Result<StrongRef<IntersectorInterface>> CreateIntersector(
    const EntryRecord& intersectionClass) {
    if (!intersectionClass.create)
        return IllegalArgumentError(KELVO_HERE, "Class @ does not implement @.",
                                    intersectionClass.GetId(), kIntersectionClassKind);
    KELVO_ASSIGN_OR_RETURN(StrongRef<Object> object, intersectionClass.create());
    StrongRef<IntersectorInterface> typed = Query<IntersectorInterface>(object);
    if (!typed)
        return IllegalArgumentError(KELVO_HERE, "Class @ does not implement @.",
                                    intersectionClass.GetId(), kIntersectionClassKind);
    return typed;
}

}  // namespace kelvo
