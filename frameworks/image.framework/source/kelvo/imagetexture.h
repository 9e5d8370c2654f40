// Image textures: a picture held in memory as linear RGBA float samples, ready to be shown
// or sampled, loaded from a url through the image import.
//
// A texture is immutable once made and shared through ImageTextureRef, so any thread may
// read it while references live.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/url.h"
#include "kelvo/vec.h"

namespace kelvo {

class ImageTexture {
public:
    using Samples = std::vector<Col4f, Allocator<Col4f>>;

    int64_t GetWidth() const { return _width; }
    int64_t GetHeight() const { return _height; }
    // Where the picture came from; empty for a texture made from samples.
    const Url& GetUrl() const { return _url; }
    // width × height samples, row by row, top row first.
    const Samples& GetSamples() const { return _samples; }
    // The sample at (x, y), coordinates clamped to the picture (edge pixels repeat).
    Col4f GetPixel(int64_t x, int64_t y) const {
        x = std::clamp<int64_t>(x, 0, _width - 1);
        y = std::clamp<int64_t>(y, 0, _height - 1);
        return _samples[size_t(y * _width + x)];
    }

    // Loads layer 0 of the picture at url, converted to linear RGBA float. Errors of the
    // import pass through unchanged; a picture without layers fails with
    // "Illegal argument: The image @ has no layers."; out of memory is an error.
    static Result<StrongRef<const ImageTexture>> Load(const Url& url) {
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, ImportImage(url));
        StrongRef<ImageLayerInterface> layer = image->GetLayer(0);
        if (!layer)
            return IllegalArgumentError(KELVO_HERE, "The image @ has no layers.", url.ToString());
        KELVO_ASSIGN_OR_RETURN(StrongRef<GetPixelHandlerInterface> reader,
                               layer->GetPixelHandler(kPixelRgba32f, COLORPROFILE::LINEAR));
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageTexture> texture,
                               NewObject<ImageTexture>(layer->GetWidth(), layer->GetHeight(), url));
        KELVO_TRY(texture->AllocateSamples());
        for (int64_t y = 0; y < texture->_height; ++y)
            KELVO_TRY(reader->GetPixels(0, y, texture->_width,
                                        &texture->_samples[size_t(y * texture->_width)]));
        return StrongRef<const ImageTexture>(std::move(texture));
    }

    // A texture holding a copy of width × height samples. Fails with
    // "Illegal argument: Invalid texture size @ x @." unless both are at least 1 and the
    // sample count matches; out of memory is an error.
    static Result<StrongRef<const ImageTexture>> FromSamples(int64_t width, int64_t height,
                                                             const Col4f* samples, size_t count) {
        if (width < 1 || height < 1 || uint64_t(width) > SIZE_MAX / uint64_t(height) ||
            size_t(width) * size_t(height) != count || !samples)
            return IllegalArgumentError(KELVO_HERE, "Invalid texture size @ x @.", width, height);
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageTexture> texture,
                               NewObject<ImageTexture>(width, height, Url()));
        KELVO_TRY(texture->AllocateSamples());
        std::copy(samples, samples + count, texture->_samples.begin());
        return StrongRef<const ImageTexture>(std::move(texture));
    }

    ImageTexture(int64_t width, int64_t height, Url url)
        : _width(width), _height(height), _url(std::move(url)) {}

private:
    Result<void> AllocateSamples() {
        return CatchOutOfMemory([&]() -> Result<void> {
            _samples.resize(size_t(_width) * size_t(_height));
            return OK();
        });
    }

    int64_t _width;
    int64_t _height;
    Url _url;
    Samples _samples;
};

using ImageTextureRef = StrongRef<const ImageTexture>;

// The texture of the picture at url; see ImageTexture::Load.
inline Result<ImageTextureRef> LoadImageTexture(const Url& url) { return ImageTexture::Load(url); }

}  // namespace kelvo
