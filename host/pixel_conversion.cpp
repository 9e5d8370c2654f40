// Pixel conversion between formats and colour profiles, through linear RGBA floats.
#include <algorithm>
#include <cstring>

#include "imagefiles.h"

namespace kelvo::host {
namespace {

void ToRgbaFloat(PixelFormat f, const void* from, float* rgba, int64_t count) {
    const int c = f.channels;
    for (int64_t i = 0; i < count; ++i) {
        float v[4] = {0, 0, 0, 1};
        for (int k = 0; k < c; ++k) {
            size_t at = size_t(i) * size_t(c) + size_t(k);
            switch (f.type) {
                case CHANNELTYPE::UINT8:
                    v[k] = static_cast<const uint8_t*>(from)[at] / 255.0f;
                    break;
                case CHANNELTYPE::UINT16:
                    v[k] = static_cast<const uint16_t*>(from)[at] / 65535.0f;
                    break;
                case CHANNELTYPE::FLOAT32:
                    v[k] = static_cast<const float*>(from)[at];
                    break;
            }
        }
        if (c == 1) v[1] = v[2] = v[0];
        std::memcpy(rgba + 4 * i, v, sizeof v);
    }
}

template <typename T>
T ToInteger(float v, float scale) {
    if (!(v > 0)) return 0;  // NaN too
    if (v >= 1) return static_cast<T>(scale);
    // v is in (0, 1): adding a half and truncating rounds to nearest, and keeps the bytes
    // every stored file was written with.
    return static_cast<T>(v * scale + 0.5f);  // NOLINT(bugprone-incorrect-roundings)
}

void FromRgbaFloat(const float* rgba, PixelFormat f, void* to, int64_t count) {
    const int c = f.channels;
    for (int64_t i = 0; i < count; ++i) {
        const float* p = rgba + 4 * i;
        float v[4] = {p[0], p[1], p[2], p[3]};
        if (c == 1) v[0] = 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2];
        for (int k = 0; k < c; ++k) {
            size_t at = size_t(i) * size_t(c) + size_t(k);
            switch (f.type) {
                case CHANNELTYPE::UINT8:
                    static_cast<uint8_t*>(to)[at] = ToInteger<uint8_t>(v[k], 255.0f);
                    break;
                case CHANNELTYPE::UINT16:
                    static_cast<uint16_t*>(to)[at] = ToInteger<uint16_t>(v[k], 65535.0f);
                    break;
                case CHANNELTYPE::FLOAT32:
                    static_cast<float*>(to)[at] = v[k];
                    break;
            }
        }
    }
}

Result<void> ConvertPixelsSlot(PixelFormat fromFormat, COLORPROFILE fromProfile, const void* from,
                               PixelFormat toFormat, COLORPROFILE toProfile, void* to,
                               int64_t count) {
    if (!fromFormat.IsValid() || !toFormat.IsValid())
        return IllegalArgumentError(KELVO_HERE, "Invalid pixel format.");
    if (count <= 0) return OK();
    if (fromFormat == toFormat && fromProfile == toProfile) {
        std::memmove(to, from, size_t(count) * fromFormat.GetBytesPerPixel());
        return OK();
    }
    // In slices, so that a long row needs only a small buffer.
    constexpr int64_t kSlice = 256;
    float rgba[4 * kSlice];
    auto* src = static_cast<const uint8_t*>(from);
    auto* dst = static_cast<uint8_t*>(to);
    for (int64_t done = 0; done < count; done += kSlice) {
        int64_t n = std::min(kSlice, count - done);
        ToRgbaFloat(fromFormat, src + size_t(done) * fromFormat.GetBytesPerPixel(), rgba, n);
        if (fromProfile != toProfile) {
            for (int64_t i = 0; i < n; ++i)
                for (int k = 0; k < 3; ++k) {
                    float& v = rgba[4 * i + k];
                    v = toProfile == COLORPROFILE::LINEAR ? SrgbToLinear(v) : LinearToSrgb(v);
                }
        }
        FromRgbaFloat(rgba, toFormat, dst + size_t(done) * toFormat.GetBytesPerPixel(), n);
    }
    return OK();
}

}  // namespace

namespace detail {
Result<void> ConvertPixelsDirect(PixelFormat fromFormat, COLORPROFILE fromProfile, const void* from,
                                 PixelFormat toFormat, COLORPROFILE toProfile, void* to,
                                 int64_t count) {
    return ConvertPixelsSlot(fromFormat, fromProfile, from, toFormat, toProfile, to, count);
}

void FillPixelConversionSlots(KelvoHostSlots& slots) { slots.ConvertPixels = &ConvertPixelsSlot; }
}  // namespace detail

}  // namespace kelvo::host
