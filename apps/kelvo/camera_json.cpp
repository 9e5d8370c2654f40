// The camera records as JSON (see camera_json.h).
#include "camera_json.h"

namespace kelvo::cli {

// --- JSON of the camera's records ------------------------------------------------------

void WriteRay(JsonWriter& w, const Ray& r) {
    w.Object();
    w.Key("origin").Vec(r.origin).Key("direction").Vec(r.direction);
    w.Key("rendererData").Array();
    for (double v : r.rendererData) w.Number(v);
    w.End();
    w.Key("xDifferentialOrigin").Vec(r.xDifferentialOrigin);
    w.Key("yDifferentialOrigin").Vec(r.yDifferentialOrigin);
    w.Key("xDifferentialDirection").Vec(r.xDifferentialDirection);
    w.Key("yDifferentialDirection").Vec(r.yDifferentialDirection);
    w.Key("time").Number(r.time).Key("ior").Number(r.ior);
    w.Key("depth").Integer(r.depth).Key("flags").Integer(r.flags);
    w.End();
}

void WriteHit(JsonWriter& w, const ShadingPoint& h) {
    w.Object();
    w.Key("position").Vec(h.position);
    w.Key("footprintX").Vec(h.footprintX).Key("footprintY").Vec(h.footprintY);
    w.Key("normal").Vec(h.normal).Key("geometricNormal").Vec(h.geometricNormal);
    w.Key("uvw").Vec(h.uvw).Key("dpdu").Vec(h.dpdu).Key("dpdv").Vec(h.dpdv);
    w.Key("polygonIndex").Integer(h.polygonIndex).Key("objectIndex").Integer(h.objectIndex);
    w.Key("backFacing").Bool(h.backFacing);
    w.End();
}

void WriteData(JsonWriter& w, const Data& d) {
    std::visit(
        [&w](const auto& v) {
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, bool>)
                w.Bool(v);
            else if constexpr (std::is_same_v<T, int64_t>)
                w.Integer(v);
            else if constexpr (std::is_same_v<T, double>)
                w.Number(v);
            else if constexpr (std::is_same_v<T, std::string>)
                w.String(v);
            else if constexpr (std::is_same_v<T, Id>)
                w.String(v.Text());
            else if constexpr (std::is_same_v<T, Vec2> || std::is_same_v<T, Vec3>)
                w.Vec(v);
            else if constexpr (std::is_same_v<T, Col3>)
                w.Vec(Vec3{v.r, v.g, v.b});
            else if constexpr (std::is_same_v<T, Matrix>)
                w.Mat(v);
            else
                w.Null();
        },
        d.Raw());
}

void WriteParameters(JsonWriter& w, const StrongRef<DataDictionary>& p) {
    if (!p) {
        w.Null();
        return;
    }
    w.Object();
    for (const auto& [key, value] : *p) {
        if (const Id* id = std::get_if<Id>(&key))
            w.Key(id->Text());
        else
            w.Key(std::to_string(std::get<int64_t>(key)));
        WriteData(w, value);
    }
    w.End();
}

// --- Reading requests ----------------------------------------------------------------------

// A parameter value by its JSON form: an object is a matrix, an array of 2 or 3 numbers
// a pair or a triple, "inf"/"-inf"/"nan" and numbers a double.
Result<Data> ReadParameter(const nlohmann::json& v, const std::string& key) {
    if (v.is_boolean()) return Data(v.get<bool>());
    if (v.is_object()) {
        KELVO_ASSIGN_OR_RETURN(Matrix m, ReadMatrix(v, key));
        return Data(m);
    }
    if (v.is_array() && v.size() == 2) {
        KELVO_ASSIGN_OR_RETURN(Vec2 p, ReadVec2(v, key));
        return Data(p);
    }
    if (v.is_array() && v.size() == 3) {
        KELVO_ASSIGN_OR_RETURN(Vec3 p, ReadVec3(v, key));
        return Data(p);
    }
    if (v.is_string() && v != "inf" && v != "-inf" && v != "nan") return Data(v.get<std::string>());
    KELVO_ASSIGN_OR_RETURN(double d, ReadNumber(v, key));
    return Data(d);
}

Result<StrongRef<DataDictionary>> ReadParameters(const nlohmann::json& v) {
    if (v.is_null()) return StrongRef<DataDictionary>();
    if (!v.is_object())
        return IllegalArgumentError(KELVO_HERE,
                                    "parameters must be an object keyed by parameter ids.");
    auto p = std::make_shared<DataDictionary>();
    for (const auto& [key, value] : v.items()) {
        KELVO_ASSIGN_OR_RETURN(Id id, Id::FromText(key));
        KELVO_ASSIGN_OR_RETURN(Data d, ReadParameter(value, key));
        KELVO_TRY(p->Set(id, std::move(d)));
    }
    return p;
}

