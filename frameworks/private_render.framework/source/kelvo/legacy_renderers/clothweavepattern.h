// Woven-cloth weave patterns: which yarn lies at a texture coordinate.
//
// A pattern is a grid of cells tiling the texture domain; each cell belongs to one yarn
// segment, a float of a warp thread (running along t) or a weft thread (along s). The
// cloth model (irawanbrdf) reads the same patterns; a caller that wants the two-colour
// look of a fabric picks its colour per yarn with Locate.
#pragma once

#include <cstdint>
#include <string_view>

#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo {

enum YARNTYPE : int32_t { YARNTYPE_NONE = -1, YARNTYPE_WARP = 0, YARNTYPE_WEFT = 1 };

struct ClothYarnInfo {
    YARNTYPE type = YARNTYPE_NONE;
    int32_t segment = -1;  // 0-based segment of the pattern
    double u = 0.0;        // inclination of the yarn's spine there, radians
    double v = 0.0;        // angle around the yarn's cross-section, radians
};

class ClothWeavePatternInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.clothweavepattern"); }

    // The built-in patterns: "denim", "shantung", "charmeuse", "twill", "gabardine",
    // "polyester" (the published sets of Irawan and Marschner).
    virtual size_t PatternCount() const = 0;
    virtual std::string_view PatternName(size_t index) const = 0;
    // Chooses the pattern and how many tiles cover [0, 1] of s and t (a repeat that is not
    // positive counts as 1). Fails with "Illegal argument: Unknown weave pattern '@'.".
    virtual Result<void> SetPattern(std::string_view name, const Vec2& repeat) = 0;
    // The yarn at texture coordinate (s, t); YARNTYPE_NONE before SetPattern.
    virtual ClothYarnInfo Locate(const Vec2& st) const = 0;
    // The normalisation of the specular term: the mean specular integrand over the pattern
    // and two cosine-distributed directions (fixed seed). 0 before SetPattern.
    virtual double Normalisation() const = 0;
};

}  // namespace kelvo
