// The Embree module's binding record, yield hook and dependency list.
#include "kelvo/entry.h"

namespace {

// The host must have these loaded before the module, in this order.
const char* const kDependencies[] = {
    "net.kelvo.core.framework",
    "net.kelvo.math.framework",
    "net.kelvo.render.framework",
};

}  // namespace

KELVO_MODULE("net.kelvo.embree", "net.kelvo.embree.module", "embree.module", kDependencies);
