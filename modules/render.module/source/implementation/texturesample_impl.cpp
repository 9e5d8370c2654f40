// ThreadedTextureImpl: filters a texture's pyramids by a pixel's uv footprint. One sampler is
// shared by every render thread; each pyramid is built on the first sample that needs it.
#include <algorithm>
#include <cmath>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/entry.h"
#include "kelvo/jobs.h"
#include "kelvo/texture.h"

namespace kelvo {
namespace {

using Doubles = std::vector<double, Allocator<double>>;

// The levels of one pyramid as the sampler reads them, with each level's texel size in
// base texels as log2 (per axis for the rip map), for choosing levels by footprint.
struct LevelSet {
    std::vector<TextureLevelView, Allocator<TextureLevelView>> levels;
    Doubles logScaleX;  // mip map: the larger of both axes
    Doubles logScaleY;
    int nx = 1;
};

// --- Texel access and wrapping -------------------------------------------------------------

inline int64_t WrapIndex(int64_t i, int64_t n, TEXTUREWRAP wrap) {
    if (wrap == TEXTUREWRAP::CLAMP) return std::clamp<int64_t>(i, 0, n - 1);
    i %= n;
    return i < 0 ? i + n : i;
}

// Repeat reduces to [0, 1] (1 only by rounding of tiny negatives; indices wrap it), clamp
// clips to [0, 1]; either keeps later integer conversions in range.
inline double PrepareCoordinate(double u, TEXTUREWRAP wrap) {
    if (!std::isfinite(u)) return 0.0;
    if (wrap == TEXTUREWRAP::REPEAT) return u - std::floor(u);
    return std::clamp(u, 0.0, 1.0);
}

template <typename T, int N>
inline void Accumulate(const TextureLevelView& l, int64_t x, int64_t y, double weight,
                       double* acc) {
    const T* p = static_cast<const T*>(l.pixels) + (y * l.width + x) * N;
    for (int c = 0; c < N; ++c) acc[c] += weight * double(p[c]);
}

template <typename T, int N>
void Nearest(const TextureLevelView& l, double u, double v, TEXTUREWRAP wrap, double* acc) {
    const int64_t x = WrapIndex(int64_t(u * double(l.width)), l.width, wrap);
    const int64_t y = WrapIndex(int64_t(v * double(l.height)), l.height, wrap);
    Accumulate<T, N>(l, x, y, 1.0, acc);
}

// Texel centres sit at half-integers, so the four around uv start half a texel back.
template <typename T, int N>
void Bilinear(const TextureLevelView& l, double u, double v, TEXTUREWRAP wrap, double weight,
              double* acc) {
    const double x = u * double(l.width) - 0.5, y = v * double(l.height) - 0.5;
    const double fx = std::floor(x), fy = std::floor(y);
    const double tx = x - fx, ty = y - fy;
    const int64_t x0 = WrapIndex(int64_t(fx), l.width, wrap);
    const int64_t x1 = WrapIndex(int64_t(fx) + 1, l.width, wrap);
    const int64_t y0 = WrapIndex(int64_t(fy), l.height, wrap);
    const int64_t y1 = WrapIndex(int64_t(fy) + 1, l.height, wrap);
    Accumulate<T, N>(l, x0, y0, weight * (1 - tx) * (1 - ty), acc);
    Accumulate<T, N>(l, x1, y0, weight * tx * (1 - ty), acc);
    Accumulate<T, N>(l, x0, y1, weight * (1 - tx) * ty, acc);
    Accumulate<T, N>(l, x1, y1, weight * tx * ty, acc);
}

// --- Level choice ------------------------------------------------------------------------------

// A footprint that is not finite covers everything.
inline double Log2Extent(double texels) {
    if (std::isnan(texels)) return INFINITY;
    return texels > 0 ? std::log2(texels) : -INFINITY;
}

// The level whose texel size is nearest in log2 to the footprint's.
inline int NearestLevel(const Doubles& logScale, double logExtent) {
    int k = 0;
    const int last = int(logScale.size()) - 1;
    while (k < last && std::fabs(logScale[size_t(k) + 1] - logExtent) <=
                           std::fabs(logScale[size_t(k)] - logExtent))
        ++k;
    return k;
}

// Trilinear: the two levels whose texel sizes bracket the footprint's longer side.
template <typename T, int N>
void SampleMipMap(const LevelSet& mip, double u, double v, const TextureFootprint& f,
                  TEXTUREWRAP wrap, double* acc) {
    const TextureLevelView& base = mip.levels[0];
    const double w = double(base.width), h = double(base.height);
    const double extent =
        std::max(std::hypot(f.dudx * w, f.dvdx * h), std::hypot(f.dudy * w, f.dvdy * h));
    const double l = Log2Extent(extent);
    const Doubles& s = mip.logScaleX;
    const size_t last = s.size() - 1;
    if (!(l > 0)) return Bilinear<T, N>(base, u, v, wrap, 1.0, acc);
    if (l >= s[last]) return Bilinear<T, N>(mip.levels[last], u, v, wrap, 1.0, acc);
    size_t k = 0;
    while (s[k + 1] <= l) ++k;
    const double t = (l - s[k]) / (s[k + 1] - s[k]);
    Bilinear<T, N>(mip.levels[k], u, v, wrap, 1 - t, acc);
    Bilinear<T, N>(mip.levels[k + 1], u, v, wrap, t, acc);
}

// The footprint's bounding box per axis picks the rip level; bilinear within it.
template <typename T, int N>
void SampleRipMap(const LevelSet& rip, double u, double v, const TextureFootprint& f,
                  TEXTUREWRAP wrap, double* acc) {
    const TextureLevelView& base = rip.levels[0];
    const int i = NearestLevel(
        rip.logScaleX, Log2Extent((std::fabs(f.dudx) + std::fabs(f.dudy)) * double(base.width)));
    const int j = NearestLevel(
        rip.logScaleY, Log2Extent((std::fabs(f.dvdx) + std::fabs(f.dvdy)) * double(base.height)));
    Bilinear<T, N>(rip.levels[size_t(i) + size_t(j) * size_t(rip.nx)], u, v, wrap, 1.0, acc);
}

// --- Summed area -------------------------------------------------------------------------------

// The texel range [lo, hi) a box of `extent` (uv units) centred at c covers: at least one
// texel, at most the whole axis. Clamp keeps it on the texture.
inline void BoxRange(double c, double extent, int64_t n, TEXTUREWRAP wrap, int64_t& lo,
                     int64_t& hi) {
    const double size = std::max(1.0, extent * double(n));
    if (!(size < double(n))) {
        lo = 0;
        hi = n;
        return;
    }
    const double centre = c * double(n);
    lo = std::llround(centre - size / 2);
    hi = std::max(lo + 1, int64_t(std::llround(centre + size / 2)));
    if (wrap == TEXTUREWRAP::CLAMP) {
        lo = std::clamp<int64_t>(lo, 0, n - 1);
        hi = std::clamp<int64_t>(hi, lo + 1, n);
    }
}

inline int64_t FloorDiv(int64_t a, int64_t n) { return a >= 0 ? a / n : -((-a + n - 1) / n); }

// Sums of the periodic image over [0, x) × [0, y) for x, y anywhere (one table read when
// both lie on the texture). Unsigned arithmetic wraps consistently; the box sums built from
// these fit in 64 bits.
template <typename E, int N>
void PeriodicPrefix(const TextureLevelView& t, int64_t x, int64_t y, uint64_t* out) {
    const int64_t w = t.width, h = t.height;
    const E* table = static_cast<const E*>(t.pixels);
    auto prefix = [&](int64_t px, int64_t py, uint64_t factor) {
        if (px == 0 || py == 0 || factor == 0) return;
        const E* e = table + ((py - 1) * w + (px - 1)) * N;
        for (int c = 0; c < N; ++c) out[c] += factor * uint64_t(e[c]);
    };
    const int64_t qx = FloorDiv(x, w), qy = FloorDiv(y, h);
    const int64_t rx = x - qx * w, ry = y - qy * h;
    for (int c = 0; c < N; ++c) out[c] = 0;
    prefix(w, h, uint64_t(qx) * uint64_t(qy));
    prefix(w, ry, uint64_t(qx));
    prefix(rx, h, uint64_t(qy));
    prefix(rx, ry, 1);
}

// The exact mean of the base texels in the footprint's bounding box, from four corners.
template <typename E, int N>
void SampleSummedArea(const TextureLevelView& t, double u, double v, const TextureFootprint& f,
                      TEXTUREWRAP wrap, double* acc) {
    int64_t x0, x1, y0, y1;
    BoxRange(u, std::fabs(f.dudx) + std::fabs(f.dudy), t.width, wrap, x0, x1);
    BoxRange(v, std::fabs(f.dvdx) + std::fabs(f.dvdy), t.height, wrap, y0, y1);
    uint64_t a[N], b[N], c[N], d[N];
    PeriodicPrefix<E, N>(t, x1, y1, a);
    PeriodicPrefix<E, N>(t, x0, y1, b);
    PeriodicPrefix<E, N>(t, x1, y0, c);
    PeriodicPrefix<E, N>(t, x0, y0, d);
    const double count = double(x1 - x0) * double(y1 - y0);
    for (int k = 0; k < N; ++k) acc[k] = double(a[k] - b[k] - c[k] + d[k]) / count;
}

inline double SrgbToLinearDouble(double v) {
    const double a = std::fabs(v);
    const double l = a <= 0.04045 ? a / 12.92 : std::pow((a + 0.055) / 1.055, 2.4);
    return std::copysign(l, v);
}

// --- The sampler -----------------------------------------------------------------------------

class ThreadedTextureImpl final : public Implements<TextureSamplerInterface> {
public:
    Result<void> Init(const StrongRef<TextureInterface>& texture) override {
        if (!texture || texture->GetWidth() < 1)
            return IllegalArgumentError(KELVO_HERE, "The texture is not initialised.");
        // The pyramids' lazy state belongs to one texture for good.
        if (_texture) return IllegalStateError(KELVO_HERE, "The sampler is already initialised.");
        _texture = texture;
        _storage = texture->GetStorage();
        return OK();
    }

