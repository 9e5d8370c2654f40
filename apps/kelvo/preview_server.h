// kelvo preview serve: a live material editor in the browser. An HTTP server (cpp-httplib)
// hands out one page and a small JSON API; each browser tab is a client with a stream of
// server-sent events over which the refining images of its swatches arrive.
//
//   GET  /, /app.js, /style.css   the page (from resources/serve/)
//   GET  /api/models              every legacy model with the data keys it reads (the page
//                                 builds its controls from this), scenes, texture modes, limits
//   GET  /api/files               textures and IES profiles under --root
//   GET  /api/events              the client's stream: "hello" (its id), "frame", "end"
//   POST /api/render              {client, slot, material, scene, size, iterations, priority}
//                                 submits a request into the slot, releasing the one it replaces
//   POST /api/release             {client, slot}: releases the slot's request
//   GET  /api/stats               counters: clients, requests by state, frames
//
// A client whose stream closes (a closed tab) releases all its requests. Memory is bounded:
// a client holds at most one unsent frame per slot (a newer one replaces it), a bounded
// number of slots and pixels, and the number of clients is bounded.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "kelvo/result.h"
#include "serve_files.h"

namespace kelvo::cli {

struct ServeOptions {
    std::string host = "127.0.0.1";
    int port = 8080;                          // 0: any free port
    std::filesystem::path root;               // textures and IES profiles; empty: none
    std::filesystem::path pageFolder;         // index.html, app.js, style.css
    size_t maxClients = 32;                   // streams open at once
    size_t maxBodyBytes = 64 * 1024;          // a POST body
    size_t maxJsonDepth = 16;                 // nesting of a POST body
    size_t maxSlots = 16;                     // requests a client keeps at once (editor + sheet)
    int64_t maxSide = 512;                    // swatch width and height
    int64_t maxClientPixels = 512 * 512 * 2;  // pixels of all a client's requests together
    int64_t maxIterations = 4096;
    std::chrono::milliseconds keepAlive{500};  // a comment on an idle stream; finds closed tabs
};

// What /api/stats reports. Every submitted request ends exactly once: completed (its last
// image delivered), failed (an error delivered) or released (replaced, released or its
// client gone before that).
struct ServeStatistics {
    int64_t clients = 0;
    int64_t submitted = 0;
    int64_t completed = 0;
    int64_t failed = 0;
    int64_t released = 0;
    int64_t active = 0;           // submitted and not ended
    int64_t alive = 0;            // request records still held (leak check: 0 when idle)
    int64_t framesDelivered = 0;  // images the pipeline delivered to a current slot
    int64_t framesSent = 0;
    int64_t framesReplaced = 0;  // unsent images replaced by a newer one of the same slot
    int64_t pendingFrames = 0;   // images waiting for their stream now
    int64_t bytesSent = 0;
    double lastFirstFrameMs = -1.0;  // submit to first image written to its stream

    nlohmann::json ToJson() const;
};

class PreviewServer {
public:
    // Checks the options (the page folder must hold the page; --root must exist).
    static Result<std::unique_ptr<PreviewServer>> Create(const ServeOptions& options);
    ~PreviewServer();
    PreviewServer(const PreviewServer&) = delete;
    PreviewServer& operator=(const PreviewServer&) = delete;

    // Binds the address and serves on a thread of its own; returns the port.
    Result<int> Start();
    // Closes every stream, releases every request and stops. Idempotent.
    void Stop();
    ServeStatistics Statistics() const;

    // The models and their data keys, as /api/models answers (also for tests).
    static nlohmann::json ModelsJson(const ServeOptions& options);

    class Impl;

private:
    explicit PreviewServer(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> _impl;
};

}  // namespace kelvo::cli
