// Fuzzes the picture import through the file-format registry (PNG, TIFF, OpenEXR and
// whatever else a format detects): detection, the header-only size read and the full
// import. Any input may be refused; none may crash, hang, leak, read out of bounds or
// allocate beyond the byte limit, and a picture that imports must agree with its header
// and hand out every row of every layer.
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "host.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/mediasession_output.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "image_fuzzer: %s\n", what);
    std::abort();
}

// The suffix a real file of the input's kind would have (formats may look at it).
const char* Suffix(const std::string& bytes) {
    if (bytes.rfind("\x89PNG", 0) == 0) return ".png";
    if (bytes.rfind("II*", 0) == 0 || bytes.rfind("MM", 0) == 0) return ".tif";
    if (bytes.rfind("v/1\x01", 0) == 0) return ".exr";
    if (bytes.rfind("IES", 0) == 0) return ".ies";
    return ".img";
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    auto module = kelvo::host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) Fail("cannot attach the render module");
    // 64 MiB of pixels at most, so that a declared size is refused long before the fuzzer's
    // own memory limit.
    if (!kelvo::host::ConfigSet("g_maxImageBytes", "67108864")) Fail("cannot set the limit");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelvo;
    std::string bytes(reinterpret_cast<const char*>(data), size);
    static const std::string base = "/tmp/kelvo_image_fuzz_" + std::to_string(::getpid());
    static std::vector<std::string> written;
    static const struct Cleanup {
        ~Cleanup() {
            for (const std::string& p : written) std::remove(p.c_str());
        }
    } cleanup;
    const std::string path = base + Suffix(bytes);
    if (std::find(written.begin(), written.end(), path) == written.end()) written.push_back(path);
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), std::streamsize(bytes.size()));
    const Url url = Url::FromFile(path);

    Result<ImageInfo> info = ReadImageInfo(url);
    Result<StrongRef<ImageInterface>> image = ImportImage(url);
    if (!image) return 0;
    // What imports has a size its header gave, and every row of every layer reads.
    if (!info) Fail("a picture imports but its header does not read");
    const ImageInterface& picture = **image;
    if (info->width != picture.GetWidth() || info->height != picture.GetHeight())
        Fail("header size differs from the imported picture");
    for (int64_t l = 0; l < picture.GetLayerCount(); ++l) {
        StrongRef<ImageLayerInterface> layer = picture.GetLayer(l);
        if (!layer) Fail("a counted layer is missing");
        auto pixels = layer->GetPixelHandler(layer->GetPixelFormat(), layer->GetColorProfile());
        if (!pixels) continue;
        std::vector<unsigned char> row(size_t(layer->GetWidth()) *
                                       layer->GetPixelFormat().GetBytesPerPixel());
        for (int64_t y = 0; y < layer->GetHeight(); ++y)
            if (!(*pixels)->GetPixels(0, y, layer->GetWidth(), row.data()))
                Fail("a row of an imported layer does not read");
    }
    return 0;
}
