// PNG through libpng. libpng reports errors by longjmp, so the functions that call it
// keep only trivially destructible locals; buffers are owned by their callers.
#include <png.h>

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
    std::snprintf(m->text, sizeof m->text, "%s", message ? message : "unknown error");
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

bool ReadPngRows(png_structp png, png_infop info, png_bytep* rows) {
    if (setjmp(png_jmpbuf(png))) return false;
    png_read_image(png, rows);
    png_read_end(png, info);
    return true;
}

Result<StrongRef<ImageInterface>> ReadPng(const std::filesystem::path& path,
                                          const std::string& url) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return IoError(KELVO_HERE, url, "Cannot open @.", url);
    PngMessage message{"unknown error"};
    png_structp png =
        png_create_read_struct(PNG_LIBPNG_VER_STRING, &message, &OnPngError, &OnPngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    struct Closer {
        std::FILE* file;
        png_structp* png;
        png_infop* info;
        ~Closer() {
            png_destroy_read_struct(png, info, nullptr);
            std::fclose(file);
        }
    } closer{file, &png, &info};
    if (!info) return Error::OutOfMemory();
    // Refuse pictures whose pixels could not be held before reading them.
    png_set_user_limits(png, 1u << 24, 1u << 24);
    PngHeader h{};
    if (!ReadPngHeader(png, info, file, &h))
        return IoError(KELVO_HERE, url, "Cannot read PNG @: @", url, message.text);
    KELVO_TRY(CheckPictureSize("PNG", url, h.width, h.height));
    if (h.channels == 2 || h.channels > 4 || (h.depth != 8 && h.depth != 16))
        return UnsupportedArgumentError(KELVO_HERE, "Unsupported PNG layout in @.", url);
    PixelFormat format{uint8_t(h.channels),
                       h.depth == 16 ? CHANNELTYPE::UINT16 : CHANNELTYPE::UINT8};
    const size_t rowBytes = size_t(h.width) * format.GetBytesPerPixel();
    std::vector<uint8_t> pixels(rowBytes * h.height);
    std::vector<png_bytep> rows(h.height);
    for (uint32_t y = 0; y < h.height; ++y) rows[y] = pixels.data() + rowBytes * y;
    if (!ReadPngRows(png, info, rows.data()))
        return IoError(KELVO_HERE, url, "Cannot read PNG @: @", url, message.text);
    COLORPROFILE profile = h.linear ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    KELVO_ASSIGN_OR_RETURN(auto layer,
                           LayerFromPixels(h.width, h.height, format, profile, pixels.data()));
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

    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file) return IoError(KELVO_HERE, url, "Cannot write @.", url);
    PngMessage message{"unknown error"};
    png_structp png =
        png_create_write_struct(PNG_LIBPNG_VER_STRING, &message, &OnPngError, &OnPngWarning);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    bool ok = info && WritePngRows(png, info, file, &h, rows.data());
    png_destroy_write_struct(&png, &info);
    ok = std::fclose(file) == 0 && ok;
    if (!ok) return IoError(KELVO_HERE, url, "Cannot write PNG @: @", url, message.text);
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
                                &WritePng};

}  // namespace kelvo::host::detail
