// kelvo preview batch: a thumbnail and a sidecar per material of a library, rendered
// through the preview pipeline with several materials in flight, resumable (complete
// thumbnails are skipped by their sidecar's hash) and shardable by line index, so that a
// studio's scheduler spreads a library over machines that share the output folder.
#pragma once

#include <cstdint>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "batch_library.h"
#include "kelvo/result.h"

namespace kelvo::cli {

struct BatchOptions {
    std::filesystem::path library;
    std::filesystem::path out;
    batch::Settings settings;
    batch::Shard shard;
    int64_t jobs = 0;       // materials in flight; 0: enough to keep every host thread busy
    bool progress = false;  // a progress bar on stderr
    bool report = true;     // each failed line on stderr as it fails
};

struct BatchItem {
    int64_t line = 0;  // from 1
    std::string name;
    std::string status;  // "rendered", "skipped" (complete already) or "failed"
    std::string error;
    double seconds = 0.0;  // wall time of the render, waiting in the pipeline included
};

struct BatchOutcome {
    std::vector<BatchItem> items;  // in line order
    int64_t rendered = 0;
    int64_t skipped = 0;
    int64_t failed = 0;
    double seconds = 0.0;
    int signal = 0;  // SIGINT or SIGTERM that stopped the run; 0: it ran to the end
};

// Renders the shard's lines of the library into options.out (created when missing). Fails
// only for bad options, an unreadable library or an output folder that cannot be made; a
// bad line or a failed render is an item with its error (and, where the line's name is
// safe and its own, the placeholder picture and a sidecar with the error).
Result<BatchOutcome> RunBatch(const BatchOptions& options);

// What --json prints: the run's counts, rate and every item.
nlohmann::json BatchSummary(const BatchOptions& options, const BatchOutcome& outcome);

}  // namespace kelvo::cli
