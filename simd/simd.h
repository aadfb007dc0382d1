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
//   store_fours(lower, upper, a)  the lower four lanes of f32x8 to the one place, the upper four to the other
//   broadcast_four            four floats from memory, twice
//   broadcast, add, multiply  one rounding each
//   multiply_add(a, b, c)     a * b + c for products that are exact in f32 (those of two halves are), so that it makes
//                             no difference whether a backend fuses
//   narrow                    f32 to f16, nearest even; overflow to infinity; subnormals kept; NaN quieted, its upper
//                             payload bits kept
//   add, multiply, multiply_add  of f16x8: one rounding to f16 each
//   widen                     f16 to f32, exact; a signalling NaN is quieted
//   zip_low, zip_high         a0 b0 a1 b1 ... of the lower (upper) four lanes
//   unzip_even, unzip_odd     the even (odd) lanes of a, then those of b
//   transpose_words           8 rows of 8 32-bit words, of which row(i) gives the address, to 8 rows at a byte pitch;
//                             or from a byte pitch too
//   transpose_zip_nibbles     the same; in each word nibbles 0 1 2 3 4 5 6 7 become 0 4 1 5 2 6 3 7 on the way
//   lower_fours, upper_fours  the lower (upper) four lanes of a, then those of b; of f16x8 and f32x8
//   sums_of_fours(a, b, c, d)  (0 + 1) + (2 + 3) of the lower four lanes of each, then of the upper four
//   prefetch, prefetch_outer  a hint; any address is allowed; the latter leaves the first-level cache alone
//
// Long sums in half arithmetic take a type of their own, for which a backend may choose registers and rounding mode:
//
//   half8                     eight halves to multiply
//   half8_sum                 eight sums; half8_sum{} is zero
//   in_half_arithmetic(body)  calls body(); half8 sums are formed only there, and no other floating-point arithmetic
//   load_half8, load_half8_sum  from f16
//   store                     sums to f16, or widened to f32
//   accumulate(sum, a, b)     adds a * b, one rounding to f16
//
// Which NaN the result of half arithmetic is differs between backends: whoever stores it settles on one.
//
// Quantisation adds
//
//   i32x8, u8x32              eight 32-bit integers, thirty-two bytes
//   load_i8, load_i4          eight signed bytes; the eight nibbles of a word, least significant first, sign-extended
//   fused_multiply_add        of f32x8: a * b + c, one rounding
//   greater, lesser           a > b ? a : b, a < b ? a : b; so b where either is NaN
//   number_or_zero            0 in place of NaN
//   settle_nan                0x7fc00000 in place of every NaN
//   to_nearest                f32 to i32, half away from zero; for magnitudes below 2^31
//   to_float                  i32 to f32, nearest even
//   greater_magnitude(p, a)   the bit patterns of the absolute values of eight floats or, where greater, those in a; NaN
//                             is greater than all else, which NaN is up to the backend
//   add, sum                  of i32x8: modulo 2^32; sum is over the lanes
//   greatest                  the greatest lane
//   pack_bytes(a, b, c, d)    values of -128 to 127 to bytes, in this order
//   pack_low_bytes, pack_high_bytes  bits 0 to 7, bits 8 to 15 of values of -2^15 to 2^15 - 1
//   scale_to_bytes(p, factor) 32 floats times the factor, rounded as multiply and to_nearest do, to bytes; for products
//                             of magnitudes up to 127 and a factor whose double is finite
//   flip_top_bits             adds 128 to each byte, modulo 2^8
//   add_bytes(sums, a)        each byte, unsigned, to one of the lanes; which one is up to the backend
//   store_nibbles             the low nibbles of 32 bytes as four words, the first least significant
//   store_zipped_nibbles      the same, the eight of each word in the order 0 4 1 5 2 6 3 7
//
// Exact products of small integers add
//
//   pairs8, same_pair8        eight pairs of 16-bit integers, in memory pair after pair; one pair eight times
//   load_pairs, broadcast_pair  the one, the other
//   multiply_add(a, b, sum)   of pairs8, same_pair8, i32x8: to each lane a.first * b.first + a.second * b.second,
//                             modulo 2^32; a pair's two products add up to less than 2^31
//   pair_bytes(source, even, odd)  32 unsigned bytes, of each four 0 and 2 to a pair of `even`, 1 and 3 to one of `odd`
//   pair_rows<bit, n_bit>(source, left, right)  8 rows of 4 bytes, of each byte the field of n_bit bits at `bit`, which
//                             is a signed number: rows 0 and 2, 1 and 3, 4 and 6, 5 and 7 to pairs, four times two
//                             pairs in this order, `left` of columns 0 and 1, `right` of columns 2 and 3
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(MORUN_SIMD_NEON)
#  include "simd/neon.h"
#elif defined(MORUN_SIMD_AVX2)
#  include "simd/avx2.h"
#elif defined(MORUN_SIMD_PORTABLE)
#  include "simd/portable.h"
#else
#  error "no vector backend chosen: define MORUN_SIMD_NEON, MORUN_SIMD_AVX2 or MORUN_SIMD_PORTABLE"
#endif

namespace morun::simd {

inline void transpose_words(const std::byte* source, size_t source_pitch, std::byte* destination,
                            size_t destination_pitch) {
  transpose_words([=](size_t i) { return source + i * source_pitch; }, destination, destination_pitch);
}

}  // namespace morun::simd
