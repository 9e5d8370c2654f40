// The woven-cloth reflection of Irawan and Marschner: the geometry of the weave, the
// specular integrands of filament and staple yarns, and their normalisation.
//
// (s, t) is the surface texture coordinate; (u, v) are the angles on a yarn segment: u the
// inclination of the spine, v the angle around the yarn's cross-section.
#pragma once

#include <cstdint>

#include "cloth_weave_patterns.h"
#include "kelvo/vec.h"

namespace kelvo::legacy::cloth {

// One yarn segment as the integrands use it: angles in radians, sizes in cells.
struct Yarn {
    double psi;
    double umax;
    double kappa;
    double width;
    double length;
};

// The pattern-wide scattering parameters.
struct Scattering {
    double alpha;
    double beta;
    double smoothing;
    double highlightWidth;
};

// Where a texture coordinate falls: the segment, the offsets from its centre in its own
// frame (yarn along +y) and the segment angles.
struct YarnPoint {
    int32_t segment = -1;  // 0-based index into the pattern's segments
    bool weft = false;
    Yarn yarn{};
    double x = 0.0, y = 0.0;  // offsets from the centre, across and along the yarn
    double u = 0.0, v = 0.0;
    double intensity = 1.0;  // the random highlight intensity (1 when off)
    double coverage = 1.0;   // q: (A_warp + A_weft) / A of the yarn's type
};

// The modified Bessel function I0 times exp(-x), finite for every x >= 0.
double ScaledBesselI0(double x);
// The phase function: uniform part plus the von Mises forward-scattering lobe.
double PhaseFunction(const Vec3& wi, const Vec3& wo, double alpha, double beta);
// Radius of curvature of the spine at inclination u; 0 when the segment is invalid.
double SpineRadius(double u, double umax, double kappa, double width, double length);

// The specular integrand S at offsets (x, y) of a segment in its own frame, with wi and wo
// already turned into that frame. 0 for invalid segments and directions at or below
// the surface.
double Specular(const Yarn& yarn, const Scattering& sc, double x, double y, const Vec3& wi,
                const Vec3& wo);

// Locates (s, t) in `pattern` tiled ru x rv times over [0, 1]^2, with the umax jitter
// and intensity variation the pattern asks for (both off when `variation` is false).
YarnPoint Locate(const WeavePattern& pattern, double s, double t, double ru, double rv,
                 bool variation = true);

// A direction turned into a weft segment's frame (a quarter turn about the normal).
inline Vec3 ToWeftFrame(const Vec3& w) { return {-w.y, w.x, w.z}; }

// q * nu * S at a texture coordinate: the specular part before kd, ks and 1/E.
double WeightedSpecular(const WeavePattern& pattern, double s, double t, double ru, double rv,
                        const Vec3& wi, const Vec3& wo, bool variation = true);

// E: the mean of q * nu * S over the texture domain and two cosine-distributed directions
// (fixed seed, `samples` samples), so that ks is the specular albedo under uniform light.
double Normalisation(const WeavePattern& pattern, double ru, double rv, int samples = 100000,
                     uint64_t seed = 0x5eed);

}  // namespace kelvo::legacy::cloth
