#include "batch_library.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <set>

#include "cli_common.h"

namespace kelvo::cli::batch {
namespace fs = std::filesystem;
using nlohmann::json;

Result<Shard> ParseShard(std::string_view text) {
    auto refuse = [&] {
        return IllegalArgumentError(KELVO_HERE, "--shard must be K/N with 0 <= K < N, not '@'.",
                                    text);
    };
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos) return refuse();
    auto read = [](std::string_view digits, int64_t& out) {
        if (digits.empty() || digits.size() > 12) return false;
        auto [end, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), out);
        return ec == std::errc() && end == digits.data() + digits.size();
    };
    Shard shard;
    if (!read(text.substr(0, slash), shard.index) || !read(text.substr(slash + 1), shard.count) ||
        shard.index < 0 || shard.count < 1 || shard.index >= shard.count)
        return refuse();
    return shard;
}

namespace {

// Length of the UTF-8 sequence at s[i], or 0 when it is not a valid one.
size_t Utf8Length(std::string_view s, size_t i) {
    const auto c = static_cast<unsigned char>(s[i]);
    size_t n = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
    if (n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k)
        if ((static_cast<unsigned char>(s[i + k]) & 0xC0) != 0x80) return 0;
    // Overlong forms and surrogates are not UTF-8 either.
    const auto c1 = static_cast<unsigned char>(n > 1 ? s[i + 1] : 0);
    if ((n == 2 && c < 0xC2) || (n == 3 && c == 0xE0 && c1 < 0xA0) ||
        (n == 3 && c == 0xED && c1 >= 0xA0) || (n == 4 && c == 0xF0 && c1 < 0x90) ||
        (n == 4 && (c > 0xF4 || (c == 0xF4 && c1 >= 0x90))))
        return 0;
    return n;
}

}  // namespace

std::string UnsafeNameReason(std::string_view name) {
    if (name.empty()) return "it is empty";
    if (name.size() > kMaxNameBytes)
        return "it is longer than " + std::to_string(kMaxNameBytes) + " bytes";
    if (name.front() == '.') return "it starts with '.'";
    if (name.back() == '.' || name.back() == ' ') return "it ends with '.' or a space";
    for (size_t i = 0; i < name.size();) {
        const char c = name[i];
        if (c == '\0') return "it contains NUL";
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F)
            return "it contains a control character";
        if (std::strchr("/\\<>:\"|?*", c) != nullptr) return std::string("it contains '") + c + "'";
        const size_t n = Utf8Length(name, i);
        if (n == 0) return "it is not UTF-8";
        i += n;
    }
    return {};
}

std::string ShownName(std::string_view name) {
    constexpr size_t kShown = 60;
    std::string out;
    size_t i = 0;
    for (; i < name.size() && out.size() < kShown;) {
        const auto c = static_cast<unsigned char>(name[i]);
        if (c < 0x20 || c == 0x7F) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
            ++i;
            continue;
        }
        // Whole characters only; a byte that starts none is shown escaped.
        const size_t n = Utf8Length(name, i);
        if (n == 0) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
            ++i;
        } else {
            out.append(name.substr(i, n));
            i += n;
        }
    }
    if (i < name.size()) out += "...";
    return out;
}

namespace {

// Reads lines of at most kMaxLineBytes; a longer one is reported as such and skipped
// without being held in memory.
class LineReader {
public:
    explicit LineReader(std::FILE* file) : _file(file) {}

