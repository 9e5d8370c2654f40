// Texture pyramids: storage choice, row-parallel down-sampling and summed area tables.
#include "texture_impl.h"

#include <algorithm>

#include "kelvo/diagnostics.h"
#include "kelvo/entry.h"
#include "kelvo/jobs.h"
#include "texture_kernels.h"

namespace kelvo {

namespace {

// Levels below this many texels are built on the calling thread: handing them to the pool
// costs more than the work.
constexpr int64_t kParallelTexels = 16384;

ParallelForOptions RowOptions(int64_t texels) {
    ParallelForOptions options;
    if (texels < kParallelTexels) options.threads = 1;
    return options;
}

template <typename VEC>
using Component = typename TexelTraits<VEC>::Component;

template <typename VEC>
const Component<VEC>* Row(const MipMapLevel<VEC>& level, int64_t y) {
    return reinterpret_cast<const Component<VEC>*>(level.pixels.data() + y * level.width);
}
template <typename VEC>
Component<VEC>* Row(MipMapLevel<VEC>& level, int64_t y) {
    return reinterpret_cast<Component<VEC>*>(level.pixels.data() + y * level.width);
}

PixelFormat StorageFormat(TEXTURESTORAGE storage) {
    constexpr PixelFormat formats[] = {kPixelRgb8,   kPixelRgba8,  kPixelRgb16,
                                       kPixelRgba16, kPixelRgb32f, kPixelRgba32f};
    return formats[int(storage)];
}

template <typename VEC>
constexpr TEXTURESTORAGE StorageOf() {
    constexpr int alpha = TexelTraits<VEC>::kChannels == 4 ? 1 : 0;
    constexpr TEXTURECHANNEL c = TexelChannel<VEC>();
    constexpr int depth = c == TEXTURECHANNEL::UINT8 ? 0 : c == TEXTURECHANNEL::UINT16 ? 1 : 2;
    return TEXTURESTORAGE(depth * 2 + alpha);
}

template <typename VEC>
Result<MipMapLevel<VEC>> AllocateLevel(int64_t width, int64_t height, int64_t spanX,
                                       int64_t spanY) {
    return CatchOutOfMemory([&]() -> Result<MipMapLevel<VEC>> {
        MipMapLevel<VEC> level;
        level.pixels.resize(size_t(width * height));
        level.width = width;
        level.height = height;
        level.spanX = spanX;
        level.spanY = spanY;
        return level;
    });
}

}  // namespace

// --- Down-sampling ---------------------------------------------------------------------------

template <typename COL, typename VEC>
Result<void> MipMapData<COL, VEC>::ParalellizedSumLine(const MipMapLevel<VEC>& source,
                                                       MipMapLevel<VEC>& destination,
                                                       int64_t sourceRow, int64_t count,
                                                       bool halveX, bool halveY) {
    constexpr int N = TexelTraits<VEC>::kChannels;
    const int64_t destinationRow = halveY ? sourceRow / 2 : sourceRow;
    if (sourceRow < 0 || sourceRow >= source.height || destinationRow >= destination.height ||
        count < 0 || count > destination.width)
        return IllegalArgumentError(KELVO_HERE, "Row @ of @ texels lies outside the level.",
                                    sourceRow, count);
    const auto* a = Row(source, sourceRow);
    // The row below, or the row itself at an odd bottom edge.
    const auto* b = Row(source, std::min(sourceRow + 1, source.height - 1));
    HalveRow<Component<VEC>, N>(a, b, Row(destination, destinationRow), count, source.width, halveX,
                                halveY);
    return OK();
}

template <typename COL, typename VEC>
Result<MipMapLevel<VEC>> MipMapData<COL, VEC>::Halve(const MipMapLevel<VEC>& source, bool halveX,
                                                     bool halveY) {
    const int64_t width = halveX ? HalvedSize(source.width) : source.width;
    const int64_t height = halveY ? HalvedSize(source.height) : source.height;
    KELVO_ASSIGN_OR_RETURN(MipMapLevel<VEC> level,
                           AllocateLevel<VEC>(width, height, source.spanX * (halveX ? 2 : 1),
                                              source.spanY * (halveY ? 2 : 1)));
    KELVO_TRY(ParallelFor(
        0, height,
        [&](int64_t row) {
            return ParalellizedSumLine(source, level, halveY ? 2 * row : row, width, halveX,
                                       halveY);
        },
        RowOptions(width * height)));
    return level;
}

// --- Builds ------------------------------------------------------------------------------------

template <typename COL, typename VEC>
Result<void> MipMapData<COL, VEC>::BuildBase(const StrongRef<ImageLayerInterface>& layer,
                                             COLORPROFILE profile) {
    const PixelFormat storage = StorageFormat(StorageOf<VEC>());
    KELVO_ASSIGN_OR_RETURN(MipMapLevel<VEC> base, AllocateLevel<VEC>(_width, _height, 1, 1));
    const ParallelForOptions rows = RowOptions(_width * _height);
    auto direct = layer->GetPixelHandler(storage, profile);
    // Only a layer that cannot convert takes the buffered path; a shortage is the caller's.
    if (!direct && direct.GetError().Kind() == ERRORKIND::OUTOFMEMORY) return direct.GetError();
    if (direct) {
        const auto& reader = direct.Value();
        KELVO_TRY(ParallelFor(
            0, _height,
            [&](int64_t y) {
                return reader->GetPixels(0, y, _width, base.pixels.data() + y * _width);
            },
            rows));
    } else {
        // A layer that hands out its own format only: rows are read into a buffer per
        // worker and converted.
        const PixelFormat own = layer->GetPixelFormat();
        KELVO_ASSIGN_OR_RETURN(auto reader, layer->GetPixelHandler(own, profile));
        using Buffer = std::vector<uint8_t, Allocator<uint8_t>>;
        KELVO_TRY(ParallelFor<Buffer>(
            0, _height, [&](Buffer& row) { row.resize(size_t(_width) * own.GetBytesPerPixel()); },
            [&](Buffer& row, int64_t y) -> Result<void> {
                KELVO_TRY(reader->GetPixels(0, y, _width, row.data()));
                return ConvertPixels(own, profile, row.data(), storage, profile,
                                     base.pixels.data() + y * _width, _width);
            },
            [](Buffer&) {}, rows));
    }
    _base = std::move(base);
    return OK();
}

template <typename COL, typename VEC>
Result<void> MipMapData<COL, VEC>::BuildMipMap() {
    const int count = CountMipLevels(_width, _height);
    Levels levels;
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        levels.reserve(size_t(count - 1));
        return OK();
    }));
    // Each level reads the one before, so levels go one after another.
    for (int i = 1; i < count; ++i) {
        KELVO_ASSIGN_OR_RETURN(MipMapLevel<VEC> level,
                               Halve(i == 1 ? _base : levels.back(), true, true));
        levels.push_back(std::move(level));  // reserved: cannot throw
    }
    _mip = std::move(levels);
    return OK();
}

