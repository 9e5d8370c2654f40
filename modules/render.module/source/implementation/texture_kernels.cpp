// Row kernels of the texture pyramids: halving rows of every storage type, and the running
// sums of summed area tables, with SSE2 and run-time chosen AVX2 loops for 8-bit texels.
#include "texture_kernels.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <type_traits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
// AVX2 is chosen at run time, so the module still loads on processors without it.
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define KELVO_TEXTURE_AVX2 1
#endif

// The row loops are worth g++'s full vectoriser (-O2 tries only the cheapest). A pragma
// rather than a compile option, so that clang-based tools read the compile commands.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC optimize("tree-vectorize", "vect-cost-model=dynamic")
#endif

namespace kelvo {

namespace {

// Averages of two and four components: integers by a truncating shift (so integer levels
// are exactly reproducible), floats by multiplication.
template <typename T>
inline T Average2(T a, T b) {
    if constexpr (std::is_floating_point_v<T>)
        return (a + b) * T(0.5);
    else
        return T((uint32_t(a) + uint32_t(b)) >> 1);
}
template <typename T>
inline T Average4(T a, T b, T c, T d) {
    if constexpr (std::is_floating_point_v<T>)
        return (a + b + c + d) * T(0.25);
    else
        return T((uint32_t(a) + uint32_t(b) + uint32_t(c) + uint32_t(d)) >> 2);
}

// 8-bit rows eight bytes at a time (the same truncating averages, so levels do not change):
// two rows byte by byte, and RGBA texel pairs with two channels in the 16-bit lanes of
// each 32-bit half.
inline uint64_t Load8(const uint8_t* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
#if defined(KELVO_TEXTURE_AVX2)
std::atomic<bool> g_allowAvx2{true};

bool HasAvx2() {
    static const bool has = __builtin_cpu_supports("avx2") != 0;
    return has && g_allowAvx2.load(std::memory_order_relaxed);
}

// 32 bytes at a time: the rounding-up average less the bit that rounding added.
__attribute__((target("avx2"))) int64_t AverageRowsBytesAvx2(const uint8_t* a, const uint8_t* b,
                                                             uint8_t* out, int64_t n) {
    const __m256i one = _mm256_set1_epi8(1);
    int64_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i x = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + i));
        const __m256i y = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + i));
        const __m256i odd = _mm256_and_si256(_mm256_xor_si256(x, y), one);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                            _mm256_sub_epi8(_mm256_avg_epu8(x, y), odd));
    }
    return i;
}
#endif
inline int64_t AverageRowsBytes(const uint8_t* a, const uint8_t* b, uint8_t* out, int64_t n) {
    constexpr uint64_t kLow7 = 0xFEFEFEFEFEFEFEFEull;
    int64_t i = 0;
#if defined(KELVO_TEXTURE_AVX2)
    if (HasAvx2()) i = AverageRowsBytesAvx2(a, b, out, n);
#endif
    for (; i + 8 <= n; i += 8) {
        const uint64_t x = Load8(a + i), y = Load8(b + i);
        const uint64_t avg = (x & y) + (((x ^ y) & kLow7) >> 1);  // floor((x + y) / 2) per byte
        std::memcpy(out + i, &avg, 8);
    }
    return i;
}
#if defined(KELVO_TEXTURE_AVX2)
// Eight output texels at a time. A byte shuffle puts each texel pair's channels side by side
// (R0 R1 G0 G1 ...), so one multiply-add against ones sums the pair into 16-bit lanes: two
// shuffles per row instead of the eight unpacks of the SSE2 loop, which the shuffle unit
// limits. Returns the number of texels done.
__attribute__((target("avx2"))) int64_t HalveRgba8Avx2(const uint8_t* a, const uint8_t* b,
                                                       uint8_t* out, int64_t pairs) {
    const __m256i pairUp = _mm256_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15, 0,
                                            4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
    const __m256i ones = _mm256_set1_epi8(1);
    int64_t x = 0;
    for (; x + 8 <= pairs; x += 8) {
        __m256i sums[2];
        for (int k = 0; k < 2; ++k) {
            const __m256i p = _mm256_shuffle_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(a + 8 * x + 32 * k)), pairUp);
            const __m256i q = _mm256_shuffle_epi8(
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 8 * x + 32 * k)), pairUp);
            sums[k] = _mm256_srli_epi16(
                _mm256_add_epi16(_mm256_maddubs_epi16(p, ones), _mm256_maddubs_epi16(q, ones)), 2);
        }
        // Packing works within 128-bit halves; the permute (quarters 0, 2, 1, 3) puts the
        // texels back in order.
        const __m256i packed = _mm256_packus_epi16(sums[0], sums[1]);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + 4 * x),
                            _mm256_permute4x64_epi64(packed, 0xD8));
    }
    return x;
}
#endif

