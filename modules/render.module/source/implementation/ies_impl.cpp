// IES LM-63 photometric profiles: parser, evaluator, power estimate, checksum, writer.
#include "ies_impl.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <compare>
#include <cstring>
#include <limits>

#include "ies_crc32c.h"
#include "kelvo/datadescription.h"
#include "kelvo/entry.h"
#include "kelvo/lexer.h"
#include "kelvo/random.h"

namespace kelvo {
namespace {

constexpr int64_t kMaxAngles = 1024;
constexpr double kFeetToMetres = 0.3048;
constexpr int kPowerSamples = 65536;
// Fixed, so that one profile always gets the same power estimate.
constexpr uint64_t kPowerSeed = 0x1E5u;
constexpr double kRadToDeg = 180.0 / 3.14159265358979323846;

struct Keyword {
    std::string_view text;
    IESPROPERTY property;
};
constexpr Keyword kHeaderKeywords[] = {
    {"[MANUFAC]", IESPROPERTY_MANUFAC}, {"[LUMINAIRE]", IESPROPERTY_LUMINAIRE},
    {"[LAMP]", IESPROPERTY_LAMP},       {"[LUMCAT]", IESPROPERTY_LUMCAT},
    {"[LAMPCAT]", IESPROPERTY_LAMPCAT},
};
// The writer's order differs from the reader's.
constexpr Keyword kWriterKeywords[] = {
    {"[MANUFAC]", IESPROPERTY_MANUFAC},     {"[LUMCAT]", IESPROPERTY_LUMCAT},
    {"[LUMINAIRE]", IESPROPERTY_LUMINAIRE}, {"[LAMPCAT]", IESPROPERTY_LAMPCAT},
    {"[LAMP]", IESPROPERTY_LAMP},
};

struct Shape {
    int code;
    Vec3 dimensions;
};

// Luminous-opening shape from the signs of width, length and height; the first matching
// row wins. The two rows with a zero in the middle that give codes 3 and 9 are kept as
// the format's readers have always had them.
Shape ClassifyShape(double w, double l, double h) {
    auto sign = [](double v) { return v > 0 ? 1 : v < 0 ? -1 : 0; };
    const int sw = sign(w), sl = sign(l), sh = sign(h);
    auto is = [&](int a, int b, int c) { return sw == a && sl == b && sh == c; };
    if (is(0, 0, 0)) return {0, {0, 0, 0}};
    if (is(1, 1, 0)) return {2, {w, l, 0}};
    if (is(1, 0, 1)) return {2, {w, h, 0}};
    if (is(0, 1, 1)) return {2, {h, l, 0}};
    if (is(1, 1, 1)) return {5, {w, l, h}};
    if (is(-1, 0, 0)) return {1, {-w, -w, -w}};
    if (is(-1, 0, -1)) return {3, {-w, -w, -w}};
    if (is(-1, 0, 1)) return {4, {-w, -w, h}};
    if (is(0, 1, -1)) return {9, {l, -h, -h}};
    if (is(1, 0, -1)) return {9, {w, -h, -h}};
    if (is(-1, 1, 1)) return {1, {-w, l, 0}};
    if (is(1, -1, 1)) return {1, {w, -l, 0}};
    if (is(-1, 1, -1)) return {3, {-w, l, -h}};
    if (is(1, -1, -1)) return {3, {w, -l, -h}};
    return {0, {0, 0, 0}};
}

Error LineError(int64_t line) {
    return UnexpectedError(KELVO_HERE, "IES file error in line @", line);
}

// Canonical bytes of the property dictionary: the input of its stable hash and the key
// of its order. Object-valued entries contribute their type only.
class Canonical {
public:
    void Bytes(const void* p, size_t n) { _out.append(static_cast<const char*>(p), n); }
    void U64(uint64_t v) {
        for (int i = 0; i < 8; ++i) _out.push_back(static_cast<char>(v >> (8 * i)));
    }
    void F64(double v) { U64(std::bit_cast<uint64_t>(v)); }
    void Text(std::string_view s) {
        U64(s.size());
        Bytes(s.data(), s.size());
    }
    std::string Take() { return std::move(_out); }

private:
    std::string _out;
};

std::string CanonicalProperties(const DataDictionary& dict) {
    Canonical c;
    for (const auto& [key, value] : dict) {
        c.U64(key.index());
        if (const Id* id = std::get_if<Id>(&key))
            c.Text(id->Text());
        else
            c.U64(static_cast<uint64_t>(std::get<int64_t>(key)));
        const Data::Variant& v = value.Raw();
        c.U64(v.index());
        std::visit(
            [&](const auto& x) {
                using X = std::decay_t<decltype(x)>;
                if constexpr (std::is_same_v<X, bool>)
                    c.U64(x ? 1 : 0);
                else if constexpr (std::is_same_v<X, int64_t>)
                    c.U64(static_cast<uint64_t>(x));
                else if constexpr (std::is_same_v<X, double>)
                    c.F64(x);
                else if constexpr (std::is_same_v<X, std::string>)
                    c.Text(x);
                else if constexpr (std::is_same_v<X, Id>)
                    c.Text(x.Text());
                else if constexpr (std::is_same_v<X, Vec2>) {
                    c.F64(x.x);
                    c.F64(x.y);
                } else if constexpr (std::is_same_v<X, Vec3>) {
                    c.F64(x.x);
                    c.F64(x.y);
                    c.F64(x.z);
                } else if constexpr (std::is_same_v<X, Col3>) {
                    c.F64(x.r);
                    c.F64(x.g);
                    c.F64(x.b);
                } else if constexpr (std::is_same_v<X, Url>) {
                    c.Text(x.Scheme());
                    c.Text(x.Path());
                }
            },
            v);
    }
    return c.Take();
}

uint64_t Fnv1a(std::string_view bytes, uint64_t h = 1469598103934665603ull) {
    for (char ch : bytes) {
        h ^= static_cast<unsigned char>(ch);
        h *= 1099511628211ull;
    }
    return h;
}

int Order(std::strong_ordering o) { return o < 0 ? -1 : o > 0 ? 1 : 0; }

int CompareArrays(const std::span<const double> a, const std::span<const double> b) {
    if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
    for (size_t i = 0; i < a.size(); ++i)
        if (int o = Order(std::strong_order(a[i], b[i]))) return o;
    return 0;
}

void AppendNumber(std::string& out, double v) {
    char buf[32];
    // Shortest text that reads back to the same double.
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, ec == std::errc() ? end : buf);
}

// "\n" before the 1st, 11th, 21st ... value, a blank after every value.
void AppendBlock(std::string& out, std::span<const double> values) {
    for (size_t i = 0; i < values.size(); ++i) {
        if (i % 10 == 0) out.push_back('\n');
        AppendNumber(out, values[i]);
        out.push_back(' ');
    }
}

}  // namespace

