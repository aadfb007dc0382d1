// Half arithmetic by its definition, exact in integers until it is rounded once.
#pragma once

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>

namespace test {

__extension__ typedef __int128 wide;  // in units of 2^-48

constexpr uint16_t half_nan = 0x7e00, half_infinity = 0x7c00, sign_bit = 0x8000;

inline bool is_nan(uint16_t h) {
  return (h & 0x7fff) > half_infinity;
}
inline bool is_infinite(uint16_t h) {
  return (h & 0x7fff) == half_infinity;
}
// Returns a finite half as a whole number of 2^-24.
inline int64_t units(uint16_t h) {
  const int64_t exponent = h >> 10 & 0x1f, fraction = h & 0x3ff;
  const int64_t magnitude = exponent ? (fraction | 0x400) << (exponent - 1) : fraction;
  return h & sign_bit ? -magnitude : magnitude;
}
inline double value_of(uint16_t h) {
  if (is_nan(h)) return NAN;
  const double magnitude = is_infinite(h) ? INFINITY : static_cast<double>(units(h & 0x7fff)) * 0x1p-24;
  return h & sign_bit ? -magnitude : magnitude;
}

// Rounds to the nearest half, ties to even. A zero is positive.
inline uint16_t nearest_half(wide value) {
  const wide magnitude = value < 0 ? -value : value;
  const auto high = static_cast<uint64_t>(magnitude >> 64), low = static_cast<uint64_t>(magnitude);
  const auto width = static_cast<int>(high ? 64 + std::bit_width(high) : std::bit_width(low));
  const int step = std::max(24, width - 11);  // bits dropped: those below the subnormals', or all but eleven
  const wide kept = magnitude >> step, dropped = magnitude - (kept << step), tie = wide{1} << (step - 1);
  const int64_t nearest = static_cast<int64_t>(kept) + (dropped > tie || (dropped == tie && kept % 2 != 0));
  const int64_t pattern = nearest + (int64_t{step - 24} << 10);  // a carry moves on to the next exponent
  return static_cast<uint16_t>((value < 0 ? sign_bit : 0) | std::min<int64_t>(pattern, half_infinity));
}

// a * b + c, rounded once; any NaN is 0x7e00.
inline uint16_t exact_fma(uint16_t a, uint16_t b, uint16_t c) {
  const uint16_t sign = (a ^ b) & sign_bit;
  const bool zero = (a & 0x7fff) == 0 || (b & 0x7fff) == 0;
  if (is_nan(a) || is_nan(b) || is_nan(c)) return half_nan;
  if (is_infinite(a) || is_infinite(b))
    return zero || (is_infinite(c) && (c & sign_bit) != sign) ? half_nan : sign | half_infinity;
  if (is_infinite(c)) return c;
  const wide sum = static_cast<wide>(units(a)) * units(b) + (static_cast<wide>(units(c)) << 24);
  return sum == 0 && sign && c == sign_bit && zero ? sign_bit : nearest_half(sum);
}
inline uint16_t exact_sum(uint16_t a, uint16_t b) {
  return exact_fma(a, 0x3c00, b);
}
inline uint16_t exact_product(uint16_t a, uint16_t b) {
  return exact_fma(a, b, (a ^ b) & sign_bit);  // a zero that does not change a zero's sign
}

}  // namespace test
