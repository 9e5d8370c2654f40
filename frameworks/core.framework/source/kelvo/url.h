// Urls: a scheme and a path ("file:///tmp/a.png", "relative:///tex/a.png").
//
// "file" urls name files of the local file system. "relative" urls name a path below a
// base that the user of the url supplies (a scene folder, or the host's resources).
// Text without "://" is taken as a file path.
#pragma once

#include <string>
#include <string_view>

#include "kelvo/result.h"

namespace kelvo {

// Codes of I/O detection.
enum IODETECT : int {
    IODETECT_NONE = 0,       // nothing there
    IODETECT_UNKNOWN = 1,    // exists, but neither a file nor a folder
    IODETECT_DIRECTORY = 2,  // a folder
    IODETECT_FILE = 3,       // a file
};

class Url {
public:
    Url() = default;
    Url(std::string scheme, std::string path)
        : _scheme(std::move(scheme)), _path(std::move(path)) {}

    // Fails with "Illegal argument: Invalid url '@'." for an empty text or scheme.
    static Result<Url> FromText(std::string_view text) {
        size_t sep = text.find("://");
        if (sep == std::string_view::npos) {
            if (text.empty()) return IllegalArgumentError(KELVO_HERE, "Invalid url '@'.", text);
            return Url("file", std::string(text));
        }
        if (sep == 0) return IllegalArgumentError(KELVO_HERE, "Invalid url '@'.", text);
        return Url(std::string(text.substr(0, sep)), std::string(text.substr(sep + 3)));
    }
    static Url FromFile(std::string_view path) { return Url("file", std::string(path)); }

    const std::string& Scheme() const { return _scheme; }
    const std::string& Path() const { return _path; }
    bool IsEmpty() const { return _scheme.empty() && _path.empty(); }
    std::string ToString() const { return _scheme.empty() ? _path : _scheme + "://" + _path; }

    // The path below the root: "relative:///tex/a.png" gives "tex/a.png".
    std::string_view RelativePath() const {
        std::string_view p(_path);
        while (!p.empty() && p.front() == '/') p.remove_prefix(1);
        return p;
    }

    // This url with `relative` appended as further path components.
    Url Append(std::string_view relative) const {
        while (!relative.empty() && relative.front() == '/') relative.remove_prefix(1);
        if (relative.empty()) return *this;
        std::string path = _path;
        if (path.empty() || path.back() != '/') path += '/';
        path.append(relative);
        return Url(_scheme, std::move(path));
    }

    bool operator==(const Url&) const = default;

private:
    std::string _scheme;
    std::string _path;
};

// What the url names on disk (IODETECT codes). "relative" urls are looked up below the
// host's resource folder.
inline int IoDetect(const Url& url) { return g_kelvo.host.IoDetect(url); }

}  // namespace kelvo
