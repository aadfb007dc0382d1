#include "weights/quantisers.h"

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <vector>

#include "simd/scalar.h"
#include "weights/calibration.h"
#include "weights/column_loops.h"

namespace weights {
namespace {

namespace simd = morun::simd;

constexpr uint16_t largest_half = 0x7bff;

int32_t clamp_to(const Range& range, double value) {
  return static_cast<int32_t>(std::clamp<double>(value, range.low, range.high));
}

// ---- minmax --------------------------------------------------------------------------------------------------------

// The least f16 that is not below `scale`, which is above 0.
uint16_t round_up_to_half(double scale) {
  uint16_t half = std::min(simd::narrow_bits(static_cast<float>(scale)), largest_half);
  if (half < largest_half && double{simd::widen_bits(half)} < scale) ++half;
  return half;
}

Step minmax(const Range& range, const Bounds& bounds) {
  if (bounds.low == bounds.high) return {};
  Step step(round_up_to_half((double{bounds.high} - double{bounds.low}) / (range.high - range.low)));
  step.zero_point = clamp_to(range, std::round(range.low - double{bounds.low} / double{step.scale}));
  return step;
}

// ---- mse -----------------------------------------------------------------------------------------------------------

// Keeps the step of the least error among those that are tried; of equals the first.
class Search {
 public:
  Search(const Range& range, uint64_t n, const float* values, const Step& first)
      : range_(range),
        n_(n),
        values_(values),
        best_(first),
        error_(column_loops().squared_error(range, first, n, values)) {}

  const Step& best() const { return best_; }

  void consider(Step step, double zero_point) {
    step.zero_point = clamp_to(range_, zero_point);
    const double error = column_loops().squared_error(range_, step, n_, values_);
    if (!(error < error_)) return;
    error_ = error;
    best_ = step;
  }

