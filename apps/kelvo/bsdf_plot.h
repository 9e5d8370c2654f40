// Pictures of a legacy BSDF's lobe: a polar plot of value x |cos| in the plane of
// incidence, and maps of value x |cos| over the upper and the lower hemisphere.
#pragma once

#include <cstdint>
#include <vector>

#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "picture_writer.h"

namespace kelvo::cli {

// 8-bit RGB pixels, rows top first.
struct RgbPicture {
    int width = 0;
    int height = 0;
    std::vector<uint8_t> rgb;
    void Set(int x, int y, uint8_t r, uint8_t g, uint8_t b);
    // Copies `tile` with its top-left corner at (x, y).
    void Paste(const RgbPicture& tile, int x, int y);
    // The pixels for WritePicture (8-bit sRGB).
    PictureView View() const { return PictureView::Of(width, height, kPixelRgb8, rgb.data()); }
};

// Three square panels of `size` pixels, side by side: the polar plot (the normal up, the
// view direction wo drawn as a line, transmission below the horizon), the upper and the
// lower hemisphere seen from above. Each panel is scaled to its own largest value.
RgbPicture DrawLobe(BSDFLegacyInterface& model, const Vec3& wo, int size);

}  // namespace kelvo::cli
