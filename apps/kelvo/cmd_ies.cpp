// kelvo ies: inspect, evaluate and rewrite IES photometric profiles.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <iostream>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/ies.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"
#include "picture_writer.h"

namespace kelvo::cli {
namespace {

constexpr const char* kVersionNames[] = {"none", "IESNA91", "IESNA:LM-63-1995", "IESNA:LM-63-2002"};
constexpr const char* kTiltNames[] = {"not seen", "NONE", "INCLUDE"};
constexpr std::pair<IESPROPERTY, const char*> kTextProperties[] = {
    {IESPROPERTY_MANUFAC, "[MANUFAC]"},     {IESPROPERTY_LUMCAT, "[LUMCAT]"},
    {IESPROPERTY_LUMINAIRE, "[LUMINAIRE]"}, {IESPROPERTY_LAMPCAT, "[LAMPCAT]"},
    {IESPROPERTY_LAMP, "[LAMP]"},
};

struct Loaded {
    StrongRef<IesInterface> ies;
    Result<void> parsed;
};

// Parses a file; the profile is returned after a failed parse too, with what it stored.
Result<Loaded> LoadProfile(const std::string& file) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<IesInterface> ies, CreateComponent<IesInterface>());
    KELVO_ASSIGN_OR_RETURN(StrongRef<InputStream> stream, OpenInputStream(Url::FromFile(file)));
    Result<void> parsed = ies->Init(stream);
    return Loaded{ies, parsed};
}

void WriteProperties(JsonWriter& w, const DataDictionary& props) {
    w.Object();
    for (const auto& [key, value] : props) {
        if (const int64_t* k = std::get_if<int64_t>(&key))
            w.Key(std::to_string(*k));
        else
            w.Key(std::get<Id>(key).Text());
        if (auto* i = value.Get<int64_t>())
            w.Integer(*i);
        else if (auto* d = value.Get<double>())
            w.Number(*d);
        else if (auto* s = value.Get<std::string>())
            w.String(*s);
        else if (auto* v = value.Get<Vec3>())
            w.Vec(*v);
        else
            w.Null();
    }
    w.End();
}

void WriteArray(JsonWriter& w, std::span<const double> values) {
    w.Array();
    for (double v : values) w.Number(v);
    w.End();
}

std::string InfoJson(const IesInterface& ies, const Result<void>& parsed) {
    JsonWriter w;
    w.Object();
    if (!parsed) w.Key("error").String(parsed.GetError().Message());
    w.Key("properties");
    WriteProperties(w, ies.GetProperties());
    if (parsed) {
        IesRawData raw = ies.GetRawAccess();
        w.Key("_anglesVertical");
        WriteArray(w, raw.anglesVertical);
        w.Key("_anglesHorizontal");
        WriteArray(w, raw.anglesHorizontal);
        w.Key("_data");
        WriteArray(w, raw.data);
        w.Key("_dataMax").Number(raw.dataMax);
        w.Key("_dataPower").Number(raw.dataPower);
        w.Key("_checksum").Integer(raw.checksum);
        w.Key("powerRatio").Number(ies.GetLightPowerRatio());
    }
    return w.End().Text();
}

// Shortest text that reads back to the same double, for people rather than programs.
std::string Short(double v) {
    char buf[32];
    auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
    return std::string(buf, ec == std::errc() ? end : buf);
}

std::string Range(std::span<const double> a) {
    if (a.empty()) return "0";
    return std::to_string(a.size()) + " (" + Short(a.front()) + " .. " + Short(a.back()) + ")";
}

