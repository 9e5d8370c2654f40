// kelvo preview batch as a farm runs it: four shards at once into one folder, a run killed
// with SIGKILL and started again, runs racing on the same lines, a changed material, and a
// library full of bad lines and hostile names. Tiny thumbnails keep it quick.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "../modules/render.module/ies_test_util.h"
#include "batch_library.h"
#include "cli_test_util.h"

namespace kelvo::cli {
namespace {
namespace fs = std::filesystem;
using nlohmann::json;
using namespace testing_cli;

class BatchFolder {
public:
    explicit BatchFolder(const std::string& tag)
        : _root(fs::temp_directory_path() /
                ("kelvo_batch_" + tag + "_" + std::to_string(::getpid()))) {
        fs::remove_all(_root);
        fs::create_directories(_root / "out");
    }
    ~BatchFolder() { fs::remove_all(_root); }
    fs::path Root() const { return _root; }
    fs::path Out() const { return _root / "out"; }
    fs::path Library() const { return _root / "library.jsonl"; }
    void WriteLibrary(const std::vector<json>& lines) const {
        std::ofstream out(Library());
        for (const json& l : lines) out << l.dump() << '\n';
    }
    // The tool's arguments for this library and folder.
    std::vector<std::string> Args(const std::vector<std::string>& more = {},
                                  const std::string& iterations = "2") const {
        std::vector<std::string> args = {
            "preview", "batch", Library().string(), "--out",    Out().string(),
            "--size",  "8",     "--iterations",     iterations, "--json"};
        args.insert(args.end(), more.begin(), more.end());
        return args;
    }

private:
    fs::path _root;
};

// n materials that differ in colour and model.
std::vector<json> Materials(int n) {
    const char* models[] = {"lambertbrdf", "ggxbrdf", "orennayarbrdf", "wardbrdf"};
    std::vector<json> lines;
    for (int i = 0; i < n; ++i)
        lines.push_back(
            {{"name", "m" + std::to_string(i)},
             {"material", {{"model", models[i % 4]}, {"colour", {0.2 + 0.02 * i, 0.5, 0.3}}}}});
    return lines;
}

std::string Joined(const std::vector<std::string>& args) {
    std::string text;
    for (const std::string& a : args) text += (text.empty() ? "" : " ") + a;
    return text;
}

// The tool's stdout for args, stderr dropped.
ToolRun RunTool(const std::vector<std::string>& args) {
    return Shell(Tool(Joined(args)) + " 2>/dev/null");
}

// Starts the tool itself (no shell between, so that its id is the tool's) with stdout to a
// file and stderr dropped; returns the process id.
pid_t Start(const std::vector<std::string>& args, const fs::path& stdoutFile) {
    std::vector<std::string> argv = {KELVO_TOOL};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> pointers;
    for (std::string& a : argv) pointers.push_back(a.data());
    pointers.push_back(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        const int out = ::open(stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int null = ::open("/dev/null", O_WRONLY);
        if (out < 0 || null < 0 || ::dup2(out, 1) < 0 || ::dup2(null, 2) < 0) ::_exit(126);
        ::execv(pointers[0], pointers.data());
        ::_exit(127);
    }
    return child;
}

int Wait(pid_t child) {
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

json ReadJson(const fs::path& file) {
    std::ifstream in(file);
    return json::parse(in, nullptr, false);
}

// Names by status in a --json summary.
std::map<std::string, std::multiset<std::string>> ByStatus(const json& summary) {
    std::map<std::string, std::multiset<std::string>> by;
    for (const json& item : summary["items"]) by[item["status"]].insert(item["name"]);
    return by;
}

// Every thumbnail in the folder is a whole PNG of the size asked for, its sidecar records
// that picture, and no temporary or lock file is left.
void ExpectWholeFolder(const fs::path& out, const std::set<std::string>& names) {
    std::set<std::string> seen;
    for (const auto& e : fs::directory_iterator(out)) {
        const std::string file = e.path().filename().string();
        EXPECT_NE(file.front(), '.') << "left behind: " << file;
        if (e.path().extension() != ".json") continue;
        const std::string name = e.path().stem().string();
        seen.insert(name);
        const json sidecar = ReadJson(e.path());
        ASSERT_TRUE(sidecar.is_object()) << file;
        EXPECT_TRUE(batch::IsComplete(out, name, sidecar["hash"].get<std::string>())) << name;
        EXPECT_EQ(PngSize(out / (name + ".png")), (std::pair<uint32_t, uint32_t>(8, 8))) << name;
    }
    EXPECT_EQ(seen, names);
}

std::set<std::string> Names(int n) {
    std::set<std::string> names;
    for (int i = 0; i < n; ++i) names.insert("m" + std::to_string(i));
    return names;
}

TEST(PreviewBatchCommandTest, FourShardsAtOnceRenderEveryLineOnceAndRacingRunsLeaveWholePairs) {
    BatchFolder f("shards");
    constexpr int kLines = 14;
    f.WriteLibrary(Materials(kLines));
    std::vector<pid_t> runs;
    for (int k = 0; k < 4; ++k)
        runs.push_back(Start(f.Args({"--jobs", "2", "--shard", std::to_string(k) + "/4"}),
                             f.Root() / ("shard" + std::to_string(k) + ".json")));
    for (pid_t r : runs) EXPECT_EQ(Wait(r), 0);
    std::multiset<std::string> rendered;
    for (int k = 0; k < 4; ++k) {
        const json summary = ReadJson(f.Root() / ("shard" + std::to_string(k) + ".json"));
        ASSERT_TRUE(summary.is_object()) << "shard " << k;
        EXPECT_EQ(summary["shard"], std::to_string(k) + "/4");
        for (const json& item : summary["items"]) {
            EXPECT_EQ((item["line"].get<int>() - 1) % 4, k);
            EXPECT_EQ(item["status"], "rendered");
            rendered.insert(item["name"]);
        }
    }
    const std::set<std::string> all = Names(kLines);
    EXPECT_EQ(rendered, std::multiset<std::string>(all.begin(), all.end()));
    ExpectWholeFolder(f.Out(), all);

    // Two runs of the whole library with another seed race line by line: each line is
    // rendered by one of them, and the other finds it done.
    runs = {Start(f.Args({"--seed", "7"}), f.Root() / "a.json"),
            Start(f.Args({"--seed", "7"}), f.Root() / "b.json")};
    for (pid_t r : runs) EXPECT_EQ(Wait(r), 0);
    auto a = ByStatus(ReadJson(f.Root() / "a.json")), b = ByStatus(ReadJson(f.Root() / "b.json"));
    std::multiset<std::string> once = a["rendered"];
    once.insert(b["rendered"].begin(), b["rendered"].end());
    EXPECT_EQ(once, std::multiset<std::string>(all.begin(), all.end()));
    ExpectWholeFolder(f.Out(), all);

    // Runs that disagree (different seeds) race on the same lines: whichever wins, each
    // picture is the one its sidecar records.
    for (int round = 0; round < 3; ++round) {
        runs = {Start(f.Args({"--seed", std::to_string(100 + round)}), f.Root() / "c.json"),
                Start(f.Args({"--seed", std::to_string(200 + round)}), f.Root() / "d.json")};
        for (pid_t r : runs) EXPECT_EQ(Wait(r), 0);
        ExpectWholeFolder(f.Out(), all);
    }
}

TEST(PreviewBatchCommandTest, AKilledRunStartedAgainRendersOnlyWhatWasNotComplete) {
    BatchFolder f("killed");
    constexpr int kLines = 30;
    f.WriteLibrary(Materials(kLines));
    const std::vector<std::string> args = f.Args({"--jobs", "2"}, "12");
    const pid_t run = Start(args, f.Root() / "first.json");
    // Kill it once a few thumbnails are complete, wherever it is then.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    auto sidecars = [&] {
        int n = 0;
        for (const auto& e : fs::directory_iterator(f.Out()))
            n += e.path().extension() == ".json" && e.path().filename().string()[0] != '.';
        return n;
    };
    while (sidecars() < 4 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    ::kill(run, SIGKILL);
    EXPECT_EQ(Wait(run), 128 + SIGKILL);

    // What the killed run completed: a sidecar whose picture matches it.
    std::set<std::string> complete;
    for (const auto& e : fs::directory_iterator(f.Out())) {
        const std::string file = e.path().filename().string();
        if (file[0] == '.' || e.path().extension() != ".json") continue;
        const json sidecar = ReadJson(e.path());
        ASSERT_TRUE(sidecar.is_object()) << "torn sidecar " << file;
        const std::string name = e.path().stem().string();
        ASSERT_TRUE(batch::IsComplete(f.Out(), name, sidecar["hash"].get<std::string>())) << name;
        complete.insert(name);
    }
    ASSERT_GE(complete.size(), 4u);
    ASSERT_LT(complete.size(), size_t(kLines)) << "the run ended before it was killed";

    ToolRun again = RunTool(args);
    ASSERT_EQ(again.status, 0) << again.out;
    auto by = ByStatus(json::parse(again.out));
    EXPECT_EQ(by["skipped"], std::multiset<std::string>(complete.begin(), complete.end()));
    EXPECT_EQ(by["rendered"].size() + complete.size(), size_t(kLines));
    for (const std::string& name : complete) EXPECT_EQ(by["rendered"].count(name), 0u);
    ExpectWholeFolder(f.Out(), Names(kLines));
}

TEST(PreviewBatchCommandTest, ChangingOneMaterialOrItsTextureRendersOnlyIt) {
    BatchFolder f("changed");
    std::vector<json> lines = Materials(4);
    // A texture beside the library, named relative to it: the IES sample's preview.
    const std::string ies = std::string(KELVO_SOURCE_DIR) + "/resources/ies/kelvo_sample_spot.ies";
    auto texture = [&](int size) {
        ASSERT_EQ(RunTool({"ies", "preview", ies, "-o", (f.Root() / "spot.png").string(), "--size",
                           std::to_string(size)})
                      .status,
                  0);
    };
    texture(8);
    lines[3]["material"]["texture"] = "spot.png";
    f.WriteLibrary(lines);
    ToolRun first = RunTool(f.Args());
    ASSERT_EQ(first.status, 0) << first.out;
    EXPECT_EQ(ByStatus(json::parse(first.out))["rendered"].size(), 4u);
    const json sidecar = ReadJson(f.Out() / "m3.json");
    EXPECT_EQ(sidecar["material"]["texture"], "spot.png");
    EXPECT_EQ(sidecar["inputs"].size(), 1u);
    EXPECT_EQ(sidecar["settings"]["width"], 8);
    EXPECT_GT(sidecar["raysPerSecond"].get<double>(), 0.0);
    EXPECT_EQ(sidecar["version"].get<std::string>().rfind("kelvo ", 0), 0u);

    lines[1]["material"]["colour"] = {0.9, 0.1, 0.1};
    f.WriteLibrary(lines);
    ToolRun second = RunTool(f.Args());
    ASSERT_EQ(second.status, 0) << second.out;
    auto by = ByStatus(json::parse(second.out));
    EXPECT_EQ(by["rendered"], std::multiset<std::string>{"m1"});
    EXPECT_EQ(by["skipped"].size(), 3u);

    texture(16);
    ToolRun third = RunTool(f.Args());
    EXPECT_EQ(ByStatus(json::parse(third.out))["rendered"], std::multiset<std::string>{"m3"});

    ToolRun none = RunTool(f.Args());
    EXPECT_EQ(ByStatus(json::parse(none.out))["skipped"].size(), 4u);
    ExpectWholeFolder(f.Out(), Names(4));
}

TEST(PreviewBatchCommandTest, BadLinesAreReportedByNumberWhileTheRestRender) {
    BatchFolder f("bad");
    std::ofstream lib(f.Library());
    lib << json({{"name", "good"}, {"material", {{"model", "ggxbrdf"}}}}).dump() << '\n'
        << "not json\n"
        << json({{"name", "../x"}, {"material", json::object()}}).dump() << '\n'
        << json({{"name", "/etc/x"}, {"material", json::object()}}).dump() << '\n'
        << json({{"name", ""}, {"material", json::object()}}).dump() << '\n'
        << json({{"name", std::string(10000, 'n')}, {"material", json::object()}}).dump() << '\n'
        << R"({"name": "a\u0000b", "material": {}})" << '\n'
        << json({{"name", "unknown"}, {"material", {{"model", "nosuchbrdf"}}}}).dump() << '\n'
        << json({{"name", "untextured"}, {"material", {{"texture", "/nonexistent/wood.png"}}}})
               .dump()
        << '\n';
    lib.close();
    const fs::path err = f.Root() / "err.txt";
    ToolRun run = Shell(Tool(Joined(f.Args({"--jobs", "1"}))) + " 2>" + err.string());
    EXPECT_EQ(run.status, 1);
    std::ifstream errIn(err);
    const std::string errors((std::istreambuf_iterator<char>(errIn)), {});
    const std::string at = "kelvo: " + f.Library().string() + ":";
    for (const std::string& expected :
         {at + "2: Illegal argument: The line is not a JSON object.",
          at + "3: Illegal argument: The name '../x' is not a safe file name: it starts with '.'.",
          at + "4: Illegal argument: The name '/etc/x' is not a safe file name: it contains '/'.",
          at + "5: Illegal argument: The name '' is not a safe file name: it is empty.",
          at + "6: Illegal argument: The name '" + std::string(60, 'n') +
              "...' is not a safe file name: it is longer than 200 bytes.",
          at + "7: Illegal argument: The name 'a\\x00b' is not a safe file name: it contains NUL.",
          at + "8: ", at + "9: "})
        EXPECT_NE(errors.find(expected), std::string::npos) << expected << "\nin:\n" << errors;
    const json summary = json::parse(run.out);
    EXPECT_EQ(summary["rendered"], 1);
    EXPECT_EQ(summary["failed"], 8);
    // The failed materials have the placeholder and a sidecar saying why; the hostile names
    // wrote nothing anywhere.
    std::set<std::string> files;
    for (const auto& e : fs::directory_iterator(f.Out())) files.insert(e.path().filename());
    EXPECT_EQ(files, (std::set<std::string>{"good.png", "good.json", "unknown.png", "unknown.json",
                                            "untextured.png", "untextured.json"}));
    EXPECT_FALSE(fs::exists(f.Root() / "x.png"));
    EXPECT_NE(ReadJson(f.Out() / "untextured.json")["error"].get<std::string>().find(
                  "/nonexistent/wood.png"),
              std::string::npos);
    EXPECT_EQ(ReadJson(f.Out() / "unknown.json")["placeholder"],
              "net.kelvo.nodes.previewimageplaceholder.error");
    EXPECT_EQ(PngSize(f.Out() / "unknown.png"), (std::pair<uint32_t, uint32_t>(8, 8)));

    EXPECT_EQ(Kelvo(Joined(f.Args({"--shard", "4/4"}))),
              Failed("Illegal argument: --shard must be K/N with 0 <= K < N, not '4/4'."));
    EXPECT_EQ(Kelvo(Joined(f.Args({"--jobs", "0x"}))),
              Failed("Illegal argument: --jobs must be an integer from 1 to 1024."));
    EXPECT_EQ(Kelvo("preview batch /nonexistent.jsonl --out " + f.Out().string()),
              Failed("Cannot read '/nonexistent.jsonl': No such file or directory."));
}

}  // namespace
}  // namespace kelvo::cli
