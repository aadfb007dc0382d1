// The software matrix unit: products of matrices that lie in tiles.
#pragma once

#include <cstddef>
#include <cstdint>

namespace parlo::dsp {

inline constexpr size_t tile_size = 32;  // columns of every tile, and inner elements

struct Shape {
  size_t n_row, n_col, n_inner;
};

// A kind of product A = X * W by the elements of its matrices. X (n_row x n_inner) and A (n_row x n_col) are in tiles of
// tile_rows x 32, W (n_inner x n_col) in tiles of 32 x 32, tile after tile along a band of tiles.
struct ProductKind {
  size_t tile_rows;
  bool whole_bands;  // takes multiples of tile_rows only
  size_t activation_bytes, result_bytes;
  size_t weight_bits;
  // All dimensions in whole tiles. A must not overlap X or W. The bits depend neither on blocking nor on the number of
  // threads.
  void (*multiply)(const Shape& shape, const std::byte* X, const std::byte* W, std::byte* A);
};

// Halves. Inside a tile of X and A lies row pair after row pair, in a pair column after column; in W column pairs the
// same way. Each sum is kept in one f32 and taken in ascending order of the inner index, then rounded once to the
// nearest half. A result that is no number is some NaN.
extern const ProductKind f16;

// Unsigned bytes times signed bytes to i32, exact modulo 2^32. Tiles of X and A are row-major; in those of W lie groups
// of four columns, in a group row after row.
extern const ProductKind a8w8;

// The same with signed weights of four bits: in a tile of W a group of eight columns is like one of four of the above,
// its first four columns in the lower halves of the bytes.
extern const ProductKind a8w4;

}  // namespace parlo::dsp
