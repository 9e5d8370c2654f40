// The host runtime: the services behind the binding record, the module loader, and
// the hooks tests use (captured diagnostics, allocation faults, resource folder).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kelvo/binding.h"
#include "kelvo/datatype.h"
#include "kelvo/entry.h"
#include "kelvo/result.h"

namespace kelvo::host {

// Fills a binding record's host slots with this runtime's services.
void FillHostSlots(KelvoHostSlots& slots);
// Binds this process's own g_kelvo (the host program's copy, or, in unit tests that link
// a module's objects, the module's) and g_CpuYieldDelegate, and makes the framework
// registries known. Idempotent.
void Initialize();

// The frameworks this host provides, in dependency order.
const std::vector<std::string>& Frameworks();

// --- Modules ---------------------------------------------------------------------------
struct LoadedModule;
using ModuleHandle = LoadedModule*;

// Loads a module library, fills its binding record, checks its dependencies and inserts
// its entries. On failure nothing of the module stays registered or loaded.
Result<ModuleHandle> LoadModule(const std::filesystem::path& library);
// The same for a module whose objects are linked into this process (unit tests).
Result<ModuleHandle> AttachModule(KelvoBinding& binding, void (**yieldDelegate)());
// Removes the module's entries, runs their clean-ups in reverse and unloads the library.
void UnloadModule(ModuleHandle module);
const KelvoModuleInfo& ModuleInfo(ModuleHandle module);
std::vector<ModuleHandle> LoadedModules();
// The "*.so" files inside the "<name>.module" folders of `folder`, sorted by path.
std::vector<std::filesystem::path> FindModuleLibraries(const std::filesystem::path& folder);

// --- Registries --------------------------------------------------------------------------
struct RegistryInfo {
    Id id;
    std::string owner;  // framework id, or the id of the module that defined it
    std::vector<const EntryRecord*> members;
};
std::vector<RegistryInfo> Registries();
const EntryRecord* FindEntry(const Id& id);
// Every inserted entry (registries and configuration variables aside), sorted by id.
std::vector<const EntryRecord*> Entries();
// Inserts an entry that the host itself, a module (`owner` is its id) or a test provides;
// the entry must outlive its insertion. A registry entry defines the registry when no
// framework provides it.
Result<void> InsertEntry(EntryRecord& entry, std::string_view owner = "host");
void RemoveEntry(EntryRecord& entry);

// --- Configuration -------------------------------------------------------------------------
struct ConfigInfo {
    std::string name;
    CONFIGTYPE type;
    std::string value;  // current value as text ("true"/"false" for BOOL)
    std::string defaultValue;
    std::string help;
};
std::vector<ConfigInfo> ConfigVariables();
// Sets a variable for this run. A name not declared yet is kept and applied when a module
// declares it. A BOOL takes "true", "false", "1" or "0"; anything else fails with
// "Illegal argument: Value '@' is not a bool for @.".
Result<void> ConfigSet(std::string_view name, std::string_view value);
// Replaces the framework's default dictionary (DefaultDataDictionary in kelvo/data.h), which
// starts empty; null leaves the host without one. Modules only read it.
void SetDefaultDataDictionary(std::shared_ptr<const DataDictionary> defaults);

// --- Diagnostics ---------------------------------------------------------------------------
using DiagnosticSink = std::function<void(DIAGLEVEL, std::string_view)>;
// Replaces the sink (stderr by default) and returns the previous one.
DiagnosticSink SetDiagnosticSink(DiagnosticSink sink);

// Collects diagnostic output for the lifetime of the object.
class CapturedDiagnostics {
public:
    CapturedDiagnostics();
    ~CapturedDiagnostics();
    CapturedDiagnostics(const CapturedDiagnostics&) = delete;
    CapturedDiagnostics& operator=(const CapturedDiagnostics&) = delete;
    std::vector<std::string> Lines() const;

private:
    DiagnosticSink _previous;
    std::shared_ptr<struct CaptureState> _state;
};

// --- Allocation ----------------------------------------------------------------------------
// Makes the n-th framework allocation from now (1 = the next) fail; 0 disarms.
void FailNthAllocation(int64_t n);
// Whether the failure FailNthAllocation armed is still to come: a call that succeeds while
// this is false went on past a failed allocation.
bool AllocationFailurePending();
// Every framework allocation from now fails until disarmed with FailNthAllocation(0).
void FailAllAllocations();
// Framework allocations not yet freed.
int64_t LiveAllocations();

// --- Files and urls ----------------------------------------------------------------------------
// The folder that "relative" urls name when no other base applies.
void SetResourceRoot(const std::filesystem::path& folder);
std::filesystem::path ResourceRoot();
// The local path a "file" or "relative" url names; empty for other schemes.
std::filesystem::path LocalPath(const Url& url);
// Why opening or writing `path` failed with errno value `error`, in words for a message:
// "no such file", "it is a directory", "permission denied", "the disk is full", ...
std::string FileProblem(const std::filesystem::path& path, int error);
// Input streams over pipes, FIFOs and devices wait for data in slices of kInputWaitSlice;
// one that sends nothing for kInputStallLimit fails. InterruptInputs(true) (safe in a
// signal handler, for Ctrl-C) makes every such wait fail within a slice with
// "Cannot read @: interrupted."; false lets them wait again.
inline constexpr std::chrono::milliseconds kInputWaitSlice{100};
inline constexpr std::chrono::seconds kInputStallLimit{30};
void InterruptInputs(bool interrupted);

// --- Jobs ------------------------------------------------------------------------------------
// Sets the number of pool threads (0: one per processor). Lets running work finish first;
// call it while no job depends on the pool.
void SetHostThreads(int threads);
// Deterministic mode, for scheduler tests: no worker thread takes work. Enqueued jobs wait
// in one FIFO across all queues and run one at a time, in enqueue order, on the thread that
// calls RunPendingJobs or that waits (for a job, a queue or a condition variable);
// ParallelFor runs its indices in order on the calling thread.
void SetDeterministicJobs(bool on);
// Runs up to `most` pending pool tasks (all when negative) on this thread; returns how many.
size_t RunPendingJobs(int64_t most = -1);
size_t PendingJobs();

// --- Self-tests ------------------------------------------------------------------------------
struct SelfTestOutcome {
    Id id;
    bool speed;  // a speed test (net.kelvo.registry.speedtestclasses)
    bool passed;
    std::string report;  // the lines the test wrote
    std::string error;   // why it failed
};
// Runs every class of net.kelvo.registry.unittestclasses, then every class of
// net.kelvo.registry.speedtestclasses, in registration order.
std::vector<SelfTestOutcome> RunSelfTests();

}  // namespace kelvo::host
