// One registry member per node-space attribute: its kind of value (category "data") and its
// display name (category "string", language "local").
#include "spaces/datadescription_node_spaces.h"

#include "kelvo/entry.h"

namespace kelvo::nodes {
namespace {

constexpr const char* kLocal = "local";

#define KELVO_NODESPACE_ATTRIBUTES(X)                                                            \
    X(SPACEID, "net.kelvo.nodes.nodespace.spaceid", "id", "Space Id")                            \
    X(SPACENAME, "net.kelvo.nodes.nodespace.spacename", "string", "Name")                        \
    X(RENDERERS, "net.kelvo.nodes.nodespace.renderers", "ids", "Renderers")                      \
    X(CREATEMATERIALGRAPHFUNC, "net.kelvo.nodes.nodespace.creatematerialgraphfunc", "function",  \
      "Create Material Graph")                                                                   \
    X(CONFIGUREPREVIEWIMAGEREQUESTFUNC,                                                          \
      "net.kelvo.nodes.nodespace.configurepreviewimagerequestfunc", "function",                  \
      "Configure Preview Image Request")                                                         \
    X(MATERIALENDNODEIDS, "net.kelvo.nodes.nodespace.materialendnodeids", "ids",                 \
      "Material End Nodes")                                                                      \
    X(MATERIALPREVIEWIDS, "net.kelvo.nodes.nodespace.materialpreviewids", "ids",                 \
      "Material Previews")                                                                       \
    X(NODESYSTEMCLASS, "net.kelvo.nodes.nodespace.nodesystemclass", "id", "Node System")         \
    X(MATERIALEXCHANGEBUNDLEIDS, "net.kelvo.nodes.nodespace.materialexchangebundleids", "ids",   \
      "Material Exchange Bundles")                                                               \
    X(MATERIALEXCHANGECLASS, "net.kelvo.nodes.nodespace.materialexchangeclass", "id",            \
      "Material Exchange")                                                                       \
    X(IMAGENODEASSETID, "net.kelvo.nodes.nodespace.imagenodeassetid", "id", "Image Node Asset")  \
    X(IMAGENODEPORTIDS, "net.kelvo.nodes.nodespace.imagenodeportids", "ids", "Image Node Ports") \
    X(LAYERSETURL, "net.kelvo.nodes.nodespace.layerseturl", "url", "Layer Set")                  \
    X(MATERIALMESSAGEHANDLERFUNC, "net.kelvo.nodes.nodespace.materialmessagehandlerfunc",        \
      "function", "Material Message Handler")                                                    \
    X(STARTNODEPATH, "net.kelvo.nodes.nodespace.startnodepath", "path", "Start Node")            \
    X(SOLONODEPATH, "net.kelvo.nodes.nodespace.solonodepath", "path", "Solo Node")               \
    X(DOCUMENTPATH, "net.kelvo.nodes.nodespace.documentpath", "path", "Document")                \
    X(NODESPACECONTEXT, "net.kelvo.nodes.nodespace.nodespacecontext", "object", "Context")

#define KELVO_DESCRIBE(name, id, type, label) \
    {kNodeSpacesDescriptionModule, NODESPACE::name, type, label, kLocal},
constexpr NodeAttributeDescription kDescriptions[] = {KELVO_NODESPACE_ATTRIBUTES(KELVO_DESCRIBE)};
#undef KELVO_DESCRIBE

// The registry member's id is the attribute id, spelled out so that the entry macro sees
// a literal.
#define KELVO_PUBLISH(name, id, type, label)                                    \
    KELVO_ENTRY(KELVO_CONCAT(s_describe_, name), ENTRYKIND::REGISTRYMEMBER, id, \
                kNodeAttributesRegistry, Id(), &kDescriptions[size_t(Index::name)], nullptr);
#define KELVO_INDEX(name, id, type, label) name,
enum class Index : size_t { KELVO_NODESPACE_ATTRIBUTES(KELVO_INDEX) };
#undef KELVO_INDEX
KELVO_NODESPACE_ATTRIBUTES(KELVO_PUBLISH)
#undef KELVO_PUBLISH

}  // namespace

std::span<const NodeAttributeDescription> NodeSpaceAttributeDescriptions() { return kDescriptions; }

}  // namespace kelvo::nodes