template <typename COL, typename VEC>
Result<void> MipMapData<COL, VEC>::BuildRipMap() {
    const int nx = CountRipLevels(_width), ny = CountRipLevels(_height);
    Levels levels;
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        levels.resize(size_t(nx) * size_t(ny));
        return OK();
    }));
    // The first row halves in x from its left neighbour; every other level halves in y
    // from the level above it.
    for (int j = 0; j < ny; ++j)
        for (int i = 0; i < nx; ++i) {
            if (i == 0 && j == 0) continue;
            const MipMapLevel<VEC>& from =
                j == 0
                    ? (i == 1 ? _base : levels[size_t(i) - 1])
                    : (i == 0 && j == 1 ? _base : levels[size_t(i) + size_t(j - 1) * size_t(nx)]);
            KELVO_ASSIGN_OR_RETURN(levels[size_t(i) + size_t(j) * size_t(nx)],
                                   Halve(from, j == 0, j > 0));
        }
    _rip = std::move(levels);
    _ripX = nx;
    _ripY = ny;
    return OK();
}

template <typename COL, typename VEC>
Result<void> MipMapData<COL, VEC>::BuildSummedArea() {
    if constexpr (!std::is_same_v<Component<VEC>, uint8_t>) {
        return UnsupportedArgumentError(
            KELVO_HERE, "Summed area tables do not support more than 8 bits depth.");
    } else {
        return _summedArea.Build(_base, SummedAreaNeedsWideEntries(_width, _height));
    }
}