void PrintInfo(const std::string& file, const IesInterface& ies, std::ostream& out) {
    const DataDictionary& props = ies.GetProperties();
    IesRawData raw = ies.GetRawAccess();
    int version = props.Get<int>(int64_t(IESPROPERTY_VERSION), 0);
    int tilt = props.Get<int>(int64_t(IESPROPERTY_TILT), 0);
    Vec3 dims = props.Get<Vec3>(int64_t(IESPROPERTY_DIMENSIONS));
    char checksum[16];
    std::snprintf(checksum, sizeof checksum, "%08x", raw.checksum);
    out << "file: " << file << "\n"
        << "version: " << version << " ("
        << kVersionNames[version >= 0 && version <= 3 ? version : 0] << ")\n"
        << "tilt: " << (tilt >= 0 && tilt <= 2 ? kTiltNames[tilt] : "?") << "\n";
    for (const auto& [id, keyword] : kTextProperties) {
        std::string text = props.Get<std::string>(int64_t(id));
        if (!text.empty()) out << keyword << text << "\n";
    }
    out << "shape: " << props.Get<int>(int64_t(IESPROPERTY_SHAPE), 0) << "\n"
        << "dimensions (m): " << Short(dims.x) << " " << Short(dims.y) << " " << Short(dims.z)
        << "\n"
        << "vertical angles: " << Range(raw.anglesVertical) << "\n"
        << "horizontal angles: " << Range(raw.anglesHorizontal) << "\n"
        << "max candela: " << Short(raw.dataMax) << "\n"
        << "power ratio: " << Short(ies.GetLightPowerRatio()) << "\n"
        << "checksum: " << checksum << "\n";
}

Vec3 FromAngles(double thetaDeg, double phiDeg) {
    double t = thetaDeg * M_PI / 180.0, p = phiDeg * M_PI / 180.0;
    return {std::sin(t) * std::sin(p), std::sin(t) * std::cos(p), -std::cos(t)};
}

// One request of `ies eval`: [x, y, z], {"direction": [x, y, z]} or {"theta": t, "phi": p}.
Result<Vec3> ReadDirection(const nlohmann::json& request) {
    if (request.is_array()) return ReadVec3(request, "direction");
    if (request.is_object() && request.contains("direction"))
        return ReadVec3(request["direction"], "direction");
    if (request.is_object() && request.contains("theta")) {
        KELVO_ASSIGN_OR_RETURN(double theta, NumberMember(request, "theta"));
        KELVO_ASSIGN_OR_RETURN(double phi, NumberMember(request, "phi", 0.0));
        return FromAngles(theta, phi);
    }
    return IllegalArgumentError(
        KELVO_HERE,
        "A request is [x, y, z], {\"direction\": [x, y, z]} or {\"theta\": t, \"phi\": p}.");
}

// The evaluator takes a direction as given (a unit vector); the command takes any length,
// so (1, 0, -1) means the 45 degree direction and not a point beyond the sphere.
Result<Vec3> UnitDirection(const Vec3& d) {
    const double length = Length(d);
    if (!std::isfinite(length) || !(length > 0.0))
        return IllegalArgumentError(
            KELVO_HERE, "A direction must be finite and not zero, not (@, @, @).", d.x, d.y, d.z);
    return d / length;
}

Result<double> Intensity(const IesInterface& ies, const Vec3& d) {
    KELVO_ASSIGN_OR_RETURN(Vec3 unit, UnitDirection(d));
    return ies.ComputeLightIntensity(unit);
}

Result<void> WriteEval(JsonWriter& w, const IesInterface& ies, const Vec3& d) {
    KELVO_ASSIGN_OR_RETURN(double intensity, Intensity(ies, d));
    w.Key("direction").Vec(d).Key("intensity").Number(intensity);
    return OK();
}

struct EvalOptions {
    std::string file;
    std::vector<std::string> dirs, angles;
    bool json = false;
};

Result<int> RunEval(const EvalOptions& o) {
    KELVO_ASSIGN_OR_RETURN(Loaded loaded, LoadProfile(o.file));
    KELVO_TRY(loaded.parsed);
    std::vector<Vec3> directions;
    for (const std::string& d : o.dirs) {
        KELVO_ASSIGN_OR_RETURN(Vec3 v, ParseVec3(d, "--dir"));
        directions.push_back(v);
    }
    for (const std::string& a : o.angles) {
        KELVO_ASSIGN_OR_RETURN(Vec2 v, ParseVec2(a, "--angles"));
        directions.push_back(FromAngles(v.x, v.y));
    }
    if (directions.empty()) {
        // JSON lines on stdin, one answer per request; any failed request fails the run.
        KELVO_ASSIGN_OR_RETURN(
            int failed,
            RunJsonLines(StandardInput(), std::cout,
                         [&](const nlohmann::json& request, JsonWriter& answer) -> Result<void> {
                             KELVO_ASSIGN_OR_RETURN(Vec3 d, ReadDirection(request));
                             return WriteEval(answer, *loaded.ies, d);
                         },
                         {.nameKey = nullptr}));
        return failed > 0 ? 1 : 0;
    }
    for (const Vec3& d : directions) KELVO_TRY(UnitDirection(d));
    for (const Vec3& d : directions) {
        if (o.json) {
            JsonWriter w;
            KELVO_TRY(WriteEval(w.Object(), *loaded.ies, d));
            std::cout << w.End().Text() << '\n';
        } else
            std::cout << JsonNumber(d.x) << ' ' << JsonNumber(d.y) << ' ' << JsonNumber(d.z) << "  "
                      << JsonNumber(*Intensity(*loaded.ies, d)) << '\n';
    }
    return 0;
}

