// Memory through the framework allocator, so that tests can make any allocation fail.
//
// Allocate returns nullptr on failure. Allocator<T> adapts it for standard containers:
// it throws std::bad_alloc, which entry points turn into the out-of-memory error with
// CatchOutOfMemory (see result.h).
#pragma once

#include <cstddef>
#include <memory>
#include <new>
#include <utility>

#include "kelvo/binding.h"
#include "kelvo/result.h"

namespace kelvo {

inline void* Allocate(size_t size, size_t align = alignof(std::max_align_t)) {
    return g_kelvo.host.Allocate(size, align);
}
inline void Free(void* p) {
    if (p) g_kelvo.host.Free(p);
}

template <typename T>
struct Allocator {
    using value_type = T;
    Allocator() = default;
    template <typename U>
    Allocator(const Allocator<U>&) {}  // NOLINT(google-explicit-constructor)
    T* allocate(size_t n) {
        if (n > SIZE_MAX / sizeof(T)) throw std::bad_alloc();  // NOLINT(bugprone-sizeof-expression)
        void* p = Allocate(n * sizeof(T), alignof(T));         // NOLINT(bugprone-sizeof-expression)
        if (!p) throw std::bad_alloc();
        return static_cast<T*>(p);
    }
    void deallocate(T* p, size_t) { Free(p); }
    template <typename U>
    bool operator==(const Allocator<U>&) const {
        return true;
    }
};

// A shared object allocated through the framework allocator.
template <typename T, typename... A>
Result<std::shared_ptr<T>> NewObject(A&&... args) {
    try {
        return std::allocate_shared<T>(Allocator<T>{}, std::forward<A>(args)...);
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    }
}

}  // namespace kelvo
