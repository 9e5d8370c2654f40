// Data descriptions: how an object says which of its members are stored, and under which
// keys, so that the host can write it into a document and read it back.
//
// An object implements DescribeIOInterface and describes each stored member in order:
//
//   Result<void> DescribeIO(DataDescriber& io) override {
//       KELVO_TRY(Describe(io, "_anglesVertical", _anglesVertical));
//       KELVO_TRY(Describe(io, "_dataMax", _dataMax));
//       return OK();
//   }
//
// The same function serves both directions: when writing, Describe reads the member; when
// reading (io.IsReading()), it assigns it. A type that must not be serialised returns its
// own error instead, and WriteDescription and ReadDescription return that error unchanged.
//
// The document is JSON:
//   {"description": 1, "members": {"<key>": <value>, ...}}   (keys in description order)
// bool: true/false. Integers: JSON integers. Float32/Float64: JSON numbers that read back to
// the same value; non-finite values are the strings "inf", "-inf", "nan". Text: a JSON
// string when it is valid UTF-8, otherwise {"latin1": "..."} whose code points U+0000..U+00FF
// are the bytes. Vec2/Vec3/Col3: arrays. Arrays: JSON arrays of their elements. A nested
// described object: its own {"<key>": ...} object. A DataDictionary:
//   {"entries": [{"key": 1000 or "net.kelvo...", "type": "<type>", "value": ...}, ...]}
// with the types "none", "bool", "int64", "float64", "string", "id", "vec2", "vec3", "col3",
// "matrix" ({"offset", "xAxis", "yAxis", "zAxis"}) and "url"; dictionaries holding objects
// or values of registered data types are refused with
// "Illegal argument: The value under @ cannot be serialised.".
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

#include "kelvo/binding.h"
#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

enum class DESCRIBETYPE : uint8_t {
    BOOL,
    INT32,
    UINT32,
    INT64,
    FLOAT32,
    FLOAT64,
    STRING,  // std::string
    VEC2,
    VEC3,
    COL3,
    DATADICTIONARY,
    ARRAY,   // a growable array; `element` gives the element type (a number type)
    OBJECT,  // a nested DescribeIOInterface
};

// Type-erased access to a growable array (a std::vector of any allocator).
struct DescribedArrayOps {
    size_t (*size)(const void* array);
    // Resizes; returns the element storage, or nullptr when memory runs out.
    void* (*resize)(void* array, size_t count);
    const void* (*data)(const void* array);
};

struct DescribedMember {
    DESCRIBETYPE type;
    void* address;
    DESCRIBETYPE element = DESCRIBETYPE::FLOAT64;  // of an ARRAY
    const DescribedArrayOps* array = nullptr;      // of an ARRAY
};

class DescribeIOInterface;

// Implemented by the host: walks an object's members in one direction.
class DataDescriber {
public:
    virtual bool IsReading() const = 0;
    // Reads or writes one member. Reading fails with "Illegal argument: Member @ is
    // missing.", "Illegal argument: Member @ is not @." (the expected kind) or
    // "Illegal argument: Member @ is out of range.".
    virtual Result<void> Member(std::string_view key, const DescribedMember& member) = 0;

protected:
    ~DataDescriber() = default;
};

class DescribeIOInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.describeio"); }
    virtual Result<void> DescribeIO(DataDescriber& io) = 0;
};

namespace detail {
template <typename T>
constexpr DESCRIBETYPE DescribeTypeOf() {
    if constexpr (std::is_same_v<T, bool>)
        return DESCRIBETYPE::BOOL;
    else if constexpr (std::is_same_v<T, int32_t>)
        return DESCRIBETYPE::INT32;
    else if constexpr (std::is_same_v<T, uint32_t>)
        return DESCRIBETYPE::UINT32;
    else if constexpr (std::is_same_v<T, int64_t>)
        return DESCRIBETYPE::INT64;
    else if constexpr (std::is_same_v<T, float>)
        return DESCRIBETYPE::FLOAT32;
    else if constexpr (std::is_same_v<T, double>)
        return DESCRIBETYPE::FLOAT64;
    else if constexpr (std::is_same_v<T, std::string>)
        return DESCRIBETYPE::STRING;
    else if constexpr (std::is_same_v<T, Vec2>)
        return DESCRIBETYPE::VEC2;
    else if constexpr (std::is_same_v<T, Vec3>)
        return DESCRIBETYPE::VEC3;
    else if constexpr (std::is_same_v<T, Col3>)
        return DESCRIBETYPE::COL3;
    else if constexpr (std::is_same_v<T, DataDictionary>)
        return DESCRIBETYPE::DATADICTIONARY;
    else
        static_assert(sizeof(T) == 0, "no description for this member type");
}

template <typename V>
struct ArrayOpsFor {
    static constexpr DescribedArrayOps ops{
        [](const void* a) { return static_cast<const V*>(a)->size(); },
        [](void* a, size_t n) -> void* {
            try {
                static_cast<V*>(a)->resize(n);
                return n ? static_cast<void*>(static_cast<V*>(a)->data()) : a;
            } catch (const std::bad_alloc&) {
                return nullptr;
            }
        },
        [](const void* a) { return static_cast<const void*>(static_cast<const V*>(a)->data()); },
    };
};
}  // namespace detail

// Describes one member under `key`: a value of a described type, a std::vector of numbers
// (any allocator), or a nested DescribeIOInterface.
template <typename T>
Result<void> Describe(DataDescriber& io, std::string_view key, T& member) {
    if constexpr (std::is_base_of_v<DescribeIOInterface, T>) {
        DescribeIOInterface& nested = member;
        return io.Member(key, {DESCRIBETYPE::OBJECT, &nested});
    } else if constexpr (requires {
                             typename T::value_type;
                             member.resize(0);
                             member.data();
                         } &&
                         !std::is_same_v<T, std::string>) {
        using E = typename T::value_type;
        static_assert(std::is_arithmetic_v<E> && !std::is_same_v<E, bool>,
                      "arrays are described as arrays of numbers");
        return io.Member(key, {DESCRIBETYPE::ARRAY, &member, detail::DescribeTypeOf<E>(),
                               &detail::ArrayOpsFor<T>::ops});
    } else {
        return io.Member(key, {detail::DescribeTypeOf<T>(), &member});
    }
}

// The object's description as a JSON document.
inline Result<std::string> WriteDescription(DescribeIOInterface& object) {
    return g_kelvo.host.WriteDescription(object);
}
// Fills the object from a document that WriteDescription made. Members are assigned in
// description order; on an error the members before it keep their new values.
inline Result<void> ReadDescription(DescribeIOInterface& object, std::string_view document) {
    return g_kelvo.host.ReadDescription(object, document);
}

}  // namespace kelvo
