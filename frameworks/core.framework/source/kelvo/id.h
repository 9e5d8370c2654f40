// Reverse-domain identifiers with a precomputed hash.
//
// An Id never owns its text: ids written as literals point at static storage and
// ids made from run-time text are interned by the host (see Id::FromText), so an Id
// is a trivially copyable value that compares by hash first and text second.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kelvo {

template <typename T>
class Result;

namespace detail {
// FNV-1a, 64 bit: cheap, constexpr, and stable across platforms and runs.
constexpr uint64_t HashText(std::string_view text) {
    uint64_t h = 1469598103934665603ull;
    for (char c : text) {
        h ^= static_cast<unsigned char>(c);
        h *= 1099511628211ull;
    }
    return h;
}
}  // namespace detail

class Id {
public:
    constexpr Id() = default;
    // Literal ids only: the text must outlive every copy of the Id.
    template <size_t N>
    constexpr Id(const char (&literal)[N])  // NOLINT(google-explicit-constructor)
        : _text(literal), _size(N - 1), _hash(detail::HashText({literal, N - 1})) {}

    // Makes an id from text that lives for the whole process (interned by the host).
    // Fails with "Illegal argument: Invalid id '@'." for empty text, text with blanks or
    // control characters, or text longer than 255 bytes.
    static Result<Id> FromText(std::string_view text);

    // Wraps text whose storage the caller keeps alive; no validation.
    static constexpr Id Unchecked(std::string_view text) { return Id(text); }

    constexpr std::string_view Text() const { return {_text, _size}; }
    constexpr uint64_t Hash() const { return _hash; }
    constexpr bool IsEmpty() const { return _size == 0; }

    friend constexpr bool operator==(const Id& a, const Id& b) {
        return a._hash == b._hash && a.Text() == b.Text();
    }
    friend constexpr bool operator<(const Id& a, const Id& b) { return a.Text() < b.Text(); }

private:
    constexpr explicit Id(std::string_view text)
        : _text(text.data()), _size(text.size()), _hash(detail::HashText(text)) {}

    const char* _text = "";
    size_t _size = 0;
    uint64_t _hash = detail::HashText({});
};

struct IdHash {
    size_t operator()(const Id& id) const { return static_cast<size_t>(id.Hash()); }
};

}  // namespace kelvo
