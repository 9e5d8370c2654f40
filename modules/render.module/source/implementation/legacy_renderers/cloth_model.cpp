// Irawan-Marschner woven cloth: geometry, integrands and normalisation.
#include "cloth_model.h"

#include <algorithm>
#include <cmath>

namespace kelvo::legacy::cloth {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDegree = kPi / 180.0;

uint64_t Mix(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}
// A number in (0, 1) hashed from two integers.
double HashUnit(int64_t a, int64_t b, uint64_t salt) {
    uint64_t h = Mix(Mix(uint64_t(a) ^ salt) ^ uint64_t(b));
    return (double(h >> 11) + 0.5) * 0x1p-53;
}
// Smooth one-dimensional gradient noise, values in about [-1, 1].
double GradientNoise(double x) {
    double i = std::floor(x), f = x - i;
    auto grad = [](double cell) {
        return 2.0 * HashUnit(int64_t(cell), 17, 0x6e6f697365ull) - 1.0;
    };
    double s = f * f * f * (f * (f * 6.0 - 15.0) + 10.0);
    return 2.0 * ((1.0 - s) * grad(i) * f + s * grad(i + 1.0) * (f - 1.0));
}

double SmoothStep(double x) {
    x = std::clamp(x, 0.0, 1.0);
    return x * x * (3.0 - 2.0 * x);
}

// Seeliger's law with albedo 1: shadowing and masking on the yarn surface.
double Seeliger(const Vec3& n, const Vec3& wi, const Vec3& wo) {
    double ci = std::max(0.0, Dot(n, wi)), co = std::max(0.0, Dot(n, wo));
    if (ci == 0.0 || co == 0.0) return 0.0;
    return ci * co / (ci + co) / (4.0 * kPi);
}

Vec3 SurfaceNormal(double u, double v) {
    return {std::sin(v), std::sin(u) * std::cos(v), std::cos(u) * std::cos(v)};
}

}  // namespace

double ScaledBesselI0(double x) {
    x = std::abs(x);
    if (x < 600.0) {
        // Power series: every term is positive, so it is exact to rounding in double.
        double q = x * x / 4.0, term = 1.0, sum = 1.0;
        for (int k = 1; k < 1000 && term > sum * 1e-17; ++k) {
            term *= q / (double(k) * double(k));
            sum += term;
        }
        return sum * std::exp(-x);
    }
    // Asymptotic series; its error is far below double precision from here on.
    double t = 1.0 / (8.0 * x);
    return (1.0 + t * (1.0 + t * 4.5 * (1.0 + t * 25.0 / 3.0))) / std::sqrt(2.0 * kPi * x);
}

double PhaseFunction(const Vec3& wi, const Vec3& wo, double alpha, double beta) {
    // -wi . wo is the cosine between the light's propagation and the view.
    double c = -Dot(wi, wo);
    return alpha + std::exp(beta * (c - 1.0)) / (2.0 * kPi * ScaledBesselI0(beta));
}

double SpineRadius(double u, double umax, double kappa, double width, double length) {
    double a = 0.5 * width;
    double c = 0.5 * length - a * std::sin(umax);
    if (!(c > 0.0) || !(kappa > -1.0) || !(umax > 0.0)) return 0.0;
    double rhat = 1.0 + kappa * (1.0 + 1.0 / std::tan(umax));
    if (rhat > 0.0) {
        double tm = std::atan(rhat * std::tan(umax));
        double b = c / std::sin(tm), aa = b / rhat;
        double tau = std::atan(rhat * std::tan(u));
        double ct = std::cos(tau), st = std::sin(tau);
        return std::pow(b * b * ct * ct + aa * aa * st * st, 1.5) / (aa * b);
    }
    if (rhat == 0.0) {
        double aa = c / (2.0 * std::tan(umax));
        double t = std::tan(u);
        return 2.0 * aa * std::pow(1.0 + t * t, 1.5);
    }
    double tm = -std::atanh(rhat * std::tan(umax));
    double b = c / std::sinh(tm), aa = b / rhat;
    double tau = -std::atanh(rhat * std::tan(u));
    double ch = std::cosh(tau), sh = std::sinh(tau);
    return -std::pow(b * b * ch * ch + aa * aa * sh * sh, 1.5) / (aa * b);
}

