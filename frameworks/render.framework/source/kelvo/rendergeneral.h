// Choice of the ray-polygon intersection engine.
#pragma once

#include "kelvo/entry.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

// Registry of the intersection engines, provided by other modules.
inline constexpr Id kIntersectionClassesRegistry("net.kelvo.render.registry.intersectionclasses");
// The kind of class that intersection engines are; an entry of any other kind is no engine.
inline constexpr Id kIntersectionClassKind("net.kelvo.render.interface.intersection");

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
