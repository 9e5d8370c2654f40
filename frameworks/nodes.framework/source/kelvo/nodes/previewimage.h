// Preview images of node materials, refined in the background iteration by iteration.
//
// A caller fills a preview image request (class net.kelvo.nodes.class.previewimagerequest)
// with the attributes below, usually through its node space's configure function, and
// submits it. The preview then runs on the host's "Preview Image Queue": the request's
// provider makes a task, each iteration of the task is one job, and every iteration that
// advances the image is delivered to the request's result callback, on the job thread that
// ended it. The preview keeps refining while the request (or a copy of it) lives; releasing
// the last holder cancels it, and no result is delivered after that has returned.
//
// Providers are classes of net.kelvo.nodes.registry.previewimageproviders (kind
// PreviewImageProviderInterface). Naming a provider by its class id lets the host stop the
// provider's tasks before the module that registered it is unloaded; a provider handed
// over as an object must outlive its tasks.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/data.h"
#include "kelvo/jobs.h"
#include "kelvo/object.h"
#include "kelvo/registry.h"
#include "kelvo/result.h"
#include "kelvo/vec.h"

namespace kelvo::nodes {

inline constexpr Id kPreviewImageProvidersRegistry(
    "net.kelvo.nodes.registry.previewimageproviders");
inline constexpr Id kPreviewImageRequestClass("net.kelvo.nodes.class.previewimagerequest");
inline constexpr Id kPreviewImageOutputImageDataType(
    "net.kelvo.nodes.datatype.previewimageprovideroutputimage");
inline constexpr Id kPreviewImageCustomRequestCallbacksDataType(
    "net.kelvo.nodes.previewimagerequest.datatype.customrequestcallbacks");
// The job name of one iteration, and the queue the iterations run on.
inline constexpr const char* kPreviewImageIterationJobName = "PreviewImageTaskIteration";
inline constexpr const char* kPreviewImageQueueName = "Preview Image Queue";

// Request attributes (value types as noted).
namespace PREVIEWIMAGEREQUEST {
// int64 PREVIEWIMAGEPURPOSE; PRIORITY makes a priority request, anything else is normal.
inline constexpr Id PURPOSE("net.kelvo.nodes.previewimagerequest.purpose");
// Object implementing PreviewImageResultCompleteFuncInterface; required.
inline constexpr Id RESULTCOMPLETEFUNC("net.kelvo.nodes.previewimagerequest.resultcompletefunc");
// Vec2 (width, height), each a whole number of at least 1.
inline constexpr Id TEXTURESIZE("net.kelvo.nodes.previewimagerequest.texturesize");
// bool: scale every delivered image to TEXTURESIZE.
inline constexpr Id UPSCALEPROGRESSION("net.kelvo.nodes.previewimagerequest.upscaleprogression");
// bool: deliver images with their rows reversed.
inline constexpr Id FLIPVERTICALLY("net.kelvo.nodes.previewimagerequest.flipvertically");
// Id of a provider class, or an object implementing PreviewImageProviderInterface.
inline constexpr Id PROVIDER("net.kelvo.nodes.previewimagerequest.provider");
// int64, written into every delivered result: the iteration and the iteration count.
inline constexpr Id ITERATIONINDEX("net.kelvo.nodes.previewimagerequest.iterationindex");
inline constexpr Id ITERATIONCOUNT("net.kelvo.nodes.previewimagerequest.iterationcount");
// Read by providers only.
inline constexpr Id RESULTCOMPLETEWAIT("net.kelvo.nodes.previewimagerequest.resultcompletewait");
inline constexpr Id PROGRESSIONTHRESHOLD(
    "net.kelvo.nodes.previewimagerequest.progressionthreshold");
inline constexpr Id SUBJECT("net.kelvo.nodes.previewimagerequest.subject");
inline constexpr Id SUBJECTCUSTOMGRAPHFUNC(
    "net.kelvo.nodes.previewimagerequest.subjectcustomgraphfunc");
// PreviewImageCustomRequestCallbacks value.
inline constexpr Id CUSTOMSUBJECTHANDLERCALLBACKS(
    "net.kelvo.nodes.previewimagerequest.customsubjecthandlercallbacks");
inline constexpr Id SCENETYPE("net.kelvo.nodes.previewimagerequest.scenetype");
inline constexpr Id TEXTUREIDS("net.kelvo.nodes.previewimagerequest.textureids");
inline constexpr Id URANGE("net.kelvo.nodes.previewimagerequest.urange");
inline constexpr Id VRANGE("net.kelvo.nodes.previewimagerequest.vrange");
// Id: one of the INTENT_ values.
inline constexpr Id INTENT("net.kelvo.nodes.previewimagerequest.intent");
inline constexpr Id INTENT_NODE2D("net.kelvo.nodes.previewimagerequest.intent_node2d");
inline constexpr Id INTENT_MATERIALEXCHANGE(
    "net.kelvo.nodes.previewimagerequest.intent_materialexchange");
inline constexpr Id INTENT_GRADIENTBAR("net.kelvo.nodes.previewimagerequest.intent_gradientbar");
}  // namespace PREVIEWIMAGEREQUEST

enum class PREVIEWIMAGEPURPOSE : int32_t {
    NORMAL = 0,
    PRIORITY = 1,  // shown now (the swatch being edited): preempts normal previews
};

// --- Output images ---------------------------------------------------------------------------

// Samples of a preview image: width × height linear RGBA colours, row by row, top row first.
using PreviewImageSamples = std::vector<Col4f, Allocator<Col4f>>;

// One image of a result (data type net.kelvo.nodes.datatype.previewimageprovideroutputimage).
// Delivered images may share their samples with the provider: treat them as read-only.
struct PreviewImageProviderOutputImage {
    int64_t width = 0;
    int64_t height = 0;
    StrongRef<PreviewImageSamples> samples;
    // The image is final: later iterations will not change it (set by the provider).
    bool isFinal = false;