void IesImpl::Reset() {
    _properties = DataDictionary();
    _anglesVertical.clear();
    _anglesHorizontal.clear();
    _data.clear();
    _dataMax = 0.0;
    _dataPower = kFourPi;
    _checksum = 0;
    _verticalIndex = {};
    _horizontalIndex = {};
}

Result<void> IesImpl::Init(const StrongRef<InputStream>& input) {
    return CatchOutOfMemory([&] { return Parse(input, true); });
}

Result<void> IesImpl::ParseOnly(const StrongRef<InputStream>& input) {
    return CatchOutOfMemory([&] { return Parse(input, false); });
}

Result<void> IesImpl::Parse(const StrongRef<InputStream>& input, bool derive) {
    Reset();
    KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_VERSION), 0));
    KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_TILT), 0));
    KELVO_ASSIGN_OR_RETURN(StrongRef<LexerInterface> lexer, CreateLexer(input));

    // Header: version line, keyword lines and free text, up to the TILT line.
    for (;;) {
        KELVO_ASSIGN_OR_RETURN(LEXTOKEN token, lexer->Next());
        if (token == LEXTOKEN::END) return UnexpectedError(KELVO_HERE, "IES Header incomplete");
        if (token != LEXTOKEN::WORD) continue;
        std::string word(lexer->Text());
        if (word == "TILT") break;
        int version = word == "IESNA91"            ? 1
                      : word == "IESNA:LM-63-1995" ? 2
                      : word == "IESNA:LM-63-2002" ? 3
                                                   : 0;
        if (version != 0) KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_VERSION), version));
        KELVO_ASSIGN_OR_RETURN(std::string rest, lexer->RestOfLine());
        // The keyword may run into its text without a blank ("[MANUFAC]LITHONIA").
        for (const Keyword& k : kHeaderKeywords)
            if (std::string_view(word).starts_with(k.text))
                KELVO_TRY(_properties.Set(int64_t(k.property), word.substr(k.text.size()) + rest));
    }

    // TILT=NONE, or TILT=INCLUDE with its block, read and dropped. Tilt data in a file of
    // its own is not supported.
    KELVO_ASSIGN_OR_RETURN(LEXTOKEN equals, lexer->Next());
    if (equals != LEXTOKEN::EQUALS) return LineError(lexer->Line());
    KELVO_ASSIGN_OR_RETURN(LEXTOKEN tilt, lexer->Next());
    if (tilt == LEXTOKEN::WORD && lexer->Text() == "NONE") {
        KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_TILT), 1));
    } else if (tilt == LEXTOKEN::WORD && lexer->Text() == "INCLUDE") {
        KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_TILT), 2));
        KELVO_TRY(lexer->ReadInteger());  // lamp-to-luminaire geometry
        KELVO_ASSIGN_OR_RETURN(int64_t pairs, lexer->ReadInteger());
        for (int64_t i = 0; i < pairs; ++i) {
            KELVO_TRY(lexer->ReadNumber());  // angle
            KELVO_TRY(lexer->ReadNumber());  // multiplying factor
        }
    } else {
        return LineError(lexer->Line());
    }

    // First data line. The photometric type is read but not checked: type C is assumed.
    KELVO_TRY(lexer->ReadInteger());  // number of lamps
    KELVO_TRY(lexer->ReadNumber());   // lumens per lamp
    KELVO_ASSIGN_OR_RETURN(double multiplier, lexer->ReadNumber());
    KELVO_ASSIGN_OR_RETURN(int64_t nV, lexer->ReadInteger());
    KELVO_ASSIGN_OR_RETURN(int64_t nH, lexer->ReadInteger());
    KELVO_TRY(lexer->ReadInteger());  // photometric type
    KELVO_ASSIGN_OR_RETURN(int64_t units, lexer->ReadInteger());
    KELVO_ASSIGN_OR_RETURN(double width, lexer->ReadNumber());
    KELVO_ASSIGN_OR_RETURN(double length, lexer->ReadNumber());
    KELVO_ASSIGN_OR_RETURN(double height, lexer->ReadNumber());

    Shape shape = ClassifyShape(width, length, height);
    if (units == 1) shape.dimensions *= kFeetToMetres;
    KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_SHAPE), shape.code));
    KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_DIMENSIONS), shape.dimensions));

    // Second data line: ballast factor, ballast-lamp photometric factor, input watts.
    KELVO_ASSIGN_OR_RETURN(double ballast, lexer->ReadNumber());
    KELVO_ASSIGN_OR_RETURN(double ballastLamp, lexer->ReadNumber());
    KELVO_TRY(lexer->ReadNumber());
    // Files that leave the factor at zero mean "no correction".
    if (!(ballastLamp >= 0.0001)) ballastLamp = 1.0;

    if (nV < 0 || nV > kMaxAngles || nH < 0 || nH > kMaxAngles)
        return UnexpectedError(KELVO_HERE, "IES: Incorrect number or angles");
    _anglesVertical.resize(static_cast<size_t>(nV));
    _anglesHorizontal.resize(static_cast<size_t>(nH));
    _data.resize(static_cast<size_t>(nV * nH));
    for (double& angle : _anglesVertical) {
        KELVO_ASSIGN_OR_RETURN(angle, lexer->ReadNumber());
    }
    for (double& angle : _anglesHorizontal) {
        KELVO_ASSIGN_OR_RETURN(angle, lexer->ReadNumber());
    }
    for (double& value : _data) {
        KELVO_ASSIGN_OR_RETURN(double candela, lexer->ReadNumber());
        value = multiplier * ballast * ballastLamp * candela;
        _dataMax = std::max(_dataMax, value);
    }
    if (!derive) return _properties.Set(int64_t(IESPROPERTY_MAXCANDELA), _dataMax);
    return UpdateDerived(false);
}

