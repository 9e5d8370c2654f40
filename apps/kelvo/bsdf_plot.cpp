#include "bsdf_plot.h"

#include <algorithm>
#include <cmath>

namespace kelvo::cli {
namespace {

constexpr double kPi = 3.14159265358979323846;

// value x |cos| of wi; negative values (the legacy transmission sign) by magnitude.
double Lobe(BSDFLegacyInterface& m, const Vec3& wo, const Vec3& wi) {
    double p;
    double v = std::abs(m.ComputeBSDF(wo, wi, wi, p).r) * std::abs(wi.z);
    return std::isfinite(v) ? v : 0.0;
}

// A dark-to-warm ramp for t in 0..1.
void Heat(double t, uint8_t& r, uint8_t& g, uint8_t& b) {
    t = std::clamp(t, 0.0, 1.0);
    r = uint8_t(255 * std::clamp(1.5 * t, 0.0, 1.0));
    g = uint8_t(255 * std::clamp(1.5 * t - 0.5, 0.0, 1.0));
    b = uint8_t(255 * std::clamp(3.0 * t - 2.0, 0.0, 1.0) * 0.8 + 40 * (1 - t));
}

RgbPicture Blank(int w, int h, uint8_t grey) {
    RgbPicture p;
    p.width = w;
    p.height = h;
    p.rgb.assign(size_t(w) * size_t(h) * 3, grey);
    return p;
}

RgbPicture Polar(BSDFLegacyInterface& m, const Vec3& wo, int size) {
    RgbPicture pic = Blank(size, size, 245);
    // The plane of incidence: the normal and wo's tangential direction.
    double phi = std::atan2(wo.y, wo.x);
    double cp = std::cos(phi), sp = std::sin(phi);
    constexpr int kAngles = 1440;
    std::vector<double> radius(kAngles);
    for (int i = 0; i < kAngles; ++i) {
        double theta = -kPi + (i + 0.5) * 2 * kPi / kAngles;
        Vec3 wi{std::sin(theta) * cp, std::sin(theta) * sp, std::cos(theta)};
        radius[i] = Lobe(m, wo, wi);
    }
    double peak = *std::max_element(radius.begin(), radius.end());
    double half = size / 2.0, scale = peak > 0.0 ? 0.95 * half / peak : 0.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double px = x + 0.5 - half, py = half - (y + 0.5);
            double r = std::hypot(px, py);
            double theta = std::atan2(px, py);  // from the normal, towards wo's side
            int i = std::clamp(int((theta + kPi) / (2 * kPi) * kAngles), 0, kAngles - 1);
            if (r <= radius[i] * scale) pic.Set(x, y, py >= 0 ? 210 : 70, 90, py >= 0 ? 40 : 200);
            if (std::abs(py) < 0.5 || std::abs(px) < 0.5) pic.Set(x, y, 150, 150, 150);
        }
    }
    // The view direction.
    double sinO = std::sqrt(std::max(0.0, 1.0 - wo.z * wo.z));
    for (double t = 0; t < 0.95 * half; t += 0.25) {
        int x = int(half + t * sinO), y = int(half - t * wo.z);
        if (x >= 0 && x < size && y >= 0 && y < size) pic.Set(x, y, 20, 120, 20);
    }
    return pic;
}

RgbPicture Hemisphere(BSDFLegacyInterface& m, const Vec3& wo, int size, bool upper) {
    RgbPicture pic = Blank(size, size, 245);
    std::vector<double> v(size_t(size) * size, -1.0);
    double peak = 0.0, half = size / 2.0;
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double px = (x + 0.5 - half) / half, py = (half - (y + 0.5)) / half;
            double r2 = px * px + py * py;
            if (r2 >= 1.0) continue;
            double z = std::sqrt(1.0 - r2);
            double value = Lobe(m, wo, Vec3{px, py, upper ? z : -z});
            v[size_t(y) * size + x] = value;
            peak = std::max(peak, value);
        }
    }
    for (int y = 0; y < size; ++y) {
        for (int x = 0; x < size; ++x) {
            double value = v[size_t(y) * size + x];
            if (value < 0.0) continue;
            uint8_t r, g, b;
            // The square root shows the tails of sharp lobes as well.
            Heat(peak > 0.0 ? std::sqrt(value / peak) : 0.0, r, g, b);
            pic.Set(x, y, r, g, b);
        }
    }
    return pic;
}

}  // namespace

void RgbPicture::Set(int x, int y, uint8_t r, uint8_t g, uint8_t b) {
    uint8_t* p = &rgb[(size_t(y) * size_t(width) + size_t(x)) * 3];
    p[0] = r;
    p[1] = g;
    p[2] = b;
}

void RgbPicture::Paste(const RgbPicture& tile, int x0, int y0) {
    for (int y = 0; y < tile.height && y0 + y < height; ++y)
        for (int x = 0; x < tile.width && x0 + x < width; ++x) {
            const uint8_t* s = &tile.rgb[(size_t(y) * tile.width + x) * 3];
            Set(x0 + x, y0 + y, s[0], s[1], s[2]);
        }
}

RgbPicture DrawLobe(BSDFLegacyInterface& model, const Vec3& wo, int size) {
    RgbPicture out = Blank(3 * size + 8, size, 255);
    out.Paste(Polar(model, wo, size), 0, 0);
    out.Paste(Hemisphere(model, wo, size, true), size + 4, 0);
    out.Paste(Hemisphere(model, wo, size, false), 2 * size + 8, 0);
    return out;
}

}  // namespace kelvo::cli
