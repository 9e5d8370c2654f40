// Registries: everything a module offers is found by id.
#pragma once

#include <vector>

#include "kelvo/datatype.h"
#include "kelvo/entry.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

// The inserted entry with this id, or nullptr.
inline const EntryRecord* FindEntry(const Id& id) { return g_kelvo.host.FindEntry(id); }

// The class registered under id if it is a class of kind `kindId` (the interface its
// instances implement); nullptr for an absent id or an entry of another kind.
inline const EntryRecord* FindClass(const Id& id, const Id& kindId) {
    const EntryRecord* e = FindEntry(id);
    return e && e->kind == ENTRYKIND::CLASS && e->kindId == kindId ? e : nullptr;
}

// The entries inserted into a registry, in insertion order.
inline std::vector<const EntryRecord*> RegistryMembers(const Id& registry) {
    size_t n = g_kelvo.host.RegistryMembers(registry, nullptr, 0);
    std::vector<const EntryRecord*> out(n);
    n = g_kelvo.host.RegistryMembers(registry, out.data(), out.size());
    out.resize(n);
    return out;
}

// The registered data type with this id, or nullptr.
inline const DataType* FindDataType(const Id& id) { return g_kelvo.host.FindDataType(id); }

// A new instance of the class registered under classId, as interface I. Fails with
// "Class @ not found." or "Class @ does not implement @.".
template <typename I>
Result<StrongRef<I>> CreateClass(const Id& classId) {
    const EntryRecord* e = FindEntry(classId);
    if (!e || !e->create || (e->kind != ENTRYKIND::CLASS && e->kind != ENTRYKIND::COMPONENT))
        return IllegalArgumentError(KELVO_HERE, "Class @ not found.", classId);
    KELVO_ASSIGN_OR_RETURN(StrongRef<Object> object, e->create());
    StrongRef<I> typed = Query<I>(object);
    if (!typed)
        return IllegalArgumentError(KELVO_HERE, "Class @ does not implement @.", classId,
                                    I::InterfaceId());
    return typed;
}

// A new instance of the component implementing interface I. Fails with
// "Illegal state: No component implements @.".
template <typename I>
Result<StrongRef<I>> CreateComponent() {
    size_t n = g_kelvo.host.RegistryMembers(I::InterfaceId(), nullptr, 0);
    if (n == 0)
        return IllegalStateError(KELVO_HERE, "No component implements @.", I::InterfaceId());
    const EntryRecord* first = nullptr;
    g_kelvo.host.RegistryMembers(I::InterfaceId(), &first, 1);
    return CreateClass<I>(first->GetId());
}

}  // namespace kelvo
