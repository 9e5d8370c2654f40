// A look inside the legacy BSDF models and microfacet distributions: the fields an update
// derives (widths, exponents, normalisers, table offsets) by their member names, so that
// tools and tests can see what the parameters turned into. Queried from a model or a
// distribution object (Query<LegacyStateInterface>); models without derived fields list
// none.
#pragma once

#include <functional>
#include <string_view>

#include "kelvo/data.h"
#include "kelvo/object.h"

namespace kelvo {

// Receives one field: its member name and its value (bool, int64_t or double).
using LegacyStateVisitor = std::function<void(std::string_view name, const Data& value)>;

class LegacyStateInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.legacystate"); }
    // Calls `field` for every field in declaration order; a model that holds a distribution
    // lists the distribution's fields first, named "_dist." + member. A table pointer is
    // given as whether it is set. Reads only; safe on a never-updated object.
    virtual void VisitState(const LegacyStateVisitor& field) const = 0;
};

}  // namespace kelvo
