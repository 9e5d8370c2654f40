// kelvo preview simulate: synthetic previews through the real preview pipeline (requests,
// scheduler, iteration jobs, deliveries), to watch its round-robin refinement, priority
// preemption and cancellation, and to measure what it costs between iterations.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/nodes/previewimage.h"

namespace kelvo::cli {
namespace {

using Clock = std::chrono::steady_clock;
using nodes::PreviewImageIterationState;
using nodes::PreviewImageProviderOutputImage;
using nodes::PreviewImageSamples;
namespace PREVIEWIMAGEREQUEST = nodes::PREVIEWIMAGEREQUEST;

struct SimulateOptions {
    int64_t tasks = 8;
    int64_t iterations = 16;
    double spinMs = 2.0;
    int64_t priority = 1;
    int64_t cancel = 1;
    int64_t size = 16;
    uint64_t seed = 1;
    bool json = false;
};

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// What one task did, written by the queue threads and read by the main thread.
struct TaskRecord {
    bool priority = false;
    int64_t cancelAfter = -1;  // images (by index) before the cancellation; -1 for none
    nodes::PreviewImageRequestInterface* request = nullptr;
    std::atomic<bool> cancelled{false};
    std::atomic<bool> done{false};
    std::atomic<int64_t> iterations{0};
    std::atomic<int64_t> deliveries{0};
    std::atomic<int64_t> preemptions{0};
    std::atomic<int64_t> lastIndex{-1};
    std::atomic<double> firstImageMs{-1.0};
    std::mutex errorLock;
    std::string error;
};

// Shared by the provider, its tasks and the result callbacks; outlives all of them.
struct Simulation {
    SimulateOptions options;
    Clock::time_point start = Clock::now();
    std::vector<std::unique_ptr<TaskRecord>> tasks;
    std::mutex busyLock;
    std::vector<std::pair<double, double>> busy;  // iteration [start, end] in ms

    void Busy(double from, double to) {
        std::lock_guard lock(busyLock);
        busy.emplace_back(from, to);
    }
    double Now() const { return Ms(Clock::now() - start); }
};

// One preview: iteration k spins for the given time and paints the grey (k + 1) / count.
class SimulatedTask final : public Implements<nodes::PreviewImageProviderTaskInterface> {
public:
    SimulatedTask(Simulation& sim, TaskRecord& record) : _sim(sim), _record(record) {}

    Result<void> Iterate(JobInterface& job) override {
        // The last image is done. A preemption that landed after its work discarded its
        // delivery; running again without advancing has the scheduler deliver it now.
        if (_index.load() + 1 >= _sim.options.iterations) return OK();
        const double from = _sim.Now();
        const auto until =
            Clock::now() + std::chrono::duration<double, std::milli>(_sim.options.spinMs);
        while (Clock::now() < until)
            if (job.IsCancelled()) break;
        _sim.Busy(from, _sim.Now());
        if (job.IsCancelled()) {
            // Stopped half-way: a preemption, unless the requester let go.
            if (!_record.cancelled.load()) _record.preemptions.fetch_add(1);
            return OK();
        }
        const int64_t index = _index.load() + 1;
        const float grey = float(index + 1) / float(_sim.options.iterations);
        KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSamples> samples,
                               NewObject<PreviewImageSamples>());
        KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
            samples->assign(size_t(_sim.options.size * _sim.options.size),
                            Col4f{grey, grey, grey, 1.0f});
            return OK();
        }));
        {
            std::lock_guard lock(_lock);
            _samples = std::move(samples);
        }
        _index.store(index);
        _record.iterations.fetch_add(1);
        return OK();
    }
    Result<PreviewImageIterationState> GetState() const override {
        return PreviewImageIterationState{_index.load(), _sim.options.iterations};
    }
    Result<DataDictionary> GetResult() const override {
        PreviewImageProviderOutputImage image{_sim.options.size, _sim.options.size, nullptr,
                                              _index.load() + 1 == _sim.options.iterations};
        {
            std::lock_guard lock(_lock);
            image.samples = _samples;
        }
        KELVO_ASSIGN_OR_RETURN(Data value, nodes::MakeOutputImageData(image));
        DataDictionary result;
        KELVO_TRY(result.Set(Id("net.kelvo.preview.simulate.image"), std::move(value)));
        return result;
    }

private:
    Simulation& _sim;
    TaskRecord& _record;
    std::atomic<int64_t> _index{-1};
    mutable std::mutex _lock;  // guards _samples
    StrongRef<PreviewImageSamples> _samples;
};

