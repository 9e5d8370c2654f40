// A synthetic preview task and a recorder of deliveries, shared by the scheduler tests.
#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "kelvo/nodes/previewimage.h"
#include "spaces/previewimage_scheduler.h"

namespace kelvo::testing_previewimage {

using namespace kelvo::nodes;

// Iteration k sets the index to k / stride (capped at count - 1). blockUntilCancelled makes
// an iteration spin until its job is cancelled.
class SyntheticTask final : public Implements<PreviewImageProviderTaskInterface> {
public:
    SyntheticTask(int64_t count, int64_t stride = 1, int64_t width = 2, int64_t height = 2)
        : _count(count), _stride(stride), _width(width), _height(height) {}

    Result<void> Iterate(JobInterface& job) override {
        _started.fetch_add(1);
        while (blockUntilCancelled.load() && !job.IsCancelled()) std::this_thread::yield();
        if (job.IsCancelled()) return OK();
        int64_t k = _done.fetch_add(1);
        _index.store(std::min(k / _stride, _count - 1));
        return OK();
    }
    Result<PreviewImageIterationState> GetState() const override {
        if (failWith) return failWith;
        return PreviewImageIterationState{_index.load(), _count};
    }
    Result<DataDictionary> GetResult() const override {
        PreviewImageProviderOutputImage image{_width, _height, nullptr, false};
        KELVO_ASSIGN_OR_RETURN(image.samples, NewObject<PreviewImageSamples>());
        KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
            for (int64_t i = 0; i < _width * _height; ++i)
                image.samples->push_back(Col4f{float(_index.load()), float(i), 0, 1});
            return OK();
        }));
        lastSamples = image.samples;
        DataDictionary result;
        KELVO_ASSIGN_OR_RETURN(Data d, MakeOutputImageData(image));
        KELVO_TRY(result.Set(Id("image"), std::move(d)));
        return result;
    }
    int Started() const { return _started.load(); }

    std::atomic<bool> blockUntilCancelled{false};
    Error failWith;
    mutable StrongRef<PreviewImageSamples> lastSamples;

private:
    int64_t _count, _stride, _width, _height;
    std::atomic<int64_t> _index{-1};
    std::atomic<int64_t> _done{0};
    std::atomic<int> _started{0};
};

struct Delivery {
    std::string task;
    int64_t index = -1;
    std::string error;
    PreviewImageProviderOutputImage image;
};

class Recorder {
public:
    // A request for a task named `name`: callback, 2 x 2 size and the given extras.
    DataDictionary Request(const std::string& name, int64_t width = 2, int64_t height = 2) {
        DataDictionary d;
        auto f = MakeResultCompleteFunc([this, name](const Result<DataDictionary>& r) {
            Delivery delivery;
            delivery.task = name;
            if (!r) {
                delivery.error = r.GetError().Message();
            } else {
                delivery.index = r->Get<int64_t>(PREVIEWIMAGEREQUEST::ITERATIONINDEX, -1);
                if (const Data* image = r->Find(Id("image")))
                    if (const auto* img = GetOutputImage(*image)) delivery.image = *img;
            }
            std::lock_guard lock(_mutex);
            _deliveries.push_back(std::move(delivery));
        });
        (void)d.Set(PREVIEWIMAGEREQUEST::RESULTCOMPLETEFUNC, *f);
        (void)d.Set(PREVIEWIMAGEREQUEST::TEXTURESIZE, Vec2{double(width), double(height)});
        return d;
    }
    std::vector<Delivery> Deliveries() {
        std::lock_guard lock(_mutex);
        return _deliveries;
    }
    // "name:index" (or "name:error") per delivery, in order.
    std::string Order() {
        std::string out;
        for (const Delivery& d : Deliveries())
            out += (out.empty() ? "" : " ") + d.task + ":" +
                   (d.error.empty() ? std::to_string(d.index) : d.error);
        return out;
    }

private:
    std::mutex _mutex;
    std::vector<Delivery> _deliveries;
};

}  // namespace kelvo::testing_previewimage
