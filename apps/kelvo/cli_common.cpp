#include "cli_common.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>
#include <vector>

#include "json_text.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace fs = std::filesystem;
using nlohmann::json;

int Fail(const Error& error) {
    std::cerr << "kelvo: " << error.Message() << '\n';
    return 1;
}

namespace {
// Edits (insertions, deletions, substitutions, swaps of neighbours) from a to b.
size_t EditDistance(std::string_view a, std::string_view b) {
    std::vector<std::vector<size_t>> d(a.size() + 1, std::vector<size_t>(b.size() + 1));
    for (size_t i = 0; i <= a.size(); ++i) d[i][0] = i;
    for (size_t j = 0; j <= b.size(); ++j) d[0][j] = j;
    for (size_t i = 1; i <= a.size(); ++i)
        for (size_t j = 1; j <= b.size(); ++j) {
            d[i][j] = std::min({d[i - 1][j] + 1, d[i][j - 1] + 1,
                                d[i - 1][j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
                d[i][j] = std::min(d[i][j], d[i - 2][j - 2] + 1);
        }
    return d[a.size()][b.size()];
}
}  // namespace

Error UnknownCommandError(const CLI::App& app) {
    const CLI::App* command = &app;
    std::string path = app.get_name();
    for (;;) {
        auto given = command->get_subcommands();
        if (given.empty()) break;
        command = given.front();
        path += " " + command->get_name();
    }
    auto names = command->get_subcommands([](const CLI::App*) { return true; });
    const auto left = command->remaining(false);
    if (names.empty() || left.empty() || left.front().empty() || left.front()[0] == '-') return {};
    const std::string& word = left.front();
    // Suggested only when close: at most two edits, and fewer than the word has letters.
    size_t best = std::min<size_t>(2, word.size() - 1);
    std::vector<std::string> nearest;
    for (const CLI::App* sub : names) {
        const size_t d = EditDistance(word, sub->get_name());
        if (d > best) continue;
        if (d < best) nearest.clear();
        best = d;
        nearest.push_back(sub->get_name());
    }
    std::string message =
        "'" + word + "' is not a " + path + " command. See '" + path + " --help'.";
    if (!nearest.empty()) {
        message += nearest.size() == 1 ? "\n\nThe most similar command is"
                                       : "\n\nThe most similar commands are";
        for (const auto& n : nearest) message += "\n\t" + n;
    }
    return UnexpectedError(KELVO_HERE, "@", message);
}

namespace {
Error StdoutError() { return IoError(KELVO_HERE, "", "Cannot write to standard output."); }

// Exceptions of the libraries the tool uses become errors: the out-of-memory error for a
// failed allocation, the exception's own text otherwise.
template <typename F>
auto Guarded(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    } catch (const std::exception& e) {
        return UnexpectedError(KELVO_HERE, "@", e.what());
    }
}
}  // namespace

namespace detail {
int RunCommandBody(Context& context, const std::function<Result<int>()>& body) {
    Result<int> done = [&]() -> Result<int> {
        KELVO_TRY(context.LoadModules());
        return Guarded(body);
    }();
    // Output a full disk swallowed only shows when the buffer is written.
    if (!std::cout.flush() && done) done = StdoutError();
    if (!done) return Fail(done.GetError());
    return *done;
}
}  // namespace detail

// --- Reading JSON requests -------------------------------------------------------------------

Result<json> ParseJson(std::string_view text, std::string_view what) {
    try {
        return json::parse(text);
    } catch (const json::out_of_range&) {
        return IllegalArgumentError(KELVO_HERE, "@ holds a number beyond the range of doubles.",
                                    what);
    } catch (const json::parse_error& e) {
        return IllegalArgumentError(KELVO_HERE, "@ is not valid JSON (byte @).", what, e.byte);
    }
}

Result<json> ParseJsonObject(std::string_view text, std::string_view what) {
    KELVO_ASSIGN_OR_RETURN(json j, ParseJson(text, what));
    if (!j.is_object()) return IllegalArgumentError(KELVO_HERE, "@ must be a JSON object.", what);
    return j;
}

const json& Member(const json& request, std::string_view key) {
    static const json missing;
    if (!request.is_object()) return missing;
    auto it = request.find(key);
    return it == request.end() ? missing : *it;
}

Result<double> ReadNumber(const json& v, std::string_view what) {
    if (v.is_number()) return v.get<double>();
    if (v.is_string())
        if (auto named = host::NonFiniteFromName(v.get_ref<const std::string&>())) return *named;
    return IllegalArgumentError(KELVO_HERE, "@ must be a number.", what);
}

Result<int64_t> ReadInteger(const json& v, std::string_view what, int64_t lo, int64_t hi) {
    bool inRange = false;
    int64_t value = 0;
    if (v.is_number_unsigned()) {
        uint64_t u = v.get<uint64_t>();
        inRange = u <= uint64_t(std::numeric_limits<int64_t>::max());
        value = inRange ? int64_t(u) : 0;
    } else if (v.is_number_integer()) {
        value = v.get<int64_t>();
        inRange = true;
    } else {
        // Numbers with a fraction or an exponent (2.0, 1e3) too: nothing is rounded.
        return IllegalArgumentError(KELVO_HERE, "@ must be an integer.", what);
    }
    if (!inRange || value < lo || value > hi)
        return IllegalArgumentError(KELVO_HERE, "@ must be an integer from @ to @.", what, lo, hi);
    return value;
}

Result<bool> ReadBool(const json& v, std::string_view what) {
    if (!v.is_boolean()) return IllegalArgumentError(KELVO_HERE, "@ must be true or false.", what);
    return v.get<bool>();
}

Result<std::string> ReadString(const json& v, std::string_view what) {
    if (!v.is_string()) return IllegalArgumentError(KELVO_HERE, "@ must be a string.", what);
    return v.get<std::string>();
}

namespace {
// An array of exactly n numbers; any other value, or an element that is no number, gets
// the one message that says what the member must be.
Result<void> ReadNumbers(const json& v, std::string_view what, double* out, size_t n) {
    bool ok = v.is_array() && v.size() == n;
    for (size_t i = 0; ok && i < n; ++i) {
        Result<double> x = ReadNumber(v[i], what);
        ok = x.Ok();
        if (ok) out[i] = *x;
    }
    if (!ok) return IllegalArgumentError(KELVO_HERE, "@ must be an array of @ numbers.", what, n);
    return OK();
}
}  // namespace

Result<Vec2> ReadVec2(const json& v, std::string_view what) {
    double c[2];
    KELVO_TRY(ReadNumbers(v, what, c, 2));
    return Vec2{c[0], c[1]};
}

Result<Vec3> ReadVec3(const json& v, std::string_view what) {
    double c[3];
    KELVO_TRY(ReadNumbers(v, what, c, 3));
    return Vec3{c[0], c[1], c[2]};
}

Result<Matrix> ReadMatrix(const json& v, std::string_view what) {
    if (!v.is_object())
        return IllegalArgumentError(
            KELVO_HERE, "@ must be an object with offset, xAxis, yAxis and zAxis.", what);
    Matrix m;
    struct Axis {
        const char* key;
        Vec3* at;
    } axes[] = {
        {"offset", &m.offset}, {"xAxis", &m.xAxis}, {"yAxis", &m.yAxis}, {"zAxis", &m.zAxis}};
    for (const auto& axis : axes) {
        if (!v.contains(axis.key)) continue;  // missing members keep the identity's
        KELVO_ASSIGN_OR_RETURN(*axis.at, ReadVec3(v[axis.key], std::string(what) + "." + axis.key));
    }
    return m;
}

Result<double> NumberMember(const json& request, std::string_view key) {
    const json& v = Member(request, key);
    if (v.is_null()) return IllegalArgumentError(KELVO_HERE, "@ is missing.", key);
    return ReadNumber(v, key);
}

Result<double> NumberMember(const json& request, std::string_view key, double fallback) {
    const json& v = Member(request, key);
    return v.is_null() ? Result<double>(fallback) : ReadNumber(v, key);
}

Result<int64_t> IntegerMember(const json& request, std::string_view key, int64_t fallback,
                              int64_t lo, int64_t hi) {
    const json& v = Member(request, key);
    return v.is_null() ? Result<int64_t>(fallback) : ReadInteger(v, key, lo, hi);
}

Result<bool> BoolMember(const json& request, std::string_view key, bool fallback) {
    const json& v = Member(request, key);
    return v.is_null() ? Result<bool>(fallback) : ReadBool(v, key);
}

Result<std::string> StringMember(const json& request, std::string_view key) {
    return ReadString(Member(request, key), key);
}

Result<Vec3> Vec3Member(const json& request, std::string_view key) {
    const json& v = Member(request, key);
    if (v.is_null()) return IllegalArgumentError(KELVO_HERE, "@ is missing.", key);
    return ReadVec3(v, key);
}

// --- Option values ---------------------------------------------------------------------------

Result<std::vector<double>> ParseNumberList(std::string_view text, size_t count,
                                            std::string_view option) {
    std::vector<double> out;
    const std::string copy(text);  // strtod needs the terminating zero
    const char* p = copy.c_str();
    bool ok = !copy.empty();
    while (ok) {
        char* end = nullptr;
        double v = std::strtod(p, &end);
        ok = end != p && (*end == ',' || *end == '\0');
        if (!ok) break;
        out.push_back(v);
        if (*end == '\0') break;
        p = end + 1;
    }
    if (!ok || out.size() != count)
        return IllegalArgumentError(KELVO_HERE, "@ expects @ numbers separated by commas, not '@'.",
                                    option, count, text);
    return out;
}

Result<Vec2> ParseVec2(std::string_view text, std::string_view option) {
    KELVO_ASSIGN_OR_RETURN(auto v, ParseNumberList(text, 2, option));
    return Vec2{v[0], v[1]};
}

Result<Vec3> ParseVec3(std::string_view text, std::string_view option) {
    KELVO_ASSIGN_OR_RETURN(auto v, ParseNumberList(text, 3, option));
    return Vec3{v[0], v[1], v[2]};
}

// --- JSON lines ------------------------------------------------------------------------------

namespace {
// The next line of `in` without its newline: false at the end of the input. Reads the
// stream buffer directly, so that a read error is an error and not an end.
Result<bool> ReadLine(std::istream& in, std::string& line, size_t maxBytes, int64_t number) {
    line.clear();
    std::streambuf* buffer = in.rdbuf();
    try {
        for (;;) {
            int c = buffer->sbumpc();
            if (c == std::char_traits<char>::eof()) return !line.empty();
            if (c == '\n') return true;
            if (line.size() >= maxBytes)
                return IllegalArgumentError(KELVO_HERE, "Line @ is longer than @ bytes.", number,
                                            maxBytes);
            line.push_back(char(c));
        }
    } catch (const std::exception& e) {
        return IoError(KELVO_HERE, "", "Cannot read the requests: @", e.what());
    }
}

// "op" and the name, echoed at the start of every answer when they are strings.
void Echo(const json& request, const JsonLinesOptions& options, JsonWriter& w) {
    if (const json& op = Member(request, "op"); op.is_string())
        w.Key("op").String(op.get_ref<const std::string&>());
    if (!options.nameKey) return;
    if (const json& name = Member(request, options.nameKey); name.is_string())
        w.Key(options.nameKey).String(name.get_ref<const std::string&>());
}
}  // namespace

Result<int> RunJsonLines(std::istream& in, std::ostream& out, const JsonLineHandler& handler,
                         const JsonLinesOptions& options) {
    int failed = 0;
    std::string line;
    for (int64_t number = 1;; ++number) {
        KELVO_ASSIGN_OR_RETURN(bool got, ReadLine(in, line, options.maxLineBytes, number));
        if (!got) break;
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        JsonWriter head;
        head.Object();
        json request = json::parse(line, nullptr, false);
        Result<void> done = OK();
        std::string text;
        if (request.is_discarded()) {
            done = IllegalArgumentError(KELVO_HERE, "The line is not valid JSON.");
        } else {
            Echo(request, options, head);
            JsonWriter answer = head;
            done = Guarded([&] { return handler(request, answer); });
            if (done) text = answer.End().Text();
        }
        if (!done) {
            ++failed;
            text = head.Key("error").String(done.GetError().Message()).End().Text();
        }
        out << text << '\n';
        if (!out.flush()) return StdoutError();
    }
    return failed;
}

namespace {
// Standard input read with read(2): an error is thrown to the reader instead of looking
// like the end of the input, as it would through stdio.
class DescriptorInput final : public std::streambuf {
public:
    explicit DescriptorInput(int fd) : _fd(fd) {}

protected:
    int_type underflow() override {
        if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
        for (;;) {
            ssize_t n = ::read(_fd, _buffer, sizeof _buffer);
            if (n > 0) {
                setg(_buffer, _buffer, _buffer + n);
                return traits_type::to_int_type(*gptr());
            }
            if (n == 0) return traits_type::eof();
            if (errno != EINTR) throw std::system_error(errno, std::generic_category());
        }
    }

private:
    int _fd;
    char _buffer[1 << 16];
};
}  // namespace

namespace {
std::istream* g_requestsOverride = nullptr;
}

std::istream& StandardInput() {
    if (g_requestsOverride) return *g_requestsOverride;
    static DescriptorInput buffer(STDIN_FILENO);
    static std::istream in(&buffer);
    return in;
}

void SetStandardInput(std::istream* in) { g_requestsOverride = in; }

// --- Writing files ---------------------------------------------------------------------------

namespace {
bool IsStandardOutput(const struct stat& st) {
    struct stat out;
    return ::fstat(STDOUT_FILENO, &out) == 0 && out.st_dev == st.st_dev && out.st_ino == st.st_ino;
}

// The error of a write to the temporary file, told about the target instead.
Error AboutTarget(const Error& e, const std::string& temp, const std::string& target) {
    auto replace = [&](std::string s) {
        for (size_t at = s.find(temp); at != std::string::npos; at = s.find(temp, at))
            s.replace(at, temp.size(), target), at += target.size();
        return s;
    };
    if (e.Kind() == ERRORKIND::OUTOFMEMORY) return e;
    return Error(e.Kind(), e.Location(), replace(e.Message()), replace(e.Url()));
}

// The process's file-creation mask, read without changing it (umask() would, for a moment,
// for every thread).
mode_t CreationMask() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("Umask:", 0) == 0) return mode_t(std::strtoul(line.c_str() + 6, nullptr, 8));
    return 022;
}

// A new, empty file beside `real` that nobody can have prepared: its name has a random
// part and it is created exclusively, as mkstemp does, so a link or file planted under
// the name is never opened. It keeps `real`'s suffix, so that the format is chosen alike,
// and gives up letters of the stem to stay within the file system's name limit.
Result<int> CreateTemporary(const fs::path& real, fs::path& temp) {
    const fs::path folder = real.parent_path().empty() ? fs::path(".") : real.parent_path();
    long limit = ::pathconf(folder.c_str(), _PC_NAME_MAX);
    if (limit <= 0) limit = NAME_MAX;
    const std::string suffix = real.extension().string(), mark = ".kelvo-XXXXXX";
    std::string stem = real.stem().string();
    const long room = limit - long(1 + mark.size() + suffix.size());
    if (room < 0)
        return IoError(KELVO_HERE, real.string(), "Cannot write '@': @.", real.string(),
                       host::FileProblem(real, ENAMETOOLONG));
    if (long(stem.size()) > room) {
        stem.resize(size_t(room));
        while (!stem.empty() && (static_cast<unsigned char>(stem.back()) & 0xc0) == 0x80)
            stem.pop_back();  // no half letters
        if (!stem.empty() && static_cast<unsigned char>(stem.back()) >= 0xc0) stem.pop_back();
    }
    std::string name = (real.parent_path() / ("." + stem + mark + suffix)).string();
    int fd = ::mkstemps(name.data(), int(suffix.size()));
    if (fd < 0)
        return IoError(KELVO_HERE, real.string(), "Cannot write '@': @.", real.string(),
                       host::FileProblem(real, errno));
    temp = name;
    return fd;
}
}  // namespace

