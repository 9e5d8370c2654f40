#include "previewimage/previewimage_provider.h"

#include <mutex>
#include <string>

#include "kelvo/registry.h"
#include "previewimage/material_json.h"

namespace kelvo::preview {

using nodes::PREVIEWIMAGEREQUEST::ITERATIONCOUNT;

namespace {

// One caches object for every task alive at the same time: a sheet of swatches fills the
// distribution tables once instead of once per swatch. Freed with the last task holding it.
// The holder is this module's own object: the static reference to it must not reach into
// the render module's code when this library is closed (the render module may be gone).
struct SharedTables {
    StrongRef<MicrofacetDistributionCachesInterface> caches;
};

Result<StrongRef<MicrofacetDistributionCachesInterface>> SharedCaches(StrongRef<void>& holder) {
    static std::mutex lock;
    static WeakRef<SharedTables> shared;
    std::lock_guard guard(lock);
    std::shared_ptr<SharedTables> tables = shared.lock();
    if (!tables) {
        KELVO_ASSIGN_OR_RETURN(StrongRef<MicrofacetDistributionCachesInterface> caches,
                               CreateComponent<MicrofacetDistributionCachesInterface>());
        KELVO_TRY(caches->Alloc());
        caches->Init();
        tables = std::make_shared<SharedTables>(SharedTables{std::move(caches)});
        shared = tables;
    }
    holder = tables;
    return tables->caches;
}
}  // namespace

Result<StrongRef<PreviewImageTaskImpl>> PreviewImageTaskImpl::Create(
    const DataDictionary& request) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageTaskImpl> task, NewObject<PreviewImageTaskImpl>());
    const Data* subject = request.Find(nodes::PREVIEWIMAGEREQUEST::SUBJECT);
    const std::string* json = subject ? subject->Get<std::string>() : nullptr;
    if (!json) return IllegalArgumentError(KELVO_HERE, "The preview request has no material.");
    KELVO_TRY(ReadMaterialJson(*json, task->_material, task->_light, task->_settings.environment));

    const std::string scene = request.Get<std::string>(
        nodes::PREVIEWIMAGEREQUEST::SCENETYPE, std::string(PreviewSceneName(PREVIEWSCENE::SPHERE)));
    if (!ParsePreviewScene(scene, task->_settings.scene))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    scene);
    const int64_t count = request.Get<int64_t>(ITERATIONCOUNT, kPreviewDefaultIterations);
    if (count < 1 || count > kPreviewMaxIterations)
        return IllegalArgumentError(KELVO_HERE, "Invalid iteration count @.", count);
    task->_count = count;
    // The pipeline has checked the size; the renderer checks its own range.
    const Vec2 size = request.Get<Vec2>(nodes::PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{128, 128});
    task->_settings.width = int64_t(size.x);
    task->_settings.height = int64_t(size.y);
    task->_settings.seed = uint64_t(request.Get<int64_t>(PREVIEWPROVIDERREQUEST::SEED, 0));
    KELVO_ASSIGN_OR_RETURN(task->_renderer, NewObject<PreviewRendererImpl>());
    return task;
}

Result<void> PreviewImageTaskImpl::Iterate(JobInterface& job) {
    Result<void> advanced = CatchOutOfMemory([&] { return Advance(job); });
    if (!advanced) {
        std::lock_guard lock(_lock);
        _error = advanced.GetError();
    }
    return OK();  // the error, if any, is the task's state
}

Result<void> PreviewImageTaskImpl::Advance(JobInterface& job) {
    {
        std::lock_guard lock(_lock);
        if (_error || _index + 1 >= _count) return OK();
    }
    if (!_initialised) {
        KELVO_ASSIGN_OR_RETURN(_settings.caches, SharedCaches(_sharedTables));
        KELVO_TRY(_renderer->Init(_settings, _material, _light));
        _initialised = true;
    }
    auto cancelled = [&job] { return job.IsCancelled(); };
    Result<void> ran = cancelled() ? Result<void>(OK()) : _renderer->RenderIteration(cancelled);
    if (cancelled()) {
        // Preempted or cancelled: the image stays as it was, the iteration runs again later.
        std::lock_guard lock(_lock);
        ++_interruptions;
        return OK();
    }
    KELVO_TRY(ran);

    // A new buffer each time: the requester may still hold the last one. The renderer
    // writes the delivered form itself, so the image is converted once on its way out.
    const int64_t w = _settings.width, h = _settings.height;
    KELVO_ASSIGN_OR_RETURN(StrongRef<nodes::PreviewImageSamples> samples,
                           NewObject<nodes::PreviewImageSamples>());
    samples->resize(size_t(w * h));
    KELVO_TRY(_renderer->GetImage(std::span<Col4f>(*samples)));

    std::lock_guard lock(_lock);
    ++_index;
    _image = {w, h, std::move(samples), _index + 1 == _count};
    _statistics = _renderer->GetStatistics();
    return OK();
}

Result<nodes::PreviewImageIterationState> PreviewImageTaskImpl::GetState() const {
    std::lock_guard lock(_lock);
    if (_error) return _error;
    return nodes::PreviewImageIterationState{_index, _count};
}

Result<DataDictionary> PreviewImageTaskImpl::GetResult() const {
    std::lock_guard lock(_lock);
    DataDictionary result;
    if (_index < 0) return result;
    KELVO_ASSIGN_OR_RETURN(Data image, nodes::MakeOutputImageData(_image));
    KELVO_TRY(result.Set(PREVIEWRESULT::IMAGE, std::move(image)));
    KELVO_TRY(result.Set(PREVIEWRESULT::RAYS, _statistics.rays));
    KELVO_TRY(result.Set(PREVIEWRESULT::SECONDS, _statistics.seconds));
    KELVO_TRY(result.Set(PREVIEWRESULT::ITERATIONSECONDS, _statistics.lastIterationSeconds));
    KELVO_TRY(result.Set(PREVIEWRESULT::INTERSECTOR, _statistics.intersector));
    KELVO_TRY(result.Set(PREVIEWRESULT::INTERRUPTIONS, _interruptions));
    return result;
}

Result<StrongRef<nodes::PreviewImageProviderTaskInterface>> PreviewImageProviderImpl::CreateTask(
    const DataDictionary& request) {
    KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageTaskImpl> task,
                           PreviewImageTaskImpl::Create(request));
    return StrongRef<nodes::PreviewImageProviderTaskInterface>(std::move(task));
}

}  // namespace kelvo::preview
