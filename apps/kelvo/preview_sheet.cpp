#include "preview_sheet.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <memory>
#include <mutex>
#include <thread>

#include "cli_common.h"
#include "kelvo/config.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/nodes/previewimageplaceholder.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace {

using nlohmann::json;
using Clock = std::chrono::steady_clock;
namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

constexpr int64_t kMaxSide = 16384;  // the renderer's own bound
constexpr int64_t kMaxIterations = int64_t(1) << 20;
// Memory one swatch pixel takes on its way to the sheet: the renderer's sums (3 doubles) and
// pass (3 floats), the delivered image, the swatch's copy, the sheet and the picture written
// (63 bytes measured between 1024 and 2048 pixel swatches).
constexpr uint64_t kBytesPerSwatchPixel = 64;

// Set by Ctrl-C while a sheet renders.
std::atomic<bool> g_interrupted{false};
extern "C" void OnInterrupt(int /*signal*/) { g_interrupted.store(true); }

// Ctrl-C stops the run instead of the process while this lives.
class InterruptGuard {
public:
    InterruptGuard() {
        g_interrupted.store(false);
        struct sigaction action {};
        action.sa_handler = &OnInterrupt;
        sigemptyset(&action.sa_mask);
        sigaction(SIGINT, &action, &_previous);
    }
    ~InterruptGuard() { sigaction(SIGINT, &_previous, nullptr); }
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

private:
    struct sigaction _previous {};
};

// What the result callback of one swatch writes (on a preview queue thread) and the run
// reads.
struct SwatchState {
    std::mutex lock;
    SwatchOutcome outcome;
    bool done = false;
    double submitted = -1.0;  // seconds from the start; -1: not yet
};

double Since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void Record(SwatchState& state, const Result<DataDictionary>& result, double now, int64_t pixels) {
    std::lock_guard lock(state.lock);
    SwatchOutcome& o = state.outcome;
    if (!result) {
        o.error = result.GetError().Message();
        state.done = true;
        return;
    }
    const DataDictionary& r = *result;
    if (const Data* d = r.Find(PREVIEWRESULT::IMAGE))
        if (const auto* image = nodes::GetOutputImage(*d))
            if (image->samples && int64_t(image->samples->size()) == pixels) {
                o.rgb.resize(size_t(pixels * 3));
                for (size_t i = 0; i < size_t(pixels); ++i) {
                    const Col4f& c = (*image->samples)[i];
                    o.rgb[i * 3] = c.r;
                    o.rgb[i * 3 + 1] = c.g;
                    o.rgb[i * 3 + 2] = c.b;
                }
            }
    o.iterations = r.Get<int64_t>(REQUEST::ITERATIONINDEX, -1) + 1;
    o.count = r.Get<int64_t>(REQUEST::ITERATIONCOUNT, 0);
    if (o.firstImageSeconds < 0.0) o.firstImageSeconds = now;
    o.rays = r.Get<int64_t>(PREVIEWRESULT::RAYS, 0);
    o.renderSeconds = r.Get<double>(PREVIEWRESULT::SECONDS, 0.0);
    o.intersector = r.Get<std::string>(PREVIEWRESULT::INTERSECTOR, std::string());
    o.preemptions = r.Get<int64_t>(PREVIEWRESULT::INTERRUPTIONS, 0);
    o.iterationSeconds.push_back(r.Get<double>(PREVIEWRESULT::ITERATIONSECONDS, 0.0));
    if (o.iterations >= o.count) {
        o.finalImageSeconds = now;
        state.done = true;
    }
}