Result<void> IesImpl::UpdateDerived(bool recomputeMax) {
    if (recomputeMax) {
        _dataMax = 0.0;
        for (double v : _data) _dataMax = std::max(_dataMax, v);
    }
    KELVO_TRY(_properties.Set(int64_t(IESPROPERTY_MAXCANDELA), _dataMax));
    KELVO_TRY(UpdateSearchCaches());
    _dataPower = ComputePower();
    _checksum = ComputeChecksum();
    return OK();
}

Result<void> IesImpl::UpdateSearchCaches() {
    KELVO_TRY(_verticalIndex.Build(_anglesVertical, 0.0));
    return _horizontalIndex.Build(_anglesHorizontal,
                                  _anglesHorizontal.empty() ? 0.0 : _anglesHorizontal[0]);
}

namespace detail {

Result<void> BracketIndex::Build(std::span<const double> a, double offset) {
    return CatchOutOfMemory([&]() -> Result<void> {
        const size_t n = a.size();
        _runningMax.clear();
        _start.clear();
        if (n < 2) return OK();
        // NaN angles never exceed a key, so they never raise the running maximum.
        double m = -std::numeric_limits<double>::infinity();
        _runningMax.resize(n - 1);
        for (size_t j = 1; j < n; ++j) {
            const double v = a[j] - offset;
            if (v > m) m = v;
            _runningMax[j - 1] = m;
        }
        _origin = _runningMax.front();
        const double range = _runningMax.back() - _origin;
        if (!(range > 0.0) || !std::isfinite(range)) return OK();
        // Four buckets per angle: with near-even steps a bucket's start is the answer.
        const size_t buckets = std::min<size_t>(4 * n, 4096);
        _scale = static_cast<double>(buckets) / range;
        _start.resize(buckets);
        size_t j = 1;
        for (size_t k = 0; k < buckets; ++k) {
            const double key = _origin + static_cast<double>(k) / _scale;
            while (j < n && !(_runningMax[j - 1] > key)) ++j;
            _start[k] = static_cast<uint16_t>(j);
        }
        return OK();
    });
}

size_t BracketIndex::Find(double key) const {
    const size_t n = _runningMax.size() + 1;
    if (n < 2) return 1;
    if (!_start.empty()) {
        const double f = (key - _origin) * _scale;
        const double last = static_cast<double>(_start.size() - 1);
        const size_t j = _start[f > 0.0 ? static_cast<size_t>(f < last ? f : last) : 0];
        // Exact when the running maximum first exceeds the key at j.
        if ((j == n || _runningMax[j - 1] > key) && (j == 1 || !(_runningMax[j - 2] > key)))
            return j;
    }
    return static_cast<size_t>(std::upper_bound(_runningMax.begin(), _runningMax.end(), key) -
                               _runningMax.begin()) +
           1;
}

}  // namespace detail

