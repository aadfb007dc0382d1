// Loops over the values of a column, compiled once for each vector backend.
#pragma once

#include <cstdint>

#include "simd/scalar.h"
#include "weights/layout.h"
#include "weights/quantisers.h"

namespace weights {

// What a value q stands for: (q - zero_point) * scale.
struct Step {
  uint16_t half = 0;  // the scale's f16; 0 in columns of zeros alone, whose every q is the zero point 0
  float scale = 0;
  float inverse = 0;
  int32_t zero_point = 0;

  Step() = default;
  explicit Step(uint16_t scale_half) : half(scale_half), scale(morun::simd::widen_bits(half)), inverse(1 / scale) {}
};

// The bounds of a column, stretched to include 0.
struct Bounds {
  float low;
  float high;
};

// n is a multiple of 32.
struct ColumnLoops {
  Bounds (*bounds_of)(uint64_t n, const float* values);
  double (*squared_error)(const Range& range, const Step& step, uint64_t n, const float* values);
  // The scale of the least squared error for the values q that `step` gives; 0 where all are the zero point.
  double (*fitting_scale)(const Range& range, const Step& step, uint64_t n, const float* values);
  void (*put_values)(const Range& range, const Step& step, uint64_t n, const float* values, int8_t* q);
};

// The loops of the backend that the library uses. The first call chooses the backend.
const ColumnLoops& column_loops();

}  // namespace weights
