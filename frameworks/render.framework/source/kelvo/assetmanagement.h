// Translation of "relative" asset urls through an ordered list of search paths.
#pragma once

#include <cstdint>

#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/url.h"

namespace kelvo {

// Search-path categories: 0 serves every lookup; 1 is the texture category.
enum ASSETCATEGORY : int32_t { ASSETCATEGORY_ANY = 0, ASSETCATEGORY_TEXTURE = 1 };

class AssetManagementInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.assetmanagement"); }

    // Sets the base url that relative search paths resolve against. The first call also
    // adds the built-in entries "relative:///" (category 0) and "relative:///tex"
    // (category 1); later calls change the base url only.
    virtual Result<void> Init(const Url& baseUrl) = 0;

    // Appends a search path. Fails only when memory runs out; the list is then unchanged.
    virtual Result<void> AddSearchPath(const Url& url, int32_t category, bool flag) = 0;

    // Urls of another scheme than "relative" come back unchanged. A relative url is
    // tried below each search path of category 0 or `category`, in order; the first that
    // names a file wins. Fails with the I/O error "Asset not found." carrying the url.
    // Only reads the object: may run on many threads, but not during Init/AddSearchPath.
    virtual Result<Url> TranslatePath(const Url& url, int32_t category) const = 0;
};

}  // namespace kelvo
