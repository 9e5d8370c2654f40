// The descriptions of the node-space attributes (module net.kelvo.nodespaces.module),
// published in net.kelvo.node.registry.attributes so that an editor can show and store them.
#pragma once

#include <span>

#include "kelvo/nodes/nodespace.h"

namespace kelvo::nodes {

// Every attribute of a node space's description, in the order a space lists them.
std::span<const NodeAttributeDescription> NodeSpaceAttributeDescriptions();

}  // namespace kelvo::nodes
