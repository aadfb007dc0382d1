// What quantisers and dequantisers share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"
#include "source/host/util/streaming.h"
#include "source/host/util/tiles.h"

namespace tavik {

// Rows are worked on in segments: 32 columns, a row of a tile, which is four vectors before it is packed to bytes.
constexpr uint64_t segment_cols = tile_side;
using Segment = std::array<morun::simd::i32x8, 4>;

// i32 in 64 x 32 tiles to row-major; columns past the last whole tile are not written.
void i32_tiles_to_rows(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

}  // namespace tavik