template <typename COL, typename VEC>
TextureLevelView MipMapData<COL, VEC>::MipLevel(int level) const {
    if (level == 0) return _base.View();
    if (level < 0 || size_t(level) > _mip.size()) return {};
    return _mip[size_t(level - 1)].View();
}

template <typename COL, typename VEC>
TextureLevelView MipMapData<COL, VEC>::RipLevel(int levelX, int levelY) const {
    if (levelX == 0 && levelY == 0) return _base.View();
    if (levelX < 0 || levelY < 0 || levelX >= _ripX || levelY >= _ripY) return {};
    return _rip[size_t(levelX) + size_t(levelY) * size_t(_ripX)].View();
}

template <typename COL, typename VEC>
int64_t MipMapData<COL, VEC>::ByteSize(TEXTUREPYRAMID pyramid) const {
    auto bytes = [](const Levels& levels) {
        int64_t n = 0;
        for (const auto& l : levels) n += int64_t(l.pixels.size() * sizeof(VEC));
        return n;
    };
    const int64_t base = int64_t(_base.pixels.size() * sizeof(VEC));
    switch (pyramid) {
        case TEXTUREPYRAMID::BASELEVEL:
            return base;
        case TEXTUREPYRAMID::MIPMAP:
            return base + bytes(_mip);
        case TEXTUREPYRAMID::RIPMAP:
            return base + bytes(_rip);
        case TEXTUREPYRAMID::SUMMEDAREA:
            return _summedArea.ByteSize();
    }
    return 0;
}

// --- Summed area tables ------------------------------------------------------------------------

template <typename VEC>
template <typename E>
Result<void> SummedAreaData<VEC>::Fill(const MipMapLevel<VEC>& base, PixelArray<E>& sums) {
    constexpr int N = TexelTraits<VEC>::kChannels;
    const int64_t w = base.width, h = base.height, rowValues = w * N;
    // One band of rows per worker. The table is the bulk of the traffic, so it is written
    // once: each band first learns the table's row above it from the picture (the column
    // sums of the bands above, summed along x), then sums its rows on from there.
    const int64_t bands =
        w * h < kParallelTexels ? 1 : std::clamp<int64_t>(HostThreadCount(), 1, h);
    PixelArray<E> carries;  // carries[b - 1]: the table's row above band b
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        sums.resize(size_t(rowValues * h));
        carries.resize(size_t(rowValues * (bands - 1)));
        return OK();
    }));
    auto bandStart = [&](int64_t b) { return b * h / bands; };
    auto carry = [&](int64_t b) { return carries.data() + (b - 1) * rowValues; };
    if (bands > 1) {
        // In strips of columns too, so that every worker reads its share of the picture.
        const int64_t strips = std::clamp<int64_t>(HostThreadCount(), 1, w);
        KELVO_TRY(ParallelFor(0, (bands - 1) * strips, [&](int64_t job) {
            const int64_t b = 1 + job / strips, strip = job % strips;
            const int64_t from = strip * w / strips * N, to = (strip + 1) * w / strips * N;
            E* column = carry(b);
            std::fill(column + from, column + to, E(0));
            for (int64_t y = bandStart(b - 1); y < bandStart(b); ++y)
                AddToColumns(Row(base, y) + from, column + from, to - from);
        }));
        for (int64_t b = 1; b < bands; ++b) {
            E* row = carry(b);  // the band above, its column sums summed along x
            for (int64_t i = N; i < rowValues; ++i) row[i] += row[i - N];
            if (b > 1)  // and the row above that band
                for (int64_t i = 0; i < rowValues; ++i) row[i] += carry(b - 1)[i];
        }
    }
    return ParallelFor(0, bands, [&](int64_t b) {
        for (int64_t y = bandStart(b); y < bandStart(b + 1); ++y) {
            E* out = sums.data() + y * rowValues;
            const E* above = y > bandStart(b) ? out - rowValues : b > 0 ? carry(b) : nullptr;
            SumRow<E, N>(Row(base, y), above, out, w);
        }
    });
}

