// kelvo preview serve without a browser: the served folder's safety, the API's answers to
// bad input, streams, replacement and release, and many clients editing at random.
#include "preview_server.h"

#include <gtest/gtest.h>
#include <httplib.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "context.h"
#include "serve_files.h"

namespace kelvo::cli {
namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace std::chrono_literals;

// A fresh folder per test, removed afterwards.
struct TempFolder {
    TempFolder() {
        path = fs::temp_directory_path() /
               ("kelvo-serve-" + std::to_string(getpid()) + "-" + std::to_string(counter++));
        fs::create_directories(path);
    }
    ~TempFolder() {
        std::error_code ec;
        fs::remove_all(path, ec);
    }
    void Write(const fs::path& relative, const std::string& text = "x") const {
        fs::create_directories((path / relative).parent_path());
        std::ofstream(path / relative) << text;
    }
    fs::path path;
    static inline int counter = 0;
};

// --- The served folder ----------------------------------------------------------------------

TEST(ServedFolderTest, ResolvesOnlyFilesInsideTheFolder) {
    TempFolder outside, inside;
    outside.Write("secret.png");
    inside.Write("wood.png");
    inside.Write("lights/spot.ies");
    fs::create_symlink(outside.path / "secret.png", inside.path / "escape.png");
    fs::create_symlink(outside.path, inside.path / "away");
    fs::create_symlink(inside.path / "wood.png", inside.path / "alias.png");
    auto folder = ServedFolder::Open(inside.path);
    ASSERT_TRUE(folder.Ok());

    auto ok = folder->Resolve("lights/spot.ies");
    ASSERT_TRUE(ok.Ok()) << ok.GetError().Message();
    EXPECT_EQ(*ok, fs::canonical(inside.path / "lights/spot.ies"));
    EXPECT_TRUE(folder->Resolve("alias.png").Ok());  // a link that stays inside is fine

    const std::pair<std::string, std::string> refused[] = {
        {"../secret.png", "Illegal argument: The path '../secret.png' leaves the served folder."},
        {"lights/../../x", "Illegal argument: The path 'lights/../../x' leaves the served folder."},
        {"lights/../wood.png",
         "Illegal argument: The path 'lights/../wood.png' leaves the served folder."},
        {"/etc/passwd",
         "Illegal argument: The path '/etc/passwd' must be relative to the served "
         "folder."},
        {"file:///etc/passwd",
         "Illegal argument: The path 'file:///etc/passwd' must be relative "
         "to the served folder."},
        {"C:\\x.png",
         "Illegal argument: The path 'C:\\x.png' must be relative to the served "
         "folder."},
        {"a\\..\\b", "Illegal argument: The path 'a\\..\\b' leaves the served folder."},
        {"", "Illegal argument: The path '' must be relative to the served folder."},
        {"escape.png", "Illegal argument: The path 'escape.png' leads outside the served folder."},
        {"away/secret.png",
         "Illegal argument: The path 'away/secret.png' leads outside the served folder."},
        {"missing.png", "Illegal argument: The file 'missing.png' is not in the served folder."},
        {"lights", "Illegal argument: The file 'lights' is not in the served folder."},
    };
    for (const auto& [path, message] : refused) {
        auto r = folder->Resolve(path);
        ASSERT_FALSE(r.Ok()) << path;
        EXPECT_EQ(r.GetError().Message(), message);
    }

    auto none = ServedFolder::Open({});
    ASSERT_TRUE(none.Ok());
    EXPECT_EQ(none->Resolve("wood.png").GetError().Message(),
              "Illegal argument: No folder is served (start with --root), so 'wood.png' cannot "
              "be read.");
    EXPECT_FALSE(ServedFolder::Open(inside.path / "nothing").Ok());
}

TEST(ServedFolderTest, ListsMatchingFilesAndLeavesOutLinksThatLeadOut) {
    TempFolder outside, inside;
    outside.Write("far.png");
    inside.Write("b.PNG");
    inside.Write("a/c.tif");
    inside.Write("notes.txt");
    inside.Write("spot.ies");
    fs::create_symlink(outside.path / "far.png", inside.path / "link.png");
    fs::create_symlink(outside.path, inside.path / "dir");
    auto folder = ServedFolder::Open(inside.path);
    ASSERT_TRUE(folder.Ok());
    EXPECT_EQ(folder->List({"png", "tif"}, 100), (std::vector<std::string>{"a/c.tif", "b.PNG"}));
    EXPECT_EQ(folder->List({"ies"}, 100), std::vector<std::string>{"spot.ies"});
    EXPECT_EQ(folder->List({"png", "tif"}, 1).size(), 1u);
}

// --- The server -----------------------------------------------------------------------------

// The tool's modules, loaded once; the engine that builds on one thread, since Embree's own
// build threads are not instrumented for the sanitizers.
Context& Modules() {
    static Context* context = [] {
        auto* c = new Context();
        c->moduleFolder = KELVO_MODULE_FOLDER;
        c->settings = {"g_polygonIntersection=net.kelvo.render.intersectionclass.embreesingle"};
        Result<void> loaded = c->LoadModules();
        EXPECT_TRUE(loaded.Ok()) << loaded.GetError().Message();
        return c;
    }();
    return *context;
}

// One client's event stream, read on a thread of its own.
class EventStream {
public:
    explicit EventStream(int port) : _client("127.0.0.1", port) {
        _client.set_read_timeout(10, 0);
        _thread = std::thread([this] {
            _client.Get("/api/events", [this](const char* data, size_t size) {
                std::lock_guard lock(_lock);
                _buffer.append(data, size);
                for (size_t end; (end = _buffer.find("\n\n")) != std::string::npos;) {
                    Parse(_buffer.substr(0, end));
                    _buffer.erase(0, end + 2);
                }
                _wake.notify_all();
                return !_closing;
            });
            std::lock_guard lock(_lock);
            _ended = true;
            _wake.notify_all();
        });
    }
    ~EventStream() { Close(); }
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    // Ends the stream as a closed tab does: the connection goes.
    void Close() {
        {
            std::lock_guard lock(_lock);
            _closing = true;
        }
        _client.stop();
        if (_thread.joinable()) _thread.join();
    }

