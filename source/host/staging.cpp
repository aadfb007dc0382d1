#include "source/host/staging.h"

#include <algorithm>
#include <cstring>

#include "source/tiles.h"

namespace tavik {
namespace {

bool are_same(const StagedTiles& a, const StagedTiles& b) {
  return a.n_row == b.n_row && a.tiles_per_band == b.tiles_per_band && a.tile_rows == b.tile_rows;
}

ContextRecord* record_of(tavik_context* context) {
  return reinterpret_cast<ContextRecord*>(context);
}

}  // namespace

StagedTiles staged_halves(uint64_t n_row, uint64_t n_inner) {
  constexpr uint64_t half = sizeof(uint16_t);
  return {n_row,
          n_inner / tile_side,
          tile_side,
          tile_elements * half,
          2,
          2 * tile_side * half,
          round_up(n_row, tile_side) * n_inner * half};
}
StagedTiles staged_bytes(uint64_t n_row, uint64_t n_inner, uint64_t end) {
  return {n_row, divide_up(n_inner, tile_side), tall_tile_rows, tall_tile_elements, 1, tile_side, end};
}

void clear_stale_rows(tavik_context* context, const StagedTiles& tiles) {
  ContextRecord& record = *record_of(context);
  const bool is_clear = are_same(record.last, tiles);
  record.last = tiles;
  if (const uint64_t rows = tiles.n_row % tiles.tile_rows; rows != 0 && !is_clear) {
    const uint64_t used = divide_up(rows, tiles.unit_rows) * tiles.unit_bytes;
    const uint64_t band_bytes = tiles.tiles_per_band * tiles.tile_bytes;
    const uint64_t begin = tiles.n_row / tiles.tile_rows * band_bytes;
    const uint64_t end = std::min(begin + band_bytes, record.filled);
    for (uint64_t tile = begin; tile + used < end; tile += tiles.tile_bytes)
      memset(static_cast<std::byte*>(context->X) + tile + used, 0, std::min(tiles.tile_bytes, end - tile) - used);
  }
  record.filled = std::max(record.filled, tiles.end);
}

void note_staged(tavik_context* context, uint64_t end) {
  ContextRecord& record = *record_of(context);
  record.last = {};
  record.filled = std::max(record.filled, end);
}

}  // namespace tavik
