// The IES image import: IES photometric files opened as pictures of their distribution,
// wherever the host opens images.
#include "media_io_ies.h"

#include <mutex>

#include "ies_impl.h"
#include "kelvo/entry.h"
#include "kelvo/jobs.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"

namespace kelvo {

namespace detail {
bool DetectIesContent(std::string_view firstBytes) {
    std::string_view head = firstBytes.substr(0, kIesDetectBytes);
    return head.find("IESN") != std::string_view::npos ||
           head.find("TILT") != std::string_view::npos;
}
}  // namespace detail

namespace {

constexpr Id kFormatId("net.kelvo.fileformat.imageies");
constexpr Id kImportId("net.kelvo.mediasession.ies.import");
constexpr Id kLayerClassId("net.kelvo.render.class.mediastreamimagelayeriesimport");

class IesFileFormat final : public Implements<FileFormatInterface> {
public:
    Result<bool> Detect(const Url& url) const override {
        if (!CheckSuffix(url, "ies")) return false;
        KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> stream, OpenInputStream(url));
        return CatchOutOfMemory([&]() -> Result<bool> {
            std::string head(detail::kIesDetectBytes, '\0');
            size_t got = 0;
            while (got < head.size()) {
                KELVO_ASSIGN_OR_RETURN(size_t n,
                                       stream->Read(head.data() + got, head.size() - got));
                if (n == 0) break;
                got += n;
            }
            head.resize(got);
            return detail::DetectIesContent(head);
        });
    }
    bool MatchesSuffix(const Url& url) const override { return CheckSuffix(url, "ies"); }
    std::string_view GetName() const override { return "IES"; }
};

class IesFileFormatHandler final : public Implements<FileFormatHandlerInterface> {
public:
    Id GetFileFormat() const override { return kFormatId; }
    Id GetImportClass() const override { return kImportId; }
    Id GetExportClass() const override { return Id(); }  // previews are not written back as IES
};

using Pixels = std::vector<uint8_t, Allocator<uint8_t>>;

// The layer of an imported IES file: a square grey 8-bit sRGB picture of the profile's
// preview, rendered on the first request for pixels.
class IesImageLayer final : public Implements<ImageLayerInterface>,
                            public std::enable_shared_from_this<IesImageLayer> {
public:
    static constexpr PixelFormat kFormat = kPixelGrey8;
    static constexpr COLORPROFILE kProfile = COLORPROFILE::SRGB;

    void Attach(StrongRef<const IesImpl> ies, int64_t size) {
        _ies = std::move(ies);
        _size = size;
    }

    int64_t GetWidth() const override { return _size; }
    int64_t GetHeight() const override { return _size; }
    PixelFormat GetPixelFormat() const override { return kFormat; }
    COLORPROFILE GetColorProfile() const override { return kProfile; }
    Result<StrongRef<GetPixelHandlerInterface>> GetPixelHandler(PixelFormat format,
                                                                COLORPROFILE profile) override;
    Result<StrongRef<SetPixelHandlerInterface>> SetPixelHandler(PixelFormat format,
                                                                COLORPROFILE profile) override;

    // The pixels, rendered once; callers that come meanwhile wait for the first.
    Result<Pixels*> Render() {
        return _pixels.Get(
            [&]() -> Result<Pixels> {
                if (!_ies)
                    return IllegalStateError(KELVO_HERE, "The IES image layer has no profile.");
                Pixels pixels(size_t(_size * _size));
                KELVO_TRY(_ies->GeneratePreviewImage(
                    _size, _size,
                    [&](PixelFormat f,
                        COLORPROFILE p) -> Result<StrongRef<SetPixelHandlerInterface>> {
                        return NewRowWriter(pixels, f, p);
                    },
                    {}));
                return pixels;
            },
            "IesImageLayerRender");
    }

    Result<uint8_t*> Row(Pixels& pixels, int64_t x, int64_t y, int64_t count) const {
        if (y < 0 || y >= _size || x < 0 || count < 0 || count > _size - x)
            return IllegalArgumentError(KELVO_HERE,
                                        "Pixels @ to @ of row @ lie outside the @ x @ layer.", x,
                                        x + count - 1, y, _size, _size);
        return pixels.data() + size_t(y * _size + x);
    }

private:
    // Rows of the preview, converted from the preview's format into this layer's.
    Result<StrongRef<SetPixelHandlerInterface>> NewRowWriter(Pixels& pixels, PixelFormat f,
                                                             COLORPROFILE p);

    StrongRef<const IesImpl> _ies;
    int64_t _size = 0;
    LazyInitThreaded<Pixels> _pixels;
};

// Reads the layer's pixels in its own format, converting between colour profiles.
class IesLayerReader final : public Implements<GetPixelHandlerInterface> {
public:
    IesLayerReader(StrongRef<IesImageLayer> layer, Pixels* pixels, COLORPROFILE p)
        : _layer(std::move(layer)), _pixels(pixels), _profile(p) {}
    PixelFormat GetPixelFormat() const override { return IesImageLayer::kFormat; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> GetPixels(int64_t x, int64_t y, int64_t count, void* to) const override {
        KELVO_ASSIGN_OR_RETURN(uint8_t * row, _layer->Row(*_pixels, x, y, count));
        return ConvertPixels(IesImageLayer::kFormat, IesImageLayer::kProfile, row,
                             IesImageLayer::kFormat, _profile, to, count);
    }

private:
    StrongRef<IesImageLayer> _layer;  // keeps the pixels alive
    Pixels* _pixels;
    COLORPROFILE _profile;
};

// Writes the layer's pixels, given in its own format and any colour profile.
class IesLayerWriter final : public Implements<SetPixelHandlerInterface> {
public:
    IesLayerWriter(StrongRef<IesImageLayer> layer, Pixels* pixels, COLORPROFILE p)
        : _layer(std::move(layer)), _pixels(pixels), _profile(p) {}
    PixelFormat GetPixelFormat() const override { return IesImageLayer::kFormat; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> SetPixels(int64_t x, int64_t y, int64_t count, const void* from) override {
        KELVO_ASSIGN_OR_RETURN(uint8_t * row, _layer->Row(*_pixels, x, y, count));
        return ConvertPixels(IesImageLayer::kFormat, _profile, from, IesImageLayer::kFormat,
                             IesImageLayer::kProfile, row, count);
    }

private:
    StrongRef<IesImageLayer> _layer;
    Pixels* _pixels;
    COLORPROFILE _profile;
};

// The writer the preview renders through, before the layer's pixels are published.
class PreviewRowWriter final : public Implements<SetPixelHandlerInterface> {
public:
    PreviewRowWriter(const IesImageLayer& layer, Pixels& pixels, PixelFormat f, COLORPROFILE p)
        : _layer(layer), _pixels(pixels), _format(f), _profile(p) {}
    PixelFormat GetPixelFormat() const override { return _format; }
    COLORPROFILE GetColorProfile() const override { return _profile; }
    Result<void> SetPixels(int64_t x, int64_t y, int64_t count, const void* from) override {
        KELVO_ASSIGN_OR_RETURN(uint8_t * row, _layer.Row(_pixels, x, y, count));
        return ConvertPixels(_format, _profile, from, IesImageLayer::kFormat,
                             IesImageLayer::kProfile, row, count);
    }

private:
    const IesImageLayer& _layer;
    Pixels& _pixels;
    PixelFormat _format;
    COLORPROFILE _profile;
};

Result<StrongRef<SetPixelHandlerInterface>> IesImageLayer::NewRowWriter(Pixels& pixels,
                                                                        PixelFormat f,
                                                                        COLORPROFILE p) {
    KELVO_ASSIGN_OR_RETURN(auto writer, NewObject<PreviewRowWriter>(*this, pixels, f, p));
    return StrongRef<SetPixelHandlerInterface>(std::move(writer));
}

Error WrongPixelFormat() { return UnsupportedArgumentError(KELVO_HERE, "Wrong pixel format"); }

Result<StrongRef<GetPixelHandlerInterface>> IesImageLayer::GetPixelHandler(PixelFormat format,
                                                                           COLORPROFILE profile) {
    // The layer hands out its own format only; asking for another is the caller's mistake.
    if (format != kFormat) return WrongPixelFormat();
    KELVO_ASSIGN_OR_RETURN(Pixels * pixels, Render());
    KELVO_ASSIGN_OR_RETURN(auto h, NewObject<IesLayerReader>(shared_from_this(), pixels, profile));
    return StrongRef<GetPixelHandlerInterface>(std::move(h));
}

Result<StrongRef<SetPixelHandlerInterface>> IesImageLayer::SetPixelHandler(PixelFormat format,
                                                                           COLORPROFILE profile) {
    if (format != kFormat) return WrongPixelFormat();
    KELVO_ASSIGN_OR_RETURN(Pixels * pixels, Render());
    KELVO_ASSIGN_OR_RETURN(auto h, NewObject<IesLayerWriter>(shared_from_this(), pixels, profile));
    return StrongRef<SetPixelHandlerInterface>(std::move(h));
}

class IesImport final : public Implements<MediaImportInterface> {
public:
    Result<StrongRef<ImageInterface>> Import(const Url& url) override {
        KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> stream, OpenInputStream(url));
        KELVO_ASSIGN_OR_RETURN(StrongRef<IesImpl> ies, NewObject<IesImpl>());
        KELVO_TRY(ies->Init(stream));
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageLayerInterface> layer,
                               CreateClass<ImageLayerInterface>(kLayerClassId));
        auto* iesLayer = dynamic_cast<IesImageLayer*>(layer.get());
        if (!iesLayer)
            return IllegalStateError(KELVO_HERE, "Class @ is not the IES image layer.",
                                     kLayerClassId);
        iesLayer->Attach(ies, detail::kIesImageSize);
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image,
                               CreateImage(detail::kIesImageSize, detail::kIesImageSize));
        KELVO_TRY(image->AddLayer(layer));
        return image;
    }
};

KELVO_REGISTER_CLASS(s_iesFormat, "net.kelvo.fileformat.imageies", kFileFormatsRegistry,
                     FileFormatInterface::InterfaceId(), IesFileFormat);
KELVO_REGISTER_CLASS(s_iesHandler, "net.kelvo.fileformathandler.imageloaderies",
                     kFileFormatHandlersRegistry, FileFormatHandlerInterface::InterfaceId(),
                     IesFileFormatHandler);
KELVO_REGISTER_CLASS(s_iesImport, "net.kelvo.mediasession.ies.import", Id(),
                     MediaImportInterface::InterfaceId(), IesImport);
KELVO_REGISTER_CLASS(s_iesLayer, "net.kelvo.render.class.mediastreamimagelayeriesimport", Id(),
                     ImageLayerInterface::InterfaceId(), IesImageLayer);

}  // namespace
}  // namespace kelvo
