// The module's binding record, yield hook, dependency list, configuration variables,
// the registries it declares or refers to, and the render data types.
#include "kelvo/config.h"
#include "kelvo/datatype.h"
#include "kelvo/entry.h"
#include "kelvo/intersectionresult.h"
#include "kelvo/legacy_renderers/samplercache.h"
#include "kelvo/projection.h"
#include "kelvo/renderray.h"
#include "kelvo/shadernodes.h"
#include "kelvo/shadingcontext.h"
#include "kelvo/shadingpoint.h"

namespace {

// The host must have these loaded before the module, in this order.
const char* const kDependencies[] = {
    "net.kelvo.core.framework",
    "net.kelvo.graph.framework",
    "net.kelvo.image.framework",
    "net.kelvo.math.framework",
    "net.kelvo.misc.framework",
    "net.kelvo.nodes.framework",
    "net.kelvo.nodes_corenodes.framework",
    "net.kelvo.nodespace.framework",
    "net.kelvo.performancemonitor.framework",
    "net.kelvo.private_render.framework",
    "net.kelvo.render.framework",
};

}  // namespace

KELVO_MODULE("net.kelvo.render", "net.kelvo.render.module", "render.module", kDependencies);

namespace {
using kelvo::ENTRYKIND;
using kelvo::Id;

// Configuration variables. The string variable deliberately has no help text.
KELVO_CONFIG_STRING(s_polygonIntersection, "g_polygonIntersection", "", "");
KELVO_CONFIG_BOOL(s_runUnitTestStatistics, "g_runUnitTestRenderStatistics", false,
                  "Run render unittest statistics");

// Registries the module defines or refers to.
#define KELVO_REGISTRY(var, id) \
    KELVO_ENTRY(var, ENTRYKIND::REGISTRY, id, Id(), Id(), nullptr, nullptr)
KELVO_REGISTRY(s_regCameras, "net.kelvo.render.registry.cameraclasses");
KELVO_REGISTRY(s_regBsdfLegacy, "net.kelvo.render.registry.bsdflegacyclasses");
KELVO_REGISTRY(s_regMicrofacetDistributions,
               "net.kelvo.render.registry.microfacetdistributionclasses");
KELVO_REGISTRY(s_regSceneObjects, "net.kelvo.render.sceneobjectclasses");
KELVO_REGISTRY(s_regIntersection, "net.kelvo.render.registry.intersectionclasses");
KELVO_REGISTRY(s_regPreviewProviders, "net.kelvo.nodes.registry.previewimageproviders");
KELVO_REGISTRY(s_regMaterialSpaces, "net.kelvo.nodes.registry.materialnodespaces");
KELVO_REGISTRY(s_regCollision2d, "net.kelvo.registry.collision2d");
KELVO_REGISTRY(s_regDataTypes, "net.kelvo.registry.datatypes");
KELVO_REGISTRY(s_regFileFormats, "net.kelvo.registry.fileformats");
KELVO_REGISTRY(s_regFileFormatHandlers, "net.kelvo.registry.fileformathandlers");
KELVO_REGISTRY(s_regNodeAttributes, "net.kelvo.node.registry.attributes");
KELVO_REGISTRY(s_regUnitTests, "net.kelvo.registry.unittestclasses");
KELVO_REGISTRY(s_regSpeedTests, "net.kelvo.registry.speedtestclasses");
#undef KELVO_REGISTRY

// Render data types.
constexpr Id kDataTypes("net.kelvo.registry.datatypes");
#define KELVO_DATATYPE(var, id, Type)                                                \
    const kelvo::DataType KELVO_CONCAT(var, _type){Id(id), kelvo::DATATYPEFLAGS_POD, \
                                                   kelvo::MakeDataTypeOps<Type>()};  \
    KELVO_ENTRY(var, ENTRYKIND::DATATYPE, id, kDataTypes, Id(), &KELVO_CONCAT(var, _type), nullptr)
KELVO_DATATYPE(s_samplerCache, "net.kelvo.render.legacy_renderers.samplercache",
               kelvo::SamplerCache);
KELVO_DATATYPE(s_bsdfLayer, "net.kelvo.render.datatype.bsdflayer", kelvo::BsdfLayer);
KELVO_DATATYPE(s_hit32, "net.kelvo.render.intersectionresult32", kelvo::IntersectionResult32);
KELVO_DATATYPE(s_hit64, "net.kelvo.render.intersectionresult64", kelvo::IntersectionResult64);
KELVO_DATATYPE(s_shadingContext, "net.kelvo.render.datatype.shadingcontext", kelvo::ShadingContext);
KELVO_DATATYPE(s_projection, "net.kelvo.render.projection", kelvo::Projection);
KELVO_DATATYPE(s_shadingPoint, "net.kelvo.render.shadingpoint", kelvo::ShadingPoint);
KELVO_DATATYPE(s_ray, "net.kelvo.render.ray", kelvo::Ray);
#undef KELVO_DATATYPE

}  // namespace
