// kelvo demo: runs what the tool can show on built-in sample data and writes the
// pictures and reports into a folder.
#include <cmath>
#include <iostream>
#include <vector>

#include "bsdf_plot.h"
#include "cli_common.h"
#include "commands.h"
#include "kelvo/camera.h"
#include "kelvo/legacy_renderers/bsdfdata.h"
#include "kelvo/legacy_renderers/microfacetdistributioncaches.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"
#include "kelvo/sceneobject.h"
#include "picture_writer.h"
#include "preview_batch.h"
#include "preview_sheet.h"

namespace kelvo::cli {

namespace {
namespace fs = std::filesystem;

// A linear-light colour ramp written through every host image format by the tool's picture
// policy and read back, so the report shows what each file holds.
Result<void> WritePictures(const fs::path& folder, std::string& report) {
    constexpr int64_t w = 64, h = 32;
    std::vector<float> ramp(size_t(w * h * 3));
    for (int64_t y = 0; y < h; ++y)
        for (int64_t x = 0; x < w; ++x) {
            float* p = &ramp[size_t((y * w + x) * 3)];
            p[0] = float(x) / float(w - 1);
            p[1] = float(y) / float(h - 1);
            p[2] = 0.25f;
        }
    for (const char* name : {"ramp.exr", "ramp.tif", "ramp.png"}) {
        KELVO_TRY(WritePicture((folder / name).string(),
                               PictureView::Of(w, h, kPixelRgb32f, ramp.data())));
        Url url = Url::FromFile((folder / name).string());
        KELVO_ASSIGN_OR_RETURN(auto back, ImportImage(url));
        auto l = back->GetLayer(0);
        report += FormatMessage("@: @, @ x @, @, @\n", name,
                                back->GetProperties().Get<Id>(kImagePropertyFileFormat),
                                back->GetWidth(), back->GetHeight(), l->GetPixelFormat().Name(),
                                ColorProfileName(l->GetColorProfile()));
    }
    return OK();
}

// Rays of the centre, an edge and a corner pixel of both cameras looking at the origin
// from the same place, a 50 mm lens on a full-frame sensor, and black-body light colours.
Result<std::string> CamerasJson() {
    const std::string matrix =
        R"({"offset":[0,2,-10],"xAxis":[1,0,0],"yAxis":[0,0.98058067569092,0.19611613513818],)"
        R"("zAxis":[0,-0.19611613513818,0.98058067569092]})";
    const std::vector<std::string> pixels = {"320,240", "640,240", "0,0", "640,480"};
    KELVO_ASSIGN_OR_RETURN(std::string perspective,
                           CameraRaysJson("perspective", matrix, 0.5, pixels));
    KELVO_ASSIGN_OR_RETURN(std::string parallel, CameraRaysJson("parallel", matrix, 0.5, pixels));

    KELVO_ASSIGN_OR_RETURN(auto object, CreateClass<SceneObjectInterface>(kSceneObjectCameraClass));
    KELVO_TRY(object->SetAttribute(SCENEOBJECTATTRIBUTES::FOCALLENGTH, 50.0));
    KELVO_TRY(object->SetAttribute(SCENEOBJECTATTRIBUTES::SENSORSIZE, 36.0));
    KELVO_ASSIGN_OR_RETURN(auto params,
                           Query<CameraObjectInterface>(object)->GetCameraParameters({640, 480}));

    JsonWriter w;
    w.Object().Key("perspective").Raw(perspective).Key("parallel").Raw(parallel);
    w.Key("lens50mm").Object();
    w.Key("focallength").Number(50).Key("sensorsize").Number(36);
    w.Key("fieldofview").Number(params->Get<double>(CAMERAPARAMETERS::FIELDOFVIEW));
    w.End();
    KELVO_ASSIGN_OR_RETURN(auto lightObject,
                           CreateClass<SceneObjectInterface>(kSceneObjectLightClass));
    auto light = Query<LightObjectInterface>(lightObject);
    w.Key("lightColors").Array();
    for (double kelvin : {1900.0, 2700.0, 4000.0, 5000.0, 6504.0, 10000.0}) {
        KELVO_TRY(lightObject->SetAttribute(SCENEOBJECTATTRIBUTES::COLORTEMPERATURE, kelvin));
        const Col3 c = light->GetColor();
        w.Object().Key("kelvin").Number(kelvin).Key("rgb").Vec(Vec3{c.r, c.g, c.b}).End();
    }
    w.End();
    return w.End().Text();
}

// A checkerboard plane receding to the horizon, seen through the module's perspective
// camera; each pixel's texture footprint comes from the camera's ray differentials. Panels
// left to right: nearest, bilinear, mip map, rip map, summed area.
Result<void> WriteFilteringPicture(const fs::path& folder) {
    // The board: 8 x 8 squares of 16 texels, one tile per 4 world units of the plane.
    constexpr int64_t kBoard = 128, kPanelW = 320, kPanelH = 200;
    constexpr double kTile = 4.0, kFieldOfView = 0.6;
    std::vector<uint8_t> board(size_t(kBoard * kBoard * 3));
    for (int64_t y = 0; y < kBoard; ++y)
        for (int64_t x = 0; x < kBoard; ++x) {
            const uint8_t v = ((x / 16 + y / 16) % 2) ? 235 : 20;
            for (int c = 0; c < 3; ++c) board[size_t((y * kBoard + x) * 3 + c)] = v;
        }
    KELVO_ASSIGN_OR_RETURN(auto boardImage, CreateImage(kBoard, kBoard));
    KELVO_ASSIGN_OR_RETURN(auto boardLayer,
                           CreateImageLayer(kBoard, kBoard, kPixelRgb8, COLORPROFILE::SRGB));
    KELVO_ASSIGN_OR_RETURN(auto boardWriter,
                           boardLayer->SetPixelHandler(kPixelRgb8, COLORPROFILE::SRGB));
    for (int64_t y = 0; y < kBoard; ++y)
        KELVO_TRY(boardWriter->SetPixels(0, y, kBoard, &board[size_t(y * kBoard * 3)]));
    KELVO_TRY(boardImage->AddLayer(boardLayer));
    KELVO_ASSIGN_OR_RETURN(auto sampler, CreateTextureSampler(boardImage));

    // Eye 1.5 above the plane y = 0, looking slightly down towards +z.
    Matrix m;
    m.offset = {0, 1.5, 0};
    m.zAxis = Normalize(Vec3{0, -0.12, 1});
    m.yAxis = Normalize(Vec3{0, 1, 0.12});
    auto params = std::make_shared<DataDictionary>();
    KELVO_TRY(params->Set(CAMERAPARAMETERS::MATRIX, m));
    KELVO_TRY(params->Set(CAMERAPARAMETERS::SCREENRESOLUTION, Vec2{kPanelW, kPanelH}));
    KELVO_TRY(params->Set(CAMERAPARAMETERS::FIELDOFVIEW, kFieldOfView));
    KELVO_ASSIGN_OR_RETURN(auto camera, CreateClass<CameraInterface>(kPerspectiveCameraClass));
    KELVO_TRY(camera->Init(params, false));

    constexpr TEXTUREMODE kModes[] = {TEXTUREMODE::NEAREST, TEXTUREMODE::BILINEAR,
                                      TEXTUREMODE::MIPMAP, TEXTUREMODE::RIPMAP,
                                      TEXTUREMODE::SUMMEDAREA};
    const int64_t width = kPanelW * 5;
    std::vector<float> pixels(size_t(width * kPanelH * 3), 0.0f);
    for (int64_t py = 0; py < kPanelH; ++py)
        for (int64_t px = 0; px < kPanelW; ++px) {
            const Vec2 screen{double(px) + 0.5, double(py) + 0.5};
            Ray ray;
            camera->CreateScreenRay(screen, ray);
            Col4 colour{0.55, 0.7, 0.9, 1};  // sky above the horizon
            const bool hits = ray.direction.y < -1e-9;
            ShadingPoint hit;
            if (hits) {
                hit.position = ray.origin + ray.direction * (-ray.origin.y / ray.direction.y);
                hit.normal = {0, 1, 0};
                hit.dpdu = {kTile, 0, 0};
                hit.dpdv = {0, 0, kTile};
                camera->CalculateMIPComponents(screen, ray, hit);
            }
            // The camera's pixel steps leave out its field of view: scale them back in.
            const TextureFootprint footprint = ComputeTextureFootprint(hit, kFieldOfView);
            const Vec2 uv{hit.position.x / kTile, hit.position.z / kTile};
            for (int panel = 0; panel < 5; ++panel) {
                if (hits) {
                    KELVO_ASSIGN_OR_RETURN(
                        colour, sampler->ThreadedTextureSample(
                                    uv, footprint, {kModes[panel], TEXTUREWRAP::REPEAT, true}));
                }
                float* out = &pixels[size_t((py * width + panel * kPanelW + px) * 3)];
                out[0] = float(colour.r);
                out[1] = float(colour.g);
                out[2] = float(colour.b);
            }
        }
    return WritePicture((folder / "texture_filtering.png").string(),
                        PictureView::Of(width, kPanelH, kPixelRgb32f, pixels.data()));
}

// The sheet of all fifteen legacy models (5 rows x 3 columns of lobe tiles, wo at 45
// degrees), written to folder/"bsdf-sheet.png" with its legend in folder/"bsdf-sheet.txt".
// Returns the file names written.
Result<std::vector<std::string>> WriteBsdfSheet(const std::filesystem::path& folder) {
    struct Entry {
        const char* suffix;
        const char* parameters;
    };
    static constexpr Entry kSheet[] = {
        {"lambertbrdf", ""},
        {"orennayarbrdf", "sigma 0.5"},
        {"irawanbrdf", "denim, st (0.31, 0.62), kd 0.2, ks 1"},
        {"blurrysimplebrdf", "n 40, table GGX level 100"},
        {"blurryspecularbrdf", "exponent 30"},
        {"beckmannbrdf", "roughness 0.35"},
        {"beckmannbtdf", "roughness 0.35, ior 1.5"},
        {"ggxbrdf", "roughness 0.35"},
        {"ggxbtdf", "roughness 0.35, ior 1.5"},
        {"phongbrdf", "roughness 0.35"},
        {"phongbtdf", "roughness 0.35, ior 1.5"},
        {"wardbrdf", "roughness 0.35"},
        {"wardbtdf", "roughness 0.35, ior 1.5"},
        {"anisotropicbrdf", "roughness 0.5, anisotropy 0.6, rotation 0.5"},
        {"anisotropicbtdf", "roughness 0.5, anisotropy 0.6, rotation 0.5, ior 1.5"},
    };
    KELVO_ASSIGN_OR_RETURN(auto caches, CreateComponent<MicrofacetDistributionCachesInterface>());
    KELVO_TRY(caches->Alloc());
    caches->Init();
    DataDictionary d;
    KELVO_TRY(bsdfdata::SetDistributionTables(d, caches.get()));
    KELVO_TRY(d.Set(bsdfdata::kOrenNayarSigma, 0.5));
    KELVO_TRY(d.Set(bsdfdata::kIorIn, 1.5));
    KELVO_TRY(d.Set(bsdfdata::kIorOut, 1.0));
    KELVO_TRY(d.Set(bsdfdata::kAnisotropy, 0.6));
    KELVO_TRY(d.Set(bsdfdata::kRotation, 0.5));
    KELVO_TRY(d.Set(bsdfdata::kClothPattern, std::string("denim")));
    KELVO_TRY(d.Set(bsdfdata::kTextureCoordinate, Vec2{0.31, 0.62}));
    for (const Id& k : {bsdfdata::kWarpDiffuse, bsdfdata::kWeftDiffuse}) KELVO_TRY(d.Set(k, 0.2));
    for (const Id& k : {bsdfdata::kWarpSpecular, bsdfdata::kWeftSpecular}) KELVO_TRY(d.Set(k, 1.0));
    KELVO_TRY(
        bsdfdata::SetTable(d, bsdfdata::kBlurryTable, caches->GetCache(DISTRIBUTIONKIND_GGX)));
    KELVO_TRY(d.Set(bsdfdata::kBlurryDensityRow, int64_t(2000 * 100)));
    KELVO_TRY(d.Set(bsdfdata::kBlurrySamplingRow, int64_t(1000 * 100)));

    constexpr int kTile = 96, kColumns = 3, kRows = 5, kGap = 12;
    const int tileWidth = 3 * kTile + 8;
    RgbPicture sheet;
    sheet.width = kColumns * tileWidth + (kColumns + 1) * kGap;
    sheet.height = kRows * kTile + (kRows + 1) * kGap;
    sheet.rgb.assign(size_t(sheet.width) * sheet.height * 3, 255);
    const Vec3 wo{std::sqrt(0.5), 0.0, std::sqrt(0.5)};
    std::string legend =
        "Legacy BSDF lobes, wo at 45 degrees. Each tile: polar plot of value x |cos| in the plane "
        "of incidence (reflection orange, transmission blue, wo green), then the upper and the "
        "lower hemisphere seen from above. Tiles left to right, top to bottom:\n";
    int index = 0;
    for (const Entry& e : kSheet) {
        double roughness = std::string_view(e.suffix).starts_with("anisotropic") ? 0.5 : 0.35;
        KELVO_TRY(d.Set(bsdfdata::kRoughness, roughness));
        KELVO_TRY(d.Set(bsdfdata::kBlurryExponent,
                        std::string_view(e.suffix) == "blurrysimplebrdf" ? 40.0 : 30.0));
        KELVO_ASSIGN_OR_RETURN(
            Id id, Id::FromText(std::string("net.kelvo.render.bsdflegacyclass.") + e.suffix));
        KELVO_ASSIGN_OR_RETURN(auto model, CreateClass<BSDFLegacyInterface>(id));
        KELVO_TRY(model->Init(d));
        int col = index % kColumns, row = index / kColumns;
        sheet.Paste(DrawLobe(*model, wo, kTile), kGap + col * (tileWidth + kGap),
                    kGap + row * (kTile + kGap));
        legend += std::to_string(index + 1) + ". " + e.suffix + (e.parameters[0] ? " (" : "") +
                  e.parameters + (e.parameters[0] ? ")" : "") + "\n";
        ++index;
    }
    caches->Free();
    KELVO_TRY(WritePicture((folder / "bsdf-sheet.png").string(), sheet.View()));
    KELVO_TRY(WriteTextFile(folder / "bsdf-sheet.txt", legend));
    return std::vector<std::string>{"bsdf-sheet.png", "bsdf-sheet.txt"};
}

// Material swatches through the preview pipeline: the fifteen legacy models as a sheet of
// balls, a ball under the sample IES profile and a textured ball, each as PNG and EXR, with
// the render report. Small and short, so that the demo stays quick.
Result<std::vector<std::string>> WritePreviewSwatches(Context& context, const fs::path& folder) {
    // Three rows: the diffuse and blurry lobes, the microfacet reflections (roughness 0.35),
    // and the same distributions as glass of index 1.5 (roughness 0.1), before the checker
    // stage that transmissive swatches get.
    static constexpr const char* kModels[] = {
        R"({"model":"lambertbrdf"})",
        R"({"model":"orennayarbrdf","data":{"orennayarsigma":0.5}})",
        R"({"model":"irawanbrdf","data":{"clothpattern":"denim","warpdiffuse":0.2,"weftdiffuse":0.2,)"
        R"("warpspecular":1,"weftspecular":1}})",
        R"({"model":"blurrysimplebrdf","data":{"blurryexponent":40}})",
        R"({"model":"blurryspecularbrdf","data":{"blurryexponent":30}})",
        R"({"model":"beckmannbrdf","data":{"roughness":0.35}})",
        R"({"model":"ggxbrdf","data":{"roughness":0.35}})",
        R"({"model":"phongbrdf","data":{"roughness":0.35}})",
        R"({"model":"wardbrdf","data":{"roughness":0.35}})",
        R"({"model":"anisotropicbrdf","data":{"roughness":0.5,"anisotropy":0.6,"rotation":0.5}})",
        R"({"model":"beckmannbtdf","data":{"roughness":0.1,"iorin":1.5,"iorout":1}})",
        R"({"model":"ggxbtdf","data":{"roughness":0.1,"iorin":1.5,"iorout":1}})",
        R"({"model":"phongbtdf","data":{"roughness":0.1,"iorin":1.5,"iorout":1}})",
        R"({"model":"wardbtdf","data":{"roughness":0.1,"iorin":1.5,"iorout":1}})",
        R"({"model":"anisotropicbtdf","data":{"roughness":0.2,"anisotropy":0.6,"rotation":0.5,)"
        R"("iorin":1.5,"iorout":1}})",
    };
    // A checkerboard for the textured ball, written beside the pictures.
    constexpr int64_t kBoard = 64;
    std::vector<float> board(size_t(kBoard * kBoard * 3));
    for (int64_t y = 0; y < kBoard; ++y)
        for (int64_t x = 0; x < kBoard; ++x) {
            const bool on = (x / 8 + y / 8) % 2;
            float* p = &board[size_t((y * kBoard + x) * 3)];
            p[0] = on ? 0.85f : 0.1f;
            p[1] = on ? 0.65f : 0.1f;
            p[2] = on ? 0.2f : 0.3f;
        }
    KELVO_TRY(WritePicture((folder / "preview-checker.png").string(),
                           PictureView::Of(kBoard, kBoard, kPixelRgb32f, board.data())));
    const std::string ies = (context.resourceFolder / "ies" / "kelvo_sample_spot.ies").string();
    const std::string checker = (folder / "preview-checker.png").string();

    // The models are colourless: a warm colour shows what each lobe does with it; the
    // glass is nearly clear, with a faint green of window glass.
    std::vector<std::string> models;
    for (const char* model : kModels) {
        nlohmann::json j = nlohmann::json::parse(model);
        const bool glass = j["model"].get<std::string>().ends_with("btdf");
        j["colour"] = glass ? nlohmann::json{0.9, 0.97, 0.94} : nlohmann::json{0.8, 0.55, 0.35};
        models.push_back(j.dump());
    }
    struct Sheet {
        const char* name;
        std::vector<std::string> materials;
        const char* scene;
        int64_t size;
    } sheets[] = {
        {"preview-models", models, "sphere", 64},
        {"preview-ies",
         {nlohmann::json{
             {"colour", {0.8, 0.8, 0.8}}, {"ies", ies}, {"environment", {0.05, 0.05, 0.05}}}
              .dump()},
         "sphere",
         128},
        {"preview-textured", {nlohmann::json{{"texture", checker}}.dump()}, "sphere", 128},
    };
    nlohmann::json report = nlohmann::json::object();
    std::vector<std::string> written{"preview-checker.png"};
    for (const Sheet& sheet : sheets) {
        SheetOptions options;
        options.materials = sheet.materials;
        options.scene = sheet.scene;
        options.width = options.height = sheet.size;
        options.iterations = kPreviewDefaultIterations;
        KELVO_ASSIGN_OR_RETURN(SheetOutcome outcome, RenderSheet(options));
        for (const PreviewProgress& swatch : outcome.swatches)
            if (!swatch.error.empty())
                return IllegalStateError(KELVO_HERE, "The @ swatch failed: @", swatch.label,
                                         swatch.error);
        for (const char* suffix : {".png", ".exr"}) {
            KELVO_TRY(WriteSheet((folder / (std::string(sheet.name) + suffix)).string(), outcome,
                                 options.width, options.height));
            written.push_back(std::string(sheet.name) + suffix);
        }
        report[sheet.name] = SheetReport(options, outcome);
    }
    KELVO_TRY(WriteTextFile(folder / "preview-report.json", report.dump(2) + "\n"));
    written.emplace_back("preview-report.json");
    return written;
}

// Thumbnails of the small library in resources/, as kelvo preview batch renders a studio's:
// a picture and a sidecar per material, those already done skipped.
Result<std::string> WriteThumbnails(Context& context, const fs::path& folder) {
    BatchOptions options;
    options.library = context.resourceFolder / "library" / "materials.jsonl";
    options.out = folder / "thumbnails";
    options.settings.width = options.settings.height = 64;
    options.settings.iterations = 16;
    KELVO_ASSIGN_OR_RETURN(BatchOutcome outcome, RunBatch(options));
    for (const BatchItem& item : outcome.items)
        if (item.status == "failed")
            return IllegalStateError(KELVO_HERE, "The thumbnail '@' failed: @", item.name,
                                     item.error);
    return FormatMessage("@ thumbnails (@ rendered, @ already done)", outcome.items.size(),
                         outcome.rendered, outcome.skipped);
}

Result<void> RunDemo(Context& context, const fs::path& folder) {
    std::error_code ec;
    fs::create_directories(folder, ec);
    if (ec)
        return IoError(KELVO_HERE, folder.string(), "Cannot create '@': @", folder.string(),
                       ec.message());
    std::ostringstream modules, config;
    PrintModules(modules);
    PrintConfig(config, true);
    KELVO_TRY(WriteTextFile(folder / "modules.txt", modules.str()));
    KELVO_TRY(WriteTextFile(folder / "modules.json", ModulesJson() + "\n"));
    KELVO_TRY(WriteTextFile(folder / "config.json", config.str()));
    std::string pictures;
    KELVO_TRY(WritePictures(folder, pictures));
    KELVO_TRY(WriteTextFile(folder / "pictures.txt", pictures));
    KELVO_ASSIGN_OR_RETURN(std::string cameras, CamerasJson());
    KELVO_TRY(WriteTextFile(folder / "cameras.json", cameras + "\n"));
    std::cout << "kelvo demo: wrote modules.txt, modules.json, config.json, ramp.exr, ramp.tif, "
                 "ramp.png, pictures.txt, cameras.json to "
              << folder.string() << '\n';

    // The sample light profile, opened through the image import like any picture.
    KELVO_TRY(WriteIesPreview(context,
                              (context.resourceFolder / "ies" / "kelvo_sample_spot.ies").string(),
                              (folder / "ies_preview.png").string(), 512));
    std::cout << "kelvo demo: wrote ies_preview.png to " << folder.string() << '\n';

    KELVO_TRY(WriteFilteringPicture(folder));
    std::cout << "kelvo demo: wrote texture_filtering.png (nearest, bilinear, mip map, rip map, "
                 "summed area) to "
              << folder.string() << '\n';

    // The lobes of the fifteen legacy BSDF models.
    KELVO_ASSIGN_OR_RETURN(std::vector<std::string> sheet, WriteBsdfSheet(folder));
    std::cout << "kelvo demo: wrote " << sheet[0] << ", " << sheet[1] << " to " << folder.string()
              << '\n';

    KELVO_ASSIGN_OR_RETURN(std::vector<std::string> swatches,
                           WritePreviewSwatches(context, folder));
    std::string names;
    for (const std::string& name : swatches) names += (names.empty() ? "" : ", ") + name;
    std::cout << "kelvo demo: wrote " << names << " (material previews) to " << folder.string()
              << '\n';

    KELVO_ASSIGN_OR_RETURN(std::string thumbnails, WriteThumbnails(context, folder));
    std::cout << "kelvo demo: wrote " << thumbnails << " of resources/library/materials.jsonl to "
              << (folder / "thumbnails").string() << '\n';
    return OK();
}
}  // namespace

void AddDemoCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand(
        "demo",
        "Run the module on built-in sample data and write pictures and reports to a folder");
    auto* out = cmd->add_option("-o,--out", "Folder to write into")->default_val("kelvo-demo");
    cmd->callback([&context, &status, out] {
        RunCommand(context, status, [&] { return RunDemo(context, out->as<std::string>()); });
    });
}

}  // namespace kelvo::cli
