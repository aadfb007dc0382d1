// Scale, zero point and values of single columns. docs/weight-files.md has the formulas.
#pragma once

#include <cstdint>

#include "include/morun_weights.h"

namespace weights {

// Of i8 and i4 values.
struct Range {
  int32_t low;
  int32_t high;
};
constexpr Range range_of(int32_t form) {
  return form == MORUN_WEIGHTS_A8W8 ? Range{-128, 127} : Range{-8, 7};
}

struct Column {
  uint16_t scale = 0;  // f16
  int32_t zero_point = 0;
  int32_t sum = 0;  // of all n_padded values
};

// Quantises one column of n_inner finite values into n_padded values q, one a byte. Values of the padding are such
// that a product whose activation is padded with zeros does not change.
Column quantise_minmax(Range range, uint64_t n_inner, uint64_t n_padded, const float* values, int8_t* q);
Column quantise_mse(Range range, uint64_t n_inner, uint64_t n_padded, const float* values, int8_t* q);
Column quantise_library(Range range, uint64_t n_inner, uint64_t n_padded, const float* values, int8_t* q);
Column quantise_calibrated(Range range, uint64_t n_inner, uint64_t n_padded, const float* values,
                           const morun_weights_calibration& calibration, int8_t* q);

}  // namespace weights
