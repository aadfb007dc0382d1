// Conversions in place between row-major matrices and the tiled layouts in which 32 rows and the tiles of these rows
// occupy the same bytes. Each conversion makes one pass over the data and uses scratch memory for little more than half
// a band.
#pragma once

#include <cstddef>
#include <cstdint>

#include "source/host/util/tiles.h"

namespace tavik {

inline constexpr size_t band_rows = tile_side;

// Convert between row-major f16 and the ah layout. n_row and n_col are multiples of 32.
void f16_rows_to_ah(uint64_t n_row, uint64_t n_col, uint16_t* data);
void f16_ah_to_rows(uint64_t n_row, uint64_t n_col, uint16_t* data);

// All wh layouts have the same form: in each band, each column of 32-bit words becomes 128 contiguous bytes. A word
// holds two columns of f16, four columns of i8 or eight columns of i4. WordMap::zip_nibbles reorders the nibbles of
// each i4 word.
enum class WordMap { keep, zip_nibbles };
void rows_to_word_columns(uint64_t n_bands, uint64_t words_per_row, WordMap map, std::byte* data);

}  // namespace tavik
