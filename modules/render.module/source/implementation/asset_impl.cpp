// Translates "relative" asset urls through an ordered list of search paths.
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/assetmanagement.h"
#include "kelvo/entry.h"

namespace kelvo {
namespace {

constexpr std::string_view kRelativeScheme = "relative";

struct SearchPath {
    Url url;
    int32_t category;
    bool flag;  // kept with the entry; lookups do not consult it
};

class AssetManagementImpl final : public Implements<AssetManagementInterface> {
public:
    Result<void> Init(const Url& baseUrl) override {
        _baseUrl = baseUrl;
        if (!_searchPaths.empty()) return OK();
        // Every lookup tries the base folder itself; texture lookups then its "tex" folder.
        KELVO_ASSIGN_OR_RETURN(Url root, Url::FromText("relative:///"));
        KELVO_TRY(AddSearchPath(root, ASSETCATEGORY_ANY, false));
        KELVO_ASSIGN_OR_RETURN(Url tex, Url::FromText("relative:///tex"));
        return AddSearchPath(tex, ASSETCATEGORY_TEXTURE, false);
    }

    Result<void> AddSearchPath(const Url& url, int32_t category, bool flag) override {
        // push_back gives the strong guarantee: on failure the list stays as it was.
        return CatchOutOfMemory([&]() -> Result<void> {
            _searchPaths.push_back(SearchPath{url, category, flag});
            return OK();
        });
    }

    Result<Url> TranslatePath(const Url& url, int32_t category) const override {
        if (url.Scheme() != kRelativeScheme) return url;
        const std::string_view relative = url.RelativePath();
        for (const SearchPath& entry : _searchPaths) {
            if (entry.category != ASSETCATEGORY_ANY && entry.category != category) continue;
            Url where = entry.url;
            if (where.Scheme() == kRelativeScheme && !_baseUrl.IsEmpty())
                where = _baseUrl.Append(where.RelativePath());
            Url candidate = where.Append(relative);
            if (IoDetect(candidate) == IODETECT_FILE) return candidate;
        }
        return IoError(KELVO_HERE, url.ToString(), "Asset not found.");
    }

private:
    Url _baseUrl;
    std::vector<SearchPath, Allocator<SearchPath>> _searchPaths;
};

KELVO_REGISTER_COMPONENT(s_assetManagement, "AssetManagementImpl", AssetManagementInterface,
                         AssetManagementImpl);

}  // namespace
}  // namespace kelvo
