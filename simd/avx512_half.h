// Half-precision arithmetic on x86-64 processors that have it. These instructions round to nearest and keep subnormals
// whatever the control register says of f32, except for the direction of rounding, which the library never changes here.
// simd/avx2.h includes this file.
#pragma once

namespace morun::simd::inline MORUN_BACKEND {

inline f16x8 add(f16x8 a, f16x8 b) {
  return {_mm_castph_si128(_mm_add_ph(_mm_castsi128_ph(a.v), _mm_castsi128_ph(b.v)))};
}
inline f16x8 multiply(f16x8 a, f16x8 b) {
  return {_mm_castph_si128(_mm_mul_ph(_mm_castsi128_ph(a.v), _mm_castsi128_ph(b.v)))};
}
inline f16x8 multiply_add(f16x8 a, f16x8 b, f16x8 c) {
  return {_mm_castph_si128(_mm_fmadd_ph(_mm_castsi128_ph(a.v), _mm_castsi128_ph(b.v), _mm_castsi128_ph(c.v)))};
}

template <class Body>
inline void in_half_arithmetic(const Body& body) {
  body();
}

// A row of halves is broadcast to the four parts of a register, and four columns of weights fill another.
#define MORUN_SIMD_HALF8X4
inline constexpr size_t half8x4_at_once = 8;
struct half8x4 {
  __m512h v;
};
inline half8x4 load_half8x4(const uint16_t* p) {
  return {_mm512_loadu_ph(p)};
}
inline half8x4 broadcast_half8x4(const uint16_t* p) {
  return {_mm512_castsi512_ph(_mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(p))))};
}
struct half8x4_sum {
  __m512h v;
};
inline half8x4_sum load_half8x4_sum(const uint16_t* p) {
  return {_mm512_loadu_ph(p)};
}
inline void store(uint16_t* p, const half8x4_sum& a) {
  _mm512_storeu_ph(p, a.v);
}
inline void store(float* p, const half8x4_sum& a) {
  const __m512i halves = _mm512_castph_si512(a.v);
  _mm512_storeu_ps(p, _mm512_cvtph_ps(_mm512_castsi512_si256(halves)));
  _mm512_storeu_ps(p + 16, _mm512_cvtph_ps(_mm512_extracti64x4_epi64(halves, 1)));
}
inline void accumulate(half8x4_sum& sum, const half8x4& a, const half8x4& b) {
  sum.v = _mm512_fmadd_ph(a.v, b.v, sum.v);
}

inline __m512h broadcast_half(uint16_t half) {
  return _mm512_castsi512_ph(_mm512_set1_epi16(static_cast<int16_t>(half)));
}

struct half_extremes {
  explicit half_extremes(uint16_t first) : min(broadcast_half(first)), max(min) {}
  __m512h min, max;
};
inline void include(half_extremes& extremes, const uint16_t* p) {
  const __m512h x = _mm512_loadu_ph(p);
  extremes.min = _mm512_min_ph(x, extremes.min);
  extremes.max = _mm512_max_ph(x, extremes.max);
}
inline void store(float* min, float* max, const half_extremes& extremes) {
  const auto fold = [](float* p, __m512h lanes, auto better) {
    uint16_t halves[32];
    _mm512_storeu_ph(halves, lanes);
    const auto eight = [&](size_t i) { return widen(load(halves + 8 * i)); };
    store(p, better(better(eight(0), eight(1)), better(eight(2), eight(3))));
  };
  fold(min, extremes.min, [](f32x8 a, f32x8 b) { return lesser(a, b); });
  fold(max, extremes.max, [](f32x8 a, f32x8 b) { return greater(a, b); });
}

// As in to_nearest, adding the largest half below 0.5 takes a fraction of 0.5 to the next whole number, and no smaller
// fraction.
inline u8x32 round_halves(const uint16_t* p, float low, float high) {
  const __m512h x = _mm512_loadu_ph(p);
  const __mmask32 is_number = _mm512_cmp_ph_mask(x, x, _CMP_ORD_Q);
  const __m512h clamped =
      _mm512_min_ph(_mm512_max_ph(x, broadcast_half(narrow_bits(low))), broadcast_half(narrow_bits(high)));
  const __m512i sign = _mm512_and_si512(_mm512_castph_si512(x), _mm512_set1_epi16(INT16_MIN));
  const __m512h signed_half = _mm512_castsi512_ph(_mm512_or_si512(sign, _mm512_set1_epi16(0x37ff)));
  const __m512i rounded = _mm512_maskz_cvttph_epi16(is_number, _mm512_add_ph(clamped, signed_half));
  return {_mm512_cvtepi16_epi8(rounded)};
}

}  // namespace morun::simd::inline MORUN_BACKEND
