// The smallest useful module: a binding record, a registry and a configuration variable.
#include "kelvo/config.h"
#include "kelvo/entry.h"

namespace {
const char* const kDependencies[] = {"net.kelvo.core.framework"};
}

extern "C" {
__attribute__((visibility("default"))) KelvoBinding g_kelvo = {KELVO_BINDING_VERSION,
                                                               sizeof(KelvoBinding),
                                                               {"net.example.greeting",
                                                                "net.example.greeting.module",
                                                                {"modules", "greeting.module"},
                                                                kDependencies,
                                                                1,
                                                                nullptr,
                                                                nullptr},
                                                               {}};
__attribute__((visibility("default"))) void (*g_CpuYieldDelegate)() = nullptr;
}

namespace {
KELVO_ENTRY(s_registry, kelvo::ENTRYKIND::REGISTRY, "net.example.greeting.registry", kelvo::Id(),
            kelvo::Id(), nullptr, nullptr);
KELVO_CONFIG_STRING(s_greeting, "g_greeting", "hello", "What the greeting module says");
}  // namespace
