// Fuzzes the IES parser (and through it the lexer), the evaluator, the writer and the
// detection of the IES image import. Any input may fail to parse; none may crash, hang,
// leak or read out of bounds, and whatever parses must survive a write and re-read.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "host.h"
#include "implementation/ies_impl.h"
#include "implementation/media_io_ies.h"
#include "kelvo/ies.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/memorystream.h"
#include "kelvo/registry.h"

namespace {

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "ies_fuzzer: %s\n", what);
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    auto module = kelvo::host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) Fail("cannot attach the render module");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kelvo;
    std::string bytes(reinterpret_cast<const char*>(data), size);

    // Detection looks at the first 1024 bytes only, and the file format reads them from
    // the file as the content test sees them.
    bool detected = detail::DetectIesContent(bytes);
    if (detected != detail::DetectIesContent(bytes.substr(0, detail::kIesDetectBytes)))
        Fail("detection read beyond its 1024 bytes");
    static const struct TempFile {
        std::string path = "/tmp/kelvo_ies_fuzz_" + std::to_string(::getpid()) + ".ies";
        ~TempFile() { std::remove(path.c_str()); }
    } temp;
    const std::string& path = temp.path;
    std::ofstream(path, std::ios::binary | std::ios::trunc)
        .write(bytes.data(), std::streamsize(bytes.size()));
    static auto format = CreateClass<FileFormatInterface>(Id("net.kelvo.fileformat.imageies"));
    if (!format) Fail("no IES file format");
    auto found = (*format)->Detect(Url::FromFile(path));
    if (!found || *found != detected) Fail("file format detection differs from the content test");

    // The stream hands the bytes out in pieces whose size the input picks, so that
    // tokens and CR LF pairs straddle reads.
    size_t piece = size > 0 ? 1 + data[size - 1] % 64 : 0;
    auto ies = CreateComponent<IesInterface>();
    auto stream = MemoryInputStream::Make(bytes, piece);
    if (!ies || !stream) Fail("cannot create a profile");
    if (!(*ies)->Init(*stream)) return 0;

    // Parsed: evaluation is finite and non-negative everywhere.
    const Vec3 directions[] = {{0, 0, -1}, {0, 0, 1},          {1, 0, 0}, {-1, 0, 0},
                               {0, 1, 0},  {0.3, -0.4, 0.866}, {0, 0, 0}, {-0.0, -1, 0}};
    for (const Vec3& d : directions) {
        double v = (*ies)->ComputeLightIntensity(d);
        if (!std::isfinite(v) || v < 0) Fail("intensity not finite or negative");
    }
    IesRawData raw = (*ies)->GetRawAccess();
    if (!(raw.dataPower > 0) || !std::isfinite(raw.dataPower))
        Fail("power not finite and positive");
    // Only ascending angles bound the cubic's overshoot: a file whose angles go back lets the
    // tangents grow without limit, and its power with them (a result of the file, not a fault).
    if (std::is_sorted(raw.anglesVertical.begin(), raw.anglesVertical.end()) &&
        std::is_sorted(raw.anglesHorizontal.begin(), raw.anglesHorizontal.end()) &&
        !(raw.dataPower <= 12.566370614359172 * 1.5))
        Fail("power out of range");

    // Round trip, where every value is finite (an overflowing multiplier cannot be written
    // as a number).
    for (double v : raw.data)
        if (!std::isfinite(v)) return 0;
    auto text = (*ies)->ConvertToText();
    if (!text) Fail("writer failed");
    // Read back without the power estimate, which the first parse has exercised already.
    auto back = NewObject<IesImpl>();
    auto backStream = MemoryInputStream::Make(*text);
    if (!back || !backStream) Fail("cannot create a profile");
    if (!(*back)->ParseOnly(*backStream)) Fail("written text does not parse");
    IesRawData b = (*back)->GetRawAccess();
    if (b.data.size() != raw.data.size() || b.anglesVertical.size() != raw.anglesVertical.size() ||
        b.anglesHorizontal.size() != raw.anglesHorizontal.size())
        Fail("round trip changed the counts");
    for (size_t i = 0; i < raw.data.size(); ++i)
        if (b.data[i] != raw.data[i] && !(std::isnan(b.data[i]) && std::isnan(raw.data[i])))
            Fail("round trip changed a value");
    return 0;
}
