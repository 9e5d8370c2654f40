// A spin lock for short critical sections. Waiting spins with a back-off that doubles
// from 16 pause instructions per round and starts over at 16 past 2048, so that a waiter
// looks again soon however long it has waited; once it has spun more than 262,144 times it
// calls g_CpuYieldDelegate instead of spinning, when the host has set one.
#pragma once

#include <atomic>
#include <cstdint>

#include "kelvo/binding.h"

#if defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#endif

namespace kelvo {

class Spinlock {
public:
    static constexpr uint32_t kFirstSpins = 16;
    static constexpr uint32_t kMaxSpins = 2048;
    static constexpr uint64_t kYieldAfter = 262144;

    void Lock() {
        if (!_locked.exchange(true, std::memory_order_acquire)) return;
        uint32_t spins = kFirstSpins;
        uint64_t total = 0;
        for (;;) {
            // Wait on a plain load so waiters do not bounce the cache line.
            while (_locked.load(std::memory_order_relaxed)) {
                if (total > kYieldAfter) {
                    if (auto yield = g_CpuYieldDelegate) {
                        yield();
                        continue;
                    }
                }
                for (uint32_t i = 0; i < spins; ++i) Pause();
                total += spins;
                spins = spins < kMaxSpins ? spins * 2 : kFirstSpins;
            }
            if (!_locked.exchange(true, std::memory_order_acquire)) return;
        }
    }
    bool TryLock() { return !_locked.exchange(true, std::memory_order_acquire); }
    void Unlock() { _locked.store(false, std::memory_order_release); }

    // BasicLockable, so std::lock_guard and std::unique_lock work.
    void lock() { Lock(); }
    void unlock() { Unlock(); }
    bool try_lock() { return TryLock(); }

private:
    static void Pause() {
#if defined(__x86_64__) || defined(_M_X64)
        _mm_pause();
#else
        std::atomic_signal_fence(std::memory_order_seq_cst);
#endif
    }
    std::atomic<bool> _locked{false};
};

}  // namespace kelvo
