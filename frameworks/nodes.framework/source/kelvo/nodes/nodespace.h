// Node spaces: the description of one family of node materials (its node system, material
// end nodes, renderers, material exchange and preview images), and the services around it.
//
// Node spaces are classes of the registry net.kelvo.nodes.registry.materialnodespaces
// (kind NodeSpaceInterface). A module publishes one by registering a class whose Init fills
// the space's own attributes into the description and hands it on to an instance of the
// base class net.kelvo.class.nodespace.base (made with CreateClass), which applies the
// defaults every space shares. Whoever creates a space calls Init once, with the id it is
// registered under; afterwards the description is only read, from any thread.
#pragma once

#include <vector>

#include "kelvo/data.h"
#include "kelvo/id.h"
#include "kelvo/object.h"
#include "kelvo/observable.h"
#include "kelvo/registry.h"
#include "kelvo/result.h"

namespace kelvo::nodes {

inline constexpr Id kMaterialNodeSpacesRegistry("net.kelvo.nodes.registry.materialnodespaces");
inline constexpr Id kNodeSpaceBaseClass("net.kelvo.class.nodespace.base");
inline constexpr Id kMaterialExchangeDefaultClass("net.kelvo.nodes.class.materialexchange.default");
// The exchange bundle every space supports through the fallback exchange class.
inline constexpr Id kViewportMaterialBundle("net.kelvo.nodespace.exchange.bundle.viewportmaterial");
// The data type that carries a set of node spaces; it cannot be serialised.
inline constexpr Id kNodeSpacesDataType("net.kelvo.nodes.datatype.nodespaces");
// The module whose data descriptions describe the attributes below.
inline constexpr Id kNodeSpacesDescriptionModule("net.kelvo.nodespaces.module");
// The registry of node attribute descriptions; each member's payload is a
// NodeAttributeDescription and its id is the attribute id.
inline constexpr Id kNodeAttributesRegistry("net.kelvo.node.registry.attributes");

// How the host shows and stores one attribute: the description module it belongs to, the
// kind of value it holds (category "data") and its display name (category "string", in
// the language `language`, "local" for the application's own).
struct NodeAttributeDescription {
    Id module;
    Id attribute;
    const char* dataType;  // "id", "string", "object", "ids", "url", "path" or "function"
    const char* name;
    const char* language;
};

// Attribute ids of a node space's description (values as noted).
namespace NODESPACE {
inline constexpr Id SPACEID("net.kelvo.nodes.nodespace.spaceid");      // Id, set by Init
inline constexpr Id SPACENAME("net.kelvo.nodes.nodespace.spacename");  // string
inline constexpr Id RENDERERS("net.kelvo.nodes.nodespace.renderers");  // object or ids
inline constexpr Id CREATEMATERIALGRAPHFUNC("net.kelvo.nodes.nodespace.creatematerialgraphfunc");
// Object implementing ConfigurePreviewImageRequestInterface (kelvo/nodes/previewimage.h).
inline constexpr Id CONFIGUREPREVIEWIMAGEREQUESTFUNC(
    "net.kelvo.nodes.nodespace.configurepreviewimagerequestfunc");
inline constexpr Id MATERIALENDNODEIDS("net.kelvo.nodes.nodespace.materialendnodeids");
inline constexpr Id MATERIALPREVIEWIDS("net.kelvo.nodes.nodespace.materialpreviewids");
inline constexpr Id NODESYSTEMCLASS("net.kelvo.nodes.nodespace.nodesystemclass");
// IdArray object (below): the exchange bundles the space's exchange class supports.
inline constexpr Id MATERIALEXCHANGEBUNDLEIDS(
    "net.kelvo.nodes.nodespace.materialexchangebundleids");
// Id of a class implementing MaterialExchangeInterface.
inline constexpr Id MATERIALEXCHANGECLASS("net.kelvo.nodes.nodespace.materialexchangeclass");
inline constexpr Id IMAGENODEASSETID("net.kelvo.nodes.nodespace.imagenodeassetid");
inline constexpr Id IMAGENODEPORTIDS("net.kelvo.nodes.nodespace.imagenodeportids");
inline constexpr Id LAYERSETURL("net.kelvo.nodes.nodespace.layerseturl");
inline constexpr Id MATERIALMESSAGEHANDLERFUNC(
    "net.kelvo.nodes.nodespace.materialmessagehandlerfunc");
inline constexpr Id STARTNODEPATH("net.kelvo.nodes.nodespace.startnodepath");
inline constexpr Id SOLONODEPATH("net.kelvo.nodes.nodespace.solonodepath");
inline constexpr Id DOCUMENTPATH("net.kelvo.nodes.nodespace.documentpath");
inline constexpr Id NODESPACECONTEXT("net.kelvo.nodes.nodespace.nodespacecontext");
}  // namespace NODESPACE

// An array of ids as a dictionary value (a Data holds it as an object).
class IdArrayInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.nodes.interface.idarray"); }
    virtual const std::vector<Id, Allocator<Id>>& GetIds() const = 0;
};

