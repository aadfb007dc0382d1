// What quantisers and dequantisers share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"
#include "source/host/util/streaming.h"

namespace tavik {

// u8 activations and i32 results stand in 64 x 32 tiles, row-major inside.
constexpr uint64_t int_tile_rows = 64, int_tile_cols = 32;
constexpr uint64_t int_tile_elements = int_tile_rows * int_tile_cols;

// Rows are worked on in segments: 32 columns, a row of a tile, which is four vectors before it is packed to bytes.
constexpr uint64_t segment_cols = int_tile_cols;
using Segment = std::array<morun::simd::i32x8, 4>;

// i32 in 64 x 32 tiles to row-major; columns past the last whole tile are not written.
void i32_tiles_to_rows(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

}  // namespace tavik