// Averages texels (2x, 2x+1) of rows a and b into texel x, for x below `pairs`; with b == a
// that is the average of the pair alone (the sum of four doubled, shifted by 2).
inline void HalveRgba8(const uint8_t* a, const uint8_t* b, uint8_t* out, int64_t pairs) {
    constexpr uint64_t kLanes = 0x00FF00FF00FF00FFull;
    int64_t x = 0;
#if defined(KELVO_TEXTURE_AVX2)
    if (HasAvx2()) x = HalveRgba8Avx2(a, b, out, pairs);
#endif
#if defined(__SSE2__)
    // Four output texels at a time: channels widened to 16 bits, each texel pair summed over
    // both rows, shifted by 2 and narrowed again (sums stay below 1021, so nothing saturates).
    const __m128i zero = _mm_setzero_si128();
    const auto pairSums = [&](const uint8_t* pa, const uint8_t* pb) {
        const __m128i p = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pa));
        const __m128i q = _mm_loadu_si128(reinterpret_cast<const __m128i*>(pb));
        const __m128i lo = _mm_add_epi16(_mm_unpacklo_epi8(p, zero), _mm_unpacklo_epi8(q, zero));
        const __m128i hi = _mm_add_epi16(_mm_unpackhi_epi8(p, zero), _mm_unpackhi_epi8(q, zero));
        return _mm_srli_epi16(_mm_add_epi16(_mm_unpacklo_epi64(lo, hi), _mm_unpackhi_epi64(lo, hi)),
                              2);
    };
    for (; x + 4 <= pairs; x += 4) {
        const __m128i first = pairSums(a + 8 * x, b + 8 * x);
        const __m128i second = pairSums(a + 8 * x + 16, b + 8 * x + 16);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + 4 * x), _mm_packus_epi16(first, second));
    }
#endif
    for (; x < pairs; ++x) {
        const uint64_t p = Load8(a + 8 * x), q = Load8(b + 8 * x);
        const uint64_t even = (p & kLanes) + (q & kLanes);
        const uint64_t odd = ((p >> 8) & kLanes) + ((q >> 8) & kLanes);
        const uint32_t e = uint32_t(even) + uint32_t(even >> 32);  // lanes stay below 1021
        const uint32_t o = uint32_t(odd) + uint32_t(odd >> 32);
        const uint32_t texel = ((e >> 2) & 0x00FF00FFu) | (((o >> 2) & 0x00FF00FFu) << 8);
        std::memcpy(out + 4 * x, &texel, 4);
    }
}

// Running sums of four 8-bit channels along a row, plus the row above when there is one,
// four texels a step with the channels widened to 32 bits (the scalar loop spends most of
// its time on one channel at a time). Carries the sums on in `run`; returns the texels done.
inline int64_t SumRowRgba8(const uint8_t* in, const uint32_t* above, uint32_t* out, int64_t w,
                           uint32_t run[4]) {
    int64_t x = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    __m128i sum = _mm_loadu_si128(reinterpret_cast<const __m128i*>(run));
    for (; x + 4 <= w; x += 4) {
        const __m128i px = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + 4 * x));
        const __m128i lo = _mm_unpacklo_epi8(px, zero), hi = _mm_unpackhi_epi8(px, zero);
        const __m128i texels[4] = {_mm_unpacklo_epi16(lo, zero), _mm_unpackhi_epi16(lo, zero),
                                   _mm_unpacklo_epi16(hi, zero), _mm_unpackhi_epi16(hi, zero)};
        for (int k = 0; k < 4; ++k) {
            sum = _mm_add_epi32(sum, texels[k]);
            const int64_t at = 4 * (x + k);
            const __m128i value =
                above ? _mm_add_epi32(sum,
                                      _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + at)))
                      : sum;
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + at), value);
        }
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(run), sum);
#else
    (void)in, (void)above, (void)out, (void)w, (void)run;
