// GCC 12 at -O2 reports a use after free inside Error's reference count when errors are kept
// in an array and moved; the count is only released when it reaches zero.
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic ignored "-Wuse-after-free"
#endif

#include "spaces/previewimage_scheduler.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <new>
#include <utility>
#include <vector>

#include "kelvo/diagnostics.h"

namespace kelvo::nodes {
namespace {

// The process-wide instance. Never destroyed, so that a job ending during process exit
// still finds a valid (empty) holder; it lives in static storage rather than on the heap,
// because the module may be unloaded and loaded again (the scheduler's stop empties it).
struct InstanceHolder {
    Spinlock lock;
    StrongRef<PreviewImageScheduler> scheduler;
};
InstanceHolder& Holder() {
    alignas(InstanceHolder) static unsigned char storage[sizeof(InstanceHolder)];
    static auto* holder = new (storage) InstanceHolder;
    return *holder;
}

Error NoScheduler() { return IllegalStateError(KELVO_HERE, "Invalid Preview Image Scheduler"); }

// Tasks to fail, collected under the scheduler lock and failed after it. A pass that fills
// the list ends early and the dispatcher runs again.
constexpr size_t kMaxFailuresPerPass = 16;
struct Failures {
    std::array<StrongRef<PreviewImageSchedulerEntry>, kMaxFailuresPerPass> entries;
    std::array<Error, kMaxFailuresPerPass> errors;
    size_t count = 0;
    bool Full() const { return count == kMaxFailuresPerPass; }
    void Add(StrongRef<PreviewImageSchedulerEntry> entry, Error error) {
        entries[count] = std::move(entry);
        errors[count] = std::move(error);
        ++count;
    }
    // Delivers the errors, then stops what still runs.
    void Run() {
        for (size_t i = 0; i < count; ++i) {
            entries[i]->Fail(errors[i]);
            entries[i]->Interrupt(0);
            entries[i].reset();
        }
        count = 0;
    }
};

}  // namespace

PreviewImageSubscription::~PreviewImageSubscription() {
    if (_armed) PreviewImageScheduler::Cancel(_id);
}

int PreviewImageScheduler::LimitForThreads(int threads) {
    // About half the queue's threads, so that each iteration can use several itself.
    return threads < 4 ? 1 : std::min(8, threads / 2);
}

StrongRef<PreviewImageScheduler> PreviewImageScheduler::Instance() {
    InstanceHolder& h = Holder();
    std::lock_guard lock(h.lock);
    return h.scheduler;
}

Result<void> PreviewImageScheduler::Create(int threads) {
    const int t = threads > 0 ? threads : std::max(1, HostThreadCount() - 1);
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageScheduler> made,
                           NewObject<PreviewImageScheduler>());
    KELVO_ASSIGN_OR_RETURN(made->_queue, CreateJobQueue(kPreviewImageQueueName, t));
    made->_threads = t;
    made->_limit = LimitForThreads(t);
    StrongRef<PreviewImageScheduler> previous;
    {
        InstanceHolder& h = Holder();
        std::lock_guard lock(h.lock);
        previous = std::exchange(h.scheduler, std::move(made));
    }
    if (previous) previous->Stop(true);
    return OK();
}

void PreviewImageScheduler::Release() {
    StrongRef<PreviewImageScheduler> previous;
    {
        InstanceHolder& h = Holder();
        std::lock_guard lock(h.lock);
        previous = std::move(h.scheduler);
    }
    if (previous) previous->Stop(true);
}

PreviewImageScheduler::~PreviewImageScheduler() = default;

Result<StrongRef<PreviewImageSubscription>> PreviewImageScheduler::Submit(
    const DataDictionary& request, bool priority) {
    if (!Instance()) return NoScheduler();
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSchedulerEntry> entry,
                           PreviewImageSchedulerEntry::Create(request));
    return SubmitEntry(entry, priority);
}

Result<StrongRef<PreviewImageSubscription>> PreviewImageScheduler::SubmitEntry(
    const StrongRef<PreviewImageSchedulerEntry>& entry, bool priority) {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return NoScheduler();
    const uint64_t id = entry->GetId();
    // Made first, so that no failure can come after the task is registered.
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSubscription> subscription,
                           NewObject<PreviewImageSubscription>(id));
    StrongRef<PreviewImageSchedulerEntry> replaced;
    {
        std::lock_guard lock(self->_lock);
        StrongRef<PreviewImageSchedulerEntry>* present = self->_table.Find(id);
        if (present) {
            replaced = std::exchange(*present, entry);
        } else {
            KELVO_TRY(self->_table.InsertOrAssign(id, entry));
        }
        Result<void> queued = (priority ? self->_queuePriority : self->_queueNormal).Push(id);
        if (!queued) {
            if (present)
                *self->_table.Find(id) = std::move(replaced);
            else
                self->_table.Erase(id);
            return queued.GetError();
        }
    }
    replaced.reset();
    self->Dispatch();
    subscription->_armed = true;
    return subscription;
}

