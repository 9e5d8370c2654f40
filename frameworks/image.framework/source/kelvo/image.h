// Images: pixel formats, colour profiles, image layers with pixel handlers, and images
// made of layers.
//
// Pixels of a layer are reached only through pixel handlers: a get-pixel handler reads a
// run of pixels of one row, a set-pixel handler writes one. A handler works in the pixel
// format and colour profile it was asked for; the layer converts between that and what it
// stores (host layers convert between every format and profile; a module's own layer may
// hand out handlers for its own format only). Rows are numbered from the top.
#pragma once

#include <cmath>
#include <cstdint>
#include <string_view>

#include "kelvo/binding.h"
#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

enum class CHANNELTYPE : uint8_t {
    UINT8,    // 0..255 stands for 0..1
    UINT16,   // 0..65535 stands for 0..1; native byte order
    FLOAT32,  // as is, not clamped
};

// Channels and their type. Channels are interleaved per pixel: grey; r, g, b; r, g, b, a.
// Alpha is straight (not premultiplied).
struct PixelFormat {
    uint8_t channels = 0;  // 1 (grey), 3 (RGB) or 4 (RGBA)
    CHANNELTYPE type = CHANNELTYPE::UINT8;

    constexpr bool IsValid() const { return channels == 1 || channels == 3 || channels == 4; }
    constexpr int GetChannelCount() const { return channels; }
    constexpr bool HasAlpha() const { return channels == 4; }
    constexpr int GetBitsPerChannel() const {
        return type == CHANNELTYPE::UINT8 ? 8 : type == CHANNELTYPE::UINT16 ? 16 : 32;
    }
    constexpr int GetBitsPerPixel() const { return GetBitsPerChannel() * channels; }
    constexpr size_t GetBytesPerPixel() const { return size_t(GetBitsPerPixel() / 8); }
    constexpr bool IsFloat() const { return type == CHANNELTYPE::FLOAT32; }
    constexpr bool operator==(const PixelFormat&) const = default;

    // "grey8", "rgb8", "rgba8", "grey16", "rgb16", "rgba16", "grey32f", "rgb32f", "rgba32f";
    // "invalid" otherwise.
    constexpr std::string_view Name() const {
        if (!IsValid()) return "invalid";
        constexpr std::string_view names[3][3] = {{"grey8", "rgb8", "rgba8"},
                                                  {"grey16", "rgb16", "rgba16"},
                                                  {"grey32f", "rgb32f", "rgba32f"}};
        return names[int(type)][channels == 1 ? 0 : channels - 2];
    }
    // The format of a name that Name() gives; "Illegal argument: Unknown pixel format '@'."
    static Result<PixelFormat> FromName(std::string_view name) {
        for (uint8_t c : {1, 3, 4})
            for (CHANNELTYPE t : {CHANNELTYPE::UINT8, CHANNELTYPE::UINT16, CHANNELTYPE::FLOAT32})
                if (PixelFormat{c, t}.Name() == name) return PixelFormat{c, t};
        return IllegalArgumentError(KELVO_HERE, "Unknown pixel format '@'.", name);
    }
};

inline constexpr PixelFormat kPixelGrey8{1, CHANNELTYPE::UINT8};
inline constexpr PixelFormat kPixelRgb8{3, CHANNELTYPE::UINT8};
inline constexpr PixelFormat kPixelRgba8{4, CHANNELTYPE::UINT8};
inline constexpr PixelFormat kPixelGrey16{1, CHANNELTYPE::UINT16};
inline constexpr PixelFormat kPixelRgb16{3, CHANNELTYPE::UINT16};
inline constexpr PixelFormat kPixelRgba16{4, CHANNELTYPE::UINT16};
inline constexpr PixelFormat kPixelGrey32f{1, CHANNELTYPE::FLOAT32};
inline constexpr PixelFormat kPixelRgb32f{3, CHANNELTYPE::FLOAT32};
inline constexpr PixelFormat kPixelRgba32f{4, CHANNELTYPE::FLOAT32};

// How stored colour values relate to light. Alpha is always linear.
enum class COLORPROFILE : uint8_t {
    LINEAR,  // values proportional to light (floating-point images, renderer output)
    SRGB,    // the sRGB transfer curve (8- and 16-bit pictures)
};

constexpr std::string_view ColorProfileName(COLORPROFILE p) {
    return p == COLORPROFILE::SRGB ? "sRGB" : "linear";
}
// The sRGB transfer curve and its inverse, for values in 0..1 (others are extended
// symmetrically, so negative values keep their sign).
inline float SrgbToLinear(float v) {
    float a = std::fabs(v);
    float l = a <= 0.04045f ? a / 12.92f : std::pow((a + 0.055f) / 1.055f, 2.4f);
    return std::copysign(l, v);
}
inline float LinearToSrgb(float v) {
    float a = std::fabs(v);
    float s = a <= 0.0031308f ? a * 12.92f : 1.055f * std::pow(a, 1.0f / 2.4f) - 0.055f;
    return std::copysign(s, v);
}

