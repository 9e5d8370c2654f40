// OpenEXR through the OpenEXR library: scan-line and tiled single-part files, read as
// linear 32-bit floats (R, G, B and A, or Y and A, or a single channel).
#include <Imath/half.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputFile.h>
#include <ImfOutputFile.h>
#include <ImfRgbaFile.h>
#include <ImfStandardAttributes.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <vector>

#include "imagefiles.h"
#include "kelvo/diagnostics.h"
#include "kelvo/mediasession_output.h"

namespace kelvo::host::detail {
namespace {

// The channels read from a file. Colour wins: R, G and B, a missing one read as 0 (a file
// with only G and A is green with alpha). Without colour, luminance with chroma (Y, RY, BY)
// is converted to RGB by the library's RGBA interface, and Y alone, or a file's only
// channel, is grey. A is added when present.
struct ExrChannels {
    std::vector<std::string> names;
    bool grey = false;             // one channel widened to RGB (with A) or kept as grey
    bool luminanceChroma = false;  // read through Imf::RgbaInputFile
};

Result<ExrChannels> PickChannels(const Imf::ChannelList& list, const std::string& url) {
    ExrChannels out;
    const bool colour = list.findChannel("R") || list.findChannel("G") || list.findChannel("B");
    const bool luminance = list.findChannel("Y") != nullptr;
    if (colour) {
        out.names = {"R", "G", "B"};
        if (luminance)
            DiagnosticWarning("OpenEXR file @ has colour and luminance channels; Y is not read.",
                              url);
    } else if (luminance && (list.findChannel("RY") || list.findChannel("BY"))) {
        out.names = {"R", "G", "B"};
        out.luminanceChroma = true;
    } else if (luminance) {
        out.names = {"Y"};
    } else if (list.begin() != list.end() && ++list.begin() == list.end()) {
        out.names = {list.begin().name()};
    } else {
        return UnsupportedArgumentError(KELVO_HERE, "OpenEXR file @ has no R, G, B or Y channels.",
                                        url);
    }
    out.grey = out.names.size() == 1;
    if (list.findChannel("A") && out.names[0] != "A") out.names.push_back("A");
    return out;
}

// Grey with alpha has no pixel format of its own: it is widened to RGBA.
PixelFormat FormatOf(const ExrChannels& c) {
    return {uint8_t(c.grey && c.names.size() == 2 ? 4 : c.names.size()), CHANNELTYPE::FLOAT32};
}

// Luminance and chroma through the RGBA interface, which filters the sub-sampled chroma and
// converts to RGB; one row at a time into `row` (c = 3 or 4 floats per pixel), handed on.
Result<void> ReadLuminanceChroma(const std::filesystem::path& path, std::vector<float>& row,
                                 size_t c, const std::function<Result<void>(int64_t)>& put) {
    Imf::RgbaInputFile file(path.c_str());
    const Imath::Box2i dw = file.dataWindow();
    const size_t w = size_t(int64_t(dw.max.x) - dw.min.x + 1);
    std::vector<Imf::Rgba> rgba(w);
    for (int y = dw.min.y; y <= dw.max.y; ++y) {
        // A row stride of 0 puts every scan line into the one row buffer.
        file.setFrameBuffer(rgba.data() - dw.min.x, 1, 0);
        file.readPixels(y);
        for (size_t x = 0; x < w; ++x) {
            row[x * c] = rgba[x].r;
            row[x * c + 1] = rgba[x].g;
            row[x * c + 2] = rgba[x].b;
            if (c == 4) row[x * c + 3] = rgba[x].a;
        }
        KELVO_TRY(put(y - dw.min.y));
    }
    return OK();
}

Result<ImageInfo> ReadExrInfo(const std::filesystem::path& path, const std::string& url) {
    try {
        Imf::InputFile file(path.c_str());
        const Imath::Box2i dw = file.header().dataWindow();
        const int64_t w = int64_t(dw.max.x) - dw.min.x + 1, h = int64_t(dw.max.y) - dw.min.y + 1;
        KELVO_TRY(CheckPictureSize("OpenEXR", url, w, h));
        KELVO_ASSIGN_OR_RETURN(ExrChannels channels, PickChannels(file.header().channels(), url));
        ImageInfo out;
        out.width = w;
        out.height = h;
        out.layers.push_back({FormatOf(channels), COLORPROFILE::LINEAR});
        return out;
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    } catch (const std::exception& e) {
        return IoError(KELVO_HERE, url, "Cannot read OpenEXR @: @", url, e.what());
    }
}

Result<StrongRef<ImageInterface>> ReadExr(const std::filesystem::path& path,
                                          const std::string& url) {
    try {
        Imf::InputFile file(path.c_str());
        const Imath::Box2i dw = file.header().dataWindow();
        const int64_t w = int64_t(dw.max.x) - dw.min.x + 1, h = int64_t(dw.max.y) - dw.min.y + 1;
        KELVO_TRY(CheckPictureSize("OpenEXR", url, w, h));
        KELVO_ASSIGN_OR_RETURN(ExrChannels channels, PickChannels(file.header().channels(), url));
        const PixelFormat format = FormatOf(channels);
        const size_t c = channels.names.size(), pixelCount = size_t(w) * size_t(h);
        PixelBudget budget("OpenEXR", url);
        KELVO_TRY(budget.Take(uint64_t(pixelCount) * format.GetBytesPerPixel()));
        // Row by row into the layer: the picture is held once, not decoded and then copied.
        KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(w, h, format, COLORPROFILE::LINEAR));
        KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, COLORPROFILE::LINEAR));
        std::vector<float> row(size_t(w) * c), wide(format.channels != c ? size_t(w) * 4 : 0);
        auto put = [&](int64_t y) -> Result<void> {
            if (wide.empty()) return writer->SetPixels(0, y, w, row.data());
            // Grey and alpha were read side by side: widened to RGBA.
            for (size_t x = 0; x < size_t(w); ++x) {
                wide[4 * x] = wide[4 * x + 1] = wide[4 * x + 2] = row[2 * x];
                wide[4 * x + 3] = row[2 * x + 1];
            }
            return writer->SetPixels(0, y, w, wide.data());
        };
        if (channels.luminanceChroma) {
            KELVO_TRY(ReadLuminanceChroma(path, row, c, put));
        } else {
            Imf::FrameBuffer fb;
            // A row stride of 0 puts every scan line into the one row buffer.
            char* base = reinterpret_cast<char*>(row.data() - ptrdiff_t(dw.min.x) * ptrdiff_t(c));
            for (size_t k = 0; k < c; ++k) {
                const std::string& name = channels.names[k];
                fb.insert(name, Imf::Slice(Imf::FLOAT, base + k * sizeof(float), sizeof(float) * c,
                                           0, 1, 1, name == "A" ? 1.0 : 0.0));
            }
            file.setFrameBuffer(fb);
            for (int y = dw.min.y; y <= dw.max.y; ++y) {
                file.readPixels(y);
                KELVO_TRY(put(y - dw.min.y));
            }
        }
        KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(w, h));
        KELVO_TRY(image->AddLayer(layer));
        return image;
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    } catch (const std::exception& e) {
        return IoError(KELVO_HERE, url, "Cannot read OpenEXR @: @", url, e.what());
    }
}

