// Half-precision arithmetic on x86-64 processors that compute in f32. simd/avx2.h includes this file.
#pragma once

namespace morun::simd::inline MORUN_BACKEND {

// A sum or product of halves has the same value whether it is rounded to f32 and then to f16, or to f16 at once.
inline f16x8 add(f16x8 a, f16x8 b) {
  return narrow(add(widen(a), widen(b)));
}
inline f16x8 multiply(f16x8 a, f16x8 b) {
  return narrow(multiply(widen(a), widen(b)));
}
// The vector form of add_to_odd.
inline f16x8 multiply_add(f16x8 a, f16x8 b, f16x8 c) {
  const __m256 product = _mm256_mul_ps(widen(a).v, widen(b).v), addend = widen(c).v;  // the product is exact
  const __m256 sum = _mm256_add_ps(product, addend);
  const __m256 of_addend = _mm256_sub_ps(sum, product), of_product = _mm256_sub_ps(sum, of_addend);
  const __m256 rest = _mm256_add_ps(_mm256_sub_ps(product, of_product), _mm256_sub_ps(addend, of_addend));
  const __m256i inexact = _mm256_castps_si256(_mm256_cmp_ps(rest, _mm256_setzero_ps(), _CMP_NEQ_OQ));
  const __m256i past = _mm256_and_si256(inexact, _mm256_srai_epi32(_mm256_castps_si256(_mm256_xor_ps(sum, rest)), 31));
  const __m256i truncated = _mm256_add_epi32(_mm256_castps_si256(sum), past);
  return narrow({_mm256_castsi256_ps(_mm256_or_si256(truncated, _mm256_srli_epi32(inexact, 31)))});
}

// Half arithmetic in f32 registers takes five operations for each step. During the sum the rounding mode is toward
// zero.
struct half8 {
  __m256 v;
};

inline half8 load_half8(const uint16_t* p) {
  return {widen(load(p)).v};
}

// A sum is held as halves in memory. Loads widen and stores narrow, which saves two operations over sums in registers.
// There are more sums than registers in any case.
struct half8_sum {
  f16x8 halves;
};

inline half8_sum load_half8_sum(const uint16_t* p) {
  return {load(p)};
}
inline void store(uint16_t* p, const half8_sum& a) {
  store(p, a.halves);
}
inline void store(float* p, const half8_sum& a) {
  store(p, widen(a.halves));
}
inline void keep_in_memory(half8_sum& sum) {
  asm("" : "+m"(sum));
}
inline void accumulate(half8_sum& sum, half8 a, half8 b) {
  keep_in_memory(sum);
  const __m256 before = widen(sum.halves).v;
  const __m256 truncated = _mm256_fmadd_ps(a.v, b.v, before);
  const __m256 difference = _mm256_fnmadd_ps(a.v, b.v, truncated);  // equals `before` unless the addition cut bits off
  const __m256 inexact = _mm256_cmp_ps(difference, before, _CMP_NEQ_OQ);
  const __m256 odd = _mm256_or_ps(truncated, _mm256_and_ps(inexact, _mm256_castsi256_ps(_mm256_set1_epi32(1))));
  sum.halves = narrow({odd});
  keep_in_memory(sum);
}

class RoundingTowardZero {
 public:
  RoundingTowardZero() : previous_(_mm_getcsr()) { set(previous_ | _MM_ROUND_TOWARD_ZERO); }
  ~RoundingTowardZero() { set(previous_); }
  RoundingTowardZero(const RoundingTowardZero&) = delete;
  RoundingTowardZero& operator=(const RoundingTowardZero&) = delete;

 private:
  static void set(unsigned mode) { asm volatile("ldmxcsr %0" : : "m"(mode) : "memory"); }
  unsigned previous_;
};

// Rounding to a half and then to an integer in one step takes half as many operations as two roundings.
//
// Negative sums mirror positive ones. For k >= 0, the halves from k + 0.5 to below k + 1.5 round to k + 1. A sum rounds to
// k + 0.5 or to a greater half when it is at least k + 0.5 less half a unit in the last place of the half below k + 0.5. A
// tie goes up, because k + 0.5 is an even multiple of the unit. Half a unit is 2^-11 times the greatest power of two that
// is not above the sum. f32 can hold the least such sum, so cutting sums off toward zero takes none below it or up to it.
// All this holds up to 2^9, beyond the bounds of a byte.
#define MORUN_SIMD_HALF_SCALER
struct scaled_halves {
  alignas(32) uint8_t bytes[32];  // rounded, and clamped to a signed byte
};

class half_scaler {
 public:
  half_scaler(uint16_t factor, uint16_t addend)
      : factor_(_mm256_set1_ps(widen_bits(factor))), addend_(_mm256_set1_ps(widen_bits(addend))) {}

  void scale(const uint16_t* p, scaled_halves& to) const {
    // On AVX2, pack_bytes cuts greater integers to 127 and lesser ones to -128.
    store(to.bytes, pack_bytes(integers(p), integers(p + 8), integers(p + 16), integers(p + 24)));
  }

 private:
  // Returns the integers of eight sums. A sum below -128 gives some integer below -128, one above 127 gives 128.
  i32x8 integers(const uint16_t* p) const {
    const __m256 sum = _mm256_fmadd_ps(widen(load(p)).v, factor_, addend_);
    const __m256 power = _mm256_and_ps(sum, _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(0xff800000))));
    const __m256 raised = _mm256_fmadd_ps(power, _mm256_set1_ps(0x1p-11f), sum);
    const __m256 number = _mm256_and_ps(raised, _mm256_cmp_ps(raised, raised, _CMP_ORD_Q));
    const __m256 limited = _mm256_min_ps(number, _mm256_set1_ps(128));
    const __m256 sign = _mm256_and_ps(limited, _mm256_set1_ps(-0.0f));
    return {_mm256_cvttps_epi32(_mm256_add_ps(limited, _mm256_or_ps(sign, _mm256_set1_ps(0.5f))))};
  }
  __m256 factor_, addend_;
};

inline u8x32 round_scaled(const scaled_halves& a, float low, float high) {
  const __m256i bytes = load(a.bytes).v;
  const auto bound = [](float x) { return _mm256_set1_epi8(static_cast<int8_t>(x)); };
  return {_mm256_min_epi8(_mm256_max_epi8(bytes, bound(low)), bound(high))};
}

// Compilers move arithmetic across a change of the rounding mode, because they assume that arithmetic depends on its
// operands alone. They move no arithmetic across the call of a function that they cannot identify, and call_unseen
// makes such a call. in_half_arithmetic therefore changes the mode in one unseen function, which contains no
// arithmetic, and calls the body as another.
template <class Body>
inline void call_unseen(const Body& body) {
  void (*call)(const Body&) = [](const Body& unseen) { unseen(); };
  asm volatile("" : "+r"(call));
  call(body);
}
template <class Body>
inline void in_half_arithmetic(const Body& body) {
  call_unseen([&] {
    const RoundingTowardZero mode;
    call_unseen(body);
  });
}

}  // namespace morun::simd::inline MORUN_BACKEND
