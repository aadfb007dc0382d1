// The vector vocabulary: a few operations over fixed-width vectors. Every numeric loop is written once, in these
// operations.
//
//   f32x8   eight floats
//   f16x8   eight halves, held as their 16-bit patterns (IEEE 754 binary16)
//
// Interchangeable backends give the same bits for every operation: NEON with half precision, AVX2 with FMA and F16C,
// AVX-512, and plain C++. What uses the vocabulary is compiled once for each backend (cmake/backends.cmake). The build
// then defines MORUN_BACKEND as the backend's name, which is also the namespace of all that is compiled, and exactly one
// of MORUN_SIMD_NEON, MORUN_SIMD_AVX512, MORUN_SIMD_AVX2 and MORUN_SIMD_PORTABLE.
//
//   load, store               need no alignment
//   store_streaming           writes past the caches; the address is a multiple of the vector's size; a loop of
//                             streaming stores ends with fence_streaming(). Where has_streaming_stores is false, these
//                             are usual stores.
//   store_fours(lower, upper, a)  stores the lower four lanes of an f32x8 at `lower`, the upper four at `upper`
//   broadcast_four            loads four floats into the lower and into the upper lanes
//   broadcast, add, multiply  round once
//   multiply_add(a, b, c)     a * b + c; a * b must be exact in f32, as products of two halves are, so fusing makes no
//                             difference to the result
//   narrow                    converts f32 to f16, to nearest even; overflow gives infinity; subnormals are kept; a NaN
//                             is quieted and keeps its upper payload bits
//   add, multiply, multiply_add  of f16x8: round once, to f16
//   widen                     converts f16 to f32, exactly; a signalling NaN is quieted
//   zip_low, zip_high         a0 b0 a1 b1 ... of the lower (upper) four lanes
//   unzip_even, unzip_odd     the even (odd) lanes of a, then those of b
//   wide_f16                  one or more times eight halves, wide_lanes_of_halves in all; zip_low, zip_high and store
//                             take them too, and zip each eight by itself
//   load_eights(p, pitch)     loads each eight halves of a wide_f16 from one of the addresses p, p + pitch, ...; the
//                             pitch is in bytes
//   transpose_words           transposes 8 rows of 8 32-bit words; row(i) is the address of row i, or rows stand at a
//                             byte pitch; the results stand at a byte pitch
//   transpose_zip_nibbles     transposes likewise and in each word reorders nibbles 0 1 2 3 4 5 6 7 to 0 4 1 5 2 6 3 7
//   lower_fours, upper_fours  the lower (upper) four lanes of a, then those of b; for f16x8 and f32x8
//   sums_of_fours(a, b, c, d)  (0 + 1) + (2 + 3) of the lower four lanes of each, then of the upper four
//   prefetch, prefetch_outer  hints, which allow any address; prefetch_outer leaves the first-level cache alone
//   prefetch_ahead(p, distance)  prefetches the cache line of the element `distance` elements behind p
//
// Long sums in half arithmetic have types of their own, for which a backend may choose registers and rounding mode:
//
//   half8x4                   four times eight halves to multiply
//   half8x4_sum               as many sums; half8x4_sum{} is zero
//   in_half_arithmetic(body)  calls body(); half8x4 sums are formed only inside, where other floating-point arithmetic
//                             is not allowed
//   load_half8x4, load_half8x4_sum  load 32 halves
//   broadcast_half8x4         loads eight halves four times
//   store                     stores sums as f16, or widened to f32
//   accumulate(sum, a, b)     adds a * b and rounds once, to f16
//   half8x4_at_once           the number of sums whose additions fill the processor's units
//
// When a result of half arithmetic is NaN, its payload differs between backends. Code that stores results replaces it.
//
// Operations for quantisation:
//
//   i32x8, u8x32              eight 32-bit integers, thirty-two bytes
//   load_i8                   loads eight signed bytes
//   load_i4                   loads the eight nibbles of a word, least significant first, and extends their signs
//   fused_multiply_add        a * b + c of f32x8, rounded once
//   greater, lesser           a > b ? a : b and a < b ? a : b; the result is b where either is NaN
//   number_or_zero            replaces NaN by 0
//   settle_nan                replaces every NaN by 0x7fc00000
//   to_nearest                rounds f32 to i32, half away from zero; for magnitudes below 2^31
//   to_float                  converts i32 to f32, to nearest even
//   greater_magnitude(p, a)   in each lane the greater of a and the bit pattern of |p[i]|; a NaN is greater than every
//                             number, and which of two NaNs is greater is up to the backend
//   add, sum                  of i32x8, modulo 2^32; sum adds up the lanes
//   greatest                  the greatest lane
//   pack_bytes(a, b, c, d)    converts values of -128 to 127 to bytes, in this order
//   pack_low_bytes            bits 0 to 7 of values of -2^15 to 2^15 - 1
//   pack_high_bytes           bits 8 to 15 of the same
//   scale_to_bytes(p, factor) multiplies 32 floats by the factor, rounded as by multiply and to_nearest, and converts
//                             them to bytes; products have magnitudes up to 127, and twice the factor is finite
//   half_scaler(factor, addend)  scales halves; to be made and used in half arithmetic only
//   scale(p, to)              of a half_scaler: scales 32 halves for round_scaled(); `to` is a scaled_halves, whose content is
//                             up to the backend
//   round_scaled(a, low, high)  gives x * factor + addend of 32 halves x, rounded once to f16, then to integers, half away from
//                             zero, clamped to integer bounds between -128 and 127, as bytes; NaN becomes 0
//   half_extremes             minima and maxima of halves, in lanes; all are the first half to begin with
//   include(extremes, p)      includes 32 halves; a NaN replaces nothing, and is replaced by nothing
//   store(min, max, extremes)  stores the minima and the maxima of eight lanes, widened
//   flip_top_bits             adds 128 to each byte, modulo 2^8
//   add_bytes(sums, a)        adds each unsigned byte to one of the lanes; the backend chooses the lane
//   store_nibbles             stores the low nibbles of 32 bytes as four words, the first nibble least significant
//   store_zipped_nibbles      the same, with the eight nibbles of each word in the order 0 4 1 5 2 6 3 7
//   store_nibble_columns      takes eight rows of 32 bytes, where row(i) is the address of row i, and stores a word of 32
//                             bits for each column: the low nibbles of rows 0 4 1 5 2 6 3 7, least significant first
//
// Operations for long products, in vectors of the backend's full width:
//
//   wide_lanes                lanes of a wide vector: 8, or 16 on AVX-512
//   wide_f32, wide_i32        wide vectors of floats and of 32-bit integers
//   kernel_rows               rows by two wide vectors are as many sums as the registers hold; an even number
//   load_wide, broadcast_wide, store, multiply_add  of wide vectors, as of f32x8 and i32x8
//   broadcast_four_wide       loads four floats into each four lanes
//   widen_wide(p)             loads wide_lanes halves and widens them
//   widen_eights(columns, k, first, second)  columns[i] + k is the address of eight halves for each four lanes of a wide
//                             vector; widens the lower four of each into `first`, the upper four into `second`
//
// Exact products of 32 unsigned bytes of a row and 32 signed weights of each column, modulo 2^32. A step is one word of
// 32 bits: the two or four bytes whose products one instruction adds up. The backend chooses the order of the steps.
//
//   dot_element               the type in which bytes and weights are staged; a word is one step
//   stage_row(row, staged)    takes 32 unsigned bytes of a row and writes their steps
//   stage_columns<bit, n_bit>(rows, panel, pitch)  takes 32 rows of 4 bytes and reads a signed weight from n_bit bits of
//                             each byte, from `bit` on; writes for each step one word of each column; the words of two
//                             steps stand `pitch` elements apart
//   wide_dots, load_dots      one word of each of wide_lanes columns
//   same_dots, broadcast_dots  one word of a row, for all lanes
//   multiply_add(a, b, sum)   adds the products of the weights a and the bytes b to each lane of a wide_i32
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(MORUN_SIMD_NEON)
#  include "simd/neon.h"
#elif defined(MORUN_SIMD_AVX512)
#  include "simd/avx512.h"
#elif defined(MORUN_SIMD_AVX2)
#  include "simd/avx2.h"
#elif defined(MORUN_SIMD_PORTABLE)
#  include "simd/portable.h"
#else
#  error "no vector backend chosen: define MORUN_SIMD_NEON, MORUN_SIMD_AVX512, MORUN_SIMD_AVX2 or MORUN_SIMD_PORTABLE"
#endif

