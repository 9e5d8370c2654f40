// The job system: the host's worker pool, job queues on it, jobs, parallel loops and
// condition variables, with a deterministic mode for tests.
//
// The pool runs tasks in FIFO order. A queue puts at most its thread count of "tokens"
// into the pool; a token runs one job of its queue and, if more are pending, goes to the
// back of the pool again, so queues share the pool round-robin (with nothing else waiting
// in the pool, it stays on its worker and runs the next one).
#include "kelvo/jobs.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "host.h"

namespace kelvo::host {
namespace {

using Task = std::function<void()>;

class Pool {
public:
    ~Pool() { Stop(); }

    int Threads() {
        std::lock_guard lock(_mutex);
        return ThreadsLocked();
    }

    void Submit(Task task) {
        {
            std::lock_guard lock(_mutex);
            _tasks.push_back(std::move(task));
            if (_deterministic) return;
            if (_threads.empty()) Start();
        }
        // Outside the lock, so that the woken worker does not wait for it at once.
        _wake.notify_one();
    }

    // Runs the oldest pending task on this thread; false when there is none.
    bool RunOne() {
        Task task;
        {
            std::lock_guard lock(_mutex);
            if (_tasks.empty()) return false;
            task = std::move(_tasks.front());
            _tasks.pop_front();
        }
        task();
        return true;
    }

    // No task waits and tokens may keep their thread (never in deterministic mode, where
    // each task is one step that a test drives).
    bool Idle() {
        std::lock_guard lock(_mutex);
        return !_deterministic && _tasks.empty();
    }

    bool Deterministic() {
        std::lock_guard lock(_mutex);
        return _deterministic;
    }

    void SetDeterministic(bool on) {
        Stop();
        std::lock_guard lock(_mutex);
        _deterministic = on;
    }

    void SetThreads(int n) {
        Stop();
        std::lock_guard lock(_mutex);
        _configured = n > 0 ? n : 0;
    }

    size_t Pending() {
        std::lock_guard lock(_mutex);
        return _tasks.size();
    }

    // Lets the workers finish what is queued, then joins them. Tasks submitted later
    // start new workers.
    void Stop() {
        std::vector<std::thread> threads;
        {
            std::lock_guard lock(_mutex);
            _stop = true;
            _wake.notify_all();
            threads.swap(_threads);
        }
        for (auto& t : threads) t.join();
        std::lock_guard lock(_mutex);
        _stop = false;
    }

private:
    int ThreadsLocked() const {
        if (_configured > 0) return _configured;
        unsigned n = std::thread::hardware_concurrency();
        return n > 0 ? static_cast<int>(n) : 1;
    }
    void Start() {
        for (int i = 0, n = ThreadsLocked(); i < n; ++i) _threads.emplace_back([this] { Loop(); });
    }
    void Loop() {
        for (;;) {
            Task task;
            {
                std::unique_lock lock(_mutex);
                _wake.wait(lock, [&] { return _stop || (!_deterministic && !_tasks.empty()); });
                if (_deterministic || _tasks.empty()) return;  // stopping
                task = std::move(_tasks.front());
                _tasks.pop_front();
            }
            task();
        }
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<Task> _tasks;
    std::vector<std::thread> _threads;
    int _configured = 0;
    bool _stop = false;
    bool _deterministic = false;
};

Pool& GetPool() {
    static Pool pool;
    return pool;
}

// In deterministic mode a thread that would block runs pending tasks instead, until
// `done` holds or nothing is left to run.
template <typename DONE>
void DriveUntil(DONE&& done) {
    while (!done() && GetPool().RunOne()) {
    }
}

class JobImpl;
thread_local JobImpl* t_currentJob = nullptr;

class JobImpl final : public Implements<JobInterface> {
public:
    JobImpl(std::string name, JobFunction work) : _name(std::move(name)), _work(std::move(work)) {}

    std::string_view GetName() const override { return _name; }
    JOBSTATE GetState() const override { return _state.load(std::memory_order_acquire); }
    bool IsCancelled() const override { return _cancelled.load(std::memory_order_acquire); }

    void Cancel() override {
        _cancelled.store(true, std::memory_order_release);
        // A job that has not started is ended here, by whoever claims it first.
        for (JOBSTATE from : {JOBSTATE::QUEUED, JOBSTATE::CREATED}) {
            JOBSTATE expected = from;
            if (_state.compare_exchange_strong(expected, JOBSTATE::ENDED,
                                               std::memory_order_acq_rel)) {
                Finish(CancelledError());
                return;
            }
        }
    }