// Converts `count` pixels. Integer channels map to 0..1; values outside 0..1 (and NaN, as
// 0) are clamped when written into integer channels. Grey becomes equal r, g, b; colour
// becomes grey by Rec. 709 luminance (0.2126, 0.7152, 0.0722); a missing alpha is 1; a
// dropped alpha is lost. Profiles differing, colour channels pass through linear light.
// Fails with "Illegal argument: Invalid pixel format." for an invalid format.
inline Result<void> ConvertPixels(PixelFormat fromFormat, COLORPROFILE fromProfile,
                                  const void* from, PixelFormat toFormat, COLORPROFILE toProfile,
                                  void* to, int64_t count) {
    return g_kelvo.host.ConvertPixels(fromFormat, fromProfile, from, toFormat, toProfile, to,
                                      count);
}

// Reads pixels of a layer in the handler's format and profile.
class GetPixelHandlerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.getpixelhandler"); }
    virtual PixelFormat GetPixelFormat() const = 0;
    virtual COLORPROFILE GetColorProfile() const = 0;
    // Reads `count` pixels of row y starting at column x into `to`. Fails with
    // "Illegal argument: Pixels @ to @ of row @ lie outside the @ x @ layer." when the run
    // leaves the layer.
    virtual Result<void> GetPixels(int64_t x, int64_t y, int64_t count, void* to) const = 0;
};

// Writes pixels of a layer, given in the handler's format and profile.
class SetPixelHandlerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.setpixelhandler"); }
    virtual PixelFormat GetPixelFormat() const = 0;
    virtual COLORPROFILE GetColorProfile() const = 0;
    // Writes `count` pixels into row y from column x; range errors as for GetPixels.
    virtual Result<void> SetPixels(int64_t x, int64_t y, int64_t count, const void* from) = 0;
};

// One layer of an image: a width × height grid of pixels in one format and profile.
// A module implements this to offer pixels it makes itself (an imported file's picture).
class ImageLayerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.imagelayer"); }
    virtual int64_t GetWidth() const = 0;
    virtual int64_t GetHeight() const = 0;
    // The format the layer stores; handlers of this format read and write without loss.
    virtual PixelFormat GetPixelFormat() const = 0;
    virtual COLORPROFILE GetColorProfile() const = 0;
    // A reader in the given format and profile. A layer that cannot convert fails for any
    // other format with the unsupported-argument error "Wrong pixel format".
    virtual Result<StrongRef<GetPixelHandlerInterface>> GetPixelHandler(PixelFormat format,
                                                                        COLORPROFILE profile) = 0;
    // A writer in the given format and profile; a read-only layer fails with
    // "Illegal state: The layer is read-only.".
    virtual Result<StrongRef<SetPixelHandlerInterface>> SetPixelHandler(PixelFormat format,
                                                                        COLORPROFILE profile) = 0;
};

// Keys of ImageInterface properties the host sets on import.
inline constexpr Id kImagePropertyFileFormat("net.kelvo.image.property.fileformat");  // Id
inline constexpr Id kImagePropertyUrl("net.kelvo.image.property.url");                // Url

// A picture: a size, layers of that size (layer 0 is the picture itself; further layers
// are pages or passes) and properties.
class ImageInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.image"); }
    virtual int64_t GetWidth() const = 0;
    virtual int64_t GetHeight() const = 0;
    virtual int64_t GetLayerCount() const = 0;
    // The layer at index, or nullptr outside 0..GetLayerCount()-1.
    virtual StrongRef<ImageLayerInterface> GetLayer(int64_t index) const = 0;
    // Appends a layer. Fails with "Illegal argument: The layer of @ x @ does not fit the
    // image of @ x @." when the sizes differ.
    virtual Result<void> AddLayer(StrongRef<ImageLayerInterface> layer) = 0;
    virtual const DataDictionary& GetProperties() const = 0;
    virtual Result<void> SetProperty(const DataDictionary::Key& key, Data value) = 0;
};

// An empty image (no layers) of width × height. Fails with
// "Illegal argument: Invalid image size @ x @." unless both lie in 1..16777216.
inline Result<StrongRef<ImageInterface>> CreateImage(int64_t width, int64_t height) {
    return g_kelvo.host.CreateImage(width, height);
}
// A layer held in memory, all pixels zero, that converts between every format and
// profile. Size errors as for CreateImage; "Illegal argument: Invalid pixel format.".
inline Result<StrongRef<ImageLayerInterface>> CreateImageLayer(int64_t width, int64_t height,
                                                               PixelFormat format,
                                                               COLORPROFILE profile) {
    return g_kelvo.host.CreateImageLayer(width, height, format, profile);
}

}  // namespace kelvo
