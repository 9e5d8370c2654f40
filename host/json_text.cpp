// The JSON text conventions shared by data descriptions and the command-line tool.
#include "json_text.h"

#include <cmath>
#include <cstdio>

namespace kelvo::host {

bool IsUtf8(std::string_view s) {
    for (size_t i = 0; i < s.size();) {
        auto c = static_cast<unsigned char>(s[i]);
        size_t n;
        if (c < 0x80) {
            ++i;
            continue;
        }
        if (c >= 0xC2 && c <= 0xDF)
            n = 1;
        else if (c >= 0xE0 && c <= 0xEF)
            n = 2;
        else if (c >= 0xF0 && c <= 0xF4)
            n = 3;
        else
            return false;
        if (s.size() - i <= n) return false;
        for (size_t k = 1; k <= n; ++k)
            if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return false;
        // Overlong forms, surrogates and code points above U+10FFFF are not UTF-8.
        auto c1 = static_cast<unsigned char>(s[i + 1]);
        if ((c == 0xE0 && c1 < 0xA0) || (c == 0xED && c1 >= 0xA0) || (c == 0xF0 && c1 < 0x90) ||
            (c == 0xF4 && c1 >= 0x90))
            return false;
        i += n + 1;
    }
    return true;
}

std::string Latin1ToUtf8(std::string_view bytes) {
    std::string out;
    out.reserve(bytes.size());
    for (unsigned char c : bytes) {
        if (c < 0x80) {
            out += char(c);
        } else {
            out += char(0xC0 | (c >> 6));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::optional<std::string> Utf8ToLatin1(std::string_view in) {
    std::string out;
    for (size_t i = 0; i < in.size(); ++i) {
        auto c = static_cast<unsigned char>(in[i]);
        if (c < 0x80) {
            out += char(c);
        } else if ((c == 0xC2 || c == 0xC3) && i + 1 < in.size()) {
            out += char(((c & 0x03) << 6) | (static_cast<unsigned char>(in[++i]) & 0x3F));
        } else {
            return std::nullopt;
        }
    }
    return out;
}

std::string TextAsUtf8(std::string_view bytes) {
    return IsUtf8(bytes) ? std::string(bytes) : Latin1ToUtf8(bytes);
}

std::string_view NonFiniteName(double v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    return {};
}

std::optional<double> NonFiniteFromName(std::string_view name) {
    if (name == "nan") return std::nan("");
    if (name == "inf") return HUGE_VAL;
    if (name == "-inf") return -HUGE_VAL;
    return std::nullopt;
}

std::string JsonStringLiteral(std::string_view text) {
    const std::string utf8 = TextAsUtf8(text);
    std::string out = "\"";
    for (char ch : utf8) {
        switch (ch) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (static_cast<unsigned char>(ch) < 0x20) {
                    char buf[8];
                    std::snprintf(buf, sizeof buf, "\\u%04x", static_cast<unsigned>(ch));
                    out += buf;
                } else {
                    out += ch;
                }
        }
    }
    out += '"';
    return out;
}

std::string JsonNumberLiteral(double v) {
    if (std::string_view name = NonFiniteName(v); !name.empty())
        return "\"" + std::string(name) + "\"";
    if (v == 0.0) return std::signbit(v) ? "-0.0" : "0.0";
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

}  // namespace kelvo::host