Result<void> WriteOutput(const fs::path& target,
                         const std::function<Result<void>(const fs::path&)>& write) {
    struct stat st;
    fs::path real = target;
    const bool exists = ::stat(target.c_str(), &st) == 0;
    if (exists) {
        if (!S_ISREG(st.st_mode) || IsStandardOutput(st)) return write(target);
        // Through a symbolic link: the temporary file goes beside the file itself.
        std::error_code ec;
        if (fs::path c = fs::canonical(target, ec); !ec) real = c;
    }
    fs::path temp;
    KELVO_ASSIGN_OR_RETURN(const int fd, CreateTemporary(real, temp));
    // Held open to the end: the file written must still be the one created here.
    struct Descriptor {
        int fd;
        ~Descriptor() { ::close(fd); }
    } held{fd};
    std::error_code ec;
    auto fail = [&](const Error& e) {
        fs::remove(temp, ec);
        return AboutTarget(e, temp.string(), target.string());
    };
    // The old file's permissions, or what a plain new file would get.
    ::fchmod(fd, exists ? (st.st_mode & 07777) : (0666 & ~CreationMask()));
    Result<void> done = write(temp);
    if (!done) return fail(done.GetError());
    struct stat made, now;
    if (::fstat(fd, &made) != 0 || ::lstat(temp.c_str(), &now) != 0 || !S_ISREG(now.st_mode) ||
        made.st_dev != now.st_dev || made.st_ino != now.st_ino) {
        fs::remove(temp, ec);
        return IoError(KELVO_HERE, target.string(),
                       "Cannot write '@': its temporary file @ was replaced while written.",
                       target.string(), temp.string());
    }
    if (::rename(temp.c_str(), real.c_str()) != 0) {
        int error = errno;
        fs::remove(temp, ec);
        return IoError(KELVO_HERE, target.string(), "Cannot write '@': @.", target.string(),
                       std::strerror(error));
    }
    return OK();
}

