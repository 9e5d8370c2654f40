#include "preview_batch.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <iostream>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/nodes/previewimageplaceholder.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"
#include "picture_writer.h"
#include "preview_request.h"
#include "preview_sheet.h"

#ifndef KELVO_VERSION
#define KELVO_VERSION "unknown"
#endif

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;
using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The signal that asked the run to stop (SIGINT, SIGTERM: a scheduler taking the machine
// back); 0 while none did.
std::atomic<int> g_stop{0};
extern "C" void OnBatchStopSignal(int signal) { g_stop.store(signal); }

class StopSignals {
public:
    StopSignals() {
        g_stop.store(0);
        struct sigaction action {};
        action.sa_handler = &OnBatchStopSignal;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &_int);
        sigaction(SIGTERM, &action, &_term);
    }
    ~StopSignals() {
        sigaction(SIGINT, &_int, nullptr);
        sigaction(SIGTERM, &_term, nullptr);
    }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

private:
    struct sigaction _int {};
    struct sigaction _term {};
};

// One material's thumbnail as the pipeline delivered it.
struct Thumbnail {
    nodes::PreviewImageProviderOutputImage image;  // the final image, or the placeholder
    std::string error;
    std::string placeholder;
    int64_t iterations = 0;
    int64_t rays = 0;
    double renderSeconds = 0.0;
    std::string intersector;
};

void Fail(Thumbnail& t, const std::string& error, const batch::Settings& s) {
    t.error = error;
    if (t.placeholder.empty()) t.placeholder = std::string(nodes::kPlaceholderError.Text());
    Result<Id> reason = Id::FromText(t.placeholder);
    Result<nodes::PreviewImageProviderOutputImage> cell =
        PlaceholderCell(reason ? *reason : nodes::kPlaceholderError, s.width, s.height);
    t.image = cell ? *cell : nodes::PreviewImageProviderOutputImage{};
}

// The inboxes whose requests are in flight, so that a stop signal can wake the threads
// waiting on them (from the main thread: posting from the handler itself could meet an
// inbox being freed).
class InFlight {
public:
    void Add(const std::shared_ptr<PreviewInbox>& inbox) {
        std::lock_guard guard(_lock);
        _inboxes.insert(inbox);
    }
    void Remove(const std::shared_ptr<PreviewInbox>& inbox) {
        std::lock_guard guard(_lock);
        _inboxes.erase(inbox);
    }
    void WakeAll() {
        std::lock_guard guard(_lock);
        for (const auto& inbox : _inboxes) inbox->GetWakeup().Post();
    }

private:
    std::mutex _lock;
    std::set<std::shared_ptr<PreviewInbox>> _inboxes;
};

// Renders one material through the preview pipeline and waits for its final image; a stop
// signal releases the request at once.
Thumbnail RenderThumbnail(const json& material, const batch::Settings& s, InFlight& flights) {
    Thumbnail t;
    Result<PreviewMaterialInput> m =
        ParsePreviewMaterial(material.dump(-1, ' ', false, json::error_handler_t::replace));
    if (!m) {
        Fail(t, m.GetError().Message(), s);
        return t;
    }
    const PreviewRequestSettings settings{s.width, s.height, s.scene, s.iterations, s.seed, false};
    auto inbox = std::make_shared<PreviewInbox>();
    const size_t slot = inbox->Add(m->label, s.iterations);
    Result<StrongRef<nodes::PreviewImageRequestInterface>> request =
        BuildPreviewRequest(*m, settings, inbox->Receiver(slot));
    if (!request) {
        Fail(t, request.GetError().Message(), s);
        return t;
    }
    if (!*request) {
        t.placeholder = std::string(nodes::kPlaceholderNoSpace.Text());
        Fail(t, NoNodeSpaceMessage(m->space), s);
        return t;
    }
    flights.Add(inbox);
    inbox->MarkSubmitted(slot);
    Result<void> submitted = (*request)->Submit();
    while (submitted && !inbox->Get(slot).done && g_stop.load() == 0) inbox->Wait();
    (*request)->Reset();  // nothing arrives after this
    flights.Remove(inbox);
    if (!submitted) {
        Fail(t, submitted.GetError().Message(), s);
        return t;
    }
    PreviewProgress p = inbox->Get(slot);
    t.iterations = p.iterations;
    t.rays = p.rays;
    t.renderSeconds = p.renderSeconds;
    t.intersector = p.intersector;
    t.placeholder = p.placeholder;
    if (!p.error.empty()) {
        Fail(t, p.error, s);
    } else if (!p.image.samples || p.image.width != s.width || p.image.height != s.height) {
        if (g_stop.load() == 0) Fail(t, "Illegal state: The preview delivered no image.", s);
    } else {
        t.image = std::move(p.image);
    }
    return t;
}

