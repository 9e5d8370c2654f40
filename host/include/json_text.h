// The JSON text conventions every JSON the host and its tools write share:
// - text that is valid UTF-8 is written as it is; any other text is taken as Latin-1, each
//   byte the code point of the same number (so that no byte is lost and the JSON stays
//   valid);
// - non-finite numbers are the strings "inf", "-inf" and "nan"; finite ones carry 17
//   significant digits, which read back to the same double.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace kelvo::host {

// Whether the bytes are well-formed UTF-8 (no overlong forms, surrogates or code points
// above U+10FFFF).
bool IsUtf8(std::string_view bytes);
// Every byte as the code point of the same number, in UTF-8.
std::string Latin1ToUtf8(std::string_view bytes);
// The reverse: UTF-8 of code points U+0000..U+00FF back to bytes; nullopt for anything else.
std::optional<std::string> Utf8ToLatin1(std::string_view utf8);
// The text as UTF-8 by the rule above: itself when valid UTF-8, else its Latin-1 reading.
std::string TextAsUtf8(std::string_view bytes);

// "inf", "-inf" or "nan" for a non-finite number; empty for a finite one.
std::string_view NonFiniteName(double v);
// The number a name of NonFiniteName stands for; nullopt for any other text.
std::optional<double> NonFiniteFromName(std::string_view name);

// A complete JSON string literal of the text (quotes and escapes included).
std::string JsonStringLiteral(std::string_view text);
// A JSON number (17 significant digits, "-0.0" and "0.0" for zeros) or, for non-finite
// numbers, the quoted name.
std::string JsonNumberLiteral(double v);

}  // namespace kelvo::host
