// A legacy material's typed entries (kelvo/previewmaterials.h), as they sit in a preview
// request, read into the renderer's material and light.
#pragma once

#include "kelvo/data.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/result.h"

namespace kelvo::preview {

// Reads the material, the light's profile and the uniform environment (unchanged when the
// material names none). An entry of another type counts as absent: the reader that made
// the entries has checked them. Fails only when memory runs out.
Result<void> ReadMaterialEntries(const DataDictionary& entries, PreviewMaterial& material,
                                 PreviewLight& light, Col3& environment);

}  // namespace kelvo::preview