std::string HostName() {
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return name;
}

// One line of the shard on its way through the run.
struct Work {
    const batch::LibraryLine* line = nullptr;
    std::string hash;
    json inputs;
    size_t item = 0;       // index into the outcome's items
    bool pending = false;  // counted among those to render
};

class BatchRun {
public:
    BatchRun(const BatchOptions& options, BatchOutcome& outcome)
        : _o(options), _outcome(outcome), _folder(options.library.parent_path()) {
        if (_folder.empty()) _folder = ".";
        _settings = batch::SettingsJson(options.settings);
        _host = HostName();
    }

    void Run(const std::vector<batch::LibraryLine>& lines) {
        _start = Clock::now();
        _temporaries = batch::FindTemporaries(_o.out);
        std::deque<Work> pending;
        batch::FileHashes hashes;
        for (const batch::LibraryLine& line : lines) {
            BatchItem item;
            item.line = line.index + 1;
            item.name = line.name;
            item.status = "pending";
            _outcome.items.push_back(item);
            Work w{&line, {}, {}, _outcome.items.size() - 1};
            if (!line.ownsName) {
                Finish(w, "failed", line.error, 0.0);
                continue;
            }
            w.hash = batch::ThumbnailHash(line.material, _settings, _folder, &w.inputs, &hashes);
            // A quick look without the lock; what is found complete here stays complete,
            // since a writer only ever replaces a thumbnail by a complete one.
            if (line.error.empty() && batch::IsComplete(_o.out, line.name, w.hash)) {
                Finish(w, "skipped", {}, 0.0);
                continue;
            }
            w.pending = true;
            pending.push_back(std::move(w));
        }
        _toRender = int64_t(pending.size());

        const int64_t jobs = std::min<int64_t>(_o.jobs, std::max<size_t>(pending.size(), 1));
        std::vector<std::thread> workers;
        _running = jobs;
        for (int64_t i = 0; i < jobs; ++i)
            workers.emplace_back([this, &pending] { Worker(pending); });
        ShowProgress();
        for (auto& t : workers) t.join();
        DrawProgress(true);
        _outcome.seconds = Since(_start);
        _outcome.signal = g_stop.load();
    }

private:
    // Takes lines from `pending` until none is left; a line another run holds goes to the
    // back, to be waited for once nothing else is left.
    void Worker(std::deque<Work>& pending) {
        struct Leave {
            BatchRun& run;
            ~Leave() {
                std::lock_guard guard(run._lock);
                --run._running;
            }
        } leave{*this};
        for (;;) {
            Work w;
            bool wait = false;
            {
                std::lock_guard lock(_lock);
                if (g_stop.load() != 0) return;
                if (!pending.empty()) {
                    w = std::move(pending.front());
                    pending.pop_front();
                } else if (!_busy.empty()) {
                    w = std::move(_busy.front());
                    _busy.pop_front();
                    wait = true;
                } else {
                    return;
                }
            }
            Result<std::optional<batch::NameLock>> lock =
                batch::NameLock::Take(_o.out, w.line->name, wait);
            if (!lock) {
                Finish(w, "failed", lock.GetError().Message(), 0.0);
                continue;
            }
            if (!*lock) {
                std::lock_guard guard(_lock);
                _busy.push_back(std::move(w));
                continue;
            }
            Process(w);
        }
    }

