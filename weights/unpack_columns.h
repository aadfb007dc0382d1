// The values that a packed matrix stands for.
#pragma once

#include <cstddef>
#include <cstdint>

#include "include/morun_weights.h"

namespace weights {

struct PackedMatrix {
  int32_t form;
  const morun_weights_layout& layout;
  const std::byte* bytes;  // layout.n_byte of them
};

// Value (k, c) of the first n_inner rows goes to values[k * inner_stride + (c - first_column) * column_stride].
void unpack_columns(const PackedMatrix& packed, uint64_t n_inner, uint64_t first_column, uint64_t n_column,
                    float* values, uint64_t inner_stride, uint64_t column_stride);

}  // namespace weights
