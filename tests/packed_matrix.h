// Reads a packed matrix by the definitions of the layouts, and computes plain products that tests compare products
// with.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "include/morun_weights.h"
#include "simd/scalar.h"

namespace test {

struct PackedMatrix {
  int32_t form;
  morun_weights_layout layout;
  std::vector<uint8_t> bytes;

  int q(uint64_t k, uint64_t c) const {
    if (form == MORUN_WEIGHTS_A8W8)
      return static_cast<int8_t>(bytes[tile(k, c) * 1024 + c % 32 / 4 * 128 + k % 32 * 4 + c % 4]);
    return nibble(bytes[tile(k, c) * 512 + c % 32 / 8 * 128 + k % 32 * 4 + c % 4], c % 8 >= 4);
  }
  int zero_point(uint64_t c) const {
    if (form == MORUN_WEIGHTS_A8W8) return static_cast<int8_t>(bytes[layout.zero_points + c]);
    return nibble(bytes[layout.zero_points + c / 2], c % 2 == 1);
  }
  uint16_t half(uint64_t offset) const { return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8); }
  double scale(uint64_t c) const { return morun::simd::widen_bits(half(layout.scales + 2 * c)); }
  int32_t sum(uint64_t c) const {
    int32_t value;
    std::memcpy(&value, &bytes[layout.sums + 4 * c], sizeof value);
    return value;
  }
  double value(uint64_t k, uint64_t c) const {
    if (form != MORUN_WEIGHTS_F16) return (q(k, c) - zero_point(c)) * scale(c);
    return morun::simd::widen_bits(half(2 * (tile(k, c) * 1024 + c % 32 / 2 * 64 + k % 32 * 2 + c % 2)));
  }

 private:
  uint64_t tile(uint64_t k, uint64_t c) const { return k / 32 * (layout.padded_n_col / 32) + c / 32; }
  static int nibble(uint8_t byte, bool is_high) { return static_cast<int8_t>(is_high ? byte : byte << 4) >> 4; }
};

inline std::vector<float> normal_values(uint64_t n, unsigned seed, double mean = 0, double deviation = 1) {
  std::mt19937 generator(seed);
  std::normal_distribution<double> distribution(mean, deviation);
  std::vector<float> values(n);
  for (float& value : values) value = static_cast<float>(distribution(generator));
  return values;
}

// X * W of a row-major X of n_inner columns; weight(k, c) is an element of W.
std::vector<double> product(const std::vector<float>& x, uint64_t n_inner, uint64_t n_col, const auto& weight) {
  std::vector<double> a(x.size() / n_inner * n_col);
  for (uint64_t k = 0; k < n_inner; ++k) {
    for (uint64_t c = 0; c < n_col; ++c) {
      const double w = double{weight(k, c)};
      for (uint64_t r = 0; r < x.size() / n_inner; ++r) a[r * n_col + c] += double{x[r * n_inner + k]} * w;
    }
  }
  return a;
}

double relative_error(const auto& expected, const auto& actual) {
  double error = 0, all = 0;
  for (size_t i = 0; i < expected.size(); ++i) {
    error += std::pow(double{actual[i]} - double{expected[i]}, 2);
    all += double{expected[i]} * double{expected[i]};
  }
  return error == 0 ? 0 : std::sqrt(error / all);
}

}  // namespace test
