// Media sessions: importing a file into an image and exporting an image into a file,
// through the file-format registry (kelvo/mediasession_fileformats.h).
#pragma once

#include "kelvo/data.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_fileformats.h"

namespace kelvo {

// The import step of a format: reads the file into an image with at least one layer.
// Its errors end the import unchanged.
class MediaImportInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.mediaimport"); }
    virtual Result<StrongRef<ImageInterface>> Import(const Url& url) = 0;
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

}  // namespace kelvo
