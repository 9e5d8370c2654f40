// The IES LM-63 parser: header keywords, the tilt block, the two data lines, the angles
// and the candela values, scaled by the multipliers as they are read.
#include <algorithm>
#include <cmath>
#include <string>

#include "ies_impl.h"
#include "kelvo/lexer.h"

namespace kelvo {
namespace {

constexpr double kFeetToMetres = 0.3048;

struct Keyword {
    std::string_view text;
    IESPROPERTY property;
};
constexpr Keyword kHeaderKeywords[] = {
    {"[MANUFAC]", IESPROPERTY_MANUFAC}, {"[LUMINAIRE]", IESPROPERTY_LUMINAIRE},
    {"[LAMP]", IESPROPERTY_LAMP},       {"[LUMCAT]", IESPROPERTY_LUMCAT},
    {"[LAMPCAT]", IESPROPERTY_LAMPCAT},
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

// The most an IES input may hold: 1024 x 1024 candela values in generous text, with room
// for the header. Beyond it the input is no profile (a device, an endless or sparse file),
// and reading stops there rather than growing one token or the header loop without end.
constexpr int64_t kMaxIesBytes = int64_t(32) << 20;

Error TooLarge() {
    return UnsupportedArgumentError(KELVO_IES_HERE, "IES file is larger than @ bytes",
                                    kMaxIesBytes);
}

// The input, ending in an error once it gives more than kMaxIesBytes.
class BoundedInput final : public Implements<InputStream> {
public:
    explicit BoundedInput(StrongRef<InputStream> input) : _input(std::move(input)) {}
    Result<size_t> Read(void* buffer, size_t size) override {
        if (_left == 0) {
            char probe = 0;  // at the bound: one byte more is too much
            KELVO_ASSIGN_OR_RETURN(size_t n, _input->Read(&probe, 1));
            if (n == 0) return size_t(0);
            return TooLarge();
        }
        KELVO_ASSIGN_OR_RETURN(
            size_t n, _input->Read(buffer, size_t(std::min<int64_t>(int64_t(size), _left))));
        _left -= int64_t(n);
        return n;
    }
    int64_t Length() const override { return _input->Length(); }

private:
    StrongRef<InputStream> _input;
    int64_t _left = kMaxIesBytes;
};

Error LineError(int64_t line) {
    return UnexpectedError(KELVO_IES_HERE, "IES file error in line @", line);
}

}  // namespace

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
    StrongRef<InputStream> source = input;  // no input: the lexer's own error
    if (input) {
        if (input->Length() > kMaxIesBytes) return TooLarge();
        KELVO_ASSIGN_OR_RETURN(source, NewObject<BoundedInput>(input));
    }
    KELVO_ASSIGN_OR_RETURN(StrongRef<LexerInterface> lexer, CreateLexer(source));

    // Header: version line, keyword lines and free text, up to the TILT line.
    for (;;) {
        KELVO_ASSIGN_OR_RETURN(LEXTOKEN token, lexer->Next());
        if (token == LEXTOKEN::END) return UnexpectedError(KELVO_IES_HERE, "IES Header incomplete");
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

    if (nV < 0 || nV > IesImpl::kMaxAngles || nH < 0 || nH > IesImpl::kMaxAngles)
        return UnexpectedError(KELVO_IES_HERE, "IES: Incorrect number or angles");
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
        // A value beyond the largest double could not be written back as a number.
        if (!std::isfinite(value)) return LineError(lexer->Line());
        _dataMax = std::max(_dataMax, value);
    }
    if (!derive) return _properties.Set(int64_t(IESPROPERTY_MAXCANDELA), _dataMax);
    return UpdateDerived(false);
}

}  // namespace kelvo
