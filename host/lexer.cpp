// The text lexer over an input stream (see kelvo/lexer.h for the token rules).
#include "kelvo/lexer.h"

#include <charconv>
#include <cmath>
#include <string>

#include "host.h"
#include "kelvo/allocator.h"

namespace kelvo::host {
namespace {

constexpr size_t kChunk = 64 * 1024;

bool IsBlank(int c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
bool IsPunctuation(int c) { return c == '{' || c == ',' || c == '}' || c == '='; }

// A whole token of the form [+-](digits[.digits] | .digits)([eE][+-]digits), converted
// without regard to the process locale. Out-of-range values are no numbers.
bool ParseNumber(std::string_view s, double& value) {
    size_t i = 0;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0;
    while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++digits;
    }
    if (digits == 0) return false;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        ++i;
        if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
        size_t expDigits = 0;
        while (i < s.size() && s[i] >= '0' && s[i] <= '9') ++i, ++expDigits;
        if (expDigits == 0) return false;
    }
    if (i != s.size()) return false;
    if (s.front() == '+') s.remove_prefix(1);
    auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), value);
    return ec == std::errc() && end == s.data() + s.size();
}

class LexerImpl final : public Implements<LexerInterface> {
public:
    explicit LexerImpl(StrongRef<InputStream> stream) : _stream(std::move(stream)) {}

    Result<LEXTOKEN> Next() override {
        return CatchOutOfMemory([&]() -> Result<LEXTOKEN> {
            // Skip blanks, counting line breaks.
            for (;;) {
                KELVO_ASSIGN_OR_RETURN(int c, Peek());
                if (c < 0 || !IsBlank(c)) break;
                KELVO_TRY(Consume());
            }
            _tokenLine = _line;
            _text.clear();
            KELVO_ASSIGN_OR_RETURN(int c, Peek());
            if (c < 0) {
                _token = LEXTOKEN::END;
                if (_lastWasBreak && _line > 1) _tokenLine = _line - 1;
                return _token;
            }
            if (IsPunctuation(c)) {
                KELVO_TRY(Consume());
                _text.push_back(static_cast<char>(c));
                _token = c == '{'   ? LEXTOKEN::OPENBRACE
                         : c == ',' ? LEXTOKEN::COMMA
                         : c == '}' ? LEXTOKEN::CLOSEBRACE
                                    : LEXTOKEN::EQUALS;
                return _token;
            }
            for (;;) {
                KELVO_ASSIGN_OR_RETURN(int d, Peek());
                if (d < 0 || IsBlank(d) || IsPunctuation(d)) break;
                _text.push_back(static_cast<char>(d));
                ++_pos;
                _lastWasBreak = false;
            }
            _token = ParseNumber(_text, _value) ? LEXTOKEN::NUMBER : LEXTOKEN::WORD;
            return _token;
        });
    }

    LEXTOKEN Token() const override { return _token; }
    std::string_view Text() const override { return _text; }
    double Value() const override { return _token == LEXTOKEN::NUMBER ? _value : 0.0; }
    int64_t Line() const override { return _tokenLine; }

    Result<double> ReadNumber() override {
        bool afterNumber = _token == LEXTOKEN::NUMBER;
        KELVO_TRY(Next());
        // Some writers separate numbers by commas; a comma after a number is a separator.
        if (_token == LEXTOKEN::COMMA && afterNumber) KELVO_TRY(Next());
        if (_token != LEXTOKEN::NUMBER)
            return UnexpectedError(KELVO_HERE, "Number expected in line @.", _tokenLine);
        return _value;
    }

    Result<int64_t> ReadInteger() override {
        bool afterNumber = _token == LEXTOKEN::NUMBER;
        KELVO_TRY(Next());
        if (_token == LEXTOKEN::COMMA && afterNumber) KELVO_TRY(Next());
        // 2^63 bounds the range: beyond it a double no longer fits an int64_t.
        if (_token != LEXTOKEN::NUMBER ||
            !(_value >= -9223372036854775808.0 && _value < 9223372036854775808.0) ||
            _value != std::trunc(_value))
            return UnexpectedError(KELVO_HERE, "Integer expected in line @.", _tokenLine);
        return static_cast<int64_t>(_value);
    }

    Result<std::string> RestOfLine() override {
        return CatchOutOfMemory([&]() -> Result<std::string> {
            std::string rest;
            if (_token == LEXTOKEN::END) return rest;
            for (;;) {
                KELVO_ASSIGN_OR_RETURN(int c, Peek());
                if (c < 0) break;
                if (c == '\n' || c == '\r') {
                    KELVO_TRY(Consume());
                    break;
                }
                rest.push_back(static_cast<char>(c));
                ++_pos;
                _lastWasBreak = false;
            }
            return rest;
        });
    }

private:
    // The next byte (0..255) without consuming it, or -1 at the end of input.
    Result<int> Peek() {
        if (_pos < _buffer.size()) return static_cast<unsigned char>(_buffer[_pos]);
        if (_eof) return -1;
        _buffer.resize(kChunk);
        KELVO_ASSIGN_OR_RETURN(size_t n, _stream->Read(_buffer.data(), _buffer.size()));
        _buffer.resize(n);
        _pos = 0;
        if (n == 0) {
            _eof = true;
            return -1;
        }
        return static_cast<unsigned char>(_buffer[0]);
    }

    // Consumes one byte; CR LF counts as one line break, as does a lone CR.
    Result<void> Consume() {
        int c = static_cast<unsigned char>(_buffer[_pos++]);
        _lastWasBreak = false;
        if (c == '\r') {
            KELVO_ASSIGN_OR_RETURN(int d, Peek());
            if (d == '\n') ++_pos;
        }
        if (c == '\r' || c == '\n') {
            ++_line;
            _lastWasBreak = true;
        }
        return OK();
    }

    StrongRef<InputStream> _stream;
    std::string _buffer;
    size_t _pos = 0;
    bool _eof = false;
    bool _lastWasBreak = false;
    int64_t _line = 1;
    int64_t _tokenLine = 1;
    LEXTOKEN _token = LEXTOKEN::END;
    std::string _text;
    double _value = 0.0;
};

Result<StrongRef<LexerInterface>> CreateLexerSlot(const StrongRef<InputStream>& stream) {
    if (!stream) return IllegalArgumentError(KELVO_HERE, "No input stream.");
    KELVO_ASSIGN_OR_RETURN(auto lexer, NewObject<LexerImpl>(stream));
    return StrongRef<LexerInterface>(std::move(lexer));
}

}  // namespace

namespace detail {
void FillLexerSlots(KelvoHostSlots& slots) { slots.CreateLexer = &CreateLexerSlot; }
}  // namespace detail

}  // namespace kelvo::host
