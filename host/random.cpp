// The framework's pseudo-random generator.
//
// xoshiro256** seeded through SplitMix64: integer arithmetic only, so a seed gives the
// same sequence on every platform and compiler.
#include "kelvo/random.h"

#include "host.h"

namespace kelvo::host {
namespace {

uint64_t SplitMix64(uint64_t& x) {
    uint64_t z = (x += 0x9e3779b97f4a7c15ull);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
    return z ^ (z >> 31);
}

constexpr uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }

inline uint64_t Next(RandomState& st) {
    uint64_t* s = st.s;
    uint64_t result = Rotl(s[1] * 5, 7) * 9;
    uint64_t t = s[1] << 17;
    s[2] ^= s[0];
    s[3] ^= s[1];
    s[1] ^= s[2];
    s[0] ^= s[3];
    s[2] ^= t;
    s[3] = Rotl(s[3], 45);
    return result;
}

// SplitMix64 never yields four zero words from one seed, so the all-zero state (a fixed
// point of xoshiro) cannot arise.
void RandomSeedSlot(RandomState& state, uint64_t seed) {
    for (uint64_t& w : state.s) w = SplitMix64(seed);
}

uint64_t RandomNextSlot(RandomState& state) { return Next(state); }

void RandomFill01Slot(RandomState& state, double* out, size_t count) {
    // The top 53 bits scaled by 2^-53: every value is exact and below 1.
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<double>(Next(state) >> 11) * 0x1.0p-53;
}

}  // namespace

namespace detail {
void FillRandomSlots(KelvoHostSlots& slots) {
    slots.RandomSeed = &RandomSeedSlot;
    slots.RandomNext = &RandomNextSlot;
    slots.RandomFill01 = &RandomFill01Slot;
}
}  // namespace detail

}  // namespace kelvo::host
