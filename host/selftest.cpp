// Runs every registered self-test and speed test.
#include "kelvo/selftest.h"

#include "host.h"
#include "kelvo/registry.h"

namespace kelvo::host {
namespace {

template <typename I>
void RunAll(const Id& registry, bool speed, std::vector<SelfTestOutcome>& out) {
    for (const EntryRecord* e : RegistryMembers(registry)) {
        SelfTestOutcome o{e->GetId(), speed, false, {}, {}};
        Result<StrongRef<I>> test = CreateClass<I>(e->GetId());
        if (!test) {
            o.error = test.GetError().Message();
        } else {
            Result<void> r = CatchOutOfMemory([&] { return (*test)->Run(o.report); });
            o.passed = r.Ok();
            if (!r) o.error = r.GetError().Message();
        }
        out.push_back(std::move(o));
    }
}

}  // namespace

std::vector<SelfTestOutcome> RunSelfTests() {
    std::vector<SelfTestOutcome> out;
    RunAll<UnitTestInterface>(kUnitTestClassesRegistry, false, out);
    RunAll<SpeedTestInterface>(kSpeedTestClassesRegistry, true, out);
    return out;
}

}  // namespace kelvo::host
