// Scales, zero points and values of 32 columns. docs/weight-files.md has the formulas.
#pragma once

#include <cstdint>

#include "include/morun_weights.h"
#include "weights/layout.h"

namespace weights {

// Of i8 and i4 values.
struct Range {
  int32_t low;
  int32_t high;
};
constexpr Range range_of(int32_t form) {
  return form == MORUN_WEIGHTS_A8W8 ? Range{-128, 127} : Range{-8, 7};
}

// Column c of a row of tiles: n_inner values, then zeros up to n_padded, a multiple of 32.
struct ColumnValues {
  uint64_t n_inner;
  uint64_t n_padded;
  const float* values;  // (k, c) at c * n_padded + k; finite, except for `library`

  const float* column(uint64_t c) const { return values + c * n_padded; }
};

struct QuantisedColumns {
  int8_t* q;  // (k, c) at c * n_padded + k. A padding's value does not change a product with a padded activation
  uint16_t scales[tile];  // f16
  int32_t zero_points[tile];
};

// `calibration` is finished, and not looked at by other quantisers than `calibrated`.
void quantise(int32_t form, int32_t quantiser, const morun_weights_calibration* calibration,
              const ColumnValues& columns, QuantisedColumns& quantised);

}  // namespace weights
