// IES LM-63 photometric light profiles: read, evaluated by direction, written back.
//
// A profile holds the header properties of the file, the vertical (gamma) and
// horizontal (C-plane) angles in degrees and the candela values, already multiplied by
// the file's candela multiplier and ballast factors. Intensities are normalised to the
// largest value, so they lie in 0..1 (up to the overshoot of extrapolation).
#pragma once

#include <cstdint>
#include <functional>
#include <span>
#include <string>

#include "kelvo/data.h"
#include "kelvo/datadescription.h"
#include "kelvo/image.h"
#include "kelvo/io.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo {

// Keys of the property dictionary (integer keys).
enum IESPROPERTY : int32_t {
    IESPROPERTY_VERSION =
        1000,  // Int: 0 none, 1 "IESNA91", 2 "IESNA:LM-63-1995", 3 "IESNA:LM-63-2002"
    IESPROPERTY_TILT = 1001,        // Int: 0 not seen, 1 NONE, 2 INCLUDE
    IESPROPERTY_MANUFAC = 1002,     // String: rest of the "[MANUFAC]" line
    IESPROPERTY_LUMCAT = 1003,      // String
    IESPROPERTY_LUMINAIRE = 1004,   // String
    IESPROPERTY_LAMPCAT = 1005,     // String
    IESPROPERTY_LAMP = 1006,        // String
    IESPROPERTY_SHAPE = 1007,       // Int: luminous-opening shape code 0..9
    IESPROPERTY_DIMENSIONS = 1008,  // Vec3: width, length, height in metres, non-negative
    IESPROPERTY_MAXCANDELA = 1009,  // Float: the largest scaled candela value
};

// The members of a profile, read in place. The spans stay valid until the profile is
// changed (Init, SetRawAccess) or released.
struct IesRawData {
    std::span<const double> anglesVertical;    // nV angles, degrees
    std::span<const double> anglesHorizontal;  // nH angles, degrees
    std::span<const double> data;              // nH * nV values, [h * nV + v]
    double dataMax = 0.0;                      // largest value; 0 for an empty profile
    double dataPower = 0.0;                    // integral of the normalised intensity, sr
    uint32_t checksum = 0;                     // CRC-32C of the content
};

// The preview asks this for the handler that receives its rows, naming the pixel format and
// colour profile it writes (grey, 32-bit float, linear).
using IesPixelHandlerDelegate = std::function<Result<StrongRef<SetPixelHandlerInterface>>(
    PixelFormat format, COLORPROFILE profile)>;
// Told the fraction of rows done (0..1, rising, never from two threads at once).
using IesProgressDelegate = std::function<void(float done)>;

class IesInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.render.interface.ies"); }

    // Parses LM-63 text from `input` into this profile. Errors: "IES Header incomplete",
    // "IES file error in line @", "IES: Incorrect number or angles", and the lexer's or
    // stream's own errors unchanged. After a failure the object keeps what was stored so
    // far (properties already read stay set); discard it.
    virtual Result<void> Init(const StrongRef<InputStream>& input) = 0;

    // A total order over profiles (-1, 0, 1); 0 exactly when every member is equal.
    virtual int Compare(const IesInterface& other) const = 0;
    // Equal profiles give equal hash codes.
    virtual uint64_t GetHashCode() const = 0;

    // Describes the members under "_properties", "_anglesVertical", "_anglesHorizontal",
    // "_data", "_dataMax", "_dataPower" and "_checksum" (kelvo/datadescription.h); a profile
    // also answers DescribeIOInterface. Reading takes the stored maximum, power and checksum
    // as they are, and takes nothing unless the counts fit together (else "Illegal
    // argument: IES: Incorrect number or angles").
    virtual Result<void> DescribeIO(DataDescriber& io) = 0;

    // Normalised intensity (0..1) towards `direction`, a unit vector in the light's frame
    // whose -z axis is the photometric nadir. Directions outside the vertical angle range
    // and empty or dark profiles give 0. Thread-safe after Init.
    virtual double ComputeLightIntensity(const Vec3& direction) const = 0;
    // The profile's power relative to a uniform light of intensity 1: 1 for a uniform
    // or empty profile, less for any other.
    virtual double GetLightPowerRatio() const = 0;
    virtual uint32_t GetChecksum() const = 0;
    virtual const DataDictionary& GetProperties() const = 0;

    // Renders a square preview of the distribution: the light shining on a wall behind it
    // (the upper two thirds) and on the floor below it (the lower third), both seen
    // face-on, bright where more light arrives. Rows go to the handler the delegate
    // returns, in parallel on the host's job system. Fails with "Width and height of image
    // must match." for a non-square size, and with the delegate's or handler's errors.
    // A size of 0 draws nothing. Thread-safe after Init.
    virtual Result<void> GeneratePreviewImage(int64_t width, int64_t height,
                                              const IesPixelHandlerDelegate& handler,
                                              const IesProgressDelegate& progress) const = 0;
    // The same into a new host image of size x size with one grey, 8-bit sRGB layer.
    virtual Result<StrongRef<ImageInterface>> GeneratePreviewImage(int64_t size) const = 0;

    // The profile as LM-63 text, with multiplier 1 and dimensions in metres. Fails only
    // when memory runs out.
    virtual Result<std::string> ConvertToText() const = 0;

    virtual IesRawData GetRawAccess() const = 0;
    // Replaces angles and values (values already scaled) and recomputes the largest
    // value, power and checksum. Fails with "Illegal argument: IES: Incorrect number or
    // angles" unless both counts lie in 0..1024 and data holds nH * nV values.
    virtual Result<void> SetRawAccess(std::span<const double> anglesVertical,
                                      std::span<const double> anglesHorizontal,
                                      std::span<const double> data) = 0;
};

}  // namespace kelvo
