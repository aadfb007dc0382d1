// The definitions of layouts, quantisation and products, element by element. Tests compare results of the library with
// them.
#pragma once

#include <cmath>

#include "tests/data.h"
#include "tests/exact_half.h"

namespace test {

// The functions return the index at which element (r, c) of a matrix of n_col columns stands: in 32 x 32 tiles of
// activations (ah), in tiles of weights whose columns stand together in groups (wh: 2 of f16, 4 of i8), in 64 x 32
// tiles, and in tiles of 4-bit weights, where a byte holds two columns.
inline uint64_t place_in_ah(uint64_t r, uint64_t c, uint64_t n_col) {
  return (r / 32 * (n_col / 32) + c / 32) * 1024 + r % 32 / 2 * 64 + c % 32 * 2 + r % 2;
}
template <uint64_t group>
uint64_t place_in_wh(uint64_t r, uint64_t c, uint64_t n_col) {
  return r / 32 * 32 * n_col + c / group * group * 32 + r % 32 * group + c % group;
}
inline uint64_t place_in_tall_tiles(uint64_t r, uint64_t c, uint64_t n_col) {
  return (r / 64 * ((n_col + 31) / 32) + c / 32) * 2048 + r % 64 * 32 + c % 32;
}
inline uint64_t byte_of_nibble(uint64_t r, uint64_t c, uint64_t n_col) {
  return (r / 32 * ((n_col + 31) / 32) + c / 32) * 512 + c % 32 / 8 * 128 + r % 32 * 4 + c % 4;
}
inline uint32_t shift_of_nibble(uint64_t c) {
  return c % 8 < 4 ? 0 : 4;
}

inline uint16_t half_of(double value) {  // or NaN
  return std::isnan(value) ? half_nan : nearest_half(static_cast<wide>(std::ldexp(value, 48)));
}
inline int32_t integer_of(double rounded) {
  if (std::isnan(rounded)) return 0;
  return static_cast<int32_t>(std::fmin(std::fmax(rounded, INT32_MIN), INT32_MAX));
}

struct QuantisedActivation {
  Vector<uint32_t> q;  // row-major, not yet cut to its width
  Vector<float> scales;
  Vector<uint32_t> sums;
};
// The sums add what the mask leaves of a value.
inline QuantisedActivation quantise(uint64_t n_row, uint64_t n_col, const Vector<float>& src, float divisor,
                                    uint32_t offset, uint32_t mask = ~0u) {
  QuantisedActivation a{Vector<uint32_t>(n_row * n_col), Vector<float>(n_row), Vector<uint32_t>(n_row)};
  for (uint64_t r = 0; r < n_row; ++r) {
    float m = 0;
    for (uint64_t c = 0; c < n_col; ++c)
      if (std::fabs(src[r * n_col + c]) > m) m = std::fabs(src[r * n_col + c]);
    a.scales[r] = m / divisor;
    const float inverse = a.scales[r] != 0 ? 1 / a.scales[r] : 0;
    for (uint64_t c = 0; c < n_col; ++c) {
      const float t = src[r * n_col + c] * inverse;
      a.q[r * n_col + c] = static_cast<uint32_t>(integer_of(std::round(t))) + offset;
      a.sums[r] += a.q[r * n_col + c] & mask;
    }
  }
  return a;
}

// The terms of a row and of a column that turn an integer sum into f32.
struct RowTerms {
  float scale;
  int32_t sum;
};
struct ColumnTerms {
  int zero_point;
  uint16_t scale;
  int32_t sum;
};
inline float dequantised(int32_t acc, int32_t n_inner, const RowTerms& row, const ColumnTerms& column) {
  const auto z = static_cast<float>(column.zero_point);
  float t = std::fma(-128.0f, static_cast<float>(column.sum), static_cast<float>(acc));
  t = std::fma(-z, static_cast<float>(row.sum), t);
  t = std::fma(128 * z, static_cast<float>(n_inner), t);
  const float product = t * row.scale * static_cast<float>(value_of(column.scale));
  return std::isnan(product) ? std::bit_cast<float>(0x7fc00000u) : product;
}

}  // namespace test
