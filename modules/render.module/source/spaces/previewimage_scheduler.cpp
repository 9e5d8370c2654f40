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

// A list of at most N values that constructs only what is added: the dispatcher runs after
// every iteration and almost never has anything to put in its lists.
template <typename T, size_t N>
class FixedList {
public:
    FixedList() = default;
    FixedList(const FixedList&) = delete;
    FixedList& operator=(const FixedList&) = delete;
    ~FixedList() { Clear(); }
    size_t Size() const { return _size; }
    bool Full() const { return _size == N; }
    void Add(T value) { new (&_slots[_size++].value) T(std::move(value)); }
    T& operator[](size_t i) { return _slots[i].value; }
    void Clear() {
        while (_size > 0) _slots[--_size].value.~T();
    }

private:
    union Slot {
        Slot() {}  // leaves value unconstructed
        ~Slot() {}
        T value;
    };
    std::array<Slot, N> _slots;
    size_t _size = 0;
};

}  // namespace

// What one dispatcher pass leaves to do after the lock: tasks to fail and normal tasks to
// preempt. A pass that fills the failures ends early and the dispatcher runs again.
struct PreviewImageScheduler::Pass {
    static constexpr size_t kMaxFailures = 16;
    FixedList<std::pair<StrongRef<PreviewImageSchedulerEntry>, Error>, kMaxFailures> failures;
    FixedList<StrongRef<PreviewImageSchedulerEntry>, 8> preempted;
};

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
    const DataDictionary& request, bool priority, const Publish& publish) {
    if (!Instance()) return NoScheduler();
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSchedulerEntry> entry,
                           PreviewImageSchedulerEntry::Create(request));
    return SubmitEntry(entry, priority, publish);
}

Result<StrongRef<PreviewImageSubscription>> PreviewImageScheduler::SubmitEntry(
    const StrongRef<PreviewImageSchedulerEntry>& entry, bool priority, const Publish& publish) {
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
    subscription->_armed = true;
    // Handed over before anything starts: this thread may not run again until the task has
    // delivered, and its callback may let go of it meanwhile.
    if (publish) publish(std::move(subscription));
    self->Dispatch();
    return subscription;
}

void PreviewImageScheduler::Dispatch() {
    for (;;) {
        Pass pass;
        {
            std::lock_guard lock(_lock);
            if (_stopped) return;
            DispatchLocked(pass);
        }
        if (!Complete(pass)) return;
    }
}

void PreviewImageScheduler::StartLocked(uint64_t id,
                                        const StrongRef<PreviewImageSchedulerEntry>& entry,
                                        HashSet<uint64_t>& running, bool inserted, Pass& pass) {
    Result<void> started =
        entry ? entry->Start(_queue) : Result<void>(IllegalStateError(KELVO_HERE, "Invalid task"));
    if (started && !inserted) started = running.Insert(id).Ok() ? OK() : Error::OutOfMemory();
    if (started) return;
    if (inserted) running.Erase(id);
    StrongRef<PreviewImageSchedulerEntry> failed;
    _table.Take(id, failed);
    if (failed) pass.failures.Add({std::move(failed), started.GetError()});
}

void PreviewImageScheduler::DispatchLocked(Pass& pass) {
    // Starts queued tasks until the running set holds `limit` ids.
    auto fill = [&](RingQueue<uint64_t>& queue, HashSet<uint64_t>& running) {
        uint64_t id;
        while (running.Size() < size_t(_limit) && !pass.failures.Full() && queue.Pop(id)) {
            StrongRef<PreviewImageSchedulerEntry>* entry = _table.Find(id);
            // A cancelled task, or a second queue entry of a task that iterates.
            if (!entry || _runningNormal.Contains(id) || _runningPriority.Contains(id)) continue;
            StartLocked(id, *entry, running, false, pass);
        }
    };
    fill(_queuePriority, _runningPriority);
    if (!_runningPriority.IsEmpty()) {
        // Normal tasks give way: interrupted now, resumed when no priority task runs.
        _runningNormal.ForEach([&](uint64_t id) {
            StrongRef<PreviewImageSchedulerEntry>* entry = _table.Find(id);
            if (entry && *entry && !pass.preempted.Full()) pass.preempted.Add(*entry);
        });
    } else if (!pass.failures.Full()) {
        fill(_queueNormal, _runningNormal);
    }
}

bool PreviewImageScheduler::Complete(Pass& pass) {
    for (size_t i = 0; i < pass.preempted.Size(); ++i)
        if (pass.preempted[i]->Interrupt(1)) _preemptions.fetch_add(1);
    pass.preempted.Clear();
    const bool again = pass.failures.Full();
    // Delivers the errors, then stops what still runs.
    for (size_t i = 0; i < pass.failures.Size(); ++i) {
        pass.failures[i].first->Fail(pass.failures[i].second);
        pass.failures[i].first->Interrupt(0);
    }
    pass.failures.Clear();
    return again;
}

bool PreviewImageScheduler::RestartLocked(uint64_t id, Pass& pass) {
    // The task that ended wants its next iteration and nothing would be started before it:
    // it is started again at once, as requeueing and dispatching would do, without passing
    // through its queue and running set.
    if (_stopped) return false;
    HashSet<uint64_t>* running;
    if (_runningPriority.Contains(id)) {
        if (!_queuePriority.IsEmpty()) return false;
        running = &_runningPriority;
    } else if (_runningNormal.Contains(id)) {
        if (!_queueNormal.IsEmpty() || !_queuePriority.IsEmpty() || !_runningPriority.IsEmpty())
            return false;
        running = &_runningNormal;
    } else {
        return false;
    }
    StrongRef<PreviewImageSchedulerEntry>* entry = _table.Find(id);
    if (!entry) return false;  // cancelled meanwhile
    StartLocked(id, *entry, *running, true, pass);
    // After a normal task nothing else can start; after a priority one, normal tasks may
    // have to give way or may start if it could not.
    if (running == &_runningPriority) DispatchLocked(pass);
    return true;
}

void PreviewImageScheduler::Finish(uint64_t id, bool requeue, bool quiet) {
    StrongRef<PreviewImageScheduler> self = Instance();
    if (!self) return;
    StrongRef<PreviewImageSchedulerEntry> dropped;
    StrongRef<PreviewImageSchedulerEntry> failed;
    bool unknown = false;
    {
        Pass pass;
        bool restarted = false;
        {
            std::lock_guard lock(self->_lock);
            if (requeue) restarted = self->RestartLocked(id, pass);
            if (!restarted) {
                if (!requeue) self->_table.Take(id, dropped);
                const bool normal = self->_runningNormal.Erase(id);
                const bool priority = self->_runningPriority.Erase(id);
                unknown = !quiet && !normal && !priority;
                if (requeue && !(normal ? self->_queueNormal : self->_queuePriority).Push(id))
                    self->_table.Take(id, failed);
            }
        }
        if (restarted) {
            if (self->Complete(pass)) self->Dispatch();
            return;
        }
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
