// kelvo camera: create a camera class by id and print the rays of pixels, or drive
// cameras operation by operation from JSON lines on stdin.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <map>

#include "camera_json.h"
#include "cli_common.h"
#include "commands.h"
#include "kelvo/camera.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace {

// "perspective" and "parallel" name the built-in classes; anything else is a full id.
Result<Id> CameraClassId(std::string_view name) {
    if (name == "perspective") return kPerspectiveCameraClass;
    if (name == "parallel") return kParallelCameraClass;
    return Id::FromText(name);
}

Result<StrongRef<CameraInterface>> NewCamera(std::string_view className) {
    KELVO_ASSIGN_OR_RETURN(Id id, CameraClassId(className));
    return CreateClass<CameraInterface>(id);
}

// Cameras of one JSON-lines run, by the names the script gives them.
class CameraSession {
public:
    // The answer's members after the echoed "op" and "camera".
    Result<void> Handle(const nlohmann::json& request, JsonWriter& w) {
        if (!request.is_object())
            return IllegalArgumentError(KELVO_HERE, "A request must be an object.");
        KELVO_ASSIGN_OR_RETURN(const std::string name, StringMember(request, "camera"));
        KELVO_ASSIGN_OR_RETURN(const std::string op, StringMember(request, "op"));
        if (op == "Init") {
            KELVO_TRY(Init(name, request));
            w.Key("ok").Bool(true);
            return OK();
        }
        auto found = _cameras.find(name);
        if (found == _cameras.end())
            return IllegalArgumentError(
                KELVO_HERE, "No camera named '@': create it with Init and a class.", name);
        return Run(*found->second, op, request, w);
    }

private:
    Result<void> Init(const std::string& name, const nlohmann::json& request) {
        const nlohmann::json& classJson = Member(request, "class");
        KELVO_ASSIGN_OR_RETURN(bool flipped, BoolMember(request, "flipped", false));
        KELVO_ASSIGN_OR_RETURN(StrongRef<DataDictionary> parameters,
                               ReadParameters(Member(request, "parameters")));
        StrongRef<CameraInterface> camera;
        if (classJson.is_string()) {
            KELVO_ASSIGN_OR_RETURN(camera, NewCamera(classJson.get<std::string>()));
        } else if (!classJson.is_null()) {
            return IllegalArgumentError(KELVO_HERE, "class must be a string.");
        } else if (auto it = _cameras.find(name); it != _cameras.end()) {
            camera = it->second;  // Init again
        } else {
            return IllegalArgumentError(
                KELVO_HERE, "No camera named '@': create it with Init and a class.", name);
        }
        KELVO_TRY(camera->Init(parameters, flipped));
        _cameras[name] = camera;
        return OK();
    }

