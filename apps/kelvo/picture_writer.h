// The one way the tool writes a picture. Every command that writes pixels goes through
// here, so that a file of one format holds the same kind of values whichever command wrote
// it:
//   - OpenEXR keeps linear light in 32-bit floats (16-bit halves when asked);
//   - TIFF keeps the pixels as they are (and every layer of an image, as pages);
//   - every other format (PNG, ...) gets sRGB integers, which any viewer shows right: 8-bit,
//     or 16-bit for 16-bit pixels;
//   - `keepPixelFormat` stores the pixels as given instead (a texture level written for
//     inspection, where the stored values themselves are the point).
// The conversion is the SDK's (ConvertPixels); the file is written to a temporary file
// renamed into place (WriteOutput), or straight to a url that is no local file.
//
//   std::vector<float> rgb = ...;  // linear light, rows from the top
//   KELVO_TRY(WritePicture("swatch.png", PictureView::Of(w, h, kPixelRgb32f, rgb.data())));
#pragma once

#include <cstdint>
#include <string>

#include "kelvo/image.h"
#include "kelvo/result.h"

namespace kelvo::cli {

// Pixels in memory: width x height pixels of one format and profile, rows from the top,
// each row `rowBytes` apart (0: packed). The view does not own the pixels.
struct PictureView {
    int64_t width = 0;
    int64_t height = 0;
    PixelFormat format = kPixelRgb32f;
    COLORPROFILE profile = COLORPROFILE::LINEAR;
    const void* pixels = nullptr;
    size_t rowBytes = 0;

    // Float pixels are taken as linear light, integer ones as sRGB.
    static PictureView Of(int64_t width, int64_t height, PixelFormat format, const void* pixels) {
        return {width,  height,
                format, format.IsFloat() ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB,
                pixels, 0};
    }
};

struct PictureOptions {
    Id format;                     // the file format; empty: chosen by the target's suffix
    bool keepPixelFormat = false;  // store the pixels as given, not by the policy
    bool half = false;             // OpenEXR: 16-bit half floats
};

// What the policy stores pixels of `format` and `profile` as in a file of `fileFormat`
// (above); the channels are kept.
struct StoredPixels {
    PixelFormat format;
    COLORPROFILE profile;
};
StoredPixels PicturePolicy(const Id& fileFormat, PixelFormat format, COLORPROFILE profile);

// The file format a picture written to `target` takes: `format` when given, else the first
// registered format whose suffix the target has. Fails with "No file format writes @."
// (the target's url).
Result<Id> PictureFormatFor(const std::string& target, const Id& format = {});

// Writes the pixels to `target` (a path or a url) by the policy. Fails with "Illegal
// argument: Invalid picture of @ x @." for a view without pixels or of a size outside
// CreateImage's range, with PictureFormatFor's errors and the export's own.
Result<void> WritePicture(const std::string& target, const PictureView& picture,
                          const PictureOptions& options = {});
// Writes the image to `target` by the policy: as it is when the policy stores its first
// layer's format and profile, else with every layer converted to what the policy stores.
Result<void> WritePicture(const std::string& target, const ImageInterface& image,
                          const PictureOptions& options = {});

}  // namespace kelvo::cli
