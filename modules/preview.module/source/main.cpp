// The preview module's binding record, yield hook, dependency list and its classes: the
// material-preview renderer, reached by id through the preview renderer registry, the
// preview image provider that runs it in the render module's preview pipeline, and the node
// space of legacy materials whose previews that provider makes.
#include "kelvo/entry.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "previewimage/legacy_material_space.h"
#include "previewimage/previewimage_provider.h"
#include "renderer/preview_renderer.h"

namespace {

// The host must have these loaded before the module, in this order.
const char* const kDependencies[] = {
    "net.kelvo.core.framework",  "net.kelvo.image.framework",          "net.kelvo.math.framework",
    "net.kelvo.nodes.framework", "net.kelvo.private_render.framework", "net.kelvo.render.framework",
};

}  // namespace

KELVO_MODULE("net.kelvo.preview", "net.kelvo.preview.module", "preview.module", kDependencies);

namespace {
KELVO_ENTRY(s_regPreviewRenderers, ::kelvo::ENTRYKIND::REGISTRY,
            "net.kelvo.render.registry.previewrendererclasses", ::kelvo::Id(), ::kelvo::Id(),
            nullptr, nullptr);
KELVO_REGISTER_CLASS(s_pathTracer, "net.kelvo.preview.previewrendererclass.pathtracer",
                     ::kelvo::kPreviewRendererClasses,
                     ::kelvo::PreviewRendererInterface::InterfaceId(),
                     ::kelvo::preview::PreviewRendererImpl);
KELVO_REGISTER_CLASS(s_previewProvider, "net.kelvo.preview.previewimageprovider.pathtracer",
                     ::kelvo::nodes::kPreviewImageProvidersRegistry,
                     ::kelvo::nodes::PreviewImageProviderInterface::InterfaceId(),
                     ::kelvo::preview::PreviewImageProviderImpl);
KELVO_REGISTER_CLASS(s_legacyMaterialSpace, "net.kelvo.preview.nodespace.legacymaterial",
                     ::kelvo::nodes::kMaterialNodeSpacesRegistry,
                     ::kelvo::nodes::NodeSpaceInterface::InterfaceId(),
                     ::kelvo::preview::LegacyMaterialNodeSpaceImpl);
}  // namespace
