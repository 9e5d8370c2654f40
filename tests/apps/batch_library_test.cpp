// The parts of kelvo preview batch that decide what to render and keep runs apart: hostile
// names, bad lines with their numbers, shards that split a library exactly, the content
// hash, the complete-thumbnail check, and the name lock between processes (one killed with
// SIGKILL while holding it).
#include "batch_library.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

namespace kelvo::cli::batch {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;

// A fresh folder under the temporary directory, removed with the test.
class Folder {
public:
    explicit Folder(const std::string& tag)
        : _path(fs::temp_directory_path() / ("kelvo_" + tag + "_" + std::to_string(::getpid()))) {
        fs::remove_all(_path);
        fs::create_directories(_path);
    }
    ~Folder() { fs::remove_all(_path); }
    const fs::path& Path() const { return _path; }
    fs::path Write(const std::string& file, const std::string& text) const {
        std::ofstream(_path / file, std::ios::binary) << text;
        return _path / file;
    }

private:
    fs::path _path;
};

std::string Line(const std::string& name, const std::string& material = R"({"model":"ggxbrdf"})") {
    return json({{"name", name}, {"material", json::parse(material)}}).dump() + "\n";
}

TEST(BatchLibraryTest, RefusesHostileNamesAndShowsThemSafely) {
    const std::pair<std::string, std::string> refused[] = {
        {"../x", "it starts with '.'"},
        {"a/../../x", "it contains '/'"},
        {"/etc/x", "it contains '/'"},
        {"", "it is empty"},
        {std::string(10000, 'm'), "it is longer than 200 bytes"},
        {std::string("a\0b", 3), "it contains NUL"},
        {"tab\there", "it contains a control character"},
        {"a\\b", "it contains '\\'"},
        {"c:wood", "it contains ':'"},
        {"what?", "it contains '?'"},
        {".hidden", "it starts with '.'"},
        {"..", "it starts with '.'"},
        {"trailing.", "it ends with '.' or a space"},
        {"trailing ", "it ends with '.' or a space"},
        {"\xc3(", "it is not UTF-8"},
        {"\xed\xa0\x80", "it is not UTF-8"},  // a surrogate
    };
    for (const auto& [name, why] : refused) EXPECT_EQ(UnsafeNameReason(name), why) << name;
    for (const char* name :
         {"oak floor", "ggx-0.3_v2", "\xc3\xb6lfarbe", "m", "brushed steel (worn) #2"})
        EXPECT_EQ(UnsafeNameReason(name), "") << name;
    EXPECT_EQ(UnsafeNameReason(std::string(200, 'n')), "");

    EXPECT_EQ(ShownName(std::string("a\0b\n", 4)), "a\\x00b\\x0a");
    EXPECT_EQ(ShownName(std::string(10000, 'm')), std::string(60, 'm') + "...");
    // A cut never splits a character.
    std::string umlauts;
    for (int i = 0; i < 40; ++i) umlauts += "\xc3\xa4";
    EXPECT_EQ(ShownName(umlauts), umlauts.substr(0, 60) + "...");
}

TEST(BatchLibraryTest, ReadsEveryLineWithItsNumberAndRefusesBadOnesAlikeInEveryShard) {
    Folder folder("library");
    const std::string lines[] = {
        Line("copper"),  // 1
        "\n",            // 2: blank, still counted
        "{not json\n",   // 3
        R"({"material": {}})"
        "\n",  // 4
        R"({"name": 7, "material": {}})"
        "\n",               // 5
        Line("../escape"),  // 6
        Line("copper"),     // 7: taken by line 1
        R"({"name": "bare"})"
        "\n",  // 8
        R"({"name": "listed", "material": [1]})"
        "\n",                                          // 9
        "{\"name\": \"crlf\", \"material\": {}}\r\n",  // 10
        "[1, 2]\n",                                    // 11
        R"({"name": "nul\u0000", "material": {}})"
        "\n",  // 12
    };
    std::string text;
    for (const auto& l : lines) text += l;
    text += json({{"name", "long"}, {"material", {{"pad", std::string(kMaxLineBytes, 'x')}}}})
                .dump();  // 13, no final newline
    const fs::path library = folder.Write("library.jsonl", text);

    Result<std::vector<LibraryLine>> all = ReadLibrary(library, Shard{});
    ASSERT_TRUE(all) << all.GetError().Message();
    std::map<int64_t, const LibraryLine*> byLine;
    for (const LibraryLine& l : *all) byLine[l.index + 1] = &l;
    EXPECT_EQ(byLine.size(), 12u);
    EXPECT_FALSE(byLine.count(2));
    EXPECT_EQ(byLine[1]->error, "");
    EXPECT_TRUE(byLine[1]->ownsName);
    EXPECT_EQ(byLine[1]->material, json({{"model", "ggxbrdf"}}));
    const std::pair<int64_t, std::string> errors[] = {
        {3, "Illegal argument: The line is not a JSON object."},
        {4, "Illegal argument: name is missing."},
        {5, "Illegal argument: name must be a string."},
        {6, "Illegal argument: The name '../escape' is not a safe file name: it starts with '.'."},
        {7, "Illegal argument: The name 'copper' is already taken by line 1."},
        {8, "Illegal argument: material is missing."},
        {9, "Illegal argument: material must be a JSON object."},
        {11, "Illegal argument: The line is not a JSON object."},
        {12, "Illegal argument: The name 'nul\\x00' is not a safe file name: it contains NUL."},
        {13, "Illegal argument: The line is longer than 1048576 bytes."},
    };
    for (const auto& [number, message] : errors) EXPECT_EQ(byLine[number]->error, message);
    // A bad material still owns its name (its sidecar records the error); a bad name does not.
    EXPECT_TRUE(byLine[8]->ownsName);
    EXPECT_TRUE(byLine[9]->ownsName);
    EXPECT_FALSE(byLine[6]->ownsName);
    EXPECT_FALSE(byLine[7]->ownsName);
    EXPECT_EQ(byLine[10]->name, "crlf");
    EXPECT_EQ(byLine[10]->error, "");

    // Shard 0/2 holds line 7 (index 6) but not line 1: it still knows the name is taken.
    Result<std::vector<LibraryLine>> even = ReadLibrary(library, Shard{0, 2});
    ASSERT_TRUE(even);
    for (const LibraryLine& l : *even) {
        EXPECT_EQ(l.index % 2, 0);
        if (l.index == 6) {
            EXPECT_EQ(l.error, byLine[7]->error);
        }
    }

    EXPECT_EQ(ReadLibrary(folder.Path() / "absent.jsonl", Shard{}).GetError().Message(),
              "Cannot read '" + (folder.Path() / "absent.jsonl").string() +
                  "': No such file or directory.");
    EXPECT_EQ(ReadLibrary(folder.Path(), Shard{}).GetError().Message(),
              "Cannot read '" + folder.Path().string() + "': Is a directory.");
}

TEST(BatchLibraryTest, ShardsSplitALibraryIntoDisjointPartsThatCoverIt) {
    EXPECT_EQ(ParseShard("3/4")->index, 3);
    EXPECT_EQ(ParseShard("0/1")->count, 1);
    for (const char* bad : {"4/4", "-1/4", "1/0", "1", "1/", "/4", "a/b", "1/4x", " 1/4", "1/-4",
                            "99999999999999999999/2"})
        EXPECT_EQ(ParseShard(bad).GetError().Message(),
                  std::string("Illegal argument: --shard must be K/N with 0 <= K < N, not '") +
                      bad + "'.")
            << bad;

    Folder folder("shards");
    std::string text;
    for (int i = 0; i < 23; ++i) text += i == 5 ? "\n" : Line("m" + std::to_string(i));
    const fs::path library = folder.Write("library.jsonl", text);
    std::multiset<int64_t> seen;
    for (int64_t k = 0; k < 4; ++k) {
        Result<std::vector<LibraryLine>> shard = ReadLibrary(library, Shard{k, 4});
        ASSERT_TRUE(shard);
        for (const LibraryLine& l : *shard) {
            EXPECT_EQ(l.index % 4, k);
            seen.insert(l.index);
        }
    }
    EXPECT_EQ(seen.size(), 22u);
    for (int64_t i = 0; i < 23; ++i) EXPECT_EQ(seen.count(i), i == 5 ? 0u : 1u) << i;
}

TEST(BatchLibraryTest, TheHashFollowsMaterialSettingsAndTheBytesOfNamedFiles) {
    Folder folder("hash");
    const json settings = SettingsJson(Settings{});
    const json a = json::parse(R"({"model": "ggxbrdf", "colour": [1, 0.5, 0.25]})");
    const json reordered = json::parse(R"({"colour": [1, 0.5, 0.25], "model": "ggxbrdf"})");
    const std::string h = ThumbnailHash(a, settings, folder.Path(), nullptr);
    EXPECT_EQ(h.size(), 64u);
    EXPECT_EQ(ThumbnailHash(reordered, settings, folder.Path(), nullptr), h);
    Settings bigger;
    bigger.width = 256;
    EXPECT_NE(ThumbnailHash(a, SettingsJson(bigger), folder.Path(), nullptr), h);
    EXPECT_NE(ThumbnailHash(json::parse(R"({"model": "ggxbrdf", "colour": [1, 0.5, 0.26]})"),
                            settings, folder.Path(), nullptr),
              h);

    // A texture named relative to the library: its bytes count, missing or not.
    const json textured = json::parse(R"({"texture": "tex/wood.png", "ies": "relative:///x.ies"})");
    json inputs;
    const std::string missing = ThumbnailHash(textured, settings, folder.Path(), &inputs);
    EXPECT_EQ(inputs, json({{"tex/wood.png", "missing"}}));
    fs::create_directories(folder.Path() / "tex");
    folder.Write("tex/wood.png", "first");
    const std::string first = ThumbnailHash(textured, settings, folder.Path(), &inputs);
    EXPECT_EQ(inputs["tex/wood.png"], Sha256Hex("first"));
    folder.Write("tex/wood.png", "second");
    const std::string second = ThumbnailHash(textured, settings, folder.Path(), nullptr);
    EXPECT_NE(missing, first);
    EXPECT_NE(first, second);
    EXPECT_EQ(ResolvedMaterial(textured, folder.Path())["texture"],
              (folder.Path() / "tex/wood.png").string());
    EXPECT_EQ(ResolvedMaterial(textured, folder.Path())["ies"], "relative:///x.ies");
    EXPECT_EQ(
        ResolvedMaterial(json::parse(R"({"texture": "file:///abs/t.png"})"), "/lib")["texture"],
        "/abs/t.png");

    EXPECT_EQ(Sha256Hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
}

TEST(BatchLibraryTest, OnlyAWholeMatchingPairIsCompleteAndKilledRunsLeftoversAreFound) {
    Folder folder("complete");
    const fs::path& dir = folder.Path();
    const std::string hash = std::string(64, 'a');
    EXPECT_FALSE(IsComplete(dir, "m", hash));
    folder.Write("m.png", "picture");
    auto sidecar = [&](json extra) {
        json s = {{"hash", hash}, {"image", {{"sha256", Sha256Hex("picture")}}}};
        s.update(extra);
        folder.Write("m.json", s.dump());
    };
    sidecar(json::object());
    EXPECT_TRUE(IsComplete(dir, "m", hash));
    EXPECT_FALSE(IsComplete(dir, "m", std::string(64, 'b')));  // the material changed
    folder.Write("m.png", "picture from another run");         // a mixed pair
    EXPECT_FALSE(IsComplete(dir, "m", hash));
    folder.Write("m.png", "picture");
    sidecar({{"error", "Illegal argument: Unknown material member 'x'."}});
    EXPECT_FALSE(IsComplete(dir, "m", hash));                      // failures are tried again
    folder.Write("m.json", "{\"hash\": \"" + hash + "\", \"ima");  // torn
    EXPECT_FALSE(IsComplete(dir, "m", hash));

    folder.Write(".m.kelvo-a1B2c3.png", "");
    folder.Write(".m.kelvo-ZZ9z0q.json", "");
    folder.Write(".a.b.kelvo-000000.png", "");
    folder.Write(".m.kelvo-x-0.png", "");  // not the writer's pattern
    folder.Write(".m.kelvo-abcdefg.png", "");
    folder.Write(".m.lock", "");
    folder.Write("m.kelvo-a1B2c3.png", "");
    auto found = FindTemporaries(dir);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found["m"].size(), 2u);
    EXPECT_EQ(found["a.b"].size(), 1u);
}

// Waits for a child and returns its exit status (or 128 + the signal that ended it).
int Reap(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

TEST(BatchLibraryTest, TheNameLockKeepsProcessesApartAndDiesWithItsHolder) {
    Folder folder("lock");
    const fs::path& dir = folder.Path();
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    const pid_t holder = ::fork();
    if (holder == 0) {
        auto lock = NameLock::Take(dir, "m", true);
        const char byte = lock && *lock ? 'y' : 'n';
        (void)!::write(ready[1], &byte, 1);
        ::pause();  // until killed, holding the lock
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(ready[0], &byte, 1), 1);
    EXPECT_EQ(byte, 'y');
    Result<std::optional<NameLock>> busy = NameLock::Take(dir, "m", false);
    ASSERT_TRUE(busy);
    EXPECT_FALSE(busy->has_value());
    // Another name is free meanwhile.
    EXPECT_TRUE(NameLock::Take(dir, "n", false)->has_value());
    ::kill(holder, SIGKILL);
    EXPECT_EQ(Reap(holder), 128 + SIGKILL);
    {
        Result<std::optional<NameLock>> mine = NameLock::Take(dir, "m", false);
        ASSERT_TRUE(mine && mine->has_value());
        EXPECT_TRUE(fs::exists(dir / ".m.lock"));
    }
    EXPECT_FALSE(fs::exists(dir / ".m.lock"));  // removed on release
    ::close(ready[0]);
    ::close(ready[1]);

    // Processes that count in one file under the lock, each read-increment-write, while the
    // lock file is removed and made again on every release: no increment is lost.
    folder.Write("count", "0");
    constexpr int kProcesses = 4, kRounds = 60;
    std::vector<pid_t> children;
    for (int p = 0; p < kProcesses; ++p) {
        const pid_t child = ::fork();
        if (child == 0) {
            for (int r = 0; r < kRounds; ++r) {
                auto lock = NameLock::Take(dir, "m", (r % 3) != 0);
                if (!lock) ::_exit(2);
                if (!*lock) {
                    --r;  // busy: try again
                    continue;
                }
                int n = 0;
                std::ifstream(dir / "count") >> n;
                std::ofstream(dir / "count") << n + 1;
            }
            ::_exit(0);
        }
        children.push_back(child);
    }
    for (pid_t c : children) EXPECT_EQ(Reap(c), 0);
    int n = 0;
    std::ifstream(dir / "count") >> n;
    EXPECT_EQ(n, kProcesses * kRounds);
    EXPECT_FALSE(fs::exists(dir / ".m.lock"));
}

}  // namespace
}  // namespace kelvo::cli::batch
