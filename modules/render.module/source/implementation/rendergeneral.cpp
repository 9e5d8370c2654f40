// Chooses the intersection engine a renderer uses.
#include "kelvo/rendergeneral.h"

#include "kelvo/config.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {

// Tried in this order when g_polygonIntersection is empty. The single-precision Embree
// engine is deliberately left out: it is reached only by naming it.
constexpr Id kDefaultEngines[] = {kEmbreeIntersectionClass, kYmbIntersectionClass};

class RenderGeneralImpl final : public Implements<RenderGeneralInterface> {
public:
    Result<const EntryRecord*> GetDefaultIntersector() const override {
        // An undeclared variable reads like an empty one.
        Result<std::string> configured = ConfigGetString("g_polygonIntersection");
        if (!configured || configured->empty()) {
            for (const Id& id : kDefaultEngines)
                if (const EntryRecord* found = FindClass(id, kIntersectionClassKind)) return found;
            return UnexpectedError(KELVO_HERE, "No default intersector found.");
        }
        // A named engine that is missing is an error, not a silent change of engine.
        KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText(*configured));
        if (const EntryRecord* found = FindClass(id, kIntersectionClassKind)) return found;
        return UnexpectedError(KELVO_HERE, "Intersection class @ not found.", id);
    }
};

KELVO_REGISTER_COMPONENT(s_renderGeneral, "RenderGeneralImpl", RenderGeneralInterface,
                         RenderGeneralImpl);

}  // namespace
}  // namespace kelvo
