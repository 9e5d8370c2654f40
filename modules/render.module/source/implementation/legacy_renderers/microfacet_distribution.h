// The five half-vector distributions of the glossy legacy models.
//
// Each is a small value object owned by one BxDF: Update turns the material's roughness
// into the distribution's parameters (cheaply skipped when nothing changed), then D, G and
// Sample answer per shading sample. Beckmann, GGX and Ward can read and fill a shared
// table (distribution_table.h) instead of evaluating exp, pow and atan; with a null table
// or for c >= 0.999 they use the closed formulas. c is always h.z.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "distribution_table.h"
#include "kelvo/data.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/legacy_renderers/legacystate.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo::legacy {

inline constexpr double kSqrtLn2 = 0.8325546111576977;
inline constexpr double kLn2 = 0.6931471805599453;

// tan^2 of the angle whose cosine is c; 0 where the sine vanishes.
inline double TanSquared(double c) {
    double s2 = 1.0 - c * c;
    return s2 <= 0.0 ? 0.0 : s2 / (c * c);
}
// |tan| of the angle of v against the normal; 0 where the sine vanishes.
inline double AbsTan(double z) {
    double s2 = 1.0 - z * z;
    return s2 <= 0.0 ? 0.0 : std::abs(std::sqrt(s2) / z);
}
// A double of the record; a NaN reads like a missing value, so that no NaN reaches a
// table level or an exponent.
inline double ReadFinite(const DataDictionary& data, const Id& key) {
    double v = data.Get<double>(key, 0.0);
    return std::isnan(v) ? 0.0 : v;
}
inline double ReadRoughness(const DataDictionary& data) {
    return ReadFinite(data, bsdfdata::kRoughness);
}
// u' of the sampling formulas: held below 1 so that log(1 - u') stays finite (and at 0 or
// above, so that a bad sampler value cannot make a NaN).
inline double ClampSampleU(double u) { return std::clamp(u, 0.0, 0.99999); }

// The V-cavity shadowing term of Ward and the anisotropic kind, without a sign test.
inline double VCavityG(const Vec3& first, const Vec3& second, const Vec3& h) {
    double fh = Dot(first, h), sh = Dot(second, h);
    if (fh == 0.0 || sh == 0.0) return 1.0;
    double hz = std::abs(h.z);
    return std::min({1.0, 2.0 * hz * std::abs(first.z) / std::abs(fh),
                     2.0 * hz * std::abs(second.z) / std::abs(sh)});
}

// Beckmann, GGX, Phong and Ward: one roughness, isotropic.
template <DISTRIBUTIONKIND KIND>
class IsotropicDistribution {
public:
    static constexpr bool kTabulated = KIND != DISTRIBUTIONKIND_PHONG;

    float* _table = nullptr;
    double _roughness = 0.0;
    double _lobeCosine = 0.0;
    int64_t _dOffset = -1;
    int64_t _sOffset = -1;
    double _cubedRoughness = -1.0;  // -1 makes the first update compute
    double _alpha = 0.0;            // the width; the exponent e for Phong
    double _alphaSquared = 0.0;

    // The fields by member name, in declaration order (LegacyStateInterface).
    void Visit(const LegacyStateVisitor& field) const {
        field("_table", _table != nullptr);
        field("_roughness", _roughness);
        field("_lobeCosine", _lobeCosine);
        field("_dOffset", _dOffset);
        field("_sOffset", _sOffset);
        field("_cubedRoughness", _cubedRoughness);
        field("_alpha", _alpha);
        field("_alphaSquared", _alphaSquared);
    }

    static constexpr Id TableKey() {
        return KIND == DISTRIBUTIONKIND_BECKMANN ? bsdfdata::kBeckmannTable
               : KIND == DISTRIBUTIONKIND_GGX    ? bsdfdata::kGgxTable
                                                 : bsdfdata::kWardTable;
    }

