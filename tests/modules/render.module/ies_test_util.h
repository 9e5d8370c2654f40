// Helpers shared by the IES suites: parse text or a file into a fresh profile; for the
// command-line suites, run the kelvo tool.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "kelvo/ies.h"
#include "kelvo/memorystream.h"
#include "kelvo/registry.h"

namespace kelvo::testing_ies {

inline StrongRef<IesInterface> NewProfile() {
    auto made = CreateComponent<IesInterface>();
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    return made.Ok() ? *made : nullptr;
}

// Parses text; the result of Init and the profile (kept after a failure, as callers see it).
struct Parsed {
    Result<void> result;
    StrongRef<IesInterface> ies;
};
inline Parsed ParseText(std::string text, size_t maxRead = 0) {
    StrongRef<IesInterface> ies = NewProfile();
    auto stream = MemoryInputStream::Make(std::move(text), maxRead);
    return {ies->Init(*stream), ies};
}

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// The direction at vertical angle θ (from the nadir, -z) and horizontal angle φ (from +y
// towards +x), both in degrees.
inline Vec3 Direction(double thetaDeg, double phiDeg) {
    double t = thetaDeg * M_PI / 180.0, p = phiDeg * M_PI / 180.0;
    return {std::sin(t) * std::sin(p), std::sin(t) * std::cos(p), -std::cos(t)};
}

}  // namespace kelvo::testing_ies

#ifdef KELVO_TOOL
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
#endif
