// Cameras: turn image positions into rays with ray differentials and convert points
// between world, camera and screen space.
//
// Matrices map camera space to world space; the camera looks along its zAxis, xAxis is
// the screen's horizontal axis and yAxis its vertical one. Screen points are pixels:
// x grows to the right and y grows downward (camera y grows upward). Where a depth goes
// with a screen point, its z is the camera-space depth and passes through unchanged.
#pragma once

#include <cstdint>

#include "kelvo/data.h"
#include "kelvo/matrix.h"
#include "kelvo/object.h"
#include "kelvo/renderray.h"
#include "kelvo/result.h"
#include "kelvo/shadingpoint.h"
#include "kelvo/vec.h"

namespace kelvo {

// Registry of the camera classes; its members are classes of kind CameraInterface.
inline constexpr Id kCameraClassesRegistry("net.kelvo.render.registry.cameraclasses");
inline constexpr Id kPerspectiveCameraClass("net.kelvo.render.cameraclass.perspective");
inline constexpr Id kParallelCameraClass("net.kelvo.render.cameraclass.parallel");

// Ids of the parameter dictionary handed to CameraInterface::Init. A value of another
// type than the one given here reads as absent.
namespace CAMERAPARAMETERS {
// Matrix, camera to world. Default: identity.
inline constexpr Id MATRIX("net.kelvo.render.camera.cameraparameters.matrix");
// Vec2, width and height in pixels. Default: (0, 0).
inline constexpr Id SCREENRESOLUTION("net.kelvo.render.camera.cameraparameters.screenresolution");
// Vec2, pixels added to the image centre. Default: (0, 0).
inline constexpr Id SCREENOFFSET("net.kelvo.render.camera.cameraparameters.screenoffset");
// Vec2; both components are multiplied by the screen width (one screen unit has the same
// length in x and y whatever the aspect ratio). Default: (1, 1).
inline constexpr Id SCREENSCALE("net.kelvo.render.camera.cameraparameters.screenscale");
// Vec2, the render window's first corner; stored only. Default: (0, 0). The id is
// spelled "windowform": callers match it byte for byte.
inline constexpr Id WINDOWFROM("net.kelvo.render.camera.cameraparameters.windowform");
// Vec2, the render window's second corner; stored only. Default: the screen resolution.
inline constexpr Id WINDOWTO("net.kelvo.render.camera.cameraparameters.windowto");
// double, perspective only: the tangent of the image's half width times two (the right
// edge's ray has tan = fieldofview / 2). It is a ratio, not an angle. Default: 0.5.
inline constexpr Id FIELDOFVIEW("net.kelvo.render.camera.cameraparameters.fieldofview");
// double and bool: clipping planes for renderers; the camera classes do not read them.
inline constexpr Id NEARCLIPPING("net.kelvo.render.camera.cameraparameters.nearclipping");
inline constexpr Id FARCLIPPING("net.kelvo.render.camera.cameraparameters.farclipping");
inline constexpr Id NEARCLIPPINGENABLED(
    "net.kelvo.render.camera.cameraparameters.nearclippingenabled");
inline constexpr Id FARCLIPPINGENABLED(
    "net.kelvo.render.camera.cameraparameters.farclippingenabled");
}  // namespace CAMERAPARAMETERS

// What a camera offers, as returned by GetFeatures.
enum CAMERAFEATURES : uint32_t {
    CAMERAFEATURES_NONE = 0,
    // CreateScreenRay fills the ray differentials (origins and directions).
    CAMERAFEATURES_RAYDIFFERENTIALS = 2,
    // The camera was initialised flipped: a perspective camera looks along -zAxis.
    CAMERAFEATURES_FLIPPED = 8,
};

// A camera class. Init and SetMatrix must not run while other threads use the camera;
// every other operation is read-only, allocates nothing and may be called from many
// render threads at once. No operation fails on bad numbers: zero scales give zero
// reciprocals, zero-length directions give zero vectors, a singular matrix an identity
// inverse, and depths below 0.001 (or behind the camera) are clamped to 0.001.
class CameraInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.camera"); }

    // Reads the parameters (ids and defaults in CAMERAPARAMETERS) and precomputes what
    // ray generation needs. The camera keeps a shared reference to the dictionary. Without
    // a dictionary every value is 0 (the screen scale and field of view included) and the
    // matrix is the identity. Reports no error of its own.
    virtual Result<void> Init(const StrongRef<DataDictionary>& parameters, bool flipped) = 0;
    // Replaces the camera-to-world matrix, keeps the inverse and the derived fields in
    // step and writes the matrix into the stored dictionary. If that write fails for lack
    // of memory, the camera's own fields are updated all the same.
    virtual void SetMatrix(const Matrix& cameraToWorld) = 0;
    // The dictionary given to Init (a new reference; empty if there was none).
    virtual StrongRef<DataDictionary> GetParameters() const = 0;
    // The primary ray through a screen point: origin, unit direction (perspective) and
    // both differential origins and directions. The ray's other members stay untouched.
    virtual void CreateScreenRay(const Vec2& screenPoint, Ray& ray) const = 0;
    // For a ray through screenPoint that hit `hit` (reads position and normal): sets the
    // ray's differential directions to the rays one pixel to the right and one pixel
    // below, and writes where they meet the hit's tangent plane into hit.footprintX and
    // hit.footprintY. The pixel steps carry no field-of-view factor, so the footprints
    // match the neighbouring pixels' own rays only at fieldofview 1. Parallel cameras
    // leave both records as they are.
    virtual void CalculateMIPComponents(const Vec2& screenPoint, Ray& ray,
                                        ShadingPoint& hit) const = 0;
    // CAMERAFEATURES bits.
    virtual uint32_t GetFeatures() const = 0;
    // Whether a world point may be seen; the built-in cameras see everything.
    virtual bool VisibilityTest(const Vec3& worldPoint) const = 0;

    virtual Vec3 WorldToCamera(const Vec3& point) const = 0;
    virtual Vec3 CameraToWorld(const Vec3& point) const = 0;
    virtual Vec3 VectorWorldToCamera(const Vec3& vector) const = 0;
    virtual Vec3 VectorCameraToWorld(const Vec3& vector) const = 0;
    // Screen conversions. They carry no field-of-view factor (only ray generation does):
    // at fieldofview f a ray through pixel x lands at centre + (x - centre) * f.
    virtual Vec3 WorldToScreen(const Vec3& point) const = 0;
    virtual Vec3 ScreenToWorld(const Vec3& screenPointWithDepth) const = 0;
    virtual Vec3 CameraToScreen(const Vec3& point) const = 0;
    virtual Vec3 ScreenToCamera(const Vec3& screenPointWithDepth) const = 0;

    virtual const Matrix& GetCameraToWorldMatrix() const = 0;
    virtual const Matrix& GetWorldToCameraMatrix() const = 0;
};

}  // namespace kelvo
