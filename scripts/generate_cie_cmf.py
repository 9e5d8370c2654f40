#!/usr/bin/env python3
"""Writes the colour matching function table used by light colour temperatures.

The table samples the multi-lobe analytic fit of the CIE 1931 2-degree standard observer
by Wyman, Sloan and Shirley ("Simple Analytic Approximations to the CIE XYZ Color
Matching Functions", Journal of Computer Graphics Techniques 2(2), 2013) at 5 nm from
360 to 830 nm. It is a fit, not the tabulated CIE values.

    scripts/generate_cie_cmf.py > modules/render.module/source/implementation/scene_objects/cie1931_cmf_data.inc
"""
import math


def lobe(wavelength, mean, sigma_low, sigma_high):
    t = (wavelength - mean) / (sigma_low if wavelength < mean else sigma_high)
    return math.exp(-0.5 * t * t)


def cmf(wavelength):
    x = (1.056 * lobe(wavelength, 599.8, 37.9, 31.0) + 0.362 * lobe(wavelength, 442.0, 16.0, 26.7)
         - 0.065 * lobe(wavelength, 501.1, 20.4, 26.2))
    y = 0.821 * lobe(wavelength, 568.8, 46.9, 40.5) + 0.286 * lobe(wavelength, 530.9, 16.3, 31.1)
    z = 1.217 * lobe(wavelength, 437.0, 11.8, 36.0) + 0.681 * lobe(wavelength, 459.0, 26.0, 13.8)
    return x, y, z


def main():
    first, last, step = 360, 830, 5
    print("// GENERATED FILE, do not edit: written by scripts/generate_cie_cmf.py.")
    print("// CIE 1931 2-degree standard observer colour matching functions x, y, z, sampled")
    print("// from the multi-lobe analytic fit of Wyman, Sloan and Shirley (JCGT 2(2), 2013)")
    print(f"// at {step} nm steps from {first} to {last} nm.")
    print(f"constexpr double kCmfFirstWavelength = {first}.0;  // nm")
    print(f"constexpr double kCmfWavelengthStep = {step}.0;  // nm")
    print("constexpr double kCmf[][3] = {")
    for wavelength in range(first, last + 1, step):
        x, y, z = cmf(wavelength)
        print(f"    {{{x:.9e}, {y:.9e}, {z:.9e}}},  // {wavelength}")
    print("};")


if __name__ == "__main__":
    main()
