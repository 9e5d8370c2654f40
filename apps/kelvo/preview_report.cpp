#include "preview_sheet.h"

namespace kelvo::cli {

nlohmann::json SheetReport(const SheetOptions& options, const SheetOutcome& sheet) {
    using nlohmann::json;
    auto seconds = [](double s) { return s < 0.0 ? json(nullptr) : json(s); };
    json swatches = json::array();
    int64_t preemptions = 0;
    for (const PreviewProgress& o : sheet.swatches) {
        json s = {{"material", o.label},
                  {"iterations", o.iterations},
                  {"firstImageSeconds", seconds(o.firstImageSeconds)},
                  {"finalImageSeconds", seconds(o.finalImageSeconds)},
                  {"preemptions", o.preemptions},
                  {"rays", o.rays},
                  {"raysPerSecond", o.renderSeconds > 0.0 ? double(o.rays) / o.renderSeconds : 0.0},
                  {"intersector", o.intersector}};
        if (!o.error.empty()) {
            s["error"] = o.error;
            s["placeholder"] = o.placeholder;
        }
        preemptions += o.preemptions;
        swatches.push_back(std::move(s));
    }
    json report = {{"scene", options.scene},         {"width", options.width},
                   {"height", options.height},       {"iterations", options.iterations},
                   {"seconds", sheet.seconds},       {"cancelled", sheet.cancelled},
                   {"failed", sheet.failed},         {"preemptions", preemptions},
                   {"swatches", std::move(swatches)}};
    if (sheet.swatches.size() == 1) {
        // One swatch: the renderer's own figures at the top, as for a single render.
        const PreviewProgress& o = sheet.swatches[0];
        report["samplesPerPixel"] = o.iterations;
        report["intersector"] = o.intersector;
        report["rays"] = o.rays;
        report["raysPerSecond"] = o.renderSeconds > 0.0 ? double(o.rays) / o.renderSeconds : 0.0;
        report["secondsPerIteration"] = o.iterationSeconds;
    }
    return report;
}

}  // namespace kelvo::cli
