// kelvo intersect: traces rays through an intersection class, chosen like a renderer
// chooses it (g_polygonIntersection or the default engine), over a Wavefront OBJ file or
// a built-in sphere above a square.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <tuple>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/io.h"
#include "kelvo/meshbuilders.h"
#include "kelvo/registry.h"
#include "kelvo/rendergeneral.h"

namespace kelvo::cli {
namespace {

// Bounds on what an OBJ file may hold (its mesh takes up to about ten times the text) and
// on one line: a device or an endless file fails early instead of filling the memory.
constexpr int64_t kMaxObjBytes = int64_t(256) << 20;
constexpr size_t kMaxObjLine = size_t(1) << 16;

// The file's lines, through the host's streams (a FIFO neither blocks the open nor waits
// past Ctrl-C), without their line breaks.
class ObjLines {
public:
    ObjLines(StrongRef<InputStream> in, std::string file)
        : _in(std::move(in)), _file(std::move(file)) {}
    // False at the end of the file.
    Result<bool> Next(std::string& line, int64_t number) {
        line.clear();
        for (;;) {
            if (_at == _end) {
                if (_done) return !line.empty();
                KELVO_ASSIGN_OR_RETURN(size_t n, _in->Read(_buffer, sizeof _buffer));
                _total += int64_t(n);
                if (_total > kMaxObjBytes)
                    return IllegalArgumentError(KELVO_HERE, "OBJ file '@' is larger than @ bytes.",
                                                _file, kMaxObjBytes);
                _at = _buffer;
                _end = _buffer + n;
                _done = n == 0;
                continue;
            }
            const char* stop = std::find(_at, _end, '\n');
            line.append(_at, stop);
            _at = stop == _end ? stop : stop + 1;
            if (line.size() > kMaxObjLine)
                return IllegalArgumentError(KELVO_HERE,
                                            "OBJ file '@' line @: longer than @ characters.", _file,
                                            number, kMaxObjLine);
            if (stop != _end) return true;
        }
    }

private:
    StrongRef<InputStream> _in;
    std::string _file;
    char _buffer[1 << 16];
    const char* _at = _buffer;
    const char* _end = _buffer;
    int64_t _total = 0;
    bool _done = false;
};

// OBJ faces index positions, uvs and normals separately; a mesh vertex is one distinct
// triple. Polygons become fans. Normals and uvs are kept only when every corner has them.
Result<OwnedTriangleMesh> ReadObj(const std::string& file) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> opened, OpenInputStream(Url::FromFile(file)));
    if (opened->Length() > kMaxObjBytes)
        return IllegalArgumentError(KELVO_HERE, "OBJ file '@' is larger than @ bytes.", file,
                                    kMaxObjBytes);
    auto in = std::make_unique<ObjLines>(std::move(opened), file);
    std::vector<Vec3> positions, normals;
    std::vector<Vec2> uvs;
    std::map<std::tuple<int64_t, int64_t, int64_t>, uint32_t> corners;
    OwnedTriangleMesh mesh;
    std::vector<std::tuple<int64_t, int64_t, int64_t>> vertexKeys;
    bool allNormals = true, allUvs = true;
    std::string line;
    for (int64_t number = 1;; ++number) {
        KELVO_ASSIGN_OR_RETURN(bool more, in->Next(line, number));
        if (!more) break;
        auto bad = [&](std::string_view why) {
            return IllegalArgumentError(KELVO_HERE, "OBJ file '@' line @: @", file, number, why);
        };
        std::istringstream words(line);
        std::string tag;
        words >> tag;
        if (tag == "v" || tag == "vn" || tag == "vt") {
            double x = 0, y = 0, z = 0;
            if (!(words >> x >> y) || (tag != "vt" && !(words >> z)))
                return bad("expected numbers after '" + tag + "'.");
            if (tag == "v") positions.push_back({x, y, z});
            if (tag == "vn") normals.push_back({x, y, z});
            if (tag == "vt") uvs.push_back({x, y});
        } else if (tag == "f") {
            std::vector<uint32_t> polygon;
            for (std::string corner; words >> corner;) {
                int64_t index[3] = {0, 0, 0};
                size_t slot = 0;
                std::istringstream parts(corner);
                for (std::string part; slot < 3 && std::getline(parts, part, '/'); ++slot) {
                    if (part.empty()) continue;
                    try {
                        size_t used = 0;
                        index[slot] = std::stoll(part, &used);
                        if (used != part.size()) return bad("bad vertex '" + corner + "'.");
                    } catch (const std::exception&) {
                        return bad("bad vertex '" + corner + "'.");
                    }
                }
                // 1-based; negative counts back from the last element read so far.
                const size_t sizes[3] = {positions.size(), uvs.size(), normals.size()};
                for (size_t k = 0; k < 3; ++k) {
                    if (index[k] < 0) index[k] += int64_t(sizes[k]) + 1;
                    if ((k == 0 || index[k] != 0) && (index[k] < 1 || index[k] > int64_t(sizes[k])))
                        return bad("vertex '" + corner + "' refers to a missing element.");
                }
                allUvs = allUvs && index[1] != 0;
                allNormals = allNormals && index[2] != 0;
                auto key = std::make_tuple(index[0], index[1], index[2]);
                auto [it, added] = corners.try_emplace(key, uint32_t(vertexKeys.size()));
                if (added) vertexKeys.push_back(key);
                polygon.push_back(it->second);
            }
            if (polygon.size() < 3) return bad("a face needs at least 3 vertices.");
            for (size_t k = 1; k + 1 < polygon.size(); ++k)
                mesh.indices.insert(mesh.indices.end(), {polygon[0], polygon[k], polygon[k + 1]});
        }
    }
    for (const auto& [p, t, n] : vertexKeys) {
        mesh.positions.push_back(positions[size_t(p - 1)]);
        if (allUvs) mesh.uvs.push_back(uvs[size_t(t - 1)]);
        if (allNormals) mesh.normals.push_back(normals[size_t(n - 1)]);
    }
    return mesh;
}

