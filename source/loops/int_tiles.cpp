#include "source/loops.h"

#include <algorithm>
#include <cstring>

#include "source/loops/quantise.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr size_t pair_cols = 2 * tile_side;  // two tiles side by side: a cache line of each row

// The function copies few rows at a time, because the cache lines of many rows would compete for the same sets.
void copy_byte_rows(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst) {
  constexpr uint64_t group_rows = 8;
  for (uint64_t row = 0; row < n_row; row += group_rows) {
    const uint8_t* const from = src + row * n_col;
    uint8_t* to = dst + row / tall_tile_rows * tall_tile_rows * n_col + row % tall_tile_rows * tile_side;
    for (uint64_t column = 0; column < n_col; column += tile_side, to += tall_tile_elements)
      for (uint64_t i = 0; i < group_rows; ++i) simd::store(to + i * tile_side, simd::load(from + i * n_col + column));
  }
}

// Does the same past the caches. The tiles come one after the other, as they lie in memory.
void stream_byte_rows(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst) {
  constexpr uint64_t at_once = 8;
  StreamWriter<uint8_t, at_once * tile_side> tiles;
  tiles.begin(dst);
  for (uint64_t band = 0; band < n_row; band += tall_tile_rows)
    for (uint64_t column = 0; column < n_col; column += tile_side)
      for (uint64_t row = band; row < band + tall_tile_rows; row += at_once) {
        uint8_t* const to = tiles.room();
        for (uint64_t i = 0; i < at_once; ++i) {
          simd::store(to + i * tile_side, simd::load(src + (row + i) * n_col + column));
        }
        tiles.commit(at_once * tile_side);
      }
  tiles.end();
  simd::fence_streaming();
}

// Packs 32 rows of two tiles. Eight columns of a row form one word, and each column of words becomes 128 contiguous
// bytes.
void pack_pair(const uint8_t* rows, size_t pitch, std::byte* tiles) {
  for (size_t row = 0; row < band_rows; row += 8) {
    uint32_t words[8][8];
    for (size_t i = 0; i < 8; ++i) {
      const uint8_t* const from = rows + (row + i) * pitch;
      simd::store_zipped_nibbles(words[i], simd::load(from));
      simd::store_zipped_nibbles(words[i] + 4, simd::load(from + 32));
    }
    simd::transpose_words(reinterpret_cast<const std::byte*>(words), sizeof words[0], tiles + 4 * row, 4 * band_rows);
  }
}

// Does the work of pack_pair at the right and lower edges, where tiles have fewer rows or columns or the second tile is
// missing.
void pack_edge(const uint8_t* rows, size_t pitch, size_t n_row, size_t n_col, std::byte* tiles) {
  uint8_t padded[band_rows][pair_cols] = {};
  for (size_t row = 0; row < n_row; ++row) memcpy(padded[row], rows + row * pitch, n_col);
  std::byte pair[2 * i4_tile_bytes];
  pack_pair(padded[0], pair_cols, pair);
  memcpy(tiles, pair, n_col > tile_side ? 2 * i4_tile_bytes : i4_tile_bytes);
}

}  // namespace

void byte_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst) {
  if (n_col == 0) return;
  if (should_stream(2 * n_row * n_col, dst)) return stream_byte_rows(n_row, n_col, src, dst);
  copy_byte_rows(n_row, n_col, src, dst);
}

// Streaming stores bring no gain here up to about 50 MB, because the function writes only half as many bytes as it
// reads.
void nibble_rows_to_tiles(uint64_t n_row, uint64_t n_col, const uint8_t* src, uint8_t* dst) {
  if (n_col == 0) return;
  auto* tiles = reinterpret_cast<std::byte*>(dst);
  for (uint64_t row = 0; row < n_row; row += band_rows) {
    for (uint64_t column = 0; column < n_col; column += pair_cols) {
      const uint8_t* const from = src + row * n_col + column;
      const size_t rows = std::min<uint64_t>(band_rows, n_row - row);
      const size_t cols = std::min<uint64_t>(pair_cols, n_col - column);
      if (rows == band_rows && cols == pair_cols)
        pack_pair(from, n_col, tiles);
      else
        pack_edge(from, n_col, rows, cols, tiles);
      tiles += cols > tile_side ? 2 * i4_tile_bytes : i4_tile_bytes;
    }
  }
}

}  // namespace tavik::inline MORUN_BACKEND
