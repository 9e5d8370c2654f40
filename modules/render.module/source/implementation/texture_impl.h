// Texture pyramids: an image converted to one of six storage types, then mip map, rip map
// and (8-bit only) summed area table levels built row-parallel on the host's job system.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/image.h"
#include "kelvo/texture.h"
#include "kelvo/vec.h"

namespace kelvo {

// Framework-allocated storage that leaves new elements uninitialised: every texel of a
// level is written by its build, so zero-filling first would only double the writes. Only
// for implicit-lifetime element types (the vectors and plain numbers of texels and sums).
template <typename T>
struct UninitialisedAllocator : Allocator<T> {
    using value_type = T;
    template <typename U>
    struct rebind {
        using other = UninitialisedAllocator<U>;
    };
    UninitialisedAllocator() = default;
    template <typename U>
    UninitialisedAllocator(const UninitialisedAllocator<U>&) {}  // NOLINT
    template <typename U>
    void construct(U*) noexcept {
        static_assert(std::is_trivially_copyable_v<U> && std::is_trivially_destructible_v<U>);
    }
    template <typename U, typename... A>
    void construct(U* p, A&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<A>(args)...);
    }
};
template <typename T>
using PixelArray = std::vector<T, UninitialisedAllocator<T>>;

using Vec4u8 = Vec4T<uint8_t>;
using Vec4u16 = Vec4T<uint16_t>;

// Channel count, component type and how the storage types map to the SDK's names.
template <typename VEC>
struct TexelTraits;
template <typename T>
struct TexelTraits<Vec3T<T>> {
    using Component = T;
    static constexpr int kChannels = 3;
};
template <typename T>
struct TexelTraits<Vec4T<T>> {
    using Component = T;
    static constexpr int kChannels = 4;
};
template <typename VEC>
constexpr TEXTURECHANNEL TexelChannel() {
    using T = typename TexelTraits<VEC>::Component;
    if constexpr (std::is_same_v<T, uint8_t>) return TEXTURECHANNEL::UINT8;
    if constexpr (std::is_same_v<T, uint16_t>) return TEXTURECHANNEL::UINT16;
    return TEXTURECHANNEL::FLOAT32;
}

// One level of any pyramid: row y starts at y × width.
template <typename VEC>
struct MipMapLevel {
    PixelArray<VEC> pixels;
    int64_t width = 0;
    int64_t height = 0;
    // Base texels per texel before edge replication (2^i, 2^j); 1 for the full-size level.
    int64_t spanX = 1;
    int64_t spanY = 1;

    TextureLevelView View() const {
        if (pixels.empty()) return {};
        return {pixels.data(),       width, height, TexelTraits<VEC>::kChannels,
                TexelChannel<VEC>(), spanX, spanY};
    }
};

// Sizes of the pyramids, from the image size alone (kelvo/texture.h, which tools share).
inline int64_t HalvedSize(int64_t n) { return TextureHalvedSize(n); }
inline int CountMipLevels(int64_t width, int64_t height) {
    return TextureMipLevelCount(width, height);
}
inline int CountRipLevels(int64_t size) { return TextureRipLevelCount(size); }
// Whether a summed area table of this size needs 64-bit entries: 32 bits hold
// width × height × 255 only up to 4104 × 4104 texels.
constexpr bool SummedAreaNeedsWideEntries(int64_t width, int64_t height) {
    return TextureSummedAreaIsWide(width, height);
}

// The summed area table of an 8-bit base level: entry (x, y) holds the per-channel sum of
// texels (0..x) × (0..y). 32-bit entries while they cannot overflow, 64-bit beyond.
template <typename VEC>
class SummedAreaData {
public:
    Result<void> Build(const MipMapLevel<VEC>& base, bool wideEntries);
    TextureLevelView View() const;
    int64_t ByteSize() const {
        return int64_t(_sums32.size() * sizeof(uint32_t) + _sums64.size() * sizeof(uint64_t));
    }

private:
    template <typename E>
    static Result<void> Fill(const MipMapLevel<VEC>& base, PixelArray<E>& sums);

    PixelArray<uint32_t> _sums32;
    PixelArray<uint64_t> _sums64;
    int64_t _width = 0;
    int64_t _height = 0;
};

