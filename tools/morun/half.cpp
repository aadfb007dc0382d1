#include "tools/morun/half.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace tool::half {
namespace {

constexpr int n_mantissa_bits = 10;
constexpr int lowest_exponent = -14;
constexpr double largest = 65504;

constexpr int double_bias = 1023;
constexpr int n_double_mantissa_bits = 52;

int exponent_of(double value) {
  const auto field = static_cast<int>(std::bit_cast<uint64_t>(value) >> n_double_mantissa_bits & 2047);
  return std::max(field - double_bias, lowest_exponent);
}

double step_at(double value) {
  const auto field = static_cast<uint64_t>(exponent_of(value) - n_mantissa_bits + double_bias);
  return std::bit_cast<double>(field << n_double_mantissa_bits);
}

}  // namespace

double round(double value) {
  if (!std::isfinite(value)) return value;
  const double step = step_at(value);
  const double rounded = std::nearbyint(value / step) * step;
  return std::abs(rounded) > largest ? std::copysign(std::numeric_limits<double>::infinity(), value) : rounded;
}

// The product is exact in double. When the sum is inexact, its last bit is set, which keeps it on the exact sum's side
// of every midpoint between two halves. Rounding the sum again then gives the exact sum rounded once.
double fused(double a, double b, double c) {
  const double product = a * b;
  const double sum = product + c;
  if (!std::isfinite(sum)) return sum;
  const double from_c = sum - product;
  const double error = (product - (sum - from_c)) + (c - from_c);
  const auto pattern = std::bit_cast<uint64_t>(sum);
  if (error == 0 || (pattern & 1) != 0) return round(sum);
  const bool away_from_zero = (error > 0) == (sum > 0);
  return round(std::bit_cast<double>(away_from_zero ? pattern + 1 : pattern - 1));
}

double half_step(double value) {
  return step_at(value) / 2;
}

uint16_t bits(double value) {
  const unsigned sign = std::signbit(value) ? 0x8000u : 0u;
  const double magnitude = std::abs(value);
  if (std::isnan(value)) return 0x7e00;
  if (std::isinf(value)) return static_cast<uint16_t>(sign | 0x7c00u);
  const int exponent = exponent_of(magnitude);
  const auto field = static_cast<unsigned>(exponent - lowest_exponent) << n_mantissa_bits;
  // The mantissa includes its leading bit, which adds one to the exponent when the value is normal.
  const auto mantissa = static_cast<unsigned>(std::ldexp(magnitude, n_mantissa_bits - exponent));
  return static_cast<uint16_t>(sign | (field + mantissa));
}

double value(uint16_t bits) {
  const int exponent = bits >> n_mantissa_bits & 31;
  const int mantissa = bits & 1023;
  double magnitude = std::ldexp(exponent == 0 ? mantissa : mantissa + 1024,
                                std::max(exponent, 1) + lowest_exponent - 1 - n_mantissa_bits);
  if (exponent == 31) {
    magnitude = mantissa == 0 ? std::numeric_limits<double>::infinity() : std::numeric_limits<double>::quiet_NaN();
  }
  return (bits & 0x8000) != 0 ? -magnitude : magnitude;
}

}  // namespace tool::half