    // Renders and writes one thumbnail; the caller holds its name's lock.
    void Process(Work& w) {
        const batch::LibraryLine& line = *w.line;
        {
            std::lock_guard guard(_lock);
            if (auto it = _temporaries.find(line.name); it != _temporaries.end()) {
                std::error_code ec;
                for (const fs::path& p : it->second) fs::remove(p, ec);
                _temporaries.erase(it);
            }
        }
        // Another run may have finished it while this one waited for the lock.
        if (line.error.empty() && batch::IsComplete(_o.out, line.name, w.hash)) {
            Finish(w, "skipped", {}, 0.0);
            return;
        }
        const Clock::time_point begun = Clock::now();
        Thumbnail t;
        if (!line.error.empty()) {
            Fail(t, line.error, _o.settings);
        } else {
            t = RenderThumbnail(batch::ResolvedMaterial(line.material, _folder), _o.settings,
                                _flights);
        }
        if (g_stop.load() != 0 && t.error.empty() && t.iterations < _o.settings.iterations)
            return;  // stopped part-way: leave the thumbnail to the next run
        const double seconds = Since(begun);
        Result<void> written = Write(w, t, seconds);
        if (!written) {
            Finish(w, "failed", written.GetError().Message(), seconds);
            return;
        }
        Finish(w, t.error.empty() ? "rendered" : "failed", t.error, seconds);
    }

