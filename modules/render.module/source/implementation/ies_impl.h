// IesImpl: one IES LM-63 light profile (see kelvo/ies.h). Module-internal header, shared
// by the parser, the evaluator and the image import.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/ies.h"

namespace kelvo {

class IesImpl final : public Implements<IesInterface> {
public:
    using DoubleArray = std::vector<double, Allocator<double>>;

    // An empty profile already has the power of a uniform light, so that divisions by
    // the power stay finite before Init.
    static constexpr double kFourPi = 12.566370614359172;

    Result<void> Init(const StrongRef<InputStream>& input) override;
    int Compare(const IesInterface& other) const override;
    uint64_t GetHashCode() const override;
    double ComputeLightIntensity(const Vec3& direction) const override;
    double GetLightPowerRatio() const override { return _dataPower / kFourPi; }
    uint32_t GetChecksum() const override { return _checksum; }
    const DataDictionary& GetProperties() const override { return _properties; }
    Result<std::string> ConvertToText() const override;
    IesRawData GetRawAccess() const override;
    Result<void> SetRawAccess(std::span<const double> anglesVertical,
                              std::span<const double> anglesHorizontal,
                              std::span<const double> data) override;

    // The checksum of the current members, computed afresh.
    uint32_t ComputeChecksum() const;

private:
    Result<void> Parse(const StrongRef<InputStream>& input);
    void Reset();
    // _dataMax from _data, then the power estimate, the checksum and the search caches.
    Result<void> UpdateDerived(bool recomputeMax);
    void UpdateSearchCaches();
    double ComputePower() const;

    DataDictionary _properties;
    DoubleArray _anglesVertical;
    DoubleArray _anglesHorizontal;
    DoubleArray _data;
    double _dataMax = 0.0;
    double _dataPower = kFourPi;
    uint32_t _checksum = 0;

    // Not members of the profile: whether each angle array ascends, so that the bracket
    // searches may bisect and still find the bracket a scan would.
    bool _verticalAscending = true;
    bool _horizontalAscending = true;
};

}  // namespace kelvo