class SimulatedProvider final : public Implements<nodes::PreviewImageProviderInterface> {
public:
    explicit SimulatedProvider(Simulation& sim) : _sim(sim) {}
    Result<StrongRef<nodes::PreviewImageProviderTaskInterface>> CreateTask(
        const DataDictionary& request) override {
        const int64_t i = request.Get<int64_t>(PREVIEWIMAGEREQUEST::SUBJECT, -1);
        if (i < 0 || i >= int64_t(_sim.tasks.size()))
            return IllegalArgumentError(KELVO_HERE, "Unknown simulated task @.", i);
        KELVO_ASSIGN_OR_RETURN(auto task, NewObject<SimulatedTask>(_sim, *_sim.tasks[size_t(i)]));
        return StrongRef<nodes::PreviewImageProviderTaskInterface>(std::move(task));
    }

private:
    Simulation& _sim;
};

Result<void> CheckOptions(const SimulateOptions& o) {
    auto range = [](int64_t v, int64_t lo, int64_t hi, const char* option) -> Result<void> {
        if (v < lo || v > hi)
            return IllegalArgumentError(KELVO_HERE, "@ must be from @ to @.", option, lo, hi);
        return OK();
    };
    KELVO_TRY(range(o.tasks, 1, 1000, "--tasks"));
    KELVO_TRY(range(o.iterations, 1, 100000, "--iterations"));
    KELVO_TRY(range(o.priority, 0, o.tasks, "--priority"));
    KELVO_TRY(range(o.cancel, 0, o.tasks, "--cancel"));
    KELVO_TRY(range(o.size, 1, 1024, "--size"));
    if (!(o.spinMs >= 0.0 && o.spinMs <= 1000.0))
        return IllegalArgumentError(KELVO_HERE, "--spin must be from 0 to 1000 ms.");
    return OK();
}

// Lets go of the task's request, from its own result callback or from the main thread;
// nothing is delivered after this returns.
void Cancel(TaskRecord& record) {
    record.cancelled.store(true);
    record.request->Reset();
    record.done.store(true);
}

Result<StrongRef<nodes::PreviewImageRequestInterface>> MakeRequest(
    Simulation& sim, const StrongRef<SimulatedProvider>& provider, size_t i) {
    TaskRecord& record = *sim.tasks[i];
    KELVO_ASSIGN_OR_RETURN(auto request, nodes::CreatePreviewImageRequest());
    DataDictionary& data = *request->GetData();
    KELVO_ASSIGN_OR_RETURN(
        Data callback,
        nodes::MakeResultCompleteFunc([&sim, &record](const Result<DataDictionary>& r) {
            if (!r) {
                std::lock_guard lock(record.errorLock);
                record.error = r.GetError().Message();
                record.done.store(true);
                return;
            }
            const int64_t index = r->Get<int64_t>(PREVIEWIMAGEREQUEST::ITERATIONINDEX, -1);
            if (record.deliveries.fetch_add(1) == 0) record.firstImageMs.store(sim.Now());
            record.lastIndex.store(index);
            // By the image's index, not by the count of deliveries: a preemption may discard
            // an image, and the cancellation must still come. From the callback itself, so it
            // cannot come too late.
            if (record.cancelAfter > 0 && index + 1 >= record.cancelAfter)
                Cancel(record);
            else if (index + 1 >= sim.options.iterations)
                record.done.store(true);
        }));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC, std::move(callback)));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE,
                       Vec2{double(sim.options.size), double(sim.options.size)}));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::PROVIDER, StrongRef<Object>(provider)));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::SUBJECT, int64_t(i)));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::ITERATIONCOUNT, sim.options.iterations));
    KELVO_TRY(data.Set(PREVIEWIMAGEREQUEST::PURPOSE,
                       int64_t(record.priority ? nodes::PREVIEWIMAGEPURPOSE::PRIORITY
                                               : nodes::PREVIEWIMAGEPURPOSE::NORMAL)));
    return request;
}

