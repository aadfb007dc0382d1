// Conversions of the integer products' operands from row-major arrays to tiles in other memory, in one pass and without
// scratch memory.
#pragma once

#include <cstdint>

namespace tavik {

// Copies bytes to 64 x 32 tiles that are row-major inside. n_row is a multiple of 64 and n_col of 32.
void byte_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst);

// Takes one i4 in the low nibble of each byte and writes the wh layout: whole 32 x 32 tiles of 512 bytes, padded with
// zero.
void nibble_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst);

}  // namespace tavik
