#include "source/loops.h"

#include <algorithm>
#include <cstring>

#include "simd/simd.h"
#include "source/loops/streaming.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr size_t group_rows = 8;  // a column of eight rows becomes one word of a tile
constexpr size_t group_bytes = group_rows * tile_side / 2;
constexpr uint64_t tiles_at_once = 32;
// Tiles side by side. The processor itself fetches pieces of rows ahead when they are this long. The writers of as many
// columns of tiles take 32 KiB of stack.
constexpr uint64_t streamed_at_once = 128;

void pack_group(const uint8_t* rows, uint64_t pitch, uint8_t* group) {
  simd::store_nibble_columns(group, [=](size_t i) { return rows + i * pitch; });
}

// Packs the same eight rows of several whole tiles side by side, and prefetches what the next eight rows read and
// write. Tiles side by side lie tile_pitch bytes apart.
void pack_groups(const uint8_t* rows, uint64_t pitch, uint64_t n_tile, uint8_t* group, uint64_t tile_pitch) {
  for (uint64_t tile = 0; tile < n_tile; ++tile, rows += tile_side, group += tile_pitch) {
    for (size_t i = 0; tile % 2 == 0 && i < group_rows; ++i) simd::prefetch_ahead(rows, (group_rows + i) * pitch);
    fetch_ahead(group, group_bytes, group_bytes);
    pack_group(rows, pitch, group);
  }
}

// Does the work of w4_flat_to_weight for a matrix of whole tiles, past the caches. The groups of a column of tiles follow
// each other in memory.
void stream_tiles(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col) {
  StreamWriter<uint8_t, group_bytes> columns[streamed_at_once];
  const uint64_t tile_pitch = n_row / tile_side * i4_tile_bytes, tiles = n_col / tile_side;
  for (uint64_t first = 0; first < tiles; first += streamed_at_once) {
    const uint64_t n_tile = std::min(streamed_at_once, tiles - first);
    for (uint64_t tile = 0; tile < n_tile; ++tile) columns[tile].begin(dst + (first + tile) * tile_pitch);
    for (uint64_t row = 0; row < n_row; row += group_rows) {
      const uint8_t* from = src + row * n_col + first * tile_side;
      for (uint64_t tile = 0; tile < n_tile; ++tile, from += tile_side) {
        pack_group(from, n_col, columns[tile].room());
        columns[tile].commit(group_bytes);
      }
    }
    for (uint64_t tile = 0; tile < n_tile; ++tile) columns[tile].end();
  }
  simd::fence_streaming();
}

// Packs a tile that has fewer rows or columns in the matrix; the others are 0.
void pack_edge(const uint8_t* src, uint64_t pitch, uint64_t n_row, uint64_t n_col, uint8_t* dst) {
  uint8_t tile[tile_elements] = {};
  for (uint64_t row = 0; row < n_row; ++row) memcpy(tile + row * tile_side, src + row * pitch, n_col);
  for (uint64_t row = 0; row < tile_side; row += group_rows)
    pack_group(tile + row * tile_side, tile_side, dst + row / group_rows * group_bytes);
}

}  // namespace

void w4_flat_to_weight(uint8_t* dst, const uint8_t* src, uint64_t n_row, uint64_t n_col) {
  const bool has_whole_tiles = n_row % tile_side == 0 && n_col % tile_side == 0;
  if (has_whole_tiles && should_stream(n_row * n_col / 2 * 3, dst)) return stream_tiles(dst, src, n_row, n_col);
  const uint64_t tile_pitch = divide_up(n_row, tile_side) * i4_tile_bytes;
  const uint64_t whole_tiles = n_col / tile_side, tiles = divide_up(n_col, tile_side);
  for (uint64_t first = 0; first < tiles; first += tiles_at_once) {
    const uint64_t end = std::min(first + tiles_at_once, tiles);
    for (uint64_t band = 0; band < n_row; band += band_rows) {
      const uint64_t rows = std::min(band_rows, n_row - band);
      const uint64_t end_whole = rows < band_rows ? first : std::max(first, std::min(end, whole_tiles));
      const uint8_t* const from = src + band * n_col;
      uint8_t* const to = dst + band / band_rows * i4_tile_bytes;
      for (uint64_t row = 0; row < band_rows && first < end_whole; row += group_rows)
        pack_groups(from + row * n_col + first * tile_side, n_col, end_whole - first,
                    to + first * tile_pitch + row / group_rows * group_bytes, tile_pitch);
      for (uint64_t tile = end_whole; tile < end; ++tile)
        pack_edge(from + tile * tile_side, n_col, rows, std::min(tile_side, n_col - tile * tile_side),
                  to + tile * tile_pitch);
    }
  }
}

}  // namespace tavik::inline MORUN_BACKEND
