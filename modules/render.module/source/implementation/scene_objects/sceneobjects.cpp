// The scene-object classes: a base object with a matrix, cameras that produce camera
// parameter dictionaries, and lights that produce their colour.
#include <array>
#include <cmath>

#include "colortemperature.h"
#include "kelvo/entry.h"
#include "kelvo/registry.h"
#include "kelvo/sceneobject.h"

namespace kelvo::sceneobjects {
namespace {
namespace A = SCENEOBJECTATTRIBUTES;

enum class ATTRIBUTETYPE : uint8_t { NUMBER, INTEGER, BOOL, TEXT, ID, PAIR, MATRIX };

// One attribute: its type, default, and the range a value must lie in.
struct AttributeInfo {
    Id id;
    ATTRIBUTETYPE type;
    double number = 0.0;  // default of NUMBER, INTEGER, BOOL (non-zero is true)
    Vec2 pair{};          // default of PAIR
    Id idValue{};         // default of ID
    bool (*accepts)(const Data& value) = nullptr;  // the range; nullptr takes any value
    const char* rule = nullptr;                    // the range in words, for the error
};

bool Positive(const Data& v) { return *v.Get<double>() > 0.0; }
bool NotNegative(const Data& v) { return *v.Get<double>() >= 0.0; }
bool FinitePair(const Data& v) {
    const Vec2& p = *v.Get<Vec2>();
    return std::isfinite(p.x) && std::isfinite(p.y);
}
bool CameraClass(const Data& v) {
    const Id& id = *v.Get<Id>();
    return id == kPerspectiveCameraClass || id == kParallelCameraClass;
}
bool KnownShape(const Data& v) {
    const int64_t s = *v.Get<int64_t>();
    return s >= int64_t(LIGHTSHAPE::POINT) && s <= int64_t(LIGHTSHAPE::SPHERE);
}
bool Temperature(const Data& v) {
    const double k = *v.Get<double>();
    return k == 0.0 || (k >= 1000.0 && k <= 40000.0);
}
bool SampleCount(const Data& v) {
    const int64_t n = *v.Get<int64_t>();
    return n >= 1 && n <= 65536;
}

#define KELVO_BASE_ATTRIBUTES                                                                     \
    AttributeInfo{A::MATRIX, ATTRIBUTETYPE::MATRIX}, AttributeInfo{A::NAME, ATTRIBUTETYPE::TEXT}, \
        AttributeInfo {                                                                           \
        A::VISIBLE, ATTRIBUTETYPE::BOOL, 1.0                                                      \
    }

constexpr AttributeInfo kBaseAttributes[] = {KELVO_BASE_ATTRIBUTES};

constexpr AttributeInfo kCameraAttributes[] = {
    KELVO_BASE_ATTRIBUTES,
    {A::PROJECTION,
     ATTRIBUTETYPE::ID,
     0,
     {},
     kPerspectiveCameraClass,
     CameraClass,
     "net.kelvo.render.cameraclass.perspective or net.kelvo.render.cameraclass.parallel"},
    {A::FOCALLENGTH, ATTRIBUTETYPE::NUMBER, 36.0, {}, {}, Positive, "greater than 0"},
    {A::SENSORSIZE, ATTRIBUTETYPE::NUMBER, 36.0, {}, {}, Positive, "greater than 0"},
    {A::ZOOM, ATTRIBUTETYPE::NUMBER, 1.0, {}, {}, Positive, "greater than 0"},
    {A::FILMOFFSET, ATTRIBUTETYPE::PAIR, 0, {0, 0}, {}, FinitePair, "finite"},
    {A::FRAMEWIDTH, ATTRIBUTETYPE::NUMBER, 100.0, {}, {}, Positive, "greater than 0"},
    {A::NEARCLIPPING, ATTRIBUTETYPE::NUMBER, 1.0, {}, {}, NotNegative, "at least 0"},
    {A::FARCLIPPING, ATTRIBUTETYPE::NUMBER, 100000.0, {}, {}, NotNegative, "at least 0"},
    {A::NEARCLIPPINGENABLED, ATTRIBUTETYPE::BOOL, 0.0},
    {A::FARCLIPPINGENABLED, ATTRIBUTETYPE::BOOL, 0.0},
};

constexpr AttributeInfo kLightAttributes[] = {
    KELVO_BASE_ATTRIBUTES,
    {A::SHAPE, ATTRIBUTETYPE::INTEGER, 0.0, {}, {}, KnownShape, "a light shape from 0 to 5"},
    {A::INTENSITY, ATTRIBUTETYPE::NUMBER, 1.0, {}, {}, NotNegative, "at least 0"},
    {A::COLORTEMPERATURE,
     ATTRIBUTETYPE::NUMBER,
     6504.0,
     {},
     {},
     Temperature,
     "0 or between 1000 and 40000"},
    {A::SAMPLECOUNT, ATTRIBUTETYPE::INTEGER, 16.0, {}, {}, SampleCount, "between 1 and 65536"},
};
#undef KELVO_BASE_ATTRIBUTES

template <size_t N>
constexpr std::array<Id, N> IdsOf(const AttributeInfo (&attributes)[N]) {
    std::array<Id, N> ids{};
    for (size_t i = 0; i < N; ++i) ids[i] = attributes[i].id;
    return ids;
}
constexpr auto kBaseIds = IdsOf(kBaseAttributes);
constexpr auto kCameraIds = IdsOf(kCameraAttributes);
constexpr auto kLightIds = IdsOf(kLightAttributes);

const char* TypeName(ATTRIBUTETYPE type) {
    switch (type) {
        case ATTRIBUTETYPE::NUMBER:
            return "a number";
        case ATTRIBUTETYPE::INTEGER:
            return "an integer";
        case ATTRIBUTETYPE::BOOL:
            return "a bool";
        case ATTRIBUTETYPE::TEXT:
            return "a text";
        case ATTRIBUTETYPE::ID:
            return "an id";
        case ATTRIBUTETYPE::PAIR:
            return "a pair of numbers";
        case ATTRIBUTETYPE::MATRIX:
            return "a matrix";
    }
    return "";
}

Data DefaultOf(const AttributeInfo& info) {
    switch (info.type) {
        case ATTRIBUTETYPE::NUMBER:
            return Data(info.number);
        case ATTRIBUTETYPE::INTEGER:
            return Data(int64_t(info.number));
        case ATTRIBUTETYPE::BOOL:
            return Data(info.number != 0.0);
        case ATTRIBUTETYPE::TEXT:
            return Data(std::string());
        case ATTRIBUTETYPE::ID:
            return Data(info.idValue);
        case ATTRIBUTETYPE::PAIR:
            return Data(info.pair);
        case ATTRIBUTETYPE::MATRIX:
            return Data(Matrix{});
    }
    return Data();
}

// The value in the attribute's own type, or empty when it has another type. Whole
// numbers are taken where a number is expected.
Data Coerce(const AttributeInfo& info, const Data& value) {
    switch (info.type) {
        case ATTRIBUTETYPE::NUMBER:
            if (const int64_t* i = value.Get<int64_t>()) return Data(double(*i));
            return value.Get<double>() ? value : Data();
        case ATTRIBUTETYPE::INTEGER:
            return value.Get<int64_t>() ? value : Data();
        case ATTRIBUTETYPE::BOOL:
            return value.Get<bool>() ? value : Data();
        case ATTRIBUTETYPE::TEXT:
            return value.Get<std::string>() ? value : Data();
        case ATTRIBUTETYPE::ID:
            return value.Get<Id>() ? value : Data();
        case ATTRIBUTETYPE::PAIR:
            return value.Get<Vec2>() ? value : Data();
        case ATTRIBUTETYPE::MATRIX:
            return value.Get<Matrix>() ? value : Data();
    }
    return Data();
}

// Attribute storage and checking shared by the three classes.
template <typename... Extra>
class SceneObjectImpl : public Implements<SceneObjectInterface, Extra...> {
public:
    SceneObjectImpl(const Id& classId, std::span<const AttributeInfo> attributes,
                    std::span<const Id> ids)
        : _classId(classId), _attributes(attributes), _ids(ids) {}