namespace morun::simd::inline MORUN_BACKEND {

inline constexpr size_t cache_line = 64;  // bytes

inline void transpose_words(const std::byte* source, size_t source_pitch, std::byte* destination,
                            size_t destination_pitch) {
  transpose_words([=](size_t i) { return source + i * source_pitch; }, destination, destination_pitch);
}

// The element may lie behind the end of its array, so its address is computed as an integer and never as a pointer.
template <class T>
void prefetch_ahead(const T* p, size_t distance) {
  prefetch(reinterpret_cast<const void*>(reinterpret_cast<uintptr_t>(p) + distance * sizeof(T)));
}

#if !defined(MORUN_SIMD_AVX512) && !defined(MORUN_SIMD_AVX2)
using wide_f16 = f16x8;
inline constexpr size_t wide_lanes_of_halves = 8;
inline wide_f16 load_eights(const std::byte* p, size_t) {
  return load(reinterpret_cast<const uint16_t*>(p));
}
#endif

#if !defined(MORUN_SIMD_AVX512)
// Eight lanes are the width of the long products too.
using wide_f32 = f32x8;
using wide_i32 = i32x8;
inline constexpr size_t wide_lanes = 8;
inline wide_f32 load_wide(const float* p) {
  return load(p);
}
inline wide_i32 load_wide(const int32_t* p) {
  return load(p);
}
inline wide_f32 broadcast_wide(float x) {
  return broadcast(x);
}
inline wide_f32 broadcast_four_wide(const float* p) {
  return broadcast_four(p);
}
inline wide_f32 widen_wide(const uint16_t* p) {
  return widen(load(p));
}
inline void widen_eights(const uint16_t* const* columns, size_t k, wide_f32& first, wide_f32& second) {
  const f32x8 left = widen(load(columns[0] + k)), right = widen(load(columns[1] + k));
  first = lower_fours(left, right);
  second = upper_fours(left, right);
}
#endif

#if !defined(MORUN_SIMD_HALF8X4)
inline constexpr size_t half8x4_at_once = 4;
// The backend gives half8 and half8_sum, which hold eight halves and eight sums.
// Members with names, because compilers keep an array that is indexed in a loop in memory.
struct half8x4 {
  half8 a, b, c, d;
};
inline half8x4 load_half8x4(const uint16_t* p) {
  return {load_half8(p), load_half8(p + 8), load_half8(p + 16), load_half8(p + 24)};
}
inline half8x4 broadcast_half8x4(const uint16_t* p) {
  const half8 same = load_half8(p);
  return {same, same, same, same};
}
struct half8x4_sum {
  half8_sum a, b, c, d;
};
inline half8x4_sum load_half8x4_sum(const uint16_t* p) {
  return {load_half8_sum(p), load_half8_sum(p + 8), load_half8_sum(p + 16), load_half8_sum(p + 24)};
}
template <class T>
inline void store(T* p, const half8x4_sum& sum) {
  store(p, sum.a);
  store(p + 8, sum.b);
  store(p + 16, sum.c);
  store(p + 24, sum.d);
}
inline void accumulate(half8x4_sum& sum, const half8x4& x, const half8x4& y) {
  accumulate(sum.a, x.a, y.a);
  accumulate(sum.b, x.b, y.b);
  accumulate(sum.c, x.c, y.c);
  accumulate(sum.d, x.d, y.d);
}

struct half_extremes {
  explicit half_extremes(uint16_t first)
      : min{broadcast(widen_bits(first)), broadcast(widen_bits(first))}, max{min[0], min[1]} {}
  f32x8 min[2], max[2];
};
inline void include(half_extremes& extremes, const uint16_t* p) {
#  pragma GCC unroll 4
  for (size_t i = 0; i < 4; ++i) {
    const f32x8 x = widen(load(p + 8 * i));
    extremes.min[i % 2] = lesser(x, extremes.min[i % 2]);
    extremes.max[i % 2] = greater(x, extremes.max[i % 2]);
  }
}
inline void store(float* min, float* max, const half_extremes& extremes) {
  store(min, lesser(extremes.min[0], extremes.min[1]));
  store(max, greater(extremes.max[0], extremes.max[1]));
}

#  if !defined(MORUN_SIMD_HALF_SCALER)
inline u8x32 round_halves(const uint16_t* p, float low, float high) {
  i32x8 v[4];
  for (size_t i = 0; i < 4; ++i) {
    // Clamping before rounding gives the same result as clamping afterwards, because the bounds are integers.
    const f32x8 number = number_or_zero(widen(load(p + 8 * i)));
    v[i] = to_nearest(lesser(greater(number, broadcast(low)), broadcast(high)));
  }
  return pack_bytes(v[0], v[1], v[2], v[3]);
}
#  endif
#endif

#if !defined(MORUN_SIMD_HALF_SCALER)
struct scaled_halves {
  alignas(64) uint16_t halves[32];
};

class half_scaler {
 public:
  half_scaler(uint16_t factor, uint16_t addend) {
    uint16_t factors[8], addends[32];
    for (uint16_t& one : factors) one = factor;
    for (uint16_t& one : addends) one = addend;
    factor_ = broadcast_half8x4(factors);
    addend_ = load_half8x4_sum(addends);
  }
  void scale(const uint16_t* p, scaled_halves& to) const {
    half8x4_sum sum = addend_;
    accumulate(sum, load_half8x4(p), factor_);
    store(to.halves, sum);
  }

 private:
  half8x4 factor_;
  half8x4_sum addend_;
};

inline u8x32 round_scaled(const scaled_halves& a, float low, float high) {
  return round_halves(a.halves, low, high);
}
#endif

}  // namespace morun::simd::inline MORUN_BACKEND
