// Built-in self-tests and speed tests that modules register, run by the host on demand
// (kelvo selftest).
#pragma once

#include <string>

#include "kelvo/object.h"
#include "kelvo/result.h"

namespace kelvo {

inline constexpr Id kUnitTestClassesRegistry("net.kelvo.registry.unittestclasses");
inline constexpr Id kSpeedTestClassesRegistry("net.kelvo.registry.speedtestclasses");

// A self-test: checks its building blocks and appends what it found to `report`, one line
// per check. A failed check is returned as an error naming it; the report still holds
// every line written before.
class UnitTestInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.unittest"); }
    virtual Result<void> Run(std::string& report) = 0;
};

// A speed test: measures and appends its timings to `report`. Fails only when the code it
// measures fails.
class SpeedTestInterface : public virtual Object {
public:
    static constexpr Id InterfaceId() { return Id("net.kelvo.interface.speedtest"); }
    virtual Result<void> Run(std::string& report) = 0;
};

}  // namespace kelvo