// The configure function of a node space, found through the host's node-space helpers;
// nullptr (and no error) when no such space exists.
Result<StrongRef<nodes::ConfigurePreviewImageRequestInterface>> FindConfigure(const Id& id) {
    KELVO_ASSIGN_OR_RETURN(auto helpers, CreateComponent<nodes::NodeSpaceHelpersInterface>());
    Result<StrongRef<nodes::NodeSpaceInterface>> space = helpers->FindNodeSpace(id);
    if (!space) {
        if (space.GetError().Message() ==
            FormatMessage("Illegal argument: Node space @ not found.", id))
            return StrongRef<nodes::ConfigurePreviewImageRequestInterface>();
        return space.GetError();
    }
    StrongRef<const DataDictionary> description = (*space)->GetDescription();
    const Data* d = description
                        ? description->Find(nodes::NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC)
                        : nullptr;
    const StrongRef<Object>* o = d ? d->Get<StrongRef<Object>>() : nullptr;
    StrongRef<nodes::ConfigurePreviewImageRequestInterface> configure =
        o ? Query<nodes::ConfigurePreviewImageRequestInterface>(*o) : nullptr;
    if (!configure) return IllegalStateError(KELVO_HERE, "The node space @ makes no previews.", id);
    return configure;
}

// The placeholder for reason, scaled into a w x h cell: the module's placeholder texture,
// or a magenta checker when no module supplies one or its icon cannot be read.
std::vector<float> PlaceholderCell(const Id& reason, int64_t w, int64_t h) {
    std::vector<float> rgb(size_t(w * h * 3));
    ImageTextureRef texture;
    if (auto placeholders = CreateComponent<nodes::PreviewImagePlaceholderInterface>())
        if (auto t = (*placeholders)->GetPlaceholder(reason)) texture = *t;
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            float* p = &rgb[size_t((y * w + x) * 3)];
            if (texture) {
                const Col4f c =
                    texture->GetPixel(x * texture->GetWidth() / w, y * texture->GetHeight() / h);
                p[0] = c.r * c.a;
                p[1] = c.g * c.a;
                p[2] = c.b * c.a;
            } else {
                const bool on =
                    ((x * 8 / std::max<int64_t>(w, 1)) + (y * 8 / std::max<int64_t>(h, 1))) % 2;
                p[0] = p[2] = on ? 1.0f : 0.05f;
                p[1] = 0.05f;
            }
        }
    return rgb;
}

// Redraws one line per swatch on stderr (a terminal).
class LiveDisplay {
public:
    explicit LiveDisplay(bool on) : _on(on) {}
    void Draw(const std::vector<std::shared_ptr<SwatchState>>& swatches, double now) {
        if (!_on) return;
        std::string text;
        if (_lines > 0) text += "\x1b[" + std::to_string(_lines) + "A";
        for (size_t i = 0; i < swatches.size(); ++i) {
            SwatchState& s = *swatches[i];
            std::lock_guard lock(s.lock);
            const SwatchOutcome& o = s.outcome;
            char line[256];
            if (!o.error.empty()) {
                std::snprintf(line, sizeof line, "failed: %s", o.error.c_str());
            } else if (s.done) {
                std::snprintf(line, sizeof line, "done, %lld/%lld in %.1f s",
                              (long long)o.iterations, (long long)o.count, o.finalImageSeconds);
            } else if (o.iterations > 0 && s.submitted >= 0.0) {
                const double left =
                    (now - s.submitted) / double(o.iterations) * double(o.count - o.iterations);
                std::snprintf(line, sizeof line, "iteration %lld/%lld, %.1f s left",
                              (long long)o.iterations, (long long)o.count, left);
            } else {
                std::snprintf(line, sizeof line, "%s", s.submitted >= 0.0 ? "waiting" : "queued");
            }
            char head[64];
            std::snprintf(head, sizeof head, "%3zu %-22.22s ", i + 1, o.label.c_str());
            text += "\x1b[2K" + std::string(head) + line + "\n";
        }
        _lines = int(swatches.size());
        std::fputs(text.c_str(), stderr);
        std::fflush(stderr);
    }

private:
    bool _on;
    int _lines = 0;
};

// The bound on one picture's bytes, which the swatches' buffers share. The host refuses any
// value that is not a whole number, so the text always reads.
uint64_t MaxImageBytes() {
    uint64_t bytes = uint64_t(1) << 30;
    if (Result<std::string> text = ConfigGetString("g_maxImageBytes"))
        (void)std::from_chars(text->data(), text->data() + text->size(), bytes);
    return bytes;
}

