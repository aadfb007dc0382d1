// The vector vocabulary on x86-64 with AVX2, FMA and F16C.
#pragma once

#include <immintrin.h>

#include <cstddef>
#include <cstdint>

#include "source/simd/scalar.h"

namespace morun::simd {

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
inline void fence_streaming() {
  _mm_sfence();
}
inline void prefetch(const void* p) {
  _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
}

inline f32x8 broadcast(float x) {
  return {_mm256_set1_ps(x)};
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

// Even lanes to the lower half, odd lanes to the upper half.
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

// Rows i and i + 4 are loaded into the two halves of one register, so that no exchange between halves is needed.
template <class Map>
inline void transpose_words_with(const std::byte* source, size_t source_pitch, std::byte* destination,
                                 size_t destination_pitch, Map map) {
  for (size_t half = 0; half < 2; ++half) {  // columns 0 to 3, then 4 to 7
    const auto load_rows = [&](size_t row) {
      const std::byte* p = source + row * source_pitch + 16 * half;
      const __m128i upper = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + 4 * source_pitch));
      return map(_mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))),
                                         upper, 1));
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
inline void transpose_words(const std::byte* source, size_t source_pitch, std::byte* destination,
                            size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch, [](__m256i words) { return words; });
}
inline void transpose_zip_nibbles(const std::byte* source, size_t source_pitch, std::byte* destination,
                                  size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch,
                       [](__m256i words) { return zip_nibbles(words); });
}

}  // namespace morun::simd