template <typename VEC>
Result<void> SummedAreaData<VEC>::Build(const MipMapLevel<VEC>& base, bool wideEntries) {
    PixelArray<uint32_t> narrow;
    PixelArray<uint64_t> wide;
    if (wideEntries)
        KELVO_TRY(Fill(base, wide));
    else
        KELVO_TRY(Fill(base, narrow));
    _sums32 = std::move(narrow);
    _sums64 = std::move(wide);
    _width = base.width;
    _height = base.height;
    return OK();
}

template <typename VEC>
TextureLevelView SummedAreaData<VEC>::View() const {
    TextureLevelView v{
        nullptr, _width, _height, TexelTraits<VEC>::kChannels, TEXTURECHANNEL::UINT32, 1, 1};
    if (!_sums32.empty()) {
        v.pixels = _sums32.data();
    } else if (!_sums64.empty()) {
        v.pixels = _sums64.data();
        v.type = TEXTURECHANNEL::UINT64;
    } else {
        return {};
    }
    return v;
}

template class SummedAreaData<Vec3u8>;
template class SummedAreaData<Vec4u8>;
template class MipMapData<Col3, Vec3u8>;
template class MipMapData<Col4, Vec4u8>;
template class MipMapData<Col3, Vec3u16>;
template class MipMapData<Col4, Vec4u16>;
template class MipMapData<Col3, Vec3f>;
template class MipMapData<Col4, Vec4f>;

// --- TextureImpl ---------------------------------------------------------------------------------

namespace {
Error Report(Error error) {
    DiagnosticOutput("TextureImpl::Init Error: @", error.Message());
    return error;
}

template <typename COL, typename VEC>
Result<StrongRef<MipMapDataBase>> MakeData(int64_t width, int64_t height) {
    KELVO_ASSIGN_OR_RETURN(auto data, (NewObject<MipMapData<COL, VEC>>(width, height)));
    return StrongRef<MipMapDataBase>(std::move(data));
}
}  // namespace

Result<void> TextureImpl::Init(const StrongRef<ImageInterface>& image,
                               const TextureInitOptions& options) {
    StrongRef<ImageLayerInterface> layer = image ? image->GetLayer(options.layer) : nullptr;
    if (!layer || layer->GetWidth() < 1 || layer->GetHeight() < 1)
        return Report(IllegalArgumentError(KELVO_HERE, "The image has no pixel data."));
    TEXTURESTORAGE storage{};
    if (!TextureStorageFor(layer->GetPixelFormat(), storage))
        return Report(IllegalArgumentError(KELVO_HERE, "Unknown pixel format."));
    const int64_t w = layer->GetWidth(), h = layer->GetHeight();
    // Built in one expression: assigning into a prepared Result trips GCC's
    // maybe-uninitialized analysis in the sanitizer builds.
    Result<StrongRef<MipMapDataBase>> data = [&]() -> Result<StrongRef<MipMapDataBase>> {
        switch (storage) {
            case TEXTURESTORAGE::RGB8:
                return MakeData<Col3, Vec3u8>(w, h);
            case TEXTURESTORAGE::RGBA8:
                return MakeData<Col4, Vec4u8>(w, h);
            case TEXTURESTORAGE::RGB16:
                return MakeData<Col3, Vec3u16>(w, h);
            case TEXTURESTORAGE::RGBA16:
                return MakeData<Col4, Vec4u16>(w, h);
            case TEXTURESTORAGE::RGB32F:
                return MakeData<Col3, Vec3f>(w, h);
            case TEXTURESTORAGE::RGBA32F:
                return MakeData<Col4, Vec4f>(w, h);
        }
        return OutOfMemoryError();
    }();
    if (!data) return Report(data.GetError());
    std::lock_guard lock(_buildLock);
    _layer = layer;
    _width = w;
    _height = h;
    _storage = storage;
    _profile = layer->GetColorProfile();
    _data = std::move(data).Value();
    for (auto& b : _built) b.store(false, std::memory_order_release);
    return OK();
}

