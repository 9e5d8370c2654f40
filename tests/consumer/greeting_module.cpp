// The smallest useful module: a binding record, a registry and a configuration variable.
#include "kelvo/config.h"
#include "kelvo/entry.h"

namespace {
const char* const kDependencies[] = {"net.kelvo.core.framework"};
}

KELVO_MODULE("net.example.greeting", "net.example.greeting.module", "greeting.module",
             kDependencies);

namespace {
KELVO_ENTRY(s_registry, kelvo::ENTRYKIND::REGISTRY, "net.example.greeting.registry", kelvo::Id(),
            kelvo::Id(), nullptr, nullptr);
KELVO_CONFIG_STRING(s_greeting, "g_greeting", "hello", "What the greeting module says");
}  // namespace