    Result<void> SetAttribute(const Id& attribute, const Data& value) override {
        const AttributeInfo* info = Find(attribute);
        if (!info)
            return IllegalArgumentError(KELVO_HERE, "@ is no attribute of @.", attribute, _classId);
        Data typed = Coerce(*info, value);
        if (typed.IsEmpty())
            return IllegalArgumentError(KELVO_HERE, "Attribute @ must be @.", attribute,
                                        TypeName(info->type));
        if (info->accepts && !info->accepts(typed))
            return IllegalArgumentError(KELVO_HERE, "Attribute @ must be @.", attribute,
                                        info->rule);
        return _values.Set(attribute, std::move(typed));
    }

    Data GetAttribute(const Id& attribute) const override {
        const AttributeInfo* info = Find(attribute);
        if (!info) return Data();
        const Data* set = _values.Find(attribute);
        return set ? *set : DefaultOf(*info);
    }

    std::span<const Id> GetAttributeIds() const override { return _ids; }

protected:
    // Typed reads for the derived classes; every attribute has a value of its type.
    double Number(const Id& id) const { return *GetAttribute(id).template Get<double>(); }
    template <typename T>
    T Value(const Id& id) const {
        return *GetAttribute(id).template Get<T>();
    }

private:
    const AttributeInfo* Find(const Id& id) const {
        for (const AttributeInfo& s : _attributes)
            if (s.id == id) return &s;
        return nullptr;
    }

