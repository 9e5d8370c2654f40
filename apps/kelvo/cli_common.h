// The plumbing every kelvo command shares. A new command needs only this header:
//
//   void AddFrobCommand(CLI::App& app, Context& context, int& status) {
//       auto* cmd = app.add_subcommand("frob", "...");
//       auto out = std::make_shared<std::string>();
//       cmd->add_option("-o,--out", *out, "File to write")->required();
//       cmd->callback([&context, &status, out] {
//           RunCommand(context, status, [&]() -> Result<void> {
//               KELVO_ASSIGN_OR_RETURN(std::string text, MakeText());
//               return WriteTextFile(*out, text);          // temporary file, then rename
//           });
//       });
//   }
//
// A JSON-lines command hands RunJsonLines a handler that writes the members of its answer;
// the loop echoes "op" and the object's name and turns a failed request into an "error":
//
//   RunCommand(context, status, [&]() -> Result<void> {
//       KELVO_TRY(RunJsonLines(
//           StandardInput(), std::cout,
//           [&](const nlohmann::json& request, JsonWriter& answer) -> Result<void> {
//               KELVO_ASSIGN_OR_RETURN(double x, NumberMember(request, "x"));
//               answer.Key("twice").Number(2 * x);
//               return OK();
//           },
//           {.nameKey = "name"}));
//       return OK();  // failed requests answered in line; Result<int> to fail the run
//   });
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <istream>
#include <limits>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>

#include "context.h"
#include "json.h"
#include "kelvo/matrix.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo::cli {

// --- Running a command -----------------------------------------------------------------------

// Prints "kelvo: <message>" on stderr and returns the exit status 1.
int Fail(const Error& error);

// After a failed parse: when the deepest command given has subcommands and a word named
// none of them, the error that says so and suggests the nearest ("'previwe' is not a kelvo
// command. ..."), as git does. An empty Error otherwise.
Error UnknownCommandError(const CLI::App& app);

namespace detail {
// Loads the modules, runs the body (exceptions become errors), then flushes stdout: a
// failed write there, such as a full disk or /dev/full, is an error too. Returns the status.
int RunCommandBody(Context& context, const std::function<Result<int>()>& body);
}  // namespace detail

// Runs one command: loads the modules, runs `body` and sets `status`: 0 (or the int the
// body returns, for a Result<int> body) on success; on failure "kelvo: <message>" on
// stderr and 1. stdout is flushed and checked before the command counts as done.
template <typename Body>
void RunCommand(Context& context, int& status, Body&& body) {
    status = detail::RunCommandBody(context, [&]() -> Result<int> {
        using R = std::invoke_result_t<Body&>;
        if constexpr (std::is_same_v<R, Result<int>>) {
            return body();
        } else {
            KELVO_TRY(body());
            return 0;
        }
    });
}

// --- Reading JSON requests -------------------------------------------------------------------
// One wording for every command: "<what> must be a number.", "... an integer.", "... true
// or false.", "... a string.", "... an array of N numbers.", "<what> is missing.". A reader
// never passes on the JSON library's own text, never truncates a fraction and never wraps
// an integer that does not fit.

// The JSON text of an option (`what` names it): "<what> is not valid JSON (byte N)." or
// "<what> holds a number beyond the range of doubles.", never the library's own text.
Result<nlohmann::json> ParseJson(std::string_view text, std::string_view what);
// The same for an option that must be an object: also "<what> must be a JSON object.".
Result<nlohmann::json> ParseJsonObject(std::string_view text, std::string_view what);

// The member `key` of a request, or null when it is absent (or the request is no object).
const nlohmann::json& Member(const nlohmann::json& request, std::string_view key);

// Numbers as JsonNumber writes them: JSON numbers or "inf", "-inf", "nan".
Result<double> ReadNumber(const nlohmann::json& v, std::string_view what);
// An integer in lo..hi, written as a JSON integer (2.0 and 1e3 are refused, so nothing is
// ever rounded); one outside the range, int64's included, is "<what> must be an integer
// from <lo> to <hi>.".
Result<int64_t> ReadInteger(const nlohmann::json& v, std::string_view what,
                            int64_t lo = std::numeric_limits<int64_t>::min(),
                            int64_t hi = std::numeric_limits<int64_t>::max());