Result<void> CheckOptions(const SheetOptions& o) {
    if (o.materials.empty())
        return IllegalArgumentError(KELVO_HERE, "Give at least one --material.");
    if (o.width < 1 || o.height < 1 || o.width > kMaxSide || o.height > kMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Preview size @ x @ is out of range.", o.width,
                                    o.height);
    // Refused before anything renders: a size the checks above accept can still need more
    // than a picture may take (16384 x 16384 swatches would take tens of GB).
    const uint64_t need =
        uint64_t(o.width) * uint64_t(o.height) * o.materials.size() * kBytesPerSwatchPixel;
    if (need > MaxImageBytes())
        return IllegalArgumentError(
            KELVO_HERE,
            "@ swatches of @ x @ need @ bytes of buffers, more than @ (g_maxImageBytes).",
            o.materials.size(), o.width, o.height, need, MaxImageBytes());
    PREVIEWSCENE scene;
    if (!ParsePreviewScene(o.scene, scene))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    o.scene);
    if (o.iterations < 1 || o.iterations > kMaxIterations)
        return IllegalArgumentError(KELVO_HERE, "--iterations must be an integer from 1 to @.",
                                    kMaxIterations);
    if (o.priority < 0 || o.priority > int(o.materials.size()))
        return IllegalArgumentError(KELVO_HERE, "--priority must be a swatch number from 1 to @.",
                                    o.materials.size());
    return OK();
}

// One swatch's request, configured by its node space; nullptr with the swatch failed when
// the material has no node space.
Result<StrongRef<nodes::PreviewImageRequestInterface>> MakeRequest(
    const SheetOptions& options, const std::string& text, bool priority,
    const std::shared_ptr<SwatchState>& state, Clock::time_point start) {
    KELVO_ASSIGN_OR_RETURN(json j, ParseJsonObject(text, "--material"));
    std::string space(kLegacyMaterialNodeSpace.Text());
    if (j.contains("space")) {
        KELVO_ASSIGN_OR_RETURN(space, ReadString(j["space"], "space"));
        j.erase("space");
    }
    std::string label = "lambertbrdf";
    if (j.contains("model") && j["model"].is_string()) label = j["model"].get<std::string>();
    state->outcome.label = label.substr(label.rfind('.') + 1);
    state->outcome.count = options.iterations;

    KELVO_ASSIGN_OR_RETURN(Id spaceId, Id::FromText(space));
    KELVO_ASSIGN_OR_RETURN(auto configure, FindConfigure(spaceId));
    if (!configure) {
        state->outcome.error = FormatMessage("Illegal argument: Node space @ not found.", space);
        state->outcome.placeholder = std::string(nodes::kPlaceholderNoSpace.Text());
        state->done = true;
        return StrongRef<nodes::PreviewImageRequestInterface>();
    }
    DataDictionary material;
    KELVO_TRY(material.Set(PREVIEWMATERIAL::JSON, j.dump()));

    KELVO_ASSIGN_OR_RETURN(auto request, nodes::CreatePreviewImageRequest());
    DataDictionary& data = *request->GetData();
    const int64_t pixels = options.width * options.height;
    KELVO_ASSIGN_OR_RETURN(
        Data callback,
        nodes::MakeResultCompleteFunc([state, start, pixels](const Result<DataDictionary>& result) {
            Record(*state, result, Since(start), pixels);
        }));
    KELVO_TRY(data.Set(REQUEST::RESULTCOMPLETEFUNC, std::move(callback)));
    KELVO_TRY(data.Set(REQUEST::TEXTURESIZE, Vec2{double(options.width), double(options.height)}));
    KELVO_TRY(data.Set(REQUEST::ITERATIONCOUNT, options.iterations));
    KELVO_TRY(data.Set(REQUEST::SCENETYPE, options.scene));
    KELVO_TRY(data.Set(PREVIEWPROVIDERREQUEST::SEED, int64_t(options.seed)));
    KELVO_TRY(data.Set(REQUEST::PURPOSE, int64_t(priority ? nodes::PREVIEWIMAGEPURPOSE::PRIORITY
                                                          : nodes::PREVIEWIMAGEPURPOSE::NORMAL)));
    KELVO_TRY(configure->Configure(material, data));
    return request;
}

}  // namespace

