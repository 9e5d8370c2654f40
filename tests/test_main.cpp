// Test main for suites that link the render module's objects: binds the process's
// binding record (the module's own) and inserts the module's entries, as the loader
// does for a library.
#include <gtest/gtest.h>

#include "host.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    auto module = kelvo::host::AttachModule(g_kelvo, &g_CpuYieldDelegate);
    if (!module) {
        fprintf(stderr, "cannot attach the render module: %s\n",
                module.GetError().ToString().c_str());
        return 1;
    }
    return RUN_ALL_TESTS();
}
