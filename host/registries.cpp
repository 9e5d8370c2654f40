// Registries, entries, data types and id interning.
#include <algorithm>

#include "kelvo/error.h"
#include "runtime_state.h"

namespace kelvo::host {
namespace detail {

State& GetState() {
    static State* state = new State();  // lives past static destruction of modules
    return *state;
}

const std::vector<FrameworkRegistry>& FrameworkRegistries() {
    static const std::vector<FrameworkRegistry> list = {
        {"net.kelvo.core.framework", "net.kelvo.registry.datatypes"},
        {"net.kelvo.core.framework", "net.kelvo.registry.unittestclasses"},
        {"net.kelvo.core.framework", "net.kelvo.registry.speedtestclasses"},
        {"net.kelvo.image.framework", "net.kelvo.registry.fileformats"},
        {"net.kelvo.image.framework", "net.kelvo.registry.fileformathandlers"},
        {"net.kelvo.math.framework", "net.kelvo.registry.collision2d"},
        {"net.kelvo.nodes.framework", "net.kelvo.node.registry.attributes"},
        {"net.kelvo.nodes.framework", "net.kelvo.nodes.registry.previewimageproviders"},
        {"net.kelvo.nodes.framework", "net.kelvo.nodes.registry.materialnodespaces"},
        {"net.kelvo.render.framework", "net.kelvo.render.registry.intersectionclasses"},
    };
    return list;
}

size_t RegistryRank(const Id& registry) {
    const auto& frameworks = Frameworks();
    for (const auto& fr : FrameworkRegistries()) {
        if (registry.Text() != fr.registry) continue;
        auto it = std::find(frameworks.begin(), frameworks.end(), fr.framework);
        return static_cast<size_t>(it - frameworks.begin());
    }
    return frameworks.size();
}

}  // namespace detail

using detail::GetState;

const std::vector<std::string>& Frameworks() {
    static const std::vector<std::string> list = {
        "net.kelvo.core.framework",
        "net.kelvo.graph.framework",
        "net.kelvo.image.framework",
        "net.kelvo.math.framework",
        "net.kelvo.misc.framework",
        "net.kelvo.nodes.framework",
        "net.kelvo.nodes_corenodes.framework",
        "net.kelvo.nodespace.framework",
        "net.kelvo.performancemonitor.framework",
        "net.kelvo.private_render.framework",
        "net.kelvo.render.framework",
    };
    return list;
}

namespace {
Result<Id> InternId(std::string_view text) {
    bool valid = !text.empty() && text.size() <= 255;
    for (unsigned char c : text) valid = valid && c > 0x20 && c != 0x7f;
    if (!valid) return IllegalArgumentError(KELVO_HERE, "Invalid id '@'.", text);
    auto& s = GetState();
    std::lock_guard lock(s.internMutex);
    const std::string& stored = *s.interned.emplace(text).first;
    return Id::Unchecked(stored);
}

size_t RegistryMembersSlot(const Id& registry, const EntryRecord** out, size_t capacity) {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    auto it = s.registries.find(registry);
    if (it == s.registries.end()) return 0;
    const auto& m = it->second.members;
    size_t n = std::min(capacity, m.size());
    std::copy_n(m.begin(), n, out);
    return out ? n : m.size();
}

const DataType* FindDataTypeSlot(const Id& id) {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    auto it = s.dataTypes.find(id);
    return it == s.dataTypes.end() ? nullptr : it->second;
}
}  // namespace

const EntryRecord* FindEntry(const Id& id) {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    auto it = s.entries.find(id);
    return it == s.entries.end() ? nullptr : it->second;
}

std::vector<const EntryRecord*> Entries() {
    auto& s = GetState();
    std::vector<const EntryRecord*> out;
    {
        std::shared_lock lock(s.mutex);
        for (const auto& [id, e] : s.entries) out.push_back(e);
    }
    std::sort(out.begin(), out.end(), [](const EntryRecord* a, const EntryRecord* b) {
        return a->GetId().Text() < b->GetId().Text();
    });
    return out;
}

std::vector<RegistryInfo> Registries() {
    auto& s = GetState();
    std::shared_lock lock(s.mutex);
    std::vector<RegistryInfo> out;
    for (const auto& [id, reg] : s.registries)
        out.push_back({id, reg.owner, {reg.members.begin(), reg.members.end()}});
    return out;
}

void DeclareConfig(const ConfigVariable& variable);
void ForgetConfig(const ConfigVariable& variable);

namespace {
Result<void> InsertLocked(detail::State& s, std::unique_lock<std::shared_mutex>& lock,
                          EntryRecord& entry, std::string_view owner) {
    const Id id = entry.GetId();
    if (entry.kind == ENTRYKIND::REGISTRY) {
        // A registry the frameworks provide is only referred to; any other is defined here.
        s.registries.try_emplace(id, detail::Registry{std::string(owner), {}, true});
        return OK();
    }
    if (entry.kind == ENTRYKIND::CONFIGVARIABLE) {
        lock.unlock();
        DeclareConfig(*static_cast<const ConfigVariable*>(entry.payload));
        return OK();
    }
    if (s.entries.count(id))
        return IllegalStateError(KELVO_HERE, "Entry @ declared in @ is already registered.", id,
                                 entry.source.Path());
    // Components are found through the interface they implement.
    Id registry = entry.kind == ENTRYKIND::COMPONENT ? entry.kindId : entry.registry;
    auto it = s.registries.end();
    bool created = false;
    if (!registry.IsEmpty()) {
        it = s.registries.find(registry);
        if (it == s.registries.end() && entry.kind == ENTRYKIND::COMPONENT) {
            it = s.registries.emplace(registry, detail::Registry{"components", {}}).first;
            created = true;
        }
        if (it == s.registries.end())
            return IllegalStateError(KELVO_HERE,
                                     "Entry @ declared in @ names registry @, which is not loaded.",
                                     id, entry.source.Path(), registry);
    }
    // Room first, so that a failed allocation leaves every table as it was.
    try {
        if (it != s.registries.end()) it->second.members.reserve(it->second.members.size() + 1);
        s.entries.reserve(s.entries.size() + 1);
        if (entry.kind == ENTRYKIND::DATATYPE) {
            auto* type = static_cast<const DataType*>(entry.payload);
            s.dataTypes[type->id] = type;
        }
    } catch (...) {
        if (created) s.registries.erase(it);
        throw;
    }
    try {
        s.entries.emplace(id, &entry);
    } catch (...) {
        if (entry.kind == ENTRYKIND::DATATYPE)
            s.dataTypes.erase(static_cast<const DataType*>(entry.payload)->id);
        if (created) s.registries.erase(it);
        throw;
    }
    if (it != s.registries.end()) it->second.members.push_back(&entry);
    return OK();
}
}  // namespace

Result<void> InsertEntry(EntryRecord& entry, std::string_view owner) {
    auto& s = GetState();
    std::unique_lock lock(s.mutex);
    try {
        return InsertLocked(s, lock, entry, owner);
    } catch (const std::bad_alloc&) {
        return Error::OutOfMemory();
    }
}

void RemoveEntry(EntryRecord& entry) {
    auto& s = GetState();
    const Id id = entry.GetId();
    std::unique_lock lock(s.mutex);
    if (entry.kind == ENTRYKIND::CONFIGVARIABLE) {
        lock.unlock();
        ForgetConfig(*static_cast<const ConfigVariable*>(entry.payload));
        return;
    }
    if (entry.kind == ENTRYKIND::REGISTRY) {
        auto it = s.registries.find(id);
        if (it != s.registries.end() && it->second.definedByEntry && it->second.members.empty())
            s.registries.erase(it);
        return;
    }
    auto it = s.entries.find(id);
    if (it == s.entries.end() || it->second != &entry) return;
    s.entries.erase(it);
    if (entry.kind == ENTRYKIND::DATATYPE)
        s.dataTypes.erase(static_cast<const DataType*>(entry.payload)->id);
    for (auto& [rid, reg] : s.registries)
        std::erase(reg.members, static_cast<const EntryRecord*>(&entry));
    // An interface's component list lives as long as it has components.
    if (entry.kind == ENTRYKIND::COMPONENT) {
        auto reg = s.registries.find(entry.kindId);
        if (reg != s.registries.end() && reg->second.owner == "components" &&
            reg->second.members.empty())
            s.registries.erase(reg);
    }
}

namespace detail {
void FillRegistrySlots(KelvoHostSlots& slots) {
    slots.InternId = &InternId;
    slots.FindEntry = [](const Id& id) { return host::FindEntry(id); };
    slots.RegistryMembers = &RegistryMembersSlot;
    slots.FindDataType = &FindDataTypeSlot;
}
void RegisterFrameworkRegistries() {
    auto& s = GetState();
    std::unique_lock lock(s.mutex);
    for (const auto& fr : FrameworkRegistries())
        s.registries.try_emplace(Id::Unchecked(fr.registry), Registry{fr.framework, {}});
}
}  // namespace detail

}  // namespace kelvo::host
