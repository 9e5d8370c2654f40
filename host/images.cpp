// Images and layers in memory, the objects behind the CreateImage and CreateImageLayer
// slots, and the row helpers the host's file formats share.
#include <algorithm>
#include <cstring>
#include <vector>

#include "imagefiles.h"

namespace kelvo::host {
namespace {

constexpr int64_t kMaxSide = int64_t(1) << 24;

Result<void> CheckSize(int64_t width, int64_t height) {
    if (width < 1 || height < 1 || width > kMaxSide || height > kMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Invalid image size @ x @.", width, height);
    return OK();
}

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
        return detail::ConvertPixelsDirect(_layer->GetPixelFormat(), _layer->GetColorProfile(), row,
                                           _format, _profile, to, count);
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
        return detail::ConvertPixelsDirect(_format, _profile, from, _layer->GetPixelFormat(),
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

}  // namespace

namespace detail {
void FillImageSlots(KelvoHostSlots& slots) {
    slots.CreateImage = &CreateImageSlot;
    slots.CreateImageLayer = &CreateImageLayerSlot;
}
Result<void> LayerRowReader::Open(const ImageInterface& image, int64_t index, PixelFormat format,
                                  COLORPROFILE profile) {
    StrongRef<ImageLayerInterface> layer = image.GetLayer(index);
    if (!layer) return IllegalArgumentError(KELVO_HERE, "The image has no layer @.", index);
    _width = layer->GetWidth();
    _height = layer->GetHeight();
    _format = format;
    _profile = profile;
    Result<StrongRef<GetPixelHandlerInterface>> direct = layer->GetPixelHandler(format, profile);
    _convert = !direct;
    if (direct) {
        _reader = std::move(direct).Value();
        return OK();
    }
    // A layer may hand out its own format only (a module's may refuse any other): rows are
    // then read as they are stored and converted here, in one step.
    if (direct.GetError().Kind() != ERRORKIND::UNSUPPORTEDARGUMENT) return direct.GetError();
    _own = layer->GetPixelFormat();
    _ownProfile = layer->GetColorProfile();
    KELVO_ASSIGN_OR_RETURN(_reader, layer->GetPixelHandler(_own, _ownProfile));
    return CatchOutOfMemory([&]() -> Result<void> {
        _line.resize(size_t(_width) * _own.GetBytesPerPixel());
        return OK();
    });
}

Result<void> LayerRowReader::Read(int64_t y, void* out) {
    if (!_reader) return IllegalStateError(KELVO_HERE, "The layer is not open.");
    if (!_convert) return _reader->GetPixels(0, y, _width, out);
    KELVO_TRY(_reader->GetPixels(0, y, _width, _line.data()));
    return ConvertPixelsDirect(_own, _ownProfile, _line.data(), _format, _profile, out, _width);
}

Result<void> ReadLayerRows(const ImageInterface& image, int64_t index, PixelFormat format,
                           COLORPROFILE profile, std::vector<uint8_t>& out) {
    LayerRowReader rows;
    KELVO_TRY(rows.Open(image, index, format, profile));
    const size_t row = size_t(rows.Width()) * format.GetBytesPerPixel();
    out.resize(row * size_t(rows.Height()));
    for (int64_t y = 0; y < rows.Height(); ++y)
        KELVO_TRY(rows.Read(y, out.data() + row * size_t(y)));
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
}  // namespace detail

}  // namespace kelvo::host
