// The vector vocabulary on x86-64 with AVX2, FMA and F16C.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "simd/scalar.h"

namespace morun::simd::inline MORUN_BACKEND {

struct f32x8 {
  __m256 v;
};
struct f16x8 {
  __m128i v;
};

inline f32x8 load(const float* p) {
  return {_mm256_loadu_ps(p)};
}
inline f16x8 load(const uint16_t* p) {
  return {_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))};
}
inline void store(float* p, f32x8 a) {
  _mm256_storeu_ps(p, a.v);
}
inline void store(uint16_t* p, f16x8 a) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), a.v);
}
inline void store_streaming(float* p, f32x8 a) {
  _mm256_stream_ps(p, a.v);
}
inline void store_streaming(uint16_t* p, f16x8 a) {
  _mm_stream_si128(reinterpret_cast<__m128i*>(p), a.v);
}
inline constexpr bool has_streaming_stores = true;
inline void fence_streaming() {
  _mm_sfence();
}
inline void prefetch(const void* p) {
  _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
}
inline void prefetch_outer(const void* p) {
  _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T1);
}
inline void store_fours(float* lower, float* upper, f32x8 a) {
  _mm_storeu_ps(lower, _mm256_castps256_ps128(a.v));
  _mm_storeu_ps(upper, _mm256_extractf128_ps(a.v, 1));
}

inline f32x8 broadcast(float x) {
  return {_mm256_set1_ps(x)};
}
inline f32x8 broadcast_four(const float* p) {
  return {_mm256_broadcast_ps(reinterpret_cast<const __m128*>(p))};
}
inline f32x8 add(f32x8 a, f32x8 b) {
  return {_mm256_add_ps(a.v, b.v)};
}
inline f32x8 multiply(f32x8 a, f32x8 b) {
  return {_mm256_mul_ps(a.v, b.v)};
}
inline f32x8 multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  return {_mm256_fmadd_ps(a.v, b.v, c.v)};
}
inline f32x8 sums_of_fours(f32x8 a, f32x8 b, f32x8 c, f32x8 d) {
  return {_mm256_hadd_ps(_mm256_hadd_ps(a.v, b.v), _mm256_hadd_ps(c.v, d.v))};
}

inline f16x8 narrow(f32x8 a) {
  return {_mm256_cvtps_ph(a.v, _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC)};
}
inline f32x8 widen(f16x8 a) {
  return {_mm256_cvtph_ps(a.v)};
}

inline f16x8 zip_low(f16x8 a, f16x8 b) {
  return {_mm_unpacklo_epi16(a.v, b.v)};
}
inline f16x8 zip_high(f16x8 a, f16x8 b) {
  return {_mm_unpackhi_epi16(a.v, b.v)};
}

#if !defined(MORUN_SIMD_AVX512)
struct wide_f16 {
  __m256i v;
};
inline constexpr size_t wide_lanes_of_halves = 16;
inline wide_f16 load_eights(const std::byte* p, size_t pitch) {
  const auto eight = [=](size_t i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i * pitch)); };
  return {_mm256_inserti128_si256(_mm256_castsi128_si256(eight(0)), eight(1), 1)};
}
inline wide_f16 zip_low(wide_f16 a, wide_f16 b) {
  return {_mm256_unpacklo_epi16(a.v, b.v)};
}
inline wide_f16 zip_high(wide_f16 a, wide_f16 b) {
  return {_mm256_unpackhi_epi16(a.v, b.v)};
}
inline void store(uint16_t* p, wide_f16 a) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a.v);
}
#endif

inline f16x8 lower_fours(f16x8 a, f16x8 b) {
  return {_mm_unpacklo_epi64(a.v, b.v)};
}
inline f16x8 upper_fours(f16x8 a, f16x8 b) {
  return {_mm_unpackhi_epi64(a.v, b.v)};
}
inline f32x8 lower_fours(f32x8 a, f32x8 b) {
  return {_mm256_permute2f128_ps(a.v, b.v, 0x20)};
}
inline f32x8 upper_fours(f32x8 a, f32x8 b) {
  return {_mm256_permute2f128_ps(a.v, b.v, 0x31)};
}

// Moves even lanes to the lower half and odd lanes to the upper half.
inline __m128i part_lanes(__m128i a) {
  return _mm_shuffle_epi8(a, _mm_setr_epi8(0, 1, 4, 5, 8, 9, 12, 13, 2, 3, 6, 7, 10, 11, 14, 15));
}
inline f16x8 unzip_even(f16x8 a, f16x8 b) {
  return {_mm_unpacklo_epi64(part_lanes(a.v), part_lanes(b.v))};
}
inline f16x8 unzip_odd(f16x8 a, f16x8 b) {
  return {_mm_unpackhi_epi64(part_lanes(a.v), part_lanes(b.v))};
}

