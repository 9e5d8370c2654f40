// IesImpl, the object: state, derived values, checksum, comparison, serialisation, raw
// access and the LM-63 writer. The parser and the evaluator have files of their own.
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

struct Keyword {
    std::string_view text;
    IESPROPERTY property;
};
// The writer's order differs from the reader's.
constexpr Keyword kWriterKeywords[] = {
    {"[MANUFAC]", IESPROPERTY_MANUFAC},     {"[LUMCAT]", IESPROPERTY_LUMCAT},
    {"[LUMINAIRE]", IESPROPERTY_LUMINAIRE}, {"[LAMPCAT]", IESPROPERTY_LAMPCAT},
    {"[LAMP]", IESPROPERTY_LAMP},
};

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
        if (nV > IesImpl::kMaxAngles || nH > IesImpl::kMaxAngles || data.size() != nV * nH)
            return IllegalArgumentError(KELVO_IES_HERE, "IES: Incorrect number or angles");
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
    if (nV > IesImpl::kMaxAngles || nH > IesImpl::kMaxAngles || data.size() != nV * nH)
        return IllegalArgumentError(KELVO_IES_HERE, "IES: Incorrect number or angles");
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