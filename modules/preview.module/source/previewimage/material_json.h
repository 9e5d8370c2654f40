// The legacy material as the preview renderer's JSON object (kelvo/previewmaterials.h),
// read into the renderer's material and light.
#pragma once

#include <string_view>

#include "kelvo/previewrenderer.h"
#include "kelvo/result.h"

namespace kelvo::preview {

// Reads text into material, light and the uniform environment ("environment": [r, g, b],
// the radiance of the surroundings; unchanged when absent). Fails with "Illegal argument: The
// material is not valid JSON (byte N).", "Illegal argument: The material holds a number beyond
// the range of doubles.", "Illegal argument: The material must be a JSON object.", "Illegal
// argument: Unknown material member '@'.", "Illegal argument: Unknown BSDF data key '@'." and the
// member's own type errors ("colour must be an array of 3 numbers.", ...).
Result<void> ReadMaterialJson(std::string_view text, PreviewMaterial& material, PreviewLight& light,
                              Col3& environment);

}  // namespace kelvo::preview
