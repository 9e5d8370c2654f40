#include "preview_server.h"

#include <httplib.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "cli_common.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"
#include "preview_request.h"

namespace kelvo::cli {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

namespace {

// --- The models' data descriptions ------------------------------------------------------------

// One control of a model: a BSDF data key (the suffix after net.kelvo.render.bsdfdata.).
struct KeyDescription {
    const char* key;
    const char* label;
    const char* type;  // "number", "bool" or "choice"
    double min, max, step, value;
    std::vector<const char*> choices = {};
};

struct ModelDescription {
    const char* model;
    const char* label;
    std::vector<KeyDescription> keys;
};

const std::vector<ModelDescription>& Models() {
    const KeyDescription roughness{"roughness", "Roughness", "number", 0.01, 1.0, 0.01, 0.3};
    const KeyDescription iorOut{"iorout", "Index of refraction outside", "number", 1.0, 3.0, 0.01,
                                1.0};
    const KeyDescription iorIn{"iorin", "Index of refraction inside", "number", 1.0, 3.0, 0.01,
                               1.5};
    const KeyDescription anisotropy{"anisotropy", "Anisotropy", "number", 0.0, 0.95, 0.01, 0.5};
    const KeyDescription rotation{"rotation", "Rotation (radians)", "number", 0.0, 3.1416, 0.01,
                                  0.0};
    const KeyDescription exponent{"blurryexponent", "Exponent", "number", 1.0, 200.0, 1.0, 20.0};
    static const std::vector<ModelDescription> models = {
        {"lambertbrdf", "Lambert", {}},
        {"orennayarbrdf",
         "Oren-Nayar",
         {{"orennayarsigma", "Sigma", "number", 0.0, 1.0, 0.01, 0.3},
          {"simplemodel", "Simple model", "bool", 0, 1, 1, 0}}},
        {"irawanbrdf",
         "Irawan cloth",
         {{"clothpattern",
           "Weave pattern",
           "choice",
           0,
           0,
           0,
           0,
           {"denim", "shantung", "charmeuse", "twill", "gabardine", "polyester", ""}},
          // Without them the yarns reflect nothing: a black ball.
          {"warpdiffuse", "Warp diffuse", "number", 0.0, 1.0, 0.01, 0.2},
          {"weftdiffuse", "Weft diffuse", "number", 0.0, 1.0, 0.01, 0.2},
          {"warpspecular", "Warp specular", "number", 0.0, 2.0, 0.01, 1.0},
          {"weftspecular", "Weft specular", "number", 0.0, 2.0, 0.01, 1.0}}},
        {"blurrysimplebrdf",
         "Blurry simple",
         {exponent,
          {"blurrysamplingexponent", "Sampling exponent", "number", 1.0, 200.0, 1.0, 20.0}}},
        {"blurryspecularbrdf",
         "Blurry specular",
         {exponent,
          {"mirrormode", "Mirror mode", "bool", 0, 1, 1, 0},
          {"curvemode", "Curve mode", "bool", 0, 1, 1, 0}}},
        {"beckmannbrdf", "Beckmann reflection", {roughness}},
        {"beckmannbtdf", "Beckmann transmission", {roughness, iorOut, iorIn}},
        {"ggxbrdf", "GGX reflection", {roughness}},
        {"ggxbtdf", "GGX transmission", {roughness, iorOut, iorIn}},
        {"phongbrdf", "Phong reflection", {roughness}},
        {"phongbtdf", "Phong transmission", {roughness, iorOut, iorIn}},
        {"wardbrdf", "Ward reflection", {roughness}},
        {"wardbtdf", "Ward transmission", {roughness, iorOut, iorIn}},
        {"anisotropicbrdf", "Anisotropic reflection", {roughness, anisotropy, rotation}},
        {"anisotropicbtdf",
         "Anisotropic transmission",
         {roughness, anisotropy, rotation, iorOut, iorIn}},
    };
    return models;
}

constexpr std::string_view kModelPrefix = "net.kelvo.render.bsdflegacyclass.";

// The model's full class id ("ggxbrdf" or the id itself).
std::string ModelId(const std::string& model) {
    return model.find('.') == std::string::npos ? std::string(kModelPrefix) + model : model;
}

bool Registered(const std::string& id) {
    for (const EntryRecord* e : RegistryMembers(kBsdfLegacyClassesRegistry))
        if (e->GetId().Text() == id) return true;
    return false;
}

// --- JSON bodies ----------------------------------------------------------------------------

// True when no array or object in text nests deeper than limit (strings skipped).
bool DepthWithin(std::string_view text, size_t limit) {
    size_t depth = 0;
    bool inString = false, escaped = false;
    for (char c : text) {
        if (inString) {
            if (escaped)
                escaped = false;
            else if (c == '\\')
                escaped = true;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > limit) return false;
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return true;
}

// --- Frames ---------------------------------------------------------------------------------

// Linear light to 8-bit sRGB through a table of 4096 steps (finer than 8 bits can tell).
const std::array<uint8_t, 4097>& SrgbTable() {
    static const std::array<uint8_t, 4097> table = [] {
        std::array<uint8_t, 4097> t{};
        for (size_t i = 0; i < t.size(); ++i) {
            const double x = double(i) / 4096.0;
            const double s = x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1.0 / 2.4) - 0.055;
            t[i] = uint8_t(std::lround(std::clamp(s, 0.0, 1.0) * 255.0));
        }
        return t;
    }();
    return table;
}

uint8_t ToSrgb8(float v) {
    // NaN and negative values are black, values above one white.
    const float x = v > 0.0f ? std::min(v, 1.0f) : 0.0f;
    return SrgbTable()[size_t(std::lround(x * 4096.0f))];
}

std::string Base64(const uint8_t* data, size_t size) {
    static constexpr char kDigits[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < size; i += 3) {
        const uint32_t v = uint32_t(data[i]) << 16 | uint32_t(data[i + 1]) << 8 | data[i + 2];
        out += kDigits[v >> 18];
        out += kDigits[(v >> 12) & 63];
        out += kDigits[(v >> 6) & 63];
        out += kDigits[v & 63];
    }
    if (i < size) {
        uint32_t v = uint32_t(data[i]) << 16;
        if (i + 1 < size) v |= uint32_t(data[i + 1]) << 8;
        out += kDigits[v >> 18];
        out += kDigits[(v >> 12) & 63];
        out += i + 1 < size ? kDigits[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

// "end" events waiting for one stream; a stream that reads nothing for the write timeout
// is closed long before this fills.
constexpr size_t kMaxEvents = 4096;

double Milliseconds(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

}  // namespace

// --- Server state ---------------------------------------------------------------------------

// The counters behind /api/stats.
struct Counters {
    std::atomic<int64_t> submitted{0}, completed{0}, failed{0}, released{0}, alive{0};
    std::atomic<int64_t> framesDelivered{0}, framesSent{0}, framesReplaced{0}, pendingFrames{0};
    std::atomic<int64_t> bytesSent{0};
    std::atomic<double> lastFirstFrameMs{-1.0};
};

enum class ENDED : int { NO, COMPLETED, FAILED, RELEASED };

struct Client;

// One submitted request as the server tracks it. The result callback holds it; it ends
// exactly once.
struct Tracked {
    Tracked(uint64_t id_, std::string slot_, int64_t pixels_, std::shared_ptr<Counters> c)
        : id(id_), slot(std::move(slot_)), pixels(pixels_), counters(std::move(c)) {
        counters->alive.fetch_add(1);
    }
    ~Tracked() { counters->alive.fetch_sub(1); }
    Tracked(const Tracked&) = delete;
    Tracked& operator=(const Tracked&) = delete;

    // True for the call that ends it.
    bool End(ENDED how) {
        int expected = int(ENDED::NO);
        if (!ended.compare_exchange_strong(expected, int(how))) return false;
        switch (how) {
            case ENDED::COMPLETED:
                counters->completed.fetch_add(1);
                break;
            case ENDED::FAILED:
                counters->failed.fetch_add(1);
                break;
            default:
                counters->released.fetch_add(1);
                break;
        }
        return true;
    }

    const uint64_t id;
    const std::string slot;
    const int64_t pixels;
    const std::shared_ptr<Counters> counters;
    const Clock::time_point submitted = Clock::now();
    std::atomic<int> ended{int(ENDED::NO)};
    std::weak_ptr<Client> client;
};

// An image waiting for its stream.
struct Frame {
    uint64_t request = 0;
    int64_t iteration = 0, count = 0, width = 0, height = 0;
    StrongRef<nodes::PreviewImageSamples> samples;  // shared with the provider: read only
    double renderSeconds = 0.0;
    int64_t rays = 0;
    bool first = false;
    Clock::time_point submitted;
};

struct Slot {
    std::shared_ptr<Tracked> tracked;
    StrongRef<nodes::PreviewImageRequestInterface> request;
    std::optional<Frame> pending;
    bool firstSent = false;
};

// One browser tab: its stream and its slots. Guarded by `lock`.
struct Client {
    explicit Client(uint64_t id_) : id(id_) {}
    const uint64_t id;
    std::mutex lock;
    std::condition_variable wake;
    std::map<std::string, Slot> slots;
    std::deque<std::string> events;  // "end" events not yet sent (bounded by the slots' churn)
    bool closed = false;
    bool helloSent = false;
};

class PreviewServer::Impl {
public:
    explicit Impl(ServeOptions options, ServedFolder folder)
        : _options(std::move(options)), _folder(std::move(folder)) {}

    ~Impl() { Stop(); }

    Result<int> Start();
    void Stop();
    ServeStatistics Statistics() const;

private:
    void Routes();
    void Answer(httplib::Response& res, int status, const json& body);
    Result<json> ReadBody(const httplib::Request& req);
    void OpenStream(const httplib::Request& req, httplib::Response& res);
    bool Pump(const std::shared_ptr<Client>& client, httplib::DataSink& sink);
    void CloseClient(const std::shared_ptr<Client>& client);
    Result<std::shared_ptr<Client>> FindClient(const json& body);
    Result<json> Render(const json& body);
    Result<json> Release(const json& body);
    Result<std::string> MaterialForProvider(const json& material);
    Result<StrongRef<nodes::PreviewImageRequestInterface>> MakeRequest(
        const std::string& material, const std::string& scene, int64_t side, int64_t iterations,
        bool priority, const std::shared_ptr<Tracked>& tracked);
    static void Deliver(const std::shared_ptr<Tracked>& tracked, const Result<DataDictionary>& r);
    static std::string FrameEvent(const std::string& slot, const Frame& frame);

    ServeOptions _options;
    ServedFolder _folder;
    std::shared_ptr<Counters> _counters = std::make_shared<Counters>();
    httplib::Server _server;
    std::thread _thread;
    std::atomic<bool> _stopping{false};
    std::atomic<bool> _listenEnded{false};
    std::atomic<uint64_t> _nextRequest{1};

    mutable std::mutex _clientsLock;
    std::map<uint64_t, std::shared_ptr<Client>> _clients;
    uint64_t _nextClient = 1;
    std::string _page, _script, _style;
};

// --- Requests -------------------------------------------------------------------------------

Result<StrongRef<nodes::PreviewImageRequestInterface>> PreviewServer::Impl::MakeRequest(
    const std::string& material, const std::string& scene, int64_t side, int64_t iterations,
    bool priority, const std::shared_ptr<Tracked>& tracked) {
    KELVO_ASSIGN_OR_RETURN(PreviewMaterialInput input, ParsePreviewMaterial(material));
    PreviewRequestSettings settings;
    settings.width = settings.height = side;
    settings.scene = scene;
    settings.iterations = iterations;
    settings.priority = priority;
    // The callback holds the record, not the client: a closed tab frees its client at once.
    KELVO_ASSIGN_OR_RETURN(
        auto request,
        BuildPreviewRequest(input, settings,
                            [tracked](const Result<DataDictionary>& r) { Deliver(tracked, r); }));
    if (!request) return IllegalArgumentError(KELVO_HERE, "Node space @ not found.", input.space);
    return request;
}

// Runs on the preview queue's thread that ended an iteration: keeps the newest image for
// the client's stream (no copy: the provider hands out a new buffer each time).
void PreviewServer::Impl::Deliver(const std::shared_ptr<Tracked>& tracked,
                                  const Result<DataDictionary>& result) {
    std::shared_ptr<Client> client = tracked->client.lock();
    if (!result) {
        if (!tracked->End(ENDED::FAILED) || !client) return;
        json e = {{"slot", tracked->slot},
                  {"request", tracked->id},
                  {"state", "failed"},
                  {"error", result.GetError().Message()}};
        std::lock_guard lock(client->lock);
        if (client->events.size() < kMaxEvents)
            client->events.push_back("event: end\ndata: " + e.dump() + "\n\n");
        client->wake.notify_all();
        return;
    }
    const DataDictionary& r = *result;
    Frame frame;
    frame.request = tracked->id;
    frame.iteration = r.Get<int64_t>(REQUEST::ITERATIONINDEX, -1);
    frame.count = r.Get<int64_t>(REQUEST::ITERATIONCOUNT, 0);
    frame.renderSeconds = r.Get<double>(PREVIEWRESULT::SECONDS, 0.0);
    frame.rays = r.Get<int64_t>(PREVIEWRESULT::RAYS, 0);
    frame.submitted = tracked->submitted;
    if (const Data* d = r.Find(PREVIEWRESULT::IMAGE))
        if (const auto* image = nodes::GetOutputImage(*d)) {
            frame.width = image->width;
            frame.height = image->height;
            frame.samples = image->samples;
        }
    const bool last = frame.iteration + 1 >= frame.count;
    if (last) tracked->End(ENDED::COMPLETED);
    if (!client) return;
    std::lock_guard lock(client->lock);
    auto it = client->slots.find(tracked->slot);
    if (client->closed || it == client->slots.end() || !it->second.tracked ||
        it->second.tracked->id != tracked->id)
        return;  // replaced or released meanwhile: nobody waits for this image
    Slot& slot = it->second;
    Counters& c = *tracked->counters;
    c.framesDelivered.fetch_add(1);
    if (slot.pending) {
        c.framesReplaced.fetch_add(1);
    } else {
        c.pendingFrames.fetch_add(1);
    }
    frame.first = !slot.firstSent;
    slot.firstSent = true;
    slot.pending = std::move(frame);
    if (last && client->events.size() < kMaxEvents) {
        json e = {{"slot", tracked->slot}, {"request", tracked->id}, {"state", "completed"}};
        client->events.push_back("event: end\ndata: " + e.dump() + "\n\n");
    }
    client->wake.notify_all();
}

std::string PreviewServer::Impl::FrameEvent(const std::string& slot, const Frame& frame) {
    const int64_t pixels = frame.width * frame.height;
    std::vector<uint8_t> rgba;
    if (frame.samples && pixels > 0 && int64_t(frame.samples->size()) == pixels) {
        rgba.resize(size_t(pixels) * 4);
        for (size_t i = 0; i < size_t(pixels); ++i) {
            const Col4f& c = (*frame.samples)[i];
            rgba[i * 4] = ToSrgb8(c.r);
            rgba[i * 4 + 1] = ToSrgb8(c.g);
            rgba[i * 4 + 2] = ToSrgb8(c.b);
            rgba[i * 4 + 3] = 255;
        }
    }
    const double samples = double(frame.iteration + 1) * double(pixels);
    json j = {{"slot", slot},
              {"request", frame.request},
              {"iteration", frame.iteration + 1},
              {"count", frame.count},
              {"width", rgba.empty() ? 0 : frame.width},
              {"height", rgba.empty() ? 0 : frame.height},
              {"samplesPerSecond", frame.renderSeconds > 0.0 ? samples / frame.renderSeconds : 0.0},
              {"rays", frame.rays},
              {"sinceSubmitMs", Milliseconds(Clock::now() - frame.submitted)},
              {"rgba", Base64(rgba.data(), rgba.size())}};
    return "event: frame\ndata: " + j.dump() + "\n\n";
}

// --- Streams --------------------------------------------------------------------------------

void PreviewServer::Impl::OpenStream(const httplib::Request& /*req*/, httplib::Response& res) {
    std::shared_ptr<Client> client;
    {
        std::lock_guard lock(_clientsLock);
        if (_stopping.load() || _clients.size() >= _options.maxClients) {
            Answer(res, 503,
                   {{"op", "events"},
                    {"error", FormatMessage("Illegal state: The server has @ clients already.",
                                            int64_t(_clients.size()))}});
            return;
        }
        client = std::make_shared<Client>(_nextClient++);
        _clients[client->id] = client;
    }
    res.set_header("Cache-Control", "no-store");
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, client](size_t /*offset*/, httplib::DataSink& sink) { return Pump(client, sink); },
        [this, client](bool /*success*/) { CloseClient(client); });
}

// Writes what the client has waiting, or a comment after a quiet keep-alive period (a
// write to a closed tab fails, which ends the stream). False ends the stream.
bool PreviewServer::Impl::Pump(const std::shared_ptr<Client>& client, httplib::DataSink& sink) {
    std::string out;
    std::vector<std::pair<std::string, Frame>> frames;
    {
        std::unique_lock lock(client->lock);
        if (!client->helloSent) {
            client->helloSent = true;
            out = "event: hello\ndata: " + json{{"client", client->id}}.dump() + "\n\n";
        } else {
            auto ready = [&] {
                if (client->closed || _stopping.load() || !client->events.empty()) return true;
                for (auto& [name, slot] : client->slots)
                    if (slot.pending) return true;
                return false;
            };
            client->wake.wait_for(lock, _options.keepAlive, ready);
            if (client->closed || _stopping.load()) return false;
            for (auto& [name, slot] : client->slots)
                if (slot.pending) {
                    frames.emplace_back(name, std::move(*slot.pending));
                    slot.pending.reset();
                }
            _counters->pendingFrames.fetch_sub(int64_t(frames.size()));
            for (std::string& e : client->events) out += e;
            client->events.clear();
        }
    }
    for (const auto& [name, frame] : frames) {
        out += FrameEvent(name, frame);
        if (frame.first)
            _counters->lastFirstFrameMs.store(Milliseconds(Clock::now() - frame.submitted));
    }
    if (out.empty()) out = ": idle\n\n";
    if (!sink.write(out.data(), out.size())) return false;
    _counters->framesSent.fetch_add(int64_t(frames.size()));
    _counters->bytesSent.fetch_add(int64_t(out.size()));
    return true;
}

// The stream ended (closed tab, failed write, stop): every request of the client goes.
void PreviewServer::Impl::CloseClient(const std::shared_ptr<Client>& client) {
    std::vector<Slot> slots;
    {
        std::lock_guard lock(client->lock);
        client->closed = true;
        for (auto& [name, slot] : client->slots) {
            if (slot.pending) _counters->pendingFrames.fetch_sub(1);
            slots.push_back(std::move(slot));
        }
        client->slots.clear();
        client->events.clear();
    }
    {
        std::lock_guard lock(_clientsLock);
        _clients.erase(client->id);
    }
    // Each release waits for the request's running iteration, outside every lock.
    for (Slot& slot : slots) {
        if (slot.request) slot.request->Reset();
        if (slot.tracked) slot.tracked->End(ENDED::RELEASED);
    }
}

Result<std::shared_ptr<Client>> PreviewServer::Impl::FindClient(const json& body) {
    if (Member(body, "client").is_null())
        return IllegalArgumentError(KELVO_HERE, "client is missing.");
    KELVO_ASSIGN_OR_RETURN(int64_t id, IntegerMember(body, "client", -1, 0));
    std::lock_guard lock(_clientsLock);
    auto it = _clients.find(uint64_t(id));
    if (it == _clients.end())
        return IllegalArgumentError(KELVO_HERE, "Unknown client @ (open /api/events first).", id);
    return it->second;
}

// --- Handlers -------------------------------------------------------------------------------

// The material as the provider reads it: texture and IES paths resolved inside the served
// folder; everything else is the provider's to judge, with its own messages.
Result<std::string> PreviewServer::Impl::MaterialForProvider(const json& material) {
    if (!material.is_object())
        return IllegalArgumentError(KELVO_HERE, "The material must be a JSON object.");
    json m = material;
    if (m.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string model, ReadString(m["model"], "model"));
        const std::string id = ModelId(model);
        if (!Registered(id)) return IllegalArgumentError(KELVO_HERE, "Class @ not found.", id);
    }
    for (const char* key : {"texture", "ies"})
        if (m.contains(key)) {
            KELVO_ASSIGN_OR_RETURN(std::string relative, ReadString(m[key], key));
            KELVO_ASSIGN_OR_RETURN(std::filesystem::path file, _folder.Resolve(relative));
            m[key] = file.string();
        }
    return m.dump();
}

Result<json> PreviewServer::Impl::Render(const json& body) {
    KELVO_ASSIGN_OR_RETURN(std::shared_ptr<Client> client, FindClient(body));
    KELVO_ASSIGN_OR_RETURN(std::string slotName, StringMember(body, "slot"));
    if (slotName.empty() || slotName.size() > 32)
        return IllegalArgumentError(KELVO_HERE, "slot must be a name of 1 to 32 characters.");
    KELVO_ASSIGN_OR_RETURN(std::string material, MaterialForProvider(Member(body, "material")));
    std::string scene = "sphere";
    if (!Member(body, "scene").is_null()) {
        KELVO_ASSIGN_OR_RETURN(scene, ReadString(body["scene"], "scene"));
    }
    PREVIEWSCENE parsed;
    if (!ParsePreviewScene(scene, parsed))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    scene);
    KELVO_ASSIGN_OR_RETURN(int64_t side, IntegerMember(body, "size", 128, 1, _options.maxSide));
    KELVO_ASSIGN_OR_RETURN(int64_t iterations,
                           IntegerMember(body, "iterations", 64, 1, _options.maxIterations));
    KELVO_ASSIGN_OR_RETURN(bool priority, BoolMember(body, "priority", false));

