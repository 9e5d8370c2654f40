// JSON output and JSON-lines input shared by every subcommand.
//
// Numbers carry 17 significant digits (they read back to the same double); non-finite
// numbers are the strings "inf", "-inf" and "nan"; text is written byte by byte, bytes
// that are not valid UTF-8 mapping to the code points U+0080..U+00FF.
#pragma once

#include <functional>
#include <istream>
#include <nlohmann/json.hpp>
#include <ostream>
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

// The member `key` of a request, or null when it is absent.
const nlohmann::json& Member(const nlohmann::json& request, const char* key);
Result<int64_t> ReadInteger(const nlohmann::json& v, std::string_view what);

// Reads numbers as written by JsonNumber: JSON numbers or "inf", "-inf", "nan".
Result<double> ReadNumber(const nlohmann::json& v, std::string_view what);
Result<Vec2> ReadVec2(const nlohmann::json& v, std::string_view what);
Result<Vec3> ReadVec3(const nlohmann::json& v, std::string_view what);
Result<Matrix> ReadMatrix(const nlohmann::json& v, std::string_view what);

// Reads one request per line and writes one answer per line, flushing as it goes. A
// line that is not JSON, or a request that fails, answers {"error": "<message>"}.
// Blank lines are skipped. Returns the number of failed requests.
using JsonLineHandler = std::function<Result<std::string>(const nlohmann::json& request)>;
int RunJsonLines(std::istream& in, std::ostream& out, const JsonLineHandler& handler);

}  // namespace kelvo::cli
