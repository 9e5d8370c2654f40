#include "spaces/previewimage_worker.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "spaces/previewimage_scheduler.h"

namespace kelvo::nodes {
namespace {

// Task ids: one per built entry, never reused while the process runs.
std::atomic<uint64_t> g_lastTaskId{0};

// The entry whose result callback runs on this thread: a callback that releases its own
// request must not wait for the job that is calling it.
thread_local const PreviewImageSchedulerEntry* t_delivering = nullptr;

// Sizes above this are refused like sizes below 1: a request cannot ask for an image that
// no allocation could hold.
constexpr double kMaxTextureSide = 16777216.0;

Result<PreviewImageSize> ReadTextureSize(const DataDictionary& request) {
    const Data* d = request.Find(PREVIEWIMAGEREQUEST::TEXTURESIZE);
    const Vec2* size = d ? d->Get<Vec2>() : nullptr;
    if (!size || !(size->x >= 1.0 && size->x <= kMaxTextureSide) ||
        !(size->y >= 1.0 && size->y <= kMaxTextureSide))
        return IllegalArgumentError(KELVO_HERE, "Invalid Image Size");
    return PreviewImageSize{int64_t(size->x), int64_t(size->y)};
}

// The provider named by the request: a class id of the provider registry or an object.
Result<StrongRef<PreviewImageProviderInterface>> ReadProvider(const DataDictionary& request,
                                                              const EntryRecord*& record) {
    record = nullptr;
    const Data* d = request.Find(PREVIEWIMAGEREQUEST::PROVIDER);
    if (!d) return StrongRef<PreviewImageProviderInterface>();
    if (const Id* id = d->Get<Id>()) {
        KELVO_ASSIGN_OR_RETURN(auto provider, CreateClass<PreviewImageProviderInterface>(*id));
        record = FindEntry(*id);
        return provider;
    }
    if (const StrongRef<Object>* o = d->Get<StrongRef<Object>>())
        return Query<PreviewImageProviderInterface>(*o);
    return StrongRef<PreviewImageProviderInterface>();
}

}  // namespace

Result<StrongRef<PreviewImageSchedulerEntry>> PreviewImageSchedulerEntry::Create(
    const DataDictionary& request) {
    return Create(request, nullptr);
}

Result<StrongRef<PreviewImageSchedulerEntry>> PreviewImageSchedulerEntry::Create(
    const DataDictionary& request, StrongRef<PreviewImageProviderTaskInterface> task) {
    StrongRef<PreviewImageResultCompleteFuncInterface> resultComplete;
    if (const Data* d = request.Find(PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC))
        if (const StrongRef<Object>* o = d->Get<StrongRef<Object>>())
            resultComplete = Query<PreviewImageResultCompleteFuncInterface>(*o);
    if (!resultComplete) return IllegalArgumentError(KELVO_HERE, "Invalid ResultCompleteFunc()");
    KELVO_ASSIGN_OR_RETURN(PreviewImageSize size, ReadTextureSize(request));

    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSchedulerEntry> entry,
                           NewObject<PreviewImageSchedulerEntry>());
    entry->_resultComplete = std::move(resultComplete);
    entry->_textureSize = size;
    entry->_upscaleProgression = request.Get<bool>(PREVIEWIMAGEREQUEST::UPSCALEPROGRESSION, false);
    entry->_flipVertically = request.Get<bool>(PREVIEWIMAGEREQUEST::FLIPVERTICALLY, false);
    if (task) {
        entry->_task = std::move(task);
    } else {
        KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageProviderInterface> provider,
                               ReadProvider(request, entry->_providerRecord));
        if (provider) {
            KELVO_ASSIGN_OR_RETURN(entry->_task, provider->CreateTask(request));
        }
    }
    KELVO_ASSIGN_OR_RETURN(entry->_completion, CreateConditionVariable());
    entry->_id = g_lastTaskId.fetch_add(1, std::memory_order_relaxed) + 1;
    return entry;
}

