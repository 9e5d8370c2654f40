// Writing and reading data descriptions as JSON documents (format in
// kelvo/datadescription.h).
#include "kelvo/datadescription.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <nlohmann/json.hpp>

#include "host.h"
#include "json_text.h"

namespace kelvo::host {
namespace {

using Json = nlohmann::ordered_json;
constexpr int kDocumentVersion = 1;

Json TextToJson(const std::string& s) {
    if (IsUtf8(s)) return s;
    return Json{{"latin1", Latin1ToUtf8(s)}};
}

bool TextFromJson(const Json& j, std::string& out) {
    if (j.is_string()) {
        out = j.get<std::string>();
        return true;
    }
    if (!j.is_object() || !j.contains("latin1") || !j["latin1"].is_string()) return false;
    std::optional<std::string> bytes = Utf8ToLatin1(j["latin1"].get<std::string>());
    if (!bytes) return false;
    out = std::move(*bytes);
    return true;
}

Json NumberToJson(double v) {
    if (std::string_view name = NonFiniteName(v); !name.empty()) return std::string(name);
    return v;
}

bool NumberFromJson(const Json& j, double& out) {
    if (j.is_number()) {
        out = j.get<double>();
        return true;
    }
    if (!j.is_string()) return false;
    std::optional<double> named = NonFiniteFromName(j.get<std::string>());
    if (!named) return false;
    out = *named;
    return true;
}

template <typename V>
Json VecToJson(const V& v) {
    Json a = Json::array();
    for (double c : v) a.push_back(NumberToJson(c));
    return a;
}
template <size_t N>
bool VecFromJson(const Json& j, double (&out)[N]) {
    if (!j.is_array() || j.size() != N) return false;
    for (size_t i = 0; i < N; ++i)
        if (!NumberFromJson(j[i], out[i])) return false;
    return true;
}

std::string KeyText(const DataDictionary::Key& key) {
    return key.index() == 0 ? std::string(std::get<Id>(key).Text())
                            : std::to_string(std::get<int64_t>(key));
}

Json Vec3ToJson(const Vec3& v) { return VecToJson(std::initializer_list<double>{v.x, v.y, v.z}); }

Result<Json> DictionaryToJson(const DataDictionary& dict) {
    Json entries = Json::array();
    for (const auto& [key, data] : dict) {
        Json e;
        if (key.index() == 0)
            e["key"] = std::string(std::get<Id>(key).Text());
        else
            e["key"] = std::get<int64_t>(key);
        const auto& v = data.Raw();
        if (std::holds_alternative<std::monostate>(v)) {
            e["type"] = "none";
            e["value"] = nullptr;
        } else if (auto* b = std::get_if<bool>(&v)) {
            e["type"] = "bool";
            e["value"] = *b;
        } else if (auto* i = std::get_if<int64_t>(&v)) {
            e["type"] = "int64";
            e["value"] = *i;
        } else if (auto* d = std::get_if<double>(&v)) {
            e["type"] = "float64";
            e["value"] = NumberToJson(*d);
        } else if (auto* s = std::get_if<std::string>(&v)) {
            e["type"] = "string";
            e["value"] = TextToJson(*s);
        } else if (auto* id = std::get_if<Id>(&v)) {
            e["type"] = "id";
            e["value"] = std::string(id->Text());
        } else if (auto* v2 = std::get_if<Vec2>(&v)) {
            e["type"] = "vec2";
            e["value"] = VecToJson(std::initializer_list<double>{v2->x, v2->y});
        } else if (auto* v3 = std::get_if<Vec3>(&v)) {
            e["type"] = "vec3";
            e["value"] = Vec3ToJson(*v3);
        } else if (auto* c3 = std::get_if<Col3>(&v)) {
            e["type"] = "col3";
            e["value"] = VecToJson(std::initializer_list<double>{c3->r, c3->g, c3->b});
        } else if (auto* m = std::get_if<Matrix>(&v)) {
            e["type"] = "matrix";
            e["value"] = Json{{"offset", Vec3ToJson(m->offset)},
                              {"xAxis", Vec3ToJson(m->xAxis)},
                              {"yAxis", Vec3ToJson(m->yAxis)},
                              {"zAxis", Vec3ToJson(m->zAxis)}};
        } else if (auto* u = std::get_if<Url>(&v)) {
            e["type"] = "url";
            e["value"] = TextToJson(u->ToString());
        } else {
            return IllegalArgumentError(KELVO_HERE, "The value under @ cannot be serialised.",
                                        KeyText(key));
        }
        entries.push_back(std::move(e));
    }
    return Json{{"entries", std::move(entries)}};
}

Error NotA(std::string_view key, std::string_view what) {
    return IllegalArgumentError(KELVO_HERE, "Member @ is not @.", key, what);
}

Result<DataDictionary> DictionaryFromJson(std::string_view member, const Json& j) {
    if (!j.is_object() || !j.contains("entries") || !j["entries"].is_array())
        return NotA(member, "a data dictionary");
    DataDictionary dict;
    for (const Json& e : j["entries"]) {
        if (!e.is_object() || !e.contains("key") || !e.contains("type") || !e["type"].is_string())
            return NotA(member, "a data dictionary");
        DataDictionary::Key key;
        if (e["key"].is_number_integer()) {
            key = e["key"].get<int64_t>();
        } else if (e["key"].is_string()) {
            KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText(e["key"].get<std::string>()));
            key = id;
        } else {
            return NotA(member, "a data dictionary");
        }
        const std::string type = e["type"].get<std::string>();
        const Json& v = e.contains("value") ? e["value"] : Json();
        Data data;
        bool ok = true;
        double n[3] = {};
        std::string text;
        if (type == "none") {
        } else if (type == "bool" && v.is_boolean()) {
            data = v.get<bool>();
        } else if (type == "int64" && v.is_number_integer()) {
            data = v.get<int64_t>();
        } else if (type == "float64" && NumberFromJson(v, n[0])) {
            data = n[0];
        } else if (type == "string" && TextFromJson(v, text)) {
            data = text;
        } else if (type == "id" && v.is_string()) {
            KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText(v.get<std::string>()));
            data = id;
        } else if (type == "vec2" && v.is_array() && v.size() == 2 && NumberFromJson(v[0], n[0]) &&
                   NumberFromJson(v[1], n[1])) {
            data = Vec2{n[0], n[1]};
        } else if (type == "vec3" && VecFromJson(v, n)) {
            data = Vec3{n[0], n[1], n[2]};
        } else if (type == "col3" && VecFromJson(v, n)) {
            data = Col3{n[0], n[1], n[2]};
        } else if (type == "matrix" && v.is_object()) {
            Matrix m;
            for (auto [name, at] : {std::pair{"offset", &m.offset},
                                    {"xAxis", &m.xAxis},
                                    {"yAxis", &m.yAxis},
                                    {"zAxis", &m.zAxis}}) {
                if (!v.contains(name)) continue;
                ok = ok && VecFromJson(v[name], n);
                *at = Vec3{n[0], n[1], n[2]};
            }
            data = m;
        } else if (type == "url" && TextFromJson(v, text)) {
            KELVO_ASSIGN_OR_RETURN(Url url, Url::FromText(text));
            data = url;
        } else {
            ok = false;
        }
        if (!ok) return NotA(member, "a data dictionary");
        KELVO_TRY(dict.Set(key, std::move(data)));
    }
    return dict;
}

