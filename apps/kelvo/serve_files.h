// The folder a preview server reads textures and IES profiles from. A browser names files
// by paths relative to it; nothing outside it is ever opened: absolute paths, ".." and
// symbolic links that lead out are refused.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/result.h"

namespace kelvo::cli {

class ServedFolder {
public:
    // An empty folder serves no files. Fails when the folder does not exist.
    static Result<ServedFolder> Open(const std::filesystem::path& folder);

    bool Empty() const { return _root.empty(); }
    const std::filesystem::path& Root() const { return _root; }

    // The file a relative path names, as an absolute path inside the folder. Fails with
    // "Illegal argument: No folder is served (start with --root), so '@' cannot be read.",
    // "Illegal argument: The path '@' must be relative to the served folder.",
    // "Illegal argument: The path '@' leaves the served folder.",
    // "Illegal argument: The path '@' leads outside the served folder." (a link) and
    // "Illegal argument: The file '@' is not in the served folder." (missing, or no file).
    Result<std::filesystem::path> Resolve(std::string_view relative) const;

    // Regular files under the folder whose suffix (lower case, without the dot) is one of
    // `suffixes`, as relative paths with '/' separators, sorted; at most `limit` of them,
    // at most 8 folders deep. Links leading outside the folder are left out.
    std::vector<std::string> List(const std::vector<std::string>& suffixes, size_t limit) const;

private:
    std::filesystem::path _root;  // canonical; empty when nothing is served
};

}  // namespace kelvo::cli
