// What operations are measured by. Each yardstick works on memory of its own.
#pragma once

#include <cstddef>
#include <string>

#include "bench/row.h"

namespace bench {

// memcpy of as many bytes as the operation moves: it reads half of `n_byte_moved` and writes the other half.
Yardstick memcpy_yardstick(size_t n_byte_moved);

// OpenBLAS' product in f32 of row-major (n_row x n_inner) and (n_inner x n_col) matrices, on one thread.
Yardstick sgemm_nn_yardstick(size_t n_row, size_t n_col, size_t n_inner);

// The same with the second matrix stored as n_col rows of n_inner.
Yardstick sgemm_nt_yardstick(size_t n_row, size_t n_col, size_t n_inner);

// OpenBLAS' product in f32 of a row-major n_row x n_col matrix and a vector, on one thread.
Yardstick sgemv_yardstick(size_t n_row, size_t n_col);

// With the processor type whose kernels OpenBLAS chose.
std::string openblas_description();

}  // namespace bench
