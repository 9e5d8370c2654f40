#include "spaces/raii_observable.h"

#include <utility>

namespace kelvo::nodes {

Result<RaiiObservable> RaiiObservable::Create() {
    KELVO_ASSIGN_OR_RETURN(StrongRef<ObservableImpl> made, ObservableImpl::Create());
    RaiiObservable owner;
    owner._observable = std::move(made);
    return owner;
}

}  // namespace kelvo::nodes
