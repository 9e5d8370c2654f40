// The process-wide preview scheduler: owns the "Preview Image Queue", the table of live
// preview tasks, the priority and normal queues of tasks waiting for their next iteration
// and the two running sets, and decides which task iterates next.
//
// Locking: one spin lock guards the table, the sets, the queues and the stopped flag. It is
// never held while a task is interrupted or waited for, nor while a result or an error is
// delivered: what must happen to tasks is collected under the lock and done after it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "kelvo/entry.h"
#include "kelvo/hashmap.h"
#include "kelvo/jobs.h"
#include "kelvo/ringqueue.h"
#include "kelvo/spinlock.h"
#include "spaces/previewimage_worker.h"

namespace kelvo::nodes {

// Held by whoever submitted a task; releasing the last reference cancels the task.
class PreviewImageSubscription {
public:
    explicit PreviewImageSubscription(uint64_t id) : _id(id) {}
    PreviewImageSubscription(const PreviewImageSubscription&) = delete;
    PreviewImageSubscription& operator=(const PreviewImageSubscription&) = delete;
    ~PreviewImageSubscription();
    uint64_t GetId() const { return _id; }

private:
    friend class PreviewImageScheduler;
    uint64_t _id;
    bool _armed = false;  // set once the task is registered
};

struct PreviewImageSchedulerStatistics {
    int limit = 0;
    int threads = 0;
    size_t tasks = 0;
    size_t runningNormal = 0;
    size_t runningPriority = 0;
    size_t queuedNormal = 0;
    size_t queuedPriority = 0;
    uint64_t preemptions = 0;  // interrupts with flag 1
    bool stopped = false;
};

class PreviewImageScheduler {
public:
    // The limit of simultaneous tasks per running set for T queue threads.
    static int LimitForThreads(int threads);

    // Builds a scheduler whose queue has HostThreadCount() - 1 threads (at least 1), or
    // `threads` when positive, and installs it, releasing the one installed before.
    static Result<void> Create(int threads = 0);
    // Shuts the installed scheduler down and uninstalls it.
    static void Release();

    // Takes the subscription once the task is registered and before its first iteration can
    // start, so that its holder can cancel it from the first result callback on.
    using Publish = std::function<void(StrongRef<PreviewImageSubscription>)>;

    // Builds the request's entry and submits it. Fails with "Illegal state: Invalid Preview
    // Image Scheduler" when none is installed, the entry's errors, or out of memory (nothing
    // stays queued). Returns the subscription, or nothing when it went to `publish`.
    static Result<StrongRef<PreviewImageSubscription>> Submit(const DataDictionary& request,
                                                              bool priority,
                                                              const Publish& publish = {});
    static Result<StrongRef<PreviewImageSubscription>> SubmitEntry(
        const StrongRef<PreviewImageSchedulerEntry>& entry, bool priority,
        const Publish& publish = {});
    // One iteration job of the task has ended.
    static void Finish(uint64_t id, bool requeue, bool quiet);
    // The task's subscription was released.
    static void Cancel(uint64_t id);
    // Stops starting iterations; cancels the queue's jobs when `cancel` is set, then waits
    // for them either way, drops the tasks and lets go of the queue.
    static void Shutdown(bool cancel);
    // Stops every task whose provider class belongs to `module`, failing it with
    // "Illegal state: The preview image provider @ was unloaded.".
    static void ModuleUnloading(const KelvoModuleInfo& module);

    static Result<PreviewImageSchedulerStatistics> GetStatistics();

    // Public for NewObject; use Create.
    PreviewImageScheduler() = default;
    ~PreviewImageScheduler();

private:
    struct Pass;
    static StrongRef<PreviewImageScheduler> Instance();
    void Dispatch();
    // The parts of a dispatcher pass: under the lock, then after it (true when the pass
    // ended early and the dispatcher must run again).
    void DispatchLocked(Pass& pass);
    bool Complete(Pass& pass);
    // Starts the task's next iteration and keeps its id in `running` (`inserted`: it is
    // there already); a task that cannot start is taken out and failed after the lock.
    void StartLocked(uint64_t id, const StrongRef<PreviewImageSchedulerEntry>& entry,
                     HashSet<uint64_t>& running, bool inserted, Pass& pass);
    // Under the lock: starts the next iteration of a task whose iteration has ended, when
    // the dispatcher would start it next anyway (after a priority task, the rest of the
    // dispatcher pass runs too); false otherwise.
    bool RestartLocked(uint64_t id, Pass& pass);
    void Stop(bool cancel);

    Spinlock _lock;
    StrongRef<JobQueueInterface> _queue;
    HashMap<uint64_t, StrongRef<PreviewImageSchedulerEntry>> _table;
    HashSet<uint64_t> _runningNormal;
    HashSet<uint64_t> _runningPriority;
    RingQueue<uint64_t> _queueNormal;
    RingQueue<uint64_t> _queuePriority;
    int _limit = 1;
    int _threads = 1;
    bool _stopped = false;
    std::atomic<uint64_t> _preemptions{0};
};

}  // namespace kelvo::nodes
