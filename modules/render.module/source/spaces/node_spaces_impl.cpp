// The node-space base class, the fallback material exchange, the node-space helpers and
// the node-spaces data type, with their entries and the helpers' start and stop.
#include "spaces/node_spaces_impl.h"

#include <mutex>
#include <string>
#include <utility>

#include "kelvo/datatype.h"
#include "kelvo/diagnostics.h"
#include "kelvo/registry.h"

namespace kelvo::nodes {
namespace {

// The viewport material bundle id, made once behind a thread-safe guard.
const Id& ViewportMaterialId() {
    static const Id id = kViewportMaterialBundle;
    return id;
}

Spinlock g_helpersLock;  // guards g_helpers
StrongRef<NodeSpaceHelpersImpl> g_helpers;

}  // namespace

bool SameId(const Id& a, const Id& b) {
    if (a.Hash() != b.Hash() || a.Text().size() != b.Text().size()) return false;
    const std::string_view x = a.Text(), y = b.Text();
    for (size_t i = x.size(); i > 0; --i)
        if (x[i - 1] != y[i - 1]) return false;
    return true;
}

// --- NodeSpaceBaseClass ----------------------------------------------------------------------

Result<void> NodeSpaceBaseClass::Init(const Id& spaceId, StrongRef<DataDictionary> description) {
    if (!description)
        return IllegalArgumentError(KELVO_HERE, "Node space @ has no description.", spaceId);
    StrongRef<DataDictionary> earlier;  // released after the lock
    {
        std::lock_guard lock(_lock);
        _spaceId = spaceId;
        earlier = std::exchange(_description, description);
    }
    earlier.reset();
    KELVO_TRY(Describe(spaceId, *description));
    KELVO_TRY(ApplyMaterialExchangeFallback(spaceId, *description));
    KELVO_ASSIGN_OR_RETURN(RaiiObservable observable, RaiiObservable::Create());
    std::lock_guard lock(_lock);
    std::swap(_observable, observable);  // an earlier observable goes with `observable`
    return OK();
}

Result<void> NodeSpaceBaseClass::Describe(const Id& spaceId, DataDictionary& description) {
    KELVO_TRY(description.Set(NODESPACE::SPACEID, spaceId));
    const Data* named = description.Find(NODESPACE::SPACENAME);
    const std::string* name = named ? named->Get<std::string>() : nullptr;
    if (name && !name->empty()) return OK();
    return CatchOutOfMemory([&]() -> Result<void> {
        return description.Set(NODESPACE::SPACENAME, std::string(spaceId.Text()));
    });
}

Result<void> NodeSpaceBaseClass::ApplyMaterialExchangeFallback(const Id& spaceId,
                                                               DataDictionary& description) {
    // A space with its own exchange class keeps it and its bundle ids, whatever they are.
    const Id exchangeClass = description.Get<Id>(NODESPACE::MATERIALEXCHANGECLASS);
    if (!exchangeClass.IsEmpty()) return OK();

    // Room for 16 bundles, as a space adding its own ones later would want.
    std::vector<Id, Allocator<Id>> viewportOnly;
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        viewportOnly.reserve(16);
        viewportOnly.push_back(ViewportMaterialId());
        return OK();
    }));
    KELVO_ASSIGN_OR_RETURN(StrongRef<IdArrayImpl> bundles,
                           IdArrayImpl::Create(std::move(viewportOnly), 16));

    // Bundles named without a class to convert them would promise what nothing can do:
    // they are replaced, not merged, and the space's author hears about it.
    const Data* specified = description.Find(NODESPACE::MATERIALEXCHANGEBUNDLEIDS);
    const StrongRef<Object>* object = specified ? specified->Get<StrongRef<Object>>() : nullptr;
    StrongRef<IdArrayInterface> ids = object ? Query<IdArrayInterface>(*object) : nullptr;
    if (ids && !ids->GetIds().empty())
        DiagnosticWarning(
            "Warning for @: overwriting specified NODESPACE::MATERIALEXCHANGEBUNDLEIDS because "
            "fallback NODESPACE::MATERIALEXCHANGECLASS is defined by NodeSpaceBaseClass.",
            spaceId);

    KELVO_TRY(description.Set(NODESPACE::MATERIALEXCHANGEBUNDLEIDS,
                              StrongRef<Object>(std::move(bundles))));
    return description.Set(NODESPACE::MATERIALEXCHANGECLASS, kMaterialExchangeDefaultClass);
}