    // The next event of that name (others are kept), or null after the timeout.
    json Next(const std::string& name, std::chrono::milliseconds timeout = 20s) {
        std::unique_lock lock(_lock);
        json found;
        _wake.wait_for(lock, timeout, [&] {
            for (auto it = _events.begin(); it != _events.end(); ++it)
                if (it->first == name) {
                    found = std::move(it->second);
                    _events.erase(it);
                    return true;
                }
            return _ended;
        });
        return found;
    }

    // Every event so far, in order.
    std::deque<std::pair<std::string, json>> Take() {
        std::lock_guard lock(_lock);
        return std::exchange(_events, {});
    }

    bool Ended() {
        std::lock_guard lock(_lock);
        return _ended;
    }

private:
    void Parse(const std::string& text) {
        std::string name, data;
        size_t start = 0;
        while (start < text.size()) {
            size_t end = text.find('\n', start);
            if (end == std::string::npos) end = text.size();
            const std::string line = text.substr(start, end - start);
            if (line.rfind("event: ", 0) == 0) name = line.substr(7);
            if (line.rfind("data: ", 0) == 0) data += line.substr(6);
            start = end + 1;
        }
        if (!name.empty()) _events.emplace_back(name, json::parse(data, nullptr, false));
    }

    httplib::Client _client;
    std::thread _thread;
    std::mutex _lock;
    std::condition_variable _wake;
    std::string _buffer;
    std::deque<std::pair<std::string, json>> _events;
    bool _closing = false, _ended = false;
};

class PreviewServerTest : public ::testing::Test {
protected:
    void SetUp() override { Start({}); }
    void TearDown() override {
        if (server) server->Stop();
    }

    void Start(ServeOptions o) {
        Modules();
        if (server) server->Stop();
        o.port = 0;
        o.root = root.path;
        o.pageFolder = fs::path(KELVO_SOURCE_DIR) / "resources/serve";
        o.keepAlive = 100ms;
        auto created = PreviewServer::Create(o);
        ASSERT_TRUE(created.Ok()) << created.GetError().Message();
        server = std::move(*created);
        auto p = server->Start();
        ASSERT_TRUE(p.Ok()) << p.GetError().Message();
        port = *p;
    }

    std::pair<int, json> Post(const std::string& path, const std::string& body) {
        httplib::Client c("127.0.0.1", port);
        auto r = c.Post(path.c_str(), body, "application/json");
        if (!r) return {0, nullptr};
        return {r->status, json::parse(r->body, nullptr, false)};
    }
    std::pair<int, json> Post(const std::string& path, const json& body) {
        return Post(path, body.dump());
    }
    json Get(const std::string& path) {
        httplib::Client c("127.0.0.1", port);
        auto r = c.Get(path.c_str());
        return r ? json::parse(r->body, nullptr, false) : json();
    }
    json Stats() { return Get("/api/stats"); }

