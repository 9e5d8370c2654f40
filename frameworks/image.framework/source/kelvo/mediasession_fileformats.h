// The file-format registry: how a file is recognised, and which media session reads or
// writes it.
//
// A module offers a file format with three classes, all created by id:
//
//   KELVO_REGISTER_CLASS(s_format, "net.kelvo.fileformat.imagexyz", kFileFormatsRegistry,
//                        FileFormatInterface::InterfaceId(), XyzFileFormat);
//   KELVO_REGISTER_CLASS(s_handler, "net.kelvo.fileformathandler.imageloaderxyz",
//                        kFileFormatHandlersRegistry, FileFormatHandlerInterface::InterfaceId(),
//                        XyzHandler);
//   KELVO_REGISTER_CLASS(s_import, "net.kelvo.mediasession.xyz.import", Id(),
//                        MediaImportInterface::InterfaceId(), XyzImport);
//
// The format detects files; the handler names the format it serves and the classes of its
// import (and export) step; the import step (kelvo/mediasession_output.h) turns the file
// into an image. The host's own PNG, TIFF and OpenEXR formats are entered the same way
// ("net.kelvo.fileformat.imagepng", ".imagetiff", ".imageexr"), so ImportImage opens a
// module's format exactly like the host's. Formats are asked in registry order (the host's
// first); the first that detects a file is its format.
#pragma once

#include <algorithm>
#include <string_view>

#include "kelvo/binding.h"
#include "kelvo/io.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

inline constexpr Id kFileFormatsRegistry("net.kelvo.registry.fileformats");
inline constexpr Id kFileFormatHandlersRegistry("net.kelvo.registry.fileformathandlers");

// Whether the url's file name ends in "." + suffix, ignoring ASCII letter case:
// CheckSuffix(url, "ies") holds for "a.ies" and "B.IES", not for "ies" or "a.ies.txt".
inline bool CheckSuffix(const Url& url, std::string_view suffix) {
    std::string_view path(url.Path());
    size_t slash = path.find_last_of('/');
    std::string_view name = slash == std::string_view::npos ? path : path.substr(slash + 1);
    if (suffix.empty() || name.size() <= suffix.size() + 1) return false;
    if (name[name.size() - suffix.size() - 1] != '.') return false;
    std::string_view tail = name.substr(name.size() - suffix.size());
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; };
    return std::equal(tail.begin(), tail.end(), suffix.begin(), suffix.end(),
                      [&](char a, char b) { return lower(a) == lower(b); });
}

// A file format, a member of net.kelvo.registry.fileformats under its id.
class FileFormatInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.fileformat"); }
    // Whether the file at url is of this format: false for another format (no error); an
    // error only when reading the file failed. May read the start of the file.
    virtual Result<bool> Detect(const Url& url) const = 0;
    // Whether a file to be written under url should take this format (by its suffix).
    virtual bool MatchesSuffix(const Url& url) const = 0;
    // A short name for people: "PNG", "TIFF", "OpenEXR", "IES".
    virtual std::string_view GetName() const = 0;
};

// Binds a format to its media-session steps; a member of
// net.kelvo.registry.fileformathandlers.
class FileFormatHandlerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.image.interface.fileformathandler"); }
    // The id of the format served.
    virtual Id GetFileFormat() const = 0;
    // The class (a MediaImportInterface) that reads the format; empty if none.
    virtual Id GetImportClass() const = 0;
    // The class (a MediaExportInterface) that writes the format; empty if none.
    virtual Id GetExportClass() const = 0;
};

// The id of the first registered format that detects the file, or an empty id when none
// does. A format's read error is returned as it is.
inline Result<Id> DetectFileFormat(const Url& url) { return g_kelvo.host.DetectFileFormat(url); }

}  // namespace kelvo
