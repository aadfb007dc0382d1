#include "source/loops.h"

#include <algorithm>
#include <cstring>

#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

void pack_tile(const uint8_t* src, uint8_t* dst) {
  for (uint64_t group = 0; group < 4; ++group) {
    for (uint64_t col = 0; col < tile_side; ++col) {
      for (uint64_t q = 0; q < 4; ++q) {
        const unsigned low = src[(8 * group + q) * tile_side + col];
        const unsigned high = src[(8 * group + 4 + q) * tile_side + col];
        dst[group * 128 + col * 4 + q] = static_cast<uint8_t>((low & 15u) | (high & 15u) << 4);
      }
    }
  }
}

}  // namespace

void w4_flat_to_weight(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col) {
  const uint64_t tile_rows = divide_up(n_row, tile_side), tile_cols = divide_up(n_col, tile_side);
  for (uint64_t t1 = 0; t1 < tile_rows; ++t1) {
    for (uint64_t t2 = 0; t2 < tile_cols; ++t2) {
      uint8_t tile[tile_side * tile_side] = {};
      const uint64_t rows = std::min(n_row - t1 * tile_side, tile_side);
      const uint64_t cols = std::min(n_col - t2 * tile_side, tile_side);
      for (uint64_t row = 0; row < rows; ++row)
        memcpy(tile + row * tile_side, src + (t1 * tile_side + row) * n_col + t2 * tile_side, cols);
      pack_tile(tile, dst + (t2 * tile_rows + t1) * i4_tile_bytes);
    }
  }
}

}  // namespace tavik::inline MORUN_BACKEND
