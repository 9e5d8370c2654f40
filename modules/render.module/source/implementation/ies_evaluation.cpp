// Evaluating an IES profile: intensity by direction (bracket search and interpolation over
// the angle grid) and the Monte-Carlo estimate of its total power.
#include <algorithm>
#include <cmath>

#include "ies_impl.h"
#include "kelvo/random.h"

namespace kelvo {
namespace {

constexpr int kPowerSamples = 65536;
// Fixed, so that one profile always gets the same power estimate.
constexpr uint64_t kPowerSeed = 0x1E5u;
constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;

}  // namespace

namespace detail {

Result<void> BracketIndex::Build(std::span<const double> a, double offset) {
    return CatchOutOfMemory([&]() -> Result<void> {
        const size_t n = a.size();
        _runningMax.clear();
        _start.clear();
        if (n < 2) return OK();
        // NaN angles never exceed a key, so they never raise the running maximum.
        double m = -std::numeric_limits<double>::infinity();
        _runningMax.resize(n - 1);
        for (size_t j = 1; j < n; ++j) {
            const double v = a[j] - offset;
            if (v > m) m = v;
            _runningMax[j - 1] = m;
        }
        _origin = _runningMax.front();
        const double range = _runningMax.back() - _origin;
        if (!(range > 0.0) || !std::isfinite(range)) return OK();
        // Four buckets per angle: with near-even steps a bucket's start is the answer.
        const size_t buckets = std::min<size_t>(4 * n, 4096);
        _scale = static_cast<double>(buckets) / range;
        _start.resize(buckets);
        size_t j = 1;
        for (size_t k = 0; k < buckets; ++k) {
            const double key = _origin + static_cast<double>(k) / _scale;
            while (j < n && !(_runningMax[j - 1] > key)) ++j;
            _start[k] = static_cast<uint16_t>(j);
        }
        return OK();
    });
}

size_t BracketIndex::Find(double key) const {
    const size_t n = _runningMax.size() + 1;
    if (n < 2) return 1;
    if (!_start.empty()) {
        const double f = (key - _origin) * _scale;
        const double last = static_cast<double>(_start.size() - 1);
        const size_t j = _start[f > 0.0 ? static_cast<size_t>(f < last ? f : last) : 0];
        // Exact when the running maximum first exceeds the key at j.
        if ((j == n || _runningMax[j - 1] > key) && (j == 1 || !(_runningMax[j - 2] > key)))
            return j;
    }
    return static_cast<size_t>(std::upper_bound(_runningMax.begin(), _runningMax.end(), key) -
                               _runningMax.begin()) +
           1;
}

}  // namespace detail

double IesImpl::ComputeLightIntensity(const Vec3& d) const {
    const size_t nV = _anglesVertical.size(), nH = _anglesHorizontal.size();
    if (nV == 0 || nH == 0 || !(_dataMax > 0.0)) return 0.0;
    const double* av = _anglesVertical.data();
    const double* ah = _anglesHorizontal.data();

    // Vertical angle θ from the nadir (-z); the factor keeps acos away from its
    // singular ends.
    const double q = -d.z * 0.999999;
    const double theta = q >= 1.0 ? 0.0 : q <= -1.0 ? 180.0 : std::acos(q) * kRadToDeg;
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

    // Horizontal angle φ from +y towards +x, folded by the symmetry of the range the file
    // covers. A single plane needs no φ at all.
    const double a0 = ah[0];
    const double range = ah[nH - 1] - a0;
    double phi = 0.0;
    if (!(range < 45.0)) {
        if (d.y == 0.0) {
            phi = d.x >= 0.0 ? 90.0 : 270.0;
        } else {
            phi = std::atan2(d.x, d.y) * kRadToDeg;
            if (phi < 0.0) phi += 360.0;
        }
    }
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

double IesImpl::ComputePower() const {
    // Directions uniform over the sphere by rejection from the cube [-1, 1]^3.
    Random random(kPowerSeed);
    double buffer[3 * 256];
    size_t used = std::size(buffer);
    auto next = [&] {
        if (used == std::size(buffer)) {
            random.Fill01(buffer, std::size(buffer));
            used = 0;
        }
        return buffer[used++] * 2.0 - 1.0;
    };
    double sum = 0.0;
    for (int i = 0; i < kPowerSamples; ++i) {
        Vec3 d;
        do {
            d.x = next();
            d.y = next();
            d.z = next();
        } while (SquaredLength(d) > 1.0);
        sum += ComputeLightIntensity(Normalize(d));
    }
    double power = sum * (kFourPi / kPowerSamples);
    // A dark or empty profile gets the power of a uniform light, so divisions stay finite.
    return power < 1e-7 ? kFourPi : power;
}

}  // namespace kelvo
