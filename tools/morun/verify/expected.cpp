#include "tools/morun/verify/expected.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <functional>

#include "tools/morun/half.h"

namespace tool {
namespace {

constexpr double u = 0x1p-24;               // half the relative step of f32
constexpr double f32_half_step = 0x1p-150;  // half the smallest step of f32
constexpr double f32_whole = 0x1p24;        // the largest number up to which f32 holds all integers

using Elements = std::vector<Expected>;

// ---- Halves on the DSP ---------------------------------------------------------------------------------------------

// The sum s of the n products is rounded in f32 at most n times, in any order. The error of s is at most
//   a = n u / (1 - n u) * sum |x w|,
// and 0 when all terms are whole numbers and sum |x w| <= 2^24. Rounding s to a half adds at most half a step of the
// halves around |s| + a.
double half_product_bound(double sum, double absolute_sum, size_t n, bool is_whole) {
  if (is_whole && absolute_sum <= f32_whole) return std::abs(half::round(sum) - sum);
  const double n_u = static_cast<double>(n) * u;
  const double accumulated = n_u / (1 - n_u) * absolute_sum;
  return accumulated + half::half_step(std::abs(sum) + accumulated);
}

bool is_whole(const Matrix& matrix) {
  return std::ranges::all_of(matrix.values, [](float value) { return value == std::trunc(value); });
}

Elements products_of_halves(const Matrix& x, const Matrix& w) {
  const bool all_are_whole = is_whole(x) && is_whole(w);
  Elements elements;
  elements.reserve(x.n_row * w.n_col);
  for (size_t r = 0; r < x.n_row; ++r) {
    std::vector<double> sums(w.n_col), absolute_sums(w.n_col);
    for (size_t k = 0; k < x.n_col; ++k) {
      const double factor = half::round(double{x.row(r)[k]});
      for (size_t c = 0; c < w.n_col; ++c) {
        const double product = factor * double{w.row(k)[c]};
        sums[c] += product;
        absolute_sums[c] += std::abs(product);
      }
    }
    for (size_t c = 0; c < w.n_col; ++c) {
      elements.push_back({sums[c], half_product_bound(sums[c], absolute_sums[c], x.n_col, all_are_whole)});
    }
  }
  return elements;
}

// ---- Halves on the host --------------------------------------------------------------------------------------------

// The reference kernels have a prescribed order of roundings, so their results are exact, bit by bit. In the lower
// interface, whole blocks of four rows have eight sums, which are added up in f32. The remaining rows have sixteen
// sums, which are added up in halves.
float reference_in_block(const std::vector<double>& x, const std::vector<double>& w) {
  std::array<double, 8> lane = {};
  for (size_t k = 0; k < x.size(); ++k) lane[k % 8] = half::fused(x[k], w[k], lane[k % 8]);
  std::array<float, 8> l;
  for (size_t i = 0; i < 8; ++i) l[i] = static_cast<float>(lane[i]);
  return ((l[0] + l[4]) + (l[1] + l[5])) + ((l[2] + l[6]) + (l[3] + l[7]));
}

double reference_in_row(const std::vector<double>& x, const std::vector<double>& w) {
  std::array<double, 16> lane = {};
  for (size_t k = 0; k < x.size(); ++k) lane[k % 16] = half::fused(x[k], w[k], lane[k % 16]);
  const auto add = [](double a, double b) { return half::round(a + b); };
  std::array<double, 4> part;
  for (size_t i = 0; i < 4; ++i) part[i] = add(add(lane[i], lane[i + 8]), add(lane[i + 4], lane[i + 12]));
  return add(add(part[0], part[1]), add(part[2], part[3]));
}

// In the upper interface, there are four sums in f32, and then the remaining terms are added.
double reference_in_lanes(const std::vector<double>& x, const std::vector<double>& w) {
  std::array<float, 4> lane = {};
  const size_t n_in_lanes = x.size() / 4 * 4;
  const auto add = [&](size_t k, float& sum) {
    sum = std::fma(static_cast<float>(x[k]), static_cast<float>(w[k]), sum);
  };
  for (size_t k = 0; k < n_in_lanes; ++k) add(k, lane[k % 4]);
  float sum = (lane[0] + lane[1]) + (lane[2] + lane[3]);
  for (size_t k = n_in_lanes; k < x.size(); ++k) add(k, sum);
  return half::round(double{sum});
}

Elements reference_products(const Kernel& kernel, const Matrix& x, const Matrix& w) {
  std::vector<std::vector<double>> columns(w.n_col);
  for (size_t i = 0; i < w.values.size(); ++i) columns[i % w.n_col].push_back(double{w.values[i]});
  Elements elements;
  elements.reserve(x.n_row * w.n_col);
  for (size_t r = 0; r < x.n_row; ++r) {
    std::vector<double> row;
    for (size_t k = 0; k < x.n_col; ++k) row.push_back(half::round(double{x.row(r)[k]}));
    const bool is_in_block = r < x.n_row / 4 * 4;
    for (const std::vector<double>& column : columns) {
      const double value = kernel.is_upper() ? reference_in_lanes(row, column)
                           : is_in_block     ? double{reference_in_block(row, column)}
                                             : reference_in_row(row, column);
      elements.push_back({value, 0});
    }
  }
  return elements;
}

// ---- Integers ------------------------------------------------------------------------------------------------------

struct QuantisedRow {
  std::vector<int> bytes;
  int64_t sum = 0;
  double scale = 0;
};

// Quantises an activation row by the definition, with each step in f32.
QuantisedRow quantise(const float* x, size_t n) {
  float largest = 0;
  for (size_t k = 0; k < n; ++k) largest = std::fmax(largest, std::fabs(x[k]));
  const float scale = largest / 127.0f;
  const float inverse = scale == 0 ? 0 : 1 / scale;
  QuantisedRow row;
  row.scale = double{scale};
  for (size_t k = 0; k < n; ++k) {
    row.bytes.push_back((static_cast<int>(std::round(x[k] * inverse)) + 128) & 255);
    row.sum += row.bytes.back();
  }
  return row;
}

std::vector<int64_t> exact_sums(const std::vector<int>& row, const Matrix& w) {
  std::vector<int64_t> sums(w.n_col);
  for (size_t k = 0; k < w.n_row; ++k) {
    for (size_t c = 0; c < w.n_col; ++c) sums[c] += int64_t{row[k]} * static_cast<int64_t>(w.row(k)[c]);
  }
  return sums;
}

Elements products_of_integers(const Matrix& x, const Matrix& w) {
  Elements elements;
  elements.reserve(x.n_row * w.n_col);
  for (size_t r = 0; r < x.n_row; ++r) {
    const std::vector<int> row(x.row(r), x.row(r) + x.n_col);
    for (const int64_t sum : exact_sums(row, w)) elements.push_back({static_cast<double>(sum), 0});
  }
  return elements;
}

double rounding_of(int64_t integer) {
  const double magnitude = std::abs(static_cast<double>(integer));
  return magnitude <= f32_whole ? 0 : magnitude * u;
}

// The exact value is t * a * w with t = acc - 128 S_w - z S_a + 128 z K, the activation's scale a and the column's
// scale w. In f32, acc and each of the three steps to t are rounded where they are beyond 2^24, which leads t away by
//   e = u (|acc| + |t1| + |t2| + |t3|) * (1 + 4 u);
// multiplying by a and by w then rounds twice, by a relative u or by half the smallest step:
//   bound = (e + (2 u + u^2) (|t| + e)) a w + (w + 1) 2^-150.
Expected dequantise(int64_t acc, const QuantisedRow& row, const WeightOperand& weights, size_t c) {
  const int64_t z = weights.zero_points[c];
  const int64_t t1 = acc - 128 * weights.sums[c];
  const int64_t t2 = t1 - z * row.sum;
  const int64_t t = t2 + 128 * z * static_cast<int64_t>(row.bytes.size());
  const double e = (rounding_of(acc) + rounding_of(t1) + rounding_of(t2) + rounding_of(t)) * (1 + 4 * u);
  const double scale = row.scale * weights.scales[c];
  const double exact = static_cast<double>(t) * scale;
  const double products = (2 * u + u * u) * (std::abs(exact) + e * scale);
  return {exact, e * scale + products + (weights.scales[c] + 1) * f32_half_step};
}

// Returns the sums of row r of the activation. `bytes` are the row's quantised values.
using Sums = std::function<std::vector<int64_t>(size_t r, const std::vector<int>& bytes)>;

Elements dequantised(const Matrix& x, const WeightOperand& weights, const Sums& sums_of) {
  Elements elements;
  elements.reserve(x.n_row * weights.values.n_col);
  for (size_t r = 0; r < x.n_row; ++r) {
    const QuantisedRow row = quantise(x.row(r), x.n_col);
    const std::vector<int64_t> sums = sums_of(r, row.bytes);
    for (size_t c = 0; c < sums.size(); ++c) elements.push_back(dequantise(sums[c], row, weights, c));
  }
  return elements;
}

}  // namespace

std::vector<Expected> expected_product(const Kernel& kernel, const OperandSet& operands, size_t i) {
  const WeightOperand& weights = operands.weights[i];
  if (kernel.is_on_host()) return reference_products(kernel, operands.x, weights.values);
  if (kernel.weights == WeightKind::f16) return products_of_halves(operands.x, weights.values);
  if (!kernel.is_quantised()) return products_of_integers(operands.x, weights.values);
  return dequantised(operands.x, weights,
                     [&](size_t, const std::vector<int>& bytes) { return exact_sums(bytes, weights.values); });
}

std::vector<Expected> expected_of_earlier_sums(const OperandSet& operands, size_t i) {
  const WeightOperand& weights = operands.weights[i];
  return dequantised(operands.x, weights, [&](size_t r, const std::vector<int>&) {
    std::vector<int64_t> sums;
    for (size_t c = 0; c < weights.values.n_col; ++c) sums.push_back(PreparedCall::earlier_sum(i, r, c));
    return sums;
  });
}

}  // namespace tool