// The profile is read whole before the output is written: converting over itself is safe.
Result<void> RunConvert(const std::string& file, const std::string& output) {
    KELVO_ASSIGN_OR_RETURN(Loaded loaded, LoadProfile(file));
    KELVO_TRY(loaded.parsed);
    KELVO_ASSIGN_OR_RETURN(std::string text, loaded.ies->ConvertToText());
    KELVO_TRY(WriteTextFile(output, text));
    std::cout << "kelvo ies convert: wrote " << output << '\n';
    return OK();
}

}  // namespace

Result<void> WriteIesPreview(Context& context, const std::string& file, const std::string& output,
                             int64_t size) {
    KELVO_TRY(context.LoadModules());
    if (size < 1 || size > kPreviewMaxSide)
        return IllegalArgumentError(KELVO_HERE, "--size must lie in 1..@, not @.", kPreviewMaxSide,
                                    size);
    // Opened as any picture is: the file-format registry detects the IES file and its
    // import step renders the preview into the image's layer.
    KELVO_ASSIGN_OR_RETURN(StrongRef<ImageInterface> image, ImportImage(Url::FromFile(file)));
    if (image->GetProperties().Get<Id>(kImagePropertyFileFormat) !=
        Id("net.kelvo.fileformat.imageies"))
        return IllegalArgumentError(KELVO_HERE, "@ is not an IES file.", file);
    StrongRef<ImageLayerInterface> layer = image->GetLayer(0);
    const PixelFormat format = layer->GetPixelFormat();
    const COLORPROFILE profile = layer->GetColorProfile();
    const int64_t w = layer->GetWidth(), h = layer->GetHeight();
    const size_t bpp = format.GetBytesPerPixel();
    std::vector<uint8_t> source(size_t(w * h) * bpp);
    KELVO_ASSIGN_OR_RETURN(auto reader, layer->GetPixelHandler(format, profile));
    for (int64_t y = 0; y < h; ++y)
        KELVO_TRY(reader->GetPixels(0, y, w, source.data() + size_t(y * w) * bpp));

    // Resampled (bilinear, on the stored values) to the asked size.
    std::vector<float> grey(size_t(w * h));
    std::vector<float> out(size_t(size) * size_t(size));
    KELVO_TRY(
        ConvertPixels(format, profile, source.data(), kPixelGrey32f, profile, grey.data(), w * h));
    for (int64_t y = 0; y < size; ++y) {
        double sy =
            std::clamp((double(y) + 0.5) * double(h) / double(size) - 0.5, 0.0, double(h - 1));
        int64_t y0 = std::min<int64_t>(int64_t(sy), h - 1), y1 = std::min<int64_t>(y0 + 1, h - 1);
        float fy = float(sy - double(y0));
        for (int64_t x = 0; x < size; ++x) {
            double sx =
                std::clamp((double(x) + 0.5) * double(w) / double(size) - 0.5, 0.0, double(w - 1));
            int64_t x0 = std::min<int64_t>(int64_t(sx), w - 1),
                    x1 = std::min<int64_t>(x0 + 1, w - 1);
            float fx = float(sx - double(x0));
            auto at = [&](int64_t xx, int64_t yy) { return grey[size_t(yy * w + xx)]; };
            float top = at(x0, y0) + (at(x1, y0) - at(x0, y0)) * fx;
            float bottom = at(x0, y1) + (at(x1, y1) - at(x0, y1)) * fx;
            out[size_t(y * size + x)] = top + (bottom - top) * fy;
        }
    }
    return WritePicture(output, {size, size, kPixelGrey32f, profile, out.data()});
}

