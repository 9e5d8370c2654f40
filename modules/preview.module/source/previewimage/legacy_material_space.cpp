#include "previewimage/legacy_material_space.h"

#include <nlohmann/json.hpp>
#include <string>

#include "kelvo/legacy_renderers/previewmaterial_json.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"

namespace kelvo::preview {

namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

namespace {

// A material given as text: parsed here, once, into the request's entries (none of them
// when the text fails).
Result<void> ReadMaterialText(const std::string& text, DataDictionary& request) {
    using nlohmann::json;
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
        DataDictionary entries;
        KELVO_TRY(ReadPreviewMaterialJson(j, entries));
        for (const auto& [key, value] : entries) KELVO_TRY(request.Set(key, value));
        return OK();
    });
}

}  // namespace

Result<void> ConfigureLegacyMaterialRequestImpl::Configure(const DataDictionary& material,
                                                           DataDictionary& request) {
    // The material's entries go into the request as they are: read once, never as text.
    for (const auto& [key, value] : material)
        if (IsPreviewMaterialEntry(key)) KELVO_TRY(request.Set(key, value));
    if (const Data* json = material.Find(PREVIEWMATERIAL::JSON)) {
        const std::string* text = json->Get<std::string>();
        if (!text)
            return IllegalArgumentError(KELVO_HERE, "@ must be a string.", PREVIEWMATERIAL::JSON);
        KELVO_TRY(ReadMaterialText(*text, request));
    }
    KELVO_TRY(request.Set(REQUEST::SUBJECT, kLegacyMaterialNodeSpace));
    KELVO_TRY(request.Set(REQUEST::PROVIDER, kPreviewImageProviderClass));
    if (const Data* scene = material.Find(PREVIEWMATERIAL::SCENE)) {
        KELVO_TRY(request.Set(REQUEST::SCENETYPE, *scene));
    } else if (!request.Contains(REQUEST::SCENETYPE)) {
        KELVO_TRY(
            request.Set(REQUEST::SCENETYPE, std::string(PreviewSceneName(PREVIEWSCENE::SPHERE))));
    }
    if (!request.Contains(REQUEST::ITERATIONCOUNT))
        KELVO_TRY(request.Set(REQUEST::ITERATIONCOUNT, kPreviewDefaultIterations));
    return OK();
}

Result<void> LegacyMaterialNodeSpaceImpl::Init(const Id& spaceId,
                                               StrongRef<DataDictionary> description) {
    if (!description)
        return IllegalArgumentError(KELVO_HERE, "The node space @ has no description.", spaceId);
    if (!description->Contains(nodes::NODESPACE::SPACENAME))
        KELVO_TRY(description->Set(nodes::NODESPACE::SPACENAME, std::string("Legacy materials")));
    KELVO_ASSIGN_OR_RETURN(StrongRef<ConfigureLegacyMaterialRequestImpl> configure,
                           NewObject<ConfigureLegacyMaterialRequestImpl>());
    KELVO_TRY(description->Set(nodes::NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC,
                               StrongRef<Object>(std::move(configure))));
    KELVO_ASSIGN_OR_RETURN(_base,
                           CreateClass<nodes::NodeSpaceInterface>(nodes::kNodeSpaceBaseClass));
    return _base->Init(spaceId, std::move(description));
}

Id LegacyMaterialNodeSpaceImpl::GetId() const { return _base ? _base->GetId() : Id(); }

StrongRef<const DataDictionary> LegacyMaterialNodeSpaceImpl::GetDescription() const {
    return _base ? _base->GetDescription() : nullptr;
}

StrongRef<ObservableInterface> LegacyMaterialNodeSpaceImpl::GetObservable() const {
    return _base ? _base->GetObservable() : nullptr;
}

}  // namespace kelvo::preview
