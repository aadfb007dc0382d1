// What the library's own staging has left in X, the buffer for activations.
//
// A product computes whole tiles, so the DSP also multiplies the rows behind an activation's last row. They hold zeros
// in a fresh buffer, and what earlier, larger activations left in a used one. Nobody reads their results. But a matrix
// unit may pass over rows of zeros, and then one row after many would take longer than one row alone. The staging
// therefore clears them.
#pragma once

#include "include/tavik.h"

namespace tavik {

// An activation in tiles of tile_side columns, which take tile_bytes each. In a tile, each unit_rows rows take unit_bytes.
struct StagedTiles {
  uint64_t n_row, tiles_per_band;
  uint64_t tile_rows, tile_bytes;
  uint64_t unit_rows, unit_bytes;
  uint64_t end;  // bytes of X that the staging writes at most, counted from the start of X
};
StagedTiles staged_halves(uint64_t n_row, uint64_t n_inner);
StagedTiles staged_bytes(uint64_t n_row, uint64_t n_inner, uint64_t end);

// Stands behind each context of tavik_context_alloc, whose public record keeps its layout.
struct ContextRecord {
  tavik_context context;
  StagedTiles last;  // what was staged last; all zero when it was not in tiles
  uint64_t filled;   // bytes of X that any staging has written, counted from the start of X
};

// Clears what earlier activations left behind the last row of this one, as far as its tiles reach, unless the activation
// before had the same shape. Stands after the staging itself. The context is one of tavik_context_alloc.
void clear_stale_rows(tavik_context* context, const StagedTiles& tiles);

// Takes note of `end` bytes that are not in such tiles.
void note_staged(tavik_context* context, uint64_t end);

}  // namespace tavik