Result<void> CheckImageOutput(const fs::path& target, const Id& format) {
    const Url url = Url::FromFile(target.string());
    struct stat st;
    // A device or FIFO is written as it is; its name says nothing about a format.
    if (::stat(target.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return OK();
    if (format.IsEmpty()) {
        // The formats whose suffix the name has, and whether any of them has a writer.
        std::vector<Id> formats;
        for (const EntryRecord* e : RegistryMembers(kFileFormatsRegistry)) {
            if (e->kind != ENTRYKIND::CLASS || e->kindId != FileFormatInterface::InterfaceId())
                continue;
            auto f = CreateClass<FileFormatInterface>(e->GetId());
            if (f && (*f)->MatchesSuffix(url)) formats.push_back(e->GetId());
        }
        bool writable = false;
        for (const EntryRecord* e : RegistryMembers(kFileFormatHandlersRegistry)) {
            if (e->kind != ENTRYKIND::CLASS || writable) continue;
            auto h = CreateClass<FileFormatHandlerInterface>(e->GetId());
            writable =
                h && !(*h)->GetExportClass().IsEmpty() &&
                std::find(formats.begin(), formats.end(), (*h)->GetFileFormat()) != formats.end();
        }
        if (!writable)
            return UnsupportedArgumentError(KELVO_HERE, "No file format writes @.", url.ToString());
    }
    const fs::path folder = target.parent_path().empty() ? fs::path(".") : target.parent_path();
    if (::stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return IoError(KELVO_HERE, target.string(),
                       "Cannot write '@': its folder '@' does not exist.", target.string(),
                       folder.string());
    return OK();
}

Result<void> WriteTextFile(const fs::path& target, std::string_view text) {
    return WriteOutput(target, [&](const fs::path& path) -> Result<void> {
        FILE* f = std::fopen(path.c_str(), "wb");
        if (!f)
            return IoError(KELVO_HERE, path.string(), "Cannot write '@': @.", path.string(),
                           std::strerror(errno));
        bool ok = std::fwrite(text.data(), 1, text.size(), f) == text.size();
        ok = std::fflush(f) == 0 && ok;
        int error = errno;
        ok = std::fclose(f) == 0 && ok;
        if (!ok)
            return IoError(KELVO_HERE, path.string(), "Cannot write '@': @.", path.string(),
                           std::strerror(error ? error : EIO));
        return OK();
    });
}

}  // namespace kelvo::cli
