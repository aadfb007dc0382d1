// The vector vocabulary: a few operations over fixed-width vectors, in which every numeric loop is written once.
//
//   f32x8   eight floats
//   f16x8   eight halves, held as their 16-bit patterns (IEEE 754 binary16)
//
// Three interchangeable backends give the same bits for every operation: NEON with half precision, AVX2 with FMA and
// F16C, and plain C++. The build defines exactly one of MORUN_SIMD_NEON, MORUN_SIMD_AVX2 and MORUN_SIMD_PORTABLE.
//
//   load, store               unaligned
//   store_streaming           past the caches; the address is a multiple of the vector's size; fence_streaming() at
//                             the end
//   broadcast, add, multiply  one rounding each
//   multiply_add(a, b, c)     a * b + c for products that are exact in f32 (those of two halves are), so that it makes
//                             no difference whether a backend fuses
//   narrow                    f32 to f16, nearest even; overflow to infinity; subnormals kept; NaN quieted, its upper
//                             payload bits kept
//   widen                     f16 to f32, exact; a signalling NaN is quieted
//   zip_low, zip_high         a0 b0 a1 b1 ... of the lower (upper) four lanes
//   unzip_even, unzip_odd     the even (odd) lanes of a, then those of b
//   transpose_words           8 rows of 8 32-bit words at a byte pitch to 8 rows at another
//   transpose_zip_nibbles     the same; in each word nibbles 0 1 2 3 4 5 6 7 become 0 4 1 5 2 6 3 7 on the way
//   prefetch                  a hint; any address is allowed
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(MORUN_SIMD_NEON)
#  include "source/simd/neon.h"
#elif defined(MORUN_SIMD_AVX2)
#  include "source/simd/avx2.h"
#elif defined(MORUN_SIMD_PORTABLE)
#  include "source/simd/portable.h"
#else
#  error "no vector backend chosen: define MORUN_SIMD_NEON, MORUN_SIMD_AVX2 or MORUN_SIMD_PORTABLE"
#endif
