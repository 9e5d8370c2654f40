// Textures: an image turned into pre-filtered pyramids (mip map, rip map, summed area
// table), a sampler that filters them by a pixel's footprint, and a cache that hands out
// one shared texture per url.
//
// A renderer normally needs only two calls: TextureManagementInterface::GetTexture (or
// CreateTextureSampler for an image it already holds) once, and
// TextureSamplerInterface::ThreadedTextureSample per shading sample, from any thread.
// Pyramids are built on the first sample that needs them, once per texture.
//
// Texture coordinates: u runs along the image's rows to the right, v down the image (row 0
// is v = 0); one unit covers the whole image. Texel (x, y) is centred at
// ((x + 0.5) / width, (y + 0.5) / height).
#pragma once

#include <cmath>
#include <cstdint>
#include <string_view>

#include "kelvo/assetmanagement.h"
#include "kelvo/image.h"
#include "kelvo/object.h"
#include "kelvo/registry.h"
#include "kelvo/result.h"
#include "kelvo/shadingpoint.h"
#include "kelvo/url.h"
#include "kelvo/vec.h"

namespace kelvo {

// Component ids (kelvo/registry.h: CreateClass<I>(id), or CreateComponent<I>()).
inline constexpr Id kTextureImplClass("TextureImpl");
inline constexpr Id kThreadedTextureImplClass("ThreadedTextureImpl");
inline constexpr Id kTextureManagementImplClass("TextureManagementImpl");

// How a texture stores its texels, chosen from the image's pixel format. Grey images are
// stored as RGB (the grey value in all three), grey with alpha as RGBA.
enum class TEXTURESTORAGE : uint8_t { RGB8, RGBA8, RGB16, RGBA16, RGB32F, RGBA32F };

constexpr std::string_view TextureStorageName(TEXTURESTORAGE s) {
    constexpr std::string_view names[] = {"rgb8", "rgba8", "rgb16", "rgba16", "rgb32f", "rgba32f"};
    return names[int(s)];
}
constexpr int TextureStorageChannels(TEXTURESTORAGE s) { return int(s) % 2 == 0 ? 3 : 4; }

// The pyramids of a texture. BASELEVEL is the image converted to the storage type; the
// others start from it (it is mip level 0 and rip level (0, 0)).
enum class TEXTUREPYRAMID : uint8_t { BASELEVEL, MIPMAP, RIPMAP, SUMMEDAREA };

// The filter of a sample.
enum class TEXTUREMODE : uint8_t {
    NEAREST,     // the texel under uv on level 0; ignores the footprint
    BILINEAR,    // the four texels around uv on level 0; ignores the footprint
    MIPMAP,      // trilinear: bilinear on the two mip levels bracketing the footprint
    RIPMAP,      // the rip level chosen per axis by the footprint, bilinear within it
    SUMMEDAREA,  // the exact mean over the footprint's bounding box (8-bit textures only)
};

// What happens outside 0..1.
enum class TEXTUREWRAP : uint8_t {
    REPEAT,  // the image tiles the plane
    CLAMP,   // the edge texels extend outwards
};

// The uv change from one pixel to the next, right (x) and down (y). A zero footprint
// samples level 0; a non-finite one samples the coarsest level (whole texture).
struct TextureFootprint {
    double dudx = 0.0, dvdx = 0.0;
    double dudy = 0.0, dvdy = 0.0;
};

// Per-call settings, so that one shared texture serves every user.
struct TextureSampleOptions {
    TEXTUREMODE mode = TEXTUREMODE::MIPMAP;
    TEXTUREWRAP wrap = TEXTUREWRAP::REPEAT;
    // Reads r, g, b through the sRGB curve as linear light (alpha stays), and filters in
    // linear light: the sampler keeps pyramids of a linearised copy of the base level
    // (16-bit, float for float pictures; summed area tables for 8- and 16-bit pictures),
    // built on first use. The texture's own pyramids keep the stored values.
    bool srgbToLinear = false;
};

// The channel types a level view may hold. Pyramid levels use the texture's storage
// channel type; summed area tables hold UINT32 or UINT64 sums.
enum class TEXTURECHANNEL : uint8_t { UINT8, UINT16, FLOAT32, UINT32, UINT64 };

// Read-only view of one level: width × height texels of `channels` interleaved values,
// row-major without padding. Empty (pixels nullptr, sizes 0) for a level that does not
// exist or is not built. Valid while the texture lives.
struct TextureLevelView {
    const void* pixels = nullptr;
    int64_t width = 0;
    int64_t height = 0;
    int channels = 0;
    TEXTURECHANNEL type = TEXTURECHANNEL::UINT8;
    // Base texels per texel of this level before edge replication: 2^i in x, 2^j in y
    // (1 for level 0).
    int64_t spanX = 0;
    int64_t spanY = 0;