// One line per task, redrawn in place.
void DrawLines(const Simulation& sim, bool again) {
    const size_t n = sim.tasks.size();
    if (again) std::fprintf(stderr, "\x1b[%zuA", n);
    for (size_t i = 0; i < n; ++i) {
        const TaskRecord& t = *sim.tasks[i];
        const int64_t shown = t.lastIndex.load() + 1;
        const int width = 20;
        const int filled = int(shown * width / sim.options.iterations);
        std::string bar(size_t(filled), '#');
        bar.resize(width, '.');
        std::fprintf(stderr, "\r\x1b[Ktask %3zu %-8s [%s] %lld/%lld  preempted %lld%s\n", i,
                     t.priority ? "priority" : "normal", bar.c_str(), (long long)shown,
                     (long long)sim.options.iterations, (long long)t.preemptions.load(),
                     t.cancelled.load() ? "  cancelled" : (t.done.load() ? "  done" : ""));
    }
    std::fflush(stderr);
}

// The time within [0, end] in which no iteration ran: what the pipeline spent between them.
double IdleMs(std::vector<std::pair<double, double>> busy, double end) {
    std::sort(busy.begin(), busy.end());
    double covered = 0.0, reach = 0.0;
    for (const auto& [from, to] : busy) {
        const double a = std::max(from, reach), b = std::min(to, end);
        if (b > a) covered += b - a;
        reach = std::max(reach, to);
    }
    return std::max(0.0, end - covered);
}

Result<void> Simulate(const SimulateOptions& o) {
    KELVO_TRY(CheckOptions(o));
    Simulation sim;
    sim.options = o;
    std::mt19937_64 random(o.seed);
    for (int64_t i = 0; i < o.tasks; ++i) sim.tasks.push_back(std::make_unique<TaskRecord>());
    // The last tasks are the priority ones, submitted once the first normal image is there,
    // as a user editing one swatch while the others refine.
    for (int64_t i = o.tasks - o.priority; i < o.tasks; ++i) sim.tasks[size_t(i)]->priority = true;
    std::vector<size_t> order(sim.tasks.size());
    for (size_t i = 0; i < order.size(); ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), random);
    // A cancelled task stops after a random number of its images, before its last one;
    // a task of one iteration is cancelled as soon as it is submitted.
    for (int64_t c = 0; c < o.cancel; ++c)
        sim.tasks[order[size_t(c)]]->cancelAfter =
            o.iterations < 2 ? 0 : 1 + int64_t(random() % uint64_t(o.iterations - 1));

    KELVO_ASSIGN_OR_RETURN(auto provider, NewObject<SimulatedProvider>(sim));
    std::vector<StrongRef<nodes::PreviewImageRequestInterface>> requests;
    for (size_t i = 0; i < sim.tasks.size(); ++i) {
        KELVO_ASSIGN_OR_RETURN(auto request, MakeRequest(sim, provider, i));
        sim.tasks[i]->request = request.get();
        requests.push_back(std::move(request));
    }
    // Lets go of every preview however the run ends: none may outlive `sim`.
    struct Releaser {
        std::vector<StrongRef<nodes::PreviewImageRequestInterface>>& requests;
        ~Releaser() {
            for (auto& r : requests) r->Reset();
        }
    } releaser{requests};

    sim.start = Clock::now();
    bool prioritySubmitted = o.priority == 0;
    for (size_t i = 0; i < sim.tasks.size(); ++i)
        if (!sim.tasks[i]->priority) KELVO_TRY(requests[i]->Submit());

    const bool live = isatty(STDERR_FILENO) != 0;
    // Far more than any run needs: a pipeline that stops delivering ends the run with an error.
    const double limitMs = 10000.0 + 20.0 * o.spinMs * double(o.tasks) * double(o.iterations);
    auto lastDraw = Clock::now();
    if (live) DrawLines(sim, false);
    for (;;) {
        bool allDone = true;
        bool anyImage = false;
        for (size_t i = 0; i < sim.tasks.size(); ++i) {
            TaskRecord& t = *sim.tasks[i];
            anyImage |= t.deliveries.load() > 0;
            if (t.cancelAfter == 0 && !t.cancelled.load() && !t.done.load() &&
                (!t.priority || prioritySubmitted))
                Cancel(t);
            allDone &= t.done.load() || (t.priority && !prioritySubmitted);
        }
        if (!prioritySubmitted && (anyImage || o.priority == o.tasks)) {
            for (size_t i = 0; i < sim.tasks.size(); ++i)
                if (sim.tasks[i]->priority) KELVO_TRY(requests[i]->Submit());
            prioritySubmitted = true;
            continue;
        }
        if (allDone && prioritySubmitted) break;
        if (sim.Now() > limitMs)
            return UnexpectedError(KELVO_HERE, "The simulation did not finish within @ s.",
                                   limitMs / 1000.0);
        if (live && Clock::now() - lastDraw > std::chrono::milliseconds(100)) {
            DrawLines(sim, true);
            lastDraw = Clock::now();
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    const double wallMs = sim.Now();
    for (auto& r : requests) r->Reset();
    if (live) DrawLines(sim, true);

    std::vector<std::pair<double, double>> busy;
    {
        std::lock_guard lock(sim.busyLock);
        busy = sim.busy;
    }
    double busyEnd = 0.0;
    for (const auto& b : busy) busyEnd = std::max(busyEnd, b.second);
    const double idleMs = IdleMs(busy, busyEnd);
    int64_t iterations = 0;
    for (const auto& t : sim.tasks) iterations += t->iterations.load();
    const double perIterationUs = iterations ? idleMs * 1000.0 / double(iterations) : 0.0;

    if (o.json) {
        JsonWriter w;
        w.Object().Key("tasks").Array();
        for (size_t i = 0; i < sim.tasks.size(); ++i) {
            TaskRecord& t = *sim.tasks[i];
            w.Object()
                .Key("task")
                .Integer((long long)i)
                .Key("priority")
                .Bool(t.priority)
                .Key("cancelled")
                .Bool(t.cancelled.load())
                .Key("iterations")
                .Integer(t.iterations.load())
                .Key("deliveries")
                .Integer(t.deliveries.load())
                .Key("preemptions")
                .Integer(t.preemptions.load())
                .Key("firstImageMs");
            if (t.firstImageMs.load() < 0.0)
                w.Null();
            else
                w.Number(t.firstImageMs.load());
            std::lock_guard lock(t.errorLock);
            if (!t.error.empty()) w.Key("error").String(t.error);
            w.End();
        }
        w.End()
            .Key("wallMs")
            .Number(wallMs)
            .Key("iterations")
            .Integer(iterations)
            .Key("idleMs")
            .Number(idleMs)
            .Key("overheadPerIterationUs")
            .Number(perIterationUs)
            .End();
        std::cout << w.Text() << '\n';
        return OK();
    }
    std::printf("task  kind      iterations  deliveries  preemptions  first image\n");
    for (size_t i = 0; i < sim.tasks.size(); ++i) {
        TaskRecord& t = *sim.tasks[i];
        std::printf("%4zu  %-8s  %10lld  %10lld  %11lld  ", i, t.priority ? "priority" : "normal",
                    (long long)t.iterations.load(), (long long)t.deliveries.load(),
                    (long long)t.preemptions.load());
        if (t.firstImageMs.load() < 0.0)
            std::printf("%11s", "-");
        else
            std::printf("%8.2f ms", t.firstImageMs.load());
        std::lock_guard lock(t.errorLock);
        std::printf("%s%s\n", t.cancelled.load() ? "  cancelled" : "",
                    t.error.empty() ? "" : ("  " + t.error).c_str());
    }
    std::printf(
        "%lld iterations in %.1f ms; no iteration ran for %.2f ms: %.1f us of scheduler "
        "overhead per iteration\n",
        (long long)iterations, wallMs, idleMs, perIterationUs);
    return OK();
}

}  // namespace

