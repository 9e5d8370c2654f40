// Hash containers keyed by any hashable value: HashMap and HashSet.
//
// Chained buckets, a power-of-two bucket count chosen by masking the hash, and a maximum
// load factor of 0.65. Every allocation goes through the framework allocator and a failed
// one is returned as the out-of-memory error with the container unchanged; erasing and
// finding never allocate. Not thread safe: guard a shared container with a lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>

#include "kelvo/allocator.h"
#include "kelvo/result.h"

namespace kelvo {

template <typename K, typename V, typename HASH = std::hash<K>, typename EQUAL = std::equal_to<K>>
class HashMap {
    static_assert(std::is_nothrow_move_constructible_v<V>, "values move without throwing");

public:
    static constexpr double kMaxLoadFactor = 0.65;
    static constexpr size_t kFirstBuckets = 8;

    HashMap() = default;
    HashMap(const HashMap&) = delete;
    HashMap& operator=(const HashMap&) = delete;
    HashMap(HashMap&& o) noexcept { Swap(o); }
    HashMap& operator=(HashMap&& o) noexcept {
        HashMap(std::move(o)).Swap(*this);
        return *this;
    }
    ~HashMap() {
        Clear();
        Free(_buckets);
    }

    size_t Size() const { return _size; }
    bool IsEmpty() const { return _size == 0; }
    size_t BucketCount() const { return _mask ? _mask + 1 : 0; }

    // Stores value under key, replacing an earlier value. Returns the stored value, or the
    // out-of-memory error with the map unchanged.
    Result<V*> InsertOrAssign(const K& key, V value) {
        size_t h = HASH{}(key);
        if (Node* n = FindNode(key, h)) {
            n->value = std::move(value);
            return &n->value;
        }
        return Add(key, h, std::move(value));
    }
    // Stores value under key unless the key is present. Returns the value under key and
    // whether it was added now.
    Result<std::pair<V*, bool>> Insert(const K& key, V value) {
        size_t h = HASH{}(key);
        if (Node* n = FindNode(key, h)) return std::pair<V*, bool>(&n->value, false);
        KELVO_ASSIGN_OR_RETURN(V * added, Add(key, h, std::move(value)));
        return std::pair<V*, bool>(added, true);
    }

    V* Find(const K& key) {
        Node* n = FindNode(key, HASH{}(key));
        return n ? &n->value : nullptr;
    }
    const V* Find(const K& key) const { return const_cast<HashMap*>(this)->Find(key); }
    bool Contains(const K& key) const { return Find(key) != nullptr; }

    // Removes key; true when it was present.
    bool Erase(const K& key) {
        V discarded;
        return Take(key, discarded);
    }
    // Moves the value under key into `out` and removes the key; false when absent.
    bool Take(const K& key, V& out) {
        if (!_buckets) return false;
        size_t h = HASH{}(key);
        for (Node** at = &_buckets[h & _mask]; *at; at = &(*at)->next) {
            Node* n = *at;
            if (n->hash != h || !EQUAL{}(n->key, key)) continue;
            *at = n->next;
            out = std::move(n->value);
            Destroy(n);
            --_size;
            return true;
        }
        return false;
    }

    void Clear() {
        for (size_t b = 0; b < BucketCount(); ++b) {
            for (Node* n = _buckets[b]; n;) {
                Node* next = n->next;
                Destroy(n);
                n = next;
            }
            _buckets[b] = nullptr;
        }
        _size = 0;
    }

    // Grows the bucket array so that `count` keys fit under the maximum load factor.
    Result<void> Reserve(size_t count) {
        size_t want = kFirstBuckets;
        while (double(count) > double(want) * kMaxLoadFactor) {
            if (want > SIZE_MAX / 4) return Error::OutOfMemory();
            want *= 2;
        }
        return want > BucketCount() ? Rehash(want) : OK();
    }

    // Calls f(key, value) for every entry, in no particular order. f must not change the map.
    template <typename F>
    void ForEach(F&& f) const {
        for (size_t b = 0; b < BucketCount(); ++b)
            for (const Node* n = _buckets[b]; n; n = n->next) f(n->key, n->value);
    }

    void Swap(HashMap& o) noexcept {
        std::swap(_buckets, o._buckets);
        std::swap(_mask, o._mask);
        std::swap(_size, o._size);
    }

private:
    struct Node {
        Node* next;
        size_t hash;
        K key;
        V value;
    };

    Node* FindNode(const K& key, size_t h) const {
        if (!_buckets) return nullptr;
        for (Node* n = _buckets[h & _mask]; n; n = n->next)
            if (n->hash == h && EQUAL{}(n->key, key)) return n;
        return nullptr;
    }

    Result<V*> Add(const K& key, size_t h, V&& value) {
        // Grow first: a failed growth leaves the map as it was, a failed node after a
        // successful growth leaves it only roomier.
        KELVO_TRY(Reserve(_size + 1));
        void* memory = Allocate(sizeof(Node), alignof(Node));
        if (!memory) return Error::OutOfMemory();
        Node* n = new (memory) Node{_buckets[h & _mask], h, key, std::move(value)};
        _buckets[h & _mask] = n;
        ++_size;
        return &n->value;
    }

    Result<void> Rehash(size_t count) {
        // An array of bucket heads: the pointer size is the element size.
        // NOLINTNEXTLINE(bugprone-sizeof-expression)
        auto** fresh = static_cast<Node**>(Allocate(count * sizeof(Node*), alignof(Node*)));
        if (!fresh) return Error::OutOfMemory();
        for (size_t b = 0; b < count; ++b) fresh[b] = nullptr;
        for (size_t b = 0; b < BucketCount(); ++b) {
            for (Node* n = _buckets[b]; n;) {
                Node* next = n->next;
                n->next = fresh[n->hash & (count - 1)];
                fresh[n->hash & (count - 1)] = n;
                n = next;
            }
        }
        Free(_buckets);
        _buckets = fresh;
        _mask = count - 1;
        return OK();
    }

    static void Destroy(Node* n) {
        n->~Node();
        Free(n);
    }

    Node** _buckets = nullptr;
    size_t _mask = 0;
    size_t _size = 0;
};

// A set of keys, with the growth and failure rules of HashMap.
template <typename K, typename HASH = std::hash<K>, typename EQUAL = std::equal_to<K>>
class HashSet {
public:
    size_t Size() const { return _map.Size(); }
    bool IsEmpty() const { return _map.IsEmpty(); }
    bool Contains(const K& key) const { return _map.Contains(key); }
    // Adds key; true when it was not present before. Out of memory leaves the set unchanged.
    Result<bool> Insert(const K& key) {
        KELVO_ASSIGN_OR_RETURN(auto added, _map.Insert(key, Empty{}));
        return added.second;
    }
    bool Erase(const K& key) { return _map.Erase(key); }
    void Clear() { _map.Clear(); }
    Result<void> Reserve(size_t count) { return _map.Reserve(count); }
    template <typename F>
    void ForEach(F&& f) const {
        _map.ForEach([&](const K& key, const Empty&) { f(key); });
    }

private:
    struct Empty {};
    HashMap<K, Empty, HASH, EQUAL> _map;
};

}  // namespace kelvo
