// kelvo preview: material previews. `render` renders one swatch through the preview
// renderer class, found by id in the registry like every other block.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "cli_common.h"
#include "commands.h"
#include "kelvo/image.h"
#include "kelvo/mediasession_fileformats.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace {

using nlohmann::json;

struct RenderOptions {
    std::string material = R"({"model": "lambertbrdf"})";
    std::string scene = "sphere";
    std::string size = "128";
    int64_t spp = 16;
    uint64_t seed = 0;
    std::string output;
    bool quiet = false;
    bool json = false;
};

// A url from a file name or url text; relative file names stay relative to the cwd.
Result<Url> ReadUrl(const json& v, std::string_view what) {
    KELVO_ASSIGN_OR_RETURN(std::string text, ReadString(v, what));
    return Url::FromText(text);
}

Result<void> ReadMaterial(const std::string& text, PreviewMaterial& m, PreviewLight& light) {
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object())
        return IllegalArgumentError(KELVO_HERE, "--material must be a JSON object.");
    for (const auto& [key, value] : j.items())
        if (key != "model" && key != "data" && key != "colour" && key != "texture" &&
            key != "ies" && key != "textureMode")
            return IllegalArgumentError(KELVO_HERE, "Unknown material member '@'.", key);
    if (j.contains("model")) {
        KELVO_ASSIGN_OR_RETURN(std::string model, StringMember(j, "model"));
        if (model.find('.') == std::string::npos)
            model = "net.kelvo.render.bsdflegacyclass." + model;
        KELVO_ASSIGN_OR_RETURN(m.model, Id::FromText(model));
    }
    KELVO_ASSIGN_OR_RETURN(m.data, NewObject<DataDictionary>());
    if (j.contains("data")) KELVO_TRY(ReadBsdfData(j["data"], *m.data));
    if (j.contains("colour")) {
        KELVO_ASSIGN_OR_RETURN(Vec3 c, ReadVec3(j["colour"], "colour"));
        m.colour = {c.x, c.y, c.z};
    }
    if (j.contains("texture")) {
        KELVO_ASSIGN_OR_RETURN(m.texture, ReadUrl(j["texture"], "texture"));
    }
    if (j.contains("textureMode")) {
        KELVO_ASSIGN_OR_RETURN(std::string mode, StringMember(j, "textureMode"));
        constexpr std::pair<std::string_view, TEXTUREMODE> modes[] = {
            {"nearest", TEXTUREMODE::NEAREST},
            {"bilinear", TEXTUREMODE::BILINEAR},
            {"mipmap", TEXTUREMODE::MIPMAP},
            {"ripmap", TEXTUREMODE::RIPMAP},
            {"summedarea", TEXTUREMODE::SUMMEDAREA}};
        auto it = std::find_if(std::begin(modes), std::end(modes),
                               [&](const auto& p) { return p.first == mode; });
        if (it == std::end(modes))
            return IllegalArgumentError(
                KELVO_HERE,
                "Unknown texture mode '@' (nearest, bilinear, mipmap, ripmap, summedarea).", mode);
        m.textureMode = it->second;
    }
    if (j.contains("ies")) {
        KELVO_ASSIGN_OR_RETURN(light.ies, ReadUrl(j["ies"], "ies"));
    }
    return OK();
}

// Linear light to 8-bit sRGB, clamped.
uint8_t ToSrgb8(float v) {
    double x = std::clamp(double(v), 0.0, 1.0);
    x = x <= 0.0031308 ? 12.92 * x : 1.055 * std::pow(x, 1.0 / 2.4) - 0.055;
    return uint8_t(std::lround(x * 255.0));
}

Result<void> WriteRender(const std::string& output, const std::vector<float>& rgb, int64_t w,
                         int64_t h) {
    KELVO_ASSIGN_OR_RETURN(Url target, Url::FromText(output));
    const bool exr = CheckSuffix(target, "exr");
    const PixelFormat format = exr ? kPixelRgb32f : kPixelRgb8;
    const COLORPROFILE profile = exr ? COLORPROFILE::LINEAR : COLORPROFILE::SRGB;
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(w, h));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(w, h, format, profile));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(format, profile));
    std::vector<uint8_t> row(size_t(w) * 3);
    for (int64_t y = 0; y < h; ++y) {
        const float* src = &rgb[size_t(y * w * 3)];
        if (exr) {
            KELVO_TRY(writer->SetPixels(0, y, w, src));
        } else {
            for (size_t i = 0; i < row.size(); ++i) row[i] = ToSrgb8(src[i]);
            KELVO_TRY(writer->SetPixels(0, y, w, row.data()));
        }
    }
    KELVO_TRY(image->AddLayer(layer));
    std::filesystem::path path = host::LocalPath(target);
    if (path.empty()) return ExportImage(target, *image);
    return WriteOutput(path, [&](const std::filesystem::path& at) {
        return ExportImage(Url::FromFile(at.string()), *image);
    });
}