// A file written through stdio that keeps its first failure. The library writes the line
// offset table and flushes in destructors that swallow errors (a full disk then left an
// empty file and no word): the writer checks Finish() after the library is done.
class CheckedOStream final : public Imf::OStream {
public:
    explicit CheckedOStream(const std::filesystem::path& path)
        : Imf::OStream(path.c_str()), _file(std::fopen(path.c_str(), "wb")) {
        if (!_file) _error = errno ? errno : EIO;
    }
    CheckedOStream(const CheckedOStream&) = delete;
    CheckedOStream& operator=(const CheckedOStream&) = delete;
    ~CheckedOStream() override {
        if (_file) std::fclose(_file);
    }

    void write(const char c[], int n) override {
        if (!_error && std::fwrite(c, 1, size_t(n), _file) != size_t(n)) Fail();
        Check();
    }
    // Never throws: the library asks for the position outside its guard in a destructor.
    uint64_t tellp() override {
        const off_t at = ::ftello(_file);
        if (at >= 0) return uint64_t(at);
        Fail();
        return 0;
    }
    void seekp(uint64_t pos) override {
        Check();
        if (::fseeko(_file, off_t(pos), SEEK_SET) != 0) Fail();
        Check();
    }

    // Flushes and closes the file; the first error of the whole write, 0 when none.
    int Finish() {
        if (_file) {
            if (std::fflush(_file) != 0) Fail();
            if (std::fclose(_file) != 0) Fail();
            _file = nullptr;
        }
        return _error;
    }
    int Failure() const { return _error; }

private:
    void Fail() {
        if (!_error) _error = errno ? errno : EIO;
    }
    void Check() const {
        if (_error) throw std::runtime_error(std::strerror(_error));
    }