    // Waits until the statistics satisfy `done` (or 20 s pass) and returns the last ones.
    template <typename Done>
    json WaitStats(Done done) {
        json s = Stats();
        for (auto until = std::chrono::steady_clock::now() + 20s;
             !done(s) && std::chrono::steady_clock::now() < until; s = Stats())
            std::this_thread::sleep_for(20ms);
        return s;
    }

    static json Render(int64_t client, const std::string& slot, json material, int64_t size = 16,
                       int64_t iterations = 4) {
        return {{"client", client},         {"slot", slot},
                {"material", material},     {"size", size},
                {"iterations", iterations}, {"priority", slot == "editor"}};
    }

    TempFolder root;
    std::unique_ptr<PreviewServer> server;
    int port = 0;
};

TEST_F(PreviewServerTest, RefusesBadBodiesWithItsOwnMessages) {
    EventStream stream(port);
    const int64_t client = stream.Next("hello")["client"];
    const json ggx = {{"model", "ggxbrdf"}};

    const std::pair<std::string, std::string> cases[] = {
        {"{", "Illegal argument: The request must be a JSON object."},
        {"[1, 2]", "Illegal argument: The request must be a JSON object."},
        {std::string(40, '[') + std::string(40, ']'),
         "Illegal argument: The request nests deeper than 16 levels."},
        {R"({"slot": "editor", "material": {}})", "Illegal argument: client is missing."},
        {R"({"client": "one", "slot": "editor"})", "Illegal argument: client must be an integer."},
        {R"({"client": 999999, "slot": "editor"})",
         "Illegal argument: Unknown client 999999 (open /api/events first)."},
        {Render(client, "editor", ggx, 0).dump(),
         "Illegal argument: size must be an integer from 1 to 512."},
        {Render(client, "editor", ggx, 16, 5000).dump(),
         "Illegal argument: iterations must be an integer from 1 to 4096."},
        {Render(client, "", ggx).dump(),
         "Illegal argument: slot must be a name of 1 to 32 characters."},
        {json{{"client", client}, {"slot", "editor"}, {"material", ggx}, {"scene", "moon"}}.dump(),
         "Illegal argument: Unknown scene 'moon' (open, sphere, cube, plane)."},
        {json{{"client", client}, {"slot", "editor"}, {"material", ggx}, {"priority", 1}}.dump(),
         "Illegal argument: priority must be true or false."},
    };
    for (const auto& [body, message] : cases) {
        auto [status, answer] = Post("/api/render", body);
        EXPECT_EQ(status, 400) << body;
        EXPECT_EQ(answer["op"], "render");
        EXPECT_EQ(answer["error"], message) << body;
    }
    EXPECT_EQ(Stats()["submitted"], 0);
}

TEST_F(PreviewServerTest, BadMaterialsGetTheCommandLinesMessages) {
    EventStream stream(port);
    const int64_t client = stream.Next("hello")["client"];
    const std::pair<json, std::string> cases[] = {
        {json{{"model", "nosuch"}},
         "Illegal argument: Class net.kelvo.render.bsdflegacyclass.nosuch not found."},
        {json{{"model", 3}}, "Illegal argument: model must be a string."},
        {json{{"model", "ggxbrdf"}, {"shine", 1}},
         "Illegal argument: Unknown material member 'shine'."},
        {json{{"model", "ggxbrdf"}, {"data", {{"gloss", 1}}}},
         "Illegal argument: Unknown BSDF data key 'gloss'."},
        {json{{"model", "ggxbrdf"}, {"colour", {1, 2}}},
         "Illegal argument: colour must be an array of 3 numbers."},
        {json::array(), "Illegal argument: The material must be a JSON object."},
    };
    for (const auto& [material, message] : cases) {
        auto [status, answer] = Post("/api/render", Render(client, "editor", material));
        EXPECT_EQ(status, 400) << material;
        EXPECT_EQ(answer["error"], message) << material;
        EXPECT_EQ(answer["slot"], "editor");
    }
    // Refused by the provider at submission: counted as failed, nothing left running.
    json s = Stats();
    EXPECT_EQ(s["active"], 0);
    EXPECT_EQ(s["alive"], 0);
}

TEST_F(PreviewServerTest, PathsEscapingTheRootAreRefusedBeforeAnythingIsRead) {
    TempFolder outside;
    outside.Write("far.ies", "not read");
    fs::create_symlink(outside.path / "far.ies", root.path / "link.ies");
    EventStream stream(port);
    const int64_t client = stream.Next("hello")["client"];
    const std::pair<json, std::string> cases[] = {
        {json{{"texture", "../far.png"}},
         "Illegal argument: The path '../far.png' leaves the served folder."},
        {json{{"texture", (outside.path / "far.ies").string()}},
         "Illegal argument: The path '" + (outside.path / "far.ies").string() +
             "' must be relative to the served folder."},
        {json{{"ies", "link.ies"}},
         "Illegal argument: The path 'link.ies' leads outside the served folder."},
        {json{{"ies", 7}}, "Illegal argument: ies must be a string."},
    };
    for (const auto& [material, message] : cases) {
        auto [status, answer] = Post("/api/render", Render(client, "editor", material));
        EXPECT_EQ(status, 400);
        EXPECT_EQ(answer["error"], message);
    }
    EXPECT_EQ(Get("/api/files")["ies"], json::array());  // the link is not offered either
}

TEST_F(PreviewServerTest, OversizedBodiesAndUnknownPathsAnswerInJson) {
    auto [status, answer] = Post("/api/render", std::string(70000, ' '));
    EXPECT_EQ(status, 413);
    EXPECT_EQ(answer["error"], "Illegal argument: The request body is larger than 65536 bytes.");
    EXPECT_EQ(answer["op"], "render");

    httplib::Client c("127.0.0.1", port);
    auto r = c.Get("/../../etc/passwd");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 404);
    r = c.Get("/api/nothing");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 404);
    EXPECT_EQ(json::parse(r->body)["error"],
              "Illegal argument: There is nothing at '/api/nothing'.");
    r = c.Get("/");
    ASSERT_TRUE(r);
    EXPECT_EQ(r->status, 200);
    EXPECT_NE(r->body.find("<script src=\"/app.js\">"), std::string::npos);
}