    StrongRef<TextureInterface> GetTexture() const override { return _texture; }

    Result<void> Prepare(TEXTUREMODE mode) const override {
        KELVO_ASSIGN_OR_RETURN(const LevelSet* set, Levels(mode));
        (void)set;
        return OK();
    }

    Result<Col4> ThreadedTextureSample(const Vec2& uv, const TextureFootprint& footprint,
                                       const TextureSampleOptions& options) const override {
        if (options.srgbToLinear) {
            // Averages of encoded values are darker than the average light (a far
            // black-and-white checker would come out at a fifth of its brightness), so an
            // sRGB picture is filtered in linear light: in pyramids of a linearised twin.
            // The texture's own pyramids keep the stored values.
            KELVO_ASSIGN_OR_RETURN(
                StrongRef<TextureSamplerInterface> * twin,
                _linear.Get([&] { return MakeLinearTwin(); }, "ThreadedTextureSample"));
            TextureSampleOptions linear = options;
            linear.srgbToLinear = false;
            return (*twin)->ThreadedTextureSample(uv, footprint, linear);
        }
        KELVO_ASSIGN_OR_RETURN(const LevelSet* set, Levels(options.mode));
        const double u = PrepareCoordinate(uv.x, options.wrap);
        const double v = PrepareCoordinate(uv.y, options.wrap);
        double acc[4] = {0, 0, 0, 0};
        switch (_storage) {
            case TEXTURESTORAGE::RGB8:
                Filter<uint8_t, 3>(*set, u, v, footprint, options, acc);
                break;
            case TEXTURESTORAGE::RGBA8:
                Filter<uint8_t, 4>(*set, u, v, footprint, options, acc);
                break;
            case TEXTURESTORAGE::RGB16:
                Filter<uint16_t, 3>(*set, u, v, footprint, options, acc);
                break;
            case TEXTURESTORAGE::RGBA16:
                Filter<uint16_t, 4>(*set, u, v, footprint, options, acc);
                break;
            case TEXTURESTORAGE::RGB32F:
                Filter<float, 3>(*set, u, v, footprint, options, acc);
                break;
            case TEXTURESTORAGE::RGBA32F:
                Filter<float, 4>(*set, u, v, footprint, options, acc);
                break;
        }
        const int depth = int(_storage) / 2;
        const double scale = depth == 0 ? 1.0 / 255.0 : depth == 1 ? 1.0 / 65535.0 : 1.0;
        return Col4{acc[0] * scale, acc[1] * scale, acc[2] * scale,
                    TextureStorageChannels(_storage) == 4 ? acc[3] * scale : 1.0};
    }

private:
    template <typename T, int N>
    static void Filter(const LevelSet& set, double u, double v, const TextureFootprint& f,
                       const TextureSampleOptions& options, double* acc) {
        switch (options.mode) {
            case TEXTUREMODE::NEAREST:
                return Nearest<T, N>(set.levels[0], u, v, options.wrap, acc);
            case TEXTUREMODE::BILINEAR:
                return Bilinear<T, N>(set.levels[0], u, v, options.wrap, 1.0, acc);
            case TEXTUREMODE::MIPMAP:
                return SampleMipMap<T, N>(set, u, v, f, options.wrap, acc);
            case TEXTUREMODE::RIPMAP:
                return SampleRipMap<T, N>(set, u, v, f, options.wrap, acc);
            case TEXTUREMODE::SUMMEDAREA:
                if constexpr (std::is_same_v<T, uint8_t> || std::is_same_v<T, uint16_t>) {
                    if (set.levels[0].type == TEXTURECHANNEL::UINT64)
                        return SampleSummedArea<uint64_t, N>(set.levels[0], u, v, f, options.wrap,
                                                             acc);
                    return SampleSummedArea<uint32_t, N>(set.levels[0], u, v, f, options.wrap, acc);
                }
                return;  // never built for deeper storage
        }
    }

