// One preview task as the scheduler sees it: built from a request, it runs the provider's
// task one iteration (one job) at a time on the preview queue, delivers each iteration that
// advances the image to the requester's callback, and tells the scheduler whether it wants
// another iteration.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "kelvo/data.h"
#include "kelvo/entry.h"
#include "kelvo/jobs.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/spinlock.h"

namespace kelvo::nodes {

struct PreviewImageSize {
    int64_t width = 0;
    int64_t height = 0;
    bool operator==(const PreviewImageSize&) const = default;
};

class PreviewImageSchedulerEntry : public std::enable_shared_from_this<PreviewImageSchedulerEntry> {
public:
    // Reads the request's attributes and makes the provider's task. Fails with
    // "Illegal argument: Invalid ResultCompleteFunc()", "Illegal argument: Invalid Image
    // Size", the provider's error, or out of memory. Each entry gets a new task id.
    static Result<StrongRef<PreviewImageSchedulerEntry>> Create(const DataDictionary& request);
    // An entry around a given task (the provider step done by the caller).
    static Result<StrongRef<PreviewImageSchedulerEntry>> Create(
        const DataDictionary& request, StrongRef<PreviewImageProviderTaskInterface> task);

    uint64_t GetId() const { return _id; }

    // Starts the next iteration as a job on queue. Fails with "Illegal state: The task has
    // already started" while a job runs and "Illegal argument: Invalid user task" without
    // a task.
    Result<void> Start(const StrongRef<JobQueueInterface>& queue);
    // Cancels the running job, if any, and waits for it to end (not when called from this
    // entry's own result callback, whose job is ending on the calling thread). flag 1: the
    // iteration is resumed later; flag 0: the entry is closed and delivers nothing more
    // once this has returned. True when a job was running.
    bool Interrupt(uint8_t flag);
    // Delivers error as the final result (unless closed), closes the entry and sets the
    // completion signal.
    void Fail(const Error& error);
    // Drops the provider's task (after the entry was interrupted for good), so that nothing
    // of the provider's module is held any more.
    void ReleaseTask();

    // The registry entry of the provider class named by the request; nullptr for a provider
    // given as an object.
    const EntryRecord* GetProviderRecord() const { return _providerRecord; }
    // Set when the entry will deliver nothing more; the count says how often it was set
    // (1 at most, which tests check).
    const StrongRef<ConditionVariableInterface>& GetCompletion() const { return _completion; }
    int GetCompletionCount() const { return _completionCount.load(); }

    // Scales a samples buffer from sourceSize to targetSize (bilinear), rows reversed when
    // flip is set. Fails with "Illegal argument: Invalid Sample Buffer" without samples and
    // "Illegal argument: Invalid sample buffer." when the count is not width × height.
    static Result<StrongRef<PreviewImageSamples>> ResizeAndFlipSamplesBuffer(
        const StrongRef<PreviewImageSamples>& samples, PreviewImageSize sourceSize,
        PreviewImageSize targetSize, bool flip);

    // Public for NewObject; use Create.
    PreviewImageSchedulerEntry() = default;

private:
    void EndOfIteration(JobInterface& job);
    // Reports the end of an iteration whose entry is gone.
    static void EndOfOrphanIteration(uint64_t id);
    // `task` is the one the ending iteration ran (the task stays while the job is in the slot).
    Result<void> DeliverResult(const StrongRef<PreviewImageProviderTaskInterface>& task,
                               const PreviewImageIterationState& state);
    void Deliver(const Result<DataDictionary>& result);
    void SetCompleted();

    uint64_t _id = 0;
    std::atomic<uint8_t> _interrupt{0};
    StrongRef<ConditionVariableInterface> _completion;
    std::atomic<bool> _completed{false};
    std::atomic<int> _completionCount{0};
    int64_t _lastDeliveredIndex = -1;  // only the ending iteration touches it

    Spinlock _slotLock;  // serialises Start, Interrupt and the end of an iteration
    StrongRef<JobInterface> _job;

    // Deliveries hold this (re-entrant: a callback may release its own request); Interrupt
    // with flag 0 closes the entry under it. The end of an iteration only reads the flag.
    std::recursive_mutex _deliveryMutex;
    std::atomic<bool> _closed{false};

    StrongRef<PreviewImageProviderTaskInterface> _task;
    StrongRef<PreviewImageResultCompleteFuncInterface> _resultComplete;
    const EntryRecord* _providerRecord = nullptr;
    bool _upscaleProgression = false;
    bool _flipVertically = false;
    PreviewImageSize _textureSize;
};

}  // namespace kelvo::nodes
