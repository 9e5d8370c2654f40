// The observable a node space owns: made when the space is initialised and let go of with
// the space, so that it can neither be shared out of existence nor outlive its owner.
// Observers keep their subscriptions (see kelvo/observable.h); once the owner is gone they
// simply hear nothing more.
#pragma once

#include "kelvo/observable.h"
#include "kelvo/result.h"

namespace kelvo::nodes {

class RaiiObservable {
public:
    RaiiObservable() = default;
    RaiiObservable(const RaiiObservable&) = delete;
    RaiiObservable& operator=(const RaiiObservable&) = delete;
    RaiiObservable(RaiiObservable&& o) noexcept = default;
    RaiiObservable& operator=(RaiiObservable&& o) noexcept = default;
    ~RaiiObservable() = default;

    // A new observable. Out of memory is an error and makes nothing.
    static Result<RaiiObservable> Create();

    const StrongRef<ObservableInterface>& Get() const { return _observable; }
    explicit operator bool() const { return _observable != nullptr; }

private:
    StrongRef<ObservableInterface> _observable;
};

}  // namespace kelvo::nodes