    Result<void> Update(const DataDictionary& data) {
        if constexpr (kTabulated) _table = bsdfdata::GetTable(data, TableKey());
        _roughness = ReadRoughness(data);
        // Roughness 0 would make the exponent infinite (a mirror the sampler cannot hit).
        double r = std::clamp(_roughness, 0.001, 1.0);
        double a = r * r * r;
        if (a == _cubedRoughness) return OK();
        _cubedRoughness = a;
        if constexpr (KIND == DISTRIBUTIONKIND_PHONG) {
            // alpha^2 = 2 / (e + 2) ties this exponent to the widths of the other kinds.
            // Above 0 for roughness 1 and finite for the smallest; pow() stays well defined.
            double e = std::clamp(4.0 * (1.0 - a) / a, 1e-6, 100000.0);
            _alpha = e;
            _lobeCosine = std::pow(0.5, 1.0 / (e + 1.0));
        } else {
            // Kept above 0: D divides by alpha squared.
            double alpha = std::clamp(std::sqrt(2.0 / (4.0 * (1.0 - a) / a + 2.0)), 1e-7, 1.0);
            _alpha = alpha;
            _alphaSquared = alpha * alpha;
            if constexpr (KIND == DISTRIBUTIONKIND_BECKMANN) {
                double w = alpha * kSqrtLn2;
                _lobeCosine = 1.0 / std::sqrt(w * w + 1.0);
            } else if constexpr (KIND == DISTRIBUTIONKIND_GGX) {
                _lobeCosine = 1.0 / std::sqrt(_alphaSquared + 1.0);
            } else {
                // The minus (Beckmann has a plus) is the legacy value and exceeds 1; kept.
                _lobeCosine = 1.0 / std::sqrt(1.0 - _alphaSquared * kLn2);
            }
            // The raw roughness, not a, picks the level: materials within 1/400 of roughness
            // share a level and its entries, a deliberate trade of accuracy for speed.
            int64_t level = static_cast<int64_t>(std::clamp(_roughness, 0.0, 1.0) * 400.0);
            _dOffset = level * kDistributionDBlockFloats;
            _sOffset = level * kDistributionSamplingBlockFloats;
        }
        return OK();
    }

    // The closed-form density at cosine c, and the half-vector sampling density.
    double ExactD(double c, double& samplingDensity) const {
        samplingDensity = 0.0;
        if (!(c >= 1e-16)) return 0.0;
        // A fresh (or reset) distribution has no width yet: no lobe rather than 0 / 0.
        if (KIND != DISTRIBUTIONKIND_PHONG && !(_alphaSquared > 0.0)) return 0.0;
        double d;
        if constexpr (KIND == DISTRIBUTIONKIND_BECKMANN) {
            double c2 = c * c;
            d = std::exp(-TanSquared(c) / _alphaSquared) / (kPi * _alphaSquared * c2 * c2);
        } else if constexpr (KIND == DISTRIBUTIONKIND_GGX) {
            double k = _alpha / (c * c * (TanSquared(c) + _alphaSquared));
            d = kInvPi * k * k;
        } else if constexpr (KIND == DISTRIBUTIONKIND_WARD) {
            d = std::exp(-TanSquared(c) / _alphaSquared) / (kPi * _alphaSquared * c * c * c);
        } else {
            double p = std::pow(std::abs(c), _alpha);
            samplingDensity = (_alpha + 1.0) * p * kInvTwoPi;
            return (_alpha + 2.0) * p * kInvTwoPi;
        }
        samplingDensity = d;
        return d;
    }

    // D(h) and its sampling density; from the table when one is set, useTable is asked for
    // and c < 0.999 (the tip of the lobe always uses the formula).
    [[gnu::always_inline]] double D(const Vec3& h, bool useTable, double& samplingDensity) const {
        double c = h.z;
        if constexpr (kTabulated) {
            if (_table && useTable && c < 0.999) {
                samplingDensity = 0.0;
                if (!(c >= 1e-16)) return 0.0;
                DensityCells cells = FindDensityCells(c);
                float vi = LoadEntry(_table, _dOffset + cells.i);
                float vj = LoadEntry(_table, _dOffset + cells.j);
                if (std::min(vi, vj) < -0.5f) [[unlikely]] {
                    CellPair filled = FillDensityCells(cells.i, cells.j);
                    vi = filled.vi;
                    vj = filled.vj;
                }
                double d = Lerp(vi, vj, cells.t);
                samplingDensity = d;
                return d;
            }
        }
        return ExactD(c, samplingDensity);
    }

    double G(const Vec3& first, const Vec3& second, const Vec3& h) const {
        if constexpr (KIND == DISTRIBUTIONKIND_WARD) {
            return VCavityG(first, second, h);
        } else {
            if (first.z * h.z <= 0.0 || second.z * h.z <= 0.0) return 0.0;
            return G1(first) * G1(second);
        }
    }