double IesImpl::ComputeLightIntensity(const Vec3& d) const {
    const size_t nV = _anglesVertical.size(), nH = _anglesHorizontal.size();
    if (nV == 0 || nH == 0 || !(_dataMax > 0.0)) return 0.0;
    const double* av = _anglesVertical.data();
    const double* ah = _anglesHorizontal.data();

    // Vertical angle θ from the nadir (-z); the factor keeps acos away from its
    // singular ends.
    const double q = -d.z * 0.999999;
    const double theta = q >= 1.0 ? 0.0 : q <= -1.0 ? 180.0 : std::acos(q) * kRadToDeg;
    if (theta < av[0] || theta > av[nV - 1]) return 0.0;

    // Vertical bracket: the first index whose successor exceeds θ.
    size_t i0 = 0, i1 = 0;
    if (nV > 1) {
        size_t j = _verticalIndex.Find(theta);
        if (j == nV) j = nV - 1;
        i0 = j - 1;
        i1 = j;
    }
    const double spanV = av[i1] - av[i0];
    const double t = spanV > 0.0 ? (theta - av[i0]) / spanV : 1.0;
    const size_t im = i0 > 0 ? i0 - 1 : 0;
    const size_t ip = std::min(i1 + 1, nV - 1);

    // Horizontal angle φ from +y towards +x, folded by the symmetry of the range the file
    // covers. A single plane needs no φ at all.
    const double a0 = ah[0];
    const double range = ah[nH - 1] - a0;
    double phi = 0.0;
    if (!(range < 45.0)) {
        if (d.y == 0.0) {
            phi = d.x >= 0.0 ? 90.0 : 270.0;
        } else {
            phi = std::atan2(d.x, d.y) * kRadToDeg;
            if (phi < 0.0) phi += 360.0;
        }
    }
    double phiF;
    if (range < 45.0) {
        phiF = 0.0;  // one plane: rotationally symmetric
    } else if (range < 135.0) {
        phiF = phi <= 90.0    ? phi
               : phi <= 180.0 ? 180.0 - phi
               : phi <= 270.0 ? phi - 180.0
                              : 360.0 - phi;
    } else if (range < 225.0) {
        phiF = std::fabs(phi - a0);
        if (phiF > 180.0) phiF = 360.0 - phiF;
    } else {
        phiF = phi;
    }
    size_t h0 = 0, h1 = 0;
    if (nH > 1) {
        size_t j = _horizontalIndex.Find(phiF);
        if (j == nH) j = nH - 1;
        h0 = j - 1;
        h1 = j;
    }
    const double spanH = ah[h1] - ah[h0];
    const double u = spanH > 0.0 ? (phiF - (ah[h0] - a0)) / spanH : 1.0;

    // Cubic Hermite along θ in each of the two planes, tangents from the neighbours.
    const double dTheta = av[i1] - av[i0];
    const double dm = av[i1] - av[im];
    const double dp = av[ip] - av[i0];
    auto plane = [&](size_t h) {
        const double* v = _data.data() + h * nV;
        const double v0 = v[i0], v1 = v[i1];
        const double dv = v1 - v0;
        const double m0 = dm > 0.0 ? (v1 - v[im]) * dTheta / dm : 0.0;
        const double m1 = dp > 0.0 ? (v[ip] - v0) * dTheta / dp : 0.0;
        return v0 + t * (m0 + t * ((3.0 * dv - 2.0 * m0 - m1) + t * (m0 + m1 - 2.0 * dv)));
    };
    const double p = u == 0.0 ? plane(h0) : (1.0 - u) * plane(h0) + u * plane(h1);
    // The clamp removes the undershoot of the cubic; a NaN falls to 0 as well.
    const double r = p / _dataMax;
    return r > 0.0 ? r : 0.0;
}