void PreviewImageScheduler::Dispatch() {
    for (;;) {
        Failures failures;
        std::array<StrongRef<PreviewImageSchedulerEntry>, 8> preempted;
        size_t preemptedCount = 0;
        {
            std::lock_guard lock(_lock);
            if (_stopped) return;
            // Starts queued tasks until the running set holds `limit` ids.
            auto fill = [&](RingQueue<uint64_t>& queue, HashSet<uint64_t>& running) {
                uint64_t id;
                while (running.Size() < size_t(_limit) && !failures.Full() && queue.Pop(id)) {
                    StrongRef<PreviewImageSchedulerEntry>* entry = _table.Find(id);
                    // A cancelled task, or a second queue entry of a task that iterates.
                    if (!entry || _runningNormal.Contains(id) || _runningPriority.Contains(id))
                        continue;
                    Result<void> started =
                        *entry ? (*entry)->Start(_queue)
                               : Result<void>(IllegalStateError(KELVO_HERE, "Invalid task"));
                    if (started) started = running.Insert(id).Ok() ? OK() : Error::OutOfMemory();
                    if (!started) {
                        StrongRef<PreviewImageSchedulerEntry> failed;
                        _table.Take(id, failed);
                        if (failed) failures.Add(std::move(failed), started.GetError());
                    }
                }
            };
            fill(_queuePriority, _runningPriority);
            if (!_runningPriority.IsEmpty()) {
                // Normal tasks give way: interrupted now, resumed when no priority task runs.
                _runningNormal.ForEach([&](uint64_t id) {
                    StrongRef<PreviewImageSchedulerEntry>* entry = _table.Find(id);
                    if (entry && *entry && preemptedCount < preempted.size())
                        preempted[preemptedCount++] = *entry;
                });
            } else if (!failures.Full()) {
                fill(_queueNormal, _runningNormal);
            }
        }
        for (size_t i = 0; i < preemptedCount; ++i)
            if (preempted[i]->Interrupt(1)) _preemptions.fetch_add(1);
        const bool again = failures.Full();
        failures.Run();
        if (!again) return;
    }
}

void PreviewImageScheduler::Finish(uint64_t id, bool requeue, bool quiet) {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return;
    StrongRef<PreviewImageSchedulerEntry> dropped;
    StrongRef<PreviewImageSchedulerEntry> failed;
    bool unknown = false;
    {
        std::lock_guard lock(self->_lock);
        if (!requeue) self->_table.Take(id, dropped);
        const bool normal = self->_runningNormal.Erase(id);
        const bool priority = self->_runningPriority.Erase(id);
        unknown = !quiet && !normal && !priority;
        if (requeue && !(normal ? self->_queueNormal : self->_queuePriority).Push(id))
            self->_table.Take(id, failed);
    }
    if (unknown) DiagnosticOutput("Unknown task under Id @", id);
    if (failed) failed->Fail(Error::OutOfMemory());
    dropped.reset();
    failed.reset();
    self->Dispatch();
}

void PreviewImageScheduler::Cancel(uint64_t id) {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return;
    StrongRef<PreviewImageSchedulerEntry> entry;
    {
        std::lock_guard lock(self->_lock);
        self->_table.Take(id, entry);
    }
    if (entry) {
        entry->Interrupt(0);
        entry.reset();
    }
    self->Dispatch();
}

void PreviewImageScheduler::Shutdown(bool cancel) {
    if (StrongRef<PreviewImageScheduler> self = Instance()) self->Stop(cancel);
}

void PreviewImageScheduler::Stop(bool cancel) {
    StrongRef<JobQueueInterface> queue;
    {
        std::lock_guard lock(_lock);
        _stopped = true;
        queue = _queue;
    }
    if (!queue) return;
    if (cancel) queue->CancelAll();
    // Waiting in either case: the jobs' observers run this module's code.
    queue->WaitAll();
    HashMap<uint64_t, StrongRef<PreviewImageSchedulerEntry>> tasks;
    {
        std::lock_guard lock(_lock);
        tasks.Swap(_table);
        _queue.reset();
    }
}

void PreviewImageScheduler::ModuleUnloading(const KelvoModuleInfo& module) {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return;
    auto fromModule = [&](const EntryRecord* record) {
        for (const EntryRecord* e = module.firstEntry; record && e; e = e->next)
            if (e == record) return true;
        return false;
    };
    std::vector<StrongRef<PreviewImageSchedulerEntry>> stopping;
    bool listed = true;
    {
        std::lock_guard lock(self->_lock);
        // Walks the table first, removes after: the map must not change while walked.
        try {
            self->_table.ForEach([&](uint64_t, const StrongRef<PreviewImageSchedulerEntry>& e) {
                if (e && fromModule(e->GetProviderRecord())) stopping.push_back(e);
            });
        } catch (const std::bad_alloc&) {
            stopping.clear();
            listed = false;
        }
        for (const auto& e : stopping) self->_table.Erase(e->GetId());
    }
    if (!listed) {
        // Without memory to list them every task stops: none may outlive its provider's code.
        self->Stop(true);
        return;
    }
    for (auto& e : stopping) {
        e->Fail(IllegalStateError(KELVO_HERE, "The preview image provider @ was unloaded.",
                                  e->GetProviderRecord()->GetId()));
        e->Interrupt(0);
        e->ReleaseTask();
    }
    stopping.clear();
    self->Dispatch();
}

Result<PreviewImageSchedulerStatistics> PreviewImageScheduler::GetStatistics() {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return NoScheduler();
    std::lock_guard lock(self->_lock);
    PreviewImageSchedulerStatistics s;
    s.limit = self->_limit;
    s.threads = self->_threads;
    s.tasks = self->_table.Size();
    s.runningNormal = self->_runningNormal.Size();
    s.runningPriority = self->_runningPriority.Size();
    s.queuedNormal = self->_queueNormal.Size();
    s.queuedPriority = self->_queuePriority.Size();
    s.preemptions = self->_preemptions.load();
    s.stopped = self->_stopped;
    return s;
}

}  // namespace kelvo::nodes