struct Scene {
    StrongRef<IntersectorInterface> intersector;
    Id engine;
    double buildSeconds = 0;
    size_t triangles = 0;
};

// The configured engine (--class sets g_polygonIntersection) over the file or the
// built-in sphere of radius 1 at the origin above the square z = -1 of half size 5.
Result<Scene> BuildScene(const std::string& file) {
    KELVO_ASSIGN_OR_RETURN(auto general, CreateComponent<RenderGeneralInterface>());
    KELVO_ASSIGN_OR_RETURN(const EntryRecord* engine, general->GetDefaultIntersector());
    Scene scene;
    scene.engine = engine->GetId();
    KELVO_ASSIGN_OR_RETURN(scene.intersector, CreateIntersector(*engine));
    std::vector<std::pair<OwnedTriangleMesh, Matrix>> parts;
    KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
        if (!file.empty()) {
            KELVO_ASSIGN_OR_RETURN(OwnedTriangleMesh mesh, ReadObj(file));
            parts.emplace_back(std::move(mesh), Matrix{});
        } else {
            parts.emplace_back(MakeSphereMesh(1.0, 64, 128), Matrix{});
            parts.emplace_back(MakeSquareMesh(5.0), Matrix{{0, 0, -1}});
        }
        return OK();
    }));
    for (const auto& [mesh, place] : parts) {
        KELVO_ASSIGN_OR_RETURN(int32_t index, scene.intersector->AddMesh(mesh.View()));
        KELVO_TRY(scene.intersector->AddInstance(index, place));
        scene.triangles += mesh.indices.size() / 3;
    }
    auto start = std::chrono::steady_clock::now();
    KELVO_TRY(scene.intersector->Commit());
    scene.buildSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return scene;
}

Result<void> Answer(const IntersectorInterface& scene, const nlohmann::json& request,
                    JsonWriter& w) {
    KELVO_ASSIGN_OR_RETURN(std::string op, StringMember(request, "op"));
    if (op != "intersect" && op != "occluded")
        return IllegalArgumentError(KELVO_HERE, "Unknown operation '@'.", op);
    Ray ray;
    KELVO_ASSIGN_OR_RETURN(ray.origin, Vec3Member(request, "origin"));
    KELVO_ASSIGN_OR_RETURN(ray.direction, Vec3Member(request, "direction"));
    RayLimits limits;
    KELVO_ASSIGN_OR_RETURN(limits.tmin, NumberMember(request, "tmin", 0.0));
    KELVO_ASSIGN_OR_RETURN(limits.tmax, NumberMember(request, "tmax", limits.tmax));
    if (op == "occluded") {
        w.Key("occluded").Bool(scene.Occluded(ray, limits));
        return OK();
    }
    IntersectionResult64 hit;
    if (!scene.Intersect(ray, limits, hit)) {
        w.Key("hit").Bool(false);
        return OK();
    }
    w.Key("hit").Bool(true);
    w.Key("distance").Number(hit.distance);
    w.Key("position").Vec(hit.hitPosition);
    w.Key("geometricNormal").Vec(hit.geometricNormal);
    w.Key("shadingNormal").Vec(hit.shadingNormal);
    w.Key("uvw").Vec(hit.uvw);
    w.Key("dpdu").Vec(hit.dpdu);
    w.Key("dpdv").Vec(hit.dpdv);
    w.Key("polygon").Integer(hit.polygonIndex);
    w.Key("object").Integer(hit.objectIndex);
    w.Key("backFacing").Bool(hit.backFacing);
    return OK();
}

