// The legacy sampler cache: one tabulated microfacet distribution, a flat array of
// single-precision floats in the layout of the distribution tables.
//
// Layout of one table (indices in floats):
//   D blocks         at 0,      401 roughness levels x 2000 floats; per level the entries
//                    0..999 are fine cells for cosines 0.9 + 0.0001*i, the entries
//                    1000..1999 coarse cells for cosines 0.001*i;
//   sampling blocks  at 802000, 401 levels x 1000 floats; entry i holds the cosine of the
//                    half vector sampled for the random number 0.001*i.
// The level of a roughness r is trunc(clamp(r, 0, 1) * 400). An entry of -1
// (kUnsetEntry) has not been computed yet; readers treat anything below -0.5 as unset.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace kelvo {

inline constexpr size_t kSamplerCacheFloats = 1203000;
inline constexpr int64_t kDistributionLevels = 401;
inline constexpr int64_t kDistributionDBlockFloats = 2000;
inline constexpr int64_t kDistributionCoarseCells = 1000;  // first coarse entry of a D block
inline constexpr int64_t kDistributionSamplingStart = 802000;
inline constexpr int64_t kDistributionSamplingBlockFloats = 1000;
inline constexpr float kUnsetEntry = -1.0f;

struct SamplerCache {
    std::array<float, kSamplerCacheFloats> values{};
    bool operator==(const SamplerCache&) const = default;
};

static_assert(kDistributionSamplingStart == kDistributionLevels * kDistributionDBlockFloats);
static_assert(kSamplerCacheFloats ==
              size_t(kDistributionSamplingStart +
                     kDistributionLevels * kDistributionSamplingBlockFloats));

}  // namespace kelvo