    // False at the end of the file. `tooLong` is set for a line over the limit.
    bool Next(std::string& line, bool& tooLong) {
        line.clear();
        tooLong = false;
        bool any = false;
        for (;;) {
            if (_at == _end) {
                _end = std::fread(_buffer, 1, sizeof _buffer, _file);
                _at = 0;
                if (_end == 0) break;
            }
            any = true;
            const char* start = _buffer + _at;
            const void* nl = std::memchr(start, '\n', _end - _at);
            const size_t n = nl ? size_t(static_cast<const char*>(nl) - start) : _end - _at;
            if (!tooLong) {
                if (line.size() + n > kMaxLineBytes) {
                    tooLong = true;
                    line.clear();
                    line.shrink_to_fit();
                } else {
                    line.append(start, n);
                }
            }
            _at += n;
            if (nl) {
                ++_at;
                break;
            }
        }
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return any;
    }

private:
    std::FILE* _file;
    char _buffer[65536];
    size_t _at = 0;
    size_t _end = 0;
};

bool IsBlank(std::string_view line) {
    return line.find_first_not_of(" \t") == std::string_view::npos;
}

}  // namespace

Result<std::vector<LibraryLine>> ReadLibrary(const fs::path& library, const Shard& shard) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(library.c_str(), "rb"),
                                                         &std::fclose);
    if (!file)
        return IoError(KELVO_HERE, library.string(), "Cannot read '@': @.", library.string(),
                       std::strerror(errno));
    auto reader = std::make_unique<LineReader>(file.get());
    std::vector<LibraryLine> lines;
    std::map<std::string, int64_t, std::less<>> taken;  // name -> line number
    std::string text;
    bool tooLong = false;
    for (int64_t index = 0; reader->Next(text, tooLong); ++index) {
        if (!tooLong && IsBlank(text)) continue;
        const bool mine = shard.Holds(index);
        LibraryLine line;
        line.index = index;
        auto refuse = [&](std::string message) {
            line.error = std::move(message);
            if (mine) lines.push_back(std::move(line));
        };
        if (tooLong) {
            refuse(
                IllegalArgumentError(KELVO_HERE, "The line is longer than @ bytes.", kMaxLineBytes)
                    .Message());
            continue;
        }
        json j = json::parse(text, nullptr, false);
        if (j.is_discarded() || !j.is_object()) {
            refuse(IllegalArgumentError(KELVO_HERE, "The line is not a JSON object.").Message());
            continue;
        }
        auto name = j.find("name");
        if (name == j.end()) {
            refuse(IllegalArgumentError(KELVO_HERE, "name is missing.").Message());
            continue;
        }
        Result<std::string> read = ReadString(*name, "name");
        if (!read) {
            refuse(read.GetError().Message());
            continue;
        }
        line.name = std::move(*read);
        if (std::string why = UnsafeNameReason(line.name); !why.empty()) {
            refuse(IllegalArgumentError(KELVO_HERE, "The name '@' is not a safe file name: @.",
                                        ShownName(line.name), why)
                       .Message());
            continue;
        }
        if (auto [at, added] = taken.emplace(line.name, index + 1); !added) {
            refuse(IllegalArgumentError(KELVO_HERE, "The name '@' is already taken by line @.",
                                        ShownName(line.name), at->second)
                       .Message());
            continue;
        }
        if (!mine) continue;
        line.ownsName = true;
        auto material = j.find("material");
        if (material == j.end()) {
            line.error = IllegalArgumentError(KELVO_HERE, "material is missing.").Message();
        } else if (!material->is_object()) {
            line.error =
                IllegalArgumentError(KELVO_HERE, "material must be a JSON object.").Message();
        } else {
            line.material = std::move(*material);
        }
        lines.push_back(std::move(line));
    }
    if (std::ferror(file.get()))
        return IoError(KELVO_HERE, library.string(), "Cannot read '@': @.", library.string(),
                       std::strerror(errno ? errno : EIO));
    return lines;
}

json SettingsJson(const Settings& s) {
    return {{"width", s.width},
            {"height", s.height},
            {"iterations", s.iterations},
            {"scene", s.scene},
            {"seed", s.seed}};
}

