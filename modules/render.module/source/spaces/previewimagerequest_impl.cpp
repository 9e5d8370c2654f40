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
        const uint64_t generation = Release();  // the earlier preview goes before the new one
        const int64_t purpose = _data->Get<int64_t>(PREVIEWIMAGEREQUEST::PURPOSE, 0);
        // Stored before the preview can start, so that a Reset from its first callback
        // cancels it; a Reset that came while Submit ran cancels it at once.
        auto publish = [this, generation](StrongRef<PreviewImageSubscription> subscription) {
            std::lock_guard lock(_lock);
            if (_generation == generation) _subscription = std::move(subscription);
        };  // a subscription not stored is released after the lock: cancelled
        KELVO_TRY(PreviewImageScheduler::Submit(
            *_data, purpose == int64_t(PREVIEWIMAGEPURPOSE::PRIORITY), publish));
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

    void Reset() override { (void)Release(); }

private:
    // Lets go of the preview held so far; returns the generation that begins.
    uint64_t Release() {
        StrongRef<PreviewImageSubscription> released;  // cancelled outside the lock
        std::lock_guard lock(_lock);
        released = std::move(_subscription);
        return ++_generation;
    }

    StrongRef<DataDictionary> _data;
    mutable Spinlock _lock;  // guards _subscription and _generation
    StrongRef<PreviewImageSubscription> _subscription;
    uint64_t _generation = 0;  // counts Submit and Reset calls
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