double IesImpl::ComputePower() const {
    // Directions uniform over the sphere by rejection from the cube [-1, 1]^3.
    Random random(kPowerSeed);
    double buffer[3 * 256];
    size_t used = std::size(buffer);
    auto next = [&] {
        if (used == std::size(buffer)) {
            random.Fill01(buffer, std::size(buffer));
            used = 0;
        }
        return buffer[used++] * 2.0 - 1.0;
    };
    double sum = 0.0;
    for (int i = 0; i < kPowerSamples; ++i) {
        Vec3 d;
        do {
            d.x = next();
            d.y = next();
            d.z = next();
        } while (SquaredLength(d) > 1.0);
        sum += ComputeLightIntensity(Normalize(d));
    }
    double power = sum * (kFourPi / kPowerSamples);
    // A dark or empty profile gets the power of a uniform light, so divisions stay finite.
    return power < 1e-7 ? kFourPi : power;
}

uint32_t IesImpl::ComputeChecksum() const {
    uint32_t crc = 0xFFFFFFFFu;
    auto feed = [&](const void* p, size_t n) { crc = detail::Crc32cUpdate(crc, p, n); };
    auto feedU64 = [&](uint64_t v) {
        unsigned char b[8];
        for (int i = 0; i < 8; ++i) b[i] = static_cast<unsigned char>(v >> (8 * i));
        feed(b, 8);
    };
    auto feedArray = [&](const DoubleArray& a) {
        if constexpr (std::endian::native == std::endian::little) {
            feed(a.data(), a.size() * sizeof(double));
        } else {
            for (double v : a) feedU64(std::bit_cast<uint64_t>(v));
        }
    };
    // Two 32-bit words of the properties: their stable 64-bit hash, low word first.
    feedU64(Fnv1a(CanonicalProperties(_properties)));
    feedU64(std::bit_cast<uint64_t>(_dataMax));
    feedU64(static_cast<uint64_t>(_anglesVertical.size()));
    feedU64(static_cast<uint64_t>(_anglesHorizontal.size()));
    feedArray(_anglesVertical);
    feedArray(_anglesHorizontal);
    feedArray(_data);
    return ~crc;
}

