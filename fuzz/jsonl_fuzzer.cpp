// Fuzzes the JSON-lines front ends of the kelvo tool in-process: the shared line reading,
// request readers and answer writing, and each command's dispatch of its requests
// (kelvo bsdf, ies eval, camera --json-lines, texture sample, intersect). The first byte
// picks the command; the rest is its stdin. Requests may fail; none may crash, hang, leak
// or read out of bounds, and the answers go to a discarding stream.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <streambuf>
#include <string>
#include <vector>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_output.h"

namespace {
using namespace kelvo;
using namespace kelvo::cli;

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "jsonl_fuzzer: %s\n", what);
    std::abort();
}

class DiscardBuffer : public std::streambuf {
protected:
    int overflow(int c) override { return traits_type::not_eof(c); }
    std::streamsize xsputn(const char*, std::streamsize n) override { return n; }
};

struct Fixture {
    Context context;
    std::string picture = "/tmp/kelvo_jsonl_fuzz_" + std::to_string(::getpid()) + ".png";
    std::string profile = "/tmp/kelvo_jsonl_fuzz_" + std::to_string(::getpid()) + ".ies";
    DiscardBuffer discard;
};
Fixture* g_fixture = nullptr;

// A 4 x 3 RGBA picture for texture sample, written through the host's export.
Result<void> WritePicture(const std::string& path) {
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(4, 3));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(4, 3, kPixelRgba8, COLORPROFILE::SRGB));
    KELVO_ASSIGN_OR_RETURN(auto pixels, layer->SetPixelHandler(kPixelRgba8, COLORPROFILE::SRGB));
    std::vector<uint8_t> row(4 * 4);
    for (int64_t y = 0; y < 3; ++y) {
        for (size_t i = 0; i < row.size(); ++i) row[i] = uint8_t(i * 16 + size_t(y) * 40);
        KELVO_TRY(pixels->SetPixels(0, y, 4, row.data()));
    }
    KELVO_TRY(image->AddLayer(layer));
    return ExportImage(Url::FromFile(path), *image);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_fixture = new Fixture;
    if (!g_fixture->context.LoadModules()) Fail("cannot load the modules");
    if (!WritePicture(g_fixture->picture)) Fail("cannot write the picture");
    std::ofstream(g_fixture->profile)
        << "IESNA:LM-63-2002\nTILT=NONE\n1 1000 1 5 3 1 2 0.3 0.3 0\n1 1 100\n"
           "0 22.5 45 67.5 90\n0 45 90\n100 90 70 40 10\n100 85 60 30 5\n100 80 50 20 0\n";
    std::cout.rdbuf(&g_fixture->discard);
    // The fixture stays (reachable) to the end: unloading the modules at exit would leave
    // the leak checker unable to name what Embree's pools keep, so only the files go.
    std::atexit([] {
        std::remove(g_fixture->picture.c_str());
        std::remove(g_fixture->profile.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const Fixture& f = *g_fixture;
    const std::vector<std::vector<std::string>> commands = {
        {"kelvo", "bsdf"},
        {"kelvo", "ies", "eval", f.profile},
        {"kelvo", "camera", "--json-lines"},
        {"kelvo", "texture", "sample", f.picture},
        {"kelvo", "intersect"},
    };
    const std::vector<std::string>& argv = commands[data[0] % commands.size()];
    std::istringstream requests(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
    SetStandardInput(&requests);

    int status = 0;
    CLI::App app{"kelvo", "kelvo"};
    app.require_subcommand(1);
    AddBsdfCommand(app, g_fixture->context, status);
    AddIesCommand(app, g_fixture->context, status);
    AddCameraCommand(app, g_fixture->context, status);
    AddTextureCommand(app, g_fixture->context, status);
    AddIntersectCommand(app, g_fixture->context, status);
    std::vector<const char*> args;
    for (const std::string& a : argv) args.push_back(a.c_str());
    try {
        app.parse(int(args.size()), args.data());
    } catch (const CLI::Error&) {
        Fail("the fixed command line does not parse");
    }
    SetStandardInput(nullptr);
    // A request may fail and the run with it (an over-long line); the stream must not.
    if (!std::cout) Fail("the answer stream broke");
    return 0;
}
