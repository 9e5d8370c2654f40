// Helpers of the command-line suites: run the kelvo tool (KELVO_TOOL) as a person would,
// from another working directory, and read what it wrote.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace kelvo::testing_cli {

struct ToolRun {
    int status;
    std::string out;
    bool operator==(const ToolRun&) const = default;
    friend void PrintTo(const ToolRun& r, std::ostream* os) {
        *os << "status " << r.status << ": " << r.out;
    }
};

// What a failed run prints on stderr, with its exit status.
inline ToolRun Failed(const std::string& message) { return {1, "kelvo: " + message + "\n"}; }

// Runs a shell command, capturing its stdout, with its exit status.
inline ToolRun Shell(const std::string& command) {
    FILE* p = popen(command.c_str(), "r");
    std::string out;
    char buf[4096];
    while (size_t n = fread(buf, 1, sizeof buf, p)) out.append(buf, n);
    int status = pclose(p);
    return {WEXITSTATUS(status), out};
}

// The tool, started from another working directory, as the start of a shell command.
inline std::string Tool(const std::string& args) {
    return "cd / && " + std::string(KELVO_TOOL) + " " + args;
}

// Runs the tool with the given stdin, capturing stdout and stderr.
inline ToolRun Kelvo(const std::string& args, const std::string& stdinText = "") {
    std::filesystem::path in =
        std::filesystem::temp_directory_path() / ("kelvo_stdin_" + std::to_string(::getpid()));
    std::ofstream(in) << stdinText;
    ToolRun run = Shell(Tool(args) + " < " + in.string() + " 2>&1");
    std::filesystem::remove(in);
    return run;
}

// Width and height from a PNG's IHDR chunk.
inline std::pair<uint32_t, uint32_t> PngSize(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    unsigned char b[24] = {};
    in.read(reinterpret_cast<char*>(b), 24);
    auto be = [&](int at) {
        return uint32_t(b[at]) << 24 | uint32_t(b[at + 1]) << 16 | uint32_t(b[at + 2]) << 8 |
               b[at + 3];
    };
    return {be(16), be(20)};
}

}  // namespace kelvo::testing_cli
