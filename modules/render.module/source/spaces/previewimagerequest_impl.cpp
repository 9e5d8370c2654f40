// The preview image request class, the two data types that travel in requests and results,
// and the start and stop of the preview scheduler with the module.
#include <mutex>
#include <utility>

#include "kelvo/datatype.h"
#include "kelvo/entry.h"
#include "kelvo/nodes/previewimage.h"
#include "spaces/previewimage_scheduler.h"

namespace kelvo::nodes {
namespace {

class PreviewImageRequestImpl final : public Implements<PreviewImageRequestInterface> {
public:
    PreviewImageRequestImpl()
        : _data(std::allocate_shared<DataDictionary>(Allocator<DataDictionary>{})) {}

    StrongRef<DataDictionary> GetData() const override { return _data; }

    Result<void> Submit() override {
        Reset();  // the earlier preview is cancelled before the new one starts
        const int64_t purpose = _data->Get<int64_t>(PREVIEWIMAGEREQUEST::PURPOSE, 0);
        KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageSubscription> subscription,
                               PreviewImageScheduler::Submit(
                                   *_data, purpose == int64_t(PREVIEWIMAGEPURPOSE::PRIORITY)));
        std::lock_guard lock(_lock);
        _subscription = std::move(subscription);
        return OK();
    }

    Result<StrongRef<PreviewImageRequestInterface>> Copy() const override {
        KELVO_ASSIGN_OR_RETURN(StrongRef<PreviewImageRequestImpl> copy,
                               NewObject<PreviewImageRequestImpl>());
        copy->_data = _data;
        std::lock_guard lock(_lock);
        copy->_subscription = _subscription;
        return StrongRef<PreviewImageRequestInterface>(std::move(copy));
    }

    void Reset() override {
        StrongRef<PreviewImageSubscription> released;  // cancelled outside the lock
        std::lock_guard lock(_lock);
        released = std::move(_subscription);
    }

private:
    StrongRef<DataDictionary> _data;
    mutable Spinlock _lock;  // guards _subscription
    StrongRef<PreviewImageSubscription> _subscription;
};

Result<void> StartScheduler() { return PreviewImageScheduler::Create(); }
void StopScheduler() { PreviewImageScheduler::Release(); }
void ModuleUnloading(const KelvoModuleInfo& module) {
    PreviewImageScheduler::ModuleUnloading(module);
}
const ModuleLifecycle kSchedulerLifecycle{&StartScheduler, &StopScheduler, &ModuleUnloading};

constexpr Id kDataTypes("net.kelvo.registry.datatypes");
const DataType kOutputImageType{kPreviewImageOutputImageDataType, DATATYPEFLAGS_NONE,
                                MakeDataTypeOps<PreviewImageProviderOutputImage>()};
const DataType kCustomCallbacksType{kPreviewImageCustomRequestCallbacksDataType, DATATYPEFLAGS_NONE,
                                    MakeDataTypeOps<PreviewImageCustomRequestCallbacks>()};

KELVO_REGISTER_CLASS(s_requestClass, "net.kelvo.nodes.class.previewimagerequest", Id(),
                     PreviewImageRequestInterface::InterfaceId(), PreviewImageRequestImpl);
KELVO_REGISTER_COMPONENT(s_requestComponent, "PreviewImageRequestImpl",
                         PreviewImageRequestInterface, PreviewImageRequestImpl);
KELVO_ENTRY(s_customCallbacksType, ENTRYKIND::DATATYPE,
            "net.kelvo.nodes.previewimagerequest.datatype.customrequestcallbacks", kDataTypes, Id(),
            &kCustomCallbacksType, nullptr);
KELVO_ENTRY(s_outputImageType, ENTRYKIND::DATATYPE,
            "net.kelvo.nodes.datatype.previewimageprovideroutputimage", kDataTypes, Id(),
            &kOutputImageType, nullptr);
KELVO_REGISTER_LIFECYCLE(s_schedulerLifecycle, "net.kelvo.render.lifecycle.previewimagescheduler",
                         kSchedulerLifecycle);

}  // namespace
}  // namespace kelvo::nodes
