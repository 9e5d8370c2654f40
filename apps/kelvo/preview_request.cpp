#include "preview_request.h"

#include <nlohmann/json.hpp>
#include <utility>

#include "cli_common.h"
#include "kelvo/nodes/nodespace.h"
#include "kelvo/previewmaterials.h"
#include "kelvo/registry.h"

namespace kelvo::cli {
namespace {

namespace REQUEST = nodes::PREVIEWIMAGEREQUEST;

// The configure function of a registered node space.
Result<StrongRef<nodes::ConfigurePreviewImageRequestInterface>> FindConfigure(const Id& id) {
    KELVO_ASSIGN_OR_RETURN(auto helpers, CreateComponent<nodes::NodeSpaceHelpersInterface>());
    KELVO_ASSIGN_OR_RETURN(StrongRef<nodes::NodeSpaceInterface> space, helpers->FindNodeSpace(id));
    StrongRef<const DataDictionary> description = space->GetDescription();
    const Data* d = description
                        ? description->Find(nodes::NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC)
                        : nullptr;
    const StrongRef<Object>* o = d ? d->Get<StrongRef<Object>>() : nullptr;
    StrongRef<nodes::ConfigurePreviewImageRequestInterface> configure =
        o ? Query<nodes::ConfigurePreviewImageRequestInterface>(*o) : nullptr;
    if (!configure) return IllegalStateError(KELVO_HERE, "The node space @ makes no previews.", id);
    return configure;
}

}  // namespace

Result<PreviewMaterialInput> ParsePreviewMaterial(std::string_view text) {
    using nlohmann::json;
    json j = json::parse(text, nullptr, false);
    if (j.is_discarded() || !j.is_object())
        return IllegalArgumentError(KELVO_HERE, "--material must be a JSON object.");
    PreviewMaterialInput out;
    std::string space(kLegacyMaterialNodeSpace.Text());
    if (j.contains("space")) {
        KELVO_ASSIGN_OR_RETURN(space, ReadString(j["space"], "space"));
        j.erase("space");
    }
    KELVO_ASSIGN_OR_RETURN(out.space, Id::FromText(space));
    std::string label = "lambertbrdf";
    if (j.contains("model") && j["model"].is_string()) label = j["model"].get<std::string>();
    out.label = label.substr(label.rfind('.') + 1);
    KELVO_TRY(out.material.Set(PREVIEWMATERIAL::JSON, j.dump()));
    return out;
}

Result<void> CheckPreviewSettings(const PreviewRequestSettings& s) {
    if (s.width < 1 || s.height < 1 || s.width > kPreviewMaxSide || s.height > kPreviewMaxSide)
        return IllegalArgumentError(KELVO_HERE, "Preview size @ x @ is out of range.", s.width,
                                    s.height);
    PREVIEWSCENE scene;
    if (!ParsePreviewScene(s.scene, scene))
        return IllegalArgumentError(KELVO_HERE, "Unknown scene '@' (open, sphere, cube, plane).",
                                    s.scene);
    if (s.iterations < 1 || s.iterations > kPreviewMaxIterations)
        return IllegalArgumentError(KELVO_HERE, "--iterations must be an integer from 1 to @.",
                                    kPreviewMaxIterations);
    return OK();
}

std::string NoNodeSpaceMessage(const Id& space) {
    return FormatMessage("Illegal argument: Node space @ not found.", space);
}

Result<StrongRef<nodes::PreviewImageRequestInterface>> BuildPreviewRequest(
    const PreviewMaterialInput& material, const PreviewRequestSettings& settings,
    nodes::PreviewImageResultFunction onResult) {
    KELVO_TRY(CheckPreviewSettings(settings));
    if (!nodes::IsNodeSpaceRegistered(material.space))
        return StrongRef<nodes::PreviewImageRequestInterface>();
    KELVO_ASSIGN_OR_RETURN(auto configure, FindConfigure(material.space));
    KELVO_ASSIGN_OR_RETURN(auto request, nodes::CreatePreviewImageRequest());
    DataDictionary& data = *request->GetData();
    KELVO_ASSIGN_OR_RETURN(Data callback, nodes::MakeResultCompleteFunc(std::move(onResult)));
    KELVO_TRY(data.Set(REQUEST::RESULTCOMPLETEFUNC, std::move(callback)));
    KELVO_TRY(
        data.Set(REQUEST::TEXTURESIZE, Vec2{double(settings.width), double(settings.height)}));
    KELVO_TRY(data.Set(REQUEST::ITERATIONCOUNT, settings.iterations));
    KELVO_TRY(data.Set(REQUEST::SCENETYPE, settings.scene));
    KELVO_TRY(data.Set(PREVIEWPROVIDERREQUEST::SEED, int64_t(settings.seed)));
    KELVO_TRY(data.Set(REQUEST::PURPOSE,
                       int64_t(settings.priority ? nodes::PREVIEWIMAGEPURPOSE::PRIORITY
                                                 : nodes::PREVIEWIMAGEPURPOSE::NORMAL)));
    KELVO_TRY(configure->Configure(material.material, data));
    return request;
}

PictureView ImageView(const nodes::PreviewImageProviderOutputImage& image) {
    return PictureView::Of(image.width, image.height, kPixelRgba32f,
                           image.samples ? image.samples->data() : nullptr);
}

size_t PreviewInbox::Add(std::string label, int64_t count) {
    std::lock_guard lock(_lock);
    PreviewProgress& p = _slots.emplace_back();
    p.label = std::move(label);
    p.count = count;
    return _slots.size() - 1;
}

nodes::PreviewImageResultFunction PreviewInbox::Receiver(size_t slot) {
    return [inbox = shared_from_this(), slot](const Result<DataDictionary>& result) {
        inbox->Record(slot, result);
    };
}

void PreviewInbox::MarkSubmitted(size_t slot) {
    std::lock_guard lock(_lock);
    _slots[slot].submitted = Seconds();
}

void PreviewInbox::Fail(size_t slot, std::string error, const Id& placeholder) {
    {
        std::lock_guard lock(_lock);
        PreviewProgress& p = _slots[slot];
        p.error = std::move(error);
        p.placeholder = std::string(placeholder.Text());
        p.done = true;
    }
    _wake.Post();
}

void PreviewInbox::Record(size_t slot, const Result<DataDictionary>& result) {
    const double now = Seconds();
    {
        std::lock_guard lock(_lock);
        PreviewProgress& p = _slots[slot];
        if (!result) {
            p.error = result.GetError().Message();
            p.done = true;
        } else {
            const DataDictionary& r = *result;
            if (const Data* d = r.Find(PREVIEWRESULT::IMAGE))
                if (const auto* image = nodes::GetOutputImage(*d))
                    if (image->samples &&
                        int64_t(image->samples->size()) == image->width * image->height)
                        p.image = *image;  // shares the samples
            p.iterations = r.Get<int64_t>(REQUEST::ITERATIONINDEX, -1) + 1;
            p.count = r.Get<int64_t>(REQUEST::ITERATIONCOUNT, 0);
            if (p.firstImageSeconds < 0.0) p.firstImageSeconds = now;
            p.rays = r.Get<int64_t>(PREVIEWRESULT::RAYS, 0);
            p.renderSeconds = r.Get<double>(PREVIEWRESULT::SECONDS, 0.0);
            p.intersector = r.Get<std::string>(PREVIEWRESULT::INTERSECTOR, std::string());
            p.preemptions = r.Get<int64_t>(PREVIEWRESULT::INTERRUPTIONS, 0);
            p.iterationSeconds.push_back(r.Get<double>(PREVIEWRESULT::ITERATIONSECONDS, 0.0));
            if (p.iterations >= p.count) {
                p.finalImageSeconds = now;
                p.done = true;
            }
        }
    }
    _wake.Post();
}

PreviewProgress PreviewInbox::Get(size_t slot) const {
    std::lock_guard lock(_lock);
    return _slots[slot];
}

std::vector<PreviewProgress> PreviewInbox::GetAll() const {
    std::lock_guard lock(_lock);
    return std::vector<PreviewProgress>(_slots.begin(), _slots.end());
}

size_t PreviewInbox::Size() const {
    std::lock_guard lock(_lock);
    return _slots.size();
}

double PreviewInbox::Seconds() const {
    return std::chrono::duration<double>(Clock::now() - _start).count();
}

}  // namespace kelvo::cli