double Specular(const Yarn& yarn, const Scattering& sc, double x, double y, const Vec3& wi,
                const Vec3& wo) {
    const double umax = yarn.umax, w = yarn.width, l = yarn.length, hw = sc.highlightWidth;
    if (!(wi.z > 0.0) || !(wo.z > 0.0)) return 0.0;
    if (!(w * std::sin(umax) < l) || !(yarn.kappa > -1.0) || !(umax > 0.0) || !(hw > 0.0))
        return 0.0;
    Vec3 sum = wi + wo;
    double len = Length(sum);
    if (len == 0.0) return 0.0;
    Vec3 h = sum / len;
    const double a = 0.5 * w;
    const double u = 2.0 * umax * y / l, v = kPi * x / w;
    const double fc = PhaseFunction(wi, wo, sc.alpha, sc.beta);

    if (yarn.psi == 0.0) {
        // Filament: the fibre follows the spine, so the highlight sits at one inclination.
        if (!(sc.smoothing >= 0.0 && sc.smoothing < 1.0)) return 0.0;
        double us = std::atan(h.y / h.z);
        if (std::abs(us) >= umax) return 0.0;
        double ut = (1.0 - sc.smoothing) * umax;
        double rt = SpineRadius(std::min(std::abs(us), ut), ut, yarn.kappa, w, l);
        double hn = std::abs(h.y * std::sin(us) + h.z * std::cos(us));
        if (hn == 0.0) return 0.0;
        double g = a * (rt + a * std::cos(v)) / (len * hn);
        double sigma = sc.smoothing == 0.0
                           ? 1.0
                           : 1.0 - SmoothStep((std::abs(us) - ut) / (sc.smoothing * umax));
        double band = (1.0 - hw) * l / 2.0;
        double ys = std::clamp(l * us / (2.0 * umax), -band, band);
        if (!(std::abs(y - ys) < hw * l / 2.0)) return 0.0;
        return g * fc * Seeliger(SurfaceNormal(us, v), wi, wo) * sigma * kPi / hw;
    }

    // Staple: the twisted fibre meets the specular condition f . h = 0 at one v.
    double p = h.x, q = h.y * std::sin(u) + h.z * std::cos(u);
    double r = h.y * std::cos(u) - h.z * std::sin(u);
    double pq = std::sqrt(p * p + q * q);
    if (pq == 0.0) return 0.0;
    double dd = r / (std::tan(yarn.psi) * pq);
    if (!(std::abs(dd) < 1.0)) return 0.0;
    double vs = std::atan2(-q, p) + std::acos(dd);
    if (!(std::abs(vs) < kPi / 2)) return 0.0;
    Vec3 ns = SurfaceNormal(u, vs);
    double nh = Dot(ns, h);
    double att = Seeliger(ns, wi, wo);
    // Where the facet turns away from h, Seeliger's law is 0 already.
    if (att == 0.0 || nh <= 0.0) return 0.0;
    double g = a * (SpineRadius(std::abs(u), umax, yarn.kappa, w, l) + a * std::cos(vs)) /
               (len * nh * std::abs(std::sin(yarn.psi)));
    double band = (1.0 - hw) * w / 2.0;
    double xs = std::clamp(w * vs / kPi, -band, band);
    if (!(std::abs(x - xs) < hw * w / 2.0)) return 0.0;
    return g * fc * att * 2.0 * umax / hw;
}

