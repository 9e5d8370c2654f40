// The host's job system: one worker pool for the whole process, named job queues on it,
// jobs with observers and cancellation, parallel loops, one-time lazy initialisation and
// condition variables.
//
// Modules create no threads of their own. The pool has HostThreadCount() threads; a job
// queue runs at most its thread count of jobs at once on that pool. Jobs of one queue
// start in the order they were enqueued.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/binding.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/spinlock.h"

namespace kelvo {

enum class JOBSTATE : uint8_t {
    CREATED,  // made, not yet enqueued or run
    QUEUED,   // waiting on a queue
    RUNNING,  // its work runs
    ENDED,    // finished, failed or cancelled; the result is final
};

// One piece of work. Made by CreateJob, then enqueued on a queue or run in place.
class JobInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.job"); }

    virtual std::string_view GetName() const = 0;
    virtual JOBSTATE GetState() const = 0;
    // Asks the job to stop. A job that has not started ends at once, without running, with
    // the error "Job @ was cancelled."; a running job sees IsCancelled() and returns when
    // it chooses. Cancelling an ended job changes nothing.
    virtual void Cancel() = 0;
    virtual bool IsCancelled() const = 0;
    // Blocks until the job has ended and its observers have run; returns its result.
    // Fails with "Illegal state: Job @ was not started." for a job never enqueued nor run,
    // and with "Illegal state: Job @ waits for itself." when called from the job's work.
    virtual Result<void> Wait() = 0;
    // The result of an ended job; for a job that has not ended, its cancellation error if it
    // was cancelled, else success.
    virtual Result<void> GetResult() const = 0;
    // Adds a function that runs exactly once when the job ends, on the thread that ends it
    // (a worker, or the thread that cancelled a job that had not started). On an ended job
    // it runs at once, on the calling thread. Observers run before Wait returns.
    virtual Result<void> AddObserver(std::function<void(JobInterface& job)> observer) = 0;
    // Runs a job that was neither enqueued nor run on the calling thread and returns its
    // result. Fails with "Illegal state: Job @ has already started." otherwise.
    virtual Result<void> Run() = 0;
};

// A named queue of jobs that runs at most GetThreadCount() of them at the same time.
class JobQueueInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.jobqueue"); }

    virtual std::string_view GetName() const = 0;
    virtual int GetThreadCount() const = 0;
    // Fails with "Illegal state: Job @ has already started." for a job that was enqueued,
    // run or cancelled before, and with "Illegal argument: Job @ was not made by the
    // host." for a job of another origin.
    virtual Result<void> Enqueue(const StrongRef<JobInterface>& job) = 0;
    // Cancels every queued and running job of this queue; returns without waiting.
    virtual void CancelAll() = 0;
    // Returns when no job of this queue is queued or running.
    virtual void WaitAll() = 0;
};

// A condition that threads wait for until some thread sets it. It stays set until reset.
class ConditionVariableInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.conditionvariable"); }

    virtual void Set() = 0;
    virtual void Reset() = 0;
    virtual bool IsSet() const = 0;
    virtual void Wait() = 0;
    // Waits at most `seconds`; true when the condition is set.
    virtual bool WaitFor(double seconds) = 0;
};

// The worker threads of the host's pool (at least 1).
inline int HostThreadCount() { return g_kelvo.host.HostThreadCount(); }

// A queue named `name` that runs up to `threads` jobs at once (at least 1). Fails with
// "Illegal argument: Invalid thread count @ for job queue @." for fewer than one thread.
inline Result<StrongRef<JobQueueInterface>> CreateJobQueue(std::string_view name, int threads) {
    return g_kelvo.host.CreateJobQueue(name, threads);
}
inline Result<StrongRef<JobInterface>> CreateJob(std::string_view name, JobFunction work) {
    return g_kelvo.host.CreateJob(name, std::move(work));
}
inline Result<StrongRef<ConditionVariableInterface>> CreateConditionVariable() {
    return g_kelvo.host.CreateConditionVariable();
}