    auto tracked =
        std::make_shared<Tracked>(_nextRequest.fetch_add(1), slotName, side * side, _counters);
    tracked->client = client;
    KELVO_ASSIGN_OR_RETURN(auto request,
                           MakeRequest(material, scene, side, iterations, priority, tracked));

    // Into the slot, in place of the request it replaces; bounded slots and pixels.
    Slot old;
    {
        std::lock_guard lock(client->lock);
        if (client->closed)
            return IllegalArgumentError(KELVO_HERE, "Unknown client @ (open /api/events first).",
                                        int64_t(client->id));
        int64_t pixels = tracked->pixels;
        for (const auto& [name, slot] : client->slots)
            if (name != slotName && slot.tracked) pixels += slot.tracked->pixels;
        const bool known = client->slots.count(slotName) > 0;
        if (!known && client->slots.size() >= _options.maxSlots)
            return IllegalArgumentError(KELVO_HERE, "A client keeps at most @ swatches.",
                                        int64_t(_options.maxSlots));
        if (pixels > _options.maxClientPixels)
            return IllegalArgumentError(KELVO_HERE, "A client's swatches hold at most @ pixels.",
                                        _options.maxClientPixels);
        Slot& slot = client->slots[slotName];
        if (slot.pending) _counters->pendingFrames.fetch_sub(1);
        old = std::move(slot);
        slot = Slot{};
        slot.tracked = tracked;
        slot.request = request;
    }
    // The replaced request goes first: it gives its running place to the new one.
    json answer = {{"op", "render"}, {"slot", slotName}, {"request", tracked->id}};
    if (old.tracked) {
        if (old.request) old.request->Reset();
        old.tracked->End(ENDED::RELEASED);
        answer["released"] = old.tracked->id;
    }
    _counters->submitted.fetch_add(1);
    Result<void> submitted = request->Submit();
    if (!submitted) {
        tracked->End(ENDED::FAILED);
        std::lock_guard lock(client->lock);
        auto it = client->slots.find(slotName);
        if (it != client->slots.end() && it->second.tracked == tracked) client->slots.erase(it);
        return submitted.GetError();
    }
    return answer;
}

Result<json> PreviewServer::Impl::Release(const json& body) {
    KELVO_ASSIGN_OR_RETURN(std::shared_ptr<Client> client, FindClient(body));
    KELVO_ASSIGN_OR_RETURN(std::string slotName, StringMember(body, "slot"));
    Slot old;
    {
        std::lock_guard lock(client->lock);
        auto it = client->slots.find(slotName);
        if (it != client->slots.end()) {
            if (it->second.pending) _counters->pendingFrames.fetch_sub(1);
            old = std::move(it->second);
            client->slots.erase(it);
        }
    }
    json answer = {{"op", "release"}, {"slot", slotName}, {"released", nullptr}};
    if (old.tracked) {
        if (old.request) old.request->Reset();
        old.tracked->End(ENDED::RELEASED);
        answer["released"] = old.tracked->id;
    }
    return answer;
}

void PreviewServer::Impl::Answer(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_header("Cache-Control", "no-store");
    res.set_content(body.dump(), "application/json");
}

Result<json> PreviewServer::Impl::ReadBody(const httplib::Request& req) {
    if (!DepthWithin(req.body, _options.maxJsonDepth))
        return IllegalArgumentError(KELVO_HERE, "The request nests deeper than @ levels.",
                                    int64_t(_options.maxJsonDepth));
    json body = json::parse(req.body, nullptr, false);
    if (body.is_discarded() || !body.is_object())
        return IllegalArgumentError(KELVO_HERE, "The request must be a JSON object.");
    return body;
}

void PreviewServer::Impl::Routes() {
    auto page = [](const std::string& text, const char* type) {
        return [&text, type](const httplib::Request&, httplib::Response& res) {
            res.set_header("Cache-Control", "no-store");
            res.set_header("X-Content-Type-Options", "nosniff");
            res.set_content(text, type);
        };
    };
    _server.Get("/", page(_page, "text/html; charset=utf-8"));
    _server.Get("/app.js", page(_script, "text/javascript; charset=utf-8"));
    _server.Get("/style.css", page(_style, "text/css; charset=utf-8"));

    _server.Get("/api/models", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200, PreviewServer::ModelsJson(_options));
    });
    _server.Get("/api/files", [this](const httplib::Request&, httplib::Response& res) {
        Answer(res, 200,
               {{"op", "files"},
                {"root", !_folder.Empty()},
                {"textures", _folder.List({"png", "tif", "tiff", "exr", "jpg", "jpeg"}, 500)},
                {"ies", _folder.List({"ies"}, 500)}});
    });
    _server.Get("/api/stats", [this](const httplib::Request&, httplib::Response& res) {
        json j = Statistics().ToJson();
        j["op"] = "stats";
        Answer(res, 200, j);
    });
    _server.Get("/api/events", [this](const httplib::Request& req, httplib::Response& res) {
        OpenStream(req, res);
    });
    auto post = [this](const char* op, Result<json> (Impl::*handler)(const json&)) {
        return [this, op, handler](const httplib::Request& req, httplib::Response& res) {
            Result<json> body = ReadBody(req);
            json slot = nullptr;
            if (body) {
                const json& s = Member(*body, "slot");
                if (s.is_string()) slot = s;
            }
            Result<json> answer = body ? (this->*handler)(*body) : Result<json>(body.GetError());
            if (answer) {
                Answer(res, 200, *answer);
            } else {
                Answer(res, 400,
                       {{"op", op}, {"slot", slot}, {"error", answer.GetError().Message()}});
            }
        };
    };
    _server.Post("/api/render", post("render", &Impl::Render));
    _server.Post("/api/release", post("release", &Impl::Release));

    // Whatever httplib refuses itself (an oversized body, an unknown path) gets our words.
    _server.set_error_handler(httplib::Server::HandlerWithResponse(
        [this](const httplib::Request& req, httplib::Response& res) {
            if (!res.body.empty()) return httplib::Server::HandlerResponse::Unhandled;  // ours
            std::string op = req.path.rfind("/api/", 0) == 0 ? req.path.substr(5) : req.path;
            std::string message;
            if (res.status == 413)
                message =
                    FormatMessage("Illegal argument: The request body is larger than @ bytes.",
                                  int64_t(_options.maxBodyBytes));
            else if (res.status == 404)
                message = FormatMessage("Illegal argument: There is nothing at '@'.", req.path);
            else
                message = FormatMessage("Illegal argument: HTTP status @.", int64_t(res.status));
            Answer(res, res.status, {{"op", op}, {"error", message}});
            return httplib::Server::HandlerResponse::Handled;
        }));
    _server.set_exception_handler(
        [this](const httplib::Request&, httplib::Response& res, const std::exception_ptr&) {
            Answer(res, 500, {{"error", "Illegal state: The request failed."}});
        });
}

