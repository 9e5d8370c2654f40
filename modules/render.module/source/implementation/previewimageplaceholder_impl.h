// Placeholder textures shown where no material preview can be made, one per reason, each
// loaded once on first demand and kept while the module is loaded.
#pragma once

#include <array>
#include <functional>

#include "kelvo/jobs.h"
#include "kelvo/nodes/previewimageplaceholder.h"

namespace kelvo::nodes {

// The icon every reason shows, below the application's resources.
inline constexpr const char* kPlaceholderIconUrl = "relative:///modules/browser/icons/wrong.tif";

class PlaceholderImageTextureCache {
public:
    // Loads the picture at a url into a texture; the host's image import by default.
    using Loader = std::function<Result<ImageTextureRef>(const Url& url)>;

    class Entry {
    public:
        Entry(const Id& reason, const Loader& loader) : _reason(reason), _loader(&loader) {}
        const Id& GetReason() const { return _reason; }
        // The texture, loaded by the first caller as one job while later callers wait for
        // it; the loader's error instead, kept like the texture (out of memory aside, which
        // the next call tries again).
        Result<ImageTextureRef> Get();

    private:
        Id _reason;
        const Loader* _loader;
        LazyInitThreaded<ImageTextureRef> _texture{LAZYINIT::RETRYOUTOFMEMORY};
    };

    explicit PlaceholderImageTextureCache(Loader loader = &LoadImageTexture);
    PlaceholderImageTextureCache(const PlaceholderImageTextureCache&) = delete;
    PlaceholderImageTextureCache& operator=(const PlaceholderImageTextureCache&) = delete;

    // The entry of a reason; nullptr for an id that names none.
    Entry* Find(const Id& reason);

    // The cache the module made at its start; nullptr outside its run.
    static StrongRef<PlaceholderImageTextureCache> ProcessWide();
    static Result<void> Start();
    static void Stop();

private:
    Loader _loader;
    std::array<Entry, 3> _entries;
};

// The registered component over the process-wide cache.
class PreviewImagePlaceholderImpl final : public Implements<PreviewImagePlaceholderInterface> {
public:
    Result<ImageTextureRef> GetPlaceholder(const Id& reason) override;
};

}  // namespace kelvo::nodes