    bool operator==(const PreviewImageProviderOutputImage& o) const {
        return width == o.width && height == o.height && samples == o.samples &&
               isFinal == o.isFinal;
    }
};

// A dictionary value holding image. Fails with "Illegal state: Data type @ is not
// registered." while no module has registered the output-image type.
inline Result<Data> MakeOutputImageData(const PreviewImageProviderOutputImage& image) {
    const DataType* type = FindDataType(kPreviewImageOutputImageDataType);
    if (!type)
        return IllegalStateError(KELVO_HERE, "Data type @ is not registered.",
                                 kPreviewImageOutputImageDataType);
    Data d = Data::Custom(type, &image);
    if (d.IsEmpty()) return Error::OutOfMemory();
    return d;
}
// The output image held by data, or nullptr.
inline const PreviewImageProviderOutputImage* GetOutputImage(const Data& data) {
    return data.GetCustom<PreviewImageProviderOutputImage>(kPreviewImageOutputImageDataType);
}

// Caller-defined callbacks that travel in a request for the provider (data type
// net.kelvo.nodes.previewimagerequest.datatype.customrequestcallbacks). The host stores and
// copies them without calling them.
struct PreviewImageCustomRequestCallbacks {
    using Callback = std::function<Result<void>(const DataDictionary& in, DataDictionary& out)>;
    std::vector<std::pair<Id, Callback>> callbacks;  // by the provider's own ids

    bool operator==(const PreviewImageCustomRequestCallbacks& o) const {
        if (callbacks.size() != o.callbacks.size()) return false;
        for (size_t i = 0; i < callbacks.size(); ++i)
            if (!(callbacks[i].first == o.callbacks[i].first)) return false;
        return true;
    }
};

// --- Result callback -------------------------------------------------------------------------

// The requester's result callback. Called on a preview queue thread, never twice at once
// for one request: with an error (the preview ends), or with a result dictionary holding
// the output images by the provider's keys plus ITERATIONINDEX and ITERATIONCOUNT.
class PreviewImageResultCompleteFuncInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.nodes.interface.previewimageresultcompletefunc");
    }
    virtual void Call(const Result<DataDictionary>& result) = 0;
};

using PreviewImageResultFunction = std::function<void(const Result<DataDictionary>& result)>;