// --- Lifecycle ------------------------------------------------------------------------------

Result<int> PreviewServer::Impl::Start() {
    auto read = [this](const char* name, std::string& into) -> Result<void> {
        std::ifstream in(_options.pageFolder / name, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        if (!in || text.str().empty())
            return IllegalArgumentError(KELVO_HERE, "The page file '@' cannot be read.",
                                        (_options.pageFolder / name).string());
        into = text.str();
        return OK();
    };
    KELVO_TRY(read("index.html", _page));
    KELVO_TRY(read("app.js", _script));
    KELVO_TRY(read("style.css", _style));

    // Every open stream keeps a thread; the rest serve the short requests.
    const size_t threads = _options.maxClients + 8;
    _server.new_task_queue = [threads] { return new httplib::ThreadPool(threads); };
    _server.set_payload_max_length(_options.maxBodyBytes);
    _server.set_keep_alive_max_count(100);
    _server.set_keep_alive_timeout(1);  // an idle connection holds a thread, and Stop waits
    _server.set_read_timeout(5, 0);
    _server.set_write_timeout(5, 0);
    Routes();
    int port = _options.port;
    if (port == 0) {
        port = _server.bind_to_any_port(_options.host);
        if (port < 0) port = 0;
    } else if (!_server.bind_to_port(_options.host, port)) {
        port = 0;
    }
    if (port <= 0)
        return IllegalStateError(KELVO_HERE, "Cannot listen on @:@.", _options.host,
                                 int64_t(_options.port));
    _thread = std::thread([this] {
        _server.listen_after_bind();
        _listenEnded.store(true);
    });
    // A stop before the loop runs would be lost (httplib stops only a running server).
    while (!_server.is_running() && !_listenEnded.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return port;
}

void PreviewServer::Impl::Stop() {
    if (_stopping.exchange(true)) {
        if (_thread.joinable()) _thread.join();
        return;
    }
    {
        std::lock_guard lock(_clientsLock);
        for (auto& [id, client] : _clients) {
            std::lock_guard l(client->lock);
            client->wake.notify_all();
        }
    }
    _server.stop();
    if (_thread.joinable()) _thread.join();
    // Streams that never started writing still hold their clients.
    std::vector<std::shared_ptr<Client>> left;
    {
        std::lock_guard lock(_clientsLock);
        for (auto& [id, client] : _clients) left.push_back(client);
    }
    for (auto& client : left) CloseClient(client);
}

ServeStatistics PreviewServer::Impl::Statistics() const {
    ServeStatistics s;
    {
        std::lock_guard lock(_clientsLock);
        s.clients = int64_t(_clients.size());
    }
    const Counters& c = *_counters;
    s.submitted = c.submitted.load();
    s.completed = c.completed.load();
    s.failed = c.failed.load();
    s.released = c.released.load();
    s.active = s.submitted - s.completed - s.failed - s.released;
    s.alive = c.alive.load();
    s.framesDelivered = c.framesDelivered.load();
    s.framesSent = c.framesSent.load();
    s.framesReplaced = c.framesReplaced.load();
    s.pendingFrames = c.pendingFrames.load();
    s.bytesSent = c.bytesSent.load();
    s.lastFirstFrameMs = c.lastFirstFrameMs.load();
    return s;
}

// --- Public ---------------------------------------------------------------------------------

json ServeStatistics::ToJson() const {
    return {{"clients", clients},
            {"submitted", submitted},
            {"completed", completed},
            {"failed", failed},
            {"released", released},
            {"active", active},
            {"alive", alive},
            {"framesDelivered", framesDelivered},
            {"framesSent", framesSent},
            {"framesReplaced", framesReplaced},
            {"pendingFrames", pendingFrames},
            {"bytesSent", bytesSent},
            {"lastFirstFrameMs", lastFirstFrameMs < 0.0 ? json(nullptr) : json(lastFirstFrameMs)}};
}

json PreviewServer::ModelsJson(const ServeOptions& options) {
    json models = json::array();
    for (const ModelDescription& m : Models()) {
        if (!Registered(ModelId(m.model))) continue;
        json keys = json::array();
        for (const KeyDescription& k : m.keys) {
            json key = {{"key", k.key}, {"label", k.label}, {"type", k.type}};
            if (std::string_view(k.type) == "number") {
                key["min"] = k.min;
                key["max"] = k.max;
                key["step"] = k.step;
                key["value"] = k.value;
            } else if (std::string_view(k.type) == "bool") {
                key["value"] = k.value != 0.0;
            } else {
                key["choices"] = k.choices;
                key["value"] = k.choices.front();
            }
            keys.push_back(std::move(key));
        }
        models.push_back({{"model", m.model},
                          {"id", ModelId(m.model)},
                          {"label", m.label},
                          {"keys", std::move(keys)}});
    }
    return {{"op", "models"},
            {"models", std::move(models)},
            {"scenes", {"sphere", "cube", "plane", "open"}},
            {"textureModes", {"nearest", "bilinear", "mipmap", "ripmap", "summedarea"}},
            {"limits",
             {{"maxSide", options.maxSide},
              {"maxIterations", options.maxIterations},
              {"maxSlots", options.maxSlots}}}};
}

PreviewServer::PreviewServer(std::unique_ptr<Impl> impl) : _impl(std::move(impl)) {}
PreviewServer::~PreviewServer() = default;

Result<std::unique_ptr<PreviewServer>> PreviewServer::Create(const ServeOptions& options) {
    KELVO_ASSIGN_OR_RETURN(ServedFolder folder, ServedFolder::Open(options.root));
    return std::unique_ptr<PreviewServer>(
        new PreviewServer(std::make_unique<Impl>(options, std::move(folder))));
}

Result<int> PreviewServer::Start() { return _impl->Start(); }
void PreviewServer::Stop() { _impl->Stop(); }
ServeStatistics PreviewServer::Statistics() const { return _impl->Statistics(); }

}  // namespace kelvo::cli