void AddPreviewSimulateCommand(CLI::App& preview, Context& context, int& status) {
    auto o = std::make_shared<SimulateOptions>();
    auto* cmd = preview.add_subcommand(
        "simulate",
        "Run synthetic previews through the preview pipeline: some priority, some cancelled at "
        "random; a live line per task on a terminal, then iterations, deliveries, preemptions, "
        "time to first image and the scheduler's overhead per iteration");
    cmd->add_option("--tasks", o->tasks, "Previews to run")->capture_default_str();
    cmd->add_option("--iterations", o->iterations, "Iterations of each preview")
        ->capture_default_str();
    cmd->add_option("--spin", o->spinMs, "Milliseconds each iteration spins")
        ->capture_default_str();
    cmd->add_option("--priority", o->priority,
                    "Previews submitted as priority ones once the first image is there")
        ->capture_default_str();
    cmd->add_option("--cancel", o->cancel, "Previews cancelled at a random point")
        ->capture_default_str();
    cmd->add_option("--size", o->size, "Image side in pixels")->capture_default_str();
    cmd->add_option("--seed", o->seed, "Random seed (which previews are cancelled, and when)")
        ->capture_default_str();
    cmd->add_flag("--json", o->json, "Print the report as JSON");
    cmd->callback(
        [&context, &status, o] { RunCommand(context, status, [&] { return Simulate(*o); }); });
}

}  // namespace kelvo::cli
