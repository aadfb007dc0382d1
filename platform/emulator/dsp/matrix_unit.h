// The software matrix unit: products of matrices that lie in tiles of 32 x 32 elements.
#pragma once

#include <cstddef>
#include <cstdint>

namespace parlo::dsp {

inline constexpr size_t tile_size = 32;

// A = X * W in halves, all dimensions multiples of 32. X (n_row x n_inner) and A (n_row x n_col) are in activation
// tiles: tile after tile along a band of 32 rows, inside a tile row pair after row pair, in a pair column after column.
// W (n_inner x n_col) is in weight tiles: the same with column pairs.
//
// Each sum is kept in one f32 and taken in ascending order of the inner index, then rounded once to the nearest half,
// so the bits depend neither on blocking nor on the number of threads. A result that is no number is some NaN. A must
// not overlap X or W.
void multiply_f16(size_t n_row, size_t n_col, size_t n_inner, const uint16_t* X, const uint16_t* W, uint16_t* A);

}  // namespace parlo::dsp
