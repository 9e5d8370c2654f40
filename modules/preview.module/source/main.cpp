// The preview module's binding record, yield hook, dependency list and its classes: the
// material-preview renderer, reached by id through the preview renderer registry, the
// preview image provider that runs it in the host's preview pipeline, and the node space
// of legacy materials whose previews that provider makes.
#include "kelvo/entry.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/previewrenderer.h"
#include "previewimage/legacy_material_space.h"
#include "previewimage/previewimage_provider.h"
#include "renderer/preview_renderer.h"

#define KELVO_EXPORT __attribute__((visibility("default")))

namespace {

// The host must have these loaded before the module, in this order.
const char* const kDependencies[] = {
    "net.kelvo.core.framework",  "net.kelvo.image.framework",          "net.kelvo.math.framework",
    "net.kelvo.nodes.framework", "net.kelvo.private_render.framework", "net.kelvo.render.framework",
};

}  // namespace

extern "C" {
// Constant-initialised, so that the entry records' static start-up can link into it.
KELVO_EXPORT KelvoBinding g_kelvo = {
    KELVO_BINDING_VERSION,
    sizeof(KelvoBinding),
    {"net.kelvo.preview",
     "net.kelvo.preview.module",
     {"modules", "preview.module"},
     kDependencies,
     sizeof(kDependencies) / sizeof(kDependencies[0]),
     nullptr,
     nullptr},
    {},
};
KELVO_EXPORT void (*g_CpuYieldDelegate)() = nullptr;
}

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