Id NodeSpaceBaseClass::GetId() const {
    std::lock_guard lock(_lock);
    return _spaceId;
}

StrongRef<const DataDictionary> NodeSpaceBaseClass::GetDescription() const {
    std::lock_guard lock(_lock);
    return _description;
}

StrongRef<ObservableInterface> NodeSpaceBaseClass::GetObservable() const {
    std::lock_guard lock(_lock);
    return _observable.Get();
}

// --- MaterialExchangeDefault -------------------------------------------------------------------

Result<void> MaterialExchangeDefault::Convert(const Id& materialType,
                                              const DataDictionary& material,
                                              DataDictionary& target) {
    if (!SameId(materialType, ViewportMaterialId()))
        return IllegalArgumentError(KELVO_HERE,
                                    "Condition materialType == viewportMaterialId not fulfilled.");
    // The viewport bundle is the material itself; the target changes only when the copy
    // succeeded.
    return CatchOutOfMemory([&]() -> Result<void> {
        DataDictionary copy = material;
        target = std::move(copy);
        return OK();
    });
}

// --- NodeSpaceHelpersImpl ----------------------------------------------------------------------

Result<void> NodeSpaceHelpersImpl::Inactive() {
    return IllegalStateError(KELVO_HERE, "Condition _isActive == true not fulfilled.");
}

Result<NodeSpaceHelpersImpl::Entry> NodeSpaceHelpersImpl::MakeSpace(const EntryRecord& record) {
    const Id id = record.GetId();
    KELVO_ASSIGN_OR_RETURN(StrongRef<NodeSpaceInterface> space,
                           CreateClass<NodeSpaceInterface>(id));
    KELVO_ASSIGN_OR_RETURN(StrongRef<DataDictionary> description, NewObject<DataDictionary>());
    KELVO_TRY(space->Init(id, std::move(description)));
    return Entry{std::move(space), &record};
}

Result<void> NodeSpaceHelpersImpl::LeftOut(const EntryRecord& record, const Error& error) {
    // Out of memory fails the whole operation; a broken space is only left out.
    if (error.Kind() == ERRORKIND::OUTOFMEMORY) return error;
    DiagnosticWarning("Node space @ left out: @", record.GetId(), error.Message());
    return OK();
}

bool NodeSpaceHelpersImpl::IsSpaceClass(const EntryRecord* record) {
    return record && record->kind == ENTRYKIND::CLASS &&
           SameId(record->registry, kMaterialNodeSpacesRegistry);
}

Result<NodeSpaceHelpersImpl::Table> NodeSpaceHelpersImpl::BuildFromRegistry() {
    Table table;
    for (const EntryRecord* record : RegistryMembers(kMaterialNodeSpacesRegistry)) {
        if (!IsSpaceClass(record)) continue;
        Result<Entry> made = MakeSpace(*record);
        if (made) {
            KELVO_TRY(table.InsertOrAssign(record->GetId(), std::move(made).Value()));
            continue;
        }
        KELVO_TRY(LeftOut(*record, made.GetError()));
    }
    return table;
}

Result<void> NodeSpaceHelpersImpl::Adopt(const EntryRecord& record, Entry made) {
    std::lock_guard lock(_lock);
    if (!_isActive) return Inactive();
    // Another thread may have made the same space meanwhile: the first one stays, and
    // `made` is released after the lock.
    if (_table.Contains(record.GetId())) return OK();
    KELVO_TRY(_table.InsertOrAssign(record.GetId(), std::move(made)));
    return OK();
}

Result<void> NodeSpaceHelpersImpl::Init() {
    KELVO_ASSIGN_OR_RETURN(Table table, BuildFromRegistry());
    std::lock_guard lock(_lock);
    _table.Swap(table);  // the earlier spaces go with `table`, after the lock
    _isActive = true;
    return OK();
}

