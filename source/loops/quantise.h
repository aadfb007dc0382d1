// Definitions that the quantising and the dequantising files share.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "simd/simd.h"
#include "source/loops/streaming.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {

// A segment is 32 columns, one row of a tile. Before packing to bytes, a segment takes four vectors.
constexpr uint64_t segment_cols = tile_side;
using Segment = std::array<morun::simd::i32x8, 4>;

}  // namespace tavik::inline MORUN_BACKEND
