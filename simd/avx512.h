// The vector vocabulary on x86-64 with AVX-512 (F, BW, CD, DQ, VL). Operations over eight lanes are those of AVX2.
#pragma once

#include "simd/avx2.h"

namespace morun::simd::inline MORUN_BACKEND {

struct wide_f32 {
  __m512 v;
};
struct wide_i32 {
  __m512i v;
};
inline constexpr size_t wide_lanes = 16;
inline constexpr size_t kernel_rows = 12;

inline wide_f32 load_wide(const float* p) {
  return {_mm512_loadu_ps(p)};
}
inline wide_i32 load_wide(const int32_t* p) {
  return {_mm512_loadu_si512(p)};
}
inline void store(float* p, wide_f32 a) {
  _mm512_storeu_ps(p, a.v);
}
inline void store(int32_t* p, wide_i32 a) {
  _mm512_storeu_si512(p, a.v);
}
inline wide_f32 broadcast_wide(float x) {
  return {_mm512_set1_ps(x)};
}
inline wide_f32 broadcast_four_wide(const float* p) {
  return {_mm512_broadcast_f32x4(_mm_loadu_ps(p))};
}
inline void widen_eights(const uint16_t* const* columns, size_t k, wide_f32& first, wide_f32& second) {
  const auto load_two = [&](size_t i) {
    const auto eight = [&](size_t j) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(columns[j] + k)); };
    return _mm256_inserti128_si256(_mm256_castsi128_si256(eight(i)), eight(i + 2), 1);
  };
  const __m256i even = load_two(0), odd = load_two(1);
  first = {_mm512_cvtph_ps(_mm256_unpacklo_epi64(even, odd))};
  second = {_mm512_cvtph_ps(_mm256_unpackhi_epi64(even, odd))};
}
struct wide_f16 {
  __m512i v;
};
inline constexpr size_t wide_lanes_of_halves = 32;
inline wide_f16 load_eights(const std::byte* p, size_t pitch) {
  const auto eight = [=](size_t i) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + i * pitch)); };
  const __m512i lower = _mm512_inserti32x4(_mm512_castsi128_si512(eight(0)), eight(1), 1);
  return {_mm512_inserti32x4(_mm512_inserti32x4(lower, eight(2), 2), eight(3), 3)};
}
inline wide_f16 zip_low(wide_f16 a, wide_f16 b) {
  return {_mm512_unpacklo_epi16(a.v, b.v)};
}
inline wide_f16 zip_high(wide_f16 a, wide_f16 b) {
  return {_mm512_unpackhi_epi16(a.v, b.v)};
}
inline void store(uint16_t* p, wide_f16 a) {
  _mm512_storeu_si512(p, a.v);
}
inline wide_f32 widen_wide(const uint16_t* p) {
  return {_mm512_cvtph_ps(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(p)))};
}
inline wide_f32 multiply_add(wide_f32 a, wide_f32 b, wide_f32 c) {
  return {_mm512_fmadd_ps(a.v, b.v, c.v)};
}

// Operations for exact products of small integers.

struct wide_dots {
  __m512i v;
};
using same_dots = wide_dots;

#if defined(__AVX512VNNI__)

// One instruction adds the products of four bytes to a lane.
using dot_element = uint8_t;

inline wide_i32 multiply_add(wide_dots a, same_dots b, wide_i32 sum) {
  return {_mm512_dpbusd_epi32(sum.v, b.v, a.v)};
}
inline void stage_row(const uint8_t* row, dot_element* staged) {
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(staged), _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row)));
}
template <int bit, int n_bit>
inline void stage_columns(const uint8_t* rows, dot_element* panel, size_t pitch) {
  const __m128i transpose = _mm_setr_epi8(0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15);
  for (size_t step = 0; step < 8; ++step) {
    __m128i columns = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows + 16 * step));
    if constexpr (n_bit == 4) {
      const __m128i top = _mm_set1_epi8(8);
      columns = _mm_and_si128(_mm_srli_epi16(columns, bit), _mm_set1_epi8(15));
      columns = _mm_sub_epi8(_mm_xor_si128(columns, top), top);
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(panel + step * pitch), _mm_shuffle_epi8(columns, transpose));
  }
}

#else

inline wide_i32 multiply_add(wide_dots a, same_dots b, wide_i32 sum) {
  return {_mm512_add_epi32(sum.v, _mm512_madd_epi16(a.v, b.v))};
}

#endif

inline wide_dots load_dots(const dot_element* p) {
  return {_mm512_loadu_si512(p)};
}
inline same_dots broadcast_dots(const dot_element* p) {
  return {_mm512_set1_epi32(_mm_cvtsi128_si32(_mm_loadu_si32(p)))};
}

}  // namespace morun::simd::inline MORUN_BACKEND
