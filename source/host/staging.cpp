#include "source/host/staging.h"

#include <pthread.h>

#include <algorithm>
#include <cstring>

#include "source/tiles.h"

namespace tavik {
namespace {

// Tiles of halves and of bytes take the same bytes.
constexpr uint64_t tile_bytes = tall_tile_elements;
static_assert(tile_elements * sizeof(uint16_t) == tile_bytes);

StagedTiles staged_tiles(uint64_t n_row, uint64_t tile_rows, uint64_t tiles_per_band, uint64_t used, uint64_t filled) {
  const uint64_t band_bytes = tiles_per_band * tile_bytes, begin = n_row / tile_rows * band_bytes;
  return {begin, n_row % tile_rows == 0 ? begin : begin + band_bytes, used, filled};
}

pthread_mutex_t records_lock = PTHREAD_MUTEX_INITIALIZER;
ContextRecord* records = nullptr;

// The link that points to the context's record, or to the NULL at the end of the list. The caller holds the lock.
ContextRecord** find_link(const tavik_context* context) {
  ContextRecord** link = &records;
  while (*link != nullptr && &(*link)->context != context) link = &(*link)->next;
  return link;
}

ContextRecord* record_of(const tavik_context* context) {
  pthread_mutex_lock(&records_lock);
  ContextRecord* const record = *find_link(context);
  pthread_mutex_unlock(&records_lock);
  return record;
}

// Which tiles are clear once `tiles` is staged and the tiles of its band are clear.
StagedTiles clear_after(const StagedTiles& before, const StagedTiles& tiles) {
  // Less than a band writes no more than `used` bytes of any tile: scales and sums begin with a tile, and take no more
  // bytes than the rows do.
  const bool stays_clear = tiles.begin == 0 && before.begin == 0 && before.used <= tiles.used;
  return {tiles.begin, stays_clear ? std::max(before.end, tiles.end) : tiles.end, tiles.used,
          std::max(before.filled, tiles.filled)};
}

}  // namespace

StagedTiles staged_halves(uint64_t n_row, uint64_t n_inner) {
  constexpr uint64_t half = sizeof(uint16_t), rows_per_unit = 2;
  const uint64_t used = round_up(n_row % tile_side, rows_per_unit) * tile_side * half;
  return staged_tiles(n_row, tile_side, n_inner / tile_side, used, round_up(n_row, tile_side) * n_inner * half);
}
StagedTiles staged_bytes(uint64_t n_row, uint64_t n_inner, uint64_t filled) {
  return staged_tiles(n_row, tall_tile_rows, n_inner / tile_side, n_row % tall_tile_rows * tile_side, filled);
}

void keep_record(ContextRecord* record) {
  pthread_mutex_lock(&records_lock);
  record->next = records;
  records = record;
  pthread_mutex_unlock(&records_lock);
}
void forget_record(const tavik_context* context) {
  pthread_mutex_lock(&records_lock);
  if (ContextRecord** const link = find_link(context); *link != nullptr) *link = (*link)->next;
  pthread_mutex_unlock(&records_lock);
}

void clear_stale_rows(tavik_context* context, const StagedTiles& tiles) {
  ContextRecord* const record = record_of(context);
  if (record == nullptr) return;
  const StagedTiles before = record->clear;
  for (uint64_t tile = tiles.begin, end = std::min(tiles.end, before.filled); tile < end; tile += tile_bytes) {
    const bool is_clear = before.begin <= tile && tile < before.end;
    const uint64_t dirty = std::min(is_clear ? before.used : tile_bytes, end - tile);
    if (dirty > tiles.used) memset(static_cast<std::byte*>(context->X) + tile + tiles.used, 0, dirty - tiles.used);
  }
  record->clear = clear_after(before, tiles);
}

void note_staged(tavik_context* context, uint64_t end) {
  if (ContextRecord* const record = record_of(context)) record->clear = {0, 0, 0, std::max(record->clear.filled, end)};
}

}  // namespace tavik
