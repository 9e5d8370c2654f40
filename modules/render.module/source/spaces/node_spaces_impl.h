// Node-space support: the base class every node space is derived from, the fallback
// material exchange, the process-wide table of node spaces (the helpers) and the value of
// the node-spaces data type.
#pragma once

#include <vector>

#include "kelvo/datadescription.h"
#include "kelvo/entry.h"
#include "kelvo/hashmap.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/spinlock.h"
#include "spaces/raii_observable.h"

namespace kelvo::nodes {

// Id equality as node spaces use it: the hash words first, then the characters from the
// last towards the first (ids of one family share long prefixes and differ at the end).
bool SameId(const Id& a, const Id& b);
struct SameIdEqual {
    bool operator()(const Id& a, const Id& b) const { return SameId(a, b); }
};

// The base of every node space (class net.kelvo.class.nodespace.base). A space of another
// module makes one with CreateClass, fills its own attributes into the description and
// hands it to Init here, which names the space and applies the material-exchange fallback.
class NodeSpaceBaseClass final : public Implements<NodeSpaceInterface> {
public:
    Result<void> Init(const Id& spaceId, StrongRef<DataDictionary> description) override;
    Id GetId() const override;
    StrongRef<const DataDictionary> GetDescription() const override;
    StrongRef<ObservableInterface> GetObservable() const override;

private:
    static Result<void> Describe(const Id& spaceId, DataDictionary& description);
    static Result<void> ApplyMaterialExchangeFallback(const Id& spaceId,
                                                      DataDictionary& description);

    mutable Spinlock _lock;  // guards the three members below
    Id _spaceId;
    StrongRef<DataDictionary> _description;
    RaiiObservable _observable;
};

// The exchange class of spaces that name none: it knows the viewport material bundle only
// and hands the material over as it is.
class MaterialExchangeDefault final : public Implements<MaterialExchangeInterface> {
public:
    Result<void> Convert(const Id& materialType, const DataDictionary& material,
                         DataDictionary& target) override;
};

// The module's table of node spaces. Every operation takes the spin lock first and fails
// while the helpers are inactive; spaces are made, initialised and released outside it.
class NodeSpaceHelpersImpl final : public Implements<NodeSpaceHelpersInterface> {
public:
    Result<void> Init() override;
    void Free() override;
    Result<void> AddNodeSpace(StrongRef<NodeSpaceInterface> space) override;
    Result<StrongRef<NodeSpaceInterface>> FindNodeSpace(const Id& spaceId) override;
    Result<std::vector<Id, Allocator<Id>>> GetNodeSpaceIds() override;

    // Drops the spaces made from classes of `module`, which is about to be unloaded.
    void DropSpacesOf(const KelvoModuleInfo& module);

    // The helpers the module started (an inactive one when none runs); every caller of the
    // helpers' component gets this object.
    static StrongRef<NodeSpaceHelpersImpl> ProcessWide();
    // Makes and initialises the process-wide helpers; Stop frees and lets go of them.
    static Result<void> Start();
    static void Stop();

private:
    struct Entry {
        StrongRef<NodeSpaceInterface> space;
        const EntryRecord* record = nullptr;  // the class it was made from, if any
    };
    using Table = HashMap<Id, Entry, IdHash, SameIdEqual>;

    static Result<void> Inactive();
    static bool IsSpaceClass(const EntryRecord* record);
    // A space made from its registry class and initialised with the class id.
    static Result<Entry> MakeSpace(const EntryRecord& record);
    // A warning for a space that failed to initialise; out of memory is returned instead.
    static Result<void> LeftOut(const EntryRecord& record, const Error& error);
    static Result<Table> BuildFromRegistry();
    // Stores a space made outside the lock unless one is there already.
    Result<void> Adopt(const EntryRecord& record, Entry made);

    Spinlock _lock;  // guards _isActive and _table
    bool _isActive = false;
    Table _table;
};

// The value of the data type net.kelvo.nodes.datatype.nodespaces: a set of node spaces.
// It is never written into a document: both directions of DescribeIO fail with
// "Can't serialize node spaces.".
class NodeSpaceSet final : public Implements<DescribeIOInterface> {
public:
    using Spaces =
        std::vector<StrongRef<NodeSpaceInterface>, Allocator<StrongRef<NodeSpaceInterface>>>;

    Result<void> DescribeIO(DataDescriber& io) override;
    bool operator==(const NodeSpaceSet& o) const { return spaces == o.spaces; }

    Spaces spaces;
};

}  // namespace kelvo::nodes