TEST_F(PreviewServerTest, DescribesEveryModelsKeys) {
    json models = Get("/api/models")["models"];
    ASSERT_EQ(models.size(), 15u);
    std::map<std::string, std::set<std::string>> keys;
    for (const json& m : models)
        for (const json& k : m["keys"]) {
            keys[m["model"]].insert(k["key"].get<std::string>());
            if (k["type"] == "number") {
                EXPECT_LE(k["min"].get<double>(), k["value"].get<double>()) << k;
                EXPECT_LE(k["value"].get<double>(), k["max"].get<double>()) << k;
            }
        }
    EXPECT_EQ(keys["ggxbrdf"], (std::set<std::string>{"roughness"}));
    EXPECT_EQ(keys["anisotropicbtdf"],
              (std::set<std::string>{"roughness", "anisotropy", "rotation", "iorout", "iorin"}));
    EXPECT_TRUE(keys["lambertbrdf"].empty());
}

// The page builds each model's first material from the described values: every model must
// then show a ball, not a black disc (the cloth model's yarns reflect nothing unless set).
// 16 iterations: the blurry simple lobe is found by a third of its light samples.
TEST_F(PreviewServerTest, EveryModelsDescribedValuesRenderAVisibleBall) {
    EventStream stream(port);
    const int64_t client = stream.Next("hello")["client"];
    auto bytes = [](const std::string& text) {  // base64, as the frames carry RGBA
        static const std::string kDigits =
            "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        std::vector<uint8_t> out;
        uint32_t bits = 0;
        int count = 0;
        for (char c : text) {
            const size_t d = kDigits.find(c);
            if (d == std::string::npos) continue;
            bits = (bits << 6) | uint32_t(d);
            if ((count += 6) >= 8) out.push_back(uint8_t(bits >> (count -= 8)));
        }
        return out;
    };
    const json models = Get("/api/models")["models"];
    ASSERT_EQ(models.size(), 15u);
    for (const json& m : models) {
        json data = json::object();
        for (const json& k : m["keys"]) data[k["key"].get<std::string>()] = k["value"];
        const json material = {{"model", m["model"]}, {"data", data}, {"colour", {0.8, 0.8, 0.8}}};
        auto [status, answer] = Post("/api/render", Render(client, "editor", material, 16, 16));
        ASSERT_EQ(status, 200) << answer;
        ASSERT_EQ(stream.Next("end")["state"], "completed") << m["model"];
        json last;
        for (auto& [name, e] : stream.Take())
            if (name == "frame") last = e;
        ASSERT_FALSE(last.is_null()) << m["model"];
        const std::vector<uint8_t> rgba = bytes(last["rgba"].get<std::string>());
        ASSERT_EQ(rgba.size(), 16u * 16u * 4u);
        int centre = 0;  // the ball's middle, 4 x 4 pixels
        for (int y = 6; y < 10; ++y)
            for (int x = 6; x < 10; ++x)
                for (int c = 0; c < 3; ++c) centre += rgba[size_t((y * 16 + x) * 4 + c)];
        EXPECT_GT(centre / 48, 20) << m["model"];
    }
}

