// Scene objects: the cameras and lights of a scene as attribute sets, and what a
// renderer derives from them (camera parameters, light colours).
//
// Every scene object has the base attributes; a camera object adds the camera
// attributes, a light object the light attributes. Attribute values are checked when
// they are set; an attribute that was never set reads as its default. A scene object is
// used by one thread at a time; the cameras it creates are shared like any camera.
//
// Base attributes (ids "net.kelvo.render.sceneobject.base.<name>"):
//   matrix    Matrix   object to world (the camera's camera-to-world matrix)   identity
//   name      string   free text                                              ""
//   visible   bool     whether renderers include the object                   true
//
// Camera attributes (ids "net.kelvo.render.sceneobject.camera.<name>"):
//   projection   Id      camera class: kPerspectiveCameraClass or kParallelCameraClass
//                                                                        perspective
//   focallength  double  millimetres, > 0                                  36
//   sensorsize   double  sensor (film) width in millimetres, > 0           36
//   zoom         double  factor on the focal length, > 0                   1
//   filmoffset   Vec2    shift of the image centre as a fraction of the sensor width,
//                        in screen directions (x right, y down)           (0, 0)
//   framewidth   double  parallel projection: the image width in scene units, > 0
//                                                                          100
//   nearclipping, farclipping                double  scene units, >= 0    1, 100000
//   nearclippingenabled, farclippingenabled  bool                         false, false
//
// Light attributes (ids "net.kelvo.render.sceneobject.light.<name>"):
//   shape             int     LIGHTSHAPE                                    POINT
//   intensity         double  >= 0; candela for point and spot lights, candela per
//                             square metre (nits) for area shapes, lux for distant
//                             lights                                        1
//   colortemperature  double  kelvin: 0 (no temperature, white) or 1000 to 40000
//                                                                           6504
//   samplecount       int     shadow/area samples per shading point, 1 to 65536
//                                                                           16
#pragma once

#include <cstdint>
#include <span>

#include "kelvo/camera.h"
#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

inline constexpr Id kSceneObjectClassesRegistry("net.kelvo.render.sceneobjectclasses");
inline constexpr Id kSceneObjectBaseClass("net.kelvo.render.sceneobject.base");
inline constexpr Id kSceneObjectCameraClass("net.kelvo.render.sceneobject.camera");
inline constexpr Id kSceneObjectLightClass("net.kelvo.render.sceneobject.light");

namespace SCENEOBJECTATTRIBUTES {
inline constexpr Id MATRIX("net.kelvo.render.sceneobject.base.matrix");
inline constexpr Id NAME("net.kelvo.render.sceneobject.base.name");
inline constexpr Id VISIBLE("net.kelvo.render.sceneobject.base.visible");

inline constexpr Id PROJECTION("net.kelvo.render.sceneobject.camera.projection");
inline constexpr Id FOCALLENGTH("net.kelvo.render.sceneobject.camera.focallength");
inline constexpr Id SENSORSIZE("net.kelvo.render.sceneobject.camera.sensorsize");
inline constexpr Id ZOOM("net.kelvo.render.sceneobject.camera.zoom");
inline constexpr Id FILMOFFSET("net.kelvo.render.sceneobject.camera.filmoffset");
inline constexpr Id FRAMEWIDTH("net.kelvo.render.sceneobject.camera.framewidth");
inline constexpr Id NEARCLIPPING("net.kelvo.render.sceneobject.camera.nearclipping");
inline constexpr Id FARCLIPPING("net.kelvo.render.sceneobject.camera.farclipping");
inline constexpr Id NEARCLIPPINGENABLED("net.kelvo.render.sceneobject.camera.nearclippingenabled");
inline constexpr Id FARCLIPPINGENABLED("net.kelvo.render.sceneobject.camera.farclippingenabled");

inline constexpr Id SHAPE("net.kelvo.render.sceneobject.light.shape");
inline constexpr Id INTENSITY("net.kelvo.render.sceneobject.light.intensity");
inline constexpr Id COLORTEMPERATURE("net.kelvo.render.sceneobject.light.colortemperature");
inline constexpr Id SAMPLECOUNT("net.kelvo.render.sceneobject.light.samplecount");
}  // namespace SCENEOBJECTATTRIBUTES

enum class LIGHTSHAPE : int64_t {
    POINT = 0,
    SPOT = 1,
    DISTANT = 2,    // parallel light along the object's zAxis
    RECTANGLE = 3,  // area light spanned by the object's xAxis and yAxis
    DISC = 4,
    SPHERE = 5,
};

// Every class of net.kelvo.render.sceneobjectclasses implements this.
class SceneObjectInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.sceneobject"); }

    // Sets an attribute. An int is accepted where a double is expected. Errors:
    // "Illegal argument: @ is no attribute of @." (attribute, class),
    // "Illegal argument: Attribute @ must be @." (a type, or a range), or out of memory.
    virtual Result<void> SetAttribute(const Id& attribute, const Data& value) = 0;
    // The attribute's value or its default; empty for an id that is no attribute here.
    virtual Data GetAttribute(const Id& attribute) const = 0;
    // The attributes of this object, base attributes first.
    virtual std::span<const Id> GetAttributeIds() const = 0;
};

class CameraObjectInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.cameraobject"); }

    // A new camera parameter dictionary for an image of `resolution` pixels: the matrix,
    // the resolution, the window (0, 0) to resolution, the clipping values, and
    //   perspective: fieldofview = sensorsize / (focallength * zoom) (a ratio: the right
    //                edge's ray has tan = fieldofview / 2), screen scale (1, 1);
    //   parallel:    screen scale zoom / framewidth in both directions;
    //   both:        screen offset = filmoffset * width pixels.
    virtual Result<StrongRef<DataDictionary>> GetCameraParameters(const Vec2& resolution) const = 0;
    // A camera of the projection's class, initialised with GetCameraParameters.
    virtual Result<StrongRef<CameraInterface>> CreateCamera(const Vec2& resolution,
                                                            bool flipped) const = 0;
};

class LightObjectInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.lightobject"); }

    virtual LIGHTSHAPE GetShape() const = 0;
    // The linear Rec. 709 colour of luminance 1 of a black body at the colour
    // temperature (white for 0). Components outside the gamut are clipped to 0 and the
    // colour rescaled to luminance 1.
    virtual Col3 GetColor() const = 0;
    // GetColor() * intensity.
    virtual Col3 GetEmission() const = 0;
    virtual int64_t GetSampleCount() const = 0;
};

}  // namespace kelvo
