// A texture or camera projection record.
#pragma once

#include <cstdint>

#include "kelvo/matrix.h"
#include "kelvo/vec.h"

namespace kelvo {

enum class PROJECTIONTYPE : int32_t { UVW, SPHERICAL, CYLINDRICAL, FLAT, CUBIC, FRONTAL, CAMERA };

struct Projection {
    PROJECTIONTYPE type = PROJECTIONTYPE::UVW;
    Matrix objectToProjection;  // maps object space into the projection's space
    Vec2 offset;                // texture offset
    Vec2 scale{1.0, 1.0};       // texture tiling
    bool tile = true;

    bool operator==(const Projection&) const = default;
};

}  // namespace kelvo
