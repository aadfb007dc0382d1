// A dense matrix in ordinary memory.
#pragma once

#include <cstddef>
#include <vector>

namespace tool {

// Row-major, n_row x n_col, made of zeros.
struct Matrix {
  Matrix(size_t rows, size_t columns) : n_row(rows), n_col(columns), values(rows * columns) {}

  float* row(size_t index) { return values.data() + index * n_col; }
  const float* row(size_t index) const { return values.data() + index * n_col; }

  size_t n_row;
  size_t n_col;
  std::vector<float> values;
};

// `matrix` with its rows cut to `n_col` columns, or padded to them with zeros.
Matrix with_columns(Matrix matrix, size_t n_col);

}  // namespace tool