namespace {

class Sha256 {
public:
    Sha256() : _context(EVP_MD_CTX_new(), &EVP_MD_CTX_free) {
        if (!_context || EVP_DigestInit_ex(_context.get(), EVP_sha256(), nullptr) != 1)
            throw std::bad_alloc();
    }
    void Add(const void* data, size_t size) { EVP_DigestUpdate(_context.get(), data, size); }
    std::string Hex() {
        unsigned char digest[EVP_MAX_MD_SIZE];
        unsigned int size = 0;
        EVP_DigestFinal_ex(_context.get(), digest, &size);
        static const char* const kDigits = "0123456789abcdef";
        std::string out;
        for (unsigned int i = 0; i < size; ++i) {
            out += kDigits[digest[i] >> 4];
            out += kDigits[digest[i] & 15];
        }
        return out;
    }

private:
    std::unique_ptr<EVP_MD_CTX, void (*)(EVP_MD_CTX*)> _context;
};

}  // namespace

std::string Sha256Hex(std::string_view bytes) {
    Sha256 h;
    h.Add(bytes.data(), bytes.size());
    return h.Hex();
}

Result<std::string> FileSha256(const fs::path& file) {
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> f(std::fopen(file.c_str(), "rb"), &std::fclose);
    if (!f)
        return IoError(KELVO_HERE, file.string(), "Cannot read '@': @.", file.string(),
                       std::strerror(errno));
    Sha256 h;
    std::vector<char> buffer(size_t(1) << 16);
    while (size_t n = std::fread(buffer.data(), 1, buffer.size(), f.get())) h.Add(buffer.data(), n);
    if (std::ferror(f.get()))
        return IoError(KELVO_HERE, file.string(), "Cannot read '@': @.", file.string(),
                       std::strerror(errno ? errno : EIO));
    return h.Hex();
}

std::vector<MaterialInput> MaterialInputs(const json& material, const fs::path& libraryFolder) {
    std::vector<MaterialInput> inputs;
    if (!material.is_object()) return inputs;
    for (const char* member : {"texture", "ies"}) {
        auto it = material.find(member);
        if (it == material.end() || !it->is_string()) continue;
        const std::string& given = it->get_ref<const std::string&>();
        std::string_view path = given;
        if (const size_t sep = path.find("://"); sep != std::string_view::npos) {
            if (path.substr(0, sep) != "file") continue;
            path.remove_prefix(sep + 3);
        }
        if (path.empty()) continue;
        fs::path p(path);
        inputs.push_back({member, given, p.is_absolute() ? p : libraryFolder / p});
    }
    return inputs;
}

json ResolvedMaterial(const json& material, const fs::path& libraryFolder) {
    json resolved = material;
    for (const MaterialInput& input : MaterialInputs(material, libraryFolder))
        resolved[input.member] = input.path.lexically_normal().string();
    return resolved;
}

std::string ThumbnailHash(const json& material, const json& settings, const fs::path& libraryFolder,
                          json* inputs, FileHashes* cache) {
    json files = json::object();
    for (const MaterialInput& input : MaterialInputs(material, libraryFolder)) {
        if (cache)
            if (auto known = cache->find(input.path); known != cache->end()) {
                files[input.given] = known->second;
                continue;
            }
        Result<std::string> h = FileSha256(input.path);
        files[input.given] = h ? *h : std::string("missing");
        if (cache) (*cache)[input.path] = files[input.given];
    }
    const json all = {{"material", material}, {"settings", settings}, {"inputs", files}};
    if (inputs) *inputs = std::move(files);
    // Objects dump with sorted keys: the same material hashes alike however it was written.
    return Sha256Hex(all.dump(-1, ' ', false, json::error_handler_t::replace));
}

fs::path PicturePath(const fs::path& folder, std::string_view name) {
    return folder / (std::string(name) + ".png");
}

fs::path SidecarPath(const fs::path& folder, std::string_view name) {
    return folder / (std::string(name) + ".json");
}

namespace {

// A whole file of at most `limit` bytes; nothing when it cannot be read or is larger.
std::optional<std::string> ReadSmallFile(const fs::path& path, uintmax_t limit) {
    std::error_code ec;
    const uintmax_t size = fs::file_size(path, ec);
    if (ec || size > limit) return std::nullopt;
    std::ifstream in(path, std::ios::binary);
    std::string bytes(size_t(size), '\0');
    if (!in.read(bytes.data(), std::streamsize(size))) return std::nullopt;
    return bytes;
}

}  // namespace

