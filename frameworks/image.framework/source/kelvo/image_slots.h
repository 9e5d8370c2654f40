// The image framework's host slots. Included by binding.h; the types are in kelvo/image.h
// and kelvo/mediasession_output.h.
#pragma once

#include <cstdint>
#include <memory>

namespace kelvo {
template <typename T>
class Result;
class Id;
class Url;
class DataDictionary;
class ImageInterface;
class ImageLayerInterface;
struct PixelFormat;
enum class COLORPROFILE : uint8_t;
}  // namespace kelvo

#define KELVO_IMAGE_SLOTS(X)                                                                       \
    X(::kelvo::Result<std::shared_ptr<::kelvo::ImageInterface>>, CreateImage,                      \
      (int64_t width, int64_t height))                                                             \
    X(::kelvo::Result<std::shared_ptr<::kelvo::ImageLayerInterface>>, CreateImageLayer,            \
      (int64_t width, int64_t height, ::kelvo::PixelFormat format, ::kelvo::COLORPROFILE profile)) \
    X(::kelvo::Result<void>, ConvertPixels,                                                        \
      (::kelvo::PixelFormat fromFormat, ::kelvo::COLORPROFILE fromProfile, const void* from,       \
       ::kelvo::PixelFormat toFormat, ::kelvo::COLORPROFILE toProfile, void* to, int64_t count))   \
    X(::kelvo::Result<::kelvo::Id>, DetectFileFormat, (const ::kelvo::Url& url))                   \
    X(::kelvo::Result<std::shared_ptr<::kelvo::ImageInterface>>, ImportImage,                      \
      (const ::kelvo::Url& url))                                                                   \
    X(::kelvo::Result<void>, ExportImage,                                                          \
      (const ::kelvo::Url& url, const ::kelvo::ImageInterface& image, const ::kelvo::Id& format,   \
       const ::kelvo::DataDictionary& options))
