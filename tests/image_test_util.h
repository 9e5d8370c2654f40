// Builds one-layer images from pixel rows and reads a layer back, for the image tests.
#pragma once

#include <gtest/gtest.h>

#include <vector>

#include "kelvo/mediasession_output.h"

namespace kelvo::testing_images {

template <typename T>
StrongRef<ImageInterface> MakeImage(int64_t w, int64_t h, PixelFormat f, COLORPROFILE p,
                                    const std::vector<T>& pixels) {
    auto image = *CreateImage(w, h);
    auto layer = *CreateImageLayer(w, h, f, p);
    auto writer = *layer->SetPixelHandler(f, p);
    for (int64_t y = 0; y < h; ++y)
        EXPECT_TRUE(writer->SetPixels(0, y, w, pixels.data() + size_t(y * w) * f.channels).Ok());
    EXPECT_TRUE(image->AddLayer(layer).Ok());
    return image;
}

template <typename T>
std::vector<T> Pixels(const ImageInterface& image, int64_t layerIndex, PixelFormat f,
                      COLORPROFILE p) {
    auto layer = image.GetLayer(layerIndex);
    std::vector<T> out(size_t(layer->GetWidth() * layer->GetHeight()) * f.channels);
    auto reader = *layer->GetPixelHandler(f, p);
    for (int64_t y = 0; y < layer->GetHeight(); ++y)
        EXPECT_TRUE(reader
                        ->GetPixels(0, y, layer->GetWidth(),
                                    out.data() + size_t(y * layer->GetWidth()) * f.channels)
                        .Ok());
    return out;
}

}  // namespace kelvo::testing_images