    Result<void> Wait() override {
        if (t_currentJob == this)
            return IllegalStateError(KELVO_HERE, "Job @ waits for itself.", _name);
        if (GetState() == JOBSTATE::CREATED)
            return IllegalStateError(KELVO_HERE, "Job @ was not started.", _name);
        if (GetPool().Deterministic()) {
            DriveUntil([&] {
                std::lock_guard lock(_mutex);
                return _observed;
            });
            std::lock_guard lock(_mutex);
            if (!_observed)
                return IllegalStateError(KELVO_HERE, "Job @ cannot end: no job is pending.", _name);
            return _result;
        }
        std::unique_lock lock(_mutex);
        _endedSignal.wait(lock, [&] { return _observed; });
        return _result;
    }

    Result<void> GetResult() const override {
        std::lock_guard lock(_mutex);
        if (_state.load() != JOBSTATE::ENDED && _cancelled.load()) return CancelledError();
        return _result;
    }

    Result<void> AddObserver(std::function<void(JobInterface&)> observer) override {
        {
            std::lock_guard lock(_mutex);
            if (!_finishing) {
                return CatchOutOfMemory([&]() -> Result<void> {
                    _observers.push_back(std::move(observer));
                    return OK();
                });
            }
        }
        observer(*this);
        return OK();
    }

    Result<void> Run() override {
        JOBSTATE expected = JOBSTATE::CREATED;
        if (!_state.compare_exchange_strong(expected, JOBSTATE::RUNNING, std::memory_order_acq_rel))
            return IllegalStateError(KELVO_HERE, "Job @ has already started.", _name);
        Execute();
        std::lock_guard lock(_mutex);
        return _result;
    }

    // Puts a created job into the queued state; false if it was enqueued, run or cancelled.
    bool MarkQueued() {
        JOBSTATE expected = JOBSTATE::CREATED;
        return _state.compare_exchange_strong(expected, JOBSTATE::QUEUED,
                                              std::memory_order_acq_rel);
    }

    // Runs a queued job on this worker, unless it was cancelled meanwhile.
    void RunQueued() {
        JOBSTATE expected = JOBSTATE::QUEUED;
        if (!_state.compare_exchange_strong(expected, JOBSTATE::RUNNING, std::memory_order_acq_rel))
            return;
        Execute();
    }

private:
    Error CancelledError() const {
        return UnexpectedError(KELVO_HERE, "Job @ was cancelled.", _name);
    }

    void Execute() {
        JobImpl* outer = std::exchange(t_currentJob, this);
        Result<void> result;
        try {
            result = _work ? _work(*this) : Result<void>();
        } catch (const std::bad_alloc&) {
            result = Error::OutOfMemory();
        } catch (const std::exception& e) {
            result = UnexpectedError(KELVO_HERE, "Job @ failed: @", _name, e.what());
        } catch (...) {
            result = UnexpectedError(KELVO_HERE, "Job @ failed.", _name);
        }
        t_currentJob = outer;
        _state.store(JOBSTATE::ENDED, std::memory_order_release);
        Finish(std::move(result));
    }

    void Finish(Result<void> result) {
        std::vector<std::function<void(JobInterface&)>> observers;
        {
            std::lock_guard lock(_mutex);
            _result = std::move(result);
            _finishing = true;
            observers.swap(_observers);
        }
        _work = nullptr;  // drop what the work holds as soon as it is done
        for (auto& o : observers) o(*this);
        std::lock_guard lock(_mutex);
        _observed = true;
        _endedSignal.notify_all();
    }

