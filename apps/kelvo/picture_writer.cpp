#include "picture_writer.h"

#include <vector>

#include "cli_common.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace {

constexpr Id kExrFormat("net.kelvo.fileformat.imageexr");
constexpr Id kTiffFormat("net.kelvo.fileformat.imagetiff");

Result<void> Export(const std::string& target, const ImageInterface& image, const Id& format,
                    bool half) {
    DataDictionary options;
    KELVO_TRY(options.Set(kExportOptionHalf, half));
    KELVO_ASSIGN_OR_RETURN(Url url, Url::FromText(target));
    const std::filesystem::path path = host::LocalPath(url);
    if (path.empty()) return ExportImage(url, image, format, options);  // not a file
    return WriteOutput(path, [&](const std::filesystem::path& at) {
        return ExportImage(Url::FromFile(at.string()), image, format, options);
    });
}

// The image with every layer converted to the given format and profile (a format that
// holds one layer warns about the others, as for any image); the layers' handlers convert.
Result<StrongRef<ImageInterface>> Converted(const ImageInterface& image, StoredPixels to) {
    const int64_t w = image.GetWidth(), h = image.GetHeight();
    KELVO_ASSIGN_OR_RETURN(auto out, CreateImage(w, h));
    std::vector<uint8_t> row(size_t(w) * to.format.GetBytesPerPixel());
    for (int64_t i = 0; i < image.GetLayerCount(); ++i) {
        StrongRef<ImageLayerInterface> layer = image.GetLayer(i);
        KELVO_ASSIGN_OR_RETURN(auto copy, CreateImageLayer(w, h, to.format, to.profile));
        KELVO_ASSIGN_OR_RETURN(auto reader, layer->GetPixelHandler(to.format, to.profile));
        KELVO_ASSIGN_OR_RETURN(auto writer, copy->SetPixelHandler(to.format, to.profile));
        for (int64_t y = 0; y < h; ++y) {
            KELVO_TRY(reader->GetPixels(0, y, w, row.data()));
            KELVO_TRY(writer->SetPixels(0, y, w, row.data()));
        }
        KELVO_TRY(out->AddLayer(copy));
    }
    return out;
}

}  // namespace

StoredPixels PicturePolicy(const Id& fileFormat, PixelFormat format, COLORPROFILE profile) {
    if (fileFormat == kExrFormat)
        return {{format.channels, CHANNELTYPE::FLOAT32}, COLORPROFILE::LINEAR};
    // TIFF holds whatever a pipeline works in, and every layer as a page: nothing to convert.
    if (fileFormat == kTiffFormat) return {format, profile};
    // The rest are for viewing: sRGB integers, 16-bit pictures keeping their precision.
    const CHANNELTYPE type =
        format.type == CHANNELTYPE::UINT16 ? CHANNELTYPE::UINT16 : CHANNELTYPE::UINT8;
    return {{format.channels, type}, COLORPROFILE::SRGB};
}

Result<Id> PictureFormatFor(const std::string& target, const Id& format) {
    if (!format.IsEmpty()) return format;
    KELVO_ASSIGN_OR_RETURN(Url url, Url::FromText(target));
    for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
        auto f = CreateClass<FileFormatInterface>(e->GetId());
        if (f && (*f)->MatchesSuffix(url)) return e->GetId();
    }
    return UnsupportedArgumentError(KELVO_HERE, "No file format writes @.", url.ToString());
}

Result<void> WritePicture(const std::string& target, const PictureView& picture,
                          const PictureOptions& options) {
    if (!picture.pixels || !picture.format.IsValid() || picture.width < 1 || picture.height < 1)
        return IllegalArgumentError(KELVO_HERE, "Invalid picture of @ x @.", picture.width,
                                    picture.height);
    KELVO_ASSIGN_OR_RETURN(Id format, PictureFormatFor(target, options.format));
    const StoredPixels stored = options.keepPixelFormat
                                    ? StoredPixels{picture.format, picture.profile}
                                    : PicturePolicy(format, picture.format, picture.profile);
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(picture.width, picture.height));
    KELVO_ASSIGN_OR_RETURN(
        auto layer, CreateImageLayer(picture.width, picture.height, stored.format, stored.profile));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(picture.format, picture.profile));
    const size_t rowBytes = picture.rowBytes
                                ? picture.rowBytes
                                : size_t(picture.width) * picture.format.GetBytesPerPixel();
    const auto* pixels = static_cast<const uint8_t*>(picture.pixels);
    for (int64_t y = 0; y < picture.height; ++y)
        KELVO_TRY(writer->SetPixels(0, y, picture.width, pixels + size_t(y) * rowBytes));
    KELVO_TRY(image->AddLayer(layer));
    return Export(target, *image, format, options.half);
}

Result<void> WritePicture(const std::string& target, const ImageInterface& image,
                          const PictureOptions& options) {
    KELVO_ASSIGN_OR_RETURN(Id format, PictureFormatFor(target, options.format));
    StrongRef<ImageLayerInterface> layer = image.GetLayer(0);
    if (!layer)
        return IllegalArgumentError(KELVO_HERE, "Invalid picture of @ x @.", image.GetWidth(),
                                    image.GetHeight());
    const StoredPixels stored =
        PicturePolicy(format, layer->GetPixelFormat(), layer->GetColorProfile());
    if (options.keepPixelFormat ||
        (layer->GetPixelFormat() == stored.format && layer->GetColorProfile() == stored.profile))
        return Export(target, image, format, options.half);
    KELVO_ASSIGN_OR_RETURN(auto converted, Converted(image, stored));
    return Export(target, *converted, format, options.half);
}

}  // namespace kelvo::cli
