// The framework allocator, with fault injection for tests.
#include <atomic>
#include <cstdlib>

#include "host.h"

namespace kelvo::host {
namespace {

std::atomic<int64_t> g_countdown{0};  // > 0: fail when it reaches zero
std::atomic<bool> g_failAll{false};
std::atomic<int64_t> g_live{0};

bool ShouldFail() {
    if (g_failAll.load(std::memory_order_relaxed)) return true;
    int64_t c = g_countdown.load(std::memory_order_relaxed);
    while (c > 0) {
        if (g_countdown.compare_exchange_weak(c, c - 1, std::memory_order_relaxed)) return c == 1;
    }
    return false;
}

void* AllocateSlot(size_t size, size_t align) {
    if (ShouldFail()) return nullptr;
    if (align < alignof(std::max_align_t)) align = alignof(std::max_align_t);
    void* p = nullptr;
    if (posix_memalign(&p, align, size == 0 ? 1 : size) != 0) return nullptr;
    g_live.fetch_add(1, std::memory_order_relaxed);
    return p;
}

void FreeSlot(void* p) {
    if (!p) return;
    g_live.fetch_sub(1, std::memory_order_relaxed);
    std::free(p);
}

}  // namespace

void FailNthAllocation(int64_t n) {
    g_failAll.store(false);
    g_countdown.store(n > 0 ? n : 0);
}
bool AllocationFailurePending() { return g_countdown.load() > 0; }
void FailAllAllocations() { g_failAll.store(true); }
int64_t LiveAllocations() { return g_live.load(); }

namespace detail {
void FillAllocatorSlots(KelvoHostSlots& slots) {
    slots.Allocate = &AllocateSlot;
    slots.Free = &FreeSlot;
}
}  // namespace detail

}  // namespace kelvo::host