template <typename T>
Json ArrayToJson(const DescribedMember& m) {
    size_t n = m.array->size(m.address);
    auto* p = static_cast<const T*>(m.array->data(m.address));
    Json a = Json::array();
    for (size_t i = 0; i < n; ++i) {
        if constexpr (std::is_floating_point_v<T>)
            a.push_back(NumberToJson(double(p[i])));
        else
            a.push_back(p[i]);
    }
    return a;
}

// Whether a JSON value is a number that T holds exactly (integers) or at all (floats).
template <typename T>
bool ReadNumber(const Json& j, T& out) {
    if constexpr (std::is_floating_point_v<T>) {
        double d;
        if (!NumberFromJson(j, d)) return false;
        out = static_cast<T>(d);
        return true;
    } else {
        if (!j.is_number_integer()) return false;
        if (j.is_number_unsigned()) {
            auto u = j.get<uint64_t>();
            if (u > uint64_t(std::numeric_limits<T>::max())) return false;
            out = static_cast<T>(u);
            return true;
        }
        auto i = j.get<int64_t>();
        if (i < int64_t(std::numeric_limits<T>::min()) ||
            (i > 0 && uint64_t(i) > uint64_t(std::numeric_limits<T>::max())))
            return false;
        out = static_cast<T>(i);
        return true;
    }
}

