// The block of the four distribution tables, shared by every render thread.
#include "kelvo/allocator.h"
#include "kelvo/entry.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"

namespace kelvo::legacy {
namespace {

class MicrofacetDistributionCachesImpl final
    : public Implements<MicrofacetDistributionCachesInterface> {
public:
    ~MicrofacetDistributionCachesImpl() override { Free(); }

    void Free() override {
        kelvo::Free(_block);
        _block = nullptr;
    }

    Result<void> Alloc() override {
        if (_block) return OK();
        // 16-byte alignment lets Init write four floats at a time.
        _block = static_cast<float*>(Allocate(kDistributionCachesBytes, 16));
        if (!_block) return Error::OutOfMemory();
        return OK();
    }

    void Init() override {
        if (!_block) return;
        for (int32_t kind = 0; kind < kDistributionTableCount; ++kind) {
            float* table = _block + size_t(kind) * kSamplerCacheFloats;
            for (int64_t level = 0; level < kDistributionLevels; ++level) {
                Fill(table + level * kDistributionDBlockFloats, kDistributionDBlockFloats);
                Fill(table + kDistributionSamplingStart + level * kDistributionSamplingBlockFloats,
                     kDistributionSamplingBlockFloats);
            }
        }
    }

    float* GetCache(int32_t kind) const override {
        if (!_block || kind < 0 || kind >= kDistributionTableCount) return nullptr;
        return _block + size_t(kind) * kSamplerCacheFloats;
    }

private:
    // Four floats at a time where the block allows, then the remainder one by one.
    static void Fill(float* at, size_t count) {
        size_t quads = count / 4;
        for (size_t q = 0; q < quads; ++q) {
            float* p = at + 4 * q;
            p[0] = p[1] = p[2] = p[3] = kUnsetEntry;
        }
        for (size_t i = quads * 4; i < count; ++i) at[i] = kUnsetEntry;
    }

    float* _block = nullptr;
};

KELVO_REGISTER_COMPONENT(s_distributionCaches, "MicrofacetDistributionCachesImpl",
                         MicrofacetDistributionCachesInterface, MicrofacetDistributionCachesImpl);

}  // namespace
}  // namespace kelvo::legacy