// The ids of an IdArrayInterface value under key; empty when absent or of another type.
inline std::vector<Id, Allocator<Id>> GetIdArray(const DataDictionary& data, const Id& key) {
    const Data* d = data.Find(key);
    const StrongRef<Object>* o = d ? d->Get<StrongRef<Object>>() : nullptr;
    StrongRef<IdArrayInterface> array = o ? Query<IdArrayInterface>(*o) : nullptr;
    return array ? array->GetIds() : std::vector<Id, Allocator<Id>>();
}

// A value array of ids, header-only so that every module can make one.
class IdArrayImpl final : public Implements<IdArrayInterface> {
public:
    // An array holding ids, with room reserved for `capacity` entries.
    static Result<StrongRef<IdArrayImpl>> Create(std::vector<Id, Allocator<Id>> ids = {},
                                                 size_t capacity = 0) {
        KELVO_ASSIGN_OR_RETURN(StrongRef<IdArrayImpl> made, NewObject<IdArrayImpl>());
        KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
            made->_ids = std::move(ids);
            made->_ids.reserve(capacity);
            return OK();
        }));
        return made;
    }
    const std::vector<Id, Allocator<Id>>& GetIds() const override { return _ids; }

private:
    std::vector<Id, Allocator<Id>> _ids;
};

class NodeSpaceInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.nodes.interface.nodespace"); }

    // Initialises the space once: takes a reference to description (releasing an earlier
    // one), stores spaceId under NODESPACE::SPACEID, names the space after its id when it
    // has no name, and applies the material-exchange fallback of the base class. Returns
    // the first error met; attributes stored before it stay stored.
    virtual Result<void> Init(const Id& spaceId, StrongRef<DataDictionary> description) = 0;
    // The id given to Init (empty before).
    virtual Id GetId() const = 0;
    // The description; nullptr before Init.
    virtual StrongRef<const DataDictionary> GetDescription() const = 0;
    // The space's observable, made by Init; nullptr before.
    virtual StrongRef<ObservableInterface> GetObservable() const = 0;
};

// Converts materials of a space for exchange with other spaces, by exchange bundle.
class MaterialExchangeInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.nodes.interface.materialexchange"); }

    // Converts `material` into the form of the bundle `materialType` into `target`. Fails
    // for a bundle the class does not support (the default class: every bundle but the
    // viewport material, with "Illegal argument: Condition materialType ==
    // viewportMaterialId not fulfilled.").
    virtual Result<void> Convert(const Id& materialType, const DataDictionary& material,
                                 DataDictionary& target) = 0;
};

// The host's table of node spaces by id. Usable between Init and Free; any use outside
// fails with "Illegal state: Condition _isActive == true not fulfilled.". Thread safe.
class NodeSpaceHelpersInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.nodes.interface.nodespacehelpers"); }

    // Activates the helpers and fills the table from the classes of the node-space
    // registry (each created and initialised with its registry id). A space that fails to
    // initialise is left out with a warning naming it. Calling Init again refills.
    virtual Result<void> Init() = 0;
    // Empties the table and deactivates the helpers; later uses fail.
    virtual void Free() = 0;
    // Adds (or replaces) an initialised space under its id.
    virtual Result<void> AddNodeSpace(StrongRef<NodeSpaceInterface> space) = 0;
    // The space under spaceId. Fails with "Illegal argument: Node space @ not found." for
    // an unknown id.
    virtual Result<StrongRef<NodeSpaceInterface>> FindNodeSpace(const Id& spaceId) = 0;
    // The ids of every space in the table, in no particular order.
    virtual Result<std::vector<Id, Allocator<Id>>> GetNodeSpaceIds() = 0;
};

// Whether a module has registered a node space under spaceId (a class of
// kMaterialNodeSpacesRegistry): an answer by id, without creating the space.
inline bool IsNodeSpaceRegistered(const Id& spaceId) {
    const EntryRecord* e = FindEntry(spaceId);
    return e && e->kind == ENTRYKIND::CLASS && e->registry == kMaterialNodeSpacesRegistry;
}

}  // namespace kelvo::nodes
