// PNG through libpng. libpng reports errors by longjmp, so the functions that call it
// keep only trivially destructible locals; buffers are owned by their callers.
#include <png.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstring>
#include <vector>

#include "imagefiles.h"
#include "kelvo/diagnostics.h"
#include "kelvo/mediasession_output.h"

namespace kelvo::host::detail {
namespace {

struct PngMessage {
    char text[256];
};

void OnPngError(png_structp png, png_const_charp message) {
    auto* m = static_cast<PngMessage*>(png_get_error_ptr(png));
    std::snprintf(m->text, sizeof m->text, "%s", message ? message : "unknown reason");
    png_longjmp(png, 1);
}
void OnPngWarning(png_structp, png_const_charp) {}

struct PngHeader {
    uint32_t width, height;
    int channels, depth;
    bool linear;
};

// Opens the file and reads its header, setting up the transforms to grey, RGB or RGBA
// in 8 or 16 bits, native byte order.
bool ReadPngHeader(png_structp png, png_infop info, std::FILE* file, PngHeader* out) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    png_read_info(png, info);
    int type = png_get_color_type(png, info);
    int depth = png_get_bit_depth(png, info);
    if (type == PNG_COLOR_TYPE_PALETTE) png_set_palette_to_rgb(png);
    if (type == PNG_COLOR_TYPE_GRAY && depth < 8) png_set_expand_gray_1_2_4_to_8(png);
    bool alpha = (type & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, info, PNG_INFO_tRNS);
    if (png_get_valid(png, info, PNG_INFO_tRNS)) png_set_tRNS_to_alpha(png);
    bool grey = !(type & PNG_COLOR_MASK_COLOR) && type != PNG_COLOR_TYPE_PALETTE;
    if (grey && alpha) png_set_gray_to_rgb(png);  // grey + alpha becomes RGBA
    if (depth == 16) png_set_swap(png);
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    double gamma = 0;
    out->linear = png_get_gAMA(png, info, &gamma) && gamma > 0.9 && gamma < 1.1 &&
                  !png_get_valid(png, info, PNG_INFO_sRGB);
    out->width = png_get_image_width(png, info);
    out->height = png_get_image_height(png, info);
    out->channels = png_get_channels(png, info);
    out->depth = png_get_bit_depth(png, info);
    return true;
}

bool ReadPngRow(png_structp png, png_bytep row) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_row(png, row, nullptr);
    return true;
}

bool ReadPngImage(png_structp png, png_bytep* rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_image(png, rows);
    return true;
}

bool ReadPngEnd(png_structp png, png_infop info) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_end(png, info);
    return true;
}

// An open PNG with its header read.
struct PngReader {
    std::FILE* file = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    PngMessage message{"unknown reason"};
    PngHeader header{};
    ~PngReader() {
        if (png) png_destroy_read_struct(&png, info ? &info : nullptr, nullptr);
        if (file) std::fclose(file);
    }
};

// libpng says "Read Error" for both a short file and a failing read: say which.
std::string ReadProblem(const std::filesystem::path& path, const PngReader& r) {
    if (std::strcmp(r.message.text, "Read Error") != 0) return r.message.text;
    if (std::ferror(r.file)) return FileProblem(path, errno);
    return "the file ends early";
}

// libpng takes a chunk's buffer whole before reading it, and only warns about lengths
// beyond its limits: a 2 GiB length in a tiny file would be allocated. Every chunk must
// fit in what is left of the file, checked before libpng sees it.
Result<void> CheckChunkLengths(std::FILE* file, const std::string& url) {
    if (std::fseek(file, 0, SEEK_END) != 0) return OK();
    const long size = std::ftell(file);
    long at = 8;
    // A chunk's length and type are enough to be checked, even with its CRC cut off.
    while (at + 8 <= size && std::fseek(file, at, SEEK_SET) == 0) {
        unsigned char head[8];
        if (std::fread(head, 1, 8, file) != 8) break;
        const uint32_t length =
            uint32_t(head[0]) << 24 | uint32_t(head[1]) << 16 | uint32_t(head[2]) << 8 | head[3];
        const std::string type(reinterpret_cast<const char*>(head + 4), 4);
        if (uint64_t(length) + 12 > uint64_t(size - at))
            return IoError(
                KELVO_HERE, url,
                "Cannot read PNG @: the file ends early (chunk @ claims @ bytes, @ remain).", url,
                type, length, size - at - 8);
        if (type == "IEND") break;
        at += long(length) + 12;
    }
    std::rewind(file);
    return OK();
}

