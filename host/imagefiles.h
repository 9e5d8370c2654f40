// The host's image file formats: one description per format, read and written by the
// reference library of each (libpng, libtiff, OpenEXR).
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "host.h"
#include "kelvo/image.h"

namespace kelvo::host::detail {

struct HostFileFormat {
    const char* name;
    const char* formatId;
    const char* handlerId;
    const char* importId;
    const char* exportId;
    const char* suffixes[3];
    // Whether the first bytes of a file (fewer when the file is shorter) are this format's.
    bool (*detect)(const uint8_t* head, size_t size);
    Result<StrongRef<ImageInterface>> (*read)(const std::filesystem::path& path,
                                              const std::string& url);
    Result<void> (*write)(const std::filesystem::path& path, const std::string& url,
                          const ImageInterface& image, const DataDictionary& options);
};

extern const HostFileFormat kPngFormat;
extern const HostFileFormat kTiffFormat;
extern const HostFileFormat kExrFormat;

// Pictures beyond this many pixels are refused before any pixel memory is taken, so a
// header that lies about its size cannot exhaust memory.
inline constexpr int64_t kMaxPicturePixels = int64_t(1) << 28;
inline Result<void> CheckPictureSize(const char* format, const std::string& url, int64_t w,
                                     int64_t h) {
    if (w < 1 || h < 1 || w > (int64_t(1) << 24) || h > (int64_t(1) << 24) ||
        w * h > kMaxPicturePixels)
        return IoError(KELVO_HERE, url, "Cannot read @ @: invalid size @ x @.", format, url, w, h);
    return OK();
}

// Layer `index` of an image as rows of `format` in `profile`, top row first.
// Converts count pixels between formats and profiles (the ConvertPixels slot).
Result<void> ConvertPixelsDirect(PixelFormat fromFormat, COLORPROFILE fromProfile, const void* from,
                                 PixelFormat toFormat, COLORPROFILE toProfile, void* to,
                                 int64_t count);
Result<void> ReadLayerRows(const ImageInterface& image, int64_t index, PixelFormat format,
                           COLORPROFILE profile, std::vector<uint8_t>& out);
// A memory layer of the given format filled from `pixels` (rows, top first).
Result<StrongRef<ImageLayerInterface>> LayerFromPixels(int64_t width, int64_t height,
                                                       PixelFormat format, COLORPROFILE profile,
                                                       const void* pixels);

}  // namespace kelvo::host::detail