// Rays per second over a quarter second of queries at least.
template <typename Trace>
double RaysPerSecond(size_t rays, Trace&& trace) {
    size_t traced = 0;
    auto start = std::chrono::steady_clock::now();
    double seconds = 0;
    while (seconds < 0.25) {
        trace();
        traced += rays;
        seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    return double(traced) / seconds;
}

Result<void> Bench(const Scene& scene, std::ostream& out) {
    // Camera-like rays towards the scene's middle, and rays between random points of a box
    // around it, both 65,536 at a time.
    constexpr size_t kSide = 256, kRays = kSide * kSide;
    std::vector<Ray> coherent(kRays), random(kRays);
    std::vector<RayLimits> limits(kRays);
    std::vector<IntersectionResult64> hits(kRays);
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> box(-3, 3);
    for (size_t i = 0; i < kRays; ++i) {
        coherent[i].origin = {0, -6, 0.5};
        coherent[i].direction = Normalize(Vec3{(double(i % kSide) + 0.5) / kSide - 0.5, 1,
                                               (double(i / kSide) + 0.5) / kSide - 0.5});
        random[i].origin = {box(rng), box(rng), box(rng)};
        random[i].direction = Normalize(Vec3{box(rng), box(rng), box(rng)} - random[i].origin);
    }
    IntersectionResult64 hit;
    const IntersectorInterface& s = *scene.intersector;
    double coherentSingle = RaysPerSecond(kRays, [&] {
        for (size_t i = 0; i < kRays; ++i) s.Intersect(coherent[i], limits[i], hit);
    });
    double coherentPacket = RaysPerSecond(
        kRays, [&] { s.IntersectPacket(coherent.data(), limits.data(), hits.data(), kRays); });
    double randomSingle = RaysPerSecond(kRays, [&] {
        for (size_t i = 0; i < kRays; ++i) s.Intersect(random[i], limits[i], hit);
    });
    out << "class " << scene.engine.Text() << "\ntriangles " << scene.triangles
        << "\nbuild seconds " << scene.buildSeconds << "\ncoherent rays/s " << coherentSingle
        << "\ncoherent rays/s (packets) " << coherentPacket << "\nrandom rays/s " << randomSingle
        << '\n';
    return OK();
}

}  // namespace

void AddIntersectCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "intersect",
        "Trace rays read as JSON lines from stdin through the configured intersection class, "
        "over an OBJ file or a built-in unit sphere above the square z = -1");
    auto file = std::make_shared<std::string>();
    auto engine = std::make_shared<std::string>();
    cmd->add_option("-f,--file", *file, "Wavefront OBJ file (default: the built-in scene)");
    cmd->add_option("-c,--class", *engine,
                    "Intersection class id (default: g_polygonIntersection, else the default "
                    "engine)");
    auto* bench = cmd->add_subcommand(
        "bench", "Print the build time and rays per second, coherent and random");
    bench->add_option("file", *file, "Wavefront OBJ file (default: the built-in scene)");
    auto prepare = [&context, engine] {
        if (!engine->empty()) context.settings.push_back("g_polygonIntersection=" + *engine);
    };
    bench->callback([&context, &status, file, prepare] {
        prepare();
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(Scene scene, BuildScene(*file));
            return Bench(scene, std::cout);
        });
    });
    cmd->callback([&context, &status, file, prepare, bench] {
        if (bench->parsed()) return;
        prepare();
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_ASSIGN_OR_RETURN(Scene scene, BuildScene(*file));
            KELVO_TRY(RunJsonLines(StandardInput(), std::cout,
                                   [&scene](const nlohmann::json& request, JsonWriter& answer) {
                                       return Answer(*scene.intersector, request, answer);
                                   },
                                   {.nameKey = nullptr}));
            return OK();
        });
    });
}

}  // namespace kelvo::cli
