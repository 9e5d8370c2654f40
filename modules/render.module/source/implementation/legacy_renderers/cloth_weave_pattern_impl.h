// The weave pattern component, also embedded in the cloth model.
#pragma once

#include "cloth_model.h"
#include "kelvo/legacy_renderers/clothweavepattern.h"

namespace kelvo::legacy {

class ClothWeavePatternImpl : public Implements<ClothWeavePatternInterface> {
public:
    size_t PatternCount() const override;
    std::string_view PatternName(size_t index) const override;
    Result<void> SetPattern(std::string_view name, const Vec2& repeat) override;
    ClothYarnInfo Locate(const Vec2& st) const override;
    double Normalisation() const override { return _normalisation; }

    void Clear() {
        _pattern = nullptr;
        _normalisation = 0.0;
    }
    const WeavePattern* Pattern() const { return _pattern; }
    const Vec2& Repeat() const { return _repeat; }

private:
    const WeavePattern* _pattern = nullptr;
    Vec2 _repeat{1.0, 1.0};
    double _normalisation = 0.0;
};

}  // namespace kelvo::legacy
