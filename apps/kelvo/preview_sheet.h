// Material swatches rendered through the module's preview pipeline: each material goes to
// its node space, whose configure function fills a preview image request; the requests
// refine round-robin on the preview queue and their images are laid out as a contact
// sheet. Shared by kelvo preview render and kelvo demo.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kelvo/result.h"

namespace kelvo::cli {

struct SheetOptions {
    // Materials as the renderer's JSON objects; a "space" member names the node space
    // (the legacy-material space when absent).
    std::vector<std::string> materials;
    int priority = 0;  // 1-based swatch submitted as a priority preview; 0: none
    std::string scene = "sphere";
    int64_t width = 128;
    int64_t height = 128;
    int64_t iterations = 16;
    uint64_t seed = 0;
    bool progress = false;  // live display on stderr
};

struct SwatchOutcome {
    std::string label;  // the model's name
    std::string error;  // why the swatch failed; its cell shows the placeholder
    std::string placeholder;
    int64_t iterations = 0;  // images delivered
    int64_t count = 0;
    double firstImageSeconds = -1.0;  // from the start of the run; -1: none
    double finalImageSeconds = -1.0;
    int64_t preemptions = 0;
    int64_t rays = 0;
    double renderSeconds = 0.0;
    std::string intersector;
    std::vector<double> iterationSeconds;
    std::vector<float> rgb;  // the last image, width x height x 3 (empty: none arrived)
};

struct SheetOutcome {
    std::vector<SwatchOutcome> swatches;
    bool cancelled = false;  // interrupted by Ctrl-C: the images are partial
    double seconds = 0.0;
    int64_t failed = 0;
};

// Renders every material at once. Bad options and materials the provider refuses fail the
// whole run; a swatch whose render fails (a texture or IES file that cannot be read) keeps
// its error and the run goes on. Ctrl-C releases every request and returns what arrived.
Result<SheetOutcome> RenderSheet(const SheetOptions& options);

// The swatches side by side (about square; unused cells black), failed ones as the
// placeholder. PNG and the like in sRGB, EXR in linear light; written to a temporary file
// renamed into place.
Result<void> WriteSheet(const std::filesystem::path& output, const SheetOutcome& sheet,
                        int64_t width, int64_t height);

// rgb (w x h x 3, linear light) as the output's format: EXR keeps linear floats, the
// others get 8-bit sRGB; written to a temporary file renamed into place.
Result<void> WriteLinearImage(const std::filesystem::path& output, const std::vector<float>& rgb,
                              int64_t w, int64_t h);

// The run's report: per swatch the times to the first and final image and its preemptions.
nlohmann::json SheetReport(const SheetOptions& options, const SheetOutcome& sheet);

}  // namespace kelvo::cli
