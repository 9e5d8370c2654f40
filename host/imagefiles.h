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
#include "kelvo/mediasession_output.h"

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
    // The size and layers of the file from its headers alone, no pixel read.
    Result<ImageInfo> (*info)(const std::filesystem::path& path, const std::string& url);
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

// The configuration variable bounding the bytes of pixels one picture may take across all
// its pages, layers and chunks (decimal; the default is 1 GiB). Headers are checked
// against it before pixels are read, so a small file declaring a huge picture fails fast.
inline constexpr const char* kMaxImageBytesVariable = "g_maxImageBytes";
inline constexpr uint64_t kDefaultMaxImageBytes = uint64_t(1) << 30;
uint64_t MaxImageBytes();
// A value for the variable: a whole decimal number of bytes, at least 1. Anything else
// (1e3, 512M, -1) is refused rather than read as the default.
Result<uint64_t> ParseMaxImageBytes(std::string_view text);

// Accounts for the bytes a reader is about to take for one picture.
class PixelBudget {
public:
    PixelBudget(const char* format, const std::string& url)
        : _format(format), _url(url), _limit(MaxImageBytes()) {}
    Result<void> Take(uint64_t bytes) {
        if (bytes > _limit - _used)
            return IoError(KELVO_HERE, _url,
                           "Cannot read @ @: its pixels need more than @ bytes (@).", _format, _url,
                           _limit, kMaxImageBytesVariable);
        _used += bytes;
        return OK();
    }
    uint64_t Limit() const { return _limit; }

private:
    const char* _format;
    const std::string& _url;
    uint64_t _limit, _used = 0;
};

// Layer `index` of an image as rows of `format` in `profile`, top row first.
// Converts count pixels between formats and profiles (the ConvertPixels slot).
Result<void> ConvertPixelsDirect(PixelFormat fromFormat, COLORPROFILE fromProfile, const void* from,
                                 PixelFormat toFormat, COLORPROFILE toProfile, void* to,
                                 int64_t count);
Result<void> ReadLayerRows(const ImageInterface& image, int64_t index, PixelFormat format,
                           COLORPROFILE profile, std::vector<uint8_t>& out);
// The rows of one layer as `format` in `profile`, one at a time, so that a writer holds a row
// rather than a second copy of the picture.
class LayerRowReader {
public:
    Result<void> Open(const ImageInterface& image, int64_t index, PixelFormat format,
                      COLORPROFILE profile);
    // Row y (0 at the top) into `out`, width × the format's bytes per pixel.
    Result<void> Read(int64_t y, void* out);
    int64_t Width() const { return _width; }
    int64_t Height() const { return _height; }

private:
    StrongRef<GetPixelHandlerInterface> _reader;
    PixelFormat _format, _own;
    COLORPROFILE _profile = COLORPROFILE::SRGB, _ownProfile = COLORPROFILE::SRGB;
    bool _convert = false;  // the layer hands out its own format only
    std::vector<uint8_t> _line;
    int64_t _width = 0, _height = 0;
};
// A memory layer of the given format filled from `pixels` (rows, top first).
Result<StrongRef<ImageLayerInterface>> LayerFromPixels(int64_t width, int64_t height,
                                                       PixelFormat format, COLORPROFILE profile,
                                                       const void* pixels);

}  // namespace kelvo::host::detail
