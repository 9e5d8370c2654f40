// The orthographic camera: every primary ray has the same direction and starts on the
// camera's image plane.
#include "camera_common.h"
#include "kelvo/entry.h"

namespace kelvo::camera {
namespace {

class ParallelCameraImpl final : public CameraCommon {
public:
    Result<void> Init(const StrongRef<DataDictionary>& parameters, bool flipped) override {
        InitCommon(parameters, flipped);
        return OK();
    }

    void SetMatrix(const Matrix& m) override { SetMatrixCommon(m); }

    void CreateScreenRay(const Vec2& s, Ray& ray) const override {
        const Vec2 u = ScreenUnits(s.x, s.y);
        const Vec3 origin = _cameraToWorld.TransformPoint({u.x, u.y, 0.0});
        // The axis as it is: a scaled matrix scales the ray parameter, not the direction.
        const Vec3& direction = _cameraToWorld.zAxis;
        ray.origin = origin;
        ray.direction = direction;
        ray.xDifferentialOrigin = origin;
        ray.yDifferentialOrigin = origin;
        ray.xDifferentialDirection = direction;
        ray.yDifferentialDirection = direction;
    }

    // The parallel camera computes no footprint: ray and hit record stay as they are.
    void CalculateMIPComponents(const Vec2&, Ray&, ShadingPoint&) const override {}

    Vec3 CameraToScreen(const Vec3& c) const override {
        return {c.x * _screenScale.x + _screenCenter.x, c.y * _screenScale.y + _screenCenter.y,
                c.z};
    }

    Vec3 ScreenToCamera(const Vec3& s) const override {
        const Vec2 u = ScreenUnits(s.x, s.y);
        return {u.x, u.y, s.z};
    }
};

KELVO_REGISTER_CLASS(s_parallelCamera, "net.kelvo.render.cameraclass.parallel",
                     kCameraClassesRegistry, CameraInterface::InterfaceId(), ParallelCameraImpl);

}  // namespace
}  // namespace kelvo::camera
