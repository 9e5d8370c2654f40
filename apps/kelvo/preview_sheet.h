// Material swatches rendered through the module's preview pipeline and laid out as a
// contact sheet: the requests (preview_request.h) refine round-robin on the preview queue;
// their images go side by side into one picture. Shared by kelvo preview render and kelvo
// demo.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kelvo/previewrenderer.h"
#include "kelvo/result.h"
#include "preview_request.h"

namespace kelvo::cli {

struct SheetOptions {
    // Materials as the renderer's JSON objects; a "space" member names the node space
    // (the legacy-material space when absent).
    std::vector<std::string> materials;
    int priority = 0;  // 1-based swatch submitted as a priority preview; 0: none
    std::string scene = "sphere";
    int64_t width = 128;
    int64_t height = 128;
    int64_t iterations = kPreviewDefaultIterations;
    uint64_t seed = 0;
    bool progress = false;  // live display on stderr
};

struct SheetOutcome {
    // Per swatch; a failed one holds its error and the placeholder as its image.
    std::vector<PreviewProgress> swatches;
    bool cancelled = false;  // interrupted by Ctrl-C: the images are partial
    double seconds = 0.0;
    int64_t failed = 0;
};

// The placeholder for reason, scaled into a w x h cell: the module's placeholder texture,
// or a magenta checker when no module supplies one or its icon cannot be read.
Result<nodes::PreviewImageProviderOutputImage> PlaceholderCell(const Id& reason, int64_t w,
                                                               int64_t h);

// Renders every material at once. Bad options and materials the provider refuses fail the
// whole run; a swatch whose render fails (a texture or IES file that cannot be read) keeps
// its error and the run goes on. Ctrl-C releases every request and returns what arrived.
Result<SheetOutcome> RenderSheet(const SheetOptions& options);

// The swatches side by side (about square; unused cells and swatches without an image
// black), written by the tool's picture policy.
Result<void> WriteSheet(const std::string& output, const SheetOutcome& sheet, int64_t width,
                        int64_t height);

// The run's report: per swatch the times to the first and final image and its preemptions.
nlohmann::json SheetReport(const SheetOptions& options, const SheetOutcome& sheet);

}  // namespace kelvo::cli
