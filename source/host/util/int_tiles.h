// Operands of the integer products, out of place: row-major to tiles, in one pass and without scratch.
#pragma once

#include <cstdint>

namespace tavik {

// Bytes to 64 x 32 tiles, row-major inside; n_row a multiple of 64, n_col of 32.
void byte_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst);

// One i4 to a byte, in its low nibble, to wh: whole 32 x 32 tiles of 512 bytes, padded with zero.
void nibble_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst);

}  // namespace tavik