TEST_F(PreviewServerTest, StreamsRefiningFramesUntilTheLastAndReleasesOnReplace) {
    EventStream stream(port);
    const int64_t client = stream.Next("hello")["client"];
    auto [status, first] =
        Post("/api/render", Render(client, "editor", {{"model", "ggxbrdf"}}, 24, 6));
    ASSERT_EQ(status, 200) << first;
    const json end = stream.Next("end");
    ASSERT_FALSE(end.is_null());
    EXPECT_EQ(end["state"], "completed");
    EXPECT_EQ(end["request"], first["request"]);
    int64_t last = 0;
    for (auto& [name, e] : stream.Take()) {
        if (name != "frame") continue;
        EXPECT_GT(e["iteration"].get<int64_t>(), last);  // frames may be merged, never reordered
        last = e["iteration"];
        EXPECT_EQ(e["width"], 24);
        EXPECT_EQ(e["rgba"].get<std::string>().size(), size_t(24 * 24 * 4 + 2) / 3 * 4);
    }
    EXPECT_EQ(last, 6);  // the final image is never dropped

    // A long request replaced before it ends is released, and said so.
    auto [s2, second] =
        Post("/api/render", Render(client, "editor", {{"model", "wardbrdf"}}, 64, 4096));
    ASSERT_EQ(s2, 200);
    auto [s3, third] = Post("/api/render", Render(client, "editor", {{"model", "ggxbrdf"}}, 16, 2));
    ASSERT_EQ(s3, 200);
    EXPECT_EQ(third["released"], second["request"]);
    EXPECT_EQ(stream.Next("end")["request"], third["request"]);
    json s = WaitStats([](const json& j) { return j["active"] == 0; });
    EXPECT_EQ(s["submitted"], 3);
    EXPECT_EQ(s["completed"], 2);
    EXPECT_EQ(s["released"], 1);
    EXPECT_EQ(s["alive"], 1);  // the completed request stays in its slot while the tab lives
    stream.Close();
    EXPECT_EQ(WaitStats([](const json& j) { return j["alive"] == 0; })["alive"], 0);
}

TEST_F(PreviewServerTest, AClosedStreamReleasesEveryRequestOfItsClient) {
    auto tab = std::make_unique<EventStream>(port);
    const int64_t client = tab->Next("hello")["client"];
    for (const char* slot : {"editor", "sheet-a", "sheet-b"})
        ASSERT_EQ(
            Post("/api/render", Render(client, slot, {{"model", "orennayarbrdf"}}, 32, 4096)).first,
            200);
    EXPECT_EQ(Stats()["active"], 3);
    tab.reset();
    json s = WaitStats([](const json& j) { return j["clients"] == 0 && j["active"] == 0; });
    EXPECT_EQ(s["clients"], 0);
    EXPECT_EQ(s["released"], 3);
    EXPECT_EQ(s["alive"], 0);
    EXPECT_EQ(s["pendingFrames"], 0);
    EXPECT_EQ(Post("/api/render", Render(client, "editor", json::object())).second["error"],
              "Illegal argument: Unknown client " + std::to_string(client) +
                  " (open /api/events first).");
}