    // A half vector drawn for the sample record, with D and the sampling density of it.
    Vec3 Sample(const float* sample, double& d, double& density) const {
        if constexpr (KIND == DISTRIBUTIONKIND_PHONG) {
            double e = _alpha;
            double cosT = std::pow(double(sample[SAMPLERECORD_U1]), 1.0 / (e + 1.0));
            double sinT = std::sqrt(std::max(0.0, 1.0 - cosT * cosT));
            double phi = kTwoPi * double(sample[SAMPLERECORD_U2]);
            double p = std::pow(cosT, e);
            d = (2.0 + e) * p * kInvTwoPi;
            density = (e + 1.0) * p * kInvTwoPi;
            return {std::cos(phi) * sinT, std::sin(phi) * sinT, cosT};
        } else {
            double u = sample[SAMPLERECORD_U2];
            double cosT;
            if (_table) {
                double f = u * 1000.0;
                int64_t i = ClampCell(static_cast<int64_t>(std::max(f, 0.0)));
                int64_t j = ClampCell(i + 1);
                int64_t base = kDistributionSamplingStart + _sOffset;
                float vi = LoadEntry(_table, base + i), vj = LoadEntry(_table, base + j);
                if ((vi < -0.5f) | (vj < -0.5f)) [[unlikely]] {
                    CellPair filled = FillSamplingCells(base, i, j);
                    vi = filled.vi;
                    vj = filled.vj;
                }
                cosT = Lerp(vi, vj, f - double(i));
            } else {
                cosT = SampleCos(u);
            }
            double sinT = std::sqrt(std::max(0.0, 1.0 - cosT * cosT));
            // Sine to x and cosine to y, the reverse of the diffuse models: only mirrors the
            // azimuth, which is uniform, so it is kept.
            Vec3 h{double(sample[SAMPLERECORD_AZIMUTHSIN]) * sinT,
                   double(sample[SAMPLERECORD_AZIMUTHCOS]) * sinT, cosT};
            double pdf;
            d = D(h, true, pdf);
            density = d;
            return h;
        }
    }

    // cos(theta) of the sampled half vector for the random number u.
    double SampleCos(double u) const {
        double uc = ClampSampleU(u);
        if constexpr (KIND == DISTRIBUTIONKIND_BECKMANN) {
            return std::cos(std::atan(std::sqrt(-_alphaSquared * std::log(1.0 - uc))));
        } else if constexpr (KIND == DISTRIBUTIONKIND_WARD) {
            return std::cos(std::atan(_alpha * std::sqrt(-std::log(1.0 - uc))));
        } else {
            return 1.0 / std::sqrt(_alphaSquared * uc / (1.0 - uc) + 1.0);
        }
    }

private:
    // The first use of a cell computes its entries; kept out of line, with its results
    // returned by value, so that the warm lookup stays small and in registers.
    struct CellPair {
        float vi, vj;
    };
    [[gnu::noinline]] CellPair FillDensityCells(int64_t i, int64_t j) const {
        double unused;
        return {CachedEntry(_table, _dOffset + i, [&] { return ExactD(CellCosine(i), unused); }),
                CachedEntry(_table, _dOffset + j, [&] { return ExactD(CellCosine(j), unused); })};
    }
    [[gnu::noinline]] CellPair FillSamplingCells(int64_t base, int64_t i, int64_t j) const {
        return {CachedEntry(_table, base + i, [&] { return SampleCos(0.001 * double(i)); }),
                CachedEntry(_table, base + j, [&] { return SampleCos(0.001 * double(j)); })};
    }

    double G1(const Vec3& v) const {
        double tanT = AbsTan(v.z);
        if (tanT < 1e-16) return 1.0;
        if constexpr (KIND == DISTRIBUTIONKIND_GGX) {
            double k = _alpha * tanT;
            return 2.0 / (1.0 + std::sqrt(1.0 + k * k));
        } else {
            double s;
            if constexpr (KIND == DISTRIBUTIONKIND_PHONG) {
                s = std::sqrt(0.5 * _alpha + 1.0) / tanT;
                if (s >= 1.6) return 1.0;  // Beckmann needs s > 1.6: the legacy cut-offs differ
            } else {
                s = 1.0 / (_alpha * tanT);
                if (s > 1.6) return 1.0;
            }
            return (3.535 * s + 2.181 * s * s) / (1.0 + 2.276 * s + 2.577 * s * s);
        }
    }
};

using BeckmannDistribution = IsotropicDistribution<DISTRIBUTIONKIND_BECKMANN>;
using GGXDistribution = IsotropicDistribution<DISTRIBUTIONKIND_GGX>;
using PhongDistribution = IsotropicDistribution<DISTRIBUTIONKIND_PHONG>;
using WardDistribution = IsotropicDistribution<DISTRIBUTIONKIND_WARD>;

// Two cosine-power exponents along the tangent axes; never tabulated.
class AnisotropicDistribution {
public:
    float* _table = nullptr;  // never set
    double _roughness = 0.0;
    double _lobeCosine = 0.0;
    double _anisotropy = 0.0;
    double _rotation = 0.0;
    double _rotationSin = 0.0;
    double _rotationCos = 1.0;
    double _exponentU = 0.0;
    double _exponentV = 0.0;
    double _aspect = 1.0;
    double _pdfNorm = 0.0;
    double _densityNorm = 0.0;
    bool _isAnisotropic = false;
    bool _updated = false;