void NodeSpaceHelpersImpl::Free() {
    Table dropped;
    std::lock_guard lock(_lock);
    _isActive = false;
    _table.Swap(dropped);
}

Result<void> NodeSpaceHelpersImpl::AddNodeSpace(StrongRef<NodeSpaceInterface> space) {
    if (!space) return IllegalArgumentError(KELVO_HERE, "Invalid node space.");
    const Id id = space->GetId();
    if (id.IsEmpty()) return IllegalArgumentError(KELVO_HERE, "Node space is not initialised.");
    Entry replaced;  // released after the lock
    std::lock_guard lock(_lock);
    if (!_isActive) return Inactive();
    if (Entry* existing = _table.Find(id)) {
        replaced = std::exchange(*existing, Entry{std::move(space), nullptr});
        return OK();
    }
    KELVO_TRY(_table.InsertOrAssign(id, Entry{std::move(space)}));
    return OK();
}

Result<StrongRef<NodeSpaceInterface>> NodeSpaceHelpersImpl::FindNodeSpace(const Id& spaceId) {
    {
        std::lock_guard lock(_lock);
        if (!_isActive) return Inactive().GetError();
        if (const Entry* entry = _table.Find(spaceId)) return entry->space;
    }
    // A space of a module loaded after the table was filled is made on first demand.
    const EntryRecord* record = FindEntry(spaceId);
    if (!IsSpaceClass(record))
        return IllegalArgumentError(KELVO_HERE, "Node space @ not found.", spaceId);
    KELVO_ASSIGN_OR_RETURN(Entry made, MakeSpace(*record));
    KELVO_TRY(Adopt(*record, std::move(made)));
    std::lock_guard lock(_lock);
    if (!_isActive) return Inactive().GetError();
    if (const Entry* entry = _table.Find(spaceId)) return entry->space;
    return IllegalArgumentError(KELVO_HERE, "Node space @ not found.", spaceId);
}

Result<std::vector<Id, Allocator<Id>>> NodeSpaceHelpersImpl::GetNodeSpaceIds() {
    // Spaces of modules loaded since the table was filled join it first.
    for (const EntryRecord* record : RegistryMembers(kMaterialNodeSpacesRegistry)) {
        if (!IsSpaceClass(record)) continue;
        {
            std::lock_guard lock(_lock);
            if (!_isActive) return Inactive().GetError();
            if (_table.Contains(record->GetId())) continue;
        }
        Result<Entry> made = MakeSpace(*record);
        if (made)
            KELVO_TRY(Adopt(*record, std::move(made).Value()));
        else
            KELVO_TRY(LeftOut(*record, made.GetError()));
    }
    std::lock_guard lock(_lock);
    if (!_isActive) return Inactive().GetError();
    return CatchOutOfMemory([&]() -> Result<std::vector<Id, Allocator<Id>>> {
        std::vector<Id, Allocator<Id>> ids;
        ids.reserve(_table.Size());
        _table.ForEach([&](const Id& id, const Entry&) { ids.push_back(id); });
        return ids;
    });
}

void NodeSpaceHelpersImpl::DropSpacesOf(const KelvoModuleInfo& module) {
    auto fromModule = [&](const EntryRecord* record) {
        for (const EntryRecord* e = module.firstEntry; record && e; e = e->next)
            if (e == record) return true;
        return false;
    };
    // Ids to drop are few; collected without allocating by erasing one per walk.
    for (;;) {
        Entry dropped;  // released after the lock: its code is still loaded
        std::lock_guard lock(_lock);
        Id found;
        _table.ForEach([&](const Id& id, const Entry& entry) {
            if (found.IsEmpty() && fromModule(entry.record)) found = id;
        });
        if (found.IsEmpty()) return;
        _table.Take(found, dropped);
    }
}

StrongRef<NodeSpaceHelpersImpl> NodeSpaceHelpersImpl::ProcessWide() {
    std::lock_guard lock(g_helpersLock);
    return g_helpers;
}

