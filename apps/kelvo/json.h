// JSON output of every subcommand, by the host's JSON text conventions (json_text.h):
// numbers carry 17 significant digits and non-finite ones are "inf", "-inf" and "nan";
// text that is not valid UTF-8 is written as Latin-1.
#pragma once

#include <string>
#include <string_view>

#include "kelvo/matrix.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo::cli {

std::string JsonNumber(double v);
std::string JsonString(std::string_view text);

// Builds one JSON value at a time: Object()/Array() open, End() closes, Key() names the
// next member. Commas are placed automatically.
class JsonWriter {
public:
    JsonWriter& Object();
    JsonWriter& Array();
    JsonWriter& End();
    JsonWriter& Key(std::string_view key);
    JsonWriter& Number(double v);
    JsonWriter& Integer(long long v);
    JsonWriter& Bool(bool v);
    JsonWriter& String(std::string_view v);
    JsonWriter& Null();
    JsonWriter& Raw(std::string_view json);
    JsonWriter& Vec(const Vec2& v);
    JsonWriter& Vec(const Vec3& v);
    JsonWriter& Mat(const Matrix& m);
    const std::string& Text() const { return _out; }

private:
    void Separate();
    std::string _out;
    std::string _stack;  // '{' or '[' per open level
    bool _first = true;
    bool _afterKey = false;
};

}  // namespace kelvo::cli