bool IsComplete(const fs::path& folder, std::string_view name, std::string_view hash) {
    // A sidecar holds one library line (at most 1 MiB) and a few figures.
    std::optional<std::string> text = ReadSmallFile(SidecarPath(folder, name), 4 * kMaxLineBytes);
    if (!text) return false;
    json sidecar = json::parse(*text, nullptr, false);
    if (!sidecar.is_object() || sidecar.contains("error")) return false;
    const json& recorded = Member(sidecar, "hash");
    const json& picture = Member(Member(sidecar, "image"), "sha256");
    if (!recorded.is_string() || recorded.get_ref<const std::string&>() != hash ||
        !picture.is_string())
        return false;
    Result<std::string> actual = FileSha256(PicturePath(folder, name));
    return actual && *actual == picture.get_ref<const std::string&>();
}

std::map<std::string, std::vector<fs::path>> FindTemporaries(const fs::path& folder) {
    std::map<std::string, std::vector<fs::path>> found;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        const std::string file = it->path().filename().string();
        std::string_view f = file;
        if (f.size() < 2 || f.front() != '.') continue;
        size_t suffix = f.rfind('.');
        if (suffix == 0 || (f.substr(suffix) != ".png" && f.substr(suffix) != ".json")) continue;
        const size_t tag = f.rfind(".kelvo-", suffix);
        if (tag == std::string_view::npos || tag == 0) continue;
        // Six letters or digits between the tag and the suffix, as the writer's mkstemps
        // makes them.
        const std::string_view random = f.substr(tag + 7, suffix - tag - 7);
        if (random.size() != 6 || !std::all_of(random.begin(), random.end(), [](char c) {
                return std::isalnum(static_cast<unsigned char>(c)) != 0;
            }))
            continue;
        found[std::string(f.substr(1, tag - 1))].push_back(it->path());
    }
    return found;
}

NameLock::NameLock(NameLock&& other) noexcept
    : _fd(std::exchange(other._fd, -1)), _path(std::move(other._path)) {}

NameLock& NameLock::operator=(NameLock&& other) noexcept {
    if (this != &other) {
        Release();
        _fd = std::exchange(other._fd, -1);
        _path = std::move(other._path);
    }
    return *this;
}

NameLock::~NameLock() { Release(); }

void NameLock::Release() {
    if (_fd < 0) return;
    // Removed while still held: whoever opened this file meanwhile finds, once it holds
    // the lock, that the path no longer names it, and starts again with a new file.
    ::unlink(_path.c_str());
    ::close(_fd);
    _fd = -1;
}

Result<std::optional<NameLock>> NameLock::Take(const fs::path& folder, std::string_view name,
                                               bool wait) {
    const fs::path path = folder / ("." + std::string(name) + ".lock");
    for (;;) {
        const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (fd < 0)
            return IoError(KELVO_HERE, path.string(), "Cannot lock '@': @.", path.string(),
                           std::strerror(errno));
        int done;
        do {
            done = ::flock(fd, LOCK_EX | (wait ? 0 : LOCK_NB));
        } while (done != 0 && errno == EINTR);
        if (done != 0) {
            const int error = errno;
            ::close(fd);
            if (error == EWOULDBLOCK) return std::optional<NameLock>();
            return IoError(KELVO_HERE, path.string(), "Cannot lock '@': @.", path.string(),
                           std::strerror(error));
        }
        struct stat held {};
        struct stat named {};
        if (::fstat(fd, &held) == 0 && ::stat(path.c_str(), &named) == 0 &&
            held.st_dev == named.st_dev && held.st_ino == named.st_ino) {
            NameLock lock;
            lock._fd = fd;
            lock._path = path;
            return std::optional<NameLock>(std::move(lock));
        }
        ::close(fd);  // released and removed by its holder meanwhile: take the new one
    }
}

}  // namespace kelvo::cli::batch
