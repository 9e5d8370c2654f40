// The shared main of the benchmarks that link a module's objects: it parses the benchmark
// options, attaches the module (as the loader does for a library), then calls the program's
// SetUp before running the benchmarks.
#pragma once

#include <initializer_list>

#include "kelvo/result.h"

namespace kelvo::bench {

// Defined by each program: loads further modules, registers benchmarks made at run time.
// An error stops the program with its message.
Result<void> SetUp();

// Loads module libraries through the host's loader, in order.
Result<void> LoadModules(std::initializer_list<const char*> libraries);

}  // namespace kelvo::bench