// Cancels a job and waits until it has ended; returns its result.
inline Result<void> CancelAndWait(JobInterface& job) {
    job.Cancel();
    return job.Wait();
}

// --- ParallelFor ---------------------------------------------------------------------------

// The type-erased body of a parallel loop, as the host sees it. `prepare` runs once on the
// calling thread with the number of workers (indices 0..workers-1; the caller is worker 0).
// Each worker calls `init` before its first chunk, `work` per chunk [begin, end), and
// `finalise` after its last chunk if its init succeeded. Finalise calls never overlap.
struct ParallelForCallbacks {
    void* context;
    Result<void> (*prepare)(void* context, int workers);
    Result<void> (*init)(void* context, int worker);
    Result<void> (*work)(void* context, int worker, int64_t begin, int64_t end);
    Result<void> (*finalise)(void* context, int worker);
};

struct ParallelForOptions {
    int64_t chunkSize = 0;  // indices per chunk; 0 chooses about four chunks per worker
    int threads = 0;        // most workers to use; 0 means HostThreadCount()
};

namespace detail {
template <typename F, typename... A>
Result<void> CallBody(F& f, A&&... args) {
    if constexpr (std::is_void_v<std::invoke_result_t<F&, A...>>) {
        f(std::forward<A>(args)...);
        return OK();
    } else {
        return f(std::forward<A>(args)...);
    }
}

template <typename LOCAL, typename INIT, typename WORK, typename FINALISE>
struct ParallelForBody {
    // A cache line per worker, so workers do not share lines.
    struct alignas(64) Slot {
        LOCAL local{};
    };
    INIT& init;
    WORK& work;
    FINALISE& finalise;
    std::vector<Slot, Allocator<Slot>> slots{};

    static Result<void> Prepare(void* c, int workers) {
        auto* self = static_cast<ParallelForBody*>(c);
        return CatchOutOfMemory([&]() -> Result<void> {
            self->slots.resize(static_cast<size_t>(workers));
            return OK();
        });
    }
    static Result<void> Init(void* c, int worker) {
        auto* self = static_cast<ParallelForBody*>(c);
        return CatchOutOfMemory(
            [&] { return CallBody(self->init, self->slots[size_t(worker)].local); });
    }
    static Result<void> Work(void* c, int worker, int64_t begin, int64_t end) {
        auto* self = static_cast<ParallelForBody*>(c);
        LOCAL& local = self->slots[size_t(worker)].local;
        return CatchOutOfMemory([&]() -> Result<void> {
            for (int64_t i = begin; i < end; ++i) KELVO_TRY(CallBody(self->work, local, i));
            return OK();
        });
    }
    static Result<void> Finalise(void* c, int worker) {
        auto* self = static_cast<ParallelForBody*>(c);
        return CatchOutOfMemory(
            [&] { return CallBody(self->finalise, self->slots[size_t(worker)].local); });
    }
};
}  // namespace detail

// Runs work(local, i) for every i in [from, to) on the pool, each index exactly once, the
// calling thread taking part. Every worker has its own LOCAL: init(local) before its first
// index, finalise(local) after its last (never two finalise calls at once, so finalise may
// merge into shared results). Each function returns Result<void> or void. The first error
// stops the loop (chunks already started finish) and is returned. An empty range calls
// nothing. In the host's deterministic test mode one worker runs the indices in order.
template <typename LOCAL, typename INIT, typename WORK, typename FINALISE>
Result<void> ParallelFor(int64_t from, int64_t to, INIT&& init, WORK&& work, FINALISE&& finalise,
                         ParallelForOptions options = {}) {
    using Body =
        detail::ParallelForBody<LOCAL, std::remove_reference_t<INIT>, std::remove_reference_t<WORK>,
                                std::remove_reference_t<FINALISE>>;
    Body body{init, work, finalise};
    ParallelForCallbacks callbacks{&body, &Body::Prepare, &Body::Init, &Body::Work,
                                   &Body::Finalise};
    return g_kelvo.host.ParallelFor(from, to, options.chunkSize, options.threads, callbacks);
}

