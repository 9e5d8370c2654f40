// The live editor's promise: an edit's first frame arrives within one iteration plus a
// small delivery cost. Edit to first frame through kelvo preview serve (POST, release of
// the replaced request, submission, iteration, stream, received by an HTTP client) beside
// the pipeline's own first image (release, request, submission, iteration, callback), both
// at 128 x 128 with a replaced request refining when the edit comes.
#include <benchmark/benchmark.h>
#include <httplib.h>

#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

#include "context.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "preview_server.h"

namespace kelvo::cli {
namespace {

using nlohmann::json;
namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;
constexpr int64_t kSide = 128;
constexpr int64_t kIterations = 4096;  // never done: every edit replaces a refining request

void Check(bool ok, const std::string& what) {
    if (!ok) {
        std::fprintf(stderr, "%s\n", what.c_str());
        std::exit(1);
    }
}

Context& Modules() {
    static Context* context = [] {
        auto* c = new Context();
        c->moduleFolder = KELVO_MODULE_FOLDER;
        Result<void> r = c->LoadModules();
        Check(r.Ok(), r.Ok() ? "" : r.GetError().Message());
        return c;
    }();
    return *context;
}

std::string Material(int64_t edit) {
    return json{{"model", "ggxbrdf"}, {"data", {{"roughness", 0.2 + double(edit % 7) * 0.1}}}}
        .dump();
}

// The pipeline alone, as the server drives it: the legacy space's configure function fills
// a priority request; the previous one is released first.
void BM_PipelineFirstImage(benchmark::State& state) {
    Modules();
    auto helpers = CreateComponent<nodes::NodeSpaceHelpersInterface>();
    auto space = (*helpers)->FindNodeSpace(kLegacyMaterialNodeSpace);
    Check(space.Ok(), "no legacy material space");
    const Data* d =
        (*space)->GetDescription()->Find(nodes::NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC);
    auto configure =
        Query<nodes::ConfigurePreviewImageRequestInterface>(*d->Get<StrongRef<Object>>());

    std::mutex lock;
    std::condition_variable arrived;
    int64_t current = -1, delivered = -1;
    StrongRef<nodes::PreviewImageRequestInterface> running;
    int64_t edit = 0;
    auto submit = [&] {
        const int64_t id = edit++;
        DataDictionary material;
        Check(material.Set(PREVIEWMATERIAL::JSON, Material(id)).Ok(), "material");
        auto request = nodes::CreatePreviewImageRequest();
        DataDictionary& data = *(*request)->GetData();
        auto f = nodes::MakeResultCompleteFunc([&, id](const Result<DataDictionary>&) {
            std::lock_guard l(lock);
            if (id == current && delivered != id) {
                delivered = id;
                arrived.notify_all();
            }
        });
        Check(data.Set(REQUEST::RESULTCOMPLETEFUNC, *f).Ok(), "callback");
        Check(data.Set(REQUEST::TEXTURESIZE, Vec2{double(kSide), double(kSide)}).Ok(), "size");
        Check(data.Set(REQUEST::ITERATIONCOUNT, kIterations).Ok(), "count");
        Check(data.Set(REQUEST::PURPOSE, int64_t(nodes::PREVIEWIMAGEPURPOSE::PRIORITY)).Ok(), "");
        Check(configure->Configure(material, data).Ok(), "configure");
        {
            std::lock_guard l(lock);
            current = id;
        }
        if (running) running->Reset();
        running = *request;
        Check(running->Submit().Ok(), "submit");
        std::unique_lock l(lock);
        arrived.wait(l, [&] { return delivered == id; });
    };
    submit();  // a request refining when the first edit comes
    for (auto _ : state) submit();
    running->Reset();
}
BENCHMARK(BM_PipelineFirstImage)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same edits through the server: POST, then the first frame of that request read from
// the event stream by an HTTP client.
void BM_ServerEditToFirstFrame(benchmark::State& state) {
    Modules();
    ServeOptions o;
    o.port = 0;
    o.pageFolder = std::string(KELVO_SOURCE_DIR) + "/resources/serve";
    auto server = PreviewServer::Create(o);
    Check(server.Ok(), "server");
    auto port = (*server)->Start();
    Check(port.Ok(), "listen");

    std::mutex lock;
    std::condition_variable arrived;
    int64_t client = -1, wanted = -1, seen = -1;
    httplib::Client events("127.0.0.1", *port);
    std::atomic<bool> closing{false};
    std::thread reader([&] {
        std::string buffer;
        events.Get("/api/events", [&](const char* data, size_t size) {
            buffer.append(data, size);
            for (size_t end; (end = buffer.find("\n\n")) != std::string::npos;
                 buffer.erase(0, end + 2)) {
                const std::string event = buffer.substr(0, end);
                const size_t at = event.find("data: ");
                if (at == std::string::npos) continue;
                // Only the header of a frame is parsed; the pixels are skipped as a page
                // would hand them on.
                json j = json::parse(event.substr(at + 6), nullptr, false);
                std::lock_guard l(lock);
                if (event.rfind("event: hello", 0) == 0) client = j["client"];
                if (event.rfind("event: frame", 0) == 0)
                    seen = std::max<int64_t>(seen, j["request"]);
                arrived.notify_all();
            }
            return !closing.load();
        });
    });
    {
        std::unique_lock l(lock);
        arrived.wait(l, [&] { return client >= 0; });
    }
    httplib::Client api("127.0.0.1", *port);
    int64_t edit = 0;
    auto submit = [&] {
        json body = {{"client", client},
                     {"slot", "editor"},
                     {"material", json::parse(Material(edit++))},
                     {"size", kSide},
                     {"iterations", kIterations},
                     {"priority", true}};
        auto r = api.Post("/api/render", body.dump(), "application/json");
        Check(r && r->status == 200, r ? r->body : "no answer");
        const int64_t request = json::parse(r->body)["request"];
        std::unique_lock l(lock);
        wanted = request;
        arrived.wait(l, [&] { return seen >= wanted; });
    };
    submit();
    for (auto _ : state) submit();
    closing.store(true);
    (*server)->Stop();
    events.stop();
    reader.join();
}
BENCHMARK(BM_ServerEditToFirstFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace kelvo::cli

BENCHMARK_MAIN();
