// State and operations the perspective and parallel cameras share: the matrix and its
// inverse, the screen mapping and the stored parameter dictionary.
#pragma once

#include <limits>

#include "kelvo/camera.h"

namespace kelvo::camera {

// Reciprocal that turns a zero scale into a zero factor instead of an infinity.
inline double SafeReciprocal(double v) { return v != 0.0 ? 1.0 / v : 0.0; }

class CameraCommon : public Implements<CameraInterface> {
public:
    StrongRef<DataDictionary> GetParameters() const override { return _parameters; }
    uint32_t GetFeatures() const override {
        return CAMERAFEATURES_RAYDIFFERENTIALS | (_flipped ? CAMERAFEATURES_FLIPPED : 0u);
    }
    bool VisibilityTest(const Vec3&) const override { return true; }

    Vec3 WorldToCamera(const Vec3& p) const override { return _worldToCamera.TransformPoint(p); }
    Vec3 CameraToWorld(const Vec3& p) const override { return _cameraToWorld.TransformPoint(p); }
    Vec3 VectorWorldToCamera(const Vec3& v) const override {
        return _worldToCamera.TransformVector(v);
    }
    Vec3 VectorCameraToWorld(const Vec3& v) const override {
        return _cameraToWorld.TransformVector(v);
    }
    Vec3 WorldToScreen(const Vec3& p) const override { return CameraToScreen(WorldToCamera(p)); }
    Vec3 ScreenToWorld(const Vec3& s) const override { return CameraToWorld(ScreenToCamera(s)); }

    const Matrix& GetCameraToWorldMatrix() const override { return _cameraToWorld; }
    const Matrix& GetWorldToCameraMatrix() const override { return _worldToCamera; }

protected:
    // Reads the parameters both classes use. Without a dictionary every value is 0.
    // Without a dictionary the values come from the framework's default one (read, never
    // stored: it is not the camera's to write); without that either, every value is 0.
    // Returns the dictionary read.
    std::shared_ptr<const DataDictionary> InitCommon(const StrongRef<DataDictionary>& parameters,
                                                     bool flipped) {
        std::shared_ptr<const DataDictionary> read =
            parameters ? std::shared_ptr<const DataDictionary>(parameters)
                       : DefaultDataDictionary();
        const DataDictionary* p = read.get();
        _cameraToWorld = p ? p->Get<Matrix>(CAMERAPARAMETERS::MATRIX, Matrix{}) : Matrix{};
        _screenResolution = p ? p->Get<Vec2>(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{}) : Vec2{};
        const Vec2 offset = p ? p->Get<Vec2>(CAMERAPARAMETERS::SCREENOFFSET, Vec2{}) : Vec2{};
        const Vec2 scale = p ? p->Get<Vec2>(CAMERAPARAMETERS::SCREENSCALE, Vec2{1, 1}) : Vec2{};
        _windowFrom = p ? p->Get<Vec2>(CAMERAPARAMETERS::WINDOWFROM, Vec2{}) : Vec2{};
        _windowTo = p ? p->Get<Vec2>(CAMERAPARAMETERS::WINDOWTO, _screenResolution) : Vec2{};
        _worldToCamera = Inverse(_cameraToWorld);

        const double width = _screenResolution.x;
        _screenCenter = {offset.x + width * 0.5, offset.y + _screenResolution.y * 0.5};
        // Both scales go by the width so that a screen unit is square; y is negated
        // because screen y grows downward and camera y upward.
        _screenScale = {scale.x * width, -scale.y * width};
        _invScreenScale = {SafeReciprocal(_screenScale.x), SafeReciprocal(_screenScale.y)};
        _minDepth = 0.001;
        _maxDepth = std::numeric_limits<double>::max();
        _flipped = flipped;
        _parameters = parameters;
        return read;
    }

    // Stores the matrix and its inverse, and writes it into the stored dictionary. A
    // failed write leaves the dictionary as it was; the camera goes on with the new matrix.
    void SetMatrixCommon(const Matrix& m) {
        _cameraToWorld = m;
        _worldToCamera = Inverse(m);
        if (_parameters) (void)_parameters->Set(CAMERAPARAMETERS::MATRIX, Data(m));
    }

    // Screen point relative to the centre, in screen units.
    Vec2 ScreenUnits(double x, double y) const {
        return {(x - _screenCenter.x) * _invScreenScale.x,
                (y - _screenCenter.y) * _invScreenScale.y};
    }

    Matrix _cameraToWorld;
    Matrix _worldToCamera;
    Vec2 _screenResolution;
    Vec2 _screenScale;
    Vec2 _screenCenter;
    Vec2 _invScreenScale;
    double _minDepth = 0.001;  // also before Init, so that no conversion divides by zero
    double _maxDepth = std::numeric_limits<double>::max();
    Vec2 _windowFrom;
    Vec2 _windowTo;
    bool _flipped = false;
    StrongRef<DataDictionary> _parameters;
};

}  // namespace kelvo::camera