// The pyramids of one storage type, behind a type-free base.
class MipMapDataBase {
public:
    virtual ~MipMapDataBase() = default;
    // Reads the image layer into level 0, rows in parallel; the layer converts to the
    // storage format.
    virtual Result<void> BuildBase(const StrongRef<ImageLayerInterface>& layer,
                                   COLORPROFILE profile) = 0;
    virtual Result<void> BuildMipMap() = 0;
    virtual Result<void> BuildRipMap() = 0;
    virtual Result<void> BuildSummedArea() = 0;
    virtual TextureLevelView MipLevel(int level) const = 0;
    virtual TextureLevelView RipLevel(int levelX, int levelY) const = 0;
    virtual TextureLevelView SummedArea() const = 0;
    virtual int64_t ByteSize(TEXTUREPYRAMID pyramid) const = 0;
};

template <typename COL, typename VEC>
class MipMapData final : public MipMapDataBase {
public:
    MipMapData(int64_t width, int64_t height) : _width(width), _height(height) {}

    // Produces destination row sourceRow / 2 (halving in y) or sourceRow of `destination`
    // from `source`, `count` destination texels. Neighbours past an odd edge are the edge
    // texel itself. Integer storage averages by a truncating shift, float by 0.5 / 0.25.
    static Result<void> ParalellizedSumLine(const MipMapLevel<VEC>& source,
                                            MipMapLevel<VEC>& destination, int64_t sourceRow,
                                            int64_t count, bool halveX, bool halveY);
    // A new level: `source` halved in x and/or y, rows through ParallelFor.
    static Result<MipMapLevel<VEC>> Halve(const MipMapLevel<VEC>& source, bool halveX, bool halveY);

    Result<void> BuildBase(const StrongRef<ImageLayerInterface>& layer,
                           COLORPROFILE profile) override;
    Result<void> BuildMipMap() override;
    Result<void> BuildRipMap() override;
    Result<void> BuildSummedArea() override;
    TextureLevelView MipLevel(int level) const override;
    TextureLevelView RipLevel(int levelX, int levelY) const override;
    TextureLevelView SummedArea() const override { return _summedArea.View(); }
    int64_t ByteSize(TEXTUREPYRAMID pyramid) const override;

private:
    using Levels = std::vector<MipMapLevel<VEC>, Allocator<MipMapLevel<VEC>>>;
    int64_t _width;
    int64_t _height;
    MipMapLevel<VEC> _base;  // mip level 0 and rip level (0, 0)
    Levels _mip;             // levels 1..n-1
    Levels _rip;             // nx × ny, index i + j × nx; (0, 0) stays empty
    int _ripX = 0;
    int _ripY = 0;
    SummedAreaData<VEC> _summedArea;
};

// TextureImpl: binds an image and builds its pyramids on request, each at most once.
class TextureImpl final : public Implements<TextureInterface> {
public:
    Result<void> Init(const StrongRef<ImageInterface>& image,
                      const TextureInitOptions& options) override;
    int64_t GetWidth() const override { return _width; }
    int64_t GetHeight() const override { return _height; }
    TEXTURESTORAGE GetStorage() const override { return _storage; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> Build(TEXTUREPYRAMID pyramid) override;
    bool IsBuilt(TEXTUREPYRAMID pyramid) const override {
        return _built[size_t(pyramid)].load(std::memory_order_acquire);
    }
    int64_t GetByteSize(TEXTUREPYRAMID pyramid) const override;
    int GetMipLevelCount() const override { return _data ? CountMipLevels(_width, _height) : 0; }
    int GetRipLevelCountX() const override { return _data ? CountRipLevels(_width) : 0; }
    int GetRipLevelCountY() const override { return _data ? CountRipLevels(_height) : 0; }
    TextureLevelView GetMipLevel(int level) const override;
    TextureLevelView GetRipLevel(int levelX, int levelY) const override;
    TextureLevelView GetSummedArea() const override;

    // Builds actually run per pyramid (tests check that each runs once).
    int GetBuildCount(TEXTUREPYRAMID pyramid) const { return _builds[size_t(pyramid)].load(); }

private:
    Result<void> BuildLocked(TEXTUREPYRAMID pyramid);

    StrongRef<ImageLayerInterface> _layer;  // level 0 is read from it, then it is let go
    int64_t _width = 0;
    int64_t _height = 0;
    TEXTURESTORAGE _storage = TEXTURESTORAGE::RGB8;
    COLORPROFILE _profile = COLORPROFILE::LINEAR;
    StrongRef<MipMapDataBase> _data;
    std::mutex _buildLock;  // builds of one texture run one after another
    std::array<std::atomic<bool>, 4> _built{};
    std::array<std::atomic<int>, 4> _builds{};
};

}  // namespace kelvo
