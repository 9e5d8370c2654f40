#include <gtest/gtest.h>

#include "host.h"
#include "kelvo/config.h"
#include "kelvo/data.h"
#include "kelvo/legacy_renderers/samplercache.h"
#include "kelvo/registry.h"
#include "kelvo/renderray.h"

namespace kelvo {
namespace {

TEST(RenderDataTypesTest, EveryTypeIsRegisteredWithItsLayout) {
    const std::pair<Id, size_t> types[] = {
        {Id("net.kelvo.render.ray"), sizeof(Ray)},
        {Id("net.kelvo.render.shadingpoint"), 0},
        {Id("net.kelvo.render.projection"), 0},
        {Id("net.kelvo.render.datatype.shadingcontext"), 0},
        {Id("net.kelvo.render.intersectionresult64"), 0},
        {Id("net.kelvo.render.intersectionresult32"), 0},
        {Id("net.kelvo.render.datatype.bsdflayer"), 0},
        {Id("net.kelvo.nodes.datatype.nodespaces"), 0},
        {Id("net.kelvo.render.legacy_renderers.samplercache"), 1203000 * sizeof(float)},
    };
    for (const auto& [id, size] : types) {
        const DataType* t = FindDataType(id);
        ASSERT_NE(t, nullptr) << id.Text();
        if (size) {
            EXPECT_EQ(t->ops.size, size) << id.Text();
        }
    }
    EXPECT_EQ(RegistryMembers(Id("net.kelvo.registry.datatypes")).size(), 12u);
}

TEST(RenderDataTypesTest, RayLayoutKeepsTheLeadingMembersInOrder) {
    // Cameras and renderers from other modules rely on these offsets.
    EXPECT_EQ(offsetof(Ray, origin), 0u);
    EXPECT_EQ(offsetof(Ray, direction), 3 * sizeof(double));
    EXPECT_EQ(offsetof(Ray, rendererData), 6 * sizeof(double));
    EXPECT_EQ(offsetof(Ray, xDifferentialOrigin), 10 * sizeof(double));
    EXPECT_EQ(offsetof(Ray, yDifferentialOrigin), 13 * sizeof(double));
    EXPECT_EQ(offsetof(Ray, xDifferentialDirection), 16 * sizeof(double));
    EXPECT_EQ(offsetof(Ray, yDifferentialDirection), 19 * sizeof(double));
}

TEST(RenderDataTypesTest, RayCopiedThroughTheTypeKeepsRendererMembers) {
    Ray ray;
    ray.origin = {1, 2, 3};
    ray.direction = {0, 0, 1};
    ray.rendererData[0] = 7.5;
    ray.rendererData[3] = -1.25;
    ray.yDifferentialDirection = {0.1, 0.2, 0.3};
    ray.time = 0.25;
    ray.depth = 3;
    ray.flags = 0x80000001u;
    const DataType* type = FindDataType(Id("net.kelvo.render.ray"));
    ASSERT_NE(type, nullptr);

    DataDictionary dict;
    ASSERT_TRUE(dict.Set(Id("ray"), Data::Custom(type, &ray)).Ok());
    DataDictionary copy = dict;
    const Ray* back = copy.Find(Id("ray"))->GetCustom<Ray>(Id("net.kelvo.render.ray"));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(*back, ray);
    EXPECT_TRUE(type->ops.equal(back, &ray));
    EXPECT_EQ(type->ops.hash(back), type->ops.hash(&ray));
    EXPECT_EQ(copy, dict);
}

TEST(ModuleFrameTest, ConfigurationVariablesAreDeclaredWithTheirDefaults) {
    auto text = ConfigGetString("g_polygonIntersection");
    ASSERT_TRUE(text.Ok());
    EXPECT_EQ(*text, "");  // declared and empty, not absent
    auto stats = ConfigGetBool("g_runUnitTestRenderStatistics");
    ASSERT_TRUE(stats.Ok());
    EXPECT_FALSE(*stats);
    auto missing = ConfigGetString("g_noSuchVariable");
    ASSERT_FALSE(missing.Ok());
    EXPECT_EQ(missing.GetError().Message(),
              "Illegal argument: Configuration variable g_noSuchVariable not found.");
}

TEST(ModuleFrameTest, ModuleRegistriesAreDefined) {
    for (const char* id :
         {"net.kelvo.render.registry.cameraclasses", "net.kelvo.render.registry.bsdflegacyclasses",
          "net.kelvo.render.sceneobjectclasses"}) {
        bool found = false;
        for (const auto& reg : host::Registries()) found = found || reg.id.Text() == id;
        EXPECT_TRUE(found) << id;
    }
}

}  // namespace
}  // namespace kelvo
