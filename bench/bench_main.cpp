#include "bench_main.h"

#include <benchmark/benchmark.h>

#include <cstdio>

#include "host.h"

namespace kelvo::bench {

Result<void> LoadModules(std::initializer_list<const char*> libraries) {
    for (const char* library : libraries)
        if (auto loaded = host::LoadModule(library); !loaded)
            return UnexpectedError(KELVO_HERE, "cannot load @: @", library,
                                   loaded.GetError().Message());
    return OK();
}

}  // namespace kelvo::bench

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    auto module = kelvo::host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) {
        std::fprintf(stderr, "cannot attach the module: %s\n",
                     module.GetError().ToString().c_str());
        return 1;
    }
    if (auto set = kelvo::bench::SetUp(); !set) {
        std::fprintf(stderr, "%s\n", set.GetError().Message().c_str());
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
