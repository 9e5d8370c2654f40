// Choice of the ray-polygon intersection engine.
#pragma once

#include "kelvo/entry.h"
#include "kelvo/intersector.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

class RenderGeneralInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.rendergeneral"); }

    // The intersection class a renderer should create its intersectors from: the one
    // named by the configuration variable g_polygonIntersection, or, when that is empty,
    // the first registered of the default engines. Never falls back from a named class.
    // Errors: "No default intersector found.", "Intersection class @ not found.", or the
    // id conversion's own error. Stateless; callable from any thread.
    virtual Result<const EntryRecord*> GetDefaultIntersector() const = 0;
};

}  // namespace kelvo
