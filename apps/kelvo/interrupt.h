// Ctrl-C for commands that run until their work is done (preview renders): the run stops
// and keeps what it has instead of the process dying, and a thread sleeping on a Wakeup
// learns of it at once.
#pragma once

#include <semaphore.h>

namespace kelvo::cli {

// A wake-up call to one sleeping thread that other threads and a signal handler can make
// (a POSIX semaphore: posting is safe in a signal handler, a condition variable is not).
class Wakeup {
public:
    Wakeup();
    ~Wakeup();
    Wakeup(const Wakeup&) = delete;
    Wakeup& operator=(const Wakeup&) = delete;

    void Post() noexcept;
    // Sleeps until at least one Post since the last Wait returned, then takes them all.
    void Wait() noexcept;

private:
    sem_t _sem{};
};

// While this lives, Ctrl-C sets Interrupted() and posts `wake` (when given) instead of
// ending the process. One at a time.
class InterruptGuard {
public:
    explicit InterruptGuard(Wakeup* wake = nullptr);
    ~InterruptGuard();
    InterruptGuard(const InterruptGuard&) = delete;
    InterruptGuard& operator=(const InterruptGuard&) = delete;

    bool Interrupted() const;
};

}  // namespace kelvo::cli