    void Visit(const LegacyStateVisitor& field) const {
        field("_table", _table != nullptr);
        field("_roughness", _roughness);
        field("_lobeCosine", _lobeCosine);
        field("_anisotropy", _anisotropy);
        field("_rotation", _rotation);
        field("_rotationSin", _rotationSin);
        field("_rotationCos", _rotationCos);
        field("_exponentU", _exponentU);
        field("_exponentV", _exponentV);
        field("_aspect", _aspect);
        field("_pdfNorm", _pdfNorm);
        field("_densityNorm", _densityNorm);
        field("_isAnisotropic", _isAnisotropic);
    }

    Result<void> Update(const DataDictionary& data) {
        double r = ReadRoughness(data);
        double anisotropy = ReadFinite(data, bsdfdata::kAnisotropy);
        double rotation = ReadFinite(data, bsdfdata::kRotation);
        if (_updated && r == _roughness && anisotropy == _anisotropy && rotation == _rotation)
            return OK();
        _updated = true;
        _roughness = r;
        _anisotropy = anisotropy;
        _rotation = rotation;
        // As for the isotropic kinds: no axis may reach roughness 0 (an infinite exponent).
        double ru = std::clamp(r, 0.001, 1.0);
        double rv = std::clamp(r * (1.0 - anisotropy), 0.001, 1.0);
        // Same exponent as Phong's, one per tangent axis.
        auto exponent = [](double x) {
            double x3 = x * x * x;
            return std::clamp(4.0 * (1.0 - x3) / x3, 1e-6, 100000.0);
        };
        double nu = exponent(ru), nv = exponent(rv);
        _exponentU = nu;
        _exponentV = nv;
        _isAnisotropic = nu != nv;
        _aspect = _isAnisotropic ? std::sqrt((nu + 1.0) / (nv + 1.0)) : 1.0;
        _pdfNorm = std::sqrt((nu + 1.0) * (nv + 1.0));
        _densityNorm = std::sqrt((nu + 2.0) * (nv + 2.0));
        _lobeCosine = std::pow(0.5, 1.0 / (std::max(nu, nv) + 1.0));
        _rotationSin = std::sin(rotation);
        _rotationCos = std::cos(rotation);
        return OK();
    }

    double D(const Vec3& h, bool /*useTable*/, double& samplingDensity) const {
        samplingDensity = 0.0;
        double c = h.z;
        if (!(c >= 1e-16)) return 0.0;
        double x = 0.0;
        if (std::abs(c) < 0.9999999999999999)
            x = (_exponentU * h.x * h.x + _exponentV * h.y * h.y) / std::max(0.0, 1.0 - c * c);
        double p = std::pow(std::abs(c), x);
        samplingDensity = _pdfNorm * p * kInvTwoPi;
        return _densityNorm * p * kInvTwoPi;
    }

    double G(const Vec3& first, const Vec3& second, const Vec3& h) const {
        return VCavityG(first, second, h);
    }

    Vec3 Sample(const float* sample, double& d, double& density) const {
        double u1 = sample[SAMPLERECORD_U1], u2 = sample[SAMPLERECORD_U2];
        // u1 picks the quadrant and, rescaled to [0, 1), the azimuth within it.
        double xi = u1 < 0.25   ? 4.0 * u1
                    : u1 < 0.5  ? 4.0 * (0.5 - u1)
                    : u1 < 0.75 ? 4.0 * (u1 - 0.5)
                                : 4.0 * (1.0 - u1);
        double phiQ =
            _isAnisotropic ? std::atan(_aspect * std::tan(xi * kPi * 0.5)) : xi * kPi * 0.5;
        double phi = u1 < 0.25   ? phiQ
                     : u1 < 0.5  ? kPi - phiQ
                     : u1 < 0.75 ? kPi + phiQ
                                 : kTwoPi - phiQ;
        double cp = std::cos(phiQ), sp = std::sin(phiQ);
        double cosT = std::pow(u2, 1.0 / (_exponentU * cp * cp + _exponentV * sp * sp + 1.0));
        double sinT2 = std::max(0.0, 1.0 - cosT * cosT);
        double sinT = std::sqrt(sinT2);
        Vec3 h{std::cos(phi) * sinT, std::sin(phi) * sinT, cosT};
        double x = sinT2 > 1e-16 ? (_exponentU * h.x * h.x + _exponentV * h.y * h.y) / sinT2 : 0.0;
        double p = std::pow(cosT, x);
        d = _densityNorm * p * kInvTwoPi;
        density = _pdfNorm * p * kInvTwoPi;
        return h;
    }
};

}  // namespace kelvo::legacy
