// Row kernels of the texture pyramids. The building code hands them whole rows; they choose
// SSE2 or AVX2 loops for 8-bit texels by themselves, and give the same values as scalar code.
#pragma once

#include <cstdint>

namespace kelvo {

// Halves one destination row of `count` texels of N channels from source rows a and b of
// `width` texels: pairs in x when halveX, the two rows averaged when halveY (or when only
// y halves, which is the case with !halveX). An odd last texel pairs with itself. Integers
// average with a truncating shift, so integer levels are exactly reproducible.
template <typename T, int N>
void HalveRow(const T* a, const T* b, T* out, int64_t count, int64_t width, bool halveX,
              bool halveY);

// columns[i] += in[i] for n values.
template <typename E>
void AddToColumns(const uint8_t* in, E* columns, int64_t n);

// One row of a summed area table: the running sums of the row's N-channel 8-bit texels,
// plus the table's row above when `above` is not null.
template <typename E, int N>
void SumRow(const uint8_t* in, const E* above, E* out, int64_t width);

// Whether 8-bit levels may be halved with AVX2 where the processor has it (the default).
// Tests turn it off to check the SSE2 and scalar loops on any machine.
void AllowAvx2Halving(bool allow);

}  // namespace kelvo
