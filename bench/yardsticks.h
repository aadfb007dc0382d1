// The yardsticks that operations are measured against. Each yardstick has memory of its own.
#pragma once

#include <cstddef>
#include <string>

#include "bench/row.h"

namespace bench {

// Copies by memcpy as many bytes as the operation moves: half of `n_byte_moved` is read and half is written.
Yardstick memcpy_yardstick(size_t n_byte_moved);

// Multiplies row-major (n_row x n_inner) and (n_inner x n_col) matrices in f32 by OpenBLAS, on one thread.
Yardstick sgemm_nn_yardstick(size_t n_row, size_t n_col, size_t n_inner);

// The same product, with the second matrix stored as n_col rows of n_inner.
Yardstick sgemm_nt_yardstick(size_t n_row, size_t n_col, size_t n_inner);

// Multiplies a row-major n_row x n_col matrix by a vector in f32 by OpenBLAS, on one thread.
Yardstick sgemv_yardstick(size_t n_row, size_t n_col);

// Returns OpenBLAS's version with the processor type whose kernels OpenBLAS chose.
std::string openblas_description();

}  // namespace bench
