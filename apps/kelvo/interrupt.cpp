#include "interrupt.h"

#include <atomic>
#include <cerrno>
#include <csignal>

#include "host.h"

namespace kelvo::cli {
namespace {

std::atomic<bool> g_interrupted{false};
std::atomic<Wakeup*> g_wake{nullptr};
struct sigaction g_previous {};

// A swatch's texture or light profile may come from a FIFO that never sends: its read is
// interrupted too, so that the run can let go of the swatch.
extern "C" void OnInterrupt(int /*signal*/) {
    g_interrupted.store(true);
    host::InterruptInputs(true);
    if (Wakeup* wake = g_wake.load()) wake->Post();
}

}  // namespace

Wakeup::Wakeup() { sem_init(&_sem, 0, 0); }
Wakeup::~Wakeup() { sem_destroy(&_sem); }

void Wakeup::Post() noexcept { sem_post(&_sem); }

void Wakeup::Wait() noexcept {
    // A signal (EINTR) ends the sleep as a Post does: the caller looks at what changed.
    if (sem_wait(&_sem) != 0 && errno != EINTR) return;
    while (sem_trywait(&_sem) == 0) {
    }
}

InterruptGuard::InterruptGuard(Wakeup* wake) {
    g_interrupted.store(false);
    host::InterruptInputs(false);
    g_wake.store(wake);
    struct sigaction action {};
    action.sa_handler = &OnInterrupt;
    action.sa_flags = SA_RESETHAND;  // a second Ctrl-C ends the process as usual
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &g_previous);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &g_previous, nullptr);
    g_wake.store(nullptr);
    host::InterruptInputs(false);
}

bool InterruptGuard::Interrupted() const { return g_interrupted.load(); }

}  // namespace kelvo::cli