inline __m256i zip_nibbles(__m256i words) {
  const __m256i swap_middle_bytes = _mm256_setr_epi8(0, 2, 1, 3, 4, 6, 5, 7, 8, 10, 9, 11, 12, 14, 13, 15,  //
                                                     0, 2, 1, 3, 4, 6, 5, 7, 8, 10, 9, 11, 12, 14, 13, 15);
  const __m256i swapped = _mm256_shuffle_epi8(words, swap_middle_bytes);
  const __m256i differing =
      _mm256_and_si256(_mm256_xor_si256(swapped, _mm256_srli_epi16(swapped, 4)), _mm256_set1_epi16(0x00f0));
  return _mm256_xor_si256(swapped, _mm256_xor_si256(differing, _mm256_slli_epi16(differing, 4)));
}

// Rows i and i + 4 are loaded into the two halves of one register. No exchange between the halves is needed then.
template <class Row, class Map>
inline void transpose_words_with(const Row& row, std::byte* destination, size_t destination_pitch, Map map) {
  for (size_t half = 0; half < 2; ++half) {  // columns 0 to 3, then 4 to 7
    const auto load = [&](size_t i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(row(i) + 16 * half)); };
    const auto load_rows = [&](size_t i) {
      return map(_mm256_inserti128_si256(_mm256_castsi128_si256(load(i)), load(i + 4), 1));
    };
    const auto store_column = [&](size_t column, __m256i words) {
      std::byte* p = destination + (4 * half + column) * destination_pitch;
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), words);
    };
    const __m256i r0 = load_rows(0), r1 = load_rows(1), r2 = load_rows(2), r3 = load_rows(3);
    const __m256i low01 = _mm256_unpacklo_epi32(r0, r1), high01 = _mm256_unpackhi_epi32(r0, r1);
    const __m256i low23 = _mm256_unpacklo_epi32(r2, r3), high23 = _mm256_unpackhi_epi32(r2, r3);
    store_column(0, _mm256_unpacklo_epi64(low01, low23));
    store_column(1, _mm256_unpackhi_epi64(low01, low23));
    store_column(2, _mm256_unpacklo_epi64(high01, high23));
    store_column(3, _mm256_unpackhi_epi64(high01, high23));
  }
}
template <class Row>
inline void transpose_words(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](__m256i words) { return words; });
}
template <class Row>
inline void transpose_zip_nibbles(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](__m256i words) { return zip_nibbles(words); });
}

// Operations for quantisation.

struct i32x8 {
  __m256i v;
};
struct u8x32 {
  __m256i v;
};

inline i32x8 load(const int32_t* p) {
  return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
}
inline i32x8 load_i8(const int8_t* p) {
  return {_mm256_cvtepi8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p)))};
}
inline i32x8 load_i4(const uint32_t* p) {
  const __m256i word = _mm256_broadcastd_epi32(_mm_loadu_si32(p));
  const __m256i at_top = _mm256_sllv_epi32(word, _mm256_setr_epi32(28, 24, 20, 16, 12, 8, 4, 0));
  return {_mm256_srai_epi32(at_top, 28)};
}
inline void store(int32_t* p, i32x8 a) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a.v);
}
inline void store_streaming(int32_t* p, i32x8 a) {
  _mm256_stream_si256(reinterpret_cast<__m256i*>(p), a.v);
}
inline u8x32 load(const uint8_t* p) {
  return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
}
inline void store(uint8_t* p, u8x32 a) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), a.v);
}
inline void store_streaming(uint8_t* p, u8x32 a) {
  _mm256_stream_si256(reinterpret_cast<__m256i*>(p), a.v);
}

inline f32x8 fused_multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  return {_mm256_fmadd_ps(a.v, b.v, c.v)};
}
inline f32x8 greater(f32x8 a, f32x8 b) {
  return {_mm256_max_ps(a.v, b.v)};
}
inline f32x8 lesser(f32x8 a, f32x8 b) {
  return {_mm256_min_ps(a.v, b.v)};
}
inline f32x8 number_or_zero(f32x8 a) {
  return {_mm256_and_ps(a.v, _mm256_cmp_ps(a.v, a.v, _CMP_ORD_Q))};
}
inline f32x8 settle_nan(f32x8 a) {
  const __m256 nan = _mm256_castsi256_ps(_mm256_set1_epi32(0x7fc00000));
  return {_mm256_blendv_ps(a.v, nan, _mm256_cmp_ps(a.v, a.v, _CMP_UNORD_Q))};
}
inline i32x8 to_nearest(f32x8 a) {
  // Adding the largest float below 0.5 takes a fraction of 0.5 to the next whole number, and no smaller fraction.
  const __m256 half = _mm256_set1_ps(0x0.ffffffp-1f);
  const __m256 signed_half = _mm256_or_ps(half, _mm256_and_ps(a.v, _mm256_set1_ps(-0.0f)));
  return {_mm256_cvttps_epi32(_mm256_add_ps(a.v, signed_half))};
}
inline f32x8 to_float(i32x8 a) {
  return {_mm256_cvtepi32_ps(a.v)};
}

