// Result<T>: a value or an Error. Result<void> is success or an Error.
#pragma once

#include <cassert>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>

#include "kelvo/error.h"

namespace kelvo {

template <typename T>
class [[nodiscard]] Result {
public:
    Result(T value) : _value(std::move(value)) {}  // NOLINT(google-explicit-constructor)
    Result(Error error) : _error(std::move(error)) { assert(_error); }  // NOLINT
    template <typename U, typename = std::enable_if_t<std::is_constructible_v<T, U&&> &&
                                                      !std::is_same_v<std::decay_t<U>, Error>>>
    Result(U&& v) : _value(T(std::forward<U>(v))) {}  // NOLINT

    bool Ok() const { return !_error; }
    explicit operator bool() const { return Ok(); }
    const Error& GetError() const { return _error; }
    T& Value() & { return *_value; }
    const T& Value() const& { return *_value; }
    T&& Value() && { return std::move(*_value); }
    T& operator*() { return *_value; }
    const T& operator*() const { return *_value; }
    T* operator->() { return &*_value; }
    const T* operator->() const { return &*_value; }
    T ValueOr(T fallback) const { return Ok() ? *_value : std::move(fallback); }

private:
    std::optional<T> _value;
    Error _error;
};

template <>
class [[nodiscard]] Result<void> {
public:
    Result() = default;
    Result(Error error) : _error(std::move(error)) {}  // NOLINT(google-explicit-constructor)
    bool Ok() const { return !_error; }
    explicit operator bool() const { return Ok(); }
    const Error& GetError() const { return _error; }

private:
    Error _error;
};

inline Result<void> OK() { return {}; }

// Runs f and turns std::bad_alloc from a container growing through the framework
// allocator into the out-of-memory error, so no exception leaves an entry point.
template <typename F>
auto CatchOutOfMemory(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    }
}

}  // namespace kelvo

#define KELVO_CONCAT_INNER(a, b) a##b
#define KELVO_CONCAT(a, b) KELVO_CONCAT_INNER(a, b)

// Returns the error of a failed Result<...> expression from the enclosing function.
#define KELVO_TRY(expr)                                                   \
    do {                                                                  \
        auto&& kelvo_try_result_ = (expr);                                \
        if (!kelvo_try_result_.Ok()) return kelvo_try_result_.GetError(); \
    } while (0)

// Declares lhs from the value of a Result, or returns its error.
#define KELVO_ASSIGN_OR_RETURN(lhs, expr) \
    KELVO_ASSIGN_OR_RETURN_IMPL(KELVO_CONCAT(kelvo_res_, __LINE__), lhs, expr)
#define KELVO_ASSIGN_OR_RETURN_IMPL(tmp, lhs, expr) \
    auto tmp = (expr);                              \
    if (!tmp.Ok()) return tmp.GetError();           \
    lhs = std::move(tmp).Value()

#include "kelvo/binding.h"

namespace kelvo {
inline Result<Id> Id::FromText(std::string_view text) { return g_kelvo.host.InternId(text); }
}  // namespace kelvo
