// The built-in self-test and speed test of the legacy BSDF library.
#pragma once

#include <string>

#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/result.h"

namespace kelvo::legacy {

// Compares the tabulated variants of Beckmann, GGX and Ward with their closed forms and
// checks Phong and anisotropic sampling against their densities, reading and filling
// `caches` as a renderer would. Appends one line per comparison, and statistics when
// `statistics` is set; fails naming the first comparison that disagrees.
Result<void> RunBsdfSelfTest(MicrofacetDistributionCachesInterface& caches, bool statistics,
                             std::string& report);
// Times ComputeBSDF and SampleF of the same variants.
Result<void> RunBsdfSpeedTest(MicrofacetDistributionCachesInterface& caches, std::string& report);

}  // namespace kelvo::legacy
