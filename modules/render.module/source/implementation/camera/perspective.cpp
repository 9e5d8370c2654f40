// The pinhole camera: every primary ray starts at the camera position.
#include <algorithm>
#include <cmath>

#include "camera_common.h"
#include "kelvo/entry.h"

namespace kelvo::camera {
namespace {

// Normalises with one square root; a zero-length vector stays zero.
inline Vec3 NormalizeOrZero(const Vec3& v) {
    const double lengthSquared = Dot(v, v);
    return v * (lengthSquared > 0.0 ? 1.0 / std::sqrt(lengthSquared) : 0.0);
}

class PerspectiveCameraImpl final : public CameraCommon {
public:
    Result<void> Init(const StrongRef<DataDictionary>& parameters, bool flipped) override {
        auto read = InitCommon(parameters, flipped);
        _fieldOfView = read ? read->Get<double>(CAMERAPARAMETERS::FIELDOFVIEW, 0.5) : 0.0;
        _depthSign = flipped ? -1.0 : 1.0;
        UpdateDerived();
        return OK();
    }

    void SetMatrix(const Matrix& m) override {
        SetMatrixCommon(m);
        UpdateDerived();
    }

    void CreateScreenRay(const Vec2& s, Ray& ray) const override {
        const Vec3 d = NormalizeOrZero(UnnormalizedDirection(s));
        ray.origin = _position;
        ray.direction = d;
        ray.xDifferentialOrigin = _position;
        ray.yDifferentialOrigin = _position;
        ray.xDifferentialDirection = d;
        ray.yDifferentialDirection = d;
    }

    void CalculateMIPComponents(const Vec2& s, Ray& ray, ShadingPoint& hit) const override {
        const Vec3 d = UnnormalizedDirection(s);
        // The steps deliberately carry no field-of-view factor while d does: the footprints
        // match the neighbouring pixels' own rays only at fieldofview 1.
        const Vec3 dx = NormalizeOrZero(d + _pixelStepX);
        const Vec3 dy = NormalizeOrZero(d + _pixelStepY);
        ray.xDifferentialDirection = dx;
        ray.yDifferentialDirection = dy;
        // Where each differential meets the plane through the hit point along its normal.
        const Vec3 origin = ray.origin;
        const double k = Dot(hit.position - origin, hit.normal);
        auto onPlane = [&](const Vec3& dir) {
            const double dn = Dot(dir, hit.normal);
            return dn == 0.0 ? origin : origin + dir * (k / dn);
        };
        hit.footprintX = onPlane(dx);
        hit.footprintY = onPlane(dy);
    }

    Vec3 CameraToScreen(const Vec3& c) const override {
        const double w = std::max(_minDepth, _depthSign * c.z);
        return {c.x / w * _screenScale.x + _screenCenter.x,
                c.y / w * _screenScale.y + _screenCenter.y, c.z};
    }

    Vec3 ScreenToCamera(const Vec3& s) const override {
        const double w = std::max(_minDepth, _depthSign * s.z);
        const Vec2 u = ScreenUnits(s.x, s.y);
        return {u.x * w, u.y * w, s.z};
    }

private:
    // Everything that does not depend on the sample, so that a ray costs one square root.
    void UpdateDerived() {
        _position = _cameraToWorld.offset;
        _forward = _cameraToWorld.zAxis * _depthSign;
        _pixelStepX = _cameraToWorld.xAxis * _invScreenScale.x;
        _pixelStepY = _cameraToWorld.yAxis * _invScreenScale.y;
    }

    Vec3 UnnormalizedDirection(const Vec2& s) const {
        const double u = (s.x - _screenCenter.x) * _invScreenScale.x * _fieldOfView;
        const double v = (s.y - _screenCenter.y) * _invScreenScale.y * _fieldOfView;
        return _cameraToWorld.xAxis * u + _cameraToWorld.yAxis * v + _forward;
    }

    Vec3 _position;
    Vec3 _forward;
    Vec3 _pixelStepX;
    Vec3 _pixelStepY;
    double _depthSign = 0.0;
    double _fieldOfView = 0.0;
};

KELVO_REGISTER_CLASS(s_perspectiveCamera, "net.kelvo.render.cameraclass.perspective",
                     kCameraClassesRegistry, CameraInterface::InterfaceId(), PerspectiveCameraImpl);

}  // namespace
}  // namespace kelvo::camera
