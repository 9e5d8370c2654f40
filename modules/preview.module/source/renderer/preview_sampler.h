// The numbers a preview path draws. Each stratified decision of a path (pixel position, and
// the environment and BSDF samples of the first bounces) reads one 2D point of its own: the
// first two dimensions of the Sobol sequence, Owen-scrambled and with the sample index
// shuffled per pixel and per decision, so that the decisions are independent of one another
// while every power-of-two prefix of a pixel's samples stays stratified in each of them (a
// hash-based scramble after Burley, "Practical Hash-based Owen Scrambling", 2020).
// Everything is a function of (seed, pixel, sample index), so the image is the same on any
// number of threads.
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
// below it (on reversed bits, the bits above it: Owen scrambling).
inline uint32_t LaineKarrasPermutation(uint32_t x, uint32_t seed) {
    x += seed;
    x ^= x * 0x6C50B47Cu;
    x ^= x * 0xB82F1E52u;
    x ^= x * 0xC7AFE638u;
    x ^= x * 0x8D22F6E6u;
    return x;
}

// The second Sobol dimension (primitive polynomial x + 1), bit-reversed, as four byte
// tables: its bits are a product of the index with a triangular matrix over GF(2), which a
// bit loop forms with 32 unpredictable branches. Reversed, because Owen scrambling works on
// the reversed bits and would otherwise reverse them back.
struct SobolSecondDimension {
    uint32_t byte[4][256];
    constexpr SobolSecondDimension() : byte{} {
        uint32_t column[32] = {};
        column[0] = 1u;
        for (int k = 1; k < 32; ++k) column[k] = column[k - 1] ^ (column[k - 1] << 1);
        for (int b = 0; b < 4; ++b)
            for (uint32_t v = 0; v < 256; ++v) {
                uint32_t r = 0;
                for (int k = 0; k < 8; ++k)
                    if (v & (1u << k)) r ^= column[8 * b + k];
                byte[b][v] = r;
            }
    }
};
inline constexpr SobolSecondDimension kSobolSecond{};

// The first two Sobol dimensions of point `index` (a (0,2)-sequence in base 2), each with
// its bits reversed: the van der Corput radical inverse reversed is the index itself.
inline void Sobol2Reversed(uint32_t index, uint32_t& a, uint32_t& b) {
    a = index;
    b = kSobolSecond.byte[0][index & 0xFFu] ^ kSobolSecond.byte[1][(index >> 8) & 0xFFu] ^
        kSobolSecond.byte[2][(index >> 16) & 0xFFu] ^ kSobolSecond.byte[3][index >> 24];
}

class SampleSequence {
public:
    SampleSequence(PREVIEWSEQUENCE kind, uint64_t seed, uint64_t pixel, uint64_t sample)
        : _kind(kind),
          _pixelKey(MixBits(MixBits(seed + 0x9E3779B97F4A7C15ull) ^ pixel)),
          _reversedIndex(ReverseBits(uint32_t(sample))),
          _state(MixBits(_pixelKey ^ (sample * 0xD1B54A32D192ED03ull))) {}

    // The next decision's point in [0, 1)^2; two independent numbers when not `stratified`.
    void Next2(double& x, double& y, bool stratified = true) {
        if (_kind == PREVIEWSEQUENCE::INDEPENDENT || !stratified) {
            x = Uniform();
            y = Uniform();
            return;
        }
        Point(MixBits(_pixelKey + ++_dimension * 0x9E3779B97F4A7C15ull), _reversedIndex, x, y);
    }
    // An independent number in [0, 1).
    double Uniform() {
        _state += 0x9E3779B97F4A7C15ull;
        return double(MixBits(_state) >> 11) * 0x1.0p-53;
    }

private:
    static void Point(uint64_t key, uint32_t reversedIndex, double& x, double& y) {
        // Owen scrambling (each bit of a fraction flipped depending on the bits above it) is
        // ReverseBits(LaineKarrasPermutation(ReverseBits(v))): with the index and the points
        // kept reversed, each scramble costs one reversal, not two.
        const uint32_t shuffled = ReverseBits(LaineKarrasPermutation(reversedIndex, uint32_t(key)));
        uint32_t a, b;
        Sobol2Reversed(shuffled, a, b);
        x = ToUnit(ReverseBits(LaineKarrasPermutation(a, uint32_t(key >> 32))));
        y = ToUnit(ReverseBits(LaineKarrasPermutation(b, uint32_t(MixBits(key) >> 32))));
    }
    // A 32-bit fraction: never exactly 1, and finer than any decision a path makes.
    static double ToUnit(uint32_t bits) { return double(bits) * 0x1.0p-32; }

    PREVIEWSEQUENCE _kind;
    uint64_t _pixelKey;
    uint32_t _reversedIndex;
    uint64_t _dimension = 0;
    uint64_t _state;
};

}  // namespace kelvo::preview
