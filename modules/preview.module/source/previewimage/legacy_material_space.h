// The node space of legacy materials (kLegacyMaterialNodeSpace): a material is the preview
// renderer's JSON object, and its preview image request goes to this module's provider.
// The space fills its own attributes and hands its description on to the host's base
// node space, which applies the defaults every space shares.
#pragma once

#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"

namespace kelvo::preview {

// Fills a request for a legacy material: SUBJECT (the material's JSON), PROVIDER (this
// module's provider class), SCENETYPE (the material's scene, the sphere by default) and
// ITERATIONCOUNT (kPreviewDefaultIterations) where the request has none of its own. Fails with
// "Illegal argument: The material has no @." without PREVIEWMATERIAL::JSON.
class ConfigureLegacyMaterialRequestImpl final
    : public Implements<nodes::ConfigurePreviewImageRequestInterface> {
public:
    Result<void> Configure(const DataDictionary& material, DataDictionary& request) override;
};

class LegacyMaterialNodeSpaceImpl final : public Implements<nodes::NodeSpaceInterface> {
public:
    Result<void> Init(const Id& spaceId, StrongRef<DataDictionary> description) override;
    Id GetId() const override;
    StrongRef<const DataDictionary> GetDescription() const override;
    StrongRef<ObservableInterface> GetObservable() const override;

private:
    StrongRef<nodes::NodeSpaceInterface> _base;
};

}  // namespace kelvo::preview
