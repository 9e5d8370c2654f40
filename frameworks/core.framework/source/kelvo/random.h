// The framework's pseudo-random generator: seedable, and giving the same sequence for a
// seed on every run and platform (integer arithmetic only; the generator lives in the
// host, so every module draws the same numbers). Not for cryptography.
//
// A Random is a plain value: copy it to fork a sequence. One object is not safe to use
// from several threads at once; give each thread its own.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kelvo/binding.h"

namespace kelvo {

struct RandomState {
    uint64_t s[4];
};

class Random {
public:
    // Seeds the generator; any seed, zero included, gives a usable sequence.
    explicit Random(uint64_t seed) { g_kelvo.host.RandomSeed(_state, seed); }

    // The next 64 uniformly distributed bits.
    uint64_t Next64() { return g_kelvo.host.RandomNext(_state); }
    // A uniform number in [0, 1) with 53 random bits.
    double Get01() {
        double v;
        g_kelvo.host.RandomFill01(_state, &v, 1);
        return v;
    }
    // Fills out[0..count) with uniform numbers in [0, 1): the same numbers as count
    // calls of Get01, at a fraction of the call cost.
    void Fill01(double* out, size_t count) { g_kelvo.host.RandomFill01(_state, out, count); }

private:
    RandomState _state;
};

}  // namespace kelvo
