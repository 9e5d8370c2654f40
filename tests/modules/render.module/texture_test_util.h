// Random images in every pixel format and a layer whose reads can be made to fail.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <vector>

#include "kelvo/image.h"
#include "kelvo/texture.h"

namespace kelvo::testing_texture {

// A one-layer image of random channel values (floats in -0.5..2, to see they are not
// clamped).
inline StrongRef<ImageInterface> RandomImage(int64_t w, int64_t h, PixelFormat f, uint32_t seed) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> bytes(size_t(w * h) * f.GetBytesPerPixel());
    if (f.IsFloat()) {
        std::uniform_real_distribution<float> d(-0.5f, 2.0f);
        for (size_t i = 0; i < bytes.size(); i += 4) {
            float v = d(rng);
            std::memcpy(&bytes[i], &v, 4);
        }
    } else {
        for (auto& b : bytes) b = uint8_t(rng());
    }
    auto image = *CreateImage(w, h);
    auto layer = *CreateImageLayer(w, h, f, COLORPROFILE::SRGB);
    auto writer = *layer->SetPixelHandler(f, COLORPROFILE::SRGB);
    for (int64_t y = 0; y < h; ++y)
        EXPECT_TRUE(writer->SetPixels(0, y, w, &bytes[size_t(y * w) * f.GetBytesPerPixel()]).Ok());
    EXPECT_TRUE(image->AddLayer(layer).Ok());
    return image;
}

// A grey layer of `value` in any declared format; reading row `failRow` fails while set.
class FakeLayer final : public Implements<ImageLayerInterface, GetPixelHandlerInterface> {
public:
    FakeLayer(int64_t w, int64_t h, PixelFormat f) : _w(w), _h(h), _format(f) {}
    std::atomic<int64_t> failRow{-1};

    int64_t GetWidth() const override { return _w; }
    int64_t GetHeight() const override { return _h; }
    PixelFormat GetPixelFormat() const override { return _format; }
    COLORPROFILE GetColorProfile() const override { return COLORPROFILE::LINEAR; }
    Result<StrongRef<GetPixelHandlerInterface>> GetPixelHandler(PixelFormat f,
                                                                COLORPROFILE) override {
        _asked = f;
        return StrongRef<GetPixelHandlerInterface>(std::shared_ptr<Object>(), this);
    }
    Result<StrongRef<SetPixelHandlerInterface>> SetPixelHandler(PixelFormat,
                                                                COLORPROFILE) override {
        return IllegalStateError(KELVO_HERE, "The layer is read-only.");
    }
    Result<void> GetPixels(int64_t, int64_t y, int64_t count, void* to) const override {
        if (y == failRow.load())
            return IoError(KELVO_HERE, "fake://layer", "Row @ is unreadable.", y);
        std::memset(to, 100, size_t(count) * _asked.GetBytesPerPixel());
        return OK();
    }

private:
    int64_t _w, _h;
    PixelFormat _format;
    PixelFormat _asked;
};

inline StrongRef<ImageInterface> ImageOf(const StrongRef<ImageLayerInterface>& layer) {
    auto image = *CreateImage(layer->GetWidth(), layer->GetHeight());
    EXPECT_TRUE(image->AddLayer(layer).Ok());
    return image;
}

inline StrongRef<TextureInterface> MakeTexture(const StrongRef<ImageInterface>& image) {
    auto texture = *CreateClass<TextureInterface>(kTextureImplClass);
    EXPECT_TRUE(texture->Init(image, {}).Ok());
    return texture;
}

}  // namespace kelvo::testing_texture
