#include "json.h"

#include <cmath>
#include <cstdio>

namespace kelvo::cli {

std::string JsonNumber(double v) {
    if (std::isnan(v)) return "\"nan\"";
    if (std::isinf(v)) return v > 0 ? "\"inf\"" : "\"-inf\"";
    if (v == 0.0) return std::signbit(v) ? "-0.0" : "0.0";
    char buf[40];
    std::snprintf(buf, sizeof buf, "%.17g", v);
    return buf;
}

namespace {
// Length of the valid UTF-8 sequence at s, or 0.
size_t Utf8Length(std::string_view s) {
    auto b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = b(0);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xe ? 3 : (c >> 3) == 0x1e ? 4 : 0;
    if (n == 0 || n > s.size()) return 0;
    for (size_t i = 1; i < n; ++i)
        if ((b(i) & 0xc0) != 0x80) return 0;
    if (n == 2 && c < 0xc2) return 0;                   // overlong
    if (n == 3 && c == 0xe0 && b(1) < 0xa0) return 0;   // overlong
    if (n == 3 && c == 0xed && b(1) >= 0xa0) return 0;  // surrogates
    if (n == 4 && (c == 0xf0 ? b(1) < 0x90 : c == 0xf4 ? b(1) >= 0x90 : c > 0xf4)) return 0;
    return n;
}
}  // namespace

std::string JsonString(std::string_view text) {
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            switch (c) {
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
                    if (c < 0x20) {
                        char buf[8];
                        std::snprintf(buf, sizeof buf, "\\u%04x", c);
                        out += buf;
                    } else {
                        out += static_cast<char>(c);
                    }
            }
            ++i;
            continue;
        }
        if (size_t n = Utf8Length(text.substr(i))) {
            out.append(text.substr(i, n));
            i += n;
            continue;
        }
        // A stray byte becomes the code point of the same number (Latin-1).
        out += static_cast<char>(0xc0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3f));
        ++i;
    }
    out += '"';
    return out;
}

void JsonWriter::Separate() {
    if (_afterKey) {
        _afterKey = false;
        return;
    }
    if (!_first) _out += ',';
    _first = false;
}
JsonWriter& JsonWriter::Object() {
    Separate();
    _out += '{';
    _stack += '{';
    _first = true;
    return *this;
}
JsonWriter& JsonWriter::Array() {
    Separate();
    _out += '[';
    _stack += '[';
    _first = true;
    return *this;
}
JsonWriter& JsonWriter::End() {
    _out += _stack.back() == '{' ? '}' : ']';
    _stack.pop_back();
    _first = false;
    return *this;
}
JsonWriter& JsonWriter::Key(std::string_view key) {
    Separate();
    _out += JsonString(key);
    _out += ':';
    _afterKey = true;
    return *this;
}
JsonWriter& JsonWriter::Number(double v) { return Raw(JsonNumber(v)); }
JsonWriter& JsonWriter::Integer(long long v) { return Raw(std::to_string(v)); }
JsonWriter& JsonWriter::Bool(bool v) { return Raw(v ? "true" : "false"); }
JsonWriter& JsonWriter::String(std::string_view v) { return Raw(JsonString(v)); }
JsonWriter& JsonWriter::Null() { return Raw("null"); }
JsonWriter& JsonWriter::Raw(std::string_view json) {
    Separate();
    _out.append(json);
    return *this;
}
JsonWriter& JsonWriter::Vec(const Vec2& v) { return Array().Number(v.x).Number(v.y).End(); }
JsonWriter& JsonWriter::Vec(const Vec3& v) {
    return Array().Number(v.x).Number(v.y).Number(v.z).End();
}
JsonWriter& JsonWriter::Mat(const Matrix& m) {
    Object();
    Key("offset").Vec(m.offset);
    Key("xAxis").Vec(m.xAxis);
    Key("yAxis").Vec(m.yAxis);
    Key("zAxis").Vec(m.zAxis);
    return End();
}

const nlohmann::json& Member(const nlohmann::json& request, const char* key) {
    static const nlohmann::json missing;
    auto it = request.find(key);
    return it == request.end() ? missing : *it;
}

Result<int64_t> ReadInteger(const nlohmann::json& v, std::string_view what) {
    if (!v.is_number_integer())
        return IllegalArgumentError(KELVO_HERE, "@ must be an integer.", what);
    return v.get<int64_t>();
}

Result<double> ReadNumber(const nlohmann::json& v, std::string_view what) {
    if (v.is_number()) return v.get<double>();
    if (v.is_string()) {
        const auto& s = v.get_ref<const std::string&>();
        if (s == "inf") return HUGE_VAL;
        if (s == "-inf") return -HUGE_VAL;
        if (s == "nan") return std::nan("");
    }
    return IllegalArgumentError(KELVO_HERE, "@ must be a number.", what);
}

Result<Vec2> ReadVec2(const nlohmann::json& v, std::string_view what) {
    if (!v.is_array() || v.size() != 2)
        return IllegalArgumentError(KELVO_HERE, "@ must be an array of 2 numbers.", what);
    KELVO_ASSIGN_OR_RETURN(double x, ReadNumber(v[0], what));
    KELVO_ASSIGN_OR_RETURN(double y, ReadNumber(v[1], what));
    return Vec2{x, y};
}

Result<Vec3> ReadVec3(const nlohmann::json& v, std::string_view what) {
    if (!v.is_array() || v.size() != 3)
        return IllegalArgumentError(KELVO_HERE, "@ must be an array of 3 numbers.", what);
    Vec3 out;
    double* c[] = {&out.x, &out.y, &out.z};
    for (size_t i = 0; i < 3; ++i) {
        KELVO_ASSIGN_OR_RETURN(*c[i], ReadNumber(v[i], what));
    }
    return out;
}

Result<Matrix> ReadMatrix(const nlohmann::json& v, std::string_view what) {
    if (!v.is_object())
        return IllegalArgumentError(
            KELVO_HERE, "@ must be an object with offset, xAxis, yAxis and zAxis.", what);
    Matrix m;
    struct Member {
        const char* key;
        Vec3* at;
    } members[] = {
        {"offset", &m.offset}, {"xAxis", &m.xAxis}, {"yAxis", &m.yAxis}, {"zAxis", &m.zAxis}};
    for (const auto& mem : members) {
        if (!v.contains(mem.key)) continue;  // missing members keep the identity's
        KELVO_ASSIGN_OR_RETURN(*mem.at, ReadVec3(v[mem.key], std::string(what) + "." + mem.key));
    }
    return m;
}

int RunJsonLines(std::istream& in, std::ostream& out, const JsonLineHandler& handler) {
    int failed = 0;
    std::string line;
    while (std::getline(in, line)) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        Result<std::string> answer = [&]() -> Result<std::string> {
            nlohmann::json request = nlohmann::json::parse(line, nullptr, false);
            if (request.is_discarded())
                return IllegalArgumentError(KELVO_HERE, "The line is not valid JSON.");
            try {
                return handler(request);
            } catch (const std::exception& e) {
                return UnexpectedError(KELVO_HERE, "@", e.what());
            }
        }();
        if (answer) {
            out << *answer << '\n';
        } else {
            ++failed;
            out << "{\"error\":" << JsonString(answer.GetError().Message()) << "}\n";
        }
        out.flush();
    }
    return failed;
}

}  // namespace kelvo::cli
