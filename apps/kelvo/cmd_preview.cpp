// kelvo preview: material previews. `render` renders swatches through the module's preview
// pipeline (node space, preview image request, scheduler, provider), as a material browser
// of the host does.
#include <unistd.h>

#include <iostream>

#include "cli_common.h"
#include "commands.h"
#include "preview_sheet.h"

namespace kelvo::cli {
namespace {

struct RenderOptions {
    std::vector<std::string> materials;
    std::string scene = "sphere";
    std::string size = "128";
    int64_t iterations = kPreviewDefaultIterations;
    int priority = 0;
    uint64_t seed = 0;
    std::string output;
    bool quiet = false;
    bool json = false;
};

// "W" or "W,H" in whole pixels; 0 x 0 (refused later) for anything else.
Result<void> ReadSize(const std::string& text, int64_t& width, int64_t& height) {
    if (text.find(',') == std::string::npos) {
        KELVO_ASSIGN_OR_RETURN(auto n, ParseNumberList(text, 1, "--size"));
        width = height = int64_t(n[0]);
        if (double(width) != n[0]) width = height = 0;
    } else {
        KELVO_ASSIGN_OR_RETURN(Vec2 v, ParseVec2(text, "--size"));
        width = int64_t(v.x);
        height = int64_t(v.y);
        if (double(width) != v.x || double(height) != v.y) width = 0;
    }
    return OK();
}

// Renders the swatches through the preview pipeline into one contact sheet. Exit status 1
// when a swatch failed (the sheet is still written, with the placeholder), 130 after
// Ctrl-C (with the images so far).
Result<int> RenderSwatches(const RenderOptions& o) {
    SheetOptions sheet;
    sheet.materials = o.materials;
    if (sheet.materials.empty()) sheet.materials.emplace_back(R"({"model": "lambertbrdf"})");
    sheet.scene = o.scene;
    KELVO_TRY(ReadSize(o.size, sheet.width, sheet.height));
    sheet.iterations = o.iterations;
    sheet.priority = o.priority;
    sheet.seed = o.seed;
    sheet.progress = !o.quiet && isatty(STDERR_FILENO);
    // A name no format writes, or a missing folder, is told before the swatches render.
    KELVO_ASSIGN_OR_RETURN(Url target, Url::FromText(o.output));
    if (std::filesystem::path path = host::LocalPath(target); !path.empty())
        KELVO_TRY(CheckImageOutput(path));

    KELVO_ASSIGN_OR_RETURN(SheetOutcome outcome, RenderSheet(sheet));
    KELVO_TRY(WriteSheet(o.output, outcome, sheet.width, sheet.height));
    if (o.json) {
        nlohmann::json report = SheetReport(sheet, outcome);
        report["output"] = o.output;
        std::cout << report.dump() << '\n';
    }
    for (size_t i = 0; i < outcome.swatches.size(); ++i)
        if (!outcome.swatches[i].error.empty())
            std::cerr << "kelvo: swatch " << i + 1 << " (" << outcome.swatches[i].label
                      << "): " << outcome.swatches[i].error << '\n';
    if (outcome.cancelled) {
        std::cerr << "kelvo: cancelled; the images so far are in " << o.output << '\n';
        return 130;
    }
    return outcome.failed > 0 ? 1 : 0;
}

}  // namespace

void AddPreviewCommand(CLI::App& app, Context& context, int& status) {
    auto* cmd = app.add_subcommand("preview", "Material previews");
    cmd->require_subcommand(1);

    auto o = std::make_shared<RenderOptions>();
    auto* render = cmd->add_subcommand(
        "render", "Render material swatches through the preview pipeline into a contact sheet");
    render->add_option("--material", o->materials,
                       "A material as JSON (repeat for more swatches): {\"model\": \"ggxbrdf\", "
                       "\"data\": {...}, \"colour\": [r, g, b], \"texture\": FILE, "
                       "\"textureMode\": \"mipmap\", \"ies\": FILE, \"environment\": [r, g, b], "
                       "\"space\": NODESPACE}");
    render->add_option("--scene", o->scene, "open, sphere, cube, plane or backdrop")
        ->capture_default_str();
    render->add_option("--size", o->size, "Swatch size W or W,H in pixels")->capture_default_str();
    render
        ->add_option("--iterations,--spp", o->iterations,
                     "Iterations per swatch (one sample per pixel each)")
        ->capture_default_str();
    render->add_option("--priority", o->priority,
                       "Swatch N (from 1) is a priority preview: it preempts the others");
    render->add_option("--seed", o->seed, "Random seed")->capture_default_str();
    render->add_option("-o,--output", o->output, "Image to write (.png, .exr, ...)")->required();
    render->add_flag("--quiet", o->quiet, "No live display");
    render->add_flag("--json", o->json,
                     "Print a report: time to the first and final image per swatch, preemptions");
    render->callback([&context, &status, o] {
        RunCommand(context, status, [&] { return RenderSwatches(*o); });
    });
    AddPreviewSimulateCommand(*cmd, context, status);
    AddPreviewServeCommand(*cmd, context, status);
    AddPreviewBatchCommand(*cmd, context, status);
}

}  // namespace kelvo::cli
