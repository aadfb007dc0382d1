#include <cstring>
#include <utility>

#include "include/tavik.h"
#include "source/loops.h"
#include "source/tiles.h"

namespace {

using tavik::divide_up, tavik::tile_side;

std::byte* bytes(void* data) {
  return static_cast<std::byte*>(data);
}

uint64_t tiles_along(uint64_t n) {
  return divide_up(n, tile_side);
}
bool is_whole_tiles(uint64_t n) {
  return n % tile_side == 0;
}

// Moves packed 4-bit rows apart, in place and from the last row to the first, and pads the matrix with zero to whole
// tiles. Only whole words of a row move.
void pad_packed_rows_to_tiles(uint64_t n_row, uint64_t n_col, std::byte* data) {
  const size_t row_bytes = n_col / 8 * 4;
  const size_t padded_bytes = tiles_along(n_col) * tile_side / 2;
  const uint64_t padded_rows = tiles_along(n_row) * tile_side;
  memset(data + n_row * padded_bytes, 0, (padded_rows - n_row) * padded_bytes);
  for (uint64_t row = n_row; row-- > 0;) {
    memmove(data + row * padded_bytes, data + row * row_bytes, row_bytes);
    memset(data + row * padded_bytes + row_bytes, 0, padded_bytes - row_bytes);
  }
}

}  // namespace

uint64_t tavik_align_offset(uint64_t value, uint64_t alignment) {
  if (alignment == 0) return 0;
  return tavik::round_up(value, alignment);
}

uint64_t tavik_apply_padding(uint64_t size) {
  return tavik::round_up(size, 2048);
}

#define TAVIK_MATRIX_FAMILY(type, linearize, unlinearize, transpose)                                       \
  void linearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, type* data) {   \
    tavik::loops().block_linearize(n_row, n_col, block_rows, block_cols, sizeof(type), bytes(data));       \
  }                                                                                                        \
  void unlinearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, type* data) { \
    tavik::loops().block_unlinearize(n_row, n_col, block_rows, block_cols, sizeof(type), bytes(data));     \
  }                                                                                                        \
  void transpose(uint64_t n_row, uint64_t n_col, type* data) {                                             \
    tavik::loops().transpose_units(n_row, n_col, sizeof(type), bytes(data));                               \
  }
TAVIK_MATRIX_FAMILY(int8_t, tavik_matrix_block_linearize_i8, tavik_matrix_block_unlinearize_i8,
                    tavik_matrix_transpose_i8)
TAVIK_MATRIX_FAMILY(uint8_t, tavik_matrix_block_linearize_u8, tavik_matrix_block_unlinearize_u8,
                    tavik_matrix_transpose_u8)
TAVIK_MATRIX_FAMILY(uint16_t, tavik_matrix_block_linearize_f16, tavik_matrix_block_unlinearize_f16,
                    tavik_matrix_transpose_f16)
TAVIK_MATRIX_FAMILY(int32_t, tavik_matrix_block_linearize_i32, tavik_matrix_block_unlinearize_i32,
                    tavik_matrix_transpose_i32)
TAVIK_MATRIX_FAMILY(uint32_t, tavik_matrix_block_linearize_u32, tavik_matrix_block_unlinearize_u32,
                    tavik_matrix_transpose_u32)
TAVIK_MATRIX_FAMILY(float, tavik_matrix_block_linearize_f32, tavik_matrix_block_unlinearize_f32,
                    tavik_matrix_transpose_f32)
#undef TAVIK_MATRIX_FAMILY

void tavik_f16_rm_to_f16_ah_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  if (is_whole_tiles(n_row) && is_whole_tiles(n_col)) return tavik::loops().f16_rows_to_ah(n_row, n_col, data);
  tavik_matrix_block_linearize_f16(n_row, n_col, 2, 1, data);
  tavik_matrix_block_linearize_f16(n_row / 2, 2 * n_col, 16, 64, data);
}

void tavik_f16_ah_to_f16_rm_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  if (is_whole_tiles(n_row) && is_whole_tiles(n_col)) return tavik::loops().f16_ah_to_rows(n_row, n_col, data);
  tavik_matrix_block_unlinearize_f16(n_row / 2, 2 * n_col, 16, 64, data);
  tavik_matrix_block_unlinearize_f16(n_row, n_col, 2, 1, data);
}

void tavik_f16_rm_to_f16_wh_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  if (is_whole_tiles(n_row) && n_col % 2 == 0)
    return tavik::loops().rows_to_word_columns(n_row / tile_side, n_col / 2, tavik::WordMap::keep, bytes(data));
  tavik_matrix_transpose_f16(n_row, n_col, data);
  tavik_matrix_block_linearize_f16(n_col, n_row, 2, 1, data);
  tavik_matrix_block_linearize_f16(n_col / 2, 2 * n_row, n_col / 2, 64, data);
}

void tavik_i8_rm_to_i8_wh_inplace(uint64_t n_row, uint64_t n_col, int8_t* data) {
  if (is_whole_tiles(n_row) && n_col % 4 == 0)
    return tavik::loops().rows_to_word_columns(n_row / tile_side, n_col / 4, tavik::WordMap::keep, bytes(data));
  tavik_matrix_transpose_i8(n_row, n_col, data);
  tavik_matrix_block_linearize_i8(n_col, n_row, 4, 1, data);
  tavik_matrix_block_linearize_i8(n_col / 4, 4 * n_row, n_col / 4, 128, data);
}

void tavik_f16_cm_to_f16_zb_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  tavik_matrix_block_linearize_f16(n_row, n_col, 4, 8, data);
}

void tavik_i4_rm_to_i4_wh_inplace(uint64_t n_row, uint64_t n_col, uint32_t* data) {
  const uint64_t bands = tiles_along(n_row), words_per_row = tiles_along(n_col) * tile_side / 8;
  if (bands == 0) return;
  if (!is_whole_tiles(n_row) || !is_whole_tiles(n_col)) pad_packed_rows_to_tiles(n_row, n_col, bytes(data));
  tavik::loops().rows_to_word_columns(bands, words_per_row, tavik::WordMap::zip_nibbles, bytes(data));
}

void tavik_host_layout_flat_to_w4_tile32x32(uint8_t* dst, const uint8_t* src) {
  tavik::loops().w4_flat_to_weight(dst, src, tile_side, tile_side);
}

void tavik_host_layout_w4_flat_to_weight(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col) {
  tavik::loops().w4_flat_to_weight(dst, src, n_row, n_col);
}
