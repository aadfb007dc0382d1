// Definitions that the quantising and the dequantising files share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"
#include "source/host/util/streaming.h"
#include "source/host/util/tiles.h"

namespace tavik {

// A segment is 32 columns, one row of a tile. Before packing to bytes, a segment takes four vectors.
constexpr uint64_t segment_cols = tile_side;
using Segment = std::array<morun::simd::i32x8, 4>;

// Converts i32 from 64 x 32 tiles to row-major. Columns past the last whole tile are not written.
void i32_tiles_to_rows(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst);

}  // namespace tavik
