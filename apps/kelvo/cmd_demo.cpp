// kelvo demo: runs what the tool can show on built-in sample data and writes the
// pictures and reports into a folder.
#include <iostream>
#include <vector>

#include "bsdf_plot.h"
#include "cli_common.h"
#include "commands.h"
#include "kelvo/mediasession_output.h"
#include "kelvo/registry.h"
#include "kelvo/sceneobject.h"

namespace kelvo::cli {

namespace {
namespace fs = std::filesystem;

// A linear-light colour ramp written through every host image format and read back, so
// the report shows what each file holds.
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
    KELVO_ASSIGN_OR_RETURN(auto image, CreateImage(w, h));
    KELVO_ASSIGN_OR_RETURN(auto layer, CreateImageLayer(w, h, kPixelRgb32f, COLORPROFILE::LINEAR));
    KELVO_ASSIGN_OR_RETURN(auto writer, layer->SetPixelHandler(kPixelRgb32f, COLORPROFILE::LINEAR));
    for (int64_t y = 0; y < h; ++y) KELVO_TRY(writer->SetPixels(0, y, w, &ramp[size_t(y * w * 3)]));
    KELVO_TRY(image->AddLayer(layer));
    for (const char* name : {"ramp.exr", "ramp.tif", "ramp.png"}) {
        KELVO_TRY(WriteOutput(folder / name, [&](const fs::path& at) {
            return ExportImage(Url::FromFile(at.string()), *image);
        }));
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

    // The lobes of the fifteen legacy BSDF models.
    KELVO_ASSIGN_OR_RETURN(std::vector<std::string> sheet, WriteBsdfSheet(folder));
    std::cout << "kelvo demo: wrote " << sheet[0] << ", " << sheet[1] << " to " << folder.string()
              << '\n';
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
