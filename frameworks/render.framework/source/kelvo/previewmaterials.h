// Material previews through the host's preview pipeline (kelvo/nodes/previewimage.h): the
// preview module's legacy-material node space, whose configure function fills a preview
// image request for a material, and its preview image provider, whose task runs one
// iteration of the preview renderer per pipeline iteration.
//
// A legacy material is a dictionary of typed entries, read once from the renderer's JSON
// object (kelvo/legacy_renderers/previewmaterial_json.h), for example
//   {"model": "ggxbrdf", "data": {"roughness": 0.3}, "colour": [0.8, 0.4, 0.2],
//    "texture": "wood.png", "textureMode": "mipmap", "ies": "spot.ies",
//    "environment": [1, 1, 1]}
// ("model" a legacy BSDF class, by its last word or full id; "data" the BSDF data record,
// whose entries sit in the dictionary under their own keys; "environment" the radiance of
// the uniform surroundings; every member optional, so an empty dictionary is the default
// material).
#pragma once

#include "kelvo/id.h"

namespace kelvo {

inline constexpr Id kLegacyMaterialNodeSpace("net.kelvo.preview.nodespace.legacymaterial");
inline constexpr Id kPreviewImageProviderClass("net.kelvo.preview.previewimageprovider.pathtracer");

// Attributes of a legacy material.
namespace PREVIEWMATERIAL {
// Id: the legacy BSDF class (the Lambert model when absent).
inline constexpr Id MODEL("net.kelvo.preview.material.model");
// Col3: multiplies the model's value; the environment's radiance (white when absent).
inline constexpr Id COLOUR("net.kelvo.preview.material.colour");
inline constexpr Id ENVIRONMENT("net.kelvo.preview.material.environment");
// Url: the colour texture and the light's IES profile (none when absent).
inline constexpr Id TEXTURE("net.kelvo.preview.material.texture");
inline constexpr Id IES("net.kelvo.preview.material.ies");
// int64: a TEXTUREMODE value (mipmap when absent).
inline constexpr Id TEXTUREMODE("net.kelvo.preview.material.texturemode");
// string: the whole material as the JSON object above, for a requester that holds only
// text. The node space reads it into the entries once (they win over entries beside it);
// nothing after the space sees text.
inline constexpr Id JSON("net.kelvo.preview.material.json");
// string: "open", "sphere", "cube" or "plane"; the sphere when absent.
inline constexpr Id SCENE("net.kelvo.preview.material.scene");
// What the node space copies into a request (SCENE goes to the request's SCENETYPE).
inline constexpr Id kAttributes[] = {MODEL, COLOUR, ENVIRONMENT, TEXTURE, IES, TEXTUREMODE};
}  // namespace PREVIEWMATERIAL

// Request attributes the provider reads beside the pipeline's own: SUBJECT (the Id
// kLegacyMaterialNodeSpace: a legacy material, whose entries sit in the request beside
// it), SCENETYPE (string, a scene name), TEXTURESIZE (the rendered size) and
// ITERATIONCOUNT (int64, 1 to 2^20; one sample per pixel each; 16 when absent).
namespace PREVIEWPROVIDERREQUEST {
// int64: the renderer's seed (0 when absent).
inline constexpr Id SEED("net.kelvo.preview.previewimagerequest.seed");
}  // namespace PREVIEWPROVIDERREQUEST

// What every delivered result of the provider holds beside the pipeline's own entries.
namespace PREVIEWRESULT {
// The output image: the mean radiance so far, linear RGB with alpha 1, rows from the top.
inline constexpr Id IMAGE("net.kelvo.preview.previewresult.image");
// int64: rays traced so far; double: seconds of rendering so far and of the last iteration.
inline constexpr Id RAYS("net.kelvo.preview.previewresult.rays");
inline constexpr Id SECONDS("net.kelvo.preview.previewresult.seconds");
inline constexpr Id ITERATIONSECONDS("net.kelvo.preview.previewresult.iterationseconds");
// string: the intersection class in use.
inline constexpr Id INTERSECTOR("net.kelvo.preview.previewresult.intersector");
// int64: iterations stopped part-way so far (preempted by a priority preview, to be run
// again later).
inline constexpr Id INTERRUPTIONS("net.kelvo.preview.previewresult.interruptions");
}  // namespace PREVIEWRESULT

}  // namespace kelvo
