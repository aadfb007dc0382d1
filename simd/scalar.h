// Operations on single values under the rules of the vector vocabulary. The portable backend computes its lanes with
// them, and every backend its remainders.
#pragma once

#include <bit>
#include <cstdint>

namespace morun::simd {

// Converts f32 to the bit pattern of the nearest f16.
inline uint16_t narrow_bits(float x) {
  const uint32_t bits = std::bit_cast<uint32_t>(x);
  const uint32_t sign = (bits >> 16) & 0x8000u;
  const uint32_t magnitude = bits & 0x7fffffffu;
  if (magnitude > 0x7f800000u) return static_cast<uint16_t>(sign | 0x7e00u | ((magnitude >> 13) & 0x1ffu));
  if (magnitude >= 0x477ff000u) return static_cast<uint16_t>(sign | 0x7c00u);  // 65520 and above
  if (magnitude < 0x33000000u) return static_cast<uint16_t>(sign);             // below 2^-25
  const uint32_t exponent = magnitude >> 23;
  const uint32_t significand = (magnitude & 0x7fffffu) | 0x800000u;
  const bool normal = exponent >= 113;  // 2^-14 and above
  const uint32_t shift = normal ? 13 : 126 - exponent;
  const uint32_t kept = significand >> shift;
  const uint32_t dropped = significand & ((1u << shift) - 1);
  const uint32_t half = 1u << (shift - 1);
  const uint32_t round_up = dropped > half || (dropped == half && (kept & 1));
  const uint32_t exponent_field = normal ? (exponent - 113) << 10 : 0;  // the significand's leading bit adds the last 1
  return static_cast<uint16_t>(sign | (exponent_field + kept + round_up));
}

// Converts an f16 bit pattern to f32.
inline float widen_bits(uint16_t half) {
  const uint32_t sign = (half & 0x8000u) << 16;
  const uint32_t exponent = (half >> 10) & 0x1fu;
  const uint32_t fraction = half & 0x3ffu;
  if (exponent == 0x1f) return std::bit_cast<float>(sign | 0x7f800000u | (fraction ? 0x400000u | fraction << 13 : 0));
  if (exponent != 0) return std::bit_cast<float>(sign | (exponent + 112) << 23 | fraction << 13);
  const float magnitude = static_cast<float>(fraction) * 0x1p-24f;
  return std::bit_cast<float>(sign | std::bit_cast<uint32_t>(magnitude));
}

// Returns a + b in f32, rounded to odd: an inexact sum becomes the neighbouring value whose last bit is set. Rounding
// the returned value to a half gives the exact sum rounded once, because f32 has 24 bits, more than 11 + 2.
inline float add_to_odd(float a, float b) {
  const float sum = a + b;
  const float of_b = sum - a, of_a = sum - of_b;
  const float rest = (a - of_a) + (b - of_b);  // exactly a + b - sum
  const uint32_t bits = std::bit_cast<uint32_t>(sum);
  if (rest == 0 || rest != rest || (bits & 1)) return sum;
  const bool past = (bits ^ std::bit_cast<uint32_t>(rest)) >> 31;
  return std::bit_cast<float>(past ? bits - 1 : bits + 1);
}

// Returns a * b + c of halves, rounded once. When the result is NaN, its payload is unspecified.
inline uint16_t half_fma(uint16_t a, uint16_t b, uint16_t c) {
  return narrow_bits(add_to_odd(widen_bits(a) * widen_bits(b), widen_bits(c)));
}

// Reorders nibbles 0 1 2 3 4 5 6 7 to 0 4 1 5 2 6 3 7, least significant first.
inline uint32_t zip_nibbles(uint32_t word) {
  word = (word & 0xff0000ffu) | (word & 0x00ff0000u) >> 8 | (word & 0x0000ff00u) << 8;
  const uint32_t differing = (word ^ word >> 4) & 0x00f000f0u;
  return word ^ differing ^ differing << 4;
}

}  // namespace morun::simd
