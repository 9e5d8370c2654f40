// Observables: an object that tells its observers about changes.
//
// AddObserver returns a subscription; the observer stays registered exactly as long as some
// reference to that subscription lives (RAII), so an observer cannot outlive the code that
// added it by forgetting to remove it. Observers run on the thread that calls Notify, after
// the observable's lock has been released, so an observer may add or drop subscriptions
// (its own included). A subscription dropped while a Notify runs may still see that call.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "kelvo/allocator.h"
#include "kelvo/data.h"
#include "kelvo/object.h"
#include "kelvo/result.h"
#include "kelvo/spinlock.h"

namespace kelvo {

using ObserverFunction = std::function<void(const DataDictionary& message)>;

class ObservableInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.observable"); }

    // Registers observer until the returned subscription is released. Fails with the
    // out-of-memory error (nothing registered) or "Illegal argument: Invalid observer."
    // for an empty function.
    virtual Result<StrongRef<Object>> AddObserver(ObserverFunction observer) = 0;
    // Calls every registered observer once with message. Fails only when memory runs out
    // before any observer was called.
    virtual Result<void> Notify(const DataDictionary& message) = 0;
    virtual size_t GetObserverCount() const = 0;
};

// The framework's observable, header-only so that every module can own one.
class ObservableImpl final : public Implements<ObservableInterface> {
public:
    static Result<StrongRef<ObservableImpl>> Create() {
        KELVO_ASSIGN_OR_RETURN(StrongRef<State> state, NewObject<State>());
        KELVO_ASSIGN_OR_RETURN(StrongRef<ObservableImpl> made, NewObject<ObservableImpl>());
        made->_state = std::move(state);
        return made;
    }

    Result<StrongRef<Object>> AddObserver(ObserverFunction observer) override {
        if (!observer) return IllegalArgumentError(KELVO_HERE, "Invalid observer.");
        KELVO_ASSIGN_OR_RETURN(StrongRef<Subscription> sub, NewObject<Subscription>());
        KELVO_ASSIGN_OR_RETURN(StrongRef<ObserverFunction> fn,
                               NewObject<ObserverFunction>(std::move(observer)));
        std::lock_guard lock(_state->lock);
        uint64_t id = ++_state->lastId;
        KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
            _state->observers.push_back({id, std::move(fn)});
            return OK();
        }));
        sub->_state = _state;
        sub->_id = id;
        return StrongRef<Object>(std::move(sub));
    }

    Result<void> Notify(const DataDictionary& message) override {
        Observers copy;
        {
            std::lock_guard lock(_state->lock);
            KELVO_TRY(CatchOutOfMemory([&]() -> Result<void> {
                copy = _state->observers;
                return OK();
            }));
        }
        for (auto& entry : copy) (*entry.second)(message);
        return OK();
    }

    size_t GetObserverCount() const override {
        std::lock_guard lock(_state->lock);
        return _state->observers.size();
    }

private:
    using Observers = std::vector<std::pair<uint64_t, StrongRef<ObserverFunction>>,
                                  Allocator<std::pair<uint64_t, StrongRef<ObserverFunction>>>>;
    // Shared with the subscriptions, so a subscription may outlive its observable.
    struct State {
        mutable Spinlock lock;
        uint64_t lastId = 0;
        Observers observers;
    };
    class Subscription final : public Object {
    public:
        ~Subscription() override {
            StrongRef<ObserverFunction> dropped;  // destroyed after the lock is released
            if (!_state) return;
            std::lock_guard lock(_state->lock);
            for (auto it = _state->observers.begin(); it != _state->observers.end(); ++it) {
                if (it->first != _id) continue;
                dropped = std::move(it->second);
                _state->observers.erase(it);
                break;
            }
        }
        StrongRef<State> _state;
        uint64_t _id = 0;
    };

    StrongRef<State> _state;
};

}  // namespace kelvo