    // The levels `mode` reads, built on first demand, once per sampler.
    Result<const LevelSet*> Levels(TEXTUREMODE mode) const {
        if (!_texture) return IllegalStateError(KELVO_HERE, "The sampler is not initialised.");
        TEXTUREPYRAMID pyramid = TEXTUREPYRAMID::BASELEVEL;
        LazyInitThreaded<LevelSet>* lazy = &_base;
        switch (mode) {
            case TEXTUREMODE::NEAREST:
            case TEXTUREMODE::BILINEAR:
                break;
            case TEXTUREMODE::MIPMAP:
                pyramid = TEXTUREPYRAMID::MIPMAP, lazy = &_mip;
                break;
            case TEXTUREMODE::RIPMAP:
                pyramid = TEXTUREPYRAMID::RIPMAP, lazy = &_rip;
                break;
            case TEXTUREMODE::SUMMEDAREA:
                pyramid = TEXTUREPYRAMID::SUMMEDAREA, lazy = &_sat;
                break;
            default:
                return IllegalArgumentError(KELVO_HERE, "Unknown texture mode @.", int(mode));
        }
        if (pyramid == TEXTUREPYRAMID::SUMMEDAREA && _ownSums) {
            KELVO_ASSIGN_OR_RETURN(LevelSet * own, lazy->Get([&] { return MakeOwnSummedArea(); },
                                                             "ThreadedTextureSample"));
            return own;
        }
        KELVO_ASSIGN_OR_RETURN(LevelSet * set, lazy->Get([&] { return MakeLevels(pyramid); },
                                                         "ThreadedTextureSample"));
        return set;
    }