    bool IsEmpty() const { return pixels == nullptr; }
};

// --- Sizes from the header alone ------------------------------------------------------------
// What a texture of a w × h picture will hold, computed without reading a pixel: TextureImpl
// sizes its levels by these, and a tool can say what a texture costs before building it.

// The storage Init chooses for a layer of `format`: exactly 16 bits a channel is UInt16, more
// is float, else 8-bit; grey becomes RGB and grey with alpha RGBA. False for no format.
constexpr bool TextureStorageFor(PixelFormat format, TEXTURESTORAGE& storage) {
    const int channels = format.GetChannelCount();
    if (channels < 1 || channels > 4) return false;
    const int bits = format.GetBitsPerPixel() / channels;
    const int depth = bits == 16 ? 1 : bits > 16 ? 2 : 0;
    const bool alpha = channels == 2 || channels == 4;
    storage = TEXTURESTORAGE(depth * 2 + (alpha ? 1 : 0));
    return true;
}
constexpr int64_t TextureTexelBytes(TEXTURESTORAGE s) {
    constexpr int64_t bytes[] = {1, 1, 2, 2, 4, 4};
    return bytes[int(s)] * TextureStorageChannels(s);
}
// One halving step: (n + 1) / 2, never below 1.
constexpr int64_t TextureHalvedSize(int64_t n) { return n < 2 ? 1 : (n + 1) / 2; }
constexpr int TextureMipLevelCount(int64_t width, int64_t height) {
    int levels = 1;
    for (; width >= 2 || height >= 2; ++levels) {
        width = TextureHalvedSize(width);
        height = TextureHalvedSize(height);
    }
    return levels;
}
constexpr int TextureRipLevelCount(int64_t size) {
    int levels = 1;
    for (; size >= 2; size = TextureHalvedSize(size)) ++levels;
    return levels;
}
// Whether a summed area table of this size needs 64-bit entries: 32 bits hold
// width × height × 255 only up to 4104 × 4104 texels.
constexpr bool TextureSummedAreaIsWide(int64_t width, int64_t height) {
    return width * height > int64_t(UINT32_MAX / 255);
}
// The bytes GetByteSize reports once `pyramid` is built (the mip and rip maps include the
// base level); 0 for a summed area table of 16-bit or float storage, which cannot exist.
constexpr int64_t TexturePyramidBytes(TEXTUREPYRAMID pyramid, int64_t width, int64_t height,
                                      TEXTURESTORAGE storage) {
    const int64_t texel = TextureTexelBytes(storage);
    switch (pyramid) {
        case TEXTUREPYRAMID::BASELEVEL:
            return width * height * texel;
        case TEXTUREPYRAMID::MIPMAP: {
            int64_t texels = 0, w = width, h = height;
            for (int k = TextureMipLevelCount(width, height); k > 0; --k) {
                texels += w * h;
                w = TextureHalvedSize(w);
                h = TextureHalvedSize(h);
            }
            return texels * texel;
        }
        case TEXTUREPYRAMID::RIPMAP: {
            // The grid is the product of the widths of the x levels and the heights of the y
            // levels.
            int64_t columns = 0, rows = 0;
            for (int64_t w = width, i = TextureRipLevelCount(width); i > 0; --i)
                columns += w, w = TextureHalvedSize(w);
            for (int64_t h = height, j = TextureRipLevelCount(height); j > 0; --j)
                rows += h, h = TextureHalvedSize(h);
            return columns * rows * texel;
        }
        case TEXTUREPYRAMID::SUMMEDAREA:
            if (storage != TEXTURESTORAGE::RGB8 && storage != TEXTURESTORAGE::RGBA8) return 0;
            return width * height * TextureStorageChannels(storage) *
                   (TextureSummedAreaIsWide(width, height) ? 8 : 4);
    }
    return 0;
}

struct TextureInitOptions {
    int64_t layer = 0;  // which layer of the image becomes the texture
};

// The pyramids of one image: TextureImpl. Init once; then Build (or let a sampler build)
// and read level views. Build and the views may be called from several threads: builds of
// one texture are serialised and each pyramid is built at most once.
class TextureInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.texture"); }

