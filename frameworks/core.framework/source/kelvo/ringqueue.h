// A growable first-in first-out ring queue.
//
// The storage is a power-of-two ring that doubles when full; growing allocates through the
// framework allocator and a failed growth is returned as the out-of-memory error with the
// queue unchanged. Popping never allocates. Not thread safe: guard a shared queue with a lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>

#include "kelvo/allocator.h"
#include "kelvo/result.h"

namespace kelvo {

template <typename T>
class RingQueue {
    static_assert(std::is_nothrow_move_constructible_v<T>, "elements move without throwing");

public:
    static constexpr size_t kFirstCapacity = 8;

    RingQueue() = default;
    RingQueue(const RingQueue&) = delete;
    RingQueue& operator=(const RingQueue&) = delete;
    ~RingQueue() {
        Clear();
        Free(_items);
    }

    size_t Size() const { return _size; }
    bool IsEmpty() const { return _size == 0; }
    size_t Capacity() const { return _capacity; }

    // Appends value at the back, growing the ring when it is full.
    Result<void> Push(T value) {
        if (_size == _capacity) KELVO_TRY(Grow(_capacity ? _capacity * 2 : kFirstCapacity));
        new (&_items[(_head + _size) & (_capacity - 1)]) T(std::move(value));
        ++_size;
        return OK();
    }
    // The front element, or nullptr when empty.
    T* Front() { return _size ? &_items[_head] : nullptr; }
    // Moves the front element into `out` and removes it; false when empty.
    bool Pop(T& out) {
        if (!_size) return false;
        out = std::move(_items[_head]);
        _items[_head].~T();
        _head = (_head + 1) & (_capacity - 1);
        --_size;
        return true;
    }
    void Clear() {
        T discarded;
        while (Pop(discarded)) {
        }
        _head = 0;
    }
    // Makes room for `count` elements without further growth.
    Result<void> Reserve(size_t count) {
        size_t want = _capacity ? _capacity : kFirstCapacity;
        while (want < count) {
            if (want > SIZE_MAX / (2 * sizeof(T))) return Error::OutOfMemory();
            want *= 2;
        }
        return want > _capacity ? Grow(want) : OK();
    }

private:
    Result<void> Grow(size_t capacity) {
        if (capacity > SIZE_MAX / sizeof(T)) return Error::OutOfMemory();
        T* fresh = static_cast<T*>(Allocate(capacity * sizeof(T), alignof(T)));
        if (!fresh) return Error::OutOfMemory();
        for (size_t i = 0; i < _size; ++i) {
            T* from = &_items[(_head + i) & (_capacity - 1)];
            new (&fresh[i]) T(std::move(*from));
            from->~T();
        }
        Free(_items);
        _items = fresh;
        _capacity = capacity;
        _head = 0;
        return OK();
    }

    T* _items = nullptr;
    size_t _capacity = 0;  // zero or a power of two
    size_t _head = 0;
    size_t _size = 0;
};

}  // namespace kelvo