Result<void> NodeSpaceHelpersImpl::Start() {
    KELVO_ASSIGN_OR_RETURN(StrongRef<NodeSpaceHelpersImpl> helpers,
                           NewObject<NodeSpaceHelpersImpl>());
    KELVO_TRY(helpers->Init());
    std::lock_guard lock(g_helpersLock);
    std::swap(g_helpers, helpers);  // an earlier instance goes with `helpers`
    return OK();
}

void NodeSpaceHelpersImpl::Stop() {
    StrongRef<NodeSpaceHelpersImpl> stopped;
    {
        std::lock_guard lock(g_helpersLock);
        stopped = std::move(g_helpers);
    }
    // Holders of the helpers find them inactive from now on.
    if (stopped) stopped->Free();
}

// --- NodeSpaceSet ------------------------------------------------------------------------------

Result<void> NodeSpaceSet::DescribeIO(DataDescriber& io) {
    (void)io;
    return UnexpectedError(KELVO_HERE, "Can't serialize node spaces.");
}

namespace {

Result<StrongRef<Object>> CreateHelpers() {
    if (StrongRef<NodeSpaceHelpersImpl> helpers = NodeSpaceHelpersImpl::ProcessWide())
        return StrongRef<Object>(std::move(helpers));
    // Outside the module's run the helpers are inactive and say so when used.
    return CreateInstance<NodeSpaceHelpersImpl>();
}

void HelpersModuleUnloading(const KelvoModuleInfo& module) {
    if (StrongRef<NodeSpaceHelpersImpl> helpers = NodeSpaceHelpersImpl::ProcessWide())
        helpers->DropSpacesOf(module);
}
const ModuleLifecycle kHelpersLifecycle{&NodeSpaceHelpersImpl::Start, &NodeSpaceHelpersImpl::Stop,
                                        &HelpersModuleUnloading};

// The set's copy allocates through the framework allocator: a failed copy leaves the
// target empty instead of throwing out of the data type's table.
const DataType kNodeSpaceSetType{
    kNodeSpacesDataType, DATATYPEFLAGS_NONE,
    DataTypeOps{
        sizeof(NodeSpaceSet),
        alignof(NodeSpaceSet),
        [](void* at) { new (at) NodeSpaceSet(); },
        [](void* at) { static_cast<NodeSpaceSet*>(at)->~NodeSpaceSet(); },
        [](void* at, const void* from) {
            auto& target = static_cast<NodeSpaceSet*>(at)->spaces;
            try {
                target = static_cast<const NodeSpaceSet*>(from)->spaces;
            } catch (const std::bad_alloc&) {
                target.clear();
            }
        },
        [](const void* a, const void* b) {
            return *static_cast<const NodeSpaceSet*>(a) == *static_cast<const NodeSpaceSet*>(b);
        },
        [](const void* value) {
            uint64_t h = detail::HashText({});
            for (const auto& space : static_cast<const NodeSpaceSet*>(value)->spaces)
                h = (h ^ uint64_t(reinterpret_cast<uintptr_t>(space.get()))) * 1099511628211ull;
            return h;
        },
    }};

constexpr Id kDataTypes("net.kelvo.registry.datatypes");

KELVO_REGISTER_CLASS(s_baseClass, "net.kelvo.class.nodespace.base", Id(),
                     NodeSpaceInterface::InterfaceId(), NodeSpaceBaseClass);
KELVO_REGISTER_CLASS(s_exchangeDefault, "net.kelvo.nodes.class.materialexchange.default", Id(),
                     MaterialExchangeInterface::InterfaceId(), MaterialExchangeDefault);
KELVO_ENTRY(s_helpersComponent, ENTRYKIND::COMPONENT, "NodeSpaceHelpersImpl", Id(),
            NodeSpaceHelpersInterface::InterfaceId(), nullptr, &CreateHelpers);
KELVO_ENTRY(s_nodeSpacesType, ENTRYKIND::DATATYPE, "net.kelvo.nodes.datatype.nodespaces",
            kDataTypes, Id(), &kNodeSpaceSetType, nullptr);
KELVO_REGISTER_LIFECYCLE(s_helpersLifecycle, "net.kelvo.render.lifecycle.nodespacehelpers",
                         kHelpersLifecycle);

}  // namespace
}  // namespace kelvo::nodes
