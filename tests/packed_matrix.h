// Reads a packed matrix by the definitions of the layouts, computes plain products that tests compare products with, and
// makes .npy files.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
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

// ---- Bytes in files ------------------------------------------------------------------------------------------------

template <typename Value>
std::string bytes_of(const std::vector<Value>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Value)};
}

inline std::string encoded(const std::string& dtype, const std::vector<float>& values) {
  std::string bytes;
  for (const float value : values) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    if (dtype == "F64") bytes += bytes_of<double>({double{value}});
    if (dtype == "F32") bytes += bytes_of<float>({value});
    if (dtype == "F16") bytes += bytes_of<uint16_t>({morun::simd::narrow_bits(value)});
    if (dtype == "BF16") bytes += bytes_of<uint16_t>({static_cast<uint16_t>(bits >> 16)});
  }
  return bytes;
}

// A .npy file; `shape` as Python writes it, and `type` with F behind it in Fortran order.
inline std::string npy(std::string type, const std::string& shape, const std::string& bytes) {
  const std::string order = type.ends_with("F") ? "True" : "False";
  if (type.ends_with("F")) type.pop_back();
  const std::string header = "{'descr': '" + type + "', 'fortran_order': " + order + ", 'shape': " + shape + ", }\n";
  return std::string("\x93NUMPY\x01\0", 8) + static_cast<char>(header.size()) + '\0' + header + bytes;
}

// Of row-major values.
inline std::string matrix_npy(const std::vector<float>& values, size_t n_col, const std::string& type = "<f4") {
  const size_t n_row = values.size() / n_col, size = static_cast<size_t>(type[2] - '0');
  std::vector<float> stored = values;
  for (size_t i = 0; type.ends_with("F") && i < values.size(); ++i) stored[i] = values[i % n_row * n_col + i / n_row];
  std::string bytes = encoded("F" + std::to_string(8 * size), stored);
  for (size_t at = 0; type[0] == '>' && at < bytes.size(); at += size)
    std::reverse(bytes.data() + at, bytes.data() + at + size);
  return npy(type, "(" + std::to_string(n_row) + ", " + std::to_string(n_col) + ")", bytes);
}

}  // namespace test
