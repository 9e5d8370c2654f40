// TIFF through libtiff. Every directory (page) of the picture's size becomes a layer.
// Strips of grey, RGB and RGBA in 8 or 16 bits or 32-bit floats are read as they are;
// any other layout (palettes, YCbCr, tiles, separate planes, odd depths) is read through
// libtiff's RGBA reader in 8 bits.
#include <tiffio.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "imagefiles.h"
#include "kelvo/diagnostics.h"
#include "kelvo/mediasession_output.h"

namespace kelvo::host::detail {
namespace {

thread_local std::string t_tiffError;

void OnTiffError(const char* module, const char* fmt, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, fmt, args);
    t_tiffError = module ? std::string(module) + ": " + text : text;
}
void OnTiffWarning(const char*, const char*, va_list) {}

void InstallHandlers() {
    static const bool once = [] {
        TIFFSetErrorHandler(&OnTiffError);
        TIFFSetWarningHandler(&OnTiffWarning);
        return true;
    }();
    (void)once;
    t_tiffError = "unknown error";
}

struct TiffCloser {
    TIFF* tif;
    ~TiffCloser() {
        if (tif) TIFFClose(tif);
    }
};

// The current directory (page) as a layer.
Result<StrongRef<ImageLayerInterface>> ReadDirectory(TIFF* tif, const std::string& url) {
    uint32_t w = 0, h = 0;
    uint16_t spp = 1, bps = 1, sampleFormat = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG,
             photometric = PHOTOMETRIC_MINISBLACK;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &w);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &h);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bps);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &sampleFormat);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric);
    KELVO_TRY(CheckPictureSize("TIFF", url, w, h));

    CHANNELTYPE type = CHANNELTYPE::UINT8;
    bool direct = planar == PLANARCONFIG_CONTIG && !TIFFIsTiled(tif) && spp >= 1 && spp <= 4;
    if (bps == 8 && sampleFormat == SAMPLEFORMAT_UINT)
        type = CHANNELTYPE::UINT8;
    else if (bps == 16 && sampleFormat == SAMPLEFORMAT_UINT)
        type = CHANNELTYPE::UINT16;
    else if (bps == 32 && sampleFormat == SAMPLEFORMAT_IEEEFP)
        type = CHANNELTYPE::FLOAT32;
    else
        direct = false;
    if (spp <= 2 && photometric != PHOTOMETRIC_MINISBLACK) direct = false;
    if (spp >= 3 && photometric != PHOTOMETRIC_RGB) direct = false;

    if (!direct) {
        std::vector<uint32_t> raster(size_t(w) * h);
        if (!TIFFReadRGBAImageOriented(tif, w, h, raster.data(), ORIENTATION_TOPLEFT, 0))
            return IoError(KELVO_HERE, url, "Cannot read TIFF @: @", url, t_tiffError);
        std::vector<uint8_t> rgba(raster.size() * 4);
        for (size_t i = 0; i < raster.size(); ++i) {
            rgba[4 * i] = uint8_t(TIFFGetR(raster[i]));
            rgba[4 * i + 1] = uint8_t(TIFFGetG(raster[i]));
            rgba[4 * i + 2] = uint8_t(TIFFGetB(raster[i]));
            rgba[4 * i + 3] = uint8_t(TIFFGetA(raster[i]));
        }
        return LayerFromPixels(w, h, kPixelRgba8, COLORPROFILE::SRGB, rgba.data());
    }

    // Grey with alpha has no pixel format of its own: it is widened to RGBA.
    PixelFormat file{uint8_t(spp == 2 ? 4 : spp), type};
    const size_t sample = size_t(bps / 8);
    std::vector<uint8_t> line(size_t(TIFFScanlineSize(tif)) + sample * spp);
    std::vector<uint8_t> pixels(size_t(w) * h * file.GetBytesPerPixel());
    for (uint32_t y = 0; y < h; ++y) {
        if (TIFFReadScanline(tif, line.data(), y, 0) < 0)
            return IoError(KELVO_HERE, url, "Cannot read TIFF @: @", url, t_tiffError);
        uint8_t* out = pixels.data() + size_t(y) * w * file.GetBytesPerPixel();
        if (spp != 2) {
            std::memcpy(out, line.data(), size_t(w) * file.GetBytesPerPixel());
            continue;
        }
        for (uint32_t x = 0; x < w; ++x) {
            const uint8_t* g = line.data() + size_t(x) * 2 * sample;
            uint8_t* o = out + size_t(x) * 4 * sample;
            for (int c = 0; c < 3; ++c) std::memcpy(o + c * sample, g, sample);
            std::memcpy(o + 3 * sample, g + sample, sample);
        }
    }
    COLORPROFILE profile = type == CHANNELTYPE::FLOAT32 ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    return LayerFromPixels(w, h, file, profile, pixels.data());
}

