#include "interrupt.h"

#include <atomic>
#include <cerrno>
#include <csignal>

namespace kelvo::cli {
namespace {

std::atomic<bool> g_interrupted{false};
std::atomic<Wakeup*> g_wake{nullptr};
struct sigaction g_previous {};

extern "C" void OnInterrupt(int /*signal*/) {
    g_interrupted.store(true);
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
    g_wake.store(wake);
    struct sigaction action {};
    action.sa_handler = &OnInterrupt;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &g_previous);
}

InterruptGuard::~InterruptGuard() {
    sigaction(SIGINT, &g_previous, nullptr);
    g_wake.store(nullptr);
}

bool InterruptGuard::Interrupted() const { return g_interrupted.load(); }

}  // namespace kelvo::cli