namespace detail {
class ResultCompleteFunc final : public Implements<PreviewImageResultCompleteFuncInterface> {
public:
    explicit ResultCompleteFunc(PreviewImageResultFunction f) : _f(std::move(f)) {}
    void Call(const Result<DataDictionary>& result) override { _f(result); }

private:
    PreviewImageResultFunction _f;
};
}  // namespace detail

// A RESULTCOMPLETEFUNC value calling f (which captures whatever context it needs).
inline Result<Data> MakeResultCompleteFunc(PreviewImageResultFunction f) {
    KELVO_ASSIGN_OR_RETURN(auto made, NewObject<detail::ResultCompleteFunc>(std::move(f)));
    return Data(StrongRef<Object>(std::move(made)));
}

// --- Providers and their tasks ---------------------------------------------------------------

// What a task has done so far: the index of its last finished iteration (-1 before the
// first) and how many iterations it makes in all.
struct PreviewImageIterationState {
    int64_t index = -1;
    int64_t count = -1;
};

// The work of one preview. Iterations of one task never overlap; GetState and GetResult
// are called after an iteration has ended, on the thread that ended it.
class PreviewImageProviderTaskInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.nodes.interface.previewimageprovidertask");
    }
    // Computes the next iteration, as the work of one job of the preview queue. It should
    // look at job.IsCancelled() now and then and return early when it is set: the preview
    // was preempted (the same iteration runs again later) or cancelled.
    virtual Result<void> Iterate(JobInterface& job) = 0;
    // The task's error, if it failed, else its state.
    virtual Result<PreviewImageIterationState> GetState() const = 0;
    // The output of the last finished iteration: output images (MakeOutputImageData) under
    // keys of the provider's choice.
    virtual Result<DataDictionary> GetResult() const = 0;
};

class PreviewImageProviderInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.nodes.interface.previewimageprovider");
    }
    // Makes the task of a submitted request, on the submitting thread. Its error is the
    // error of the submission.
    virtual Result<StrongRef<PreviewImageProviderTaskInterface>> CreateTask(
        const DataDictionary& request) = 0;
};

// --- Requests --------------------------------------------------------------------------------

class PreviewImageRequestInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.nodes.interface.previewimagerequest");
    }

    // The request's attributes; fill them before Submit. Copies share the dictionary.
    virtual StrongRef<DataDictionary> GetData() const = 0;
    // Cancels the preview this request held, then submits the attributes as a new preview
    // (a priority one when PURPOSE is PRIORITY). Fails with "Illegal state: Invalid
    // Preview Image Scheduler" when no scheduler runs, with "Illegal argument: Invalid
    // ResultCompleteFunc()" or "Illegal argument: Invalid Image Size" for bad attributes,
    // and with the provider's error; after a failure the request holds no preview.
    virtual Result<void> Submit() = 0;
    // A new request sharing this one's attributes and preview: the preview is cancelled
    // only when every copy has been reset or released.
    virtual Result<StrongRef<PreviewImageRequestInterface>> Copy() const = 0;
    // Lets go of the preview now (cancelling it when no copy holds it).
    virtual void Reset() = 0;
};

// Fills a preview image request for a material of a node space (the space's
// NODESPACE::CONFIGUREPREVIEWIMAGEREQUESTFUNC).
class ConfigurePreviewImageRequestInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() {
        return Id("net.kelvo.nodes.interface.configurepreviewimagerequest");
    }
    virtual Result<void> Configure(const DataDictionary& material, DataDictionary& request) = 0;
};

// A new, empty request of the host's request class.
inline Result<StrongRef<PreviewImageRequestInterface>> CreatePreviewImageRequest() {
    return CreateClass<PreviewImageRequestInterface>(kPreviewImageRequestClass);
}

// --- Placeholders ----------------------------------------------------------------------------

// Why no preview can be shown.
inline constexpr Id kPlaceholderNoSpace("net.kelvo.nodes.previewimageplaceholder.nospace");
inline constexpr Id kPlaceholderNoMaterialEndNode(
    "net.kelvo.nodes.previewimageplaceholder.nomaterialendnode");
inline constexpr Id kPlaceholderError("net.kelvo.nodes.previewimageplaceholder.error");

}  // namespace kelvo::nodes