inline i32x8 greater_magnitude(const float* p, i32x8 a) {
  const __m256i bits = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
  return {_mm256_max_epi32(_mm256_and_si256(bits, _mm256_set1_epi32(0x7fffffff)), a.v)};
}
inline i32x8 greater(i32x8 a, i32x8 b) {
  return {_mm256_max_epi32(a.v, b.v)};
}
inline i32x8 add(i32x8 a, i32x8 b) {
  return {_mm256_add_epi32(a.v, b.v)};
}
inline int32_t greatest(i32x8 a) {
  const __m128i four = _mm_max_epi32(_mm256_castsi256_si128(a.v), _mm256_extracti128_si256(a.v, 1));
  const __m128i two = _mm_max_epi32(four, _mm_shuffle_epi32(four, 0x4e));
  return _mm_cvtsi128_si32(_mm_max_epi32(two, _mm_shuffle_epi32(two, 0xb1)));
}
inline uint32_t sum(i32x8 a) {
  const __m128i four = _mm_add_epi32(_mm256_castsi256_si128(a.v), _mm256_extracti128_si256(a.v, 1));
  const __m128i two = _mm_add_epi32(four, _mm_shuffle_epi32(four, 0x4e));
  return static_cast<uint32_t>(_mm_cvtsi128_si32(_mm_add_epi32(two, _mm_shuffle_epi32(two, 0xb1))));
}

// The pack instructions work on each half of a register separately and leave the groups of four bytes in the order 0 2
// 4 6 1 3 5 7.
inline u8x32 order_groups(__m256i packed) {
  return {_mm256_permutevar8x32_epi32(packed, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7))};
}
// Cuts values beyond -128 and 127 to these bounds.
inline u8x32 pack_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return order_groups(_mm256_packs_epi16(_mm256_packs_epi32(a.v, b.v), _mm256_packs_epi32(c.v, d.v)));
}
inline u8x32 pack_low_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  const __m256i low = _mm256_set1_epi16(0xff);
  return order_groups(_mm256_packus_epi16(_mm256_and_si256(_mm256_packs_epi32(a.v, b.v), low),
                                          _mm256_and_si256(_mm256_packs_epi32(c.v, d.v), low)));
}
inline u8x32 pack_high_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return order_groups(_mm256_packs_epi16(_mm256_srai_epi16(_mm256_packs_epi32(a.v, b.v), 8),
                                         _mm256_srai_epi16(_mm256_packs_epi32(c.v, d.v), 8)));
}
// Twice a product, truncated, tells how the product rounds: half of its magnitude, rounded up, is the rounded product.
inline u8x32 scale_to_bytes(const float* p, f32x8 factor) {
  const f32x8 twice_factor = add(factor, factor);
  const auto twice = [&](size_t i) { return _mm256_cvttps_epi32(multiply(load(p + 8 * i), twice_factor).v); };
  const __m256i low = _mm256_packs_epi32(twice(0), twice(1)), high = _mm256_packs_epi32(twice(2), twice(3));
  const __m256i magnitudes = _mm256_packus_epi16(_mm256_abs_epi16(low), _mm256_abs_epi16(high));
  const __m256i rounded = _mm256_avg_epu8(magnitudes, _mm256_setzero_si256());
  const __m256i bytes = _mm256_sign_epi8(rounded, _mm256_packs_epi16(low, high));
  return {_mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7))};
}
inline u8x32 flip_top_bits(u8x32 a) {
  return {_mm256_xor_si256(a.v, _mm256_set1_epi8(-128))};
}
inline i32x8 add_bytes(i32x8 sums, u8x32 a) {
  return {_mm256_add_epi32(sums.v, _mm256_sad_epu8(a.v, _mm256_setzero_si256()))};
}
inline void store_nibbles(uint32_t* p, u8x32 a) {
  const __m256i nibbles = _mm256_and_si256(a.v, _mm256_set1_epi8(15));
  const __m256i pairs = _mm256_maddubs_epi16(nibbles, _mm256_set1_epi16(0x1001));  // even + 16 * odd
  const __m128i bytes = _mm_packus_epi16(_mm256_castsi256_si128(pairs), _mm256_extracti128_si256(pairs, 1));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), bytes);
}
inline void store_zipped_nibbles(uint32_t* p, u8x32 a) {
  const __m256i nibbles = _mm256_and_si256(a.v, _mm256_set1_epi8(15));
  const __m256i fours = _mm256_or_si256(nibbles, _mm256_srli_epi64(nibbles, 28));  // valid in every other word
  const __m256i words = _mm256_permutevar8x32_epi32(fours, _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6));
  _mm_storeu_si128(reinterpret_cast<__m128i*>(p), _mm256_castsi256_si128(words));
}
template <class Row>
inline void store_nibble_columns(uint8_t* p, const Row& row) {
  const auto pair = [&](size_t i) {
    const __m256i low = _mm256_and_si256(load(row(i)).v, _mm256_set1_epi8(15));
    return _mm256_or_si256(low, _mm256_and_si256(_mm256_slli_epi16(load(row(i + 4)).v, 4), _mm256_set1_epi8(-16)));
  };
  const __m256i a = pair(0), b = pair(1), c = pair(2), d = pair(3);
  const __m256i low01 = _mm256_unpacklo_epi8(a, b), high01 = _mm256_unpackhi_epi8(a, b);
  const __m256i low23 = _mm256_unpacklo_epi8(c, d), high23 = _mm256_unpackhi_epi8(c, d);
  // Each holds four columns, and in its upper half the columns 16 behind them.
  const __m256i from0 = _mm256_unpacklo_epi16(low01, low23), from4 = _mm256_unpackhi_epi16(low01, low23);
  const __m256i from8 = _mm256_unpacklo_epi16(high01, high23), from12 = _mm256_unpackhi_epi16(high01, high23);
  store(p, u8x32{_mm256_permute2x128_si256(from0, from4, 0x20)});
  store(p + 32, u8x32{_mm256_permute2x128_si256(from8, from12, 0x20)});
  store(p + 64, u8x32{_mm256_permute2x128_si256(from0, from4, 0x31)});
  store(p + 96, u8x32{_mm256_permute2x128_si256(from8, from12, 0x31)});
}

