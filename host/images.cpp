// Images in memory, pixel conversion, the host's file formats in the file-format registry,
// and the media session that imports and exports through that registry.
#include <algorithm>
#include <cstring>
#include <vector>

#include "imagefiles.h"
#include "kelvo/io.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo::host {
namespace {

constexpr int64_t kMaxSide = int64_t(1) << 24;

Result<void> CheckSize(int64_t width, int64_t height) {
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Invalid image size @ x @.", width, height);
    return OK();
}

// --- Conversion ------------------------------------------------------------------------------

void ToRgbaFloat(PixelFormat f, const void* from, float* rgba, int64_t count) {
    const int c = f.channels;
    for (int64_t i = 0; i < count; ++i) {
        float v[4] = {0, 0, 0, 1};
        for (int k = 0; k < c; ++k) {
            size_t at = size_t(i) * size_t(c) + size_t(k);
            switch (f.type) {
                case CHANNELTYPE::UINT8:
                    v[k] = static_cast<const uint8_t*>(from)[at] / 255.0f;
                    break;
                case CHANNELTYPE::UINT16:
                    v[k] = static_cast<const uint16_t*>(from)[at] / 65535.0f;
                    break;
                case CHANNELTYPE::FLOAT32:
                    v[k] = static_cast<const float*>(from)[at];
                    break;
            }
        }
        if (c == 1) v[1] = v[2] = v[0];
        std::memcpy(rgba + 4 * i, v, sizeof v);
    }
}

template <typename T>
T ToInteger(float v, float scale) {
    if (!(v > 0)) return 0;  // NaN too
    if (v >= 1) return static_cast<T>(scale);
    return static_cast<T>(v * scale + 0.5f);
}

void FromRgbaFloat(const float* rgba, PixelFormat f, void* to, int64_t count) {
    const int c = f.channels;
    for (int64_t i = 0; i < count; ++i) {
        const float* p = rgba + 4 * i;
        float v[4] = {p[0], p[1], p[2], p[3]};
        if (c == 1) v[0] = 0.2126f * p[0] + 0.7152f * p[1] + 0.0722f * p[2];
        for (int k = 0; k < c; ++k) {
            size_t at = size_t(i) * size_t(c) + size_t(k);
            switch (f.type) {
                case CHANNELTYPE::UINT8:
                    static_cast<uint8_t*>(to)[at] = ToInteger<uint8_t>(v[k], 255.0f);
                    break;
                case CHANNELTYPE::UINT16:
                    static_cast<uint16_t*>(to)[at] = ToInteger<uint16_t>(v[k], 65535.0f);
                    break;
                case CHANNELTYPE::FLOAT32:
                    static_cast<float*>(to)[at] = v[k];
                    break;
            }
        }
    }
}

Result<void> ConvertPixelsSlot(PixelFormat fromFormat, COLORPROFILE fromProfile, const void* from,
                               PixelFormat toFormat, COLORPROFILE toProfile, void* to,
                               int64_t count) {
    if (!fromFormat.IsValid() || !toFormat.IsValid())
        return IllegalArgumentError(KELVO_HERE, "Invalid pixel format.");
    if (count <= 0) return OK();
    if (fromFormat == toFormat && fromProfile == toProfile) {
        std::memmove(to, from, size_t(count) * fromFormat.GetBytesPerPixel());
        return OK();
    }
    // In slices, so that a long row needs only a small buffer.
    constexpr int64_t kSlice = 256;
    float rgba[4 * kSlice];
    auto* src = static_cast<const uint8_t*>(from);
    auto* dst = static_cast<uint8_t*>(to);
    for (int64_t done = 0; done < count; done += kSlice) {
        int64_t n = std::min(kSlice, count - done);
        ToRgbaFloat(fromFormat, src + size_t(done) * fromFormat.GetBytesPerPixel(), rgba, n);
        if (fromProfile != toProfile) {
            for (int64_t i = 0; i < n; ++i)
                for (int k = 0; k < 3; ++k) {
                    float& v = rgba[4 * i + k];
                    v = toProfile == COLORPROFILE::LINEAR ? SrgbToLinear(v) : LinearToSrgb(v);
                }
        }
        FromRgbaFloat(rgba, toFormat, dst + size_t(done) * toFormat.GetBytesPerPixel(), n);
    }
    return OK();
}

// --- Memory layers and images ----------------------------------------------------------------

class MemoryLayer;

Error RangeError(int64_t x, int64_t y, int64_t count, int64_t w, int64_t h) {
    return IllegalArgumentError(KELVO_HERE, "Pixels @ to @ of row @ lie outside the @ x @ layer.",
                                x, x + count - 1, y, w, h);
}

class MemoryLayer final : public Implements<ImageLayerInterface>,
                          public std::enable_shared_from_this<MemoryLayer> {
public:
    MemoryLayer(int64_t w, int64_t h, PixelFormat f, COLORPROFILE p)
        : _width(w), _height(h), _format(f), _profile(p) {}

    Result<void> Allocate() {
        return CatchOutOfMemory([&]() -> Result<void> {
            _pixels.resize(size_t(_width) * size_t(_height) * _format.GetBytesPerPixel());
            return OK();
        });
    }

    int64_t GetWidth() const override { return _width; }
    int64_t GetHeight() const override { return _height; }
    PixelFormat GetPixelFormat() const override { return _format; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<StrongRef<GetPixelHandlerInterface>> GetPixelHandler(PixelFormat f,
                                                                COLORPROFILE p) override;
    Result<StrongRef<SetPixelHandlerInterface>> SetPixelHandler(PixelFormat f,
                                                                COLORPROFILE p) override;

    Result<uint8_t*> Row(int64_t x, int64_t y, int64_t count) {
        if (y < 0 || y >= _height || x < 0 || count < 0 || count > _width - x)
            return RangeError(x, y, count, _width, _height);
        return _pixels.data() +
               (size_t(y) * size_t(_width) + size_t(x)) * _format.GetBytesPerPixel();
    }

private:
    const int64_t _width, _height;
    const PixelFormat _format;
    const COLORPROFILE _profile;
    std::vector<uint8_t, Allocator<uint8_t>> _pixels;
};

class MemoryGetHandler final : public Implements<GetPixelHandlerInterface> {
public:
    MemoryGetHandler(StrongRef<MemoryLayer> l, PixelFormat f, COLORPROFILE p)
        : _layer(std::move(l)), _format(f), _profile(p) {}
    PixelFormat GetPixelFormat() const override { return _format; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> GetPixels(int64_t x, int64_t y, int64_t count, void* to) const override {
        KELVO_ASSIGN_OR_RETURN(uint8_t * row, _layer->Row(x, y, count));
        return ConvertPixelsSlot(_layer->GetPixelFormat(), _layer->GetColorProfile(), row, _format,
                                 _profile, to, count);
    }

private:
    StrongRef<MemoryLayer> _layer;
    PixelFormat _format;
    COLORPROFILE _profile;
};

class MemorySetHandler final : public Implements<SetPixelHandlerInterface> {
public:
    MemorySetHandler(StrongRef<MemoryLayer> l, PixelFormat f, COLORPROFILE p)
        : _layer(std::move(l)), _format(f), _profile(p) {}
    PixelFormat GetPixelFormat() const override { return _format; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> SetPixels(int64_t x, int64_t y, int64_t count, const void* from) override {
        KELVO_ASSIGN_OR_RETURN(uint8_t * row, _layer->Row(x, y, count));
        return ConvertPixelsSlot(_format, _profile, from, _layer->GetPixelFormat(),
                                 _layer->GetColorProfile(), row, count);
    }

private:
    StrongRef<MemoryLayer> _layer;
    PixelFormat _format;
    COLORPROFILE _profile;
};

Result<StrongRef<GetPixelHandlerInterface>> MemoryLayer::GetPixelHandler(PixelFormat f,
                                                                         COLORPROFILE p) {
    if (!f.IsValid()) return IllegalArgumentError(KELVO_HERE, "Invalid pixel format.");
    KELVO_ASSIGN_OR_RETURN(auto h, NewObject<MemoryGetHandler>(shared_from_this(), f, p));
    return StrongRef<GetPixelHandlerInterface>(std::move(h));
}

Result<StrongRef<SetPixelHandlerInterface>> MemoryLayer::SetPixelHandler(PixelFormat f,
                                                                         COLORPROFILE p) {
    if (!f.IsValid()) return IllegalArgumentError(KELVO_HERE, "Invalid pixel format.");
    KELVO_ASSIGN_OR_RETURN(auto h, NewObject<MemorySetHandler>(shared_from_this(), f, p));
    return StrongRef<SetPixelHandlerInterface>(std::move(h));
}

class MemoryImage final : public Implements<ImageInterface> {
public:
    MemoryImage(int64_t w, int64_t h) : _width(w), _height(h) {}
    int64_t GetWidth() const override { return _width; }
    int64_t GetHeight() const override { return _height; }
    int64_t GetLayerCount() const override { return int64_t(_layers.size()); }
    StrongRef<ImageLayerInterface> GetLayer(int64_t i) const override {
        return i >= 0 && i < GetLayerCount() ? _layers[size_t(i)] : nullptr;
    }
    Result<void> AddLayer(StrongRef<ImageLayerInterface> layer) override {
        if (!layer) return IllegalArgumentError(KELVO_HERE, "No layer.");
        if (layer->GetWidth() != _width || layer->GetHeight() != _height)
            return IllegalArgumentError(KELVO_HERE,
                                        "The layer of @ x @ does not fit the image of @ x @.",
                                        layer->GetWidth(), layer->GetHeight(), _width, _height);
        return CatchOutOfMemory([&]() -> Result<void> {
            _layers.push_back(std::move(layer));
            return OK();
        });
    }
    const DataDictionary& GetProperties() const override { return _properties; }
    Result<void> SetProperty(const DataDictionary::Key& key, Data value) override {
        return _properties.Set(key, std::move(value));
    }

private:
    const int64_t _width, _height;
    std::vector<StrongRef<ImageLayerInterface>, Allocator<StrongRef<ImageLayerInterface>>> _layers;
    DataDictionary _properties;
};

Result<StrongRef<ImageInterface>> CreateImageSlot(int64_t width, int64_t height) {
    KELVO_TRY(CheckSize(width, height));
    KELVO_ASSIGN_OR_RETURN(auto image, NewObject<MemoryImage>(width, height));
    return StrongRef<ImageInterface>(std::move(image));
}

Result<StrongRef<ImageLayerInterface>> CreateImageLayerSlot(int64_t width, int64_t height,
                                                            PixelFormat format,
                                                            COLORPROFILE profile) {
    KELVO_TRY(CheckSize(width, height));
    if (!format.IsValid()) return IllegalArgumentError(KELVO_HERE, "Invalid pixel format.");
    KELVO_ASSIGN_OR_RETURN(auto layer, NewObject<MemoryLayer>(width, height, format, profile));
    KELVO_TRY(layer->Allocate());
    return StrongRef<ImageLayerInterface>(std::move(layer));
}

// --- The host's file formats ------------------------------------------------------------------

// Format, handler, import and export classes of one host format, from its description.
template <const detail::HostFileFormat& F>
class HostFormat final : public Implements<FileFormatInterface> {
public:
    Result<bool> Detect(const Url& url) const override {
        uint8_t head[16] = {};
        KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> in, OpenInputStream(url));
        size_t got = 0;
        while (got < sizeof head) {
            KELVO_ASSIGN_OR_RETURN(size_t n, in->Read(head + got, sizeof head - got));
            if (n == 0) break;
            got += n;
        }
        return F.detect(head, got);
    }
    bool MatchesSuffix(const Url& url) const override {
        for (const char* s : F.suffixes)
            if (s && CheckSuffix(url, s)) return true;
        return false;
    }
    std::string_view GetName() const override { return F.name; }
};

template <const detail::HostFileFormat& F>
class HostHandler final : public Implements<FileFormatHandlerInterface> {
public:
    Id GetFileFormat() const override { return Id::Unchecked(F.formatId); }
    Id GetImportClass() const override { return Id::Unchecked(F.importId); }
    Id GetExportClass() const override { return Id::Unchecked(F.exportId); }
};

Result<std::filesystem::path> FilePath(const Url& url) {
    std::filesystem::path p = LocalPath(url);
    if (p.empty()) return IoError(KELVO_HERE, url.ToString(), "Cannot open @.", url.ToString());
    return p;
}

template <const detail::HostFileFormat& F>
class HostImport final : public Implements<MediaImportInterface> {
public:
    Result<StrongRef<ImageInterface>> Import(const Url& url) override {
        KELVO_ASSIGN_OR_RETURN(auto path, FilePath(url));
        return CatchOutOfMemory([&] { return F.read(path, url.ToString()); });
    }
};

template <const detail::HostFileFormat& F>
class HostExport final : public Implements<MediaExportInterface> {
public:
    Result<void> Export(const Url& url, const ImageInterface& image,
                        const DataDictionary& options) override {
        KELVO_ASSIGN_OR_RETURN(auto path, FilePath(url));
        if (image.GetLayerCount() < 1)
            return IllegalArgumentError(KELVO_HERE, "The image has no layer to write.");
        return CatchOutOfMemory([&] { return F.write(path, url.ToString(), image, options); });
    }
};

EntryRecord MakeEntry(const char* id, Id registry, Id kind, CreateFunction create) {
    EntryRecord e;
    e.kind = ENTRYKIND::CLASS;
    e.idText = id;
    e.idSize = std::strlen(id);
    e.idHash = kelvo::detail::HashText({id, e.idSize});
    e.registry = registry;
    e.kindId = kind;
    e.source = KELVO_HERE;
    e.create = create;
    return e;
}

template <const detail::HostFileFormat& F>
void InsertFormat(std::vector<EntryRecord>& out) {
    out.push_back(MakeEntry(F.formatId, kFileFormatsRegistry, FileFormatInterface::InterfaceId(),
                            &CreateInstance<HostFormat<F>>));
    out.push_back(MakeEntry(F.handlerId, kFileFormatHandlersRegistry,
                            FileFormatHandlerInterface::InterfaceId(),
                            &CreateInstance<HostHandler<F>>));
    out.push_back(MakeEntry(F.importId, Id(), MediaImportInterface::InterfaceId(),
                            &CreateInstance<HostImport<F>>));
    out.push_back(MakeEntry(F.exportId, Id(), MediaExportInterface::InterfaceId(),
                            &CreateInstance<HostExport<F>>));
}

// --- Media session ------------------------------------------------------------------------------

Result<Id> DetectFileFormatSlot(const Url& url) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(StrongRef<FileFormatInterface> format,
                               CreateClass<FileFormatInterface>(e->GetId()));
        KELVO_ASSIGN_OR_RETURN(bool found, format->Detect(url));
        if (found) return e->GetId();
    }
    return Id();
}

// The first handler of the format with an import (or export) step; empty when none.
Result<StrongRef<FileFormatHandlerInterface>> FindHandler(const Id& format, bool import) {
    for (const EntryRecord* e : RegistryMembers(kFileFormatHandlersRegistry)) {
        if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatHandlerInterface::InterfaceId())
            continue;
        KELVO_ASSIGN_OR_RETURN(auto h, CreateClass<FileFormatHandlerInterface>(e->GetId()));
        if (h->GetFileFormat() != format) continue;
        if (!(import ? h->GetImportClass() : h->GetExportClass()).IsEmpty()) return h;
    }
    return StrongRef<FileFormatHandlerInterface>();
}