template <typename T>
Result<void> ArrayFromJson(std::string_view key, const Json& j, const DescribedMember& m) {
    if (!j.is_array()) return NotA(key, "an array");
    void* at = m.array->resize(m.address, j.size());
    if (!at) return Error::OutOfMemory();
    auto* p = static_cast<T*>(at);
    for (size_t i = 0; i < j.size(); ++i)
        if (!ReadNumber(j[i], p[i])) return NotA(key, "an array of numbers of its type");
    return OK();
}

template <typename F>
auto ForElementType(DESCRIBETYPE t, F&& f) {
    // Each branch calls f with another type, which the clone check cannot see.
    // NOLINTBEGIN(bugprone-branch-clone)
    switch (t) {
        case DESCRIBETYPE::INT32:
            return f(int32_t());
        case DESCRIBETYPE::UINT32:
            return f(uint32_t());
        case DESCRIBETYPE::INT64:
            return f(int64_t());
        case DESCRIBETYPE::FLOAT32:
            return f(float());
        default:
            return f(double());
    }
    // NOLINTEND(bugprone-branch-clone)
}

class Writer final : public DataDescriber {
public:
    bool IsReading() const override { return false; }
    Result<void> Member(std::string_view key, const DescribedMember& m) override {
        return CatchOutOfMemory([&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(Json value, ToJson(m));
            members[std::string(key)] = std::move(value);
            return OK();
        });
    }
    Json members = Json::object();

private:
    static Result<Json> ToJson(const DescribedMember& m) {
        const void* a = m.address;
        switch (m.type) {
            case DESCRIBETYPE::BOOL:
                return Json(*static_cast<const bool*>(a));
            case DESCRIBETYPE::INT32:
                return Json(*static_cast<const int32_t*>(a));
            case DESCRIBETYPE::UINT32:
                return Json(*static_cast<const uint32_t*>(a));
            case DESCRIBETYPE::INT64:
                return Json(*static_cast<const int64_t*>(a));
            case DESCRIBETYPE::FLOAT32:
                return NumberToJson(*static_cast<const float*>(a));
            case DESCRIBETYPE::FLOAT64:
                return NumberToJson(*static_cast<const double*>(a));
            case DESCRIBETYPE::STRING:
                return TextToJson(*static_cast<const std::string*>(a));
            case DESCRIBETYPE::VEC2: {
                auto& v = *static_cast<const Vec2*>(a);
                return VecToJson(std::initializer_list<double>{v.x, v.y});
            }
            case DESCRIBETYPE::VEC3:
                return Vec3ToJson(*static_cast<const Vec3*>(a));
            case DESCRIBETYPE::COL3: {
                auto& c = *static_cast<const Col3*>(a);
                return VecToJson(std::initializer_list<double>{c.r, c.g, c.b});
            }
            case DESCRIBETYPE::DATADICTIONARY:
                return DictionaryToJson(*static_cast<const DataDictionary*>(a));
            case DESCRIBETYPE::ARRAY:
                return ForElementType(m.element,
                                      [&](auto t) { return ArrayToJson<decltype(t)>(m); });
            case DESCRIBETYPE::OBJECT: {
                Writer nested;
                KELVO_TRY(static_cast<DescribeIOInterface*>(m.address)->DescribeIO(nested));
                return std::move(nested.members);
            }
        }
        return IllegalArgumentError(KELVO_HERE, "Unknown member type.");
    }
};

