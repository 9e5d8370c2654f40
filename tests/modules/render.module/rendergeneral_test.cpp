#include "kelvo/rendergeneral.h"

#include <gtest/gtest.h>

#include "host.h"
#include "kelvo/registry.h"

namespace kelvo {
namespace {

constexpr Id kEmbree("net.kelvo.render.intersectionclass.embree");
constexpr Id kEmbreeSingle("net.kelvo.render.intersectionclass.embreesingle");
constexpr Id kYmb("net.kelvo.render.intersectionclass.ymb");

// A stand-in intersection engine, inserted and removed by the test.
struct StandIn {
    EntryRecord record;
    StandIn(const Id& id, const Id& kind) {
        record.kind = ENTRYKIND::CLASS;
        record.idText = id.Text().data();
        record.idSize = id.Text().size();
        record.idHash = id.Hash();
        record.registry = kIntersectionClassesRegistry;
        record.kindId = kind;
        record.source = KELVO_HERE;
        EXPECT_TRUE(host::InsertEntry(record).Ok());
    }
    ~StandIn() { host::RemoveEntry(record); }
};

class RenderGeneralTest : public testing::Test {
protected:
    void SetUp() override {
        auto made = CreateComponent<RenderGeneralInterface>();
        ASSERT_TRUE(made.Ok()) << made.GetError().Message();
        general = *made;
    }
    void TearDown() override { ASSERT_TRUE(host::ConfigSet("g_polygonIntersection", "").Ok()); }
    void Configure(std::string_view value) {
        ASSERT_TRUE(host::ConfigSet("g_polygonIntersection", value).Ok());
    }
    StrongRef<RenderGeneralInterface> general;
};

TEST_F(RenderGeneralTest, DefaultListPrefersEmbreeThenYmb) {
    {
        StandIn embree(kEmbree, kIntersectionClassKind), ymb(kYmb, kIntersectionClassKind);
        auto r = general->GetDefaultIntersector();
        ASSERT_TRUE(r.Ok());
        EXPECT_EQ((*r)->GetId(), kEmbree);
    }
    StandIn ymb(kYmb, kIntersectionClassKind);
    auto r = general->GetDefaultIntersector();
    ASSERT_TRUE(r.Ok());
    EXPECT_EQ((*r)->GetId(), kYmb);
}

TEST_F(RenderGeneralTest, NoEngineOrOnlyEngineOfAnotherKindFails) {
    auto none = general->GetDefaultIntersector();
    ASSERT_FALSE(none.Ok());
    EXPECT_EQ(none.GetError().Message(), "No default intersector found.");
    EXPECT_EQ(none.GetError().Location().Path(),
              "modules/render.module/source/implementation/rendergeneral");
    EXPECT_GT(none.GetError().Location().line, 0u);

    // An entry under the engine's id that is not an intersection class counts as absent,
    // and the single-precision engine is not on the default list.
    StandIn impostor(kEmbree, Id("net.kelvo.render.interface.camera"));
    StandIn single(kEmbreeSingle, kIntersectionClassKind);
    auto r = general->GetDefaultIntersector();
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(), "No default intersector found.");
}

TEST_F(RenderGeneralTest, NamedEngineIsUsedWithoutFallback) {
    StandIn embree(kEmbree, kIntersectionClassKind), single(kEmbreeSingle, kIntersectionClassKind);
    Configure(kEmbreeSingle.Text());
    auto r = general->GetDefaultIntersector();
    ASSERT_TRUE(r.Ok());
    EXPECT_EQ((*r)->GetId(), kEmbreeSingle);

    // A misspelt setting is an error even though the default engines are there.
    Configure("net.kelvo.render.intersectionclass.embre");
    r = general->GetDefaultIntersector();
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(),
              "Intersection class net.kelvo.render.intersectionclass.embre not found.");

    // One character takes the named path.
    Configure("x");
    r = general->GetDefaultIntersector();
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(), "Intersection class x not found.");
}

TEST_F(RenderGeneralTest, NamedClassOfAnotherKindIsNotFound) {
    StandIn camera(Id("net.kelvo.test.notanengine"), Id("net.kelvo.render.interface.camera"));
    Configure("net.kelvo.test.notanengine");
    auto r = general->GetDefaultIntersector();
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(), "Intersection class net.kelvo.test.notanengine not found.");
}

TEST_F(RenderGeneralTest, TextThatIsNoIdPassesTheConversionErrorOn) {
    Configure("has blank");
    auto r = general->GetDefaultIntersector();
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(), "Illegal argument: Invalid id 'has blank'.");
    EXPECT_EQ(r.GetError().Kind(), ERRORKIND::ILLEGALARGUMENT);
}

}  // namespace
}  // namespace kelvo
