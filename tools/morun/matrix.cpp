#include "tools/morun/matrix.h"

#include <algorithm>

namespace tool {

Matrix with_columns(Matrix matrix, size_t n_col) {
  if (matrix.n_col == n_col) return matrix;
  Matrix result(matrix.n_row, n_col);
  const size_t n_common = std::min(matrix.n_col, n_col);
  for (size_t r = 0; r < matrix.n_row; ++r) std::copy_n(matrix.row(r), n_common, result.row(r));
  return result;
}

}  // namespace tool