    const std::string _name;
    JobFunction _work;
    std::atomic<JOBSTATE> _state{JOBSTATE::CREATED};
    std::atomic<bool> _cancelled{false};
    mutable std::mutex _mutex;  // guards the fields below
    std::condition_variable _endedSignal;
    std::vector<std::function<void(JobInterface&)>> _observers;
    Result<void> _result;
    bool _finishing = false;  // observers taken; later ones run at once
    bool _observed = false;   // observers done; Wait returns
};

class JobQueueImpl final : public Implements<JobQueueInterface>,
                           public std::enable_shared_from_this<JobQueueImpl> {
public:
    JobQueueImpl(std::string name, int threads) : _name(std::move(name)), _threads(threads) {}

    std::string_view GetName() const override { return _name; }
    int GetThreadCount() const override { return _threads; }

    Result<void> Enqueue(const StrongRef<JobInterface>& job) override {
        auto impl = std::dynamic_pointer_cast<JobImpl>(job);
        if (!impl)
            return IllegalArgumentError(KELVO_HERE, "Job @ was not made by the host.",
                                        job ? job->GetName() : std::string_view("(none)"));
        bool token = false;
        {
            std::lock_guard lock(_mutex);
            if (!impl->MarkQueued())
                return IllegalStateError(KELVO_HERE, "Job @ has already started.", impl->GetName());
            _pending.push_back(impl);
            if (_tokens < _threads) {
                ++_tokens;
                token = true;
            }
        }
        if (token) SubmitToken();
        return OK();
    }

    void CancelAll() override {
        std::deque<StrongRef<JobImpl>> pending;
        std::vector<StrongRef<JobImpl>> running;
        {
            std::lock_guard lock(_mutex);
            pending.swap(_pending);
            running = _running;
        }
        // Outside the lock: observers of cancelled jobs may enqueue again.
        for (auto& j : pending) j->Cancel();
        for (auto& j : running) j->Cancel();
        _idle.notify_all();
    }

    void WaitAll() override {
        if (GetPool().Deterministic()) {
            DriveUntil([&] { return Idle(); });
            return;
        }
        std::unique_lock lock(_mutex);
        _idle.wait(lock, [&] { return _pending.empty() && _tokens == 0; });
    }

private:
    bool Idle() {
        std::lock_guard lock(_mutex);
        return _pending.empty() && _tokens == 0;
    }

    void SubmitToken() {
        GetPool().Submit([self = shared_from_this()] { self->RunToken(); });
    }

    // One job of this queue; then the token goes back into the pool or retires. While
    // nothing else waits in the pool it runs the next job at once, on this thread: handing
    // it to another worker would only cost a wake-up.
    void RunToken() {
        for (;;) {
            StrongRef<JobImpl> job;
            {
                std::lock_guard lock(_mutex);
                if (!_pending.empty()) {
                    job = std::move(_pending.front());
                    _pending.pop_front();
                    _running.push_back(job);
                }
            }
            if (job) {
                job->RunQueued();
                std::lock_guard lock(_mutex);
                std::erase(_running, job);
            }
            bool again = false;
            {
                std::lock_guard lock(_mutex);
                if (!_pending.empty())
                    again = true;
                else
                    --_tokens;
            }
            if (!again) {
                _idle.notify_all();
                return;
            }
            if (!GetPool().Idle()) {
                SubmitToken();
                return;
            }
        }
    }

    const std::string _name;
    const int _threads;
    std::mutex _mutex;
    std::condition_variable _idle;
    std::deque<StrongRef<JobImpl>> _pending;
    std::vector<StrongRef<JobImpl>> _running;
    int _tokens = 0;  // tokens of this queue in the pool
};

class ConditionVariableImpl final : public Implements<ConditionVariableInterface> {
public:
    void Set() override {
        // Notified under the lock: a waiter may destroy this as soon as it wakes.
        std::lock_guard lock(_mutex);
        _set = true;
        _cv.notify_all();
    }
    void Reset() override {
        std::lock_guard lock(_mutex);
        _set = false;
    }
    bool IsSet() const override {
        std::lock_guard lock(_mutex);
        return _set;
    }
    void Wait() override {
        if (GetPool().Deterministic()) {
            DriveUntil([&] { return IsSet(); });
            return;
        }
        std::unique_lock lock(_mutex);
        _cv.wait(lock, [&] { return _set; });
    }
    bool WaitFor(double seconds) override {
        if (GetPool().Deterministic()) {
            DriveUntil([&] { return IsSet(); });
            return IsSet();
        }
        std::unique_lock lock(_mutex);
        auto limit = std::chrono::duration<double>(std::max(0.0, std::min(seconds, 1e9)));
        return _cv.wait_for(lock, limit, [&] { return _set; });
    }

private:
    mutable std::mutex _mutex;
    std::condition_variable _cv;
    bool _set = false;
};

// What the workers of one ParallelFor share. Helpers that the pool starts after the
// loop has ended find it closed and return without touching the caller's body.
struct ParallelForState {
    int64_t from = 0, to = 0, chunk = 1, chunks = 0;
    const ParallelForCallbacks* body = nullptr;
    std::atomic<int64_t> next{0};
    std::atomic<bool> failed{false};
    std::mutex mutex;  // guards active, closed, error
    std::condition_variable done;
    int active = 0;
    bool closed = false;
    Error error;
    std::mutex finaliseMutex;

    void Fail(const Error& e) {
        std::lock_guard lock(mutex);
        if (!error) error = e;
        failed.store(true, std::memory_order_release);
    }

