// Data values and data dictionaries.
//
// A Data holds one value of a built-in type or of a registered data type (copied
// through that type's operations table). A DataDictionary maps ids or integers to
// Data. Reading a key that is missing, or holds another type, yields the fallback the
// reader gives: a parameter of the wrong type is treated as absent, never as an error.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "kelvo/allocator.h"
#include "kelvo/datatype.h"
#include "kelvo/matrix.h"
#include "kelvo/object.h"
#include "kelvo/url.h"
#include "kelvo/vec.h"

namespace kelvo {

// A value of a registered data type, owned through the framework allocator.
class CustomData {
public:
    CustomData() = default;
    // Copies *value; leaves this empty if the allocation fails.
    CustomData(const DataType* type, const void* value) { Assign(type, value); }
    CustomData(const CustomData& o) { Assign(o._type, o._value); }
    CustomData(CustomData&& o) noexcept
        : _type(std::exchange(o._type, nullptr)), _value(std::exchange(o._value, nullptr)) {}
    CustomData& operator=(CustomData o) noexcept {
        std::swap(_type, o._type);
        std::swap(_value, o._value);
        return *this;
    }
    ~CustomData() { Reset(); }

    const DataType* Type() const { return _type; }
    const void* Value() const { return _value; }
    bool operator==(const CustomData& o) const {
        if (!_type || !o._type) return _type == o._type;
        return _type->id == o._type->id && _type->ops.equal(_value, o._value);
    }

private:
    void Assign(const DataType* type, const void* value) {
        Reset();
        if (!type || !value) return;
        void* at = Allocate(type->ops.size, type->ops.align);
        if (!at) return;
        type->ops.construct(at);
        type->ops.copy(at, value);
        _type = type;
        _value = at;
    }
    void Reset() {
        if (_value) {
            _type->ops.destruct(_value);
            Free(_value);
        }
        _type = nullptr;
        _value = nullptr;
    }
    const DataType* _type = nullptr;
    void* _value = nullptr;
};

class Data {
public:
    using Variant = std::variant<std::monostate, bool, int64_t, double, std::string, Id, Vec2, Vec3,
                                 Col3, Matrix, Url, StrongRef<Object>, CustomData>;

    Data() = default;
    template <typename T, typename = std::enable_if_t<std::is_constructible_v<Variant, T&&> &&
                                                      !std::is_same_v<std::decay_t<T>, Data>>>
    Data(T&& v) : _value(std::forward<T>(v)) {}      // NOLINT(google-explicit-constructor)
    Data(int v) : _value(int64_t(v)) {}              // NOLINT(google-explicit-constructor)
    Data(const char* v) : _value(std::string(v)) {}  // NOLINT(google-explicit-constructor)

    // A value of a registered data type; empty if `type` is null or allocation fails.
    static Data Custom(const DataType* type, const void* value) {
        Data d;
        d._value = CustomData(type, value);
        return d;
    }

    bool IsEmpty() const { return std::holds_alternative<std::monostate>(_value); }
    template <typename T>
    const T* Get() const {
        return std::get_if<T>(&_value);
    }
    // The value of a registered data type, if this holds one of the given id.
    template <typename T>
    const T* GetCustom(const Id& typeId) const {
        auto* c = std::get_if<CustomData>(&_value);
        return c && c->Type() && c->Type()->id == typeId ? static_cast<const T*>(c->Value())
                                                         : nullptr;
    }
    const Variant& Raw() const { return _value; }
    bool operator==(const Data&) const = default;

private:
    Variant _value;
};

class DataDictionary {
public:
    using Key = std::variant<Id, int64_t>;

    // Stores a copy of value under key. Fails only when memory runs out.
    Result<void> Set(const Key& key, Data value) {
        return CatchOutOfMemory([&]() -> Result<void> {
            _entries.insert_or_assign(key, std::move(value));
            return OK();
        });
    }
    const Data* Find(const Key& key) const {
        auto it = _entries.find(key);
        return it == _entries.end() ? nullptr : &it->second;
    }
    bool Contains(const Key& key) const { return Find(key) != nullptr; }
    void Erase(const Key& key) { _entries.erase(key); }
    size_t Size() const { return _entries.size(); }

    // The value under key if it has type T, otherwise the fallback.
    template <typename T>
    T Get(const Key& key, T fallback = T()) const {
        const Data* d = Find(key);
        if (!d) return fallback;
        if constexpr (std::is_same_v<T, int>) {
            const int64_t* v = d->Get<int64_t>();
            return v ? static_cast<int>(*v) : fallback;
        } else if constexpr (std::is_same_v<T, float>) {
            const double* v = d->Get<double>();
            return v ? static_cast<float>(*v) : fallback;
        } else {
            const T* v = d->Get<T>();
            return v ? *v : fallback;
        }
    }

    auto begin() const { return _entries.begin(); }
    auto end() const { return _entries.end(); }
    bool operator==(const DataDictionary&) const = default;

private:
    struct Less {
        bool operator()(const Key& a, const Key& b) const {
            if (a.index() != b.index()) return a.index() < b.index();
            if (a.index() == 0) return std::get<0>(a) < std::get<0>(b);
            return std::get<1>(a) < std::get<1>(b);
        }
    };
    std::map<Key, Data, Less, Allocator<std::pair<const Key, Data>>> _entries;
};

// The framework's default dictionary: what a reader falls back to when it is handed no
// dictionary. It is shared and read-only; empty unless the host filled it, and null when
// the host offers none.
inline std::shared_ptr<const DataDictionary> DefaultDataDictionary() {
    return g_kelvo.host.DefaultDataDictionary ? g_kelvo.host.DefaultDataDictionary() : nullptr;
}

}  // namespace kelvo