    // The picture first, then the sidecar that records the picture's hash: a run killed in
    // between leaves a sidecar that does not match, and the thumbnail is rendered again.
    Result<void> Write(const Work& w, const Thumbnail& t, double seconds) {
        const batch::Settings& s = _o.settings;
        const fs::path picture = batch::PicturePath(_o.out, w.line->name);
        KELVO_TRY(WritePicture(picture.string(), ImageView(t.image)));
        KELVO_ASSIGN_OR_RETURN(std::string pictureHash, batch::FileSha256(picture));
        json sidecar = {
            {"name", w.line->name},
            {"line", w.line->index + 1},
            {"material", w.line->material},
            {"settings", _settings},
            {"hash", w.hash},
            {"inputs", w.inputs},
            {"image",
             {{"file", picture.filename().string()},
              {"width", s.width},
              {"height", s.height},
              {"sha256", pictureHash}}},
            {"iterations", t.iterations},
            {"seconds", seconds},
            {"renderSeconds", t.renderSeconds},
            {"rays", t.rays},
            {"raysPerSecond", t.renderSeconds > 0.0 ? double(t.rays) / t.renderSeconds : 0.0},
            {"intersector", t.intersector},
            {"host", _host},
            {"version", "kelvo " KELVO_VERSION},
        };
        if (!t.error.empty()) {
            sidecar["error"] = t.error;
            sidecar["placeholder"] = t.placeholder;
        }
        return WriteTextFile(batch::SidecarPath(_o.out, w.line->name),
                             sidecar.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
    }

    void Finish(const Work& w, const std::string& status, const std::string& error,
                double seconds) {
        std::lock_guard guard(_lock);
        BatchItem& item = _outcome.items[w.item];
        item.status = status;
        item.error = error;
        item.seconds = seconds;
        if (status == "rendered") ++_outcome.rendered;
        if (status == "skipped") ++_outcome.skipped;
        if (status == "failed") ++_outcome.failed;
        if (w.pending) ++_done;
        if (!error.empty() && _o.report) {
            ClearProgress();
            std::cerr << "kelvo: " << _o.library.string() << ":" << item.line << ": " << error
                      << '\n';
        }
    }

    // Until the workers are done: redraws the bar every quarter second, and wakes the
    // workers waiting for the pipeline once a stop signal arrives.
    void ShowProgress() {
        for (int tick = 0;; ++tick) {
            if (g_stop.load() != 0) _flights.WakeAll();
            {
                std::lock_guard guard(_lock);
                if (tick % 5 == 0) DrawProgress(false);
                if (_running == 0) return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }

    void ClearProgress() {
        if (_o.progress && _drawn) std::fputs("\r\x1b[2K", stderr);
    }

    // "thumbnails 12/60 rendered, 3 skipped, 1 failed, 4.2/min, 3m10s left"; the rate counts
    // what was rendered here, the time left what is still to render.
    void DrawProgress(bool last) {
        if (!_o.progress) return;
        const double elapsed = Since(_start);
        const int64_t rendered = _done;
        const double rate = elapsed > 0.0 ? double(rendered) / elapsed : 0.0;
        char line[200];
        int n = std::snprintf(line, sizeof line, "\r\x1b[2Kthumbnails %lld/%lld",
                              (long long)rendered, (long long)_toRender);
        if (_outcome.skipped > 0)
            n += std::snprintf(line + n, sizeof line - size_t(n), ", %lld skipped",
                               (long long)_outcome.skipped);
        if (_outcome.failed > 0)
            n += std::snprintf(line + n, sizeof line - size_t(n), ", %lld failed",
                               (long long)_outcome.failed);
        n += std::snprintf(line + n, sizeof line - size_t(n), ", %.1f/min", rate * 60.0);
        if (rendered > 0 && rendered < _toRender) {
            const auto left = int64_t(double(_toRender - rendered) / rate);
            std::snprintf(line + n, sizeof line - size_t(n), ", %lldm%02llds left",
                          (long long)(left / 60), (long long)(left % 60));
        }
        std::fputs(line, stderr);
        if (last) std::fputs("\n", stderr);
        std::fflush(stderr);
        _drawn = true;
    }

    const BatchOptions& _o;
    BatchOutcome& _outcome;
    fs::path _folder;  // the library's, for the files materials name
    json _settings;
    std::string _host;
    Clock::time_point _start;
    std::map<std::string, std::vector<fs::path>> _temporaries;
    InFlight _flights;

    std::mutex _lock;  // guards everything below and the outcome
    std::deque<Work> _busy;
    int64_t _toRender = 0;
    int64_t _done = 0;     // of those to render: rendered, failed or found done elsewhere
    int64_t _running = 0;  // workers
    bool _drawn = false;
};

Result<void> CheckOptions(const BatchOptions& o) {
    const batch::Settings& s = o.settings;
    constexpr int64_t kMaxSide = 16384;
    constexpr int64_t kMaxIterations = int64_t(1) << 20;
    if (s.width < 1 || s.height < 1 || s.width > kMaxSide || s.height > kMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Preview size @ x @ is out of range.", s.width,
                                    s.height);
    if (s.iterations < 1 || s.iterations > kMaxIterations)
        return IllegalArgumentError(KELVO_HERE, "--iterations must be an integer from 1 to @.",
                                    kMaxIterations);
    if (o.jobs < 0 || o.jobs > 1024)
        return IllegalArgumentError(KELVO_HERE, "--jobs must be an integer from 1 to 1024.");
    return OK();
}

}  // namespace

Result<BatchOutcome> RunBatch(const BatchOptions& given) {
    BatchOptions options = given;
    KELVO_TRY(CheckOptions(options));
    if (options.jobs == 0) {
        // The preview queue runs about half as many previews at once as the host has
        // threads; twice that keeps each slot fed while the tool writes the last picture.
        options.jobs = std::max<int64_t>(2, int64_t(std::thread::hardware_concurrency()));
    }
    KELVO_ASSIGN_OR_RETURN(std::vector<batch::LibraryLine> lines,
                           batch::ReadLibrary(options.library, options.shard));
    std::error_code ec;
    fs::create_directories(options.out, ec);
    if (ec || !fs::is_directory(options.out))
        return IoError(KELVO_HERE, options.out.string(), "Cannot make the folder '@': @.",
                       options.out.string(), ec ? ec.message() : "not a folder");
    StopSignals signals;
    BatchOutcome outcome;
    BatchRun run(options, outcome);
    run.Run(lines);
    return outcome;
}

json BatchSummary(const BatchOptions& options, const BatchOutcome& outcome) {
    json items = json::array();
    for (const BatchItem& i : outcome.items) {
        json item = {{"line", i.line}, {"name", i.name}, {"status", i.status}};
        if (i.status == "rendered" || i.status == "failed") item["seconds"] = i.seconds;
        if (!i.error.empty()) item["error"] = i.error;
        items.push_back(std::move(item));
    }
    const double minutes = outcome.seconds / 60.0;
    return {
        {"library", options.library.string()},
        {"out", options.out.string()},
        {"shard", std::to_string(options.shard.index) + "/" + std::to_string(options.shard.count)},
        {"settings", batch::SettingsJson(options.settings)},
        {"lines", int64_t(outcome.items.size())},
        {"rendered", outcome.rendered},
        {"skipped", outcome.skipped},
        {"failed", outcome.failed},
        {"seconds", outcome.seconds},
        {"thumbnailsPerMinute", minutes > 0.0 ? double(outcome.rendered) / minutes : 0.0},
        {"stopped", outcome.signal != 0},
        {"items", std::move(items)}};
}

}  // namespace kelvo::cli

namespace kelvo::cli {
namespace {

struct BatchCommandOptions {
    std::string library;
    std::string out;
    std::string size = "128";
    std::string iterations = "16";
    std::string scene = "sphere";
    std::string seed = "0";
    std::string shard = "0/1";
    std::string jobs = "0";
    bool json = false;
    bool quiet = false;
};

// A whole number in lo..hi given to an option; anything else is "<option> must be an
// integer from <lo> to <hi>.".
Result<int64_t> OptionInteger(const std::string& text, std::string_view option, int64_t lo,
                              int64_t hi) {
    int64_t value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < lo || value > hi)
        return IllegalArgumentError(KELVO_HERE, "@ must be an integer from @ to @.", option, lo,
                                    hi);
    return value;
}

Result<int> RunBatchCommand(const BatchCommandOptions& c) {
    BatchOptions o;
    o.library = c.library;
    o.out = c.out;
    KELVO_ASSIGN_OR_RETURN(o.settings.width, OptionInteger(c.size, "--size", 1, 16384));
    o.settings.height = o.settings.width;
    KELVO_ASSIGN_OR_RETURN(o.settings.iterations,
                           OptionInteger(c.iterations, "--iterations", 1, int64_t(1) << 20));
    PREVIEWSCENE scene;
    if (!ParsePreviewScene(c.scene, scene))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    c.scene);
    o.settings.scene = c.scene;
    KELVO_ASSIGN_OR_RETURN(int64_t seed, OptionInteger(c.seed, "--seed", 0, INT64_MAX));
    o.settings.seed = uint64_t(seed);
    KELVO_ASSIGN_OR_RETURN(o.shard, batch::ParseShard(c.shard));
    if (c.jobs != "0") {
        KELVO_ASSIGN_OR_RETURN(o.jobs, OptionInteger(c.jobs, "--jobs", 1, 1024));
    }
    o.progress = !c.quiet && ::isatty(STDERR_FILENO);

