// Media sessions: importing a file into an image and exporting an image into a file,
// through the file-format registry (kelvo/mediasession_fileformats.h).
#pragma once

#include "kelvo/data.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/registry.h"

namespace kelvo {

// The import step of a format: reads the file into an image with at least one layer.
// Its errors end the import unchanged.
class MediaImportInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.mediaimport"); }
    virtual Result<StrongRef<ImageInterface>> Import(const Url& url) = 0;
};

// What a file's headers say about its picture, read without its pixels.
struct ImageInfo {
    struct Layer {
        PixelFormat format;
        COLORPROFILE profile = COLORPROFILE::SRGB;
    };
    Id format;  // the detected file format
    int64_t width = 0, height = 0;
    std::vector<Layer> layers;
};

// Optionally implemented by an import step that can describe a file from its headers alone,
// so that asking for a picture's size does not decode (or allocate) its pixels.
class MediaInfoInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.mediainfo"); }
    virtual Result<ImageInfo> ReadInfo(const Url& url) = 0;
};

// The export step of a format: writes an image (all its layers where the format holds
// more than one, otherwise layer 0).
class MediaExportInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.mediaexport"); }
    virtual Result<void> Export(const Url& url, const ImageInterface& image,
                                const DataDictionary& options) = 0;
};

// Options of the host's export steps.
// Bool: OpenEXR stores 16-bit half floats instead of 32-bit floats.
inline constexpr Id kExportOptionHalf("net.kelvo.image.exportoption.half");

// Detects the file's format, creates the import step its handler names and imports. The
// image carries kImagePropertyFileFormat (the format id) and kImagePropertyUrl. Fails with
// the unsupported-argument error "No file format recognises @." (the url) when no format
// detects the file, "No file format handler imports @." (the format id) without an import
// step, and with the errors of detection and import as they are.
inline Result<StrongRef<ImageInterface>> ImportImage(const Url& url) {
    return g_kelvo.host.ImportImage(url);
}

// Writes an image through the export step of `format`; an empty format id chooses the
// first registered format with an export step whose suffix the url has. Fails with
// "No file format writes @." (the url or format id) and with the export's own errors.
inline Result<void> ExportImage(const Url& url, const ImageInterface& image, const Id& format = {},
                                const DataDictionary& options = {}) {
    return g_kelvo.host.ExportImage(url, image, format, options);
}

// The size and layers of the picture in url: from its headers when it is a file whose
// format's import step offers MediaInfoInterface, otherwise by importing it. Fails as ImportImage
// does.
inline Result<ImageInfo> ReadImageInfo(const Url& url) {
    // A pipe can be read once only: detection would consume what the header reader needs.
    Id format;
    if (IoDetect(url) == IODETECT_FILE) {
        KELVO_ASSIGN_OR_RETURN(format, DetectFileFormat(url));
    }
    if (!format.IsEmpty()) {
        for (const EntryRecord* e : RegistryMembers(kFileFormatHandlersRegistry)) {
            if (e->kind != ENTRYKIND::CLASS) continue;
            auto handler = CreateClass<FileFormatHandlerInterface>(e->GetId());
            if (!handler || (*handler)->GetFileFormat() != format) continue;
            Id importClass = (*handler)->GetImportClass();
            if (importClass.IsEmpty()) continue;
            KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaImportInterface>(importClass));
            StrongRef<MediaInfoInterface> info = Query<MediaInfoInterface>(step);
            if (!info) break;
            KELVO_ASSIGN_OR_RETURN(ImageInfo out, info->ReadInfo(url));
            out.format = format;
            return out;
        }
    }
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, ImportImage(url));
    ImageInfo out;
    out.format = image->GetProperties().template Get<Id>(kImagePropertyFileFormat);
    out.width = image->GetWidth();
    out.height = image->GetHeight();
    for (int64_t i = 0; i < image->GetLayerCount(); ++i) {
        auto layer = image->GetLayer(i);
        out.layers.push_back({layer->GetPixelFormat(), layer->GetColorProfile()});
    }
    return out;
}

}  // namespace kelvo