Result<void> PreviewImageSchedulerEntry::Start(const StrongRef<JobQueueInterface>& queue) {
    std::lock_guard slot(_slotLock);
    if (_job) return IllegalStateError(KELVO_HERE, "The task has already started");
    _interrupt.store(0);
    if (!_task) return IllegalArgumentError(KELVO_HERE, "Invalid user task");
    // The work holds the task by pointer, which fits in the function object (no allocation
    // for the work). The observer keeps it alive meanwhile: a job holds its observers until
    // its work has ended. The observer lets go of it first thing, so that nothing of the
    // provider is held once a waiter for the job has returned.
    PreviewImageProviderTaskInterface* task = _task.get();
    KELVO_ASSIGN_OR_RETURN(StrongRef<JobInterface> job,
                           CreateJob(kPreviewImageIterationJobName,
                                     [task](JobInterface& self) { return task->Iterate(self); }));
    KELVO_TRY(job->AddObserver(
        [weak = weak_from_this(), id = _id, keep = _task](JobInterface& ended) mutable {
            keep.reset();
            if (StrongRef<PreviewImageSchedulerEntry> self = weak.lock())
                self->EndOfIteration(ended);
            else
                EndOfOrphanIteration(id);
        }));
    _job = job;
    Result<void> queued = queue->Enqueue(job);
    if (!queued) _job.reset();
    return queued;
}

bool PreviewImageSchedulerEntry::Interrupt(uint8_t flag) {
    if (flag == 0) {
        // Waits for a delivery in flight; after this nothing more reaches the requester.
        std::lock_guard delivery(_deliveryMutex);
        _closed = true;
    }
    _interrupt.store(flag);
    StrongRef<JobInterface> job;
    {
        std::lock_guard slot(_slotLock);
        job = _job;
    }
    if (!job) return false;
    job->Cancel();
    if (t_delivering != this) (void)job->Wait();
    return true;
}

void PreviewImageSchedulerEntry::Fail(const Error& error) {
    Deliver(error);
    {
        std::lock_guard delivery(_deliveryMutex);
        _closed = true;
    }
    SetCompleted();
}

void PreviewImageSchedulerEntry::ReleaseTask() {
    StrongRef<PreviewImageProviderTaskInterface> task;
    std::lock_guard slot(_slotLock);
    task = std::move(_task);
}

void PreviewImageSchedulerEntry::EndOfOrphanIteration(uint64_t id) {
    PreviewImageScheduler::Finish(id, false, false);
}

void PreviewImageSchedulerEntry::EndOfIteration(JobInterface& job) {
    // The job stays in the slot while the result is delivered, so that Interrupt waits
    // for the delivery too.
    bool held;
    bool quiet;
    StrongRef<PreviewImageProviderTaskInterface> task;
    {
        std::lock_guard slot(_slotLock);
        held = _job.get() == &job;
        quiet = _interrupt.load() != 0;
        task = _task;
    }
    bool requeue = false;
    if (!held) {
        Deliver(IllegalStateError(KELVO_HERE, "The iteration ended outside its task"));
    } else if (job.IsCancelled()) {
        requeue = quiet;  // preempted: run the iteration again later
    } else {
        Result<PreviewImageIterationState> state =
            task ? task->GetState() : PreviewImageIterationState{};
        Result<void> ran = job.GetResult();
        if (!state) {
            Deliver(state.GetError());
        } else if (!ran) {
            Deliver(ran.GetError());
        } else if (state->index >= 0 && state->index < state->count) {
            bool delivered = true;
            if (state->index != _lastDeliveredIndex) {
                delivered = DeliverResult(task, *state).Ok();
                _lastDeliveredIndex = state->index;
            }
            requeue = delivered && _lastDeliveredIndex + 1 < state->count;
        }
    }
    if (_closed.load()) requeue = false;
    if (!requeue) SetCompleted();
    {
        std::lock_guard slot(_slotLock);
        if (_job.get() == &job) _job.reset();
    }
    PreviewImageScheduler::Finish(_id, requeue, quiet);
}

Result<void> PreviewImageSchedulerEntry::DeliverResult(
    const StrongRef<PreviewImageProviderTaskInterface>& task,
    const PreviewImageIterationState& state) {
    Result<void> made = CatchOutOfMemory([&]() -> Result<void> {
        if (!task) return IllegalArgumentError(KELVO_HERE, "Invalid user task");
        KELVO_ASSIGN_OR_RETURN(DataDictionary result, task->GetResult());
        KELVO_TRY(result.Set(PREVIEWIMAGEREQUEST::ITERATIONINDEX, state.index));
        KELVO_TRY(result.Set(PREVIEWIMAGEREQUEST::ITERATIONCOUNT, state.count));
        std::vector<DataDictionary::Key, Allocator<DataDictionary::Key>> keys;
        for (const auto& [key, value] : result)
            if (GetOutputImage(value)) keys.push_back(key);
        for (const DataDictionary::Key& key : keys) {
            PreviewImageProviderOutputImage image = *GetOutputImage(*result.Find(key));
            PreviewImageSize size{image.width, image.height};
            PreviewImageSize target = _upscaleProgression ? _textureSize : size;
            if (size == target && !_flipVertically) continue;  // delivered as it is
            KELVO_ASSIGN_OR_RETURN(
                image.samples,
                ResizeAndFlipSamplesBuffer(image.samples, size, target, _flipVertically));
            image.width = target.width;
            image.height = target.height;
            KELVO_ASSIGN_OR_RETURN(Data stored, MakeOutputImageData(image));
            KELVO_TRY(result.Set(key, std::move(stored)));
        }
        Deliver(std::move(result));
        return OK();
    });
    if (!made) Deliver(made.GetError());
    return made;
}

