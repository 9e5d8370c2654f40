// The preview image provider of legacy materials: each task renders one material swatch
// with the preview renderer, one renderer iteration (one sample per pixel) per pipeline
// iteration, and hands back the mean so far as an output image.
#pragma once

#include <cstdint>
#include <mutex>

#include "kelvo/nodes/previewimage.h"
#include "kelvo/previewmaterials.h"
#include "renderer/preview_renderer.h"

namespace kelvo::preview {

class PreviewImageTaskImpl final : public Implements<nodes::PreviewImageProviderTaskInterface> {
public:
    // Reads the request (see kelvo/previewmaterials.h). Fails with "Illegal argument: The
    // preview request has no material.", the material's JSON errors, "Illegal argument:
    // Unknown scene '@' (open, sphere, cube, plane)." and "Illegal argument: Invalid
    // iteration count @.".
    static Result<StrongRef<PreviewImageTaskImpl>> Create(const DataDictionary& request);

    // The first iteration builds the scene (loading the texture and the IES profile; their
    // errors end the task). A cancelled iteration leaves the image as it was.
    Result<void> Iterate(JobInterface& job) override;
    Result<nodes::PreviewImageIterationState> GetState() const override;
    Result<DataDictionary> GetResult() const override;

    // Public for NewObject; use Create.
    PreviewImageTaskImpl() = default;

private:
    Result<void> Advance(JobInterface& job);

    PreviewSettings _settings;
    PreviewMaterial _material;
    PreviewLight _light;
    int64_t _count = 0;
    StrongRef<void> _sharedTables;  // keeps the tables shared with the other tasks

    mutable std::mutex _lock;  // guards what GetState and GetResult read
    StrongRef<PreviewRendererImpl> _renderer;
    bool _initialised = false;
    Error _error;
    int64_t _index = -1;
    int64_t _interruptions = 0;
    nodes::PreviewImageProviderOutputImage _image;
    PreviewStatistics _statistics;
};

class PreviewImageProviderImpl final : public Implements<nodes::PreviewImageProviderInterface> {
public:
    Result<StrongRef<nodes::PreviewImageProviderTaskInterface>> CreateTask(
        const DataDictionary& request) override;
};

}  // namespace kelvo::preview