#endif
    return x;
}

}  // namespace

void AllowAvx2Halving(bool allow) {
#if defined(KELVO_TEXTURE_AVX2)
    g_allowAvx2 = allow;
#else
    (void)allow;
#endif
}

template <typename T, int N>
void HalveRow(const T* a, const T* b, T* out, int64_t count, int64_t width, bool halveX,
              bool halveY) {
    if (!halveX) {
        int64_t i = 0;
        if constexpr (std::is_same_v<T, uint8_t>) i = AverageRowsBytes(a, b, out, count * N);
        for (; i < count * N; ++i) out[i] = Average2(a[i], b[i]);
        return;
    }
    // Full pairs first, without clamping; an odd last texel pairs with itself.
    const int64_t pairs = std::min(count, width / 2);
    if constexpr (std::is_same_v<T, uint8_t> && N == 4) {
        HalveRgba8(a, halveY ? b : a, out, pairs);
    } else if (halveY) {
        for (int64_t x = 0; x < pairs; ++x)
            for (int c = 0; c < N; ++c)
                out[x * N + c] = Average4(a[2 * x * N + c], a[(2 * x + 1) * N + c],
                                          b[2 * x * N + c], b[(2 * x + 1) * N + c]);
    } else {
        for (int64_t x = 0; x < pairs; ++x)
            for (int c = 0; c < N; ++c)
                out[x * N + c] = Average2(a[2 * x * N + c], a[(2 * x + 1) * N + c]);
    }
    for (int64_t x = pairs; x < count; ++x) {
        const int64_t x0 = std::min(2 * x, width - 1), x1 = std::min(2 * x + 1, width - 1);
        for (int c = 0; c < N; ++c)
            out[x * N + c] =
                halveY ? Average4(a[x0 * N + c], a[x1 * N + c], b[x0 * N + c], b[x1 * N + c])
                       : Average2(a[x0 * N + c], a[x1 * N + c]);
    }
}

template <typename E>
void AddToColumns(const uint8_t* in, E* columns, int64_t n) {
    for (int64_t i = 0; i < n; ++i) columns[i] += in[i];
}

template <typename E, int N>
void SumRow(const uint8_t* in, const E* above, E* out, int64_t width) {
    E run[N] = {};
    int64_t x = 0;
    if constexpr (N == 4 && std::is_same_v<E, uint32_t>)
        x = SumRowRgba8(in, above, out, width, run);
    for (; x < width; ++x)
        for (int c = 0; c < N; ++c) {
            run[c] += in[x * N + c];
            out[x * N + c] = above ? E(run[c] + above[x * N + c]) : run[c];
        }
}

template void HalveRow<uint8_t, 3>(const uint8_t*, const uint8_t*, uint8_t*, int64_t, int64_t, bool,
                                   bool);
template void HalveRow<uint8_t, 4>(const uint8_t*, const uint8_t*, uint8_t*, int64_t, int64_t, bool,
                                   bool);
template void HalveRow<uint16_t, 3>(const uint16_t*, const uint16_t*, uint16_t*, int64_t, int64_t,
                                    bool, bool);
template void HalveRow<uint16_t, 4>(const uint16_t*, const uint16_t*, uint16_t*, int64_t, int64_t,
                                    bool, bool);
template void HalveRow<float, 3>(const float*, const float*, float*, int64_t, int64_t, bool, bool);
template void HalveRow<float, 4>(const float*, const float*, float*, int64_t, int64_t, bool, bool);
template void AddToColumns<uint32_t>(const uint8_t*, uint32_t*, int64_t);
template void AddToColumns<uint64_t>(const uint8_t*, uint64_t*, int64_t);
template void SumRow<uint32_t, 3>(const uint8_t*, const uint32_t*, uint32_t*, int64_t);
template void SumRow<uint32_t, 4>(const uint8_t*, const uint32_t*, uint32_t*, int64_t);
template void SumRow<uint64_t, 3>(const uint8_t*, const uint64_t*, uint64_t*, int64_t);
template void SumRow<uint64_t, 4>(const uint8_t*, const uint64_t*, uint64_t*, int64_t);

}  // namespace kelvo
