#include "serve_files.h"

#include <algorithm>
#include <cctype>
#include <system_error>

namespace kelvo::cli {

namespace fs = std::filesystem;

namespace {
// True when `path` (canonical) is `root` or lies below it.
bool Inside(const fs::path& root, const fs::path& path) {
    auto r = root.begin(), p = path.begin();
    for (; r != root.end(); ++r, ++p)
        if (p == path.end() || *r != *p) return false;
    return true;
}

std::string LowerSuffix(const fs::path& path) {
    std::string s = path.extension().string();
    if (!s.empty()) s.erase(0, 1);
    std::transform(s.begin(), s.end(), s.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}
}  // namespace

Result<ServedFolder> ServedFolder::Open(const fs::path& folder) {
    ServedFolder served;
    if (folder.empty()) return served;
    std::error_code error;
    fs::path root = fs::canonical(folder, error);
    if (error || !fs::is_directory(root, error))
        return IllegalArgumentError(KELVO_HERE, "The folder '@' does not exist.", folder.string());
    served._root = std::move(root);
    return served;
}

Result<fs::path> ServedFolder::Resolve(std::string_view relative) const {
    const std::string text(relative);
    if (_root.empty())
        return IllegalArgumentError(
            KELVO_HERE, "No folder is served (start with --root), so '@' cannot be read.", text);
    const fs::path path(text);
    // A backslash or a colon is how other systems write absolute paths and drives; a URL
    // scheme would reach past the folder too.
    if (text.empty() || path.is_absolute() || path.has_root_name() || text.front() == '/' ||
        text.front() == '\\' || text.find(':') != std::string::npos)
        return IllegalArgumentError(KELVO_HERE,
                                    "The path '@' must be relative to the served folder.", text);
    for (const fs::path& part : path)
        if (part == ".." || part.string().find('\\') != std::string::npos)
            return IllegalArgumentError(KELVO_HERE, "The path '@' leaves the served folder.", text);
    std::error_code error;
    const fs::path target = fs::canonical(_root / path, error);
    if (error || !fs::is_regular_file(target, error))
        return IllegalArgumentError(KELVO_HERE, "The file '@' is not in the served folder.", text);
    if (!Inside(_root, target))
        return IllegalArgumentError(KELVO_HERE, "The path '@' leads outside the served folder.",
                                    text);
    return target;
}

std::vector<std::string> ServedFolder::List(const std::vector<std::string>& suffixes,
                                            size_t limit) const {
    std::vector<std::string> found;
    if (_root.empty()) return found;
    std::error_code error;
    fs::recursive_directory_iterator it(_root, fs::directory_options::skip_permission_denied,
                                        error);
    // Entries visited at most: a huge tree must not hold a request up.
    size_t budget = 20000;
    for (; !error && it != fs::recursive_directory_iterator() && budget > 0 && found.size() < limit;
         it.increment(error), --budget) {
        if (it.depth() >= 8) it.disable_recursion_pending();
        const fs::directory_entry& entry = *it;
        if (!entry.is_regular_file(error)) continue;  // follows links; checked below
        if (std::find(suffixes.begin(), suffixes.end(), LowerSuffix(entry.path())) ==
            suffixes.end())
            continue;
        const fs::path target = fs::canonical(entry.path(), error);
        if (error || !Inside(_root, target)) {
            error.clear();
            continue;
        }
        found.push_back(entry.path().lexically_relative(_root).generic_string());
    }
    std::sort(found.begin(), found.end());
    return found;
}

}  // namespace kelvo::cli
