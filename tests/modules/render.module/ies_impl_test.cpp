#include "implementation/ies_impl.h"

#include <gtest/gtest.h>

#include <vector>

#include "host.h"
#include "ies_test_util.h"
#include "implementation/ies_crc32c.h"
#include "kelvo/random.h"

namespace kelvo {
namespace {
using namespace testing_ies;

constexpr std::string_view kLocation = "modules/render.module/source/implementation/ies_impl";

// A profile in the file's own words: header lines, then the two data lines, angles, values.
std::string Profile(std::string_view lamp, std::string_view ballast, std::string_view angles) {
    return "IESNA:LM-63-2002\n[MANUFAC] ACME\nTILT=NONE\n" + std::string(lamp) + "\n" +
           std::string(ballast) + "\n" + std::string(angles) + "\n";
}

TEST(IesParseTest, HeaderVersionsKeywordsAndBytes) {
    struct Case {
        const char* first;
        int version;
    } cases[] = {{"IESNA91", 1},        {"IESNA:LM-63-1995", 2},   {"IESNA:LM-63-2002", 3},
                 {"IES:LM-63-2019", 0}, {"Lithonia free text", 0}, {"IESNA:LM-63-2002x", 0}};
    for (const Case& c : cases) {
        auto p = ParseText(std::string(c.first) + "\nTILT=NONE\n1 1 1 0 0 1 2 0 0 0\n1 1 1\n");
        ASSERT_TRUE(p.result.Ok()) << c.first << ": " << p.result.GetError().Message();
        EXPECT_EQ(p.ies->GetProperties().Get<int>(int64_t(IESPROPERTY_VERSION), -1), c.version)
            << c.first;
        EXPECT_EQ(p.ies->GetProperties().Get<int>(int64_t(IESPROPERTY_TILT), -1), 1);
    }
    // A keyword may run into its text; a later line wins; Latin-1 bytes and CR LF survive.
    auto p = ParseText(
        "IESNA:LM-63-1995\r\n[MANUFAC]LITHONIA\r\n[LUMINAIRE] first\r\n[LUMINAIRE] caf\xe9  \r\n"
        "[LAMP] 100W\r\n[LUMCAT]TILT=INCLUDE\r\n[LAMPCAT] A19\r\n[TEST] ignored\r\n"
        "TILT=NONE\r\n1 1 1 0 0 1 2 0 0 0\r\n1 1 1");
    ASSERT_TRUE(p.result.Ok()) << p.result.GetError().Message();
    const DataDictionary& props = p.ies->GetProperties();
    EXPECT_EQ(props.Get<std::string>(int64_t(IESPROPERTY_MANUFAC)), "LITHONIA");
    EXPECT_EQ(props.Get<std::string>(int64_t(IESPROPERTY_LUMINAIRE)), " caf\xe9  ");
    EXPECT_EQ(props.Get<std::string>(int64_t(IESPROPERTY_LAMP)), " 100W");
    EXPECT_EQ(props.Get<std::string>(int64_t(IESPROPERTY_LUMCAT)), "TILT=INCLUDE");
    EXPECT_EQ(props.Get<std::string>(int64_t(IESPROPERTY_LAMPCAT)), " A19");
    auto text = p.ies->ConvertToText();
    ASSERT_TRUE(text.Ok());
    EXPECT_EQ(*text,
              "IESNA:LM-63-1995\n[MANUFAC]LITHONIA\n[LUMCAT]TILT=INCLUDE\n[LUMINAIRE] caf\xe9  \n"
              "[LAMPCAT] A19\n[LAMP] 100W\nTILT=NONE\n1 1 1 0 0 1 2 0 0 0\n1 1 1");
}

TEST(IesParseTest, ErrorsCarryTheirMessageLineAndLocation) {
    struct Case {
        std::string text;
        std::string message;
    } cases[] = {
        {"", "IES Header incomplete"},
        {"IESNA91\n[MANUFAC] x\n1 2 3\n", "IES Header incomplete"},
        {"IESNA91\nTILT\n1 1 1 0 0 1 2 0 0 0\n", "IES file error in line 3"},
        {"IESNA91\n\n TILT = lamp.tlt\n", "IES file error in line 3"},
        {"IESNA91\r\n\r\nTILT=\r\n\r\nfile.dat\r\n", "IES file error in line 5"},
        {"IESNA91\nTILT=NONE\n1 1 1 1025 1 1 2 0 0 0\n1 1 1\n", "IES: Incorrect number or angles"},
        {"IESNA91\nTILT=NONE\n1 1 1 1 1025 1 2 0 0 0\n1 1 1\n", "IES: Incorrect number or angles"},
        {"IESNA91\nTILT=NONE\n1 1 1 -1 1 1 2 0 0 0\n1 1 1\n", "IES: Incorrect number or angles"},
        {"IESNA91\nTILT=NONE\n1 1 1 2 1 1 2 0 0 0\n1 1 1\n0 90\n0\n10 file format error\n",
         "Number expected in line 7."},
        {"IESNA91\nTILT=NONE\n1 1 1 2 1 1 2 0 0 0\n1 1 1\n0 90\n0\n10\n",
         "Number expected in line 7."},
        {"IESNA91\nTILT=NONE\n1 1 1 2.5 1 1 2 0 0 0\n", "Integer expected in line 3."},
        // Scaled values beyond the largest double would be written back as "inf".
        {"IESNA91\nTILT=NONE\n1 1 1e300 2 1 1 2 0 0 0\n1 1 1\n0 90\n0\n5\n1e300\n",
         "IES file error in line 8"},
    };
    for (const Case& c : cases) {
        auto p = ParseText(c.text);
        ASSERT_FALSE(p.result.Ok()) << c.text;
        EXPECT_EQ(p.result.GetError().Message(), c.message) << c.text;
        if (c.message.starts_with("IES")) {
            EXPECT_EQ(p.result.GetError().Location().Path(), kLocation) << c.text;
        }
    }
    // What was stored before the failure stays.
    auto p = ParseText("IESNA:LM-63-1995\n[LAMP] kept\nTILT=other.tlt\n");
    EXPECT_EQ(p.ies->GetProperties().Get<int>(int64_t(IESPROPERTY_VERSION)), 2);
    EXPECT_EQ(p.ies->GetProperties().Get<std::string>(int64_t(IESPROPERTY_LAMP)), " kept");
    // A stream's own error passes through unchanged.
    struct Broken final : Implements<InputStream> {
        Result<size_t> Read(void*, size_t) override {
            return IoError(KELVO_HERE, "file:///x.ies", "Cannot read @.", "file:///x.ies");
        }
        int64_t Length() const override { return -1; }
    };
    auto ies = NewProfile();
    auto r = ies->Init(std::make_shared<Broken>());
    ASSERT_FALSE(r.Ok());
    EXPECT_EQ(r.GetError().Message(), "Cannot read file:///x.ies.");
}

TEST(IesParseTest, TiltIncludeSkipsExactlyItsBlock) {
    // Geometry, N = 3, three angles and three factors, spread over lines and commas.
    auto p = ParseText(
        "IESNA:LM-63-2002\nTILT=INCLUDE\n1\n3\n0 45,90\n1.0 0.9\n0.8\n"
        "1 1000 1 2 1 1 2 0 0 0\n1 1 1\n0 90\n0\n7 5\n");
    ASSERT_TRUE(p.result.Ok()) << p.result.GetError().Message();
    EXPECT_EQ(p.ies->GetProperties().Get<int>(int64_t(IESPROPERTY_TILT)), 2);
    IesRawData raw = p.ies->GetRawAccess();
    ASSERT_EQ(raw.anglesVertical.size(), 2u);
    EXPECT_EQ(raw.data[0], 7.0);
    EXPECT_EQ(raw.data[1], 5.0);
    EXPECT_EQ(p.ies->ConvertToText()->find("TILT=NONE\n"), 17u);
}

TEST(IesParseTest, ShapeTableAndFeet) {
    struct Case {
        double w, l, h;
        int code;
        Vec3 dims;
    } cases[] = {
        {0, 0, 0, 0, {0, 0, 0}},    {1, 2, 0, 2, {1, 2, 0}},   {1, 0, 3, 2, {1, 3, 0}},
        {0, 2, 3, 2, {3, 2, 0}},    {1, 2, 3, 5, {1, 2, 3}},   {-1, 0, 0, 1, {1, 1, 1}},
        {-1, 0, -3, 3, {1, 1, 1}},  {-1, 0, 3, 4, {1, 1, 3}},  {0, 2, -3, 9, {2, 3, 3}},
        {1, 0, -3, 9, {1, 3, 3}},   {-1, 2, 3, 1, {1, 2, 0}},  {1, -2, 3, 1, {1, 2, 0}},
        {-1, 2, -3, 3, {1, 2, 3}},  {1, -2, -3, 3, {1, 2, 3}}, {0, -2, 0, 0, {0, 0, 0}},
        {-1, -2, -3, 0, {0, 0, 0}}, {0, 0, 3, 0, {0, 0, 0}},
    };
    for (const Case& c : cases) {
        for (int units : {1, 2, 3}) {
            std::ostringstream lamp;
            lamp << "1 1 1 0 0 1 " << units << " " << c.w << " " << c.l << " " << c.h;
            auto p = ParseText(Profile(lamp.str(), "1 1 1", ""));
            ASSERT_TRUE(p.result.Ok()) << lamp.str();
            const DataDictionary& props = p.ies->GetProperties();
            EXPECT_EQ(props.Get<int>(int64_t(IESPROPERTY_SHAPE), -1), c.code) << lamp.str();
            Vec3 expected = units == 1 ? c.dims * 0.3048 : c.dims;
            EXPECT_EQ(props.Get<Vec3>(int64_t(IESPROPERTY_DIMENSIONS)), expected) << lamp.str();
        }
    }
}

TEST(IesParseTest, MultiplierAndBallastFactorsScaleTheValues) {
    struct Case {
        const char* ballast;
        double scale;
    } cases[] = {{"0.5 1 100", 0.5}, {"0.5 0.00005 100", 0.5}, {"1 0.0001 100", 0.0001},
                 {"1 0 100", 1.0},   {"1 -2 100", 1.0},        {"0.9 1.1 50", 0.9 * 1.1},
                 {"0 1 1", 0.0}};
    for (const Case& c : cases) {
        auto p = ParseText(Profile("1 1000 2.5 2 1 1 2 0 0 0", c.ballast, "0 90\n0\n100 40"));
        ASSERT_TRUE(p.result.Ok()) << c.ballast;
        IesRawData raw = p.ies->GetRawAccess();
        EXPECT_EQ(raw.data[0], 2.5 * c.scale * 100) << c.ballast;
        EXPECT_EQ(raw.data[1], 2.5 * c.scale * 40) << c.ballast;
        EXPECT_EQ(raw.dataMax, 2.5 * c.scale * 100) << c.ballast;
        EXPECT_EQ(p.ies->GetProperties().Get<double>(int64_t(IESPROPERTY_MAXCANDELA)), raw.dataMax);
    }
}

TEST(IesEvalTest, EmptyAndDarkProfilesAreZeroWithUniformPower) {
    for (const char* text : {"IESNA91\nTILT=NONE\n1 1 1 0 0 1 2 0 0 0\n1 1 1\n",
                             "IESNA91\nTILT=NONE\n1 1 1 2 1 1 2 0 0 0\n1 1 1\n0 180\n0\n0 0\n",
                             "IESNA91\nTILT=NONE\n1 1 1 2 1 1 2 0 0 0\n1 1 1\n0 180\n0\n-5 -1\n"}) {
        auto p = ParseText(text);
        ASSERT_TRUE(p.result.Ok()) << text;
        for (Vec3 d : {Vec3{0, 0, -1}, Vec3{0, 0, 1}, Vec3{1, 0, 0}, Vec3{0, 0, 0}})
            EXPECT_EQ(p.ies->ComputeLightIntensity(d), 0.0);
        EXPECT_EQ(p.ies->GetRawAccess().dataPower, IesImpl::kFourPi);
        EXPECT_EQ(p.ies->GetLightPowerRatio(), 1.0);
    }
    auto fresh = NewProfile();
    EXPECT_EQ(fresh->GetRawAccess().dataPower, 12.566370614359172);
    EXPECT_EQ(fresh->GetChecksum(), 0u);
}

// Expected value of the evaluator's cubic, written out from the formula for one plane.
double Hermite(const std::vector<double>& a, const std::vector<double>& v, double theta) {
    size_t n = a.size(), i0 = n - 2, i1 = n - 1;
    for (size_t i = 0; i + 1 < n; ++i)
        if (a[i + 1] > theta) {
            i0 = i;
            i1 = i + 1;
            break;
        }
    size_t im = i0 > 0 ? i0 - 1 : 0, ip = std::min(i1 + 1, n - 1);
    double t = (theta - a[i0]) / (a[i1] - a[i0]);
    double m0 = a[i1] - a[im] > 0 ? (v[i1] - v[im]) * (a[i1] - a[i0]) / (a[i1] - a[im]) : 0;
    double m1 = a[ip] - a[i0] > 0 ? (v[ip] - v[i0]) * (a[i1] - a[i0]) / (a[ip] - a[i0]) : 0;
    double dv = v[i1] - v[i0];
    return v[i0] + m0 * t + (3 * dv - 2 * m0 - m1) * t * t + (m0 + m1 - 2 * dv) * t * t * t;
}

TEST(IesEvalTest, CubicAlongThetaNadirAndZenith) {
    std::vector<double> a = {0, 10, 30, 60, 90, 180}, v = {100, 90, 60, 20, 0, 10};
    auto p = ParseText(
        Profile("1 1 1 6 1 1 2 0 0 0", "1 1 1", "0 10 30 60 90 180\n0\n100 90 60 20 0 10"));
    ASSERT_TRUE(p.result.Ok());
    for (double theta : {5.0, 10.0, 22.0, 45.0, 75.0, 120.0}) {
        // The evaluator sees θ through acos(0.999999 cos θ).
        double seen = std::acos(0.999999 * std::cos(theta * M_PI / 180)) * 180 / M_PI;
        EXPECT_NEAR(p.ies->ComputeLightIntensity(Direction(theta, 0)),
                    std::max(0.0, Hermite(a, v, seen) / 100), 1e-12)
            << theta;
    }
    // The nadir (0, 0, -1) is evaluated at acos(0.999999), about 0.081 degrees.
    double nadirTheta = std::acos(0.999999) * 180 / M_PI;
    EXPECT_DOUBLE_EQ(p.ies->ComputeLightIntensity({0, 0, -1}), Hermite(a, v, nadirTheta) / 100);
    EXPECT_EQ(p.ies->ComputeLightIntensity({0, 0, -2}), 1.0);  // q >= 1: exactly θ = 0
    EXPECT_DOUBLE_EQ(p.ies->ComputeLightIntensity({0, 0, 1}),
                     Hermite(a, v, 180 - nadirTheta) / 100);
    EXPECT_EQ(p.ies->ComputeLightIntensity({0, 0, 2}), 0.1);  // q <= -1: exactly θ = 180

    // Zenith beyond a 0..90 range gives 0; the undershoot of the cubic is clamped.
    auto down = ParseText(Profile("1 1 1 4 1 1 2 0 0 0", "1 1 1", "0 30 60 90\n0\n100 100 0 0"));
    ASSERT_TRUE(down.result.Ok());
    EXPECT_EQ(down.ies->ComputeLightIntensity({0, 0, 1}), 0.0);
    EXPECT_EQ(down.ies->ComputeLightIntensity(Direction(91, 0)), 0.0);
    EXPECT_EQ(down.ies->ComputeLightIntensity(Direction(70, 0)), 0.0);  // cubic dips below 0 here
    EXPECT_LT(Hermite({0, 30, 60, 90}, {100, 100, 0, 0}, 70), 0.0);
    // A profile that starts at 90 degrees lights only the upper hemisphere.
    auto up = ParseText(Profile("1 1 1 3 1 1 2 0 0 0", "1 1 1", "90 135 180\n0\n10 20 30"));
    EXPECT_EQ(up.ies->ComputeLightIntensity({0, 0, -1}), 0.0);
    EXPECT_NEAR(up.ies->ComputeLightIntensity({0, 0, 1}), 1.0, 1e-3);
}

TEST(IesEvalTest, HorizontalSymmetryClasses) {
    // Vertical 0, 90; each plane has its own value at 90 degrees.
    auto make = [](std::string h, std::string values, int nH) {
        return ParseText(Profile("1 1 1 2 " + std::to_string(nH) + " 1 2 0 0 0", "1 1 1",
                                 "0 90\n" + h + "\n" + values));
    };
    auto single = make("0", "100 50", 1);
    for (double phi : {0.0, 33.0, 180.0, 271.0})
        EXPECT_DOUBLE_EQ(single.ies->ComputeLightIntensity(Direction(60, phi)),
                         single.ies->ComputeLightIntensity(Direction(60, 0)));
    auto quadrant = make("0 45 90", "100 10 100 20 100 30", 3);
    auto at = [](const Parsed& p, double phi) {
        return p.ies->ComputeLightIntensity(Direction(90, phi));
    };
    EXPECT_DOUBLE_EQ(at(quadrant, 100), at(quadrant, 80));
    EXPECT_DOUBLE_EQ(at(quadrant, 200), at(quadrant, 20));
    EXPECT_DOUBLE_EQ(at(quadrant, 300), at(quadrant, 60));
    EXPECT_NEAR(at(quadrant, 45), 0.2, 1e-4);
    auto half = make("0 90 180", "100 10 100 20 100 30", 3);
    EXPECT_DOUBLE_EQ(at(half, 200), at(half, 160));
    EXPECT_NEAR(at(half, 270), 0.2, 1e-4);
    // A half range that starts at 90 folds around its first angle.
    auto half90 = make("90 180 270", "100 10 100 20 100 30", 3);
    EXPECT_NEAR(at(half90, 90), 0.1, 1e-4);
    EXPECT_NEAR(at(half90, 180), 0.2, 1e-4);
    EXPECT_DOUBLE_EQ(at(half90, 45), at(half90, 135));
    auto full = make("0 90 180 270 360", "100 10 100 20 100 30 100 40 100 10", 5);
    EXPECT_NEAR(at(full, 270), 0.4, 1e-4);
    EXPECT_NEAR(at(full, 90), 0.2, 1e-4);
    EXPECT_NEAR(at(full, 315), 0.25, 1e-4);
    // x = y = 0 with x >= 0 is φ = 90; y = 0 and x < 0 is φ = 270.
    EXPECT_NEAR(full.ies->ComputeLightIntensity({-1, 0, 0}), 0.4, 1e-6);
    EXPECT_NEAR(full.ies->ComputeLightIntensity({1, 0, 0}), 0.2, 1e-6);
}

TEST(IesEvalTest, UnsortedAnglesScanLikeSortedOnesAndNeverReadOutside) {
    // Angles out of order (hand-edited files, fuzzing) take the scanning path; the result
    // stays finite and non-negative.
    auto p = ParseText(Profile("1 1 1 4 3 1 2 0 0 0", "1 1 1",
                               "0 60 30 90\n0 270 90\n1 2 3 4 5 6 7 8 9 10 11 12"));
    ASSERT_TRUE(p.result.Ok());
    for (double theta = 0; theta <= 180; theta += 7)
        for (double phi = 0; phi < 360; phi += 13) {
            double v = p.ies->ComputeLightIntensity(Direction(theta, phi));
            EXPECT_TRUE(std::isfinite(v) && v >= 0) << theta << " " << phi;
        }
}

TEST(IesEvalTest, PowerIsReproducibleAndMatchesTheSolidAngle) {
    auto sphere = ParseText(Profile("1 1 1 2 1 1 2 0 0 0", "1 1 1", "0 180\n0\n50 50"));
    EXPECT_EQ(sphere.ies->GetRawAccess().dataPower, IesImpl::kFourPi);
    EXPECT_EQ(sphere.ies->GetLightPowerRatio(), 1.0);
    auto hemi = ParseText(Profile("1 1 1 2 1 1 2 0 0 0", "1 1 1", "0 90\n0\n50 50"));
    // 65536 samples: the hemisphere's 2π within a few standard errors (~0.025).
    EXPECT_NEAR(hemi.ies->GetRawAccess().dataPower, 2 * M_PI, 0.1);
    auto again = ParseText(Profile("1 1 1 2 1 1 2 0 0 0", "1 1 1", "0 90\n0\n50 50"));
    EXPECT_EQ(again.ies->GetRawAccess().dataPower, hemi.ies->GetRawAccess().dataPower);
}

TEST(IesChecksumTest, HardwareAndTableAgreeAndValuesAreStable) {
    const char* check = "123456789";
    EXPECT_EQ(~detail::Crc32cUpdateTable(~0u, check, 9), 0xE3069283u);
    Random random(3);
    std::vector<unsigned char> bytes(4099);
    for (auto& b : bytes) b = static_cast<unsigned char>(random.Next64());
    if (!detail::Crc32cHardwareAvailable()) GTEST_SKIP() << "no CRC32 instruction";
    EXPECT_EQ(~detail::Crc32cUpdateHardware(~0u, check, 9), 0xE3069283u);
    for (size_t start : {0, 1, 3, 7})
        for (size_t size : {0, 1, 7, 8, 9, 64, 4000})
            EXPECT_EQ(detail::Crc32cUpdateHardware(~0u, bytes.data() + start, size),
                      detail::Crc32cUpdateTable(~0u, bytes.data() + start, size))
                << start << " " << size;
}

TEST(IesChecksumTest, ChecksumCoversContentNotPower) {
    std::string text =
        Profile("1 1 1 3 2 1 2 0.5 0.25 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 0");
    auto a = ParseText(text), b = ParseText(text, 3);
    uint32_t sum = a.ies->GetChecksum();
    EXPECT_EQ(sum, b.ies->GetChecksum());
    // Pinned: a change of the checksum's input or order shows up here.
    EXPECT_EQ(sum, 0x2C5C40E4u) << std::hex << sum;
    auto* impl = dynamic_cast<IesImpl*>(a.ies.get());
    ASSERT_NE(impl, nullptr);
    EXPECT_EQ(impl->ComputeChecksum(), sum);
    for (std::string changed :
         {Profile("1 1 1 3 2 1 2 0.5 0.25 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 41 0"),
          Profile("1 1 1 3 2 1 2 0.5 0.25 0", "1 1 1", "0 45 91\n0 90\n100 50 0 80 40 0"),
          Profile("1 1 1 3 2 1 2 0.5 0.3 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 0")})
        EXPECT_NE(ParseText(changed).ies->GetChecksum(), sum);
}

TEST(IesWriterTest, ExactTextAndRoundTrip) {
    auto p = ParseText(
        "IESNA:LM-63-2002\n[MANUFAC] ACME\n[LAMP]\nTILT=NONE\n1 1000 2 12 1 1 1 -1 0 0\n1 1 1\n"
        "0 5 10 15 20 25 30 35 40 45 50 55\n0\n12 11 10 9 8 7 6 5 4 3 2 1.5\n");
    ASSERT_TRUE(p.result.Ok()) << p.result.GetError().Message();
    auto text = p.ies->ConvertToText();
    ASSERT_TRUE(text.Ok());
    EXPECT_EQ(
        *text,
        "IESNA:LM-63-2002\n[MANUFAC] ACME\nTILT=NONE\n1 1 1 12 1 1 2 0.3048 0.3048 0.3048\n1 1 1"
        "\n0 5 10 15 20 25 30 35 40 45 \n50 55 \n0 \n24 22 20 18 16 14 12 10 8 6 \n4 3 ");
    auto back = ParseText(*text);
    ASSERT_TRUE(back.result.Ok());
    IesRawData a = p.ies->GetRawAccess(), b = back.ies->GetRawAccess();
    EXPECT_TRUE(std::ranges::equal(a.data, b.data));
    EXPECT_TRUE(std::ranges::equal(a.anglesVertical, b.anglesVertical));
    EXPECT_EQ(a.dataPower, b.dataPower);
    // The sign rule is not written back: shape 1 comes back as shape 5, in metres.
    EXPECT_EQ(back.ies->GetProperties().Get<int>(int64_t(IESPROPERTY_SHAPE)), 5);
    // Without a version or TILT no such line is written (and such text does not parse).
    auto raw = NewProfile();
    ASSERT_TRUE(
        raw->SetRawAccess(std::vector<double>{0}, std::vector<double>{0}, std::vector<double>{3})
            .Ok());
    EXPECT_EQ(*raw->ConvertToText(), "1 1 1 1 1 1 2 0 0 0\n1 1 1\n0 \n0 \n3 ");
}

TEST(IesObjectTest, CompareHashAndRawAccess) {
    std::string text = Profile("1 1 1 3 2 1 2 0 0 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 0");
    auto a = ParseText(text), b = ParseText(text);
    EXPECT_EQ(a.ies->Compare(*b.ies), 0);
    EXPECT_EQ(a.ies->GetHashCode(), b.ies->GetHashCode());
    auto c = ParseText(Profile("1 1 1 3 2 1 2 0 0 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 1"));
    EXPECT_EQ(a.ies->Compare(*c.ies), -c.ies->Compare(*a.ies));
    EXPECT_NE(a.ies->Compare(*c.ies), 0);
    auto d = ParseText("IESNA91\n" + text.substr(text.find('\n') + 1));  // other version only
    EXPECT_NE(a.ies->Compare(*d.ies), 0);

    // Raw access recomputes the derived values, so the profile equals a parsed one.
    auto raw = NewProfile();
    IesRawData r = a.ies->GetRawAccess();
    ASSERT_TRUE(raw->SetRawAccess(r.anglesVertical, r.anglesHorizontal, r.data).Ok());
    EXPECT_EQ(raw->GetRawAccess().dataMax, 100.0);
    EXPECT_EQ(raw->GetRawAccess().dataPower, r.dataPower);
    EXPECT_NE(raw->GetChecksum(), 0u);
    EXPECT_EQ(raw->ComputeLightIntensity(Direction(30, 20)),
              a.ies->ComputeLightIntensity(Direction(30, 20)));
    std::vector<double> three(3), two(2);
    auto bad = raw->SetRawAccess(three, two, three);
    ASSERT_FALSE(bad.Ok());
    EXPECT_EQ(bad.GetError().Message(), "Illegal argument: IES: Incorrect number or angles");
    std::vector<double> many(1025);
    EXPECT_FALSE(raw->SetRawAccess(many, {}, {}).Ok());
    EXPECT_EQ(raw->GetRawAccess().dataMax, 100.0);  // unchanged by the refused calls
}

TEST(IesObjectTest, OutOfMemoryAtEveryAllocationLeavesNoLeak) {
    std::string text = Profile("1 1 1 3 2 1 2 0 0 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 0");
    int64_t before = host::LiveAllocations();
    bool succeeded = false;
    for (int n = 1; n < 200 && !succeeded; ++n) {
        {
            auto ies = NewProfile();
            auto stream = MemoryInputStream::Make(text);
            ASSERT_TRUE(stream.Ok());
            host::FailNthAllocation(n);
            Result<void> r = ies->Init(*stream);
            host::FailNthAllocation(0);
            if (r.Ok()) {
                succeeded = true;
            } else {
                EXPECT_EQ(r.GetError().Message(), "Out of memory.") << n;
            }
        }
        EXPECT_EQ(host::LiveAllocations(), before) << n;
    }
    EXPECT_TRUE(succeeded);
}

TEST(IesEvalTest, BracketIndexFindsWhatAScanFinds) {
    // Irregular steps, repeated angles, arrays out of order, keys on and between angles and
    // outside the range, with and without an offset (the horizontal search works on angles
    // less the first).
    Random random(17);
    for (int round = 0; round < 200; ++round) {
        size_t n = 2 + random.Next64() % 40;
        std::vector<double> a(n);
        double at = random.Get01() * 100 - 50;
        for (double& v : a) {
            v = at;
            uint64_t r = random.Next64() % 4;
            at += r == 0 ? 0.0 : r == 1 ? 0.5 : r == 2 ? 2.5 : 30 * random.Get01();
            // Every third array is shuffled: a scan still defines the answer.
            if (round % 3 == 2 && random.Next64() % 3 == 0) at -= 40 * random.Get01();
        }
        double offset = round % 2 ? a[0] : 0.0;
        detail::BracketIndex index;
        ASSERT_TRUE(index.Build(a, offset).Ok());
        auto scan = [&](double key) {
            size_t j = 1;
            while (j < n && !(a[j] - offset > key)) ++j;
            return j;
        };
        for (int k = 0; k < 100; ++k) {
            double key = k % 3 == 0
                             ? a[random.Next64() % n] - offset
                             : (random.Get01() * 1.4 - 0.2) * (a[n - 1] - a[0]) + a[0] - offset;
            ASSERT_EQ(index.Find(key), scan(key)) << round << " " << key;
        }
    }
}

TEST(IesObjectTest, DescriptionRoundTripComparesEqualAndRefusesMismatchedCounts) {
    auto p =
        ParseText(Profile("1 1 1 3 2 1 2 0.5 0.25 0", "1 1 1", "0 45 90\n0 90\n100 50 0 80 40 0")
                      .replace(0, 16, "IESNA91\n[LAMP] caf\xe9"));
    ASSERT_TRUE(p.result.Ok()) << p.result.GetError().Message();
    auto io = Query<DescribeIOInterface>(StrongRef<Object>(p.ies));
    ASSERT_TRUE(io);
    auto document = WriteDescription(*io);
    ASSERT_TRUE(document.Ok()) << document.GetError().Message();
    EXPECT_LT(document->find("\"_properties\""), document->find("\"_anglesVertical\""));
    EXPECT_LT(document->find("\"_dataPower\""), document->find("\"_checksum\""));

    auto copy = NewProfile();
    ASSERT_TRUE(
        ReadDescription(*Query<DescribeIOInterface>(StrongRef<Object>(copy)), *document).Ok());
    EXPECT_EQ(copy->Compare(*p.ies), 0);
    EXPECT_EQ(copy->GetHashCode(), p.ies->GetHashCode());
    EXPECT_EQ(copy->GetProperties().Get<std::string>(int64_t(IESPROPERTY_LAMP)), " caf\xe9");
    for (double theta : {0.0, 30.0, 89.0})
        EXPECT_EQ(copy->ComputeLightIntensity(Direction(theta, 60)),
                  p.ies->ComputeLightIntensity(Direction(theta, 60)));

    // Stored values are taken as they are; counts that do not fit are refused whole.
    std::string stale = *document;
    size_t at = stale.find("\"_dataPower\":") + 13;
    stale.replace(at, stale.find(',', at) - at, "1.5");
    ASSERT_TRUE(ReadDescription(*Query<DescribeIOInterface>(StrongRef<Object>(copy)), stale).Ok());
    EXPECT_EQ(copy->GetRawAccess().dataPower, 1.5);
    std::string shortData = *document;
    at = shortData.find("\"_data\":[") + 9;
    shortData.erase(at, shortData.find(',', at) + 1 - at);
    auto refused = ReadDescription(*Query<DescribeIOInterface>(StrongRef<Object>(copy)), shortData);
    ASSERT_FALSE(refused.Ok());
    EXPECT_EQ(refused.GetError().Message(), "Illegal argument: IES: Incorrect number or angles");
    EXPECT_EQ(copy->GetRawAccess().data.size(), 6u);
    EXPECT_EQ(copy->GetRawAccess().dataPower, 1.5);
}

TEST(IesEvalTest, BatchedPowerIsThreadIndependentAndMatchesThePlainEstimate) {
    // One profile per way of folding φ, one with a narrow vertical range, one unsorted, and
    // real files: a batch lost or counted twice, a sum that follows the workers, or cached
    // angles that differ from the evaluator's show up as a difference here.
    std::vector<std::string> texts = {
        Profile("1 1 1 3 1 1 2 0 0 0", "1 1 1", "0 45 90\n0\n10 6 1"),
        Profile("1 1 1 3 3 1 2 0 0 0", "1 1 1", "0 50 90\n0 45 90\n9 5 1 8 4 1 7 3 0"),
        Profile("1 1 1 3 3 1 2 0 0 0", "1 1 1", "0 90 180\n10 90 190\n9 5 1 8 4 1 7 3 0"),
        Profile("1 1 1 3 4 1 2 0 0 0", "1 1 1", "30 60 75\n0 120 240 350\n9 5 1 8 4 1 7 3 0 2 2 2"),
        Profile("1 1 1 4 3 1 2 0 0 0", "1 1 1", "0 60 30 90\n0 270 90\n1 2 3 4 5 6 7 8 9 10 11 12"),
    };
    for (const char* file : {"arnold__profile.ies", "guv__ushio_b1.ies"})
        texts.push_back(
            ReadFile(std::filesystem::path(KELVO_SOURCE_DIR) / "tests/data/ies" / file));
    for (const std::string& text : texts) {
        auto p = ParseText(text);
        ASSERT_TRUE(p.result.Ok()) << text;
        auto* impl = dynamic_cast<IesImpl*>(p.ies.get());
        ASSERT_NE(impl, nullptr);
        const double stored = impl->GetRawAccess().dataPower;
        EXPECT_EQ(*impl->ComputePower(1), stored) << text;
        EXPECT_EQ(*impl->ComputePower(2), stored) << text;
        const double plain = impl->ComputePowerSerial();
        EXPECT_NEAR(stored, plain, 1e-12 * plain) << text;
        EXPECT_LT(stored, IesImpl::kFourPi) << text;
    }
}

}  // namespace
}  // namespace kelvo