    // The base level with r, g, b linearised, as a texture of its own: 16-bit for 8- and
    // 16-bit pictures (8 bits would crush the darks), float for float ones; alpha as stored.
    Result<StrongRef<TextureSamplerInterface>> MakeLinearTwin() const {
        KELVO_TRY(_texture->Build(TEXTUREPYRAMID::BASELEVEL));
        const TextureLevelView base = _texture->GetMipLevel(0);
        const int64_t w = base.width, h = base.height;
        const int n = base.channels;
        const bool isFloat = base.type == TEXTURECHANNEL::FLOAT32;
        const PixelFormat format = isFloat ? (n == 4 ? kPixelRgba32f : kPixelRgb32f)
                                           : (n == 4 ? kPixelRgba16 : kPixelRgb16);
        KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(w, h));
        KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(w, h, format, COLORPROFILE::LINEAR));
        KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, COLORPROFILE::LINEAR));
        const bool is8 = base.type == TEXTURECHANNEL::UINT8;
        std::vector<uint16_t, Allocator<uint16_t>> table;  // stored value to linear 16-bit
        std::vector<uint16_t, Allocator<uint16_t>> row16;
        std::vector<float, Allocator<float>> row32;
        if (isFloat) {
            row32.resize(size_t(w * n));
        } else {
            table.resize(is8 ? 256 : 65536);
            const double top = double(table.size() - 1);
            for (size_t v = 0; v < table.size(); ++v)
                table[v] = uint16_t(std::lround(SrgbToLinearDouble(double(v) / top) * 65535.0));
            row16.resize(size_t(w * n));
        }
        for (int64_t y = 0; y < h; ++y) {
            for (int64_t i = 0; i < w * n; ++i) {
                const bool alpha = i % n == 3;
                const size_t k = size_t(y * w * n + i);
                if (isFloat) {
                    const float v = static_cast<const float*>(base.pixels)[k];
                    row32[size_t(i)] = alpha ? v : float(SrgbToLinearDouble(v));
                } else {
                    const unsigned v = is8 ? static_cast<const uint8_t*>(base.pixels)[k]
                                           : static_cast<const uint16_t*>(base.pixels)[k];
                    row16[size_t(i)] = alpha ? uint16_t(is8 ? v * 257u : v) : table[v];
                }
            }
            KELVO_TRY(writer->SetPixels(0, y, w,
                                        isFloat ? static_cast<const void*>(row32.data())
                                                : static_cast<const void*>(row16.data())));
        }
        KELVO_TRY(image->AddLayer(layer));
        KELVO_ASSIGN_OR_RETURN(auto twin, CreateTextureSampler(image));
        // The twin's 16-bit values get a summed area table of the sampler's own.
        if (auto* impl = dynamic_cast<ThreadedTextureImpl*>(twin.get())) impl->_ownSums = true;
        return twin;
    }

    // A summed area table of 16-bit base texels (64-bit sums), for the linear twin.
    Result<LevelSet> MakeOwnSummedArea() const {
        KELVO_TRY(_texture->Build(TEXTUREPYRAMID::BASELEVEL));
        const TextureLevelView base = _texture->GetMipLevel(0);
        if (base.type != TEXTURECHANNEL::UINT16)
            return _texture->Build(TEXTUREPYRAMID::SUMMEDAREA).GetError();
        const int64_t w = base.width, h = base.height;
        const int n = base.channels;
        _sums.assign(size_t(w * h * n), 0);
        const auto* in = static_cast<const uint16_t*>(base.pixels);
        for (int64_t y = 0; y < h; ++y) {
            uint64_t row[4] = {0, 0, 0, 0};
            for (int64_t x = 0; x < w; ++x)
                for (int c = 0; c < n; ++c) {
                    const size_t k = size_t((y * w + x) * n + c);
                    row[c] += in[k];
                    _sums[k] = row[c] + (y > 0 ? _sums[k - size_t(w * n)] : 0);
                }
        }
        LevelSet set;
        TextureLevelView view;
        view.pixels = _sums.data();
        view.width = w;
        view.height = h;
        view.channels = n;
        view.type = TEXTURECHANNEL::UINT64;
        view.spanX = view.spanY = 1;
        set.levels.push_back(view);
        return set;
    }

    Result<LevelSet> MakeLevels(TEXTUREPYRAMID pyramid) const {
        KELVO_TRY(_texture->Build(pyramid));
        const double w = double(_texture->GetWidth()), h = double(_texture->GetHeight());
        LevelSet set;
        switch (pyramid) {
            case TEXTUREPYRAMID::BASELEVEL:
                set.levels.push_back(_texture->GetMipLevel(0));
                break;
            case TEXTUREPYRAMID::SUMMEDAREA:
                set.levels.push_back(_texture->GetSummedArea());
                break;
            case TEXTUREPYRAMID::MIPMAP:
                for (int k = 0; k < _texture->GetMipLevelCount(); ++k) {
                    const TextureLevelView l = _texture->GetMipLevel(k);
                    set.levels.push_back(l);
                    set.logScaleX.push_back(
                        std::log2(std::max(w / double(l.width), h / double(l.height))));
                }
                break;
            case TEXTUREPYRAMID::RIPMAP: {
                const int nx = _texture->GetRipLevelCountX(), ny = _texture->GetRipLevelCountY();
                set.nx = nx;
                for (int j = 0; j < ny; ++j)
                    for (int i = 0; i < nx; ++i) set.levels.push_back(_texture->GetRipLevel(i, j));
                for (int i = 0; i < nx; ++i)
                    set.logScaleX.push_back(std::log2(w / double(set.levels[size_t(i)].width)));
                for (int j = 0; j < ny; ++j)
                    set.logScaleY.push_back(
                        std::log2(h / double(set.levels[size_t(j) * size_t(nx)].height)));
                break;
            }
        }
        return set;
    }

    StrongRef<TextureInterface> _texture;
    TEXTURESTORAGE _storage = TEXTURESTORAGE::RGB8;
    // A shortage of memory is not final: the next sample tries the build again.
    mutable LazyInitThreaded<LevelSet> _base{LAZYINIT::RETRYOUTOFMEMORY};
    mutable LazyInitThreaded<LevelSet> _mip{LAZYINIT::RETRYOUTOFMEMORY};
    mutable LazyInitThreaded<LevelSet> _rip{LAZYINIT::RETRYOUTOFMEMORY};
    mutable LazyInitThreaded<LevelSet> _sat{LAZYINIT::RETRYOUTOFMEMORY};
    mutable LazyInitThreaded<StrongRef<TextureSamplerInterface>> _linear{
        LAZYINIT::RETRYOUTOFMEMORY};
    bool _ownSums = false;  // set on a linear twin before anyone samples it
    mutable std::vector<uint64_t, Allocator<uint64_t>> _sums;  // written once, under _sat
};

KELVO_REGISTER_COMPONENT(s_threadedTexture, "ThreadedTextureImpl", TextureSamplerInterface,
                         ThreadedTextureImpl);

}  // namespace
}  // namespace kelvo
