// IesImpl: one IES LM-63 light profile (see kelvo/ies.h). Module-internal header, shared
// by the object (ies_impl.cpp), the parser (ies_parser.cpp), the evaluator
// (ies_evaluation.cpp), the preview and the image import.
#pragma once

#include <algorithm>
#include <span>
#include <string>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/ies.h"

// Errors of the profile name the object's source, whichever of its files raises them, so
// that a caller sees one location for every IES failure.
#define KELVO_IES_HERE                                                                         \
    (::kelvo::SourceLocation::Make("modules/render.module/source/implementation/ies_impl.cpp", \
                                   __LINE__))

namespace kelvo {

namespace detail {
// Finds the first index j >= 1 whose angle, less `offset`, exceeds a key (n when none): the
// index a scan from the start gives, for any array, ascending or not. The scan's answer is
// the first j whose running maximum exceeds the key, and running maxima ascend, so a
// table of bucket starts over them gives the answer at once in the common case and a
// bisection bounds the rest at O(log n), whatever the angles.
class BracketIndex {
public:
    Result<void> Build(std::span<const double> angles, double offset);
    // Inline: the power estimate calls it twice for each of its 65,536 samples.
    [[gnu::always_inline]] size_t Find(double key) const {
        if (_bound.empty()) return 1;
        const size_t n = _bound.size() - 1;
        if (!_start.empty()) {
            const double f = (key - _origin) * _scale;
            const double last = static_cast<double>(_start.size() - 1);
            size_t j = _start[f > 0.0 ? static_cast<size_t>(f < last ? f : last) : 0];
            // A bucket's start is its lowest key's answer, so a key of the bucket is answered
            // there or, in a bucket an angle crosses, one further (a step without a branch;
            // the sentinel +inf bounds it).
            j += static_cast<size_t>((j < n) & !(_bound[j] > key));
            // Exact when the running maximum first exceeds the key at j.
            if (_bound[j] > key && !(_bound[j - 1] > key)) return j;
        }
        return static_cast<size_t>(std::upper_bound(_bound.begin() + 1, _bound.end() - 1, key) -
                                   _bound.begin());
    }

private:
    // [j] for j in 1..n-1: the largest of angles[1..j] less the offset; [0] -inf and [n]
    // +inf, so that j's neighbours can be read for any answer.
    std::vector<double, Allocator<double>> _bound;
    std::vector<uint16_t, Allocator<uint16_t>> _start;  // per bucket: the answer at its start
    double _origin = 0.0;
    double _scale = 0.0;
};
}  // namespace detail

class IesImpl final : public Implements<IesInterface, DescribeIOInterface> {
public:
    using DoubleArray = std::vector<double, Allocator<double>>;

    // An empty profile already has the power of a uniform light, so that divisions by
    // the power stay finite before Init.
    static constexpr double kFourPi = 12.566370614359172;
    // Angles per axis a file or raw access may give.
    static constexpr int64_t kMaxAngles = 1024;

    Result<void> Init(const StrongRef<InputStream>& input) override;
    int Compare(const IesInterface& other) const override;
    uint64_t GetHashCode() const override;
    Result<void> DescribeIO(DataDescriber& io) override;
    double ComputeLightIntensity(const Vec3& direction) const override;
    double GetLightPowerRatio() const override { return _dataPower / kFourPi; }
    uint32_t GetChecksum() const override { return _checksum; }
    const DataDictionary& GetProperties() const override { return _properties; }
    Result<void> GeneratePreviewImage(int64_t width, int64_t height,
                                      const IesPixelHandlerDelegate& handler,
                                      const IesProgressDelegate& progress) const override;
    Result<StrongRef<ImageInterface>> GeneratePreviewImage(int64_t size) const override;
    Result<std::string> ConvertToText() const override;
    IesRawData GetRawAccess() const override;
    Result<void> SetRawAccess(std::span<const double> anglesVertical,
                              std::span<const double> anglesHorizontal,
                              std::span<const double> data) override;

    // The checksum of the current members, computed afresh.
    uint32_t ComputeChecksum() const;
    // Init without the power estimate and the checksum (left as for an empty profile), so
    // that benchmarks can weigh the parse alone.
    Result<void> ParseOnly(const StrongRef<InputStream>& input);
    // The power estimate. `workers` bounds the threads evaluating it (0: the host's pool,
    // 1: the calling thread alone); the value is the same for any number.
    Result<double> ComputePower(int workers = 0) const;
    // The same estimate the plain way, one direction after another through
    // ComputeLightIntensity on the calling thread: the reference ComputePower is checked
    // and weighed against.
    double ComputePowerSerial() const;

private:
    double IntensityAt(double theta, double phi) const;
    Result<void> Parse(const StrongRef<InputStream>& input, bool derive);
    void Reset();
    // _dataMax from _data, then the power estimate, the checksum and the search caches.
    Result<void> UpdateDerived(bool recomputeMax);
    Result<void> UpdateSearchCaches();
    DataDictionary _properties;
    DoubleArray _anglesVertical;
    DoubleArray _anglesHorizontal;
    DoubleArray _data;
    double _dataMax = 0.0;
    double _dataPower = kFourPi;
    uint32_t _checksum = 0;

    // Not members of the profile: search aids rebuilt whenever the angles change.
    detail::BracketIndex _verticalIndex;
    detail::BracketIndex _horizontalIndex;
};

}  // namespace kelvo