    std::FILE* _file;
    int _error = 0;
};

// Layer 0 in linear light, as 32-bit floats, or 16-bit halves with kExportOptionHalf
// (values beyond the half range saturate at +-65504 rather than becoming infinite). Written
// one scan line at a time: the writer holds a row, not a second copy of the picture.
Result<void> WriteExr(const std::filesystem::path& path, const std::string& url,
                      const ImageInterface& image, const DataDictionary& options) {
    if (image.GetLayerCount() > 1)
        DiagnosticWarning("OpenEXR keeps only the first of @ layers of @.", image.GetLayerCount(),
                          url);
    StrongRef<ImageLayerInterface> layer = image.GetLayer(0);
    const bool half = options.Get<bool>(kExportOptionHalf, false);
    const uint8_t c = layer->GetPixelFormat().channels;
    const int64_t w = layer->GetWidth(), h = layer->GetHeight();
    LayerRowReader rows;
    KELVO_TRY(rows.Open(image, 0, PixelFormat{c, CHANNELTYPE::FLOAT32}, COLORPROFILE::LINEAR));

    static const char* const kGrey[] = {"Y"};
    static const char* const kColour[] = {"R", "G", "B", "A"};
    const char* const* names = c == 1 ? kGrey : kColour;
    try {
        const size_t n = size_t(w) * c;
        std::vector<float> floats(n);
        std::vector<Imath::half> halves(half ? n : 0);
        Imf::Header header{int(w), int(h)};
        header.compression() = Imf::ZIP_COMPRESSION;
        Imf::FrameBuffer fb;
        const Imf::PixelType type = half ? Imf::HALF : Imf::FLOAT;
        const size_t size = half ? sizeof(Imath::half) : sizeof(float);
        char* base =
            half ? reinterpret_cast<char*>(halves.data()) : reinterpret_cast<char*>(floats.data());
        // A row stride of 0: every scan line is taken from the one row buffer.
        for (uint8_t k = 0; k < c; ++k) {
            header.channels().insert(names[k], Imf::Channel(type));
            fb.insert(names[k], Imf::Slice(type, base + k * size, size * c, 0));
        }
        CheckedOStream stream(path);
        if (stream.Failure())
            return IoError(KELVO_HERE, url, "Cannot write @: @.", url,
                           FileProblem(path, stream.Failure()));
        try {
            Imf::OutputFile file(stream, header);
            file.setFrameBuffer(fb);
            constexpr float kHalfMax = 65504.0f;
            for (int64_t y = 0; y < h; ++y) {
                KELVO_TRY(rows.Read(y, floats.data()));
                for (size_t i = 0; i < halves.size(); ++i)
                    halves[i] = Imath::half(std::isnan(floats[i])
                                                ? floats[i]
                                                : std::clamp(floats[i], -kHalfMax, kHalfMax));
                file.writePixels(1);
            }
        } catch (const std::exception&) {
            if (!stream.Finish()) throw;  // not a failed write: the library's own message
        }
        if (int error = stream.Finish())
            return IoError(KELVO_HERE, url, "Cannot write OpenEXR @: @.", url,
                           FileProblem(path, error));
        return OK();
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    } catch (const std::exception& e) {
        return IoError(KELVO_HERE, url, "Cannot write OpenEXR @: @", url, e.what());
    }
}

bool DetectExr(const uint8_t* head, size_t size) {
    return size >= 4 && head[0] == 0x76 && head[1] == 0x2f && head[2] == 0x31 && head[3] == 0x01;
}

}  // namespace

const HostFileFormat kExrFormat{"OpenEXR",
                                "net.kelvo.fileformat.imageexr",
                                "net.kelvo.fileformathandler.imageloaderexr",
                                "net.kelvo.mediasession.exr.import",
                                "net.kelvo.mediasession.exr.export",
                                {"exr", nullptr, nullptr},
                                &DetectExr,
                                &ReadExr,
                                &ReadExrInfo,
                                &WriteExr};

}  // namespace kelvo::host::detail
