// Evaluating an IES profile: intensity by direction (bracket search and interpolation over
// the angle grid) and the Monte-Carlo estimate of its total power.
#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>
#include <vector>

#include "ies_impl.h"
#include "kelvo/allocator.h"
#include "kelvo/jobs.h"
#include "kelvo/random.h"

namespace kelvo {
namespace {

constexpr int kPowerSamples = 65536;
// The estimate's evaluations go out in batches of this many, each summed on its own; the
// batch sums are added in batch order, so the value never depends on the thread count.
constexpr size_t kPowerBatch = 1024;
// Fixed, so that one profile always gets the same power estimate.
constexpr uint64_t kPowerSeed = 0x1E5u;
constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;

// The vertical angle θ of a direction in degrees from the nadir (-z); the factor keeps acos
// away from its singular ends.
double VerticalAngle(double z) {
    const double q = -z * 0.999999;
    return q >= 1.0 ? 0.0 : q <= -1.0 ? 180.0 : std::acos(q) * kRadToDeg;
}

// The horizontal angle φ in [0, 360), from +y towards +x.
double HorizontalAngle(double x, double y) {
    if (y == 0.0) return x >= 0.0 ? 90.0 : 270.0;
    const double phi = std::atan2(x, y) * kRadToDeg;
    return phi < 0.0 ? phi + 360.0 : phi;
}

// Calls each(direction) for the estimate's directions in order: uniform over the sphere by
// rejection from the cube [-1, 1]^3 (the rejections consume the generator in sequence),
// normalised; a zero vector stays zero.
template <typename EACH>
void DrawPowerDirections(EACH&& each) {
    Random random(kPowerSeed);
    std::array<double, 3 * 256> buffer;
    size_t used = buffer.size();
    auto next = [&] {
        if (used == buffer.size()) {
            random.Fill01(buffer.data(), buffer.size());
            used = 0;
        }
        return buffer[used++] * 2.0 - 1.0;
    };
    for (int i = 0; i < kPowerSamples; ++i) {
        Vec3 d;
        do {
            d.x = next();
            d.y = next();
            d.z = next();
        } while (SquaredLength(d) > 1.0);
        each(Normalize(d));
    }
}

// The angles of the estimate's directions. The directions are the same for every profile,
// so their angles are worked out once per process: that spares each Init the draws and the
// acos and atan2 of every direction, nine tenths of an evaluation. Static storage (1 MiB,
// touched only when a profile is loaded): nothing to allocate, so nothing can fail.
struct PowerAngles {
    std::array<double, kPowerSamples> theta;
    std::array<double, kPowerSamples> phi;
};
PowerAngles g_powerAngles;
std::once_flag g_powerAnglesOnce;

const PowerAngles& SharedPowerAngles() {
    std::call_once(g_powerAnglesOnce, [] {
        size_t i = 0;
        DrawPowerDirections([&](const Vec3& d) {
            g_powerAngles.theta[i] = VerticalAngle(d.z);
            g_powerAngles.phi[i] = HorizontalAngle(d.x, d.y);
            ++i;
        });
    });
    return g_powerAngles;
}

}  // namespace

namespace detail {

Result<void> BracketIndex::Build(std::span<const double> a, double offset) {
    return CatchOutOfMemory([&]() -> Result<void> {
        const size_t n = a.size();
        _bound.clear();
        _start.clear();
        if (n < 2) return OK();
        // NaN angles never exceed a key, so they never raise the running maximum.
        constexpr double kInf = std::numeric_limits<double>::infinity();
        double m = -kInf;
        _bound.resize(n + 1);
        _bound[0] = -kInf;
        for (size_t j = 1; j < n; ++j) {
            const double v = a[j] - offset;
            if (v > m) m = v;
            _bound[j] = m;
        }
        _bound[n] = kInf;
        _origin = _bound[1];
        const double range = _bound[n - 1] - _origin;
        if (!(range > 0.0) || !std::isfinite(range)) return OK();
        // Four buckets per angle: with near-even steps a bucket's start is the answer.
        const size_t buckets = std::min<size_t>(4 * n, 4096);
        _scale = static_cast<double>(buckets) / range;
        _start.resize(buckets);
        size_t j = 1;
        for (size_t k = 0; k < buckets; ++k) {
            const double key = _origin + static_cast<double>(k) / _scale;
            while (j < n && !(_bound[j] > key)) ++j;
            _start[k] = static_cast<uint16_t>(j);
        }
        return OK();
    });
}

}  // namespace detail

double IesImpl::ComputeLightIntensity(const Vec3& d) const {
    if (_anglesVertical.empty() || _anglesHorizontal.empty() || !(_dataMax > 0.0)) return 0.0;
    // A single plane needs no φ at all.
    const double range = _anglesHorizontal.back() - _anglesHorizontal.front();
    return IntensityAt(VerticalAngle(d.z), range < 45.0 ? 0.0 : HorizontalAngle(d.x, d.y));
}

// The shared core of ComputeLightIntensity and the power estimate, so both give the same
// value for a direction. Expects a profile with light.
inline double IesImpl::IntensityAt(double theta, double phi) const {
    const size_t nV = _anglesVertical.size(), nH = _anglesHorizontal.size();
    const double* av = _anglesVertical.data();
    const double* ah = _anglesHorizontal.data();
    if (theta < av[0] || theta > av[nV - 1]) return 0.0;

    // Vertical bracket: the first index whose successor exceeds θ.
    size_t i0 = 0, i1 = 0;
    if (nV > 1) {
        size_t j = _verticalIndex.Find(theta);
        if (j == nV) j = nV - 1;
        i0 = j - 1;
        i1 = j;
    }
    const double spanV = av[i1] - av[i0];
    const double t = spanV > 0.0 ? (theta - av[i0]) / spanV : 1.0;
    const size_t im = i0 > 0 ? i0 - 1 : 0;
    const size_t ip = std::min(i1 + 1, nV - 1);

    // Horizontal angle folded by the symmetry of the range the file covers.
    const double a0 = ah[0];
    const double range = ah[nH - 1] - a0;
    double phiF;
    if (range < 45.0) {
        phiF = 0.0;  // one plane: rotationally symmetric
    } else if (range < 135.0) {
        phiF = phi <= 90.0    ? phi
               : phi <= 180.0 ? 180.0 - phi
               : phi <= 270.0 ? phi - 180.0
                              : 360.0 - phi;
    } else if (range < 225.0) {
        phiF = std::fabs(phi - a0);
        if (phiF > 180.0) phiF = 360.0 - phiF;
    } else {
        phiF = phi;
    }
    size_t h0 = 0, h1 = 0;
    if (nH > 1) {
        size_t j = _horizontalIndex.Find(phiF);
        if (j == nH) j = nH - 1;
        h0 = j - 1;
        h1 = j;
    }
    const double spanH = ah[h1] - ah[h0];
    const double u = spanH > 0.0 ? (phiF - (ah[h0] - a0)) / spanH : 1.0;

    // Cubic Hermite along θ in each of the two planes, tangents from the neighbours.
    const double dTheta = av[i1] - av[i0];
    const double dm = av[i1] - av[im];
    const double dp = av[ip] - av[i0];
    auto plane = [&](size_t h) {
        const double* v = _data.data() + h * nV;
        const double v0 = v[i0], v1 = v[i1];
        const double dv = v1 - v0;
        const double m0 = dm > 0.0 ? (v1 - v[im]) * dTheta / dm : 0.0;
        const double m1 = dp > 0.0 ? (v[ip] - v0) * dTheta / dp : 0.0;
        return v0 + t * (m0 + t * ((3.0 * dv - 2.0 * m0 - m1) + t * (m0 + m1 - 2.0 * dv)));
    };
    const double p = u == 0.0 ? plane(h0) : (1.0 - u) * plane(h0) + u * plane(h1);
    // The clamp removes the undershoot of the cubic; a NaN falls to 0 as well.
    const double r = p / _dataMax;
    return r > 0.0 ? r : 0.0;
}

namespace {

// How φ folds onto the horizontal angles a file covers (see IntensityAt).
enum class FOLD { ONEPLANE, QUADRANT, HALF, FULL };

// What the batched estimate needs of a profile, worked out once per estimate so that a
// sample costs no division and no unpredictable branch: t = (θ - θ[i0]) · tScale[i0] +
// tBias[i0] (scale 0 and bias 1 where the span is not positive, as IntensityAt's t = 1),
// the tangents' factors Δθ/(θ[i1] - θ[im]) and Δθ/(θ[ip] - θ[i0]) (0 where the evaluator
// takes a zero tangent), and u alike over the horizontal angles.
struct PowerPlan {
    const double* av;
    const double* ah;
    const double* data;
    size_t nV, nH;
    double a0;
    const detail::BracketIndex* verticalIndex;
    const detail::BracketIndex* horizontalIndex;
    const double* tScale;
    const double* tBias;
    const double* tangentM;
    const double* tangentP;
    const double* uScale;
    const double* uBias;
};

// The bracket [k0, k0 + 1] of a key as IntensityAt finds it (k0 + 1 clamped to n - 1).
[[gnu::always_inline]] inline size_t Bracket(const detail::BracketIndex& index, size_t n,
                                             double key) {
    if (n < 2) return 0;
    const size_t j = index.Find(key);
    return (j == n ? n - 1 : j) - 1;
}

// The sum of the unnormalised, clamped intensities of one batch of samples.
template <FOLD kFold>
double SumBatch(const PowerPlan& plan, const double* theta, const double* phi) {
    const size_t nV = plan.nV, nH = plan.nH;
    const double lo = plan.av[0], hi = plan.av[nV - 1];
    // The values first, then their sum: no evaluation waits for the one before.
    std::array<double, kPowerBatch> values;
    for (size_t s = 0; s < kPowerBatch; ++s) {
        // Outside the vertical range the value is 0; the evaluation runs on a clamped angle
        // all the same, so that the loop has no branch to mispredict.
        const bool inside = theta[s] >= lo && theta[s] <= hi;
        const double th = std::min(std::max(theta[s], lo), hi);
        const size_t i0 = Bracket(*plan.verticalIndex, nV, th);
        const size_t i1 = nV > 1 ? i0 + 1 : 0;
        const size_t im = i0 > 0 ? i0 - 1 : 0;
        const size_t ip = std::min(i1 + 1, nV - 1);
        const double t = (th - plan.av[i0]) * plan.tScale[i0] + plan.tBias[i0];

        double f = 0.0;
        if constexpr (kFold == FOLD::QUADRANT) {
            // The four quarter turns folded by two mirrors (every step exact, so the same
            // values as the evaluator's four cases).
            const double x = phi[s] - (phi[s] > 180.0 ? 180.0 : 0.0);
            f = std::min(x, 180.0 - x);
        } else if constexpr (kFold == FOLD::HALF) {
            const double x = std::fabs(phi[s] - plan.a0);
            f = std::min(x, 360.0 - x);
        } else if constexpr (kFold == FOLD::FULL) {
            f = phi[s];
        }
        const size_t h0 = Bracket(*plan.horizontalIndex, nH, f);
        const size_t h1 = nH > 1 ? h0 + 1 : 0;
        const double u = (f - (plan.ah[h0] - plan.a0)) * plan.uScale[h0] + plan.uBias[h0];

        // Cubic Hermite along θ in both planes, blended along φ.
        const double fm = plan.tangentM[i0], fp = plan.tangentP[i0];
        auto plane = [&](size_t h) {
            const double* v = plan.data + h * nV;
            const double v0 = v[i0], v1 = v[i1];
            const double dv = v1 - v0;
            const double m0 = (v1 - v[im]) * fm;
            const double m1 = (v[ip] - v0) * fp;
            return v0 + t * (m0 + t * ((3.0 * dv - 2.0 * m0 - m1) + t * (m0 + m1 - 2.0 * dv)));
        };
        // The clamp removes the undershoot of the cubic.
        const double p = (1.0 - u) * plane(h0) + u * plane(h1);
        values[s] = inside && p > 0.0 ? p : 0.0;
    }
    // Four running sums, so that the additions overlap; always combined alike.
    double sums[4] = {0.0, 0.0, 0.0, 0.0};
    for (size_t s = 0; s < kPowerBatch; s += 4)
        for (size_t k = 0; k < 4; ++k) sums[k] += values[s + k];
    return (sums[0] + sums[1]) + (sums[2] + sums[3]);
}

}  // namespace

Result<double> IesImpl::ComputePower(int workers) const {
    // A profile without light sums to 0 whatever the directions.
    if (_anglesVertical.empty() || _anglesHorizontal.empty() || !(_dataMax > 0.0)) return kFourPi;
    const PowerAngles& angles = SharedPowerAngles();
    return CatchOutOfMemory([&]() -> Result<double> {
        const size_t nV = _anglesVertical.size(), nH = _anglesHorizontal.size();
        const double* av = _anglesVertical.data();
        const double* ah = _anglesHorizontal.data();
        DoubleArray factors(4 * nV + 2 * nH);
        double* tScale = factors.data();
        double* tBias = tScale + nV;
        double* tangentM = tBias + nV;
        double* tangentP = tangentM + nV;
        double* uScale = tangentP + nV;
        double* uBias = uScale + nH;
        for (size_t i0 = 0; i0 < nV; ++i0) {
            const size_t i1 = std::min(i0 + 1, nV - 1);
            const size_t im = i0 > 0 ? i0 - 1 : 0;
            const size_t ip = std::min(i1 + 1, nV - 1);
            const double span = av[i1] - av[i0];
            tScale[i0] = span > 0.0 ? 1.0 / span : 0.0;
            tBias[i0] = span > 0.0 ? 0.0 : 1.0;
            const double dm = av[i1] - av[im], dp = av[ip] - av[i0];
            tangentM[i0] = dm > 0.0 ? span / dm : 0.0;
            tangentP[i0] = dp > 0.0 ? span / dp : 0.0;
        }
        for (size_t h0 = 0; h0 < nH; ++h0) {
            const double span = ah[std::min(h0 + 1, nH - 1)] - ah[h0];
            uScale[h0] = span > 0.0 ? 1.0 / span : 0.0;
            uBias[h0] = span > 0.0 ? 0.0 : 1.0;
        }
        const PowerPlan plan{av,     ah,    _data.data(),    nV,
                             nH,     ah[0], &_verticalIndex, &_horizontalIndex,
                             tScale, tBias, tangentM,        tangentP,
                             uScale, uBias};
        const double range = ah[nH - 1] - ah[0];
        auto sumBatch = range < 45.0    ? &SumBatch<FOLD::ONEPLANE>
                        : range < 135.0 ? &SumBatch<FOLD::QUADRANT>
                        : range < 225.0 ? &SumBatch<FOLD::HALF>
                                        : &SumBatch<FOLD::FULL>;
        constexpr int64_t kBatches = kPowerSamples / int64_t(kPowerBatch);
        std::array<double, kBatches> sums{};
        KELVO_TRY(ParallelFor(0, kBatches,
                              [&](int64_t b) {
                                  const size_t begin = size_t(b) * kPowerBatch;
                                  sums[size_t(b)] = sumBatch(plan, angles.theta.data() + begin,
                                                             angles.phi.data() + begin);
                              },
                              {.chunkSize = 1, .threads = workers}));
        double sum = 0.0;
        for (double s : sums) sum += s;
        const double power = sum / _dataMax * (kFourPi / kPowerSamples);
        // A dark profile gets the power of a uniform light, so divisions stay finite.
        return power < 1e-7 ? kFourPi : power;
    });
}

double IesImpl::ComputePowerSerial() const {
    if (_anglesVertical.empty() || _anglesHorizontal.empty() || !(_dataMax > 0.0)) return kFourPi;
    double sum = 0.0;
    DrawPowerDirections([&](const Vec3& d) { sum += ComputeLightIntensity(d); });
    const double power = sum * (kFourPi / kPowerSamples);
    return power < 1e-7 ? kFourPi : power;
}

}  // namespace kelvo
