#include "previewimage/legacy_material_space.h"

#include <string>

#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"

namespace kelvo::preview {

namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

Result<void> ConfigureLegacyMaterialRequestImpl::Configure(const DataDictionary& material,
                                                           DataDictionary& request) {
    const Data* json = material.Find(PREVIEWMATERIAL::JSON);
    const std::string* text = json ? json->Get<std::string>() : nullptr;
    if (!text)
        return IllegalArgumentError(KELVO_HERE, "The material has no @.", PREVIEWMATERIAL::JSON);
    KELVO_TRY(request.Set(REQUEST::SUBJECT, *text));
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
