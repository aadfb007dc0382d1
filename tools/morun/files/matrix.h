// A dense matrix in ordinary memory.
#pragma once

#include <cstddef>
#include <vector>

namespace tool {

// Row-major, n_row x n_col, initially zero. Rows start `row_stride` values apart, and the values behind a row's columns
// are padding.
struct Matrix {
  Matrix(size_t rows, size_t columns, size_t stride) : n_row(rows), n_col(columns), row_stride(stride) {
    values.resize(rows * stride);
  }
  Matrix(size_t rows, size_t columns) : Matrix(rows, columns, columns) {}

  float* row(size_t index) { return values.data() + index * row_stride; }
  const float* row(size_t index) const { return values.data() + index * row_stride; }

  size_t n_row;
  size_t n_col;
  size_t row_stride;
  std::vector<float> values;
};

}  // namespace tool