Result<StrongRef<ImageInterface>> ImportImageSlot(const Url& url) {
    KELVO_ASSIGN_OR_RETURN(Id format, DetectFileFormatSlot(url));
    if (format.IsEmpty())
        return UnsupportedArgumentError(KELVO_HERE, "No file format recognises @.", url.ToString());
    KELVO_ASSIGN_OR_RETURN(auto handler, FindHandler(format, true));
    if (!handler)
        return UnsupportedArgumentError(KELVO_HERE, "No file format handler imports @.", format);
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaImportInterface>(handler->GetImportClass()));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, step->Import(url));
    if (!image || image->GetLayerCount() < 1)
        return UnexpectedError(KELVO_HERE, "The import of @ gave no image.", url.ToString());
    KELVO_TRY(image->SetProperty(kImagePropertyFileFormat, format));
    KELVO_TRY(image->SetProperty(kImagePropertyUrl, url));
    return image;
}

Result<void> ExportImageSlot(const Url& url, const ImageInterface& image, const Id& format,
                             const DataDictionary& options) {
    Id chosen = format;
    if (chosen.IsEmpty()) {
        for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
            if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
                continue;
            KELVO_ASSIGN_OR_RETURN(auto f, CreateClass<FileFormatInterface>(e->GetId()));
            if (!f->MatchesSuffix(url)) continue;
            KELVO_ASSIGN_OR_RETURN(auto writer, FindHandler(e->GetId(), false));
            if (writer) {
                chosen = e->GetId();
                break;
            }
        }
    }
    StrongRef<FileFormatHandlerInterface> handler;
    if (!chosen.IsEmpty()) {
        KELVO_ASSIGN_OR_RETURN(handler, FindHandler(chosen, false));
    }
    if (!handler)
        return UnsupportedArgumentError(
            KELVO_HERE, "No file format writes @.",
            format.IsEmpty() ? url.ToString() : std::string(format.Text()));
    KELVO_ASSIGN_OR_RETURN(auto step, CreateClass<MediaExportInterface>(handler->GetExportClass()));
    return step->Export(url, image, options);
}

}  // namespace