int IesImpl::Compare(const IesInterface& other) const {
    if (&other == this) return 0;
    IesRawData a = GetRawAccess(), b = other.GetRawAccess();
    if (int o = CompareArrays(a.anglesVertical, b.anglesVertical)) return o;
    if (int o = CompareArrays(a.anglesHorizontal, b.anglesHorizontal)) return o;
    if (int o = CompareArrays(a.data, b.data)) return o;
    if (int o = Order(std::strong_order(a.dataMax, b.dataMax))) return o;
    if (int o = Order(std::strong_order(a.dataPower, b.dataPower))) return o;
    if (a.checksum != b.checksum) return a.checksum < b.checksum ? -1 : 1;
    std::string pa = CanonicalProperties(_properties);
    std::string pb = CanonicalProperties(other.GetProperties());
    return pa < pb ? -1 : pa > pb ? 1 : 0;
}

uint64_t IesImpl::GetHashCode() const {
    // The checksum already covers properties, angles and values.
    uint64_t h = Fnv1a(std::string_view(reinterpret_cast<const char*>(&_checksum), 4));
    uint64_t power = std::bit_cast<uint64_t>(_dataPower);
    return Fnv1a(std::string_view(reinterpret_cast<const char*>(&power), 8), h);
}

Result<void> IesImpl::DescribeIO(DataDescriber& io) {
    return CatchOutOfMemory([&]() -> Result<void> {
        if (!io.IsReading()) {
            KELVO_TRY(Describe(io, "_properties", _properties));
            KELVO_TRY(Describe(io, "_anglesVertical", _anglesVertical));
            KELVO_TRY(Describe(io, "_anglesHorizontal", _anglesHorizontal));
            KELVO_TRY(Describe(io, "_data", _data));
            KELVO_TRY(Describe(io, "_dataMax", _dataMax));
            KELVO_TRY(Describe(io, "_dataPower", _dataPower));
            return Describe(io, "_checksum", _checksum);
        }
        // Read into copies and take them only when the counts fit together: the evaluator
        // indexes the values by the angle counts.
        DataDictionary properties;
        DoubleArray vertical, horizontal, data;
        double dataMax = 0.0, dataPower = 0.0;
        uint32_t checksum = 0;
        KELVO_TRY(Describe(io, "_properties", properties));
        KELVO_TRY(Describe(io, "_anglesVertical", vertical));
        KELVO_TRY(Describe(io, "_anglesHorizontal", horizontal));
        KELVO_TRY(Describe(io, "_data", data));
        KELVO_TRY(Describe(io, "_dataMax", dataMax));
        KELVO_TRY(Describe(io, "_dataPower", dataPower));
        KELVO_TRY(Describe(io, "_checksum", checksum));
        const size_t nV = vertical.size(), nH = horizontal.size();
        if (nV > kMaxAngles || nH > kMaxAngles || data.size() != nV * nH)
            return IllegalArgumentError(KELVO_HERE, "IES: Incorrect number or angles");
        detail::BracketIndex verticalIndex, horizontalIndex;
        KELVO_TRY(verticalIndex.Build(vertical, 0.0));
        KELVO_TRY(horizontalIndex.Build(horizontal, horizontal.empty() ? 0.0 : horizontal[0]));
        // Nothing is recomputed: a stored profile comes back exactly as it was stored.
        std::swap(_properties, properties);
        _anglesVertical.swap(vertical);
        _anglesHorizontal.swap(horizontal);
        _data.swap(data);
        _dataMax = dataMax;
        _dataPower = dataPower;
        _checksum = checksum;
        std::swap(_verticalIndex, verticalIndex);
        std::swap(_horizontalIndex, horizontalIndex);
        return OK();
    });
}