    KELVO_ASSIGN_OR_RETURN(BatchOutcome outcome, RunBatch(o));
    if (c.json) {
        std::cout << BatchSummary(o, outcome).dump(-1, ' ', false, json::error_handler_t::replace)
                  << '\n';
    } else {
        const double minutes = outcome.seconds / 60.0;
        std::printf(
            "kelvo preview batch: %lld rendered, %lld skipped, %lld failed in %.1f s "
            "(%.1f thumbnails a minute) into %s\n",
            (long long)outcome.rendered, (long long)outcome.skipped, (long long)outcome.failed,
            outcome.seconds, minutes > 0.0 ? double(outcome.rendered) / minutes : 0.0,
            o.out.c_str());
        std::fflush(stdout);
        if (std::ferror(stdout)) return IoError(KELVO_HERE, "", "Cannot write to standard output.");
    }
    if (outcome.signal != 0) {
        std::cerr << "kelvo: stopped; run the same command again to finish\n";
        return 128 + outcome.signal;
    }
    return outcome.failed > 0 ? 1 : 0;
}

}  // namespace

void AddPreviewBatchCommand(CLI::App& preview, Context& context, int& status) {
    auto c = std::make_shared<BatchCommandOptions>();
    auto* cmd = preview.add_subcommand(
        "batch",
        "Render a thumbnail and a sidecar per material of a library (one {\"name\": ..., "
        "\"material\": {...}} per line), skipping those already done");
    cmd->add_option("library", c->library, "The library: a JSON-lines file")->required();
    cmd->add_option("--out", c->out, "Folder for NAME.png and NAME.json")->required();
    cmd->add_option("--size", c->size, "Thumbnail side in pixels")->capture_default_str();
    cmd->add_option("--iterations,--spp", c->iterations,
                    "Iterations per thumbnail (one sample per pixel each)")
        ->capture_default_str();
    cmd->add_option("--scene", c->scene, "open, sphere, cube or plane")->capture_default_str();
    cmd->add_option("--seed", c->seed, "Random seed")->capture_default_str();
    cmd->add_option("--shard", c->shard, "Render only the lines whose index (from 0) is K modulo N")
        ->type_name("K/N")
        ->capture_default_str();
    cmd->add_option("--jobs", c->jobs,
                    "Materials in flight at once (default: enough to keep every thread busy)");
    cmd->add_flag("--json", c->json, "Print a summary as JSON: counts, rate and every line");
    cmd->add_flag("--quiet", c->quiet, "No progress bar");
    cmd->callback([&context, &status, c] {
        RunCommand(context, status, [&] { return RunBatchCommand(*c); });
    });
}

}  // namespace kelvo::cli
