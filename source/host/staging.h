// What the library's own staging has left in X, the buffer for activations.
//
// A product computes whole tiles, so the DSP also multiplies the rows behind an activation's last row. They hold zeros
// in a fresh buffer, and what earlier, larger activations left in a used one. Nobody reads their results. But a matrix
// unit may pass over rows of zeros, and then one row after many would take longer than one row alone. The staging
// therefore clears them.
#pragma once

#include "include/tavik.h"

namespace tavik {

// An activation in tiles. The rows stand in bands of tiles, and may leave the tiles of the last band partly filled.
struct StagedTiles {
  uint64_t
      begin;  // the last band if it is partly filled, in bytes from the start of X; this and the next are else equal
  uint64_t end;
  uint64_t used;    // bytes at the start of each tile of that band that hold rows
  uint64_t filled;  // bytes of X that the staging writes at most, counted from the start of X
};
StagedTiles staged_halves(uint64_t n_row, uint64_t n_inner);
StagedTiles staged_bytes(uint64_t n_row, uint64_t n_inner, uint64_t filled);

// Stands behind each context of tavik_context_alloc, whose public record keeps its layout.
struct ContextRecord {
  tavik_context context;
  ContextRecord* next;  // in the list of all contexts of tavik_context_alloc
  StagedTiles clear;    // the tiles that hold zeros behind their used bytes; `filled` is that of all stagings so far
};

// Enters a context of tavik_context_alloc into the list of all, and takes it out.
void keep_record(ContextRecord* record);
void forget_record(const tavik_context* context);

// Clears what earlier activations left behind the last row of this one, as far as its tiles reach and are not clear yet.
// Stands after the staging itself. A context that a program has made of its own has no record, and nothing is cleared.
void clear_stale_rows(tavik_context* context, const StagedTiles& tiles);

// Takes note of `end` bytes that are not in such tiles.
void note_staged(tavik_context* context, uint64_t end);

}  // namespace tavik
