// Black-body colours: Planck's law weighted by the colour matching functions, then
// XYZ to linear Rec. 709.
#include "colortemperature.h"

#include <cmath>

namespace kelvo::sceneobjects {
namespace {

#include "cie1931_cmf_data.inc"

// Second radiation constant h*c/k in nanometre kelvin.
constexpr double kC2 = 1.438776877e7;

// Rec. 709 primaries with the D65 white point.
constexpr double kXyzToRgb[3][3] = {
    {3.2404542, -1.5371385, -0.4985314},
    {-0.9692660, 1.8760108, 0.0415560},
    {0.0556434, -0.2040259, 1.0572252},
};
constexpr double kLuminance[3] = {0.2126729, 0.7151522, 0.0721750};

}  // namespace

Col3 BlackBodyColor(double kelvin) {
    const Col3 white{1, 1, 1};
    if (!(kelvin > 0.0) || !std::isfinite(kelvin)) return white;
    // The spectrum's scale cancels in the normalisation, so Planck's first constant and
    // the wavelength step are left out.
    double xyz[3] = {0, 0, 0};
    constexpr size_t count = sizeof(kCmf) / sizeof(kCmf[0]);
    for (size_t i = 0; i < count; ++i) {
        const double nm = kCmfFirstWavelength + kCmfWavelengthStep * double(i);
        const double um = nm * 1e-3;
        const double radiance = 1.0 / (um * um * um * um * um * std::expm1(kC2 / (nm * kelvin)));
        for (int c = 0; c < 3; ++c) xyz[c] += radiance * kCmf[i][c];
    }
    if (!(xyz[1] > 0.0) || !std::isfinite(xyz[1])) return white;
    const double y = xyz[1];
    for (double& c : xyz) c /= y;

    double rgb[3];
    double luminance = 0.0;
    for (int r = 0; r < 3; ++r) {
        rgb[r] = kXyzToRgb[r][0] * xyz[0] + kXyzToRgb[r][1] * xyz[1] + kXyzToRgb[r][2] * xyz[2];
        if (rgb[r] < 0.0) rgb[r] = 0.0;  // outside the gamut: clip, then restore luminance
        luminance += kLuminance[r] * rgb[r];
    }
    if (!(luminance > 0.0)) return white;
    return {rgb[0] / luminance, rgb[1] / luminance, rgb[2] / luminance};
}

}  // namespace kelvo::sceneobjects
