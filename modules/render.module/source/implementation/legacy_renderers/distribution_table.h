// Reading and filling the shared distribution tables.
//
// Every render thread reads and fills the same tables without a lock. Each entry is
// loaded and stored as one relaxed 32-bit atomic: on x86-64 that is a plain move, and
// it makes the benign race (two threads computing the same entry) well defined.
#pragma once

#include <atomic>
#include <cmath>
#include <cstdint>

#include "kelvo/legacy_renderers/samplercache.h"

namespace kelvo::legacy {

inline constexpr double kPi = 3.14159265358979323846;
inline constexpr double kInvPi = 0.3183098861837907;
inline constexpr double kInvTwoPi = 0.15915494309189535;
inline constexpr double kTwoPi = 6.283185307179586;

inline float LoadEntry(float* table, int64_t index) {
    return std::atomic_ref<float>(table[index]).load(std::memory_order_relaxed);
}
inline void StoreEntry(float* table, int64_t index, float value) {
    std::atomic_ref<float>(table[index]).store(value, std::memory_order_relaxed);
}

// The entry at index, computed by `compute` and stored when it is still unset.
template <typename F>
inline float CachedEntry(float* table, int64_t index, F&& compute) {
    float v = LoadEntry(table, index);
    if (v < -0.5f) {
        v = static_cast<float>(compute());
        StoreEntry(table, index, v);
    }
    return v;
}

// Two neighbouring entries of a D block and where c lies between them.
struct DensityCells {
    int64_t i, j;  // entries within the block
    double t;      // interpolation weight of j
};

inline int64_t ClampCell(int64_t i) { return i < 0 ? 0 : (i > 999 ? 999 : i); }

// Fine cells (steps of 0.0001 from 0.9) serve c >= 0.9, where narrow lobes peak; coarse
// cells (steps of 0.001) serve everything below. The cell kind indexes its origin, scale
// and block instead of branching: a renderer's half vectors switch between the two kinds
// unpredictably, and compilers turn a plain conditional back into a jump. Only for the
// cosines the table serves, 1e-16 <= c < 0.999: there i <= 990, so j = i + 1 and no clamp
// to 0..999 can bind.
inline DensityCells FindDensityCells(double c) {
    static constexpr double kOrigin[2] = {0.0, 0.9};  // c - 0.0 is c: coarse f stays c * 1000
    static constexpr double kScale[2] = {1000.0, 10000.0};
    static constexpr int64_t kBlock[2] = {kDistributionCoarseCells, 0};
    const unsigned fine = c >= 0.9;
    const double f = (c - kOrigin[fine]) * kScale[fine];
    const int64_t i = static_cast<int32_t>(f);
    return {kBlock[fine] + i, kBlock[fine] + i + 1, f - double(i)};
}

// The cosine a D block entry stands for.
inline double CellCosine(int64_t entry) {
    return entry < kDistributionCoarseCells ? 0.9 + 0.0001 * double(entry)
                                            : 0.001 * double(entry - kDistributionCoarseCells);
}

// Interpolation in single precision, as the tables store.
inline float Lerp(float a, float b, double t) {
    float tf = static_cast<float>(t);
    return a * (1.0f - tf) + b * tf;
}

}  // namespace kelvo::legacy
