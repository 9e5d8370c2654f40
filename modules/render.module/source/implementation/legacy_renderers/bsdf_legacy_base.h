// What every legacy BSDF class shares: Init as reset plus update, the shared frame, and
// the neutral answers of the operations a model does not specialise.
#pragma once

#include "distribution_table.h"
#include "kelvo/legacy_renderers/bsdf_legacy.h"
#include "kelvo/legacy_renderers/legacystate.h"

namespace kelvo::legacy {

class BsdfLegacyBase : public Implements<BSDFLegacyInterface, LegacyStateInterface> {
public:
    // Models without derived fields list none.
    void VisitState(const LegacyStateVisitor& /*field*/) const override {}
    Result<void> Init(const DataDictionary& data) override {
        Reset();
        return Update(data);
    }
    Col3 ComputeF_UVW() override { return {1.0, 1.0, 1.0}; }
    double ComputeAngle(const float* /*sample*/) override { return 0.0; }
    double ComputeMIPAngle(double angle) override { return angle; }
    BsdfFrame ComputeBSDFFrame(const Vec3& normal, const Vec3& tangentU, const Vec3& tangentV,
                               bool useTangents) override {
        return BuildBsdfFrame(normal, tangentU, tangentV, useTangents);
    }
};

inline constexpr Col3 kWhite{1.0, 1.0, 1.0};
inline constexpr Col3 kBlack{0.0, 0.0, 0.0};
inline constexpr Col3 Grey(double v) { return {v, v, v}; }

// The cosine-weighted direction the sampler hands over ready-made (elements 5 to 8).
inline Vec3 CosineSampledDirection(const float* sample) {
    double sinT = sample[SAMPLERECORD_POLARSIN];
    return {double(sample[SAMPLERECORD_AZIMUTHCOS]) * sinT,
            double(sample[SAMPLERECORD_AZIMUTHSIN]) * sinT, double(sample[SAMPLERECORD_POLARCOS])};
}

}  // namespace kelvo::legacy