Result<StrongRef<ImageInterface>> ReadTiff(const std::filesystem::path& path,
                                           const std::string& url) {
    InstallHandlers();
    TiffCloser tif{TIFFOpen(path.c_str(), "r")};
    if (!tif.tif) return IoError(KELVO_HERE, url, "Cannot read TIFF @: @", url, t_tiffError);
    StrongRef<ImageInterface> image;
    do {
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageLayerInterface> layer, ReadDirectory(tif.tif, url));
        if (!image) {
            KELVO_ASSIGN_OR_RETURN(image, CreateImage(layer->GetWidth(), layer->GetHeight()));
        } else if (layer->GetWidth() != image->GetWidth() ||
                   layer->GetHeight() != image->GetHeight()) {
            DiagnosticWarning("Skipped a page of @ x @ in @ (the picture is @ x @).",
                              layer->GetWidth(), layer->GetHeight(), url, image->GetWidth(),
                              image->GetHeight());
            continue;
        }
        KELVO_TRY(image->AddLayer(layer));
    } while (TIFFReadDirectory(tif.tif));
    return image;
}

// Every layer becomes a page in its own format (deflate-compressed strips). The profile is
// not recorded: readers take integer samples as sRGB and floats as linear, so layers are
// converted to that first.
Result<void> WriteTiff(const std::filesystem::path& path, const std::string& url,
                       const ImageInterface& image, const DataDictionary&) {
    InstallHandlers();
    TiffCloser tif{TIFFOpen(path.c_str(), "w")};
    if (!tif.tif) return IoError(KELVO_HERE, url, "Cannot write TIFF @: @", url, t_tiffError);
    for (int64_t i = 0; i < image.GetLayerCount(); ++i) {
        StrongRef<ImageLayerInterface> layer = image.GetLayer(i);
        PixelFormat format = layer->GetPixelFormat();
        COLORPROFILE profile = format.IsFloat() ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
        std::vector<uint8_t> pixels;
        KELVO_TRY(ReadLayerRows(image, i, format, profile, pixels));
        const uint32_t w = uint32_t(layer->GetWidth()), h = uint32_t(layer->GetHeight());
        TIFFSetField(tif.tif, TIFFTAG_IMAGEWIDTH, w);
        TIFFSetField(tif.tif, TIFFTAG_IMAGELENGTH, h);
        TIFFSetField(tif.tif, TIFFTAG_SAMPLESPERPIXEL, uint16_t(format.channels));
        TIFFSetField(tif.tif, TIFFTAG_BITSPERSAMPLE, uint16_t(format.GetBitsPerChannel()));
        TIFFSetField(tif.tif, TIFFTAG_SAMPLEFORMAT,
                     uint16_t(format.IsFloat() ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT));
        TIFFSetField(tif.tif, TIFFTAG_PHOTOMETRIC,
                     uint16_t(format.channels == 1 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB));
        TIFFSetField(tif.tif, TIFFTAG_PLANARCONFIG, uint16_t(PLANARCONFIG_CONTIG));
        TIFFSetField(tif.tif, TIFFTAG_ORIENTATION, uint16_t(ORIENTATION_TOPLEFT));
        TIFFSetField(tif.tif, TIFFTAG_COMPRESSION, uint16_t(COMPRESSION_ADOBE_DEFLATE));
        if (format.HasAlpha()) {
            uint16_t extra = EXTRASAMPLE_UNASSALPHA;
            TIFFSetField(tif.tif, TIFFTAG_EXTRASAMPLES, uint16_t(1), &extra);
        }
        TIFFSetField(tif.tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif.tif, 0));
        const size_t row = size_t(w) * format.GetBytesPerPixel();
        for (uint32_t y = 0; y < h; ++y)
            if (TIFFWriteScanline(tif.tif, pixels.data() + row * y, y, 0) < 0)
                return IoError(KELVO_HERE, url, "Cannot write TIFF @: @", url, t_tiffError);
        if (!TIFFWriteDirectory(tif.tif))
            return IoError(KELVO_HERE, url, "Cannot write TIFF @: @", url, t_tiffError);
    }
    TIFF* done = tif.tif;
    tif.tif = nullptr;
    TIFFClose(done);
    return OK();
}

bool DetectTiff(const uint8_t* head, size_t size) {
    if (size < 4) return false;
    bool little =
        head[0] == 'I' && head[1] == 'I' && (head[2] == 42 || head[2] == 43) && head[3] == 0;
    bool big = head[0] == 'M' && head[1] == 'M' && head[2] == 0 && (head[3] == 42 || head[3] == 43);
    return little || big;
}

}  // namespace

const HostFileFormat kTiffFormat{"TIFF",
                                 "net.kelvo.fileformat.imagetiff",
                                 "net.kelvo.fileformathandler.imageloadertiff",
                                 "net.kelvo.mediasession.tiff.import",
                                 "net.kelvo.mediasession.tiff.export",
                                 {"tif", "tiff", nullptr},
                                 &DetectTiff,
                                 &ReadTiff,
                                 &WriteTiff};

}  // namespace kelvo::host::detail
