// The swatch scenes as triangle meshes: the shape (sphere or rounded cube), the stage
// (ground plane curving up into a backdrop) and the lone ground plane.
#pragma once

#include <cstdint>
#include <vector>

#include "kelvo/matrix.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/vec.h"

namespace kelvo::preview {

struct MeshData {
    std::vector<Vec3> positions;
    std::vector<Vec3> normals;
    std::vector<Vec2> uvs;
    std::vector<uint32_t> indices;
    bool usesMaterial = false;  // the previewed material, else the neutral stage material
};

struct CameraSetup {
    Vec3 position;
    Vec3 target;
    double fieldOfView = 0.5;  // 2 tan(half the horizontal angle)
};

struct SceneData {
    std::vector<MeshData> meshes;
    CameraSetup camera;
};

// A unit sphere at the origin, `segments` around and segments / 2 from pole to pole; uv
// runs once around (u) and from the top to the bottom (v).
MeshData MakeSphere(int segments);
// A cube of half-width 1 with edges rounded by `radius` (0..1), each face a grid.
MeshData MakeRoundedCube(int segments, double radius);
// The stage under a unit shape: the floor at y = -1, curving up behind it into a wall.
MeshData MakeStage(int segments);
// A square floor at y = 0 of half-width `halfWidth`, uv 0..1 across it.
MeshData MakePlane(double halfWidth);

SceneData MakeScene(PREVIEWSCENE scene, int segments);

// The camera-to-world matrix of a camera at `eye` looking at `target`, y up.
Matrix LookAt(const Vec3& eye, const Vec3& target);

}  // namespace kelvo::preview
