// Rearrangements in place of row-major matrices with elements of any size. They cannot fail: without scratch memory
// they follow the cycles and open paths of the permutation and write the same bytes.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavik {

// Transposes a row-major n_row x n_col matrix of units of `unit` bytes.
void transpose_units(uint64_t n_row, uint64_t n_col, size_t unit, std::byte* data);

// Convert row-major n_row x n_col elements of `width` bytes to blocks of block_rows x block_cols, and back.
// tavik_matrix_block_linearize_... and tavik_matrix_block_unlinearize_... in include/tavik.h describe the layout.
void block_linearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width,
                     std::byte* data);
void block_unlinearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width,
                       std::byte* data);

}  // namespace tavik
