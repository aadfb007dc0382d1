#include "tools/morun/operands.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "tools/morun/error.h"
#include "tools/morun/half.h"
#include "tools/morun/layouts.h"

namespace tool {
namespace {

// ---- Values --------------------------------------------------------------------------------------------------------

class Generator {
 public:
  explicit Generator(uint64_t seed) : bits_(seed) {}

  double real(double low, double high) { return std::uniform_real_distribution(low, high)(bits_); }
  int integer(int low, int high) { return std::uniform_int_distribution(low, high)(bits_); }

  template <typename List>
  auto one_of(const List& list) {
    return std::data(list)[static_cast<size_t>(integer(0, static_cast<int>(std::size(list)) - 1))];
  }

 private:
  std::mt19937_64 bits_;
};

struct Range {
  int low;
  int high;
};

Range range_of(WeightKind kind) {
  return kind == WeightKind::a8w8 ? Range{-128, 127} : Range{-8, 7};
}

// Large factors meet small ones: no product exceeds 64, so sums stay finite in half precision. Some values of the
// activation lie halfway between two halves, and some are too small for any half.
constexpr double large_halves[] = {65504, -65504, 32768, -1, 65519.996};
constexpr double small_halves[] = {0x1p-24, -0x1p-24, 1023 * 0x1p-24, -0x1p-14, 0x1p-10, -0x1p-10};
constexpr double small_reals[] = {0x1p-24, 0x1p-25, 3 * 0x1p-25, 1e-40, -1023 * 0x1p-24, 0x1p-10, -0x1p-10};

double half_weight(Generator& generator, Values values, size_t inner) {
  if (values == Values::whole) return generator.integer(-2, 2);
  if (values == Values::random) return half::round(generator.real(-1, 1));
  return half::round(inner % 2 == 0 ? generator.one_of(small_halves) : std::trunc(generator.one_of(large_halves)));
}

double half_activation(Generator& generator, Values values, size_t inner) {
  if (values == Values::whole) return generator.integer(-2, 2);
  if (values == Values::random) return generator.real(-1, 1);
  return inner % 2 == 0 ? generator.one_of(large_halves) : generator.one_of(small_reals);
}

// Some rows are quantised with the smallest scale or with very large scales. Some values lie halfway between two steps.
double quantised_activation(Generator& generator, Values values, size_t row) {
  constexpr double row_largest[] = {1, 0x1p-121, 0x1p90};
  constexpr double parts[] = {1, -1, 0, 0.5, 0.5 / 127, -1.5 / 127};
  return values == Values::random ? generator.real(-1, 1) : row_largest[row % 3] * generator.one_of(parts);
}

double byte_activation(Generator& generator, Values values) {
  return values == Values::random ? generator.integer(0, 255) : 255 * generator.integer(0, 1);
}

double activation(Generator& generator, const Kernel& kernel, Values values, size_t row, size_t inner) {
  if (kernel.takes_bytes()) return byte_activation(generator, values);
  if (kernel.is_quantised()) return quantised_activation(generator, values, row);
  const double value = half_activation(generator, values, inner);
  return kernel.takes_f32() ? value : half::round(value);
}

void make_columns(Generator& generator, const Kernel& kernel, Values values, WeightOperand& weights) {
  constexpr double extreme_scales[] = {0x1p-24, 1023 * 0x1p-24, 1, 65504};
  const Range range = range_of(kernel.weights);
  const int extreme_points[] = {range.low, 0, range.high};
  for (size_t c = 0; c < weights.values.n_col; ++c) {
    const bool is_random = values == Values::random;
    weights.zero_points.push_back(is_random ? generator.integer(range.low, range.high)
                                            : generator.one_of(extreme_points));
    weights.scales.push_back(is_random ? half::round(generator.real(0x1p-8, 0x1p-4))
                                       : generator.one_of(extreme_scales));
    int64_t sum = 0;
    for (size_t k = 0; k < weights.values.n_row; ++k) sum += static_cast<int64_t>(weights.values.row(k)[c]);
    weights.sums.push_back(sum);
  }
}

WeightOperand make_weights(Generator& generator, const Kernel& kernel, Values values, size_t n_inner, size_t n_col) {
  WeightOperand weights{Matrix(n_inner, n_col), {}, {}, {}};
  const Range range = range_of(kernel.weights);
  const int bounds[] = {range.low, range.high};
  for (size_t i = 0; i < weights.values.values.size(); ++i) {
    const double value = kernel.weights == WeightKind::f16 ? half_weight(generator, values, i / n_col)
                         : values == Values::random        ? generator.integer(range.low, range.high)
                                                           : generator.one_of(bounds);
    weights.values.values[i] = static_cast<float>(value);
  }
  if (kernel.is_quantised()) make_columns(generator, kernel, values, weights);
  return weights;
}

// ---- Layouts -------------------------------------------------------------------------------------------------------

void add_nibble(uint8_t& byte, int value, bool is_high) {
  byte = static_cast<uint8_t>(byte | (value & 15) << (is_high ? 4 : 0));
}

void write_columns(const WeightOperand& weights, WeightKind kind, Region& region, WeightArrays& arrays) {
  const size_t n_col = weights.values.n_col;
  arrays.zero_points = region.take(n_col);
  arrays.scales = region.take(n_col * sizeof(uint16_t));
  arrays.sums = region.take(n_col * sizeof(int32_t));
  auto* const zero_points = region.at<uint8_t>(arrays.zero_points);
  std::fill_n(zero_points, n_col, uint8_t{0});
  for (size_t c = 0; c < n_col; ++c) {
    const int zero_point = weights.zero_points[c];
    if (kind == WeightKind::a8w8) {
      zero_points[c] = static_cast<uint8_t>(zero_point);
    } else {
      add_nibble(zero_points[c / 2], zero_point, c % 2 == 1);
    }
    region.at<uint16_t>(arrays.scales)[c] = half::bits(weights.scales[c]);
    region.at<int32_t>(arrays.sums)[c] = static_cast<int32_t>(weights.sums[c]);
  }
}

void* result_buffer(const tavik_context* context, size_t i) {
  void* const buffers[] = {context->A0, context->A1, context->A2};
  return buffers[i];
}

}  // namespace

OperandSet make_operands(const Kernel& kernel, const ProductShape& shape, Values values, uint64_t seed) {
  Generator generator(seed);
  OperandSet operands{Matrix(shape.n_row, shape.n_inner), {}};
  for (size_t i = 0; i < operands.x.values.size(); ++i) {
    operands.x.values[i] =
        static_cast<float>(activation(generator, kernel, values, i / shape.n_inner, i % shape.n_inner));
  }
  for (const size_t n_col : shape.n_col) {
    operands.weights.push_back(make_weights(generator, kernel, values, shape.n_inner, n_col));
  }
  return operands;
}

void write_weight(WeightKind kind, uint8_t* base, size_t k, size_t c, size_t n_col, float value) {
  switch (kind) {
    case WeightKind::f16:
      reinterpret_cast<uint16_t*>(base)[place_f16_wh(k, c, n_col)] = half::bits(value);
      break;
    case WeightKind::a8w8:
      base[place_i8_wh(k, c, n_col)] = static_cast<uint8_t>(static_cast<int>(value));
      break;
    case WeightKind::a8w4:
      add_nibble(base[byte_of_i4_wh(k, c, n_col)], static_cast<int>(value), c % 8 >= 4);
      break;
  }
}

uint32_t Region::take(uint64_t n_byte) {
  const uint64_t offset = used_;
  used_ = tavik_apply_padding(used_ + n_byte);
  if (used_ > size_) throw Error("a shared buffer of {} bytes is too small", size_);
  return static_cast<uint32_t>(offset);
}

uint64_t region_bytes(const ProductShape& shape) {
  const size_t n_row = round_up(shape.n_row, 32);
  uint64_t n_byte = 2 * n_row * shape.n_inner;
  for (const size_t n_col : shape.n_col) n_byte += 2 * (shape.n_inner + n_row) * n_col + 7 * n_col + 6 * 2048;
  return tavik_apply_padding(n_byte);
}

tavik_options options_for(const ProductShape& shape) {
  const size_t n_row = round_up(shape.n_row, 64);
  tavik_options options = default_options();
  options.n_row_max = n_row;
  options.input_matrix_size_max = n_row * shape.n_inner;
  options.output_matrix_size_max = n_row * *std::max_element(shape.n_col.begin(), shape.n_col.end());
  return options;
}

PreparedCall::PreparedCall(tavik_context* context, const Kernel& kernel, const OperandSet& operands,
                           const std::vector<Region*>& regions)
    : kernel_(kernel), results_(operands.weights.size()) {
  for (Region* const region : regions) region->clear();
  call_.context = context;
  call_.n_row = static_cast<int32_t>(operands.x.n_row);
  call_.n_inner = static_cast<int32_t>(operands.x.n_col);
  write_activation(operands.x, *regions[0]);
  for (size_t i = 0; i < operands.weights.size(); ++i) {
    write_weights(operands.weights[i], *regions[i], call_.products[i]);
    prepare_result(i, *regions[i]);
  }
}

void PreparedCall::write_activation(const Matrix& x, Region& region) {
  x_ = x.values;
  call_.x = x_.data();
  if (kernel_.operands == Operands::host_f16) {
    for (const float value : x.values) x_halves_.push_back(half::bits(value));
    call_.x = x_halves_.data();
  }
  if (kernel_.operands == Operands::own_buffers) {
    const size_t n_element = round_up(x.n_row, 32) * x.n_col;
    call_.x_offset = region.take(n_element * sizeof(uint16_t));
    auto* const halves = region.at<uint16_t>(call_.x_offset);
    std::fill_n(halves, n_element, uint16_t{0});
    for (size_t i = 0; i < x.values.size(); ++i) {
      halves[place_f16_ah(i / x.n_col, i % x.n_col, x.n_col)] = half::bits(x.values[i]);
    }
  }
  if (kernel_.operands == Operands::cross_session) {
    auto* const bytes = static_cast<uint8_t*>(call_.context->X);
    for (size_t i = 0; i < x.values.size(); ++i) {
      bytes[place_in_tall_tiles(i / x.n_col, i % x.n_col, x.n_col)] = static_cast<uint8_t>(x.values[i]);
    }
  }
}

void PreparedCall::write_weights(const WeightOperand& weights, Region& region, Product& product) {
  const Matrix& values = weights.values;
  product.n_col = static_cast<int32_t>(values.n_col);
  if (kernel_.is_on_host()) {
    host_weights_.resize(values.values.size());
    product.host_weights = host_weights_.data();
    for (size_t i = 0; i < values.values.size(); ++i) {
      host_weights_[place_zb(i / values.n_col, i % values.n_col, values.n_row)] = half::bits(values.values[i]);
    }
    return;
  }
  product.weights.fd = region.fd();
  const size_t n_byte = values.values.size() * sizeof(uint16_t);  // enough for every kind
  product.weights.values = region.take(n_byte);
  auto* const base = region.at<uint8_t>(product.weights.values);
  std::fill_n(base, n_byte, uint8_t{0});
  for (size_t i = 0; i < values.values.size(); ++i) {
    write_weight(kernel_.weights, base, i / values.n_col, i % values.n_col, values.n_col, values.values[i]);
  }
  if (kernel_.is_quantised()) write_columns(weights, kernel_.weights, region, product.weights);
}

void PreparedCall::prepare_result(size_t i, Region& region) {
  constexpr uint16_t not_a_number = 0x7e00;
  const auto n_row = static_cast<size_t>(call_.n_row);
  const auto n_col = static_cast<size_t>(call_.products[i].n_col);
  const size_t n_half = round_up(n_row, 32) * n_col;
  results_[i].assign(n_row * n_col, untouched);
  call_.products[i].result = results_[i].data();
  if (kernel_.operands == Operands::own_buffers) {
    call_.a_offset = region.take(n_half * sizeof(uint16_t));
    own_result_ = region.at<uint16_t>(call_.a_offset);
    std::fill_n(own_result_, n_half, not_a_number);
  } else if (kernel_.weights == WeightKind::f16) {
    std::fill_n(static_cast<uint16_t*>(result_buffer(call_.context, i)), n_half, not_a_number);
  } else {
    auto* const sums = static_cast<int32_t*>(result_buffer(call_.context, i));
    for (size_t r = 0; r < n_row; ++r) {
      for (size_t c = 0; c < n_col; ++c) sums[place_in_tall_tiles(r, c, n_col)] = earlier_sum(i, r, c);
    }
  }
}

double PreparedCall::result(size_t i, size_t r, size_t c) const {
  const Product& product = call_.products[i];
  const auto n_col = static_cast<size_t>(product.n_col);
  if (kernel_.operands == Operands::own_buffers) return half::value(own_result_[place_f16_ah(r, c, n_col)]);
  if (kernel_.operands == Operands::cross_session) {
    return static_cast<const int32_t*>(call_.context->A0)[place_in_tall_tiles(r, c, n_col)];
  }
  return double{product.result[r * n_col + c]};
}

int32_t PreparedCall::earlier_sum(size_t i, size_t r, size_t c) {
  return static_cast<int32_t>((i * 7919 + r * 613 + c * 41) % 4001) - 2000;
}

}  // namespace tool