    static Result<void> Run(CameraInterface& camera, const std::string& op,
                            const nlohmann::json& request, JsonWriter& w) {
        using Conversion = Vec3 (CameraInterface::*)(const Vec3&) const;
        static const std::pair<const char*, Conversion> conversions[] = {
            {"WorldToCamera", &CameraInterface::WorldToCamera},
            {"CameraToWorld", &CameraInterface::CameraToWorld},
            {"VectorWorldToCamera", &CameraInterface::VectorWorldToCamera},
            {"VectorCameraToWorld", &CameraInterface::VectorCameraToWorld},
            {"WorldToScreen", &CameraInterface::WorldToScreen},
            {"ScreenToWorld", &CameraInterface::ScreenToWorld},
            {"CameraToScreen", &CameraInterface::CameraToScreen},
            {"ScreenToCamera", &CameraInterface::ScreenToCamera},
        };
        for (const auto& [convName, convert] : conversions) {
            if (op != convName) continue;
            const char* key = op.starts_with("Vector") ? "vector" : "point";
            KELVO_ASSIGN_OR_RETURN(Vec3 in, ReadVec3(Member(request, key), key));
            w.Key(key).Vec((camera.*convert)(in));
            return OK();
        }
        if (op == "SetMatrix") {
            KELVO_ASSIGN_OR_RETURN(Matrix m, ReadMatrix(Member(request, "matrix"), "matrix"));
            camera.SetMatrix(m);
            w.Key("ok").Bool(true);
        } else if (op == "GetParameters") {
            WriteParameters(w.Key("parameters"), camera.GetParameters());
        } else if (op == "CreateScreenRay") {
            KELVO_ASSIGN_OR_RETURN(Vec2 point, ReadVec2(Member(request, "point"), "point"));
            KELVO_ASSIGN_OR_RETURN(Ray ray, ReadRay(Member(request, "ray")));
            camera.CreateScreenRay(point, ray);
            WriteRay(w.Key("ray"), ray);
        } else if (op == "CalculateMIPComponents") {
            KELVO_ASSIGN_OR_RETURN(Vec2 point, ReadVec2(Member(request, "point"), "point"));
            KELVO_ASSIGN_OR_RETURN(Ray ray, ReadRay(Member(request, "ray")));
            KELVO_ASSIGN_OR_RETURN(ShadingPoint hit, ReadHit(Member(request, "hit")));
            camera.CalculateMIPComponents(point, ray, hit);
            WriteRay(w.Key("ray"), ray);
            WriteHit(w.Key("hit"), hit);
        } else if (op == "GetFeatures") {
            w.Key("features").Integer(camera.GetFeatures());
        } else if (op == "VisibilityTest") {
            KELVO_ASSIGN_OR_RETURN(Vec3 point, ReadVec3(Member(request, "point"), "point"));
            w.Key("visible").Bool(camera.VisibilityTest(point));
        } else if (op == "GetCameraToWorldMatrix") {
            w.Key("matrix").Mat(camera.GetCameraToWorldMatrix());
        } else if (op == "GetWorldToCameraMatrix") {
            w.Key("matrix").Mat(camera.GetWorldToCameraMatrix());
        } else {
            return IllegalArgumentError(KELVO_HERE, "Unknown operation '@'.", op);
        }
        return OK();
    }

    std::map<std::string, StrongRef<CameraInterface>> _cameras;
};

// --- Command-line mode -----------------------------------------------------------------------

struct CameraOptions {
    std::string cameraClass = "perspective";
    std::string resolution = "640,480";
    std::string offset, scale, matrix, position, lookAt, up = "0,1,0";
    double fieldOfView = 0.0;
    bool hasFieldOfView = false;
    bool flipped = false;
    bool jsonLines = false;
    std::vector<std::string> pixels;
};

