// Light colours from colour temperatures.
#pragma once

#include "kelvo/vec.h"

namespace kelvo::sceneobjects {

// The linear Rec. 709 colour of luminance 1 of a black body at `kelvin`, from Planck's
// law and the CIE 1931 2-degree observer. Components outside the gamut are clipped to 0
// and the colour rescaled to luminance 1. Non-positive or non-finite temperatures, and
// ones so low that nothing visible is emitted, give white (1, 1, 1).
Col3 BlackBodyColor(double kelvin);

}  // namespace kelvo::sceneobjects