// Runs work(i) for every i in [from, to); work returns Result<void> or void.
template <typename WORK>
Result<void> ParallelFor(int64_t from, int64_t to, WORK&& work, ParallelForOptions options = {}) {
    struct None {};
    auto nothing = [](None&) {};
    auto each = [&work](None&, int64_t i) { return detail::CallBody(work, i); };
    return ParallelFor<None>(from, to, nothing, each, nothing, options);
}

// --- One-time threaded lazy initialisation -------------------------------------------------

enum class LAZYINIT : uint8_t {
    KEEPFAILURES,      // every outcome is final
    RETRYOUTOFMEMORY,  // an out-of-memory failure is not kept: a later call makes it again
};

// A value made once, on first demand. The first caller runs the making as one job on its
// own thread; callers that arrive meanwhile wait for that job. The outcome, value or
// error, is kept: later calls return it without making anything again. With
// LAZYINIT::RETRYOUTOFMEMORY an out-of-memory failure goes to the caller and the callers
// waiting for that job, and the next call starts afresh (memory may have been freed).
template <typename T>
class LazyInitThreaded {
public:
    explicit LazyInitThreaded(LAZYINIT mode = LAZYINIT::KEEPFAILURES) : _mode(mode) {}
    LazyInitThreaded(const LazyInitThreaded&) = delete;
    LazyInitThreaded& operator=(const LazyInitThreaded&) = delete;

    // `make` returns Result<T>. Only when the job itself cannot be created (out of memory)
    // is nothing kept, so that a later call tries again.
    template <typename MAKE>
    Result<T*> Get(MAKE&& make, std::string_view name = "LazyInitThreaded") {
        if (_done.load(std::memory_order_acquire)) return Stored();
        StrongRef<JobInterface> job;
        bool mine = false;
        {
            std::lock_guard lock(_lock);
            if (_done.load(std::memory_order_relaxed)) return Stored();
            if (_job) {
                job = _job;
            } else {
                auto made = CreateJob(name, [this, &make](JobInterface&) -> Result<void> {
                    Error error;
                    Result<void> ok = CatchOutOfMemory([&]() -> Result<void> {
                        Result<T> value = make();
                        if (value)
                            _value.emplace(std::move(value).Value());
                        else
                            error = value.GetError();
                        return OK();
                    });
                    if (!ok) error = ok.GetError();
                    // A passing shortage is handed to this round's callers only.
                    if (error && error.Kind() == ERRORKIND::OUTOFMEMORY &&
                        _mode == LAZYINIT::RETRYOUTOFMEMORY)
                        return error;
                    _error = std::move(error);
                    _done.store(true, std::memory_order_release);
                    return OK();
                });
                if (!made) return made.GetError();
                job = _job = std::move(made).Value();
                mine = true;
            }
        }
        Result<void> round;
        if (mine) {
            round = job->Run();
            std::lock_guard lock(_lock);
            _job.reset();  // its work refers to this call's `make`
        } else {
            // The maker has the job but may not have started it yet; that gap is short.
            while (job->GetState() == JOBSTATE::CREATED) std::this_thread::yield();
            round = job->Wait();
        }
        if (!round) return round.GetError();
        return Stored();
    }

    bool IsInitialized() const { return _done.load(std::memory_order_acquire); }

private:
    Result<T*> Stored() {
        if (_error) return _error;
        return &*_value;
    }
    LAZYINIT _mode;
    std::atomic<bool> _done{false};
    Spinlock _lock;
    StrongRef<JobInterface> _job;
    std::optional<T> _value;
    Error _error;
};

}  // namespace kelvo
