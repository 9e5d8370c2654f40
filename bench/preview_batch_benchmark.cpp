// Thumbnails of a 60-material library at 128 x 128 and 16 iterations: one `kelvo preview
// batch` process with several materials in flight, beside the same materials rendered by one
// `kelvo preview render` process each, one after another (what a script around the single
// render would do). Both start the real tool, so module loading and picture writing count.
// Also: a second batch run over the finished folder, which only checks the sidecars.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace {
namespace fs = std::filesystem;
using nlohmann::json;

constexpr int kMaterials = 60;

fs::path Root() {
    static const fs::path root = [] {
        fs::path r =
            fs::temp_directory_path() / ("kelvo_batch_bench_" + std::to_string(::getpid()));
        fs::create_directories(r);
        return r;
    }();
    return root;
}

// Sixty materials: every legacy reflection model in a few colours and roughnesses.
std::vector<json> Materials() {
    const char* models[] = {"lambertbrdf",        "orennayarbrdf", "ggxbrdf", "beckmannbrdf",
                            "phongbrdf",          "wardbrdf",      "ggxbtdf", "anisotropicbrdf",
                            "blurryspecularbrdf", "beckmannbtdf"};
    std::vector<json> out;
    for (int i = 0; i < kMaterials; ++i) {
        json m = {{"model", models[i % 10]}, {"colour", {0.3 + 0.01 * i, 0.5, 0.7 - 0.01 * i}}};
        if (i % 10 >= 2) m["data"] = {{"roughness", 0.1 + 0.1 * (i / 10)}};
        if (i % 10 == 8) m["data"] = {{"blurryexponent", 10 + 10 * (i / 10)}};
        if (i % 10 == 6 || i % 10 == 9) m["data"]["iorin"] = 1.5;
        out.push_back(m);
    }
    return out;
}

fs::path Library() {
    static const fs::path library = [] {
        fs::path p = Root() / "library.jsonl";
        std::ofstream out(p);
        int i = 0;
        for (const json& m : Materials())
            out << json{{"name", "m" + std::to_string(i++)}, {"material", m}}.dump() << '\n';
        return p;
    }();
    return library;
}

void Run(benchmark::State& state, const std::string& command) {
    if (std::system(command.c_str()) != 0) {
        state.SkipWithError(("failed: " + command).c_str());
    }
}

void Report(benchmark::State& state, double seconds) {
    state.counters["thumbnails_per_minute"] =
        double(kMaterials) * double(state.iterations()) * 60.0 / seconds;
}

double Since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// One batch process; range(0) materials in flight (0: the tool's default).
void BM_BatchProcess(benchmark::State& state) {
    const std::string jobs = state.range(0) ? " --jobs " + std::to_string(state.range(0)) : "";
    double seconds = 0.0;
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(Root() / "batch");
        state.ResumeTiming();
        const auto start = std::chrono::steady_clock::now();
        Run(state, std::string(KELVO_TOOL) + " preview batch " + Library().string() + " --out " +
                       (Root() / "batch").string() + " --size 128 --iterations 16 --quiet" + jobs +
                       " > /dev/null");
        seconds += Since(start);
    }
    Report(state, seconds);
}
BENCHMARK(BM_BatchProcess)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->Arg(4)
    ->Iterations(1)
    ->UseRealTime()
    ->Unit(benchmark::kSecond);

// The baseline: one kelvo preview render process per material.
void BM_ProcessPerMaterial(benchmark::State& state) {
    std::vector<std::string> commands;
    int i = 0;
    for (const json& m : Materials())
        commands.push_back(std::string(KELVO_TOOL) + " preview render --quiet --material '" +
                           m.dump() + "' --size 128 --iterations 16 -o " +
                           (Root() / ("single" + std::to_string(i++) + ".png")).string());
    double seconds = 0.0;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (const std::string& c : commands) Run(state, c);
        seconds += Since(start);
    }
    Report(state, seconds);
}
BENCHMARK(BM_ProcessPerMaterial)->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);

// A batch run over a folder where every thumbnail is complete: hashes and sidecars only.
void BM_BatchAllDone(benchmark::State& state) {
    const std::string command = std::string(KELVO_TOOL) + " preview batch " + Library().string() +
                                " --out " + (Root() / "done").string() +
                                " --size 128 --iterations 16 --quiet > /dev/null";
    Run(state, command);  // renders once
    for (auto _ : state) Run(state, command);
}
BENCHMARK(BM_BatchAllDone)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    fs::remove_all(Root());
    return 0;
}