#if !defined(__AVX512VNNI__)

// Operations for exact products of small integers: an instruction adds up the products of two pairs.

using dot_element = int16_t;

inline void stage_row(const uint8_t* row, dot_element* staged) {
  const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(staged), _mm256_and_si256(bytes, _mm256_set1_epi16(0xff)));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(staged + 16), _mm256_srli_epi16(bytes, 8));
}
template <int bit, int n_bit>
inline void stage_columns(const uint8_t* rows, dot_element* panel, size_t pitch) {
  const __m256i transpose = _mm256_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15,  //
                                             0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  const auto store_steps = [&](size_t step, __m256i pairs) {
    _mm_storeu_si128(reinterpret_cast<__m128i*>(panel + step * pitch), _mm256_castsi256_si128(pairs));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(panel + (step + 1) * pitch), _mm256_extracti128_si256(pairs, 1));
  };
  for (size_t step = 0; step < 8; step += 2) {
    const __m256i words = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows + 16 * step));
    const __m256i columns = _mm256_shuffle_epi8(words, transpose);  // in each half, four rows of each of four columns
    store_steps(step, _mm256_srai_epi16(_mm256_slli_epi16(columns, 16 - bit - n_bit), 16 - n_bit));
    store_steps(8 + step, _mm256_srai_epi16(_mm256_slli_epi16(columns, 8 - bit - n_bit), 16 - n_bit));
  }
}

#endif

#if !defined(MORUN_SIMD_AVX512)

struct wide_dots {
  __m256i v;
};

inline wide_dots load_dots(const int16_t* p) {
  return {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p))};
}
using same_dots = wide_dots;
inline same_dots broadcast_dots(const int16_t* p) {
  return {_mm256_broadcastd_epi32(_mm_loadu_si32(p))};
}
inline i32x8 multiply_add(wide_dots a, same_dots b, i32x8 sum) {
  return {_mm256_add_epi32(sum.v, _mm256_madd_epi16(a.v, b.v))};
}

inline constexpr size_t kernel_rows = 6;

#endif

}  // namespace morun::simd::inline MORUN_BACKEND

#if defined(__AVX512FP16__)
#  include "simd/avx512_half.h"
#else
#  include "simd/avx2_half.h"
#endif
