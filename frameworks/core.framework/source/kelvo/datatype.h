// Data types: an id plus the table of operations the framework uses to construct,
// destroy, copy, compare and hash values it knows only by id.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <type_traits>

#include "kelvo/id.h"

namespace kelvo {

struct DataTypeOps {
    size_t size;
    size_t align;
    void (*construct)(void* at);
    void (*destruct)(void* at);
    void (*copy)(void* at, const void* from);  // at holds a constructed value
    bool (*equal)(const void* a, const void* b);
    uint64_t (*hash)(const void* value);
};

enum DATATYPEFLAGS : uint32_t {
    DATATYPEFLAGS_NONE = 0,
    DATATYPEFLAGS_POD = 1,  // bitwise copy and comparison are correct
};

struct DataType {
    Id id;
    uint32_t flags;
    DataTypeOps ops;
};

namespace detail {
template <typename T>
uint64_t HashBytes(const void* v) {
    return HashText({static_cast<const char*>(v), sizeof(T)});
}
template <typename T>
bool EqualValues(const void* a, const void* b) {
    if constexpr (std::is_trivially_copyable_v<T> && !std::is_floating_point_v<T> &&
                  !requires(const T& x) { x == x; })
        return std::memcmp(a, b, sizeof(T)) == 0;
    else
        return *static_cast<const T*>(a) == *static_cast<const T*>(b);
}
}  // namespace detail

// The operations table of a C++ value type. Types without operator== compare bitwise.
template <typename T>
constexpr DataTypeOps MakeDataTypeOps() {
    return DataTypeOps{
        sizeof(T),
        alignof(T),
        [](void* at) { new (at) T(); },
        [](void* at) { static_cast<T*>(at)->~T(); },
        [](void* at, const void* from) { *static_cast<T*>(at) = *static_cast<const T*>(from); },
        &detail::EqualValues<T>,
        &detail::HashBytes<T>,
    };
}

}  // namespace kelvo