    // Binds the texture to an image layer and chooses the storage type; builds nothing.
    // Fails with "Illegal argument: The image has no pixel data." (no image, no such layer)
    // or "Illegal argument: Unknown pixel format."; the error is also written to the
    // diagnostic output as "TextureImpl::Init Error: <message>".
    virtual Result<void> Init(const StrongRef<ImageInterface>& image,
                              const TextureInitOptions& options) = 0;

    virtual int64_t GetWidth() const = 0;
    virtual int64_t GetHeight() const = 0;
    virtual TEXTURESTORAGE GetStorage() const = 0;
    // The colour profile of the source layer (the texels are stored as they are).
    virtual COLORPROFILE GetColorProfile() const = 0;

    // Builds a pyramid (and the base level it starts from) unless it is built. Failures:
    // "Illegal state: The texture is not initialised.", the out-of-memory error, the image's
    // read errors, and for SUMMEDAREA on 16-bit or float storage "Summed area tables do not
    // support more than 8 bits depth.". A failed build leaves nothing of that pyramid and
    // may be tried again.
    virtual Result<void> Build(TEXTUREPYRAMID pyramid) = 0;
    virtual bool IsBuilt(TEXTUREPYRAMID pyramid) const = 0;
    // Bytes the built pyramid holds (0 when not built).
    virtual int64_t GetByteSize(TEXTUREPYRAMID pyramid) const = 0;

    // Level counts follow from the size alone: mip levels down to 1 × 1, and nx × ny rip
    // levels. Valid after Init.
    virtual int GetMipLevelCount() const = 0;
    virtual int GetRipLevelCountX() const = 0;
    virtual int GetRipLevelCountY() const = 0;

    // Views of built levels; empty when not built or out of range.
    virtual TextureLevelView GetMipLevel(int level) const = 0;
    virtual TextureLevelView GetRipLevel(int levelX, int levelY) const = 0;
    // The summed area table: entry (x, y) holds the per-channel sum of the base texels
    // (0..x) × (0..y), inclusive. UINT32 entries while width × height × 255 fits, else UINT64.
    virtual TextureLevelView GetSummedArea() const = 0;
};

// Filters a texture: ThreadedTextureImpl. Init once; then ThreadedTextureSample from any
// number of threads. Each pyramid is built on the first sample that needs it, once, while
// other threads sampling it wait.
class TextureSamplerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.texturesampler"); }

    // Fails with "Illegal argument: The texture is not initialised." for an empty or
    // uninitialised texture.
    virtual Result<void> Init(const StrongRef<TextureInterface>& texture) = 0;
    virtual StrongRef<TextureInterface> GetTexture() const = 0;

    // Builds what `mode` needs now, instead of on the first sample. The outcome is kept,
    // except an out-of-memory failure, which the next call or sample tries again.
    virtual Result<void> Prepare(TEXTUREMODE mode) const = 0;

    // The filtered value at uv: 0..1 for integer storage, as stored for float storage; alpha
    // 1 for textures without alpha. Fails only when the needed pyramid cannot be built (see
    // TextureInterface::Build): a SUMMEDAREA sample of a 16-bit or float texture fails with
    // "Summed area tables do not support more than 8 bits depth." every time, and a
    // renderer may then use MIPMAP. Non-finite uv read as 0.
    virtual Result<Col4> ThreadedTextureSample(const Vec2& uv, const TextureFootprint& footprint,
                                               const TextureSampleOptions& options) const = 0;
    // The same without alpha.
    Result<Col3> ThreadedTextureSampleColor(const Vec2& uv, const TextureFootprint& footprint,
                                            const TextureSampleOptions& options) const {
        KELVO_ASSIGN_OR_RETURN(Col4 c, ThreadedTextureSample(uv, footprint, options));
        return Col3{c.r, c.g, c.b};
    }
};