 private:
  const Range& range_;
  uint64_t n_;
  const float* values_;
  Step best_;
  double error_;
};

// Ranges of 40 lengths, from the whole one to 0.3 of it. What is cut off is cut off at the upper and at the lower end
// in equal parts, for 4 bits also in quarters.
void shorten_range(const Range& range, const Bounds& bounds, const Step& whole, Search& search) {
  constexpr int n_length = 40;
  const int n_part = range.high == 7 ? 4 : 2;
  const double length = double{bounds.high} - double{bounds.low};
  for (int i = 0; i < n_length; ++i) {
    const double cut = 0.7 * i / n_length;
    const Step step(simd::narrow_bits(static_cast<float>(double{whole.scale} * (1 - cut))));
    if (step.half == 0) return;
    double last = NAN;
    for (int part = n_part == 4 ? 0 : 1; part <= (n_part == 4 ? 4 : 1); ++part) {
      const double low = double{bounds.low} + cut * length * part / n_part;
      const double zero_point = std::round(range.low - low / double{step.scale});
      if (zero_point != last) search.consider(step, zero_point);
      last = zero_point;
    }
  }
}

Step mse(const Range& range, uint64_t n, const float* values) {
  const Bounds bounds = column_loops().bounds_of(n, values);
  const Step whole = minmax(range, bounds);
  if (whole.half == 0) return whole;
  Search search(range, n, values, whole);
  shorten_range(range, bounds, whole, search);
  for (int round = 0; round < 2; ++round) {
    const uint16_t half =
        simd::narrow_bits(static_cast<float>(column_loops().fitting_scale(range, search.best(), n, values)));
    if (half > 0 && half <= largest_half) search.consider(Step(half), search.best().zero_point);
    for (const int by : {-1, 1}) search.consider(search.best(), search.best().zero_point + by);
  }
  return search.best();
}

// ---- calibrated ----------------------------------------------------------------------------------------------------

// Rows of the inner dimension in the order of the calibration, the last quantised first.
using Rows = Eigen::Matrix<double, Eigen::Dynamic, tile, Eigen::RowMajor>;

Rows gather(const ColumnValues& columns, const std::vector<uint32_t>& order) {
  Rows rows(static_cast<Eigen::Index>(columns.n_inner), tile);
  for (uint64_t c = 0; c < tile; ++c)
    for (uint64_t i = 0; i < columns.n_inner; ++i)
      rows(static_cast<Eigen::Index>(i), static_cast<Eigen::Index>(c)) = double{columns.column(c)[order[i]]};
  return rows;
}

// The values of one row, and what they differ by from what they stand for.
using Row = Eigen::Matrix<double, 1, tile>;
Row quantise_row(const Range& range, const Step (&steps)[tile], const double* values, uint64_t k, uint64_t n_padded,
                 int8_t* q) {
  Row errors;
  for (uint64_t c = 0; c < tile; ++c) {
    const Step& step = steps[c];
    const double scale = double{step.scale};
    const int32_t value = step.half == 0 ? 0 : clamp_to(range, std::round(values[c] / scale) + step.zero_point);
    q[c * n_padded + k] = static_cast<int8_t>(value);
    errors[static_cast<Eigen::Index>(c)] = values[c] - (value - step.zero_point) * scale;
  }
  return errors;
}

// A block of rows after the other: inside a block the error of each row goes into the rows before it at once, for the
// rows before the block it is gathered.
void quantise_rows(const Range& range, const Step (&steps)[tile], const morun_weights_calibration& calibration,
                   const ColumnValues& columns, int8_t* q) {
  constexpr Eigen::Index longest_block = 64;
  const Eigen::MatrixXd& factor = calibration.factor;
  Rows rows = gather(columns, calibration.order);
  Rows errors(longest_block, tile);
  for (Eigen::Index end = rows.rows(), begin = 0; end > 0; end = begin) {
    begin = std::max<Eigen::Index>(0, end - longest_block);
    for (Eigen::Index i = end - 1; i >= begin; --i) {
      const uint32_t k = calibration.order[static_cast<size_t>(i)];
      errors.row(i - begin) = quantise_row(range, steps, rows.row(i).data(), k, columns.n_padded, q) / factor(i, i);
      for (Eigen::Index j = begin; j < i; ++j) rows.row(j) -= factor(j, i) * errors.row(i - begin);
    }
    rows.topRows(begin).noalias() -= factor.block(0, begin, begin, end - begin) * errors.topRows(end - begin);
  }
}

// ---- library -------------------------------------------------------------------------------------------------------

// Columns are padded with copies of their first value: those change neither a column's range nor a product.
std::vector<uint16_t> padded_halves(const ColumnValues& columns) {
  std::vector<uint16_t> halves(tile * columns.n_padded);
  tavik_f32_to_f16(halves.size(), columns.values, halves.data());
  for (uint64_t c = 0; c < tile; ++c) {
    uint16_t* const column = halves.data() + c * columns.n_padded;
    std::fill(column + columns.n_inner, column + columns.n_padded, column[0]);
  }
  return halves;
}

void quantise_library(int32_t form, const ColumnValues& columns, QuantisedColumns& quantised) {
  const std::vector<uint16_t> halves = padded_halves(columns);
  int32_t sums[tile];
  if (form == MORUN_WEIGHTS_A8W8) {
    int8_t zero_points[tile];
    tavik_f16_rm_to_i8_rm(tile, columns.n_padded, halves.data(), quantised.q, zero_points, quantised.scales, sums);
    std::copy_n(zero_points, tile, quantised.zero_points);
    return;
  }
  std::vector<uint32_t> words(halves.size() / 8);
  uint32_t zero_points[tile / 8] = {};
  tavik_f16_rm_to_i4_rm(tile, columns.n_padded, halves.data(), words.data(), zero_points, quantised.scales, sums);
  for (uint64_t i = 0; i < halves.size(); ++i) quantised.q[i] = nibble(words[i / 8], i % 8);
  for (uint64_t c = 0; c < tile; ++c) quantised.zero_points[c] = nibble(zero_points[c / 8], c % 8);
}

}  // namespace

void quantise(int32_t form, int32_t quantiser, const morun_weights_calibration* calibration,
              const ColumnValues& columns, QuantisedColumns& quantised) {
  if (quantiser == MORUN_WEIGHTS_LIBRARY) return quantise_library(form, columns, quantised);
  const Range range = range_of(form);
  const uint64_t n = columns.n_padded;
  Step steps[tile];
  for (uint64_t c = 0; c < tile; ++c) {
    const float* const values = columns.column(c);
    steps[c] =
        quantiser == MORUN_WEIGHTS_MINMAX ? minmax(range, column_loops().bounds_of(n, values)) : mse(range, n, values);
    quantised.scales[c] = steps[c].half;
    quantised.zero_points[c] = steps[c].zero_point;
    column_loops().put_values(range, steps[c], n, values, quantised.q + c * n);
  }
  if (quantiser == MORUN_WEIGHTS_CALIBRATED) quantise_rows(range, steps, *calibration, columns, quantised.q);
}

}  // namespace weights