Result<void> OpenPng(const std::filesystem::path& path, const std::string& url, PngReader& r) {
    errno = 0;
    r.file = std::fopen(path.c_str(), "rb");
    if (!r.file)
        return IoError(KELVO_HERE, url, "Cannot open @: @.", url, FileProblem(path, errno));
    KELVO_TRY(CheckChunkLengths(r.file, url));
    r.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &r.message, &OnPngError, &OnPngWarning);
    r.info = r.png ? png_create_info_struct(r.png) : nullptr;
    if (!r.info) return Error::OutOfMemory();
    png_set_user_limits(r.png, 1u << 24, 1u << 24);
    // No chunk can hold more than the file or the pixel budget, so a chunk length that
    // claims more is refused before its buffer is taken.
    uint64_t limit = MaxImageBytes();
    std::error_code ec;
    uint64_t fileSize = std::filesystem::file_size(path, ec);
    if (!ec && fileSize < limit) limit = fileSize;
    png_set_chunk_malloc_max(r.png, png_alloc_size_t(std::max<uint64_t>(limit, 1)));
    if (!ReadPngHeader(r.png, r.info, r.file, &r.header))
        return IoError(KELVO_HERE, url, "Cannot read PNG @: @.", url, ReadProblem(path, r));
    KELVO_TRY(CheckPictureSize("PNG", url, r.header.width, r.header.height));
    if (r.header.channels == 2 || r.header.channels > 4 ||
        (r.header.depth != 8 && r.header.depth != 16))
        return UnsupportedArgumentError(KELVO_HERE, "Unsupported PNG layout in @.", url);
    return OK();
}

PixelFormat FormatOf(const PngHeader& h) {
    return {uint8_t(h.channels), h.depth == 16 ? CHANNELTYPE::UINT16 : CHANNELTYPE::UINT8};
}

Result<ImageInfo> ReadPngInfo(const std::filesystem::path& path, const std::string& url) {
    PngReader r;
    KELVO_TRY(OpenPng(path, url, r));
    ImageInfo out;
    out.width = r.header.width;
    out.height = r.header.height;
    out.layers.push_back(
        {FormatOf(r.header), r.header.linear ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB});
    return out;
}

Result<StrongRef<ImageInterface>> ReadPng(const std::filesystem::path& path,
                                          const std::string& url) {
    PngReader r;
    KELVO_TRY(OpenPng(path, url, r));
    const PngHeader& h = r.header;
    PixelFormat format = FormatOf(h);
    const size_t rowBytes = size_t(h.width) * format.GetBytesPerPixel();
    PixelBudget budget("PNG", url);
    KELVO_TRY(budget.Take(uint64_t(rowBytes) * h.height));
    std::vector<uint8_t> pixels;
    // Rows are kept as they arrive, in bands, so a truncated file never costs the full picture
    // and no growing buffer is copied (a doubling vector took up to three times the picture).
    constexpr uint32_t kBandRows = 64;
    std::vector<std::vector<uint8_t>> bands;
    if (png_get_interlace_type(r.png, r.info) == PNG_INTERLACE_NONE) {
        for (uint32_t y = 0; y < h.height; ++y) {
            if (y % kBandRows == 0)
                bands.emplace_back(rowBytes * std::min<size_t>(kBandRows, h.height - y));
            if (!ReadPngRow(r.png, bands.back().data() + rowBytes * (y % kBandRows)))
                return IoError(KELVO_HERE, url, "Cannot read PNG @: @.", url, ReadProblem(path, r));
        }
    } else {
        // Interlaced passes revisit every row: the whole picture is needed at once.
        pixels.resize(rowBytes * h.height);
        std::vector<png_bytep> rows(h.height);
        for (uint32_t y = 0; y < h.height; ++y) rows[y] = pixels.data() + rowBytes * y;
        if (!ReadPngImage(r.png, rows.data()))
            return IoError(KELVO_HERE, url, "Cannot read PNG @: @.", url, ReadProblem(path, r));
    }
    if (!ReadPngEnd(r.png, r.info))
        return IoError(KELVO_HERE, url, "Cannot read PNG @: @.", url, ReadProblem(path, r));
    COLORPROFILE profile = h.linear ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    if (bands.empty()) {
        bands.push_back(std::move(pixels));  // interlaced: one band of every row
    }
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(h.width, h.height, format, profile));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, profile));
    uint32_t y = 0;
    for (std::vector<uint8_t>& band : bands) {
        for (size_t at = 0; at < band.size(); at += rowBytes)
            KELVO_TRY(writer->SetPixels(0, y++, h.width, band.data() + at));
        std::vector<uint8_t>().swap(band);  // its memory goes back as the layer fills
    }
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(h.width, h.height));
    KELVO_TRY(image->AddLayer(layer));
    return image;
}

