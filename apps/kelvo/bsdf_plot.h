// Pictures of a legacy BSDF's lobe: a polar plot of value x |cos| in the plane of
// incidence, and maps of value x |cos| over the upper and the lower hemisphere.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/result.h"

namespace kelvo::cli {

// 8-bit RGB pixels, rows top first.
struct RgbPicture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
    void Set(int x, int y, uint8_t r, uint8_t g, uint8_t b);
    // Copies `tile` with its top-left corner at (x, y).
    void Paste(const RgbPicture& tile, int x, int y);
};

// Three square panels of `size` pixels, side by side: the polar plot (the normal up, the
// view direction wo drawn as a line, transmission below the horizon), the upper and the
// lower hemisphere seen from above. Each panel is scaled to its own largest value.
RgbPicture DrawLobe(BSDFLegacyInterface& model, const Vec3& wo, int size);

// Writes the picture as a PNG file through the host's image files.
Result<void> WritePicture(const std::filesystem::path& path, const RgbPicture& picture);

}  // namespace kelvo::cli
