#include "kelvo/spinlock.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "host.h"

namespace kelvo {
namespace {

std::atomic<int> g_yields{0};

TEST(SpinlockTest, ExcludesAndYieldsUnderLongContention) {
    host::Initialize();
    auto previous = g_CpuYieldDelegate;
    g_CpuYieldDelegate = [] {
        g_yields.fetch_add(1);
        std::this_thread::yield();
    };
    Spinlock lock;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                std::lock_guard guard(lock);
                ++counter;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);

    // A holder that keeps the lock long enough makes the waiter reach the yield hook.
    g_yields = 0;
    lock.Lock();
    std::thread waiter([&] {
        lock.Lock();
        lock.Unlock();
    });
    while (g_yields.load() == 0) std::this_thread::yield();
    lock.Unlock();
    waiter.join();
    EXPECT_GT(g_yields.load(), 0);

    // Without a hook, waiting still works.
    g_CpuYieldDelegate = nullptr;
    EXPECT_TRUE(lock.TryLock());
    EXPECT_FALSE(lock.TryLock());
    lock.Unlock();
    g_CpuYieldDelegate = previous;
}

}  // namespace
}  // namespace kelvo