namespace detail {
void FillImageSlots(KelvoHostSlots& slots) {
    slots.CreateImage = &CreateImageSlot;
    slots.CreateImageLayer = &CreateImageLayerSlot;
    slots.ConvertPixels = &ConvertPixelsSlot;
    slots.DetectFileFormat = &DetectFileFormatSlot;
    slots.ImportImage = &ImportImageSlot;
    slots.ExportImage = &ExportImageSlot;
}

void RegisterHostFileFormats() {
    static std::vector<EntryRecord>* entries = [] {
        auto* list = new std::vector<EntryRecord>();  // lives as long as the registries
        InsertFormat<kPngFormat>(*list);
        InsertFormat<kTiffFormat>(*list);
        InsertFormat<kExrFormat>(*list);
        return list;
    }();
    for (EntryRecord& e : *entries) {
        Result<void> r = InsertEntry(e);
        (void)r;  // host ids are unique; a module cannot have claimed them yet
    }
}
}  // namespace detail

}  // namespace kelvo::host

namespace kelvo::host::detail {

Result<void> ReadLayerRows(const ImageInterface& image, int64_t index, PixelFormat format,
                           COLORPROFILE profile, std::vector<uint8_t>& out) {
    StrongRef<ImageLayerInterface> layer = image.GetLayer(index);
    if (!layer) return IllegalArgumentError(KELVO_HERE, "The image has no layer @.", index);
    KELVO_ASSIGN_OR_RETURN(auto reader, layer->GetPixelHandler(format, profile));
    const int64_t w = layer->GetWidth(), h = layer->GetHeight();
    const size_t row = size_t(w) * format.GetBytesPerPixel();
    out.resize(row * size_t(h));
    for (int64_t y = 0; y < h; ++y)
        KELVO_TRY(reader->GetPixels(0, y, w, out.data() + row * size_t(y)));
    return OK();
}

Result<StrongRef<ImageLayerInterface>> LayerFromPixels(int64_t width, int64_t height,
                                                       PixelFormat format, COLORPROFILE profile,
                                                       const void* pixels) {
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(width, height, format, profile));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, profile));
    const size_t row = size_t(width) * format.GetBytesPerPixel();
    for (int64_t y = 0; y < height; ++y)
        KELVO_TRY(
            writer->SetPixels(0, y, width, static_cast<const uint8_t*>(pixels) + row * size_t(y)));
    return layer;
}

}  // namespace kelvo::host::detail
