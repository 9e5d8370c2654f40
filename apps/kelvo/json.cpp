#include "json.h"

#include "json_text.h"

namespace kelvo::cli {

std::string JsonNumber(double v) { return host::JsonNumberLiteral(v); }
std::string JsonString(std::string_view text) { return host::JsonStringLiteral(text); }

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

}  // namespace kelvo::cli
