#include "weights/column_loops.h"

#include <algorithm>

#include "simd/backends.h"
#include "simd/simd.h"

namespace weights::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

// The lanes of four vectors, added up one after the other.
double total(const simd::f32x8 (&sums)[4]) {
  double total = 0;
  for (const simd::f32x8& sum : sums) {
    float lanes[8];
    simd::store(lanes, sum);
    for (const float lane : lanes) total += double{lane};
  }
  return total;
}

Bounds bounds_of(uint64_t n, const float* values) {
  simd::f32x8 low = simd::broadcast(0), high = simd::broadcast(0);
  for (uint64_t k = 0; k < n; k += 8) {
    low = simd::lesser(simd::load(values + k), low);
    high = simd::greater(simd::load(values + k), high);
  }
  float lows[8], highs[8];
  simd::store(lows, low);
  simd::store(highs, high);
  return {*std::min_element(lows, lows + 8), *std::max_element(highs, highs + 8)};
}

// q - zero point of eight values.
class Rounding {
 public:
  Rounding(const Range& range, const Step& step)
      : inverse_(simd::broadcast(step.inverse)),
        low_(simd::broadcast(static_cast<float>(range.low - step.zero_point))),
        high_(simd::broadcast(static_cast<float>(range.high - step.zero_point))) {}

  // Clamped before it is rounded, which makes no difference and keeps it within 32 bits.
  simd::i32x8 operator()(simd::f32x8 values) const {
    return simd::to_nearest(simd::lesser(simd::greater(simd::multiply(values, inverse_), low_), high_));
  }

 private:
  simd::f32x8 inverse_, low_, high_;
};

double squared_error(const Range& range, const Step& step, uint64_t n, const float* values) {
  const Rounding rounded(range, step);
  const simd::f32x8 negative_scale = simd::broadcast(-step.scale);
  simd::f32x8 sums[4] = {};
  for (uint64_t k = 0; k < n; k += tile) {
    for (uint64_t i = 0; i < 4; ++i) {
      const simd::f32x8 w = simd::load(values + k + 8 * i);
      const simd::f32x8 difference = simd::fused_multiply_add(simd::to_float(rounded(w)), negative_scale, w);
      sums[i] = simd::fused_multiply_add(difference, difference, sums[i]);
    }
  }
  return total(sums);
}

double fitting_scale(const Range& range, const Step& step, uint64_t n, const float* values) {
  const Rounding rounded(range, step);
  simd::f32x8 products[4] = {}, squares[4] = {};
  for (uint64_t k = 0; k < n; k += tile) {
    for (uint64_t i = 0; i < 4; ++i) {
      const simd::f32x8 w = simd::load(values + k + 8 * i);
      const simd::f32x8 v = simd::to_float(rounded(w));
      products[i] = simd::fused_multiply_add(w, v, products[i]);
      squares[i] = simd::fused_multiply_add(v, v, squares[i]);
    }
  }
  const double all_squares = total(squares);
  return all_squares > 0 ? total(products) / all_squares : 0;
}

void put_values(const Range& range, const Step& step, uint64_t n, const float* values, int8_t* q) {
  const Rounding rounded(range, step);
  for (uint64_t k = 0; k < n; k += tile) {
    int32_t v[tile];
    for (uint64_t i = 0; i < tile; i += 8) simd::store(v + i, rounded(simd::load(values + k + i)));
    for (uint64_t i = 0; i < tile; ++i) q[k + i] = static_cast<int8_t>(v[i] + step.zero_point);
  }
}

}  // namespace
}  // namespace weights::inline MORUN_BACKEND

// The only name that leaves a backend.
extern "C" const weights::ColumnLoops MORUN_BACKEND_NAME(morun_column_loops);
const weights::ColumnLoops MORUN_BACKEND_NAME(morun_column_loops) = {weights::bounds_of, weights::squared_error,
                                                                     weights::fitting_scale, weights::put_values};