// The unit vector along v, scaled first so that a length beyond double range (components
// near 1e308) still has a direction; zero for the zero vector.
Vec3 Direction(const Vec3& v) {
    const double m = std::max({std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
    return m > 0.0 && std::isfinite(m) ? Normalize(v / m) : Vec3{};
}

// A point or vector option: three finite numbers (a NaN would pass every later test).
Result<Vec3> FiniteVec3(const std::string& text, std::string_view option) {
    KELVO_ASSIGN_OR_RETURN(Vec3 v, ParseVec3(text, option));
    if (!std::isfinite(v.x) || !std::isfinite(v.y) || !std::isfinite(v.z))
        return IllegalArgumentError(KELVO_HERE, "@ must be 3 finite numbers, not '@'.", option,
                                    text);
    return v;
}

// The camera looks from `position` towards `target`, with screen up near `up`.
Result<Matrix> LookAt(const Vec3& position, const Vec3& target, const Vec3& up) {
    // Halved when the difference leaves double range (points near +-1e308 on either side).
    const Vec3 d = target - position;
    const bool fits = std::isfinite(d.x) && std::isfinite(d.y) && std::isfinite(d.z);
    Vec3 z = Direction(fits ? d : target / 2.0 - position / 2.0);
    if (z == Vec3{})
        return IllegalArgumentError(KELVO_HERE, "--look-at must differ from --position.");
    Vec3 x = Direction(Cross(Direction(up), z));
    if (x == Vec3{})
        return IllegalArgumentError(KELVO_HERE,
                                    "--up must not be parallel to the viewing direction.");
    return Matrix{position, x, Cross(z, x), z};
}

Result<StrongRef<DataDictionary>> ParametersFrom(const CameraOptions& o) {
    auto p = std::make_shared<DataDictionary>();
    KELVO_ASSIGN_OR_RETURN(Vec2 resolution, ParseVec2(o.resolution, "--resolution"));
    // A camera takes any resolution (a zero one gives rays along the axis); a person asking
    // for a picture of no pixels, or of NaN, has made a mistake.
    if (!(resolution.x >= 1.0 && resolution.y >= 1.0 && std::isfinite(resolution.x) &&
          std::isfinite(resolution.y)))
        return IllegalArgumentError(
            KELVO_HERE, "--resolution must be at least 1,1 and finite, not '@'.", o.resolution);
    KELVO_TRY(p->Set(CAMERAPARAMETERS::SCREENRESOLUTION, resolution));
    if (!o.offset.empty()) {
        KELVO_ASSIGN_OR_RETURN(Vec2 offset, ParseVec2(o.offset, "--offset"));
        KELVO_TRY(p->Set(CAMERAPARAMETERS::SCREENOFFSET, offset));
    }
    if (!o.scale.empty()) {
        KELVO_ASSIGN_OR_RETURN(Vec2 scale, ParseVec2(o.scale, "--scale"));
        KELVO_TRY(p->Set(CAMERAPARAMETERS::SCREENSCALE, scale));
    }
    if (o.hasFieldOfView) KELVO_TRY(p->Set(CAMERAPARAMETERS::FIELDOFVIEW, o.fieldOfView));
    if (!o.matrix.empty() && (!o.position.empty() || !o.lookAt.empty()))
        return IllegalArgumentError(KELVO_HERE,
                                    "Give --matrix or --position and --look-at, not both.");
    Matrix m;
    if (!o.matrix.empty()) {
        KELVO_ASSIGN_OR_RETURN(nlohmann::json j, ParseJson(o.matrix, "--matrix"));
        KELVO_ASSIGN_OR_RETURN(m, ReadMatrix(j, "--matrix"));
    }
    if (!o.position.empty()) {
        KELVO_ASSIGN_OR_RETURN(m.offset, FiniteVec3(o.position, "--position"));
    }
    if (!o.lookAt.empty()) {
        KELVO_ASSIGN_OR_RETURN(Vec3 target, FiniteVec3(o.lookAt, "--look-at"));
        KELVO_ASSIGN_OR_RETURN(Vec3 up, FiniteVec3(o.up, "--up"));
        KELVO_ASSIGN_OR_RETURN(m, LookAt(m.offset, target, up));
    }
    KELVO_TRY(p->Set(CAMERAPARAMETERS::MATRIX, m));
    return p;
}

Result<std::string> RaysJson(const CameraOptions& o) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<DataDictionary> params, ParametersFrom(o));
    KELVO_ASSIGN_OR_RETURN(StrongRef<CameraInterface> camera, NewCamera(o.cameraClass));
    KELVO_TRY(camera->Init(params, o.flipped));
    std::vector<Vec2> pixels;
    for (const std::string& text : o.pixels) {
        KELVO_ASSIGN_OR_RETURN(Vec2 pixel, ParseVec2(text, "--pixel"));
        pixels.push_back(pixel);
    }
    if (pixels.empty()) {
        const Vec2 r = params->Get<Vec2>(CAMERAPARAMETERS::SCREENRESOLUTION);
        pixels.push_back({r.x * 0.5, r.y * 0.5});
    }
    KELVO_ASSIGN_OR_RETURN(Id classId, CameraClassId(o.cameraClass));
    JsonWriter w;
    w.Object().Key("class").String(classId.Text()).Key("flipped").Bool(o.flipped);
    w.Key("features").Integer(camera->GetFeatures());
    WriteParameters(w.Key("parameters"), camera->GetParameters());
    w.Key("rays").Array();
    for (const Vec2& pixel : pixels) {
        Ray ray;
        camera->CreateScreenRay(pixel, ray);
        w.Object().Key("pixel").Vec(pixel);
        w.Key("origin").Vec(ray.origin).Key("direction").Vec(ray.direction);
        w.Key("xDifferentialOrigin").Vec(ray.xDifferentialOrigin);
        w.Key("yDifferentialOrigin").Vec(ray.yDifferentialOrigin);
        w.Key("xDifferentialDirection").Vec(ray.xDifferentialDirection);
        w.Key("yDifferentialDirection").Vec(ray.yDifferentialDirection);
        w.End();
    }
    return w.End().End().Text();
}

}  // namespace

