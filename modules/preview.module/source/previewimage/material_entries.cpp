#include "previewimage/material_entries.h"

#include "kelvo/legacy_renderers/previewmaterial_json.h"
#include "kelvo/registry.h"

namespace kelvo::preview {

Result<void> ReadMaterialEntries(const DataDictionary& entries, PreviewMaterial& material,
                                 PreviewLight& light, Col3& environment) {
    namespace M = PREVIEWMATERIAL;
    material.model = entries.Get<Id>(M::MODEL, material.model);
    material.colour = entries.Get<Col3>(M::COLOUR, material.colour);
    environment = entries.Get<Col3>(M::ENVIRONMENT, environment);
    material.texture = entries.Get<Url>(M::TEXTURE, material.texture);
    light.ies = entries.Get<Url>(M::IES, light.ies);
    const int64_t mode = entries.Get<int64_t>(M::TEXTUREMODE, int64_t(material.textureMode));
    if (mode >= int64_t(TEXTUREMODE::NEAREST) && mode <= int64_t(TEXTUREMODE::SUMMEDAREA))
        material.textureMode = TEXTUREMODE(mode);
    // The BSDF data record: its keys among the request's; the renderer adds the tables.
    KELVO_ASSIGN_OR_RETURN(material.data, NewObject<DataDictionary>());
    for (const auto& k : bsdfdata::kKeys)
        if (const Data* d = entries.Find(k.key); d && k.type != bsdfdata::KEYTYPE::TABLE)
            KELVO_TRY(material.data->Set(k.key, *d));
    return OK();
}

}  // namespace kelvo::preview
