// Processor feature query, for modules that pick a code path by instruction set.
#pragma once

#include <cstdint>

#include "kelvo/binding.h"

namespace kelvo {

// Bits of CpuFeatures().
enum CPUFEATURE : uint32_t {
    CPUFEATURE_CRC32 = 1u << 0,  // the SSE4.2 CRC32 instruction (Castagnoli polynomial)
};

// Features of the processor the process runs on, as CPUFEATURE bits.
inline uint32_t CpuFeatures() { return g_kelvo.host.CpuFeatures(); }

}  // namespace kelvo