namespace {
// Linear light to 8-bit sRGB, clamped.
uint8_t ToSrgb8(float v) {
    double x = std::clamp(double(v), 0.0, 1.0);
    x = x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1.0 / 2.4) - 0.055;
    return uint8_t(std::lround(x * 255.0));
}
}  // namespace

Result<void> WriteLinearImage(const std::filesystem::path& output, const std::vector<float>& rgb,
                              int64_t w, int64_t h) {
    KELVO_ASSIGN_OR_RETURN(Url target, Url::FromText(output.string()));
    const bool exr = CheckSuffix(target, "exr");
    const PixelFormat format = exr ? kPixelRgb32f : kPixelRgb8;
    const COLORPROFILE profile = exr ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(w, h));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(w, h, format, profile));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, profile));
    std::vector<uint8_t> row(size_t(w) * 3);
    for (int64_t y = 0; y < h; ++y) {
        const float* src = &rgb[size_t(y * w * 3)];
        if (exr) {
            KELVO_TRY(writer->SetPixels(0, y, w, src));
        } else {
            for (size_t i = 0; i < row.size(); ++i) row[i] = ToSrgb8(src[i]);
            KELVO_TRY(writer->SetPixels(0, y, w, row.data()));
        }
    }
    KELVO_TRY(image->AddLayer(layer));
    std::filesystem::path path = host::LocalPath(target);
    if (path.empty()) return ExportImage(target, *image);
    return WriteOutput(path, [&](const std::filesystem::path& at) {
        return ExportImage(Url::FromFile(at.string()), *image);
    });
}