    Id _classId;
    std::span<const AttributeInfo> _attributes;
    std::span<const Id> _ids;
    DataDictionary _values;
};

class BaseObjectImpl final : public SceneObjectImpl<> {
public:
    BaseObjectImpl() : SceneObjectImpl(kSceneObjectBaseClass, kBaseAttributes, kBaseIds) {}
};

class CameraObjectImpl final : public SceneObjectImpl<CameraObjectInterface> {
public:
    CameraObjectImpl() : SceneObjectImpl(kSceneObjectCameraClass, kCameraAttributes, kCameraIds) {}

    Result<StrongRef<DataDictionary>> GetCameraParameters(const Vec2& resolution) const override {
        KELVO_ASSIGN_OR_RETURN(StrongRef<DataDictionary> p, NewObject<DataDictionary>());
        const bool parallel = Value<Id>(A::PROJECTION) == kParallelCameraClass;
        const double zoom = Number(A::ZOOM);
        const Vec2 film = Value<Vec2>(A::FILMOFFSET);
        namespace P = CAMERAPARAMETERS;
        KELVO_TRY(p->Set(P::MATRIX, Value<Matrix>(A::MATRIX)));
        KELVO_TRY(p->Set(P::SCREENRESOLUTION, resolution));
        // The sensor spans the image width, so a fraction of it is that fraction of the
        // width in pixels, in y as in x.
        KELVO_TRY(p->Set(P::SCREENOFFSET, Vec2{film.x * resolution.x, film.y * resolution.x}));
        if (parallel) {
            const double scale = zoom / Number(A::FRAMEWIDTH);
            KELVO_TRY(p->Set(P::SCREENSCALE, Vec2{scale, scale}));
        } else {
            KELVO_TRY(p->Set(P::SCREENSCALE, Vec2{1, 1}));
            KELVO_TRY(
                p->Set(P::FIELDOFVIEW, Number(A::SENSORSIZE) / (Number(A::FOCALLENGTH) * zoom)));
        }
        KELVO_TRY(p->Set(P::WINDOWFROM, Vec2{0, 0}));
        KELVO_TRY(p->Set(P::WINDOWTO, resolution));
        KELVO_TRY(p->Set(P::NEARCLIPPING, Number(A::NEARCLIPPING)));
        KELVO_TRY(p->Set(P::FARCLIPPING, Number(A::FARCLIPPING)));
        KELVO_TRY(p->Set(P::NEARCLIPPINGENABLED, Value<bool>(A::NEARCLIPPINGENABLED)));
        KELVO_TRY(p->Set(P::FARCLIPPINGENABLED, Value<bool>(A::FARCLIPPINGENABLED)));
        return p;
    }

    Result<StrongRef<CameraInterface>> CreateCamera(const Vec2& resolution,
                                                    bool flipped) const override {
        KELVO_ASSIGN_OR_RETURN(StrongRef<DataDictionary> parameters,
                               GetCameraParameters(resolution));
        KELVO_ASSIGN_OR_RETURN(StrongRef<CameraInterface> camera,
                               CreateClass<CameraInterface>(Value<Id>(A::PROJECTION)));
        KELVO_TRY(camera->Init(parameters, flipped));
        return camera;
    }
};

class LightObjectImpl final : public SceneObjectImpl<LightObjectInterface> {
public:
    LightObjectImpl() : SceneObjectImpl(kSceneObjectLightClass, kLightAttributes, kLightIds) {}

    LIGHTSHAPE GetShape() const override { return LIGHTSHAPE(Value<int64_t>(A::SHAPE)); }
    Col3 GetColor() const override {
        const double kelvin = Number(A::COLORTEMPERATURE);
        return kelvin == 0.0 ? Col3{1, 1, 1} : BlackBodyColor(kelvin);
    }
    Col3 GetEmission() const override { return GetColor() * Number(A::INTENSITY); }
    int64_t GetSampleCount() const override { return Value<int64_t>(A::SAMPLECOUNT); }
};

KELVO_REGISTER_CLASS(s_sceneObjectCamera, "net.kelvo.render.sceneobject.camera",
                     kSceneObjectClassesRegistry, SceneObjectInterface::InterfaceId(),
                     CameraObjectImpl);
KELVO_REGISTER_CLASS(s_sceneObjectLight, "net.kelvo.render.sceneobject.light",
                     kSceneObjectClassesRegistry, SceneObjectInterface::InterfaceId(),
                     LightObjectImpl);
KELVO_REGISTER_CLASS(s_sceneObjectBase, "net.kelvo.render.sceneobject.base",
                     kSceneObjectClassesRegistry, SceneObjectInterface::InterfaceId(),
                     BaseObjectImpl);

}  // namespace
}  // namespace kelvo::sceneobjects
