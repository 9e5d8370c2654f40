// The engine the renderer ships with: the Embree module, loaded once per test program
// through the host loader, beside the render module the program links.
#pragma once

#include <gtest/gtest.h>

#include "host.h"

namespace kelvo::testing_preview {

inline void LoadEngineModule() {
    static const bool loaded = [] {
        auto module = host::LoadModule(KELVO_EMBREE_MODULE);
        EXPECT_TRUE(module.Ok()) << module.GetError().Message();
        return module.Ok();
    }();
    ASSERT_TRUE(loaded);
}

}  // namespace kelvo::testing_preview
