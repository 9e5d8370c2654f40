// Per-sample state handed to shading code.
#pragma once

#include <cstdint>

#include "kelvo/vec.h"

namespace kelvo {

struct ShadingContext {
    Vec2 pixel;               // image position of the sample
    int64_t sampleIndex = 0;  // index of the sample within its pixel
    int32_t threadIndex = 0;  // render thread evaluating the sample
    int32_t rayDepth = 0;     // 0 for camera rays
    double time = 0.0;        // shutter time of the sample
    uint32_t flags = 0;

    bool operator==(const ShadingContext&) const = default;
};

}  // namespace kelvo
