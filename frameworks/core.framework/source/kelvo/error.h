// Error values: a kind, the whole message a caller sees, the source location that
// raised it and, for I/O errors, the url concerned.
//
// Failures are returned, never thrown. Errors of lower layers are passed on unchanged.
// The out-of-memory error is a static object, so reporting it never allocates.
#pragma once

#include <atomic>
#include <cstdint>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "kelvo/id.h"

namespace kelvo {

enum class ERRORKIND : uint8_t {
    ILLEGALARGUMENT,
    ILLEGALSTATE,
    OUTOFMEMORY,
    IO,
    UNSUPPORTEDARGUMENT,
    UNEXPECTED,
};

// Repository-relative path of the raising file, without extension, and its line.
// The build maps the source root away from __FILE__, so the path needs no copying.
struct SourceLocation {
    const char* file = "";
    uint32_t fileSize = 0;
    uint32_t line = 0;

    constexpr std::string_view Path() const { return {file, fileSize}; }

    static constexpr SourceLocation Make(const char* file, uint32_t line) {
        std::string_view f(file);
        // A build that compiles by relative path (ccache's base dir) leaves "../" in front.
        while (f.starts_with("../") || f.starts_with("./")) f.remove_prefix(f[1] == '.' ? 3 : 2);
        file = f.data();
        size_t dot = f.rfind('.');
        size_t slash = f.rfind('/');
        if (dot != std::string_view::npos && (slash == std::string_view::npos || dot > slash))
            f = f.substr(0, dot);
        return {file, static_cast<uint32_t>(f.size()), line};
    }
};

#define KELVO_HERE (::kelvo::SourceLocation::Make(__FILE__, __LINE__))

namespace detail {
inline void AppendArg(std::string& out, std::string_view s) { out.append(s); }
inline void AppendArg(std::string& out, const std::string& s) { out.append(s); }
inline void AppendArg(std::string& out, const char* s) { out.append(s ? s : "(null)"); }
inline void AppendArg(std::string& out, const Id& id) { out.append(id.Text()); }
template <typename T>
void AppendArg(std::string& out, const T& v) {
    std::ostringstream os;
    os << v;
    out.append(os.str());
}
inline void FormatInto(std::string& out, std::string_view fmt) { out.append(fmt); }
template <typename A, typename... R>
void FormatInto(std::string& out, std::string_view fmt, const A& a, const R&... rest) {
    size_t at = fmt.find('@');
    if (at == std::string_view::npos) {
        out.append(fmt);
        return;
    }
    out.append(fmt.substr(0, at));
    AppendArg(out, a);
    FormatInto(out, fmt.substr(at + 1), rest...);
}
}  // namespace detail

// Fills each "@" of fmt with the next argument; surplus "@" stay as they are.
template <typename... A>
std::string FormatMessage(std::string_view fmt, const A&... args) {
    std::string out;
    detail::FormatInto(out, fmt, args...);
    return out;
}

class Error {
public:
    Error() = default;  // no error
    Error(ERRORKIND kind, SourceLocation where, std::string message, std::string url = {})
        : _data(new Data{{1}, kind, where, std::move(message), std::move(url), false}) {}
    Error(const Error& o) : _data(o._data) { Retain(); }
    Error(Error&& o) noexcept : _data(std::exchange(o._data, nullptr)) {}
    Error& operator=(Error o) noexcept {
        std::swap(_data, o._data);
        return *this;
    }
    ~Error() { Release(); }

    explicit operator bool() const { return _data != nullptr; }
    ERRORKIND Kind() const { return _data ? _data->kind : ERRORKIND::UNEXPECTED; }
    const std::string& Message() const { return _data ? _data->message : Empty(); }
    const std::string& Url() const { return _data ? _data->url : Empty(); }
    SourceLocation Location() const { return _data ? _data->where : SourceLocation{}; }
    // "message [path:line]", for diagnostics.
    std::string ToString() const {
        if (!_data) return "no error";
        return _data->message + " [" + std::string(_data->where.Path()) + ":" +
               std::to_string(_data->where.line) + "]";
    }

    // The single out-of-memory error; never allocates.
    static Error OutOfMemory() {
        // Made once, at the first use, in static storage and never destroyed: a module that
        // is unloaded and loaded again leaves nothing behind (the host copies a module's
        // error before it unloads it).
        alignas(Data) static unsigned char storage[sizeof(Data)];
        static Data* data =
            new (storage) Data{{1}, ERRORKIND::OUTOFMEMORY, KELVO_HERE, "Out of memory.", {}, true};
        Error e;
        e._data = data;
        return e;
    }

private:
    struct Data {
        std::atomic<int> refs;
        ERRORKIND kind;
        SourceLocation where;
        std::string message;
        std::string url;
        bool immortal;
    };
    static const std::string& Empty() {
        static const std::string s;
        return s;
    }
    void Retain() const {
        if (_data && !_data->immortal) _data->refs.fetch_add(1, std::memory_order_relaxed);
    }
    void Release() {
        if (_data && !_data->immortal && _data->refs.fetch_sub(1, std::memory_order_acq_rel) == 1)
            delete _data;
        _data = nullptr;
    }
    Data* _data = nullptr;
};

// Constructors of the error kinds. Argument and state errors carry their prefix in the
// message, so the text a caller compares against is the whole text.
template <typename... A>
Error IllegalArgumentError(SourceLocation where, std::string_view fmt, const A&... args) {
    return {ERRORKIND::ILLEGALARGUMENT, where, "Illegal argument: " + FormatMessage(fmt, args...)};
}
template <typename... A>
Error IllegalStateError(SourceLocation where, std::string_view fmt, const A&... args) {
    return {ERRORKIND::ILLEGALSTATE, where, "Illegal state: " + FormatMessage(fmt, args...)};
}
template <typename... A>
Error UnexpectedError(SourceLocation where, std::string_view fmt, const A&... args) {
    return {ERRORKIND::UNEXPECTED, where, FormatMessage(fmt, args...)};
}
template <typename... A>
Error UnsupportedArgumentError(SourceLocation where, std::string_view fmt, const A&... args) {
    return {ERRORKIND::UNSUPPORTEDARGUMENT, where, FormatMessage(fmt, args...)};
}
// An I/O error records the url it concerns.
template <typename... A>
Error IoError(SourceLocation where, std::string url, std::string_view fmt, const A&... args) {
    return {ERRORKIND::IO, where, FormatMessage(fmt, args...), std::move(url)};
}
inline Error OutOfMemoryError() { return Error::OutOfMemory(); }

}  // namespace kelvo
