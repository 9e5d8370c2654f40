// The shared, lazily filled tables of the tabulated microfacet distributions.
//
// One caches object owns a block of four distribution tables (layout in samplercache.h),
// laid end to end in the order of the distribution family: 0 Beckmann, 1 GGX, 2 Phong,
// 3 Ward. The Phong table exists but is never read. The caches never compute values:
// every reader fills the entries it needs on first use, without a lock, each entry
// loaded and stored whole as a 32-bit float.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelvo/legacy_renderers/samplercache.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

enum DISTRIBUTIONKIND : int32_t {
    DISTRIBUTIONKIND_BECKMANN = 0,
    DISTRIBUTIONKIND_GGX = 1,
    DISTRIBUTIONKIND_PHONG = 2,
    DISTRIBUTIONKIND_WARD = 3,
    DISTRIBUTIONKIND_ANISOTROPIC = 4,  // never tabulated
};

inline constexpr int32_t kDistributionTableCount = 4;
inline constexpr size_t kDistributionTableBytes = kSamplerCacheFloats * sizeof(float);
inline constexpr size_t kDistributionCachesBytes =
    kDistributionTableCount * kDistributionTableBytes;
static_assert(kDistributionCachesBytes == 19248000);

class MicrofacetDistributionCachesInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.render.interface.microfacetdistributioncaches");
    }

    // Releases the block through the framework allocator; GetCache answers null until the
    // next Alloc. Harmless when nothing is allocated. No reader may use a table afterwards.
    virtual void Free() = 0;
    // Obtains the 19,248,000-byte block through the framework allocator (a block already
    // held is kept). Fails with "Out of memory." and then holds nothing. The entries are
    // undefined until Init.
    virtual Result<void> Alloc() = 0;
    // Sets every entry of every table to kUnsetEntry. Not thread-safe against readers:
    // call it before the tables are handed out (or while no render thread runs).
    virtual void Init() = 0;
    // The first float of the table of `kind`, or null for a kind without a table (4 and any
    // number outside 0..3) and while no block is allocated. Valid until Free.
    virtual float* GetCache(int32_t kind) const = 0;
};

}  // namespace kelvo
