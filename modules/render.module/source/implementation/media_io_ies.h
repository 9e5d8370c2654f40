// The IES image import: detection of IES files by their first bytes. Module-internal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelvo::detail {

// Width and height of the picture an imported IES file becomes.
inline constexpr int64_t kIesImageSize = 512;

// How many bytes from the start of a file the detection reads.
inline constexpr size_t kIesDetectBytes = 1024;

// Whether the first bytes of a file (at most kIesDetectBytes are looked at) are IES text:
// "IESN" anywhere, or else "TILT" anywhere, which admits the oldest files that have no
// version line.
bool DetectIesContent(std::string_view firstBytes);

}  // namespace kelvo::detail
