// The Embree module's binding record, yield hook and dependency list.
#include "kelvo/entry.h"

#define KELVO_EXPORT __attribute__((visibility("default")))

namespace {

// The host must have these loaded before the module, in this order.
const char* const kDependencies[] = {
    "net.kelvo.core.framework",
    "net.kelvo.math.framework",
    "net.kelvo.render.framework",
};

}  // namespace

extern "C" {
// Constant-initialised, so that the entry records' static start-up can link into it.
KELVO_EXPORT KelvoBinding g_kelvo = {
    KELVO_BINDING_VERSION,
    sizeof(KelvoBinding),
    {"net.kelvo.embree",
     "net.kelvo.embree.module",
     {"modules", "embree.module"},
     kDependencies,
     sizeof(kDependencies) / sizeof(kDependencies[0]),
     nullptr,
     nullptr},
    {},
};
KELVO_EXPORT void (*g_CpuYieldDelegate)() = nullptr;
}