Result<std::string> IesImpl::ConvertToText() const {
    return CatchOutOfMemory([&]() -> Result<std::string> {
        std::string out;
        switch (_properties.Get<int>(int64_t(IESPROPERTY_VERSION), 0)) {
            case 1:
                out += "IESNA91\n";
                break;
            case 2:
                out += "IESNA:LM-63-1995\n";
                break;
            case 3:
                out += "IESNA:LM-63-2002\n";
                break;
            default:
                break;
        }
        for (const Keyword& k : kWriterKeywords) {
            std::string text = _properties.Get<std::string>(int64_t(k.property));
            if (text.empty()) continue;
            out.append(k.text);
            out += text;
            out += '\n';
        }
        // Tilt data of an INCLUDE block is not kept, so it is written as NONE.
        int tilt = _properties.Get<int>(int64_t(IESPROPERTY_TILT), 0);
        if (tilt == 1 || tilt == 2) out += "TILT=NONE\n";
        // One lamp, one lumen, multiplier 1: the values written are the scaled ones.
        out += "1 1 1 ";
        out += std::to_string(_anglesVertical.size()) + " ";
        out += std::to_string(_anglesHorizontal.size()) + " ";
        out += "1 2 ";  // photometric type C, units metres
        Vec3 dims = _properties.Get<Vec3>(int64_t(IESPROPERTY_DIMENSIONS));
        AppendNumber(out, dims.x);
        out += ' ';
        AppendNumber(out, dims.y);
        out += ' ';
        AppendNumber(out, dims.z);
        out += "\n1 1 1";
        AppendBlock(out, _anglesVertical);
        AppendBlock(out, _anglesHorizontal);
        const size_t nV = _anglesVertical.size();
        for (size_t h = 0; h < _anglesHorizontal.size(); ++h)
            AppendBlock(out, std::span<const double>(_data).subspan(h * nV, nV));
        return out;
    });
}

IesRawData IesImpl::GetRawAccess() const {
    return {_anglesVertical, _anglesHorizontal, _data, _dataMax, _dataPower, _checksum};
}

Result<void> IesImpl::SetRawAccess(std::span<const double> anglesVertical,
                                   std::span<const double> anglesHorizontal,
                                   std::span<const double> data) {
    const size_t nV = anglesVertical.size(), nH = anglesHorizontal.size();
    if (nV > kMaxAngles || nH > kMaxAngles || data.size() != nV * nH)
        return IllegalArgumentError(KELVO_HERE, "IES: Incorrect number or angles");
    return CatchOutOfMemory([&]() -> Result<void> {
        // Copies first, so that a failed allocation leaves the profile as it was.
        DoubleArray v(anglesVertical.begin(), anglesVertical.end());
        DoubleArray h(anglesHorizontal.begin(), anglesHorizontal.end());
        DoubleArray values(data.begin(), data.end());
        _anglesVertical.swap(v);
        _anglesHorizontal.swap(h);
        _data.swap(values);
        return UpdateDerived(true);
    });
}

KELVO_REGISTER_COMPONENT(s_ies, "IesImpl", IesInterface, IesImpl);

}  // namespace kelvo
