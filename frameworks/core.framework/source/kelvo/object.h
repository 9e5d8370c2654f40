// Framework objects: reference counted (StrongRef, WeakRef) and reached through the
// interfaces they implement, asked for by interface id rather than by C++ type, so
// that a cast works the same on both sides of a module boundary.
#pragma once

#include <memory>

#include "kelvo/id.h"

namespace kelvo {

template <typename T>
using StrongRef = std::shared_ptr<T>;
template <typename T>
using WeakRef = std::weak_ptr<T>;

class Object {
public:
    virtual ~Object() = default;
    // The address of the requested interface inside this object, or nullptr.
    virtual void* QueryInterface(const Id& interfaceId) {
        (void)interfaceId;
        return nullptr;
    }
};

// Base of implementation classes: answers QueryInterface for each listed interface.
// Interfaces derive virtually from Object so that one object has one Object base.
template <typename... Interfaces>
class Implements : public Interfaces... {
public:
    void* QueryInterface(const Id& interfaceId) override {
        void* found = nullptr;
        (void)((Match<Interfaces>(interfaceId, found)) || ...);
        return found;
    }

private:
    template <typename I>
    bool Match(const Id& interfaceId, void*& found) {
        if (!(interfaceId == I::InterfaceId())) return false;
        found = static_cast<I*>(this);
        return true;
    }
};

// The interface I of an object, sharing its ownership; empty if the object lacks it.
template <typename I>
StrongRef<I> Query(const StrongRef<Object>& object) {
    void* p = object ? object->QueryInterface(I::InterfaceId()) : nullptr;
    return p ? StrongRef<I>(object, static_cast<I*>(p)) : StrongRef<I>();
}

}  // namespace kelvo