YarnPoint Locate(const WeavePattern& pattern, double s, double t, double ru, double rv,
                 bool variation) {
    YarnPoint out;
    const int32_t wCells = pattern.columns, hCells = pattern.rows;
    double bigS = s * ru, bigT = (1.0 - t) * rv;  // T counts downward from the top edge
    double bigX = bigS * wCells, bigY = bigT * hCells;
    if (!std::isfinite(bigX) || !std::isfinite(bigY)) return out;
    auto wrap = [](double v, int32_t n) {
        int64_t i = int64_t(std::floor(v)) % n;
        return int32_t(i < 0 ? i + n : i);
    };
    int32_t col = wrap(bigX, wCells), row = wrap(bigY, hCells);
    int32_t k = int32_t(pattern.grid[size_t(row) * size_t(wCells) + size_t(col)]) - 1;
    if (k < 0 || size_t(k) >= pattern.segments.size()) return out;
    const YarnSegment& seg = pattern.segments[size_t(k)];
    double xc = std::floor(bigS) * wCells + seg.cu * wCells;
    double yc = std::floor(bigT) * hCells + (1.0 - seg.cv) * hCells;
    double x = bigX - xc, y = yc - bigY;
    if (seg.weft) {
        double x0 = x;
        x = -y;
        y = x0;
    }
    double umax = seg.umax * kDegree;
    if (variation && pattern.period > 0.0) {
        // One deterministic jitter per segment, hashed from its centre.
        double xi1 = HashUnit(int64_t(std::floor(xc)), int64_t(std::floor(yc)), 1);
        double xi2 = HashUnit(int64_t(std::floor(xc)), int64_t(std::floor(yc)), 2);
        double r1 = GradientNoise((xc * (hCells * rv + xi1) + yc) / pattern.period);
        double r2 = GradientNoise((yc * (wCells * ru + xi2) + xc) / pattern.period);
        double d1 = seg.weft ? pattern.jitterWeftWarp : pattern.jitterWarpWarp;
        double d2 = seg.weft ? pattern.jitterWeftWeft : pattern.jitterWarpWeft;
        umax += (r1 * d1 + r2 * d2) * kDegree;
    }
    out.segment = k;
    out.weft = seg.weft;
    out.yarn = {seg.psi * kDegree, umax, seg.kappa, seg.width, seg.length};
    out.x = x;
    out.y = y;
    out.u = 2.0 * umax * y / seg.length;
    out.v = kPi * x / seg.width;
    if (variation && pattern.fineness > 0.0) {
        double xi = HashUnit(int64_t(std::floor(bigX * pattern.fineness)),
                             int64_t(std::floor(bigY * pattern.fineness)), 3);
        out.intensity = std::min(-std::log(xi), 10.0);
    }
    double area = pattern.areaWarp + pattern.areaWeft;
    out.coverage = area / (seg.weft ? pattern.areaWeft : pattern.areaWarp);
    return out;
}

double WeightedSpecular(const WeavePattern& pattern, double s, double t, double ru, double rv,
                        const Vec3& wi, const Vec3& wo, bool variation) {
    YarnPoint p = Locate(pattern, s, t, ru, rv, variation);
    if (p.segment < 0) return 0.0;
    Scattering sc{pattern.alpha, pattern.beta, pattern.smoothing, pattern.highlightWidth};
    Vec3 i = p.weft ? ToWeftFrame(wi) : wi, o = p.weft ? ToWeftFrame(wo) : wo;
    return p.coverage * p.intensity * Specular(p.yarn, sc, p.x, p.y, i, o);
}

double Normalisation(const WeavePattern& pattern, double ru, double rv, int samples,
                     uint64_t seed) {
    uint64_t state = seed;
    auto next = [&] {
        state = Mix(state);
        return double(state >> 11) * 0x1p-53;
    };
    auto cosineDirection = [&] {
        double r = std::sqrt(next()), phi = 2.0 * kPi * next();
        return Vec3{r * std::cos(phi), r * std::sin(phi), std::sqrt(std::max(0.0, 1.0 - r * r))};
    };
    double sum = 0.0;
    for (int n = 0; n < samples; ++n) {
        double s = next(), t = next();
        Vec3 wi = cosineDirection(), wo = cosineDirection();
        sum += WeightedSpecular(pattern, s, t, ru, rv, wi, wo);
    }
    return samples > 0 ? sum / samples : 0.0;
}

}  // namespace kelvo::legacy::cloth
