// The tiled layouts whose 32-row bands occupy the same bytes as the rows of the matrix: each converter makes one pass
// over the data, in place, with scratch for little more than half a band.
#pragma once

#include <cstddef>
#include <cstdint>

#include "source/host/util/tiles.h"

namespace tavik {

inline constexpr size_t band_rows = tile_side;

// f16 row-major to ah and back; n_row and n_col multiples of 32.
void f16_rows_to_ah(uint64_t n_row, uint64_t n_col, uint16_t* data);
void f16_ah_to_rows(uint64_t n_row, uint64_t n_col, uint16_t* data);

// All wh layouts are one: in each band, each column of 32-bit words becomes 128 contiguous bytes. A word holds two
// columns of f16, four of i8 or eight of i4, the last with its nibbles zipped.
enum class WordMap { keep, zip_nibbles };
void rows_to_word_columns(uint64_t n_bands, uint64_t words_per_row, WordMap map, std::byte* data);

}  // namespace tavik
