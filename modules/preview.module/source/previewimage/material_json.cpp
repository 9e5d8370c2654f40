#include "previewimage/material_json.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "kelvo/legacy_renderers/bsdfdata_json.h"

namespace kelvo::preview {
namespace {

using nlohmann::json;

Result<double> ReadNumber(const json& v, std::string_view what) {
    if (v.is_number()) return v.get<double>();
    return IllegalArgumentError(KELVO_HERE, "@ must be a number.", what);
}

Result<std::string> ReadString(const json& v, std::string_view what) {
    if (!v.is_string()) return IllegalArgumentError(KELVO_HERE, "@ must be a string.", what);
    return v.get<std::string>();
}

Result<TEXTUREMODE> ReadTextureMode(const json& v) {
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

// An element that is no number gets the vector's wording too: "colour must be a number."
// would send the user looking for a scalar.
Result<Col3> ReadColour(const json& c, std::string_view what) {
    if (!c.is_array() || c.size() != 3 || !c[0].is_number() || !c[1].is_number() ||
        !c[2].is_number())
        return IllegalArgumentError(KELVO_HERE, "@ must be an array of 3 numbers.", what);
    return Col3{c[0].get<double>(), c[1].get<double>(), c[2].get<double>()};
}

Result<void> ReadMaterialObject(const json& j, PreviewMaterial& m, PreviewLight& light,
                                Col3& environment) {
    if (!j.is_object())
        return IllegalArgumentError(KELVO_HERE, "The material must be a JSON object.");
    for (const auto& [key, value] : j.items())
        if (key != "model" && key != "data" && key != "colour" && key != "texture" &&
            key != "ies" && key != "textureMode" && key != "environment")
            return IllegalArgumentError(KELVO_HERE, "Unknown material member '@'.", key);
    if (j.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string model, ReadString(j["model"], "model"));
        if (model.find('.') == std::string::npos)
            model = "net.kelvo.render.bsdflegacyclass." + model;
        KELVO_ASSIGN_OR_RETURN(m.model, Id::FromText(model));
    }
    KELVO_ASSIGN_OR_RETURN(m.data, NewObject<DataDictionary>());
    if (j.contains("data"))  // the renderer adds the distribution tables itself
        KELVO_TRY(bsdfdata::ReadJson(j["data"], *m.data, ReadNumber, "Unknown BSDF data key '@'."));
    if (j.contains("colour")) {
        KELVO_ASSIGN_OR_RETURN(m.colour, ReadColour(j["colour"], "colour"));
    }
    if (j.contains("environment")) {
        KELVO_ASSIGN_OR_RETURN(environment, ReadColour(j["environment"], "environment"));
    }
    if (j.contains("texture")) {
        KELVO_ASSIGN_OR_RETURN(std::string url, ReadString(j["texture"], "texture"));
        KELVO_ASSIGN_OR_RETURN(m.texture, Url::FromText(url));
    }
    if (j.contains("textureMode")) {
        KELVO_ASSIGN_OR_RETURN(m.textureMode, ReadTextureMode(j["textureMode"]));
    }
    if (j.contains("ies")) {
        KELVO_ASSIGN_OR_RETURN(std::string url, ReadString(j["ies"], "ies"));
        KELVO_ASSIGN_OR_RETURN(light.ies, Url::FromText(url));
    }
    return OK();
}

}  // namespace

Result<void> ReadMaterialJson(std::string_view text, PreviewMaterial& material, PreviewLight& light,
                              Col3& environment) {
    return CatchOutOfMemory([&]() -> Result<void> {
        json j;
        try {
            j = json::parse(text);
        } catch (const json::out_of_range&) {
            return IllegalArgumentError(KELVO_HERE,
                                        "The material holds a number beyond the range of doubles.");
        } catch (const json::parse_error& e) {
            return IllegalArgumentError(KELVO_HERE, "The material is not valid JSON (byte @).",
                                        e.byte);
        }
        return ReadMaterialObject(j, material, light, environment);
    });
}

}  // namespace kelvo::preview
