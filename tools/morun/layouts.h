// The layouts by their definitions: the index at which an element stands. Extents are whole tiles. n_col and n_inner
// are the extents of the whole matrix.
#pragma once

#include <cstddef>

namespace tool {

inline constexpr size_t tile = 32;  // columns of every tile

inline size_t round_up(size_t extent, size_t multiple) {
  return (extent + multiple - 1) / multiple * multiple;
}

inline size_t tile_32(size_t r, size_t c, size_t n_col) {
  return (r / 32 * (n_col / 32) + c / 32) * 1024;
}
inline size_t place_f16_ah(size_t r, size_t c, size_t n_col) {
  return tile_32(r, c, n_col) + r % 32 / 2 * 64 + c % 32 * 2 + r % 2;
}
inline size_t place_f16_wh(size_t r, size_t c, size_t n_col) {
  return tile_32(r, c, n_col) + c % 32 / 2 * 64 + r % 32 * 2 + c % 2;
}
inline size_t place_i8_wh(size_t r, size_t c, size_t n_col) {
  return tile_32(r, c, n_col) + c % 32 / 4 * 128 + r % 32 * 4 + c % 4;
}
// Columns 4 to 7 of every eight columns stand in the high nibbles.
inline size_t byte_of_i4_wh(size_t r, size_t c, size_t n_col) {
  return tile_32(r, c, n_col) / 2 + c % 32 / 8 * 128 + r % 32 * 4 + c % 4;
}
inline size_t place_in_tall_tiles(size_t r, size_t c, size_t n_col) {
  return (r / 64 * (n_col / 32) + c / 32) * 2048 + r % 64 * 32 + c % 32;
}
inline size_t place_zb(size_t k, size_t c, size_t n_inner) {
  return c / 4 * 4 * n_inner + k / 8 * 32 + c % 4 * 8 + k % 8;
}

}  // namespace tool
