// The text lexer: splits a byte stream into words, numbers and the single-character
// tokens "{", ",", "}" and "=", and counts lines.
//
// A word is a run of bytes that ends at a blank (space, tab, vertical tab, form feed,
// line break) or at one of the single-character tokens; its bytes are kept as they are,
// bytes above 127 included. A word that is a decimal number in full ("12", "-0.5",
// ".5e3", "+7") is a number. LF, CR LF and a lone CR each end one line; lines count
// from 1.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "kelvo/io.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

enum class LEXTOKEN : uint8_t {
    END,  // end of input
    WORD,
    NUMBER,
    OPENBRACE,   // "{"
    COMMA,       // ","
    CLOSEBRACE,  // "}"
    EQUALS,      // "="
};

class LexerInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.lexer"); }

    // Reads the next token. Fails only with the stream's read error.
    virtual Result<LEXTOKEN> Next() = 0;
    // The last token: its bytes ("" at the end of input) and, for a number, its value.
    virtual LEXTOKEN Token() const = 0;
    virtual std::string_view Text() const = 0;
    virtual double Value() const = 0;
    // Line of the last token, from 1. At the end of input, the last line that holds any
    // byte (so a final line break does not count as a line of its own).
    virtual int64_t Line() const = 0;

    // Reads the next token as a number. A comma that follows a number is a separator:
    // it is skipped when a number comes after it. Anything else fails with
    // "Number expected in line @." naming the line of the offending token.
    virtual Result<double> ReadNumber() = 0;
    // As ReadNumber, for a number with an integral value that fits 64 bits; fails with
    // "Integer expected in line @." otherwise.
    virtual Result<int64_t> ReadInteger() = 0;
    // The bytes after the last token up to the end of its line, without the line break,
    // which is consumed: the next token starts on the following line. Empty at the end
    // of input.
    virtual Result<std::string> RestOfLine() = 0;
};

// A lexer reading `stream` from its current position. Fails with "Illegal argument:
// No input stream." for an empty reference, or when memory runs out.
inline Result<StrongRef<LexerInterface>> CreateLexer(const StrongRef<InputStream>& stream) {
    return g_kelvo.host.CreateLexer(stream);
}

}  // namespace kelvo
