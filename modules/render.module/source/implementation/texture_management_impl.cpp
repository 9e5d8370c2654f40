// TextureManagementImpl: one shared texture per resolved url, loaded on first request.
#include <map>
#include <mutex>
#include <string>

#include "kelvo/allocator.h"
#include "kelvo/entry.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/texture.h"

namespace kelvo {
namespace {

// Keeps the lower layer's message and kind, adding the url when it has none.
Error WithUrl(const Error& error, const Url& url) {
    if (!error.Url().empty() || error.Kind() == ERRORKIND::OUTOFMEMORY) return error;
    return Error(error.Kind(), error.Location(), error.Message(), url.ToString());
}

class TextureManagementImpl final : public Implements<TextureManagementInterface> {
public:
    Result<StrongRef<TextureSamplerInterface>> GetTexture(
        const Url& url, const StrongRef<AssetManagementInterface>& assets) override {
        Url resolved = url;
        if (assets) {
            auto translated = assets->TranslatePath(url, ASSETCATEGORY_TEXTURE);
            if (!translated) return WithUrl(translated.GetError(), url);
            resolved = std::move(translated).Value();
        }
        return CatchOutOfMemory([&]() -> Result<StrongRef<TextureSamplerInterface>> {
            StrongRef<Slot> slot = FindSlot(resolved.ToString());
            // Requests for one url wait here while the first loads; other urls go on.
            std::lock_guard lock(slot->loading);
            if (auto alive = slot->texture.lock()) return alive;
            auto loaded = Load(resolved);
            if (!loaded) return WithUrl(loaded.GetError(), resolved);
            slot->texture = loaded.Value();
            return loaded;
        });
    }

    int64_t GetTextureCount() const override {
        std::lock_guard lock(_lock);
        int64_t n = 0;
        for (const auto& [key, slot] : _slots) n += slot->texture.expired() ? 0 : 1;
        return n;
    }

private:
    struct Slot {
        std::mutex loading;
        WeakRef<TextureSamplerInterface> texture;  // the cache never keeps a texture alive
    };
    using Key = std::basic_string<char, std::char_traits<char>, Allocator<char>>;

    StrongRef<Slot> FindSlot(const std::string& url) {
        std::lock_guard lock(_lock);
        Key key(url.begin(), url.end());
        auto found = _slots.find(key);
        if (found != _slots.end()) return found->second;
        // Forget textures that died and that no request is loading.
        std::erase_if(_slots, [](const auto& entry) {
            return entry.second.use_count() == 1 && entry.second->texture.expired();
        });
        auto slot = std::allocate_shared<Slot>(Allocator<Slot>{});
        _slots.emplace(std::move(key), slot);
        return slot;
    }

    static Result<StrongRef<TextureSamplerInterface>> Load(const Url& url) {
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, ImportImage(url));
        return CreateTextureSampler(image);
    }

    mutable std::mutex _lock;
    std::map<Key, StrongRef<Slot>, std::less<>, Allocator<std::pair<const Key, StrongRef<Slot>>>>
        _slots;
};

KELVO_REGISTER_COMPONENT(s_textureManagement, "TextureManagementImpl", TextureManagementInterface,
                         TextureManagementImpl);

}  // namespace
}  // namespace kelvo