// A cache of textures keyed by resolved url: TextureManagementImpl. All operations are
// thread-safe.
class TextureManagementInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.texturemanagement"); }

    // The shared texture of `url`, loaded through the host's image import (any registered
    // format) on the first request; concurrent first requests load it once. A "relative"
    // url is first resolved through `assets` (texture category) when given; without it the
    // host resolves it against its resource folder. A texture lives while someone holds it;
    // a later request after that loads it again. Failures come back with the url attached
    // (Error::Url()) and are not cached.
    virtual Result<StrongRef<TextureSamplerInterface>> GetTexture(
        const Url& url, const StrongRef<AssetManagementInterface>& assets) = 0;
    // Urls whose texture is alive.
    virtual int64_t GetTextureCount() const = 0;
};

// A sampler over a new texture of `image`: creates both components by id.
inline Result<StrongRef<TextureSamplerInterface>> CreateTextureSampler(
    const StrongRef<ImageInterface>& image, const TextureInitOptions& options = {}) {
    KELVO_ASSIGN_OR_RETURN(auto texture, CreateClass<TextureInterface>(kTextureImplClass));
    KELVO_TRY(texture->Init(image, options));
    KELVO_ASSIGN_OR_RETURN(auto sampler,
                           CreateClass<TextureSamplerInterface>(kThreadedTextureImplClass));
    KELVO_TRY(sampler->Init(texture));
    return sampler;
}

// --- Footprints --------------------------------------------------------------------------

// The uv derivatives of a hit from its footprint points (CameraInterface::
// CalculateMIPComponents writes position, footprintX and footprintY in world space) and its
// tangents dpdu and dpdv: the footprint offsets are projected onto the tangents by least
// squares. A degenerate frame (parallel or zero tangents) gives a zero footprint.
//
// The perspective camera's pixel steps leave out its field-of-view factor, so its
// footprint points lie 1 / fieldofview pixels away rather than one. Pass the camera's
// fieldofview parameter as `pixelScale` to get per-pixel derivatives (the offsets are
// linear in the step to first order); pass 1 for footprints that already span one pixel.
inline TextureFootprint ComputeTextureFootprint(const Vec3& position, const Vec3& footprintX,
                                                const Vec3& footprintY, const Vec3& dpdu,
                                                const Vec3& dpdv, double pixelScale = 1.0) {
    const double a = Dot(dpdu, dpdu), b = Dot(dpdu, dpdv), c = Dot(dpdv, dpdv);
    const double det = a * c - b * b;
    // Tangents (nearly) parallel: no uv frame to project onto.
    if (!(std::fabs(det) > 1e-12 * a * c) || !std::isfinite(det)) return {};
    const double inv = pixelScale / det;
    auto solve = [&](const Vec3& offset, double& du, double& dv) {
        const double pu = Dot(dpdu, offset), pv = Dot(dpdv, offset);
        du = (c * pu - b * pv) * inv;
        dv = (a * pv - b * pu) * inv;
    };
    TextureFootprint f;
    solve(footprintX - position, f.dudx, f.dvdx);
    solve(footprintY - position, f.dudy, f.dvdy);
    return f;
}

inline TextureFootprint ComputeTextureFootprint(const ShadingPoint& hit, double pixelScale = 1.0) {
    return ComputeTextureFootprint(hit.position, hit.footprintX, hit.footprintY, hit.dpdu, hit.dpdv,
                                   pixelScale);
}

}  // namespace kelvo
