#include "cloth_weave_pattern_impl.h"

#include "kelvo/entry.h"

namespace kelvo::legacy {

size_t ClothWeavePatternImpl::PatternCount() const { return StandardWeavePatterns().size(); }

std::string_view ClothWeavePatternImpl::PatternName(size_t index) const {
    auto all = StandardWeavePatterns();
    return index < all.size() ? all[index].name : std::string_view();
}

Result<void> ClothWeavePatternImpl::SetPattern(std::string_view name, const Vec2& repeat) {
    const WeavePattern* pattern = FindWeavePattern(name);
    if (!pattern) return IllegalArgumentError(KELVO_HERE, "Unknown weave pattern '@'.", name);
    Vec2 r{repeat.x > 0.0 && std::isfinite(repeat.x) ? repeat.x : 1.0,
           repeat.y > 0.0 && std::isfinite(repeat.y) ? repeat.y : 1.0};
    // E depends on the pattern and, through jitter and intensity variation, the repeats.
    if (pattern == _pattern && r == _repeat) return OK();
    _pattern = pattern;
    _repeat = r;
    _normalisation = cloth::Normalisation(*pattern, r.x, r.y);
    return OK();
}

ClothYarnInfo ClothWeavePatternImpl::Locate(const Vec2& st) const {
    if (!_pattern) return {};
    cloth::YarnPoint p = cloth::Locate(*_pattern, st.x, st.y, _repeat.x, _repeat.y);
    if (p.segment < 0) return {};
    return {p.weft ? YARNTYPE_WEFT : YARNTYPE_WARP, p.segment, p.u, p.v};
}

namespace {
KELVO_REGISTER_COMPONENT(s_clothWeavePattern, "ClothWeavePatternImpl", ClothWeavePatternInterface,
                         ClothWeavePatternImpl);
}  // namespace

}  // namespace kelvo::legacy
