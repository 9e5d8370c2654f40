// The legacy sampler cache: one tabulated microfacet distribution, a flat array of
// single-precision floats in the layout of the distribution tables.
#pragma once

#include <array>
#include <cstddef>

namespace kelvo {

inline constexpr size_t kSamplerCacheFloats = 1203000;

struct SamplerCache {
    std::array<float, kSamplerCacheFloats> values{};
    bool operator==(const SamplerCache&) const = default;
};

}  // namespace kelvo
