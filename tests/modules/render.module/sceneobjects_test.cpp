#include <gtest/gtest.h>

#include <cmath>

#include "host.h"
#include "kelvo/registry.h"
#include "kelvo/sceneobject.h"

namespace kelvo {
namespace {
namespace A = SCENEOBJECTATTRIBUTES;

template <typename I>
StrongRef<I> Make(const Id& classId) {
    auto made = CreateClass<SceneObjectInterface>(classId);
    EXPECT_TRUE(made.Ok()) << made.GetError().Message();
    return made ? Query<I>(*made) : nullptr;
}

double Luminance(const Col3& c) { return 0.2126729 * c.r + 0.7151522 * c.g + 0.0721750 * c.b; }

// CIE 1931 chromaticity of a linear Rec. 709 colour.
Vec2 Chromaticity(const Col3& c) {
    double x = 0.4124564 * c.r + 0.3575761 * c.g + 0.1804375 * c.b;
    double y = 0.2126729 * c.r + 0.7151522 * c.g + 0.0721750 * c.b;
    double z = 0.0193339 * c.r + 0.1191920 * c.g + 0.9503041 * c.b;
    return {x / (x + y + z), y / (x + y + z)};
}

TEST(SceneObjectTest, ThreeClassesWithTheirInterfaces) {
    EXPECT_EQ(RegistryMembers(kSceneObjectClassesRegistry).size(), 3u);
    EXPECT_NE(Make<SceneObjectInterface>(kSceneObjectBaseClass), nullptr);
    EXPECT_EQ(Make<CameraObjectInterface>(kSceneObjectBaseClass), nullptr);
    EXPECT_NE(Make<CameraObjectInterface>(kSceneObjectCameraClass), nullptr);
    EXPECT_NE(Make<LightObjectInterface>(kSceneObjectLightClass), nullptr);
    auto light = Make<SceneObjectInterface>(kSceneObjectLightClass);
    EXPECT_EQ(light->GetAttributeIds().size(), 7u);
    EXPECT_EQ(light->GetAttributeIds()[0], A::MATRIX);
}

TEST(SceneObjectTest, AttributesAreCheckedWhenSet) {
    auto camera = Make<SceneObjectInterface>(kSceneObjectCameraClass);
    EXPECT_EQ(camera->GetAttribute(A::FOCALLENGTH), Data(36.0));
    EXPECT_TRUE(camera->GetAttribute(A::SHAPE).IsEmpty());
    ASSERT_TRUE(camera->SetAttribute(A::FOCALLENGTH, 50).Ok());  // an int reads as a number
    EXPECT_EQ(camera->GetAttribute(A::FOCALLENGTH), Data(50.0));

    auto fails = [&](const Id& id, Data value) {
        auto r = camera->SetAttribute(id, value);
        return r ? std::string("no error") : r.GetError().Message();
    };
    EXPECT_EQ(fails(A::SHAPE, 1),
              "Illegal argument: net.kelvo.render.sceneobject.light.shape is no attribute of "
              "net.kelvo.render.sceneobject.camera.");
    EXPECT_EQ(
        fails(A::ZOOM, "2"),
        "Illegal argument: Attribute net.kelvo.render.sceneobject.camera.zoom must be a number.");
    EXPECT_EQ(fails(A::ZOOM, 0.0),
              "Illegal argument: Attribute net.kelvo.render.sceneobject.camera.zoom must be "
              "greater than 0.");
    EXPECT_EQ(fails(A::FOCALLENGTH, std::nan("")),
              "Illegal argument: Attribute net.kelvo.render.sceneobject.camera.focallength must be "
              "greater than 0.");
    EXPECT_EQ(fails(A::PROJECTION, Id("net.kelvo.render.cameraclass.fisheye")),
              "Illegal argument: Attribute net.kelvo.render.sceneobject.camera.projection must be "
              "net.kelvo.render.cameraclass.perspective or net.kelvo.render.cameraclass.parallel.");
    EXPECT_EQ(camera->GetAttribute(A::ZOOM), Data(1.0));  // failed sets change nothing

    auto light = Make<SceneObjectInterface>(kSceneObjectLightClass);
    EXPECT_FALSE(light->SetAttribute(A::SHAPE, 6).Ok());
    EXPECT_FALSE(light->SetAttribute(A::SAMPLECOUNT, 0).Ok());
    EXPECT_FALSE(light->SetAttribute(A::SAMPLECOUNT, 4.0).Ok());  // whole numbers only
    EXPECT_FALSE(light->SetAttribute(A::COLORTEMPERATURE, 500.0).Ok());
    EXPECT_TRUE(light->SetAttribute(A::COLORTEMPERATURE, 0.0).Ok());
}

TEST(CameraObjectTest, FullFrameLensGivesFieldOfViewOneAndZoomHalvesIt) {
    auto object = Make<SceneObjectInterface>(kSceneObjectCameraClass);
    auto camera = Query<CameraObjectInterface>(object);
    ASSERT_TRUE(object->SetAttribute(A::FOCALLENGTH, 36.0).Ok());
    ASSERT_TRUE(object->SetAttribute(A::SENSORSIZE, 36.0).Ok());
    auto params = camera->GetCameraParameters({640, 480});
    ASSERT_TRUE(params.Ok());
    EXPECT_EQ((*params)->Get<double>(CAMERAPARAMETERS::FIELDOFVIEW), 1.0);
    EXPECT_EQ((*params)->Get<Vec2>(CAMERAPARAMETERS::WINDOWTO), (Vec2{640, 480}));

    auto made = camera->CreateCamera({640, 480}, false);
    ASSERT_TRUE(made.Ok()) << made.GetError().Message();
    Ray ray;
    (*made)->CreateScreenRay({640, 240}, ray);
    EXPECT_NEAR(std::atan2(ray.direction.x, ray.direction.z) * 180 / M_PI, 26.565051177, 1e-8);

    ASSERT_TRUE(object->SetAttribute(A::ZOOM, 2.0).Ok());
    EXPECT_EQ(
        (*camera->GetCameraParameters({640, 480}))->Get<double>(CAMERAPARAMETERS::FIELDOFVIEW),
        0.5);
}

TEST(CameraObjectTest, FilmOffsetMovesTheCentreAndFrameWidthSizesParallelViews) {
    auto object = Make<SceneObjectInterface>(kSceneObjectCameraClass);
    auto camera = Query<CameraObjectInterface>(object);
    ASSERT_TRUE(object->SetAttribute(A::FILMOFFSET, Vec2{0.1, -0.05}).Ok());
    auto made = camera->CreateCamera({640, 480}, false);
    ASSERT_TRUE(made.Ok());
    Ray ray;
    // A tenth of the sensor width is 64 of 640 pixels, in y as in x.
    (*made)->CreateScreenRay({320 + 64, 240 - 32}, ray);
    EXPECT_EQ(ray.direction, (Vec3{0, 0, 1}));

    ASSERT_TRUE(object->SetAttribute(A::PROJECTION, kParallelCameraClass).Ok());
    ASSERT_TRUE(object->SetAttribute(A::FRAMEWIDTH, 10.0).Ok());
    ASSERT_TRUE(object->SetAttribute(A::FILMOFFSET, Vec2{0, 0}).Ok());
    Matrix m;
    m.offset = {0, 0, -5};
    ASSERT_TRUE(object->SetAttribute(A::MATRIX, m).Ok());
    made = camera->CreateCamera({640, 480}, false);
    ASSERT_TRUE(made.Ok());
    Ray left, right;
    (*made)->CreateScreenRay({0, 240}, left);
    (*made)->CreateScreenRay({640, 240}, right);
    EXPECT_NEAR(right.origin.x - left.origin.x, 10.0, 1e-12);
    EXPECT_EQ(left.origin.z, -5);
}

TEST(CameraObjectTest, OutOfMemoryIsReportedWithoutLeaks) {
    auto camera = Make<CameraObjectInterface>(kSceneObjectCameraClass);
    const int64_t live = host::LiveAllocations();
    for (int n = 1; n <= 4; ++n) {
        host::FailNthAllocation(n);
        auto r = camera->GetCameraParameters({64, 64});
        host::FailNthAllocation(0);
        ASSERT_FALSE(r.Ok()) << n;
        EXPECT_EQ(r.GetError().Message(), "Out of memory.");
    }
    EXPECT_EQ(host::LiveAllocations(), live);
}

TEST(LightObjectTest, ColourTemperaturesHaveLuminanceOne) {
    auto object = Make<SceneObjectInterface>(kSceneObjectLightClass);
    auto light = Query<LightObjectInterface>(object);
    // 6504 K (the default) is near white; the black body sits a little below D65 in y.
    Col3 white = light->GetColor();
    EXPECT_NEAR(Luminance(white), 1.0, 1e-12);
    for (double c : {white.r, white.g, white.b}) EXPECT_NEAR(c, 1.0, 0.05);
    Vec2 xy = Chromaticity(white);
    EXPECT_NEAR(xy.x, 0.3135, 0.002);
    EXPECT_NEAR(xy.y, 0.3237, 0.002);

    // 2700 K is warm: red above green above blue, on the Planckian locus.
    ASSERT_TRUE(object->SetAttribute(A::COLORTEMPERATURE, 2700).Ok());
    Col3 warm = light->GetColor();
    EXPECT_NEAR(Luminance(warm), 1.0, 1e-12);
    EXPECT_GT(warm.r, warm.g);
    EXPECT_GT(warm.g, warm.b);
    xy = Chromaticity(warm);
    EXPECT_NEAR(xy.x, 0.4599, 0.002);
    EXPECT_NEAR(xy.y, 0.4106, 0.002);

    // 1000 K lies outside the Rec. 709 gamut: blue is clipped, luminance kept.
    ASSERT_TRUE(object->SetAttribute(A::COLORTEMPERATURE, 1000).Ok());
    Col3 deep = light->GetColor();
    EXPECT_EQ(deep.b, 0.0);
    EXPECT_NEAR(Luminance(deep), 1.0, 1e-12);

    ASSERT_TRUE(object->SetAttribute(A::COLORTEMPERATURE, 0).Ok());
    ASSERT_TRUE(object->SetAttribute(A::INTENSITY, 2.5).Ok());
    EXPECT_EQ(light->GetEmission(), (Col3{2.5, 2.5, 2.5}));
    ASSERT_TRUE(object->SetAttribute(A::SHAPE, int64_t(LIGHTSHAPE::RECTANGLE)).Ok());
    EXPECT_EQ(light->GetShape(), LIGHTSHAPE::RECTANGLE);
    EXPECT_EQ(light->GetSampleCount(), 16);
}

}  // namespace
}  // namespace kelvo
