// CRC-32C (Castagnoli) for the IES profile checksum: the processor's CRC32 instruction
// when present, a byte table otherwise; both give the same value.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelvo::detail {

// Running register form: start from 0xFFFFFFFF, feed the pieces, complement at the end.
uint32_t Crc32cUpdateTable(uint32_t crc, const void* data, size_t size);
// Only valid where Crc32cHardwareAvailable() is true.
uint32_t Crc32cUpdateHardware(uint32_t crc, const void* data, size_t size);
// Asked of the host once, on first use.
bool Crc32cHardwareAvailable();
// The instruction when available, the table otherwise.
uint32_t Crc32cUpdate(uint32_t crc, const void* data, size_t size);

}  // namespace kelvo::detail
