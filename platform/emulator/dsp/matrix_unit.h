// The software matrix unit: products of matrices that lie in tiles.
#pragma once

#include <cstddef>
#include <cstdint>

namespace parlo::dsp {

inline constexpr size_t tile_size = 32;  // columns of every tile, and rows of a weight tile

struct Shape {
  size_t n_row, n_col, n_inner;
};

// A kind of product A = X * W, described by the elements of its matrices. X (n_row x n_inner) and A (n_row x n_col) are
// in tiles of tile_rows x 32, W (n_inner x n_col) in tiles of 32 x 32. The tiles of a band stand one after the other.
struct ProductKind {
  size_t tile_rows;
  bool whole_bands;  // n_row must be a multiple of tile_rows
  size_t activation_bytes, result_bytes;
  size_t weight_bits;
  // All dimensions are in whole tiles. A must not overlap X or W. The bits of the result depend neither on blocking nor
  // on the number of threads.
  void (*multiply)(const Shape& shape, const std::byte* X, const std::byte* W, std::byte* A);
};

struct ProductKinds {
  // Halves. A tile of X or A holds row pair after row pair, and a row pair holds column after column. A tile of W holds
  // column pairs in the same way. Each sum is kept in one f32, is taken in ascending order of the inner index, and is
  // then rounded once to the nearest half. When a result is NaN, its payload is unspecified.
  ProductKind f16;

  // Unsigned bytes times signed bytes to i32, exact modulo 2^32. Tiles of X and A are row-major. A tile of W holds
  // groups of four columns, and a group holds row after row.
  ProductKind a8w8;

  // The same as a8w8, with signed weights of four bits. A tile of W holds groups of eight columns. Each byte holds one
  // of the group's first four columns in its lower half and one of the last four in its upper half.
  ProductKind a8w4;
};

// The matrix unit, compiled for the vector backend that the process uses. The first call chooses the backend, as the
// library does.
const ProductKinds& matrix_unit();

}  // namespace parlo::dsp
