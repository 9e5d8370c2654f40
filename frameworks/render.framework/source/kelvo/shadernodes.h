// Shader node value types: one layer of a layered material.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

struct BsdfLayer {
    Col3 color{1.0, 1.0, 1.0};  // tint of the layer
    double weight = 1.0;        // blend weight against the layers below
    double roughness = 0.0;
    double ior = 1.5;
    int32_t bsdfType = 0;  // index of the layer's model in the material's table
    int32_t flags = 0;

    bool operator==(const BsdfLayer&) const = default;
};

}  // namespace kelvo
