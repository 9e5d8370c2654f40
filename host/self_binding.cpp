// A host program's own binding record and yield hook. Kept in a file of its own: a
// program that links a module's objects (unit tests) gets the module's copies instead,
// and the linker never pulls this one in.
#include "kelvo/binding.h"

extern "C" {
KelvoBinding g_kelvo = {KELVO_BINDING_VERSION, sizeof(KelvoBinding), {}, {}};
void (*g_CpuYieldDelegate)() = nullptr;
}