Result<bool> ReadBool(const nlohmann::json& v, std::string_view what);
Result<std::string> ReadString(const nlohmann::json& v, std::string_view what);
Result<Vec2> ReadVec2(const nlohmann::json& v, std::string_view what);
Result<Vec3> ReadVec3(const nlohmann::json& v, std::string_view what);
// {"offset", "xAxis", "yAxis", "zAxis"}; missing members keep the identity's.
Result<Matrix> ReadMatrix(const nlohmann::json& v, std::string_view what);

// Members of a request by key: an absent member gives the fallback; a present one of the
// wrong type gives the reader's error. Without a fallback the member is required.
Result<double> NumberMember(const nlohmann::json& request, std::string_view key);
Result<double> NumberMember(const nlohmann::json& request, std::string_view key, double fallback);
Result<int64_t> IntegerMember(const nlohmann::json& request, std::string_view key, int64_t fallback,
                              int64_t lo = std::numeric_limits<int64_t>::min(),
                              int64_t hi = std::numeric_limits<int64_t>::max());
Result<bool> BoolMember(const nlohmann::json& request, std::string_view key, bool fallback);
// A required string: absent or not a string, "<key> must be a string.".
Result<std::string> StringMember(const nlohmann::json& request, std::string_view key);
// A required vector: "<key> is missing." when absent.
Result<Vec3> Vec3Member(const nlohmann::json& request, std::string_view key);

// --- Option values ---------------------------------------------------------------------------

// Exactly `count` numbers separated by commas ("x,y,z"), as given to `option`; anything
// else is "<option> expects <count> numbers separated by commas, not '<text>'.".
Result<std::vector<double>> ParseNumberList(std::string_view text, size_t count,
                                            std::string_view option);
Result<Vec2> ParseVec2(std::string_view text, std::string_view option);
Result<Vec3> ParseVec3(std::string_view text, std::string_view option);

// --- JSON lines ------------------------------------------------------------------------------

struct JsonLinesOptions {
    // The request member that names the object a request works on ("name", "camera", ...);
    // echoed in the answer after "op". Null for none.
    const char* nameKey = "name";
    // Longest line accepted, in bytes; a longer one ends the run with an error.
    size_t maxLineBytes = size_t(1) << 20;
};

// Writes the members of one answer into `answer` (an open object); an error instead
// becomes the answer's "error" member, and what the handler wrote is dropped.
using JsonLineHandler =
    std::function<Result<void>(const nlohmann::json& request, JsonWriter& answer)>;

// Reads one JSON request per line and writes one answer per line, in order, flushing as
// it goes. Every answer starts with the request's "op" and name (when they are strings),
// errors included: {"op": ..., "name": ..., "error": "<message>"}. Blank lines are
// skipped. A line that is not JSON answers an error and the run goes on. A line over the
// limit, a read error on `in` and a failed write to `out` end the run with an error.
// Returns the number of failed requests.
Result<int> RunJsonLines(std::istream& in, std::ostream& out, const JsonLineHandler& handler,
                         const JsonLinesOptions& options = {});

// The process's stdin as a stream whose read errors (say, stdin is a folder) reach
// RunJsonLines as errors rather than as an early end of input.
std::istream& StandardInput();
// Makes StandardInput return `in` (null: stdin again), so that a program can run the
// commands in-process on requests of its own (the JSON-lines fuzzer). Not thread-safe.
void SetStandardInput(std::istream* in);

// --- Writing files ---------------------------------------------------------------------------

// Writes `target` through `write`, which is given the path to write to. A regular file
// (or a new one) is written to a temporary file beside it, with the same suffix so that
// the format is chosen alike, and renamed into place only when `write` succeeded; on
// failure the temporary file is removed and the old file is left as it was. This makes
// converting a file over itself safe. stdout, FIFOs and devices are written directly.
Result<void> WriteOutput(const std::filesystem::path& target,
                         const std::function<Result<void>(const std::filesystem::path&)>& write);
// Whether a picture could be written to `target`, checked before the work that makes it: a
// file format writes its suffix ("No file format writes @.") and its folder exists ("Cannot
// write '@': its folder '@' does not exist."). `format` given, the suffix is not looked at;
// devices and FIFOs pass.
Result<void> CheckImageOutput(const std::filesystem::path& target, const Id& format = {});

// The text as a file's whole content, through WriteOutput.
Result<void> WriteTextFile(const std::filesystem::path& target, std::string_view text);

}  // namespace kelvo::cli
