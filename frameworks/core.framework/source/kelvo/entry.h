// Entry records: the static declarations through which a module offers registries,
// data types, classes, components, file formats and configuration variables.
//
// Static initialisers only fill records and link them into g_kelvo.module; they never
// call through the binding. The host inserts the entries after loading the module and
// runs Cleanup on each, in reverse order, at unload.
#pragma once

#include <cstdint>
#include <memory>

#include "kelvo/allocator.h"
#include "kelvo/binding.h"
#include "kelvo/error.h"
#include "kelvo/id.h"
#include "kelvo/object.h"

namespace kelvo {

template <typename T>
class Result;

enum class ENTRYKIND : uint8_t {
    NONE,
    REGISTRY,        // a registry the module defines or refers to
    REGISTRYMEMBER,  // a published object (file format, handler, ...) in a registry
    CLASS,           // a class created by id, optionally a registry member
    COMPONENT,       // the implementation of a framework interface, reached by interface id
    DATATYPE,        // a data type of net.kelvo.registry.datatypes
    CONFIGVARIABLE,  // a variable of the configuration database
    LIFECYCLE,       // start and stop of the module's process-wide objects (ModuleLifecycle)
};

enum class CONFIGTYPE : uint8_t { STRING, BOOL };

struct ConfigVariable {
    const char* name;
    CONFIGTYPE type;
    const char* defaultText;  // the default of a STRING variable
    bool defaultBool;         // the default of a BOOL variable
    const char* help;
};

using CreateFunction = Result<StrongRef<Object>> (*)();

// Start and stop of a module's process-wide objects (schedulers, caches, tables). After
// inserting all of a module's entries the host calls every `start` in declaration order; a
// failing start unloads the module again (the `stop` of those started before runs) and
// its error is the load's error. At unload every `stop` runs, in reverse order, before the
// entries are removed. `moduleUnloading` runs while this module stays loaded, before
// another module is stopped and unloaded, so that objects of that module held here (tasks
// of its classes, say) can be let go of while its code is still there. Any may be null.
struct ModuleLifecycle {
    Result<void> (*start)();
    void (*stop)();
    void (*moduleUnloading)(const KelvoModuleInfo& module);
};

struct EntryRecord {
    ENTRYKIND kind = ENTRYKIND::NONE;
    const char* idText = nullptr;
    size_t idSize = 0;
    uint64_t idHash = 0;
    bool idAllocated = false;       // the id text came from Allocate and is freed at clean-up
    Id registry;                    // registry the entry goes into; empty for none
    Id kindId;                      // what a class is (its interface id); a component's interface
    SourceLocation source;          // declaring file (its translation unit), for failed insertions
    const void* payload = nullptr;  // DataType, ConfigVariable or another record
    CreateFunction create = nullptr;
    StrongRef<Object> object;  // a published object, if any
    EntryRecord* next = nullptr;

    Id GetId() const { return Id::Unchecked({idText ? idText : "", idSize}); }

    // Releases the id (if allocated) and the object and leaves the record empty; a
    // second call does nothing.
    void Cleanup() {
        if (idAllocated) Free(const_cast<char*>(idText));
        object.reset();
        *this = EntryRecord{};
    }
};

namespace detail {
// Appends a record to this module's entry list in declaration order.
struct EntryLink {
    explicit EntryLink(EntryRecord& record) {
        if (g_kelvo.module.lastEntry)
            g_kelvo.module.lastEntry->next = &record;
        else
            g_kelvo.module.firstEntry = &record;
        g_kelvo.module.lastEntry = &record;
    }
};
}  // namespace detail

template <typename T>
Result<StrongRef<Object>> CreateInstance() {
    auto made = NewObject<T>();
    if (!made) return made.GetError();
    return StrongRef<Object>(std::move(made).Value());
}

}  // namespace kelvo

// Declares one entry of this module. `name` makes the record's symbol unique in its file.
#define KELVO_ENTRY(name, kind_, id_, registry_, kindId_, payload_, create_) \
    static ::kelvo::EntryRecord name{kind_,                                  \
                                     ::kelvo::Id(id_).Text().data(),         \
                                     ::kelvo::Id(id_).Text().size(),         \
                                     ::kelvo::Id(id_).Hash(),                \
                                     false,                                  \
                                     registry_,                              \
                                     kindId_,                                \
                                     KELVO_HERE,                             \
                                     payload_,                               \
                                     create_,                                \
                                     {},                                     \
                                     nullptr};                               \
    static ::kelvo::detail::EntryLink KELVO_CONCAT(name, _link) { name }

// A class created by id, implementing the interface kindId, optionally in a registry.
#define KELVO_REGISTER_CLASS(name, id, registry, kindId, Type)                  \
    KELVO_ENTRY(name, ::kelvo::ENTRYKIND::CLASS, id, registry, kindId, nullptr, \
                &::kelvo::CreateInstance<Type>)
// Start and stop functions of the module (a ModuleLifecycle).
#define KELVO_REGISTER_LIFECYCLE(name, id, lifecycle)                                              \
    KELVO_ENTRY(name, ::kelvo::ENTRYKIND::LIFECYCLE, id, ::kelvo::Id(), ::kelvo::Id(), &lifecycle, \
                nullptr)
// The implementation of a framework interface, created through the interface id.
#define KELVO_REGISTER_COMPONENT(name, implName, Interface, Type)             \
    KELVO_ENTRY(name, ::kelvo::ENTRYKIND::COMPONENT, implName, ::kelvo::Id(), \
                Interface::InterfaceId(), nullptr, &::kelvo::CreateInstance<Type>)