Result<void> TextureImpl::Build(TEXTUREPYRAMID pyramid) {
    if (IsBuilt(pyramid)) return OK();
    std::lock_guard lock(_buildLock);
    Result<void> built = BuildLocked(pyramid);
    // Like Init's failures, a shortage of memory is also reported; the others are the
    // caller's to show.
    if (!built && built.GetError().Kind() == ERRORKIND::OUTOFMEMORY) Report(built.GetError());
    return built;
}

Result<void> TextureImpl::BuildLocked(TEXTUREPYRAMID pyramid) {
    if (!_data) return IllegalStateError(KELVO_HERE, "The texture is not initialised.");
    if (IsBuilt(pyramid)) return OK();
    // Known from the storage alone: no need to read the image first.
    if (pyramid == TEXTUREPYRAMID::SUMMEDAREA && _storage != TEXTURESTORAGE::RGB8 &&
        _storage != TEXTURESTORAGE::RGBA8)
        return _data->BuildSummedArea();
    if (pyramid != TEXTUREPYRAMID::BASELEVEL) KELVO_TRY(BuildLocked(TEXTUREPYRAMID::BASELEVEL));
    switch (pyramid) {
        case TEXTUREPYRAMID::BASELEVEL:
            KELVO_TRY(_data->BuildBase(_layer, _profile));
            // The base level is the picture from now on: letting the layer go returns its
            // pixels before the pyramids above it take their memory.
            _layer = nullptr;
            break;
        case TEXTUREPYRAMID::MIPMAP:
            KELVO_TRY(_data->BuildMipMap());
            break;
        case TEXTUREPYRAMID::RIPMAP:
            KELVO_TRY(_data->BuildRipMap());
            break;
        case TEXTUREPYRAMID::SUMMEDAREA:
            KELVO_TRY(_data->BuildSummedArea());
            break;
    }
    _builds[size_t(pyramid)].fetch_add(1);
    _built[size_t(pyramid)].store(true, std::memory_order_release);
    return OK();
}

int64_t TextureImpl::GetByteSize(TEXTUREPYRAMID pyramid) const {
    return IsBuilt(pyramid) ? _data->ByteSize(pyramid) : 0;
}

TextureLevelView TextureImpl::GetMipLevel(int level) const {
    if (level == 0 && IsBuilt(TEXTUREPYRAMID::BASELEVEL)) return _data->MipLevel(0);
    return IsBuilt(TEXTUREPYRAMID::MIPMAP) ? _data->MipLevel(level) : TextureLevelView{};
}

TextureLevelView TextureImpl::GetRipLevel(int levelX, int levelY) const {
    if (levelX == 0 && levelY == 0 && IsBuilt(TEXTUREPYRAMID::BASELEVEL))
        return _data->RipLevel(0, 0);
    return IsBuilt(TEXTUREPYRAMID::RIPMAP) ? _data->RipLevel(levelX, levelY) : TextureLevelView{};
}

TextureLevelView TextureImpl::GetSummedArea() const {
    return IsBuilt(TEXTUREPYRAMID::SUMMEDAREA) ? _data->SummedArea() : TextureLevelView{};
}

namespace {
KELVO_REGISTER_COMPONENT(s_texture, "TextureImpl", TextureInterface, TextureImpl);
}  // namespace

}  // namespace kelvo
