// The binding record between a module and the host.
//
// Every module exports one `g_kelvo`. The module fills its own part (`module`: ids,
// dependency list, entry list) statically; the host fills the function slots (`host`)
// after loading the library and before it uses any entry. Modules call the framework
// only through these slots. The slots are declared once, in the lists below, so the
// host's filler and the modules' record cannot drift apart.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>

#include "kelvo/description_slots.h"
#include "kelvo/id.h"
#include "kelvo/image_slots.h"
#include "kelvo/job_slots.h"
#include "kelvo/platform_slots.h"

namespace kelvo {
template <typename T>
class Result;
class Url;
class InputStream;
class Object;
class DataDictionary;
struct EntryRecord;
struct DataType;

enum class DIAGLEVEL : uint8_t { INFO, WARNING, ERROR };
}  // namespace kelvo

// Core services: memory, ids, registries, configuration, diagnostics, urls and I/O.
#define KELVO_CORE_SLOTS(X)                                                             \
    X(void*, Allocate, (size_t size, size_t align))                                     \
    X(void, Free, (void* memory))                                                       \
    X(::kelvo::Result<::kelvo::Id>, InternId, (std::string_view text))                  \
    X(const ::kelvo::EntryRecord*, FindEntry, (const ::kelvo::Id& id))                  \
    X(size_t, RegistryMembers,                                                          \
      (const ::kelvo::Id& registry, const ::kelvo::EntryRecord** out, size_t capacity)) \
    X(const ::kelvo::DataType*, FindDataType, (const ::kelvo::Id& id))                  \
    X(::kelvo::Result<std::string>, ConfigGetString, (std::string_view name))           \
    X(::kelvo::Result<bool>, ConfigGetBool, (std::string_view name))                    \
    X(std::shared_ptr<const ::kelvo::DataDictionary>, DefaultDataDictionary, ())        \
    X(void, Diagnostic, (::kelvo::DIAGLEVEL level, std::string_view text))              \
    X(int, IoDetect, (const ::kelvo::Url& url))                                         \
    X(::kelvo::Result<std::shared_ptr<::kelvo::InputStream>>, OpenInputStream,          \
      (const ::kelvo::Url& url))

// All slot lists, in record order. Later services append their own list here.
#define KELVO_ALL_SLOTS(X) \
    KELVO_CORE_SLOTS(X)    \
    KELVO_JOB_SLOTS(X) KELVO_IMAGE_SLOTS(X) KELVO_DESCRIPTION_SLOTS(X) KELVO_PLATFORM_SLOTS(X)

// Raised whenever the record's layout changes, so that a stale module is refused.
#define KELVO_BINDING_VERSION 6u

struct KelvoModuleInfo {
    const char* id;                   // "net.kelvo.render"
    const char* name;                 // how the module names itself to the host
    const char* resourcePath[2];      // folder parts under the resource root
    const char* const* dependencies;  // framework ids the host must have loaded first
    size_t dependencyCount;
    kelvo::EntryRecord* firstEntry;  // declaration order, linked by static start-up
    kelvo::EntryRecord* lastEntry;
};

struct KelvoHostSlots {
#define KELVO_DECLARE_SLOT(ret, name, params) ret(*name) params;
    KELVO_ALL_SLOTS(KELVO_DECLARE_SLOT)
#undef KELVO_DECLARE_SLOT
};

struct KelvoBinding {
    uint32_t version;
    uint32_t size;
    KelvoModuleInfo module;
    KelvoHostSlots host;
};

extern "C" {
// Each module defines and exports these two. A host program links its own copies,
// which the runtime binds to itself.
extern KelvoBinding g_kelvo;
// Processor-yield hook, called by spin locks under long contention, only when set.
extern void (*g_CpuYieldDelegate)();
}

// Defines and exports a module's binding record and yield hook, in one of its sources:
//   const char* const kDependencies[] = {"net.kelvo.core.framework", ...};
//   KELVO_MODULE("net.example.greeting", "net.example.greeting.module", "greeting.module",
//                kDependencies);
// `name` is how the module names itself to the host, `resourceFolder` its folder under
// "modules" in the resource root, `dependencies` an array of the framework ids the host must
// have loaded first. The record is constant-initialised, so the entries' static start-up
// can link into it.
#define KELVO_MODULE(id, name, resourceFolder, dependencies) \
    KELVO_MODULE_WITH_VERSION(KELVO_BINDING_VERSION, id, name, resourceFolder, dependencies)
// The same with another binding version (loader tests build modules the host must refuse).
#define KELVO_MODULE_WITH_VERSION(version, id, name, resourceFolder, dependencies) \
    extern "C" {                                                                   \
    __attribute__((visibility("default")))                                         \
    KelvoBinding g_kelvo = {version,                                               \
                            sizeof(KelvoBinding),                                  \
                            {id,                                                   \
                             name,                                                 \
                             {"modules", resourceFolder},                          \
                             dependencies,                                         \
                             sizeof(dependencies) / sizeof((dependencies)[0]),     \
                             nullptr,                                              \
                             nullptr},                                             \
                            {}};                                                   \
    __attribute__((visibility("default"))) void (*g_CpuYieldDelegate)() = nullptr; \
    }                                                                              \
    static_assert(std::extent_v<decltype(dependencies)> > 0,                       \
                  "dependencies must be an array of framework ids")