TEST_F(PreviewServerTest, BoundsClientsSlotsAndPixels) {
    ServeOptions o;
    o.maxClients = 2;
    o.maxSlots = 2;
    o.maxClientPixels = 64 * 64;
    Start(o);
    EventStream a(port);
    const int64_t client = a.Next("hello")["client"];
    EventStream b(port);
    EXPECT_FALSE(b.Next("hello").is_null());
    EventStream c(port);
    EXPECT_TRUE(c.Next("hello", 2s).is_null());  // the third gets 503 and no stream
    EXPECT_TRUE(c.Ended());
    EXPECT_EQ(Stats()["clients"], 2);
    EXPECT_EQ(Post("/api/render", Render(client, "one", json::object(), 32, 4096)).first, 200);
    EXPECT_EQ(Post("/api/render", Render(client, "two", json::object(), 32, 4096)).first, 200);
    EXPECT_EQ(Post("/api/render", Render(client, "three", json::object(), 8)).second["error"],
              "Illegal argument: A client keeps at most 2 swatches.");
    EXPECT_EQ(Post("/api/render", Render(client, "two", json::object(), 60)).second["error"],
              "Illegal argument: A client's swatches hold at most 4096 pixels.");
    auto [status, released] = Post("/api/release", json{{"client", client}, {"slot", "one"}});
    EXPECT_EQ(status, 200);
    EXPECT_TRUE(released["released"].is_number());
    EXPECT_EQ(Post("/api/release", json{{"client", client}, {"slot", "one"}}).second["released"],
              nullptr);
}

// 16 clients edit at random: they replace, release, reconnect. Every request ends once,
// as completed, failed or released, and nothing is left once they are gone. 30 s by
// default; KELVO_SERVE_SOAK_SECONDS shortens it (ctest runs it for a few seconds).
TEST_F(PreviewServerTest, SixteenClientsEditingAtRandomLoseNothing) {
    const char* env = std::getenv("KELVO_SERVE_SOAK_SECONDS");
    const double seconds = env ? std::atof(env) : 30.0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    const char* models[] = {"ggxbrdf", "lambertbrdf", "wardbtdf", "orennayarbrdf", "nosuch"};
    std::atomic<int64_t> posted{0}, refused{0}, completedSeen{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 16; ++t)
        clients.emplace_back([&, t] {
            std::mt19937 random(uint32_t(t + 1));
            while (std::chrono::steady_clock::now() < until) {
                EventStream stream(port);
                const json hello = stream.Next("hello");
                if (hello.is_null()) continue;
                const int64_t client = hello["client"];
                std::set<int64_t> mine;
                for (int edits = int(random() % 20) + 1;
                     edits > 0 && std::chrono::steady_clock::now() < until; --edits) {
                    const std::string slot = "s" + std::to_string(random() % 3);
                    const json material = {{"model", models[random() % 5]},
                                           {"colour", {0.5, double(random() % 100) / 100.0, 0.5}}};
                    if (random() % 6 == 0) {
                        Post("/api/release", json{{"client", client}, {"slot", slot}});
                    } else {
                        auto [status, answer] = Post(
                            "/api/render",
                            Render(client, slot, material, 8 + random() % 24, 1 + random() % 12));
                        if (status == 200) {
                            ++posted;
                            mine.insert(answer["request"].get<int64_t>());
                        } else {
                            ++refused;
                        }
                    }
                    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 30));
                }
                // Frames only ever belong to this client's own requests.
                for (auto& [name, e] : stream.Take()) {
                    if (name == "frame" || name == "end") {
                        EXPECT_TRUE(mine.count(e["request"].get<int64_t>())) << e["request"];
                    }
                    if (name == "end" && e["state"] == "completed") ++completedSeen;
                }
            }  // the stream closes here: its requests are released
        });
    for (auto& c : clients) c.join();
    json s = WaitStats([](const json& j) { return j["clients"] == 0 && j["active"] == 0; });
    EXPECT_GT(posted.load(), 16);
    EXPECT_EQ(s["clients"], 0);
    EXPECT_EQ(s["active"], 0);
    EXPECT_EQ(s["submitted"].get<int64_t>(), posted.load());
    EXPECT_EQ(
        s["submitted"].get<int64_t>(),
        s["completed"].get<int64_t>() + s["failed"].get<int64_t>() + s["released"].get<int64_t>());
    EXPECT_GE(s["completed"].get<int64_t>(), completedSeen.load());
    EXPECT_EQ(s["alive"], 0);  // no request record outlives its client
    EXPECT_EQ(s["pendingFrames"], 0);
    std::printf(
        "soak: %.0f s, %lld requests (%lld completed, %lld released, %lld failed), "
        "%lld refused, %lld frames sent, %lld replaced before sending\n",
        seconds, (long long)s["submitted"].get<int64_t>(), (long long)s["completed"].get<int64_t>(),
        (long long)s["released"].get<int64_t>(), (long long)s["failed"].get<int64_t>(),
        (long long)refused.load(), (long long)s["framesSent"].get<int64_t>(),
        (long long)s["framesReplaced"].get<int64_t>());
}

}  // namespace
}  // namespace kelvo::cli
