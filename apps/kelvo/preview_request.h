// Material previews as a requester of the module's preview pipeline makes them. The steps,
// for one material or many:
//
//   KELVO_ASSIGN_OR_RETURN(PreviewMaterialInput m, ParsePreviewMaterial(text));
//   auto inbox = std::make_shared<PreviewInbox>();
//   const size_t slot = inbox->Add(m.label, settings.iterations);
//   KELVO_ASSIGN_OR_RETURN(auto request, BuildPreviewRequest(m, settings, inbox->Receiver(slot)));
//   if (!request) inbox->Fail(slot, NoNodeSpaceMessage(m.space), nodes::kPlaceholderNoSpace);
//   else { inbox->MarkSubmitted(slot); KELVO_TRY(request->Submit()); }
//   while (!inbox->Get(slot).done) inbox->Wait();   // sleeps until a delivery
//   request->Reset();                              // no delivery after this returns
//   KELVO_TRY(WritePicture("out.png", ImageView(inbox->Get(slot).image)));
//
// Contract:
// - Settings are checked by CheckPreviewSettings (BuildPreviewRequest checks them too).
// - Deliveries arrive on preview queue threads; the inbox keeps the latest image of each
//   slot (its samples shared with the pipeline: read-only) and the figures of the run, and
//   posts its Wakeup once per delivery. Wait sleeps until then; an InterruptGuard given
//   the inbox's Wakeup ends the sleep on Ctrl-C as well.
// - Priority: settings.priority submits a priority preview, which preempts normal ones.
// - Release every request (Reset) before the inbox's last holder goes; the receivers hold
//   the inbox, so a late delivery never meets a freed one.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "interrupt.h"
#include "kelvo/data.h"
#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewrenderer.h"
#include "kelvo/result.h"
#include "picture_writer.h"

namespace kelvo::cli {

// A material as the tool takes it: the renderer's JSON object, whose "space" member names
// the node space (the legacy-material space when absent).
struct PreviewMaterialInput {
    std::string label;  // the model's last word ("lambertbrdf" when none is named)
    Id space;
    DataDictionary material;  // what the space's configure function reads
};

// Reads a material. Fails with "Illegal argument: --material must be a JSON object." and
// "space must be a string.".
Result<PreviewMaterialInput> ParsePreviewMaterial(std::string_view text);

struct PreviewRequestSettings {
    int64_t width = 128;
    int64_t height = 128;
    std::string scene = "sphere";
    int64_t iterations = kPreviewDefaultIterations;
    uint64_t seed = 0;
    bool priority = false;  // a priority preview: preempts the normal ones
};

// Fails with "Illegal argument: Preview size @ x @ is out of range.", "Illegal argument:
// Unknown scene '@' (open, sphere, cube, plane)." and "Illegal argument: --iterations must
// be an integer from 1 to @.".
Result<void> CheckPreviewSettings(const PreviewRequestSettings& settings);

// The error of a material whose node space no module registers: "Illegal argument: Node
// space @ not found.".
std::string NoNodeSpaceMessage(const Id& space);

// A request for the material, filled by its node space's configure function, delivering
// to onResult. Null (and no error) when no module registers the material's node space;
// "Illegal state: The node space @ makes no previews." for a space without a configure
// function; the settings' and the configure function's errors.
Result<StrongRef<nodes::PreviewImageRequestInterface>> BuildPreviewRequest(
    const PreviewMaterialInput& material, const PreviewRequestSettings& settings,
    nodes::PreviewImageResultFunction onResult);

// What has arrived for one request.
struct PreviewProgress {
    std::string label;
    std::string error;        // why the preview failed
    std::string placeholder;  // the placeholder reason to show instead (an id)
    bool done = false;        // nothing more will arrive
    int64_t iterations = 0;   // images delivered
    int64_t count = 0;
    double submitted = -1.0;  // seconds from the inbox's start; -1: not yet
    double firstImageSeconds = -1.0;
    double finalImageSeconds = -1.0;
    int64_t preemptions = 0;
    int64_t rays = 0;
    double renderSeconds = 0.0;
    std::string intersector;
    std::vector<double> iterationSeconds;
    nodes::PreviewImageProviderOutputImage image;  // the latest; no samples before the first
};

// The image's pixels for WritePicture (linear RGBA floats).
PictureView ImageView(const nodes::PreviewImageProviderOutputImage& image);

class PreviewInbox : public std::enable_shared_from_this<PreviewInbox> {
public:
    using Clock = std::chrono::steady_clock;
    PreviewInbox() : _start(Clock::now()) {}

    // A new slot for a request of `count` iterations; its index.
    size_t Add(std::string label, int64_t count);
    // The result callback of the slot's request. The inbox must be held by a shared_ptr.
    nodes::PreviewImageResultFunction Receiver(size_t slot);
    void MarkSubmitted(size_t slot);
    // Ends the slot without a request.
    void Fail(size_t slot, std::string error, const Id& placeholder);

    PreviewProgress Get(size_t slot) const;
    std::vector<PreviewProgress> GetAll() const;
    size_t Size() const;
    double Seconds() const;  // since the inbox was made

    // Sleeps until a delivery since the last Wait (or a Post of GetWakeup()).
    void Wait() { _wake.Wait(); }
    Wakeup& GetWakeup() { return _wake; }

private:
    void Record(size_t slot, const Result<DataDictionary>& result);

    const Clock::time_point _start;
    mutable std::mutex _lock;
    std::deque<PreviewProgress> _slots;  // stable addresses while slots are added
    Wakeup _wake;
};

}  // namespace kelvo::cli
