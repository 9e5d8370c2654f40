// TIFF through libtiff. Every directory (page) of the picture's size becomes a layer.
// Strips of grey, RGB and RGBA in 8 or 16 bits or 32-bit floats are read as they are;
// any other layout (palettes, YCbCr, tiles, separate planes, odd depths) is read through
// libtiff's RGBA reader in 8 bits.
#include <tiffio.h>

#include <cerrno>
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
    // What libtiff leaves unsaid is mostly a file cut short: a header whose directory is
    // missing or truncated fails without a message of its own.
    t_tiffError = "no readable picture directory (the file is cut short or damaged)";
}

struct TiffCloser {
    TIFF* tif;
    ~TiffCloser() {
        if (tif) TIFFClose(tif);
    }
};

// The fields of the current directory (page) that decide how it is read.
struct TiffPage {
    uint32_t w = 0, h = 0;
    uint16_t spp = 1, bps = 1, sampleFormat = SAMPLEFORMAT_UINT, planar = PLANARCONFIG_CONTIG,
             photometric = PHOTOMETRIC_MINISBLACK;
    bool direct = false;  // strips of a layout kept as it is; otherwise the RGBA reader
    CHANNELTYPE type = CHANNELTYPE::UINT8;
    PixelFormat Format() const {
        // Grey with alpha has no pixel format of its own: it is widened to RGBA.
        return direct ? PixelFormat{uint8_t(spp == 2 ? 4 : spp), type} : kPixelRgba8;
    }
    COLORPROFILE Profile() const {
        return direct && type == CHANNELTYPE::FLOAT32 ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    }
    // What reading the page takes: its pixels, and a raster of the same size first when
    // the RGBA reader is used.
    uint64_t Bytes() const {
        uint64_t n = uint64_t(w) * h * Format().GetBytesPerPixel();
        return direct ? n : 2 * n;
    }
};

Result<TiffPage> ReadPageHeader(TIFF* tif, const std::string& url) {
    TiffPage p;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &p.w);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &p.h);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &p.spp);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &p.bps);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &p.sampleFormat);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &p.planar);
    TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &p.photometric);
    KELVO_TRY(CheckPictureSize("TIFF", url, p.w, p.h));
    p.direct = p.planar == PLANARCONFIG_CONTIG && !TIFFIsTiled(tif) && p.spp >= 1 && p.spp <= 4;
    if (p.bps == 8 && p.sampleFormat == SAMPLEFORMAT_UINT)
        p.type = CHANNELTYPE::UINT8;
    else if (p.bps == 16 && p.sampleFormat == SAMPLEFORMAT_UINT)
        p.type = CHANNELTYPE::UINT16;
    else if (p.bps == 32 && p.sampleFormat == SAMPLEFORMAT_IEEEFP)
        p.type = CHANNELTYPE::FLOAT32;
    else
        p.direct = false;
    if (p.spp <= 2 && p.photometric != PHOTOMETRIC_MINISBLACK) p.direct = false;
    if (p.spp >= 3 && p.photometric != PHOTOMETRIC_RGB) p.direct = false;
    return p;
}

// The current directory as a layer.
Result<StrongRef<ImageLayerInterface>> ReadPage(TIFF* tif, const TiffPage& p,
                                                const std::string& url) {
    const uint32_t w = p.w, h = p.h;
    if (!p.direct) {
        std::vector<uint32_t> raster(size_t(w) * h);
        if (!TIFFReadRGBAImageOriented(tif, w, h, raster.data(), ORIENTATION_TOPLEFT, 0))
            return IoError(KELVO_HERE, url, "Cannot read TIFF @: @.", url, t_tiffError);
        std::vector<uint8_t> rgba(raster.size() * 4);
        for (size_t i = 0; i < raster.size(); ++i) {
            rgba[4 * i] = uint8_t(TIFFGetR(raster[i]));
            rgba[4 * i + 1] = uint8_t(TIFFGetG(raster[i]));
            rgba[4 * i + 2] = uint8_t(TIFFGetB(raster[i]));
            rgba[4 * i + 3] = uint8_t(TIFFGetA(raster[i]));
        }
        return LayerFromPixels(w, h, kPixelRgba8, COLORPROFILE::SRGB, rgba.data());
    }

    PixelFormat file = p.Format();
    const size_t sample = size_t(p.bps / 8), rowBytes = size_t(w) * file.GetBytesPerPixel();
    std::vector<uint8_t> line(size_t(TIFFScanlineSize(tif)) + sample * p.spp);
    std::vector<uint8_t> pixels;
    for (uint32_t y = 0; y < h; ++y) {
        if (TIFFReadScanline(tif, line.data(), y, 0) < 0)
            return IoError(KELVO_HERE, url, "Cannot read TIFF @: @.", url, t_tiffError);
        // Rows are kept as they arrive, so a short file never costs the full picture.
        pixels.resize(pixels.size() + rowBytes);
        uint8_t* out = pixels.data() + size_t(y) * rowBytes;
        if (p.spp != 2) {
            std::memcpy(out, line.data(), rowBytes);
            continue;
        }
        for (uint32_t x = 0; x < w; ++x) {
            const uint8_t* g = line.data() + size_t(x) * 2 * sample;
            uint8_t* o = out + size_t(x) * 4 * sample;
            for (int c = 0; c < 3; ++c) std::memcpy(o + c * sample, g, sample);
            std::memcpy(o + 3 * sample, g + sample, sample);
        }
    }
    return LayerFromPixels(w, h, file, p.Profile(), pixels.data());
}