void PreviewImageSchedulerEntry::Deliver(const Result<DataDictionary>& result) {
    std::lock_guard delivery(_deliveryMutex);
    if (_closed) return;
    const PreviewImageSchedulerEntry* outer = std::exchange(t_delivering, this);
    _resultComplete->Call(result);
    t_delivering = outer;
}

void PreviewImageSchedulerEntry::SetCompleted() {
    bool expected = false;
    if (!_completed.compare_exchange_strong(expected, true)) return;
    _completionCount.fetch_add(1);
    _completion->Set();
}

Result<StrongRef<PreviewImageSamples>> PreviewImageSchedulerEntry::ResizeAndFlipSamplesBuffer(
    const StrongRef<PreviewImageSamples>& samples, PreviewImageSize sourceSize,
    PreviewImageSize targetSize, bool flip) {
    if (!samples) return IllegalArgumentError(KELVO_HERE, "Invalid Sample Buffer");
    const int64_t sw = sourceSize.width, sh = sourceSize.height;
    if (sw < 0 || sh < 0 || (sh > 0 && uint64_t(sw) > SIZE_MAX / uint64_t(sh)) ||
        size_t(sw) * size_t(sh) != samples->size())
        return IllegalArgumentError(KELVO_HERE, "Invalid sample buffer.");
    // A negative target size is an empty image, not an error: the swatch may not be laid out yet.
    const int64_t tw = std::max<int64_t>(targetSize.width, 0);
    const int64_t th = std::max<int64_t>(targetSize.height, 0);
    if (th > 0 && uint64_t(tw) > SIZE_MAX / sizeof(Col4f) / uint64_t(th))
        return Error::OutOfMemory();
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSamples> target, NewObject<PreviewImageSamples>());
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        target->assign(size_t(tw) * size_t(th), Col4f{0, 0, 0, 0});
        return OK();
    }));
    if (tw == 0 || th == 0 || sw == 0 || sh == 0) return target;

    // Bilinear with pixel centres aligned: an equal size copies exactly, and a coarse early
    // iteration scaled up to the swatch looks smooth instead of blocky.
    const Col4f* src = samples->data();
    Col4f* dst = target->data();
    const double scaleX = double(sw) / double(tw), scaleY = double(sh) / double(th);
    auto row = [&](int64_t y) {
        int64_t ty = flip ? th - 1 - y : y;
        // Edge pixels repeat the edge sample instead of reading outside the source.
        double fy = std::clamp((double(ty) + 0.5) * scaleY - 0.5, 0.0, double(sh - 1));
        int64_t y0 = int64_t(fy), y1 = std::min(y0 + 1, sh - 1);
        float wy = float(fy - double(y0));
        const Col4f* r0 = src + y0 * sw;
        const Col4f* r1 = src + y1 * sw;
        Col4f* out = dst + y * tw;
        for (int64_t x = 0; x < tw; ++x) {
            double fx = std::clamp((double(x) + 0.5) * scaleX - 0.5, 0.0, double(sw - 1));
            int64_t x0 = int64_t(fx), x1 = std::min(x0 + 1, sw - 1);
            float wx = float(fx - double(x0));
            auto mix = [&](float Col4f::*c) {
                float top = r0[x0].*c + (r0[x1].*c - r0[x0].*c) * wx;
                float bottom = r1[x0].*c + (r1[x1].*c - r1[x0].*c) * wx;
                return top + (bottom - top) * wy;
            };
            out[x] = Col4f{mix(&Col4f::r), mix(&Col4f::g), mix(&Col4f::b), mix(&Col4f::a)};
        }
    };
    const int64_t workers = std::max(1, HostThreadCount());
    // About two chunks per worker for balance, but no more than 16 rows, so a large image
    // still spreads over every worker.
    const int64_t chunk = std::clamp<int64_t>(th / (2 * workers), 1, 16);
    KELVO_TRY(ParallelFor(0, th, row, ParallelForOptions{chunk, 0}));
    return target;
}

}  // namespace kelvo::nodes
