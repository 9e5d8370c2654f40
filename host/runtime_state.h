// Private state of the host runtime, shared by its translation units.
#pragma once

#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host.h"
#include "kelvo/allocator.h"

namespace kelvo::host::detail {

// The tables of entries and registries allocate through the framework allocator, so that
// fault-injection tests reach the loader's insertion too.
template <typename T>
using Tracked = ::kelvo::Allocator<T>;

struct Registry {
    std::string owner;
    std::vector<const EntryRecord*, Tracked<const EntryRecord*>> members;
    bool definedByEntry = false;  // removed again with the module that defined it
};

struct ConfigEntry {
    CONFIGTYPE type = CONFIGTYPE::STRING;
    std::string text;
    bool boolValue = false;
    std::string defaultValue;
    std::string help;
    bool declared = false;
};

struct State {
    std::shared_mutex mutex;  // guards everything below
    std::unordered_map<Id, const EntryRecord*, IdHash, std::equal_to<Id>,
                       Tracked<std::pair<const Id, const EntryRecord*>>>
        entries;
    std::map<Id, Registry, std::less<Id>, Tracked<std::pair<const Id, Registry>>> registries;
    std::unordered_map<Id, const DataType*, IdHash> dataTypes;
    std::map<std::string, ConfigEntry, std::less<>> config;

    std::mutex internMutex;
    std::unordered_set<std::string> interned;  // node-based: texts never move
};

State& GetState();

// Registry ids the host's frameworks provide, keyed by framework.
struct FrameworkRegistry {
    const char* framework;
    const char* registry;
};
const std::vector<FrameworkRegistry>& FrameworkRegistries();
// Rank of the framework owning a registry in dependency order; modules' own come last.
size_t RegistryRank(const Id& registry);

}  // namespace kelvo::host::detail