// Members that are missing keep their defaults, so an answer's ray can be sent back.
Result<Ray> ReadRay(const nlohmann::json& v) {
    Ray r;
    if (v.is_null()) return r;
    if (!v.is_object()) return IllegalArgumentError(KELVO_HERE, "ray must be an object.");
    for (const auto& [key, value] : v.items()) {
        const std::string what = "ray." + key;
        if (key == "origin") {
            KELVO_ASSIGN_OR_RETURN(r.origin, ReadVec3(value, what));
        } else if (key == "direction") {
            KELVO_ASSIGN_OR_RETURN(r.direction, ReadVec3(value, what));
        } else if (key == "xDifferentialOrigin") {
            KELVO_ASSIGN_OR_RETURN(r.xDifferentialOrigin, ReadVec3(value, what));
        } else if (key == "yDifferentialOrigin") {
            KELVO_ASSIGN_OR_RETURN(r.yDifferentialOrigin, ReadVec3(value, what));
        } else if (key == "xDifferentialDirection") {
            KELVO_ASSIGN_OR_RETURN(r.xDifferentialDirection, ReadVec3(value, what));
        } else if (key == "yDifferentialDirection") {
            KELVO_ASSIGN_OR_RETURN(r.yDifferentialDirection, ReadVec3(value, what));
        } else if (key == "time") {
            KELVO_ASSIGN_OR_RETURN(r.time, ReadNumber(value, what));
        } else if (key == "ior") {
            KELVO_ASSIGN_OR_RETURN(r.ior, ReadNumber(value, what));
        } else if (key == "depth") {
            KELVO_ASSIGN_OR_RETURN(int64_t d, ReadInteger(value, what, INT32_MIN, INT32_MAX));
            r.depth = int32_t(d);
        } else if (key == "flags") {
            KELVO_ASSIGN_OR_RETURN(int64_t f, ReadInteger(value, what, 0, UINT32_MAX));
            r.flags = uint32_t(f);
        } else if (key == "rendererData") {
            if (!value.is_array() || value.size() != 4)
                return IllegalArgumentError(KELVO_HERE, "@ must be an array of 4 numbers.", what);
            for (size_t i = 0; i < 4; ++i) {
                KELVO_ASSIGN_OR_RETURN(r.rendererData[i], ReadNumber(value[i], what));
            }
        } else {
            return IllegalArgumentError(KELVO_HERE, "ray has no member '@'.", key);
        }
    }
    return r;
}

Result<ShadingPoint> ReadHit(const nlohmann::json& v) {
    ShadingPoint h;
    if (!v.is_object())
        return IllegalArgumentError(KELVO_HERE, "hit must be an object with position and normal.");
    Vec3 ShadingPoint::*vectors[] = {&ShadingPoint::position,
                                     &ShadingPoint::footprintX,
                                     &ShadingPoint::footprintY,
                                     &ShadingPoint::normal,
                                     &ShadingPoint::geometricNormal,
                                     &ShadingPoint::uvw,
                                     &ShadingPoint::dpdu,
                                     &ShadingPoint::dpdv};
    const char* names[] = {"position",        "footprintX", "footprintY", "normal",
                           "geometricNormal", "uvw",        "dpdu",       "dpdv"};
    for (const auto& [key, value] : v.items()) {
        const std::string what = "hit." + key;
        bool known = false;
        for (size_t i = 0; i < std::size(names); ++i) {
            if (key != names[i]) continue;
            KELVO_ASSIGN_OR_RETURN(h.*vectors[i], ReadVec3(value, what));
            known = true;
        }
        if (known) continue;
        if (key == "polygonIndex") {
            KELVO_ASSIGN_OR_RETURN(h.polygonIndex, ReadInteger(value, what));
        } else if (key == "objectIndex") {
            KELVO_ASSIGN_OR_RETURN(int64_t i, ReadInteger(value, what, INT32_MIN, INT32_MAX));
            h.objectIndex = int32_t(i);
        } else if (key == "backFacing") {
            KELVO_TRY(ReadBool(value, what));
            h.backFacing = value.get<bool>();
        } else {
            return IllegalArgumentError(KELVO_HERE, "hit has no member '@'.", key);
        }
    }
    return h;
}

}  // namespace kelvo::cli
