#include "ies_crc32c.h"

#include <array>
#include <atomic>
#include <cstring>

#include "kelvo/cpu.h"

namespace kelvo::detail {
namespace {

// Reflected Castagnoli polynomial.
constexpr uint32_t kPolynomial = 0x82F63B78u;

constexpr std::array<uint32_t, 256> MakeTable() {
    std::array<uint32_t, 256> table{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ kPolynomial : c >> 1;
        table[i] = c;
    }
    return table;
}
constexpr std::array<uint32_t, 256> kTable = MakeTable();

}  // namespace

uint32_t Crc32cUpdateTable(uint32_t crc, const void* data, size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < size; ++i) crc = kTable[(crc ^ p[i]) & 0xFFu] ^ (crc >> 8);
    return crc;
}

#if defined(__x86_64__)
__attribute__((target("sse4.2"))) uint32_t Crc32cUpdateHardware(uint32_t crc, const void* data,
                                                                size_t size) {
    const auto* p = static_cast<const unsigned char*>(data);
    uint64_t c = crc;
    for (; size >= 8; size -= 8, p += 8) {
        uint64_t word;
        std::memcpy(&word, p, 8);  // the instruction reads little-endian, as x86 is
        c = __builtin_ia32_crc32di(c, word);
    }
    auto c32 = static_cast<uint32_t>(c);
    for (; size > 0; --size, ++p) c32 = __builtin_ia32_crc32qi(c32, *p);
    return c32;
}
#else
uint32_t Crc32cUpdateHardware(uint32_t crc, const void* data, size_t size) {
    return Crc32cUpdateTable(crc, data, size);
}
#endif

bool Crc32cHardwareAvailable() {
    // 0 unknown, 1 absent, 2 present; a race only asks the host twice.
    static std::atomic<int> known{0};
    int k = known.load(std::memory_order_relaxed);
    if (k == 0) {
#if defined(__x86_64__)
        k = (CpuFeatures() & CPUFEATURE_CRC32) ? 2 : 1;
#else
        k = 1;
#endif
        known.store(k, std::memory_order_relaxed);
    }
    return k == 2;
}

uint32_t Crc32cUpdate(uint32_t crc, const void* data, size_t size) {
    return Crc32cHardwareAvailable() ? Crc32cUpdateHardware(crc, data, size)
                                     : Crc32cUpdateTable(crc, data, size);
}

}  // namespace kelvo::detail