// Opens the file and reads every directory's header. Pages of another size than the first
// are skipped (with a warning when reading pixels); the pages kept must fit the budget
// together before any pixel is read.
Result<void> ReadPageHeaders(const std::filesystem::path& path, const std::string& url,
                             TiffCloser& tif, std::vector<TiffPage>& pages, bool warn) {
    InstallHandlers();
    errno = 0;
    tif.tif = TIFFOpen(path.c_str(), "r");
    if (!tif.tif) {
        std::string why = errno ? FileProblem(path, errno) : t_tiffError;
        return IoError(KELVO_HERE, url, "Cannot read TIFF @: @.", url, why);
    }
    PixelBudget budget("TIFF", url);
    do {
        KELVO_ASSIGN_OR_RETURN(TiffPage page, ReadPageHeader(tif.tif, url));
        if (!pages.empty() && (page.w != pages[0].w || page.h != pages[0].h)) {
            if (warn)
                DiagnosticWarning("Skipped a page of @ x @ in @ (the picture is @ x @).", page.w,
                                  page.h, url, pages[0].w, pages[0].h);
            page.w = 0;  // skipped
        } else {
            KELVO_TRY(budget.Take(page.Bytes()));
        }
        pages.push_back(page);
    } while (TIFFReadDirectory(tif.tif));
    return OK();
}

Result<ImageInfo> ReadTiffInfo(const std::filesystem::path& path, const std::string& url) {
    TiffCloser tif{nullptr};
    std::vector<TiffPage> pages;
    KELVO_TRY(ReadPageHeaders(path, url, tif, pages, false));
    ImageInfo out;
    out.width = pages[0].w;
    out.height = pages[0].h;
    for (const TiffPage& p : pages)
        if (p.w) out.layers.push_back({p.Format(), p.Profile()});
    return out;
}

Result<StrongRef<ImageInterface>> ReadTiff(const std::filesystem::path& path,
                                           const std::string& url) {
    TiffCloser tif{nullptr};
    std::vector<TiffPage> pages;
    KELVO_TRY(ReadPageHeaders(path, url, tif, pages, true));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, CreateImage(pages[0].w, pages[0].h));
    for (size_t i = 0; i < pages.size(); ++i) {
        if (!pages[i].w) continue;
        if (!TIFFSetDirectory(tif.tif, tdir_t(i)))
            return IoError(KELVO_HERE, url, "Cannot read TIFF @: @.", url, t_tiffError);
        KELVO_ASSIGN_OR_RETURN(StrongRef<ImageLayerInterface> layer,
                               ReadPage(tif.tif, pages[i], url));
        KELVO_TRY(image->AddLayer(layer));
    }
    return image;
}

// libtiff words a full disk as a failed write at some offset; the system error says why.
Error WriteFailure(const std::filesystem::path& path, const std::string& url) {
    std::string why = errno ? FileProblem(path, errno) : t_tiffError;
    return IoError(KELVO_HERE, url, "Cannot write TIFF @: @.", url, why);
}

// Every layer becomes a page in its own format (deflate-compressed strips). The profile is
// not recorded: readers take integer samples as sRGB and floats as linear, so layers are
// converted to that first.
Result<void> WriteTiff(const std::filesystem::path& path, const std::string& url,
                       const ImageInterface& image, const DataDictionary&) {
    InstallHandlers();
    errno = 0;
    TiffCloser tif{TIFFOpen(path.c_str(), "w")};
    if (!tif.tif) {
        std::string why = errno ? FileProblem(path, errno) : t_tiffError;
        return IoError(KELVO_HERE, url, "Cannot write TIFF @: @.", url, why);
    }
    for (int64_t i = 0; i < image.GetLayerCount(); ++i) {
        StrongRef<ImageLayerInterface> layer = image.GetLayer(i);
        PixelFormat format = layer->GetPixelFormat();
        COLORPROFILE profile = format.IsFloat() ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
        // Row by row: the writer holds one row, not a second copy of the picture.
        LayerRowReader rows;
        KELVO_TRY(rows.Open(image, i, format, profile));
        std::vector<uint8_t> line(size_t(rows.Width()) * format.GetBytesPerPixel());
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
        errno = 0;
        for (uint32_t y = 0; y < h; ++y) {
            KELVO_TRY(rows.Read(y, line.data()));
            if (TIFFWriteScanline(tif.tif, line.data(), y, 0) < 0) return WriteFailure(path, url);
        }
        if (!TIFFWriteDirectory(tif.tif)) return WriteFailure(path, url);
    }
    errno = 0;
    if (!TIFFFlush(tif.tif)) return WriteFailure(path, url);
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
                                 &ReadTiffInfo,
                                 &WriteTiff};

}  // namespace kelvo::host::detail