class Reader final : public DataDescriber {
public:
    explicit Reader(const Json& members) : _members(members) {}
    bool IsReading() const override { return true; }
    Result<void> Member(std::string_view key, const DescribedMember& m) override {
        auto it = _members.find(std::string(key));
        if (it == _members.end())
            return IllegalArgumentError(KELVO_HERE, "Member @ is missing.", key);
        return CatchOutOfMemory([&] { return FromJson(key, *it, m); });
    }

private:
    static Result<void> FromJson(std::string_view key, const Json& j, const DescribedMember& m) {
        void* a = m.address;
        auto number = [&](auto* out, const char* what) -> Result<void> {
            if (!j.is_number() && !j.is_string()) return NotA(key, what);
            if (ReadNumber(j, *out)) return OK();
            if (j.is_number_integer())
                return IllegalArgumentError(KELVO_HERE, "Member @ is out of range.", key);
            return NotA(key, what);
        };
        double n[3];
        switch (m.type) {
            case DESCRIBETYPE::BOOL:
                if (!j.is_boolean()) return NotA(key, "a bool");
                *static_cast<bool*>(a) = j.get<bool>();
                return OK();
            case DESCRIBETYPE::INT32:
                return number(static_cast<int32_t*>(a), "an Int32");
            case DESCRIBETYPE::UINT32:
                return number(static_cast<uint32_t*>(a), "a UInt32");
            case DESCRIBETYPE::INT64:
                return number(static_cast<int64_t*>(a), "an Int64");
            case DESCRIBETYPE::FLOAT32:
                return number(static_cast<float*>(a), "a Float32");
            case DESCRIBETYPE::FLOAT64:
                return number(static_cast<double*>(a), "a Float64");
            case DESCRIBETYPE::STRING:
                if (!TextFromJson(j, *static_cast<std::string*>(a))) return NotA(key, "a text");
                return OK();
            case DESCRIBETYPE::VEC2:
                if (!j.is_array() || j.size() != 2 || !NumberFromJson(j[0], n[0]) ||
                    !NumberFromJson(j[1], n[1]))
                    return NotA(key, "a Vec2");
                *static_cast<Vec2*>(a) = Vec2{n[0], n[1]};
                return OK();
            case DESCRIBETYPE::VEC3:
                if (!VecFromJson(j, n)) return NotA(key, "a Vec3");
                *static_cast<Vec3*>(a) = Vec3{n[0], n[1], n[2]};
                return OK();
            case DESCRIBETYPE::COL3:
                if (!VecFromJson(j, n)) return NotA(key, "a Col3");
                *static_cast<Col3*>(a) = Col3{n[0], n[1], n[2]};
                return OK();
            case DESCRIBETYPE::DATADICTIONARY: {
                KELVO_ASSIGN_OR_RETURN(DataDictionary d, DictionaryFromJson(key, j));
                *static_cast<DataDictionary*>(a) = std::move(d);
                return OK();
            }
            case DESCRIBETYPE::ARRAY:
                return ForElementType(
                    m.element, [&](auto t) { return ArrayFromJson<decltype(t)>(key, j, m); });
            case DESCRIBETYPE::OBJECT: {
                if (!j.is_object()) return NotA(key, "an object");
                Reader nested(j);
                return static_cast<DescribeIOInterface*>(a)->DescribeIO(nested);
            }
        }
        return IllegalArgumentError(KELVO_HERE, "Unknown member type.");
    }
    const Json& _members;
};

Result<std::string> WriteDescriptionSlot(DescribeIOInterface& object) {
    return CatchOutOfMemory([&]() -> Result<std::string> {
        Writer writer;
        KELVO_TRY(object.DescribeIO(writer));
        Json doc{{"description", kDocumentVersion}, {"members", std::move(writer.members)}};
        return doc.dump();
    });
}

Result<void> ReadDescriptionSlot(DescribeIOInterface& object, std::string_view document) {
    return CatchOutOfMemory([&]() -> Result<void> {
        Json doc = Json::parse(document, nullptr, false);
        if (doc.is_discarded() || !doc.is_object() || !doc.contains("members") ||
            !doc["members"].is_object() || !doc.contains("description"))
            return IllegalArgumentError(KELVO_HERE, "The text is no data description.");
        if (doc["description"] != kDocumentVersion)
            return IllegalArgumentError(KELVO_HERE, "Data description version @ is not supported.",
                                        doc["description"].dump());
        Reader reader(doc["members"]);
        return object.DescribeIO(reader);
    });
}

}  // namespace

namespace detail {
void FillDescriptionSlots(KelvoHostSlots& slots) {
    slots.WriteDescription = &WriteDescriptionSlot;
    slots.ReadDescription = &ReadDescriptionSlot;
}
}  // namespace detail

}  // namespace kelvo::host