Result<std::string> CameraRaysJson(const std::string& cameraClass, const std::string& matrixJson,
                                   double fieldOfView, const std::vector<std::string>& pixels) {
    CameraOptions o;
    o.cameraClass = cameraClass;
    o.matrix = matrixJson;
    o.fieldOfView = fieldOfView;
    o.hasFieldOfView = true;
    o.pixels = pixels;
    return RaysJson(o);
}

void AddCameraCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "camera",
        "Create a camera class by id and print the rays of pixels as JSON, or, with --json-lines, "
        "run camera operations read as JSON lines from stdin");
    auto o = std::make_shared<CameraOptions>();
    cmd->add_option("-c,--class", o->cameraClass,
                    "Camera class: perspective, parallel or a full class id (default perspective)");
    cmd->add_option("-r,--resolution", o->resolution,
                    "Screen resolution W,H in pixels (default 640,480)");
    cmd->add_option(
        "--fov", o->fieldOfView,
        "fieldofview parameter: tan of the half image width times 2 (a ratio, not an angle)");
    cmd->add_option("--offset", o->offset, "Screen offset X,Y in pixels");
    cmd->add_option("--scale", o->scale, "Screen scale X,Y (both are multiplied by the width)");
    cmd->add_option("--matrix", o->matrix,
                    "Camera to world matrix as JSON {\"offset\",\"xAxis\",\"yAxis\",\"zAxis\"}");
    cmd->add_option("--position", o->position, "Camera position X,Y,Z");
    cmd->add_option("--look-at", o->lookAt, "Point X,Y,Z the camera looks at (with --position)");
    cmd->add_option("--up", o->up, "Up direction X,Y,Z for --look-at (default 0,1,0)");
    cmd->add_flag("--flipped", o->flipped,
                  "Initialise flipped: a perspective camera looks along -zAxis");
    cmd->add_option("-p,--pixel", o->pixels,
                    "Pixel X,Y to print the ray of (repeatable; default the centre)");
    cmd->add_flag(
        "--json-lines", o->jsonLines,
        "Read one camera operation per line on stdin and answer one line each (see README)");
    cmd->callback([&context, &status, o, cmd] {
        o->hasFieldOfView = cmd->count("--fov") > 0;
        RunCommand(context, status, [&]() -> Result<void> {
            if (o->jsonLines) {
                // Failed requests answer in line; the run itself succeeds.
                CameraSession session;
                KELVO_TRY(
                    RunJsonLines(StandardInput(), std::cout,
                                 [&session](const nlohmann::json& request, JsonWriter& answer) {
                                     return session.Handle(request, answer);
                                 },
                                 {.nameKey = "camera"}));
                return OK();
            }
            KELVO_ASSIGN_OR_RETURN(std::string json, RaysJson(*o));
            std::cout << json << '\n';
            return OK();
        });
    });
}

}  // namespace kelvo::cli
