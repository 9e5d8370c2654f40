// A legacy material read from the preview renderer's JSON object (kelvo/previewmaterials.h)
// into its typed dictionary, once, by whoever holds the text (nlohmann::json, or any type
// with its interface). The preview provider reads the typed entries and never sees text.
#pragma once

#include <algorithm>
#include <iterator>
#include <string>
#include <string_view>
#include <utility>

#include "kelvo/data.h"
#include "kelvo/legacy_renderers/bsdfdata_json.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/result.h"
#include "kelvo/texture.h"

namespace kelvo {

// Whether `key` belongs to a legacy material: one of PREVIEWMATERIAL's attributes or a
// BSDF data key that text may give (tables are never read from text).
inline bool IsPreviewMaterialEntry(const DataDictionary::Key& key) {
    const Id* id = std::get_if<Id>(&key);
    if (!id) return false;
    for (const Id& a : PREVIEWMATERIAL::kAttributes)
        if (a == *id) return true;
    for (const auto& k : bsdfdata::kKeys)
        if (k.key == *id) return k.type != bsdfdata::KEYTYPE::TABLE;
    return false;
}

namespace previewmaterial_json {

template <typename Json>
Result<double> ReadNumber(const Json& v, std::string_view what) {
    if (v.is_number()) return v.template get<double>();
    return IllegalArgumentError(KELVO_HERE, "@ must be a number.", what);
}

template <typename Json>
Result<std::string> ReadString(const Json& v, std::string_view what) {
    if (!v.is_string()) return IllegalArgumentError(KELVO_HERE, "@ must be a string.", what);
    return v.template get<std::string>();
}

// An element that is no number gets the vector's wording too: "colour must be a number."
// would send the user looking for a scalar.
template <typename Json>
Result<Col3> ReadColour(const Json& c, std::string_view what) {
    if (!c.is_array() || c.size() != 3 || !c[0].is_number() || !c[1].is_number() ||
        !c[2].is_number())
        return IllegalArgumentError(KELVO_HERE, "@ must be an array of 3 numbers.", what);
    return Col3{c[0].template get<double>(), c[1].template get<double>(),
                c[2].template get<double>()};
}

template <typename Json>
Result<TEXTUREMODE> ReadTextureMode(const Json& v) {
    KELVO_ASSIGN_OR_RETURN(std::string mode, ReadString(v, "textureMode"));
    constexpr std::pair<std::string_view, TEXTUREMODE> kModes[] = {
        {"nearest", TEXTUREMODE::NEAREST},
        {"bilinear", TEXTUREMODE::BILINEAR},
        {"mipmap", TEXTUREMODE::MIPMAP},
        {"ripmap", TEXTUREMODE::RIPMAP},
        {"summedarea", TEXTUREMODE::SUMMEDAREA}};
    auto it = std::find_if(std::begin(kModes), std::end(kModes),
                           [&](const auto& p) { return p.first == mode; });
    if (it == std::end(kModes))
        return IllegalArgumentError(
            KELVO_HERE, "Unknown texture mode '@' (nearest, bilinear, mipmap, ripmap, summedarea).",
            mode);
    return it->second;
}

}  // namespace previewmaterial_json

// Reads the material object `j` into `material` (entries it names are replaced, others
// kept). Fails with "Illegal argument: The material must be a JSON object.", "Illegal
// argument: Unknown material member '@'.", "Illegal argument: Unknown BSDF data key '@'."
// and the members' own type errors ("colour must be an array of 3 numbers.", ...).
template <typename Json>
Result<void> ReadPreviewMaterialJson(const Json& j, DataDictionary& material) {
    namespace P = previewmaterial_json;
    namespace M = PREVIEWMATERIAL;
    if (!j.is_object())
        return IllegalArgumentError(KELVO_HERE, "The material must be a JSON object.");
    for (const auto& [key, value] : j.items())
        if (key != "model" && key != "data" && key != "colour" && key != "texture" &&
            key != "ies" && key != "textureMode" && key != "environment")
            return IllegalArgumentError(KELVO_HERE, "Unknown material member '@'.", key);
    if (j.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string model, P::ReadString(j["model"], "model"));
        if (model.find('.') == std::string::npos)
            model = "net.kelvo.render.bsdflegacyclass." + model;
        KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText(model));
        KELVO_TRY(material.Set(M::MODEL, id));
    }
    if (j.contains("data"))  // the renderer adds the distribution tables itself
        KELVO_TRY(bsdfdata::ReadJson(j["data"], material, P::ReadNumber<Json>,
                                     "Unknown BSDF data key '@'."));
    if (j.contains("colour")) {
        KELVO_ASSIGN_OR_RETURN(Col3 colour, P::ReadColour(j["colour"], "colour"));
        KELVO_TRY(material.Set(M::COLOUR, colour));
    }
    if (j.contains("environment")) {
        KELVO_ASSIGN_OR_RETURN(Col3 environment, P::ReadColour(j["environment"], "environment"));
        KELVO_TRY(material.Set(M::ENVIRONMENT, environment));
    }
    if (j.contains("texture")) {
        KELVO_ASSIGN_OR_RETURN(std::string url, P::ReadString(j["texture"], "texture"));
        KELVO_ASSIGN_OR_RETURN(Url texture, Url::FromText(url));
        KELVO_TRY(material.Set(M::TEXTURE, texture));
    }
    if (j.contains("textureMode")) {
        KELVO_ASSIGN_OR_RETURN(TEXTUREMODE mode, P::ReadTextureMode(j["textureMode"]));
        KELVO_TRY(material.Set(M::TEXTUREMODE, int64_t(mode)));
    }
    if (j.contains("ies")) {
        KELVO_ASSIGN_OR_RETURN(std::string url, P::ReadString(j["ies"], "ies"));
        KELVO_ASSIGN_OR_RETURN(Url ies, Url::FromText(url));
        KELVO_TRY(material.Set(M::IES, ies));
    }
    return OK();
}

}  // namespace kelvo
