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
// cells (steps of 0.001) serve everything below. Written without branches on the cell
// kind: a renderer's half vectors switch between the two unpredictably.
inline DensityCells FindDensityCells(double c) {
    // fine ? (c - 0.9) * 10000 : c * 1000, bit for bit, as arithmetic on the flag.
    const int64_t fine = c >= 0.9;
    const double fineD = double(fine);
    double f = (c - 0.9 * fineD) * (1000.0 + 9000.0 * fineD);
    int64_t i = ClampCell(static_cast<int64_t>(f));
    int64_t j = ClampCell(i + 1);
    int64_t block = kDistributionCoarseCells * (1 - fine);
    return {block + i, block + j, f - double(i)};
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
