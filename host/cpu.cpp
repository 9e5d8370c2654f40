// The processor feature query: which optional instructions the module may use.
#include "kelvo/cpu.h"

#include "host.h"

namespace kelvo::host {
namespace {

uint32_t CpuFeaturesSlot() {
    uint32_t features = 0;
#if defined(__x86_64__) || defined(__i386__)
    if (__builtin_cpu_supports("sse4.2")) features |= CPUFEATURE_CRC32;
#endif
    return features;
}

}  // namespace

namespace detail {
void FillCpuSlots(KelvoHostSlots& slots) { slots.CpuFeatures = &CpuFeaturesSlot; }
}  // namespace detail

}  // namespace kelvo::host