    void Participate(int worker) {
        {
            std::lock_guard lock(mutex);
            if (closed) return;
            ++active;
        }
        bool initialised = false;
        for (;;) {
            if (failed.load(std::memory_order_acquire)) break;
            int64_t c = next.fetch_add(1, std::memory_order_relaxed);
            if (c >= chunks) break;
            if (!initialised) {
                Result<void> r = body->init(body->context, worker);
                if (!r) {
                    Fail(r.GetError());
                    break;
                }
                initialised = true;
            }
            int64_t begin = from + c * chunk;
            int64_t end = to - begin > chunk ? begin + chunk : to;
            Result<void> r = body->work(body->context, worker, begin, end);
            if (!r) {
                Fail(r.GetError());
                break;
            }
        }
        if (initialised) {
            std::lock_guard lock(finaliseMutex);
            Result<void> r = body->finalise(body->context, worker);
            if (!r) Fail(r.GetError());
        }
        std::lock_guard lock(mutex);
        if (--active == 0) done.notify_all();
    }
};

Result<void> ParallelForSlot(int64_t from, int64_t to, int64_t chunkSize, int threads,
                             const ParallelForCallbacks& body) {
    if (to <= from) return OK();
    Pool& pool = GetPool();
    const uint64_t count = static_cast<uint64_t>(to) - static_cast<uint64_t>(from);
    int most = pool.Deterministic() ? 1 : (threads > 0 ? threads : pool.Threads());
    uint64_t chunk = chunkSize > 0 ? static_cast<uint64_t>(chunkSize)
                                   : std::max<uint64_t>(1, count / (uint64_t(most) * 4));
    // Larger than the range, or than what int64 holds: one chunk.
    if (chunk > count) chunk = count;
    uint64_t chunks = (count - 1) / chunk + 1;
    int workers = static_cast<int>(std::min<uint64_t>(uint64_t(most), chunks));
    KELVO_TRY(body.prepare(body.context, workers));

    return CatchOutOfMemory([&]() -> Result<void> {
        auto state = std::make_shared<ParallelForState>();
        state->from = from;
        state->to = to;
        state->chunk = static_cast<int64_t>(chunk);
        state->chunks = static_cast<int64_t>(chunks);
        state->body = &body;
        for (int w = 1; w < workers; ++w) pool.Submit([state, w] { state->Participate(w); });
        state->Participate(0);
        std::unique_lock lock(state->mutex);
        state->done.wait(lock, [&] { return state->active == 0; });
        state->closed = true;
        if (state->error) return state->error;
        return OK();
    });
}

int HostThreadCountSlot() { return GetPool().Threads(); }

Result<StrongRef<JobQueueInterface>> CreateJobQueueSlot(std::string_view name, int threads) {
    if (threads < 1)
        return IllegalArgumentError(KELVO_HERE, "Invalid thread count @ for job queue @.", threads,
                                    name);
    return CatchOutOfMemory([&]() -> Result<StrongRef<JobQueueInterface>> {
        return StrongRef<JobQueueInterface>(
            std::make_shared<JobQueueImpl>(std::string(name), threads));
    });
}

Result<StrongRef<JobInterface>> CreateJobSlot(std::string_view name, JobFunction work) {
    return CatchOutOfMemory([&]() -> Result<StrongRef<JobInterface>> {
        return StrongRef<JobInterface>(
            std::make_shared<JobImpl>(std::string(name), std::move(work)));
    });
}

Result<StrongRef<ConditionVariableInterface>> CreateConditionVariableSlot() {
    return CatchOutOfMemory([&]() -> Result<StrongRef<ConditionVariableInterface>> {
        return StrongRef<ConditionVariableInterface>(std::make_shared<ConditionVariableImpl>());
    });
}

}  // namespace

void SetHostThreads(int threads) { GetPool().SetThreads(threads); }
void SetDeterministicJobs(bool on) { GetPool().SetDeterministic(on); }
size_t RunPendingJobs(int64_t most) {
    size_t ran = 0;
    while ((most < 0 || int64_t(ran) < most) && GetPool().RunOne()) ++ran;
    return ran;
}
size_t PendingJobs() { return GetPool().Pending(); }

namespace detail {
void FillJobSlots(KelvoHostSlots& slots) {
    slots.HostThreadCount = &HostThreadCountSlot;
    slots.CreateJobQueue = &CreateJobQueueSlot;
    slots.CreateJob = &CreateJobSlot;
    slots.ParallelFor = &ParallelForSlot;
    slots.CreateConditionVariable = &CreateConditionVariableSlot;
}
}  // namespace detail

}  // namespace kelvo::host
