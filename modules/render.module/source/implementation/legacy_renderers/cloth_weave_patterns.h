// The standard woven-cloth patterns of the Irawan-Marschner model, as data.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace kelvo::legacy {

// One float of one thread between two interlacings. Angles in degrees, sizes in cells,
// the centre in tile units from the lower-left corner of the tile.
struct YarnSegment {
    bool weft;     // runs along s (the rows); warp runs along t (the columns)
    double psi;    // fibre twist; 0 is a filament yarn
    double umax;   // inclination of the spine at the segment's ends
    double kappa;  // spine shape: 0 circular arc
    double width;
    double length;
    double cu, cv;
};

struct WeavePattern {
    std::string_view name;
    int32_t columns, rows;  // W, H
    double alpha;           // uniform scattering
    double beta;            // forward scattering concentration
    double smoothing;       // ss: filament highlight fade-out, 0 <= ss < 1
    double highlightWidth;  // hw
    double areaWarp, areaWeft;
    double fineness;  // sub-cells per cell for intensity variation; 0 off
    double jitterWarpWarp, jitterWarpWeft, jitterWeftWarp, jitterWeftWeft;  // degrees
    double period;  // cells; 0 turns the jitter off
    std::span<const YarnSegment> segments;
    std::span<const uint8_t> grid;  // rows x columns, row 0 the t = 1 edge; 1-based indices
};

// The six published sets: denim, shantung, charmeuse, twill, gabardine, polyester.
std::span<const WeavePattern> StandardWeavePatterns();
const WeavePattern* FindWeavePattern(std::string_view name);

}  // namespace kelvo::legacy