Result<void> RenderSwatch(const RenderOptions& o) {
    PreviewSettings settings;
    PreviewMaterial material;
    PreviewLight light;
    if (!ParsePreviewScene(o.scene, settings.scene))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    o.scene);
    KELVO_TRY(ReadMaterial(o.material, material, light));
    if (o.size.find(',') == std::string::npos) {
        KELVO_ASSIGN_OR_RETURN(auto n, ParseNumberList(o.size, 1, "--size"));
        settings.width = settings.height = int64_t(n[0]);
        if (double(settings.width) != n[0]) settings.width = 0;
    } else {
        KELVO_ASSIGN_OR_RETURN(Vec2 v, ParseVec2(o.size, "--size"));
        settings.width = int64_t(v.x);
        settings.height = int64_t(v.y);
        if (double(settings.width) != v.x || double(settings.height) != v.y) settings.width = 0;
    }
    if (o.spp < 1 || o.spp > (int64_t(1) << 20))
        return IllegalArgumentError(KELVO_HERE, "--spp must be an integer from 1 to @.",
                                    int64_t(1) << 20);
    settings.seed = o.seed;

    KELVO_ASSIGN_OR_RETURN(auto renderer,
                           CreateClass<PreviewRendererInterface>(kPreviewRendererClass));
    KELVO_TRY(renderer->Init(settings, material, light));

    const bool progress = !o.quiet && isatty(STDERR_FILENO);
    const auto start = std::chrono::steady_clock::now();
    std::vector<double> iterationSeconds;
    for (int64_t s = 0; s < o.spp; ++s) {
        KELVO_TRY(renderer->RenderIteration({}));
        iterationSeconds.push_back(renderer->GetStatistics().lastIterationSeconds);
        if (progress) {
            const double t =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            const double rate = double(s + 1) * double(settings.width * settings.height) / t;
            const double left = t / double(s + 1) * double(o.spp - s - 1);
            std::fprintf(stderr, "\r%lld/%lld samples  %.3g samples/s  %.1f s left   ",
                         (long long)(s + 1), (long long)o.spp, rate, left);
        }
    }
    if (progress) std::fprintf(stderr, "\n");

    std::vector<float> rgb(size_t(settings.width * settings.height * 3));
    KELVO_TRY(renderer->GetImage(rgb));
    KELVO_TRY(WriteRender(o.output, rgb, settings.width, settings.height));

    if (o.json) {
        const PreviewStatistics st = renderer->GetStatistics();
        json report = {{"output", o.output},
                       {"scene", o.scene},
                       {"width", settings.width},
                       {"height", settings.height},
                       {"samplesPerPixel", st.samplesPerPixel},
                       {"intersector", st.intersector},
                       {"rays", st.rays},
                       {"seconds", st.seconds},
                       {"raysPerSecond", st.seconds > 0.0 ? double(st.rays) / st.seconds : 0.0},
                       {"secondsPerIteration", iterationSeconds}};
        std::cout << report.dump() << '\n';
    }
    return OK();
}

}  // namespace

void AddPreviewCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand("preview", "Material previews");
    cmd->require_subcommand(1);

    auto o = std::make_shared<RenderOptions>();
    auto* render =
        cmd->add_subcommand("render", "Render one material swatch with the preview path tracer");
    render->add_option("--material", o->material,
                       "The material as JSON: {\"model\": \"ggxbrdf\", \"data\": {...}, "
                       "\"colour\": [r, g, b], \"texture\": FILE, \"textureMode\": \"mipmap\", "
                       "\"ies\": FILE}");
    render->add_option("--scene", o->scene, "open, sphere, cube or plane")->capture_default_str();
    render->add_option("--size", o->size, "Image size W or W,H in pixels")->capture_default_str();
    render->add_option("--spp", o->spp, "Samples per pixel (one per iteration)")
        ->capture_default_str();
    render->add_option("--seed", o->seed, "Random seed")->capture_default_str();
    render->add_option("-o,--output", o->output, "Image to write (.png, .exr, ...)")->required();
    render->add_flag("--quiet", o->quiet, "No progress display");
    render->add_flag("--json", o->json,
                     "Print a report: rays per second, intersector, time per iteration");
    render->callback(
        [&context, &status, o] { RunCommand(context, status, [&] { return RenderSwatch(*o); }); });
    AddPreviewSimulateCommand(*cmd, context, status);
}

}  // namespace kelvo::cli
