// The placeholder textures, their process-wide cache and the placeholder component.
#include "implementation/previewimageplaceholder_impl.h"

#include <mutex>
#include <utility>

#include "kelvo/entry.h"

namespace kelvo::nodes {
namespace {

Spinlock g_cacheLock;  // guards g_cache
StrongRef<PlaceholderImageTextureCache> g_cache;

}  // namespace

Result<ImageTextureRef> PlaceholderImageTextureCache::Entry::Get() {
    KELVO_ASSIGN_OR_RETURN(ImageTextureRef * texture,
                           _texture.Get(
                               [this]() -> Result<ImageTextureRef> {
                                   KELVO_ASSIGN_OR_RETURN(Url url,
                                                          Url::FromText(kPlaceholderIconUrl));
                                   return (*_loader)(url);
                               },
                               "PlaceholderImageTexture"));
    return *texture;
}

PlaceholderImageTextureCache::PlaceholderImageTextureCache(Loader loader)
    : _loader(std::move(loader)),
      _entries{Entry(kPlaceholderNoSpace, _loader), Entry(kPlaceholderNoMaterialEndNode, _loader),
               Entry(kPlaceholderError, _loader)} {}

PlaceholderImageTextureCache::Entry* PlaceholderImageTextureCache::Find(const Id& reason) {
    for (Entry& entry : _entries)
        if (entry.GetReason() == reason) return &entry;
    return nullptr;
}

StrongRef<PlaceholderImageTextureCache> PlaceholderImageTextureCache::ProcessWide() {
    std::lock_guard lock(g_cacheLock);
    return g_cache;
}

Result<void> PlaceholderImageTextureCache::Start() {
    KELVO_ASSIGN_OR_RETURN(StrongRef<PlaceholderImageTextureCache> cache,
                           NewObject<PlaceholderImageTextureCache>());
    std::lock_guard lock(g_cacheLock);
    std::swap(g_cache, cache);  // an earlier cache goes with `cache`, after the lock
    return OK();
}

void PlaceholderImageTextureCache::Stop() {
    StrongRef<PlaceholderImageTextureCache> stopped;  // released after the lock
    std::lock_guard lock(g_cacheLock);
    stopped = std::move(g_cache);
}

Result<ImageTextureRef> PreviewImagePlaceholderImpl::GetPlaceholder(const Id& reason) {
    StrongRef<PlaceholderImageTextureCache> cache = PlaceholderImageTextureCache::ProcessWide();
    if (!cache)
        return IllegalStateError(KELVO_HERE, "The preview image placeholders are not loaded.");
    PlaceholderImageTextureCache::Entry* entry = cache->Find(reason);
    if (!entry)
        return IllegalArgumentError(KELVO_HERE, "Unknown preview image placeholder @.", reason);
    return entry->Get();
}

namespace {

const ModuleLifecycle kCacheLifecycle{&PlaceholderImageTextureCache::Start,
                                      &PlaceholderImageTextureCache::Stop, nullptr};

KELVO_REGISTER_COMPONENT(s_placeholderComponent, "PreviewImagePlaceholderImpl",
                         PreviewImagePlaceholderInterface, PreviewImagePlaceholderImpl);
KELVO_REGISTER_LIFECYCLE(s_placeholderLifecycle, "net.kelvo.render.lifecycle.placeholdercache",
                         kCacheLifecycle);

}  // namespace
}  // namespace kelvo::nodes
