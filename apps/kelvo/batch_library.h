// The pieces of kelvo preview batch that do not render: reading a material library (one
// {"name": ..., "material": {...}} per line), deciding which names are safe as file names,
// hashing what a thumbnail depends on, the sidecar beside each thumbnail, shards and the
// per-name lock that keeps two runs off the same thumbnail.
//
// A thumbnail is DIR/<name>.png with DIR/<name>.json beside it. The picture is written
// first and the sidecar last, each to a temporary file renamed into place, and the sidecar
// records the picture's hash: a sidecar whose hash matches the material and settings and
// whose picture hashes to what it records marks a complete thumbnail, whatever killed the
// run that wrote it.
#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/result.h"

namespace kelvo::cli::batch {

// Longest line of a library, in bytes; a longer line is a bad line, not the end of the run.
inline constexpr size_t kMaxLineBytes = size_t(1) << 20;
// Longest name, in bytes: a file name is at most 255 bytes on the usual file systems, and
// the temporary files add a dot, a process id, a counter and the suffix.
inline constexpr size_t kMaxNameBytes = 200;

// One line of a library. `error` empty: the line is a material to render.
struct LibraryLine {
    int64_t index = 0;  // from 0, blank lines counted, so every shard numbers alike
    std::string name;
    nlohmann::json material;
    std::string error;
    // Whether a failure may write the placeholder picture and a sidecar under the name: not
    // when the name is unsafe, missing or already taken by an earlier line.
    bool ownsName = false;
};

// Which lines a run renders: those whose index is `index` modulo `count`.
struct Shard {
    int64_t index = 0;
    int64_t count = 1;
    bool Holds(int64_t line) const { return line % count == index; }
};

// "K/N" with 0 <= K < N; anything else is "--shard must be K/N with 0 <= K < N, not '@'.".
Result<Shard> ParseShard(std::string_view text);

// Why name cannot be a file name in a folder shared between machines (Linux, macOS and
// Windows clients alike); empty when it can. Refused: empty, longer than kMaxNameBytes,
// '/', '\\', NUL and other control characters, the characters Windows refuses (<>:"|?*),
// a leading '.', a trailing '.' or space, and text that is not UTF-8.
std::string UnsafeNameReason(std::string_view name);

// The name for a message: control characters escaped, cut to 60 bytes with "...".
std::string ShownName(std::string_view name);

// Reads the library: every line, in order, the lines outside `shard` only far enough to
// find their names (a name taken by an earlier line, in any shard, is refused alike in
// every shard). Fails only when the file cannot be read.
Result<std::vector<LibraryLine>> ReadLibrary(const std::filesystem::path& library,
                                             const Shard& shard);

// What a thumbnail is rendered with besides its material.
struct Settings {
    int64_t width = 128;
    int64_t height = 128;
    int64_t iterations = 16;
    std::string scene = "sphere";
    uint64_t seed = 0;
};
nlohmann::json SettingsJson(const Settings& settings);

// SHA-256 of bytes, as 64 lowercase hex digits.
std::string Sha256Hex(std::string_view bytes);
// SHA-256 of a file's bytes; an I/O error names the file.
Result<std::string> FileSha256(const std::filesystem::path& file);

// The files a material names ("texture", "ies"), each as the material gives it and as a
// path to read: a relative path is taken from the library's folder; urls of another
// scheme than "file" (the tool's own resources) are left out.
struct MaterialInput {
    std::string member;  // "texture" or "ies"
    std::string given;
    std::filesystem::path path;
};
std::vector<MaterialInput> MaterialInputs(const nlohmann::json& material,
                                          const std::filesystem::path& libraryFolder);
// The material with its files' paths made absolute, as the renderer is given it.
nlohmann::json ResolvedMaterial(const nlohmann::json& material,
                                const std::filesystem::path& libraryFolder);

// The content hash of a thumbnail: SHA-256 of the canonical JSON of the material, the
// settings and the hash of every file the material names ("missing" for a file that cannot
// be read), so that editing a texture renders its thumbnails again. `inputs` receives the
// per-file hashes for the sidecar. `cache`, when given, keeps each file's hash for the
// next material that names it (a library often shares textures).
using FileHashes = std::map<std::filesystem::path, std::string>;
std::string ThumbnailHash(const nlohmann::json& material, const nlohmann::json& settings,
                          const std::filesystem::path& libraryFolder, nlohmann::json* inputs,
                          FileHashes* cache = nullptr);

// DIR/<name>.png and DIR/<name>.json.
std::filesystem::path PicturePath(const std::filesystem::path& folder, std::string_view name);
std::filesystem::path SidecarPath(const std::filesystem::path& folder, std::string_view name);

// Whether DIR/<name> is a complete thumbnail for `hash` rendered without error: its sidecar
// reads, records `hash` and no error, and the picture's bytes hash to what it records.
bool IsComplete(const std::filesystem::path& folder, std::string_view name, std::string_view hash);

// The temporary files killed runs left in the folder (".<name>.kelvo-<pid>-<n>.png" and
// ".json", from the write-by-rename helper), by name. Remove a name's only while holding its
// lock: every writer of the name holds it.
std::map<std::string, std::vector<std::filesystem::path>> FindTemporaries(
    const std::filesystem::path& folder);

// An exclusive lock on one name in the output folder, held by an open lock file
// DIR/.<name>.lock, so that two runs (two shards given the same K, a run started again
// while the first still works) never write one thumbnail at the same time. The file is
// removed on release. Locks are advisory and work on local folders and NFSv4.
class NameLock {
public:
    NameLock() = default;
    NameLock(NameLock&& other) noexcept;
    NameLock& operator=(NameLock&& other) noexcept;
    NameLock(const NameLock&) = delete;
    NameLock& operator=(const NameLock&) = delete;
    ~NameLock();

    // Takes the lock; with `wait` false, returns an empty optional when another holds it.
    static Result<std::optional<NameLock>> Take(const std::filesystem::path& folder,
                                                std::string_view name, bool wait);
    bool Held() const { return _fd >= 0; }

private:
    void Release();
    int _fd = -1;
    std::filesystem::path _path;
};

}  // namespace kelvo::cli::batch