Result<SheetOutcome> RenderSheet(const SheetOptions& options) {
    KELVO_TRY(CheckOptions(options));
    const size_t n = options.materials.size();
    const Clock::time_point start = Clock::now();
    std::vector<std::shared_ptr<SwatchState>> swatches;
    std::vector<StrongRef<nodes::PreviewImageRequestInterface>> requests(n);
    // Lets go of every preview however the run ends; each release waits for its iteration.
    struct Release {
        std::vector<StrongRef<nodes::PreviewImageRequestInterface>>& requests;
        ~Release() {
            for (auto& r : requests)
                if (r) r->Reset();
        }
    } release{requests};

    for (size_t i = 0; i < n; ++i) {
        swatches.push_back(std::make_shared<SwatchState>());
        KELVO_ASSIGN_OR_RETURN(
            requests[i], MakeRequest(options, options.materials[i], int(i) + 1 == options.priority,
                                     swatches[i], start));
    }

    InterruptGuard interrupts;
    // The priority swatch is submitted once the others are under way, as when the swatch
    // being edited changes while the sheet refines: it preempts them.
    const size_t priority = options.priority > 0 ? size_t(options.priority - 1) : n;
    auto submit = [&](size_t i) -> Result<void> {
        if (!requests[i]) return OK();
        {
            std::lock_guard lock(swatches[i]->lock);
            swatches[i]->submitted = Since(start);
        }
        return requests[i]->Submit();
    };
    for (size_t i = 0; i < n; ++i)
        if (i != priority) KELVO_TRY(submit(i));

    LiveDisplay display(options.progress);
    bool prioritySubmitted = priority >= n;
    SheetOutcome sheet;
    for (;;) {
        bool allDone = true, anyImage = false, othersDone = true;
        for (size_t i = 0; i < n; ++i) {
            std::lock_guard lock(swatches[i]->lock);
            allDone = allDone && swatches[i]->done;
            if (i != priority) {
                anyImage = anyImage || swatches[i]->outcome.iterations > 0;
                othersDone = othersDone && swatches[i]->done;
            }
        }
        if (!prioritySubmitted && (anyImage || othersDone)) {
            KELVO_TRY(submit(priority));
            prioritySubmitted = true;
            continue;
        }
        display.Draw(swatches, Since(start));
        if (allDone) break;
        if (g_interrupted.load()) {
            sheet.cancelled = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    for (auto& r : requests)
        if (r) r->Reset();
    sheet.seconds = Since(start);
    display.Draw(swatches, sheet.seconds);

    for (const auto& s : swatches) {
        std::lock_guard lock(s->lock);
        SwatchOutcome o = s->outcome;
        if (!o.error.empty()) {
            ++sheet.failed;
            if (o.placeholder.empty()) o.placeholder = std::string(nodes::kPlaceholderError.Text());
            KELVO_ASSIGN_OR_RETURN(Id reason, Id::FromText(o.placeholder));
            o.rgb = PlaceholderCell(reason, options.width, options.height);
        }
        sheet.swatches.push_back(std::move(o));
    }
    return sheet;
}

Result<void> WriteSheet(const std::filesystem::path& output, const SheetOutcome& sheet,
                        int64_t width, int64_t height) {
    const int64_t n = int64_t(sheet.swatches.size());
    // About square; one column more when that fills the last row (15 swatches: 5 x 3).
    int64_t columns = std::max<int64_t>(1, int64_t(std::ceil(std::sqrt(double(n)))));
    if (n % columns != 0 && n % (columns + 1) == 0) ++columns;
    const int64_t rows = std::max<int64_t>(1, (n + columns - 1) / columns);
    const int64_t w = columns * width, h = rows * height;
    std::vector<float> rgb(size_t(w * h * 3), 0.0f);
    for (int64_t i = 0; i < n; ++i) {
        const std::vector<float>& cell = sheet.swatches[size_t(i)].rgb;
        if (cell.size() != size_t(width * height * 3)) continue;  // nothing arrived
        const int64_t x0 = (i % columns) * width, y0 = (i / columns) * height;
        for (int64_t y = 0; y < height; ++y)
            std::copy_n(&cell[size_t(y * width * 3)], width * 3,
                        &rgb[size_t(((y0 + y) * w + x0) * 3)]);
    }
    return WriteLinearImage(output, rgb, w, h);
}

json SheetReport(const SheetOptions& options, const SheetOutcome& sheet) {
    auto seconds = [](double s) { return s < 0.0 ? json(nullptr) : json(s); };
    json swatches = json::array();
    int64_t preemptions = 0;
    for (const SwatchOutcome& o : sheet.swatches) {
        json s = {{"material", o.label},
                  {"iterations", o.iterations},
                  {"firstImageSeconds", seconds(o.firstImageSeconds)},
                  {"finalImageSeconds", seconds(o.finalImageSeconds)},
                  {"preemptions", o.preemptions},
                  {"rays", o.rays},
                  {"raysPerSecond", o.renderSeconds > 0.0 ? double(o.rays) / o.renderSeconds : 0.0},
                  {"intersector", o.intersector}};
        if (!o.error.empty()) {
            s["error"] = o.error;
            s["placeholder"] = o.placeholder;
        }
        preemptions += o.preemptions;
        swatches.push_back(std::move(s));
    }
    json report = {{"scene", options.scene},         {"width", options.width},
                   {"height", options.height},       {"iterations", options.iterations},
                   {"seconds", sheet.seconds},       {"cancelled", sheet.cancelled},
                   {"failed", sheet.failed},         {"preemptions", preemptions},
                   {"swatches", std::move(swatches)}};
    if (sheet.swatches.size() == 1) {
        // One swatch: the renderer's own figures at the top, as for a single render.
        const SwatchOutcome& o = sheet.swatches[0];
        report["samplesPerPixel"] = o.iterations;
        report["intersector"] = o.intersector;
        report["rays"] = o.rays;
        report["raysPerSecond"] = o.renderSeconds > 0.0 ? double(o.rays) / o.renderSeconds : 0.0;
        report["secondsPerIteration"] = o.iterationSeconds;
    }
    return report;
}

}  // namespace kelvo::cli
