// The numbers a preview path draws. Each decision of a path (pixel position, environment
// sample, BSDF sample, roulette) reads one 2D point of its own: the first two dimensions of
// the Sobol sequence, Owen-scrambled and with the sample index shuffled per pixel and per
// decision, so that the decisions are independent of one another while every power-of-two
// prefix of a pixel's samples stays stratified in each of them (a hash-based scramble after
// Burley, "Practical Hash-based Owen Scrambling", 2020). Everything is a function of (seed,
// pixel, sample index), so the image is the same on any number of threads.
#pragma once

#include <cstdint>

#include "kelvo/previewrenderer.h"

namespace kelvo::preview {

inline uint64_t MixBits(uint64_t z) {
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

inline uint32_t ReverseBits(uint32_t x) {
    x = ((x >> 1) & 0x55555555u) | ((x & 0x55555555u) << 1);
    x = ((x >> 2) & 0x33333333u) | ((x & 0x33333333u) << 2);
    x = ((x >> 4) & 0x0F0F0F0Fu) | ((x & 0x0F0F0F0Fu) << 4);
    x = ((x >> 8) & 0x00FF00FFu) | ((x & 0x00FF00FFu) << 8);
    return (x >> 16) | (x << 16);
}

// A random permutation of the bits' tree: each bit is flipped depending only on the bits
// below it (in the reversed domain of OwenScramble, the bits above it).
inline uint32_t LaineKarrasPermutation(uint32_t x, uint32_t seed) {
    x += seed;
    x ^= x * 0x6C50B47Cu;
    x ^= x * 0xB82F1E52u;
    x ^= x * 0xC7AFE638u;
    x ^= x * 0x8D22F6E6u;
    return x;
}

// Nested uniform scrambling of a 32-bit fraction: each bit is flipped depending on the
// bits above it, which keeps every elementary interval an elementary interval.
inline uint32_t OwenScramble(uint32_t x, uint32_t seed) {
    return ReverseBits(LaineKarrasPermutation(ReverseBits(x), seed));
}

// The first two Sobol dimensions of point `index` (a (0,2)-sequence in base 2): the
// van der Corput radical inverse and the dimension of primitive polynomial x + 1.
inline void Sobol2(uint32_t index, uint32_t& a, uint32_t& b) {
    a = ReverseBits(index);
    uint32_t v = 0x80000000u, r = 0;
    for (; index; index >>= 1, v ^= v >> 1)
        if (index & 1u) r ^= v;
    b = r;
}

class SampleSequence {
public:
    SampleSequence(PREVIEWSEQUENCE kind, uint64_t seed, uint64_t pixel, uint64_t sample)
        : _kind(kind),
          _pixelKey(MixBits(MixBits(seed + 0x9E3779B97F4A7C15ull) ^ pixel)),
          _index(uint32_t(sample)),
          _state(MixBits(_pixelKey ^ (sample * 0xD1B54A32D192ED03ull))) {}

    // The next decision's point in [0, 1)^2.
    void Next2(double& x, double& y) {
        if (_kind == PREVIEWSEQUENCE::INDEPENDENT) {
            x = Uniform();
            y = Uniform();
            return;
        }
        const uint64_t key = MixBits(_pixelKey + ++_dimension * 0x9E3779B97F4A7C15ull);
        const uint32_t shuffled = OwenScramble(_index, uint32_t(key));
        uint32_t a, b;
        Sobol2(shuffled, a, b);
        a = OwenScramble(a, uint32_t(key >> 32));
        b = OwenScramble(b, uint32_t(MixBits(key) >> 32));
        x = ToUnit(a);
        y = ToUnit(b);
    }
    double Next1() {
        double x, y;
        Next2(x, y);
        return x;
    }

private:
    // A 32-bit fraction with a random low part, so that the result is never exactly 1.
    double ToUnit(uint32_t bits) {
        return (double(bits) + double(MixBits(++_state) >> 43) * 0x1.0p-21) * 0x1.0p-32;
    }
    double Uniform() {
        _state += 0x9E3779B97F4A7C15ull;
        return double(MixBits(_state) >> 11) * 0x1.0p-53;
    }

    PREVIEWSEQUENCE _kind;
    uint64_t _pixelKey;
    uint32_t _index;
    uint64_t _dimension = 0;
    uint64_t _state;
};

}  // namespace kelvo::preview