void AddIesCommand(CLI::App& app, Context& context, int& status) {
    auto* ies =
        app.add_subcommand("ies", "Inspect, evaluate and rewrite IES photometric profiles (LM-63)");
    ies->require_subcommand(1);

    auto* info = ies->add_subcommand(
        "info",
        "Header properties, shape, dimensions in metres, angles, max candela, power ratio and "
        "checksum of a profile");
    auto infoFile = std::make_shared<std::string>();
    auto infoJson = std::make_shared<bool>(false);
    info->add_option("FILE", *infoFile, "The .ies file")->required();
    info->add_flag("--json", *infoJson,
                   "Write every member as JSON (properties by id, angles, scaled values, _dataMax, "
                   "_dataPower, _checksum, powerRatio); after a failed parse, the error and the "
                   "properties stored so far");
    info->callback([&context, &status, infoFile, infoJson] {
        RunCommand(context, status, [&]() -> Result<int> {
            KELVO_ASSIGN_OR_RETURN(Loaded loaded, LoadProfile(*infoFile));
            if (*infoJson) {
                // A failed parse still shows what was stored, with the error.
                std::cout << InfoJson(*loaded.ies, loaded.parsed) << '\n';
                return loaded.parsed ? 0 : 1;
            }
            KELVO_TRY(loaded.parsed);
            PrintInfo(*infoFile, *loaded.ies, std::cout);
            return 0;
        });
    });

    auto* eval = ies->add_subcommand(
        "eval",
        "Normalised intensity (0..1) in given directions of the light's frame (-z is the "
        "nadir); without --dir or --angles, reads JSON lines on stdin: [x, y, z], "
        "{\"direction\": [x, y, z]} or {\"theta\": degrees, \"phi\": degrees}");
    auto evalOptions = std::make_shared<EvalOptions>();
    eval->add_option("FILE", evalOptions->file, "The .ies file")->required();
    eval->add_option("--dir", evalOptions->dirs, "A direction X,Y,Z (repeatable)")
        ->type_name("X,Y,Z");
    eval->add_option(
            "--angles", evalOptions->angles,
            "A direction as THETA,PHI in degrees: THETA from the nadir, PHI from +y towards +x "
            "(repeatable)")
        ->type_name("THETA,PHI");
    eval->add_flag("--json", evalOptions->json,
                   "Answer {\"direction\": [...], \"intensity\": v} per line");
    eval->callback([&context, &status, evalOptions] {
        RunCommand(context, status, [&] { return RunEval(*evalOptions); });
    });

    auto* convert = ies->add_subcommand(
        "convert", "Write the profile back as LM-63 text (multiplier 1, metres, scaled values)");
    auto convertFile = std::make_shared<std::string>();
    auto convertOut = std::make_shared<std::string>();
    convert->add_option("FILE", *convertFile, "The .ies file")->required();
    convert->add_option("-o,--out", *convertOut, "The file to write")->required();
    convert->callback([&context, &status, convertFile, convertOut] {
        RunCommand(context, status, [&] { return RunConvert(*convertFile, *convertOut); });
    });

    auto* preview = ies->add_subcommand(
        "preview",
        "Render the profile's preview (the light on a wall behind it and the floor below) into a "
        "picture, opening the file through the image import as any picture is opened");
    auto previewFile = std::make_shared<std::string>();
    auto previewOut = std::make_shared<std::string>();
    auto previewSize = std::make_shared<int64_t>(512);
    preview->add_option("FILE", *previewFile, "The .ies file")->required();
    preview->add_option("-o,--out", *previewOut, "The picture to write (.png, .tif, .exr)")
        ->required();
    preview->add_option("--size", *previewSize, "Width and height in pixels")->default_val(512);
    preview->callback([&context, &status, previewFile, previewOut, previewSize] {
        RunCommand(context, status, [&]() -> Result<void> {
            KELVO_TRY(WriteIesPreview(context, *previewFile, *previewOut, *previewSize));
            std::cout << "kelvo ies preview: wrote " << *previewOut << '\n';
            return OK();
        });
    });
}

}  // namespace kelvo::cli