bool WritePngRows(png_structp png, png_infop info, std::FILE* file, const PngHeader* h,
                  png_bytep* rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_init_io(png, file);
    int type = h->channels == 1   ? PNG_COLOR_TYPE_GRAY
               : h->channels == 3 ? PNG_COLOR_TYPE_RGB
                                  : PNG_COLOR_TYPE_RGB_ALPHA;
    png_set_IHDR(png, info, h->width, h->height, h->depth, type, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (h->linear)
        png_set_gAMA(png, info, 1.0);
    else
        png_set_sRGB(png, info, PNG_sRGB_INTENT_PERCEPTUAL);
    png_write_info(png, info);
    if (h->depth == 16) png_set_swap(png);
    png_write_image(png, rows);
    png_write_end(png, info);
    return true;
}

// 8-bit layers stay 8-bit; 16-bit and floating-point layers are written in 16 bits (values
// outside 0..1 are clamped). The colour profile is kept (sRGB chunk, or gamma 1).
Result<void> WritePng(const std::filesystem::path& path, const std::string& url,
                      const ImageInterface& image, const DataDictionary&) {
    if (image.GetLayerCount() > 1)
        DiagnosticWarning("PNG keeps only the first of @ layers of @.", image.GetLayerCount(), url);
    StrongRef<ImageLayerInterface> layer = image.GetLayer(0);
    PixelFormat source = layer->GetPixelFormat();
    PixelFormat format{source.channels, source.type == CHANNELTYPE::UINT8 ? CHANNELTYPE::UINT8
                                                                          : CHANNELTYPE::UINT16};
    COLORPROFILE profile = layer->GetColorProfile();
    std::vector<uint8_t> pixels;
    KELVO_TRY(ReadLayerRows(image, 0, format, profile, pixels));
    PngHeader h{uint32_t(layer->GetWidth()), uint32_t(layer->GetHeight()), format.channels,
                format.GetBitsPerChannel(), profile == COLORPROFILE::LINEAR};
    const size_t rowBytes = size_t(h.width) * format.GetBytesPerPixel();
    std::vector<png_bytep> rows(h.height);
    for (uint32_t y = 0; y < h.height; ++y) rows[y] = pixels.data() + rowBytes * y;

    errno = 0;
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return IoError(KELVO_HERE, url, "Cannot write @: @.", url, FileProblem(path, errno));
    PngMessage message{"unknown reason"};
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, &OnPngError, &OnPngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    errno = 0;
    bool ok = info && WritePngRows(png, info, file, &h, rows.data());
    png_destroy_write_struct(&png, &info);
    // libpng says only "Write Error": the stream knows why (a full disk, most often).
    int error = std::ferror(file) ? (errno ? errno : EIO) : 0;
    if (std::fflush(file) != 0 && !error) error = errno;
    if (std::fclose(file) != 0 && !error) error = errno;
    if (error)
        return IoError(KELVO_HERE, url, "Cannot write PNG @: @.", url, FileProblem(path, error));
    if (!ok) return IoError(KELVO_HERE, url, "Cannot write PNG @: @.", url, message.text);
    return OK();
}

bool DetectPng(const uint8_t* head, size_t size) {
    static const uint8_t kSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
    return size >= 8 && std::memcmp(head, kSignature, 8) == 0;
}

}  // namespace

const HostFileFormat kPngFormat{"PNG",
                                "net.kelvo.fileformat.imagepng",
                                "net.kelvo.fileformathandler.imageloaderpng",
                                "net.kelvo.mediasession.png.import",
                                "net.kelvo.mediasession.png.export",
                                {"png", nullptr, nullptr},
                                &DetectPng,
                                &ReadPng,
                                &ReadPngInfo,
                                &WritePng};

}  // namespace kelvo::host::detail
