#include "source/host/util/blocks.h"

#include <algorithm>
#include <cstring>

#include "simd/simd.h"
#include "source/host/util/scratch.h"
#include "source/host/util/tiles.h"

namespace tavik {
namespace {

namespace simd = morun::simd;

// A permutation of the places 0 to size - 1: place `to` of the transpose of an n_row x n_col matrix takes from
// source_of(to).
struct Transposition {
  uint64_t n_row, n_col;
  uint64_t size() const { return n_row * n_col; }
  uint64_t source_of(uint64_t to) const { return to % n_row * n_col + to / n_row; }
};

// Each cycle is walked from its lowest place alone, which is found by walking: slower than with a note of the places
// done, but without memory.
bool is_lowest_of_its_cycle(const Transposition& transposition, uint64_t place) {
  uint64_t other = transposition.source_of(place);
  while (other > place) other = transposition.source_of(other);
  return other == place;
}

// Moves bytes [offset, offset + length) of every unit.
void follow_cycles(const Transposition& transposition, size_t unit, size_t offset, size_t length, std::byte* data) {
  std::byte held[64];
  const auto slice = [&](uint64_t place) { return data + place * unit + offset; };
  for (uint64_t first = 0; first < transposition.size(); ++first) {
    if (!is_lowest_of_its_cycle(transposition, first)) continue;
    memcpy(held, slice(first), length);
    uint64_t to = first;
    for (uint64_t from = transposition.source_of(to); from != first; from = transposition.source_of(to)) {
      memcpy(slice(to), slice(from), length);
      to = from;
    }
    memcpy(slice(to), held, length);
  }
}

// The usual sizes of units as constants, so that a unit's copy is an instruction or a few.
template <class Body>
void with_constant_size(size_t size, Body body) {
  switch (size) {
    case 1:
      return body([] { return size_t{1}; });
    case 2:
      return body([] { return size_t{2}; });
    case 4:
      return body([] { return size_t{4}; });
    case 16:
      return body([] { return size_t{16}; });
    default:
      return body([size] { return size; });
  }
}

// Rows [row, row_end) and columns [column, column_end) of an n_row x n_col matrix to their places in the transpose.
struct Patch {
  uint64_t row, row_end, column, column_end;
};
template <class Size>
void transpose_patch(uint64_t n_row, uint64_t n_col, const Patch& patch, Size size, const std::byte* from,
                     std::byte* to) {
  for (uint64_t column = patch.column; column < patch.column_end; ++column)
    for (uint64_t row = patch.row; row < patch.row_end; ++row)
      memcpy(to + (column * n_row + row) * size(), from + (row * n_col + column) * size(), size());
}

// Eight by eight elements of 2 or 4 bytes; pitches in bytes.
void transpose_eight(const std::byte* from, size_t from_pitch, std::byte* to, size_t to_pitch, size_t width) {
  if (width == 4) return simd::transpose_words(from, from_pitch, to, to_pitch);
  simd::f16x8 row[8], zipped[8];
  for (size_t i = 0; i < 8; ++i) row[i] = simd::load(reinterpret_cast<const uint16_t*>(from + i * from_pitch));
  // Rows i and i + 4 become neighbours, three times over.
  for (int again = 0; again < 3; ++again) {
    for (size_t i = 0; i < 4; ++i) {
      zipped[2 * i] = simd::zip_low(row[i], row[i + 4]);
      zipped[2 * i + 1] = simd::zip_high(row[i], row[i + 4]);
    }
    std::copy(zipped, zipped + 8, row);
  }
  for (size_t i = 0; i < 8; ++i) simd::store(reinterpret_cast<uint16_t*>(to + i * to_pitch), row[i]);
}

// To other memory. In patches: down a column, lines are read whole that the next columns need again, and rows of a power
// of two would fight for the same sets of the caches.
void transpose_to(uint64_t n_row, uint64_t n_col, size_t unit, const std::byte* from, std::byte* to) {
  constexpr uint64_t side = 32;
  with_constant_size(unit, [&](auto size) {
    for (uint64_t column = 0; column < n_col; column += side) {
      for (uint64_t row = 0; row < n_row; row += side) {
        const Patch patch = {row, std::min(row + side, n_row), column, std::min(column + side, n_col)};
        const bool is_whole = patch.row_end == row + side && patch.column_end == column + side;
        if (!is_whole || (size() != 2 && size() != 4)) {
          transpose_patch(n_row, n_col, patch, size, from, to);
          continue;
        }
        for (uint64_t c = column; c < patch.column_end; c += 8)
          for (uint64_t r = row; r < patch.row_end; r += 8)
            transpose_eight(from + (r * n_col + c) * size(), n_col * size(), to + (c * n_row + r) * size(),
                            n_row * size(), size());
      }
    }
  });
}

// Copies block after block of one band of rows into place: `rows` rows at a pitch of `pitch` elements, from blocks of
// which the last may have its right part outside.
void copy_band_out_of_blocks(uint64_t rows, uint64_t pitch, uint64_t block_rows, uint64_t block_cols, size_t width,
                             const std::byte* blocks, std::byte* band) {
  for (uint64_t column = 0; column < pitch; column += block_cols) {
    const size_t length = std::min(block_cols, pitch - column) * width;
    for (uint64_t row = 0; row < rows; ++row)
      memcpy(band + (row * pitch + column) * width, blocks + row * block_cols * width, length);
    blocks += block_rows * block_cols * width;
  }
}

}  // namespace

void transpose_units(uint64_t n_row, uint64_t n_col, size_t unit, std::byte* data) {
  if (n_row < 2 || n_col < 2) return;
  const Scratch scratch(n_row * n_col * unit);
  if (!scratch) {
    const Transposition transposition{n_row, n_col};
    for (size_t offset = 0; offset < unit; offset += 64)
      follow_cycles(transposition, unit, offset, std::min<size_t>(64, unit - offset), data);
    return;
  }
  transpose_to(n_row, n_col, unit, data, scratch.bytes());
  memcpy(data, scratch.bytes(), n_row * n_col * unit);
}

// A band of block_rows rows and the same band of blocks occupy the same bytes: the band's rows, cut into pieces of
// block_cols elements, are transposed.
void block_linearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width,
                     std::byte* data) {
  if (block_rows == 0 || block_cols == 0) return;
  const uint64_t n_block_cols = n_col / block_cols;
  const size_t piece = block_cols * width;
  const size_t band_bytes = block_rows * n_block_cols * piece;
  for (uint64_t band = 0; band < n_row / block_rows; ++band)
    transpose_units(block_rows, n_block_cols, piece, data + band * band_bytes);

  // The rows left over keep the places of a whole band, as far as those lie inside the array.
  const uint64_t rows_left = n_row % block_rows;
  if (rows_left == 0 || n_block_cols == 0) return;
  std::byte* const rest = data + n_row / block_rows * band_bytes;
  const size_t rest_bytes = n_row * n_col * width - n_row / block_rows * band_bytes;
  const Scratch scratch(rest_bytes);
  if (!scratch) return;
  memcpy(scratch.bytes(), rest, rest_bytes);
  for (uint64_t row = 0; row < rows_left; ++row) {
    for (uint64_t column = 0; column < n_block_cols; ++column) {
      const size_t place = (column * block_rows + row) * piece;
      if (place >= rest_bytes) break;
      memcpy(rest + place, scratch.bytes() + (row * n_block_cols + column) * piece,
             std::min(piece, rest_bytes - place));
    }
  }
}

void block_unlinearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width,
                       std::byte* data) {
  if (block_rows == 0 || block_cols == 0 || n_row == 0 || n_col == 0) return;
  const uint64_t n_block_cols = divide_up(n_col, block_cols);
  const size_t blocks_bytes = block_rows * n_block_cols * block_cols * width;
  const size_t band_bytes = block_rows * n_col * width;
  const Scratch scratch(std::min(block_rows, n_row) * n_col * width);
  for (uint64_t first_row = 0, band = 0; first_row < n_row; first_row += block_rows, ++band) {
    const uint64_t rows = std::min(block_rows, n_row - first_row);
    std::byte* const blocks = data + band * blocks_bytes;
    std::byte* const to = data + band * band_bytes;
    if (scratch) {
      copy_band_out_of_blocks(rows, n_col, block_rows, block_cols, width, blocks, scratch.bytes());
      memcpy(to, scratch.bytes(), rows * n_col * width);
      continue;
    }
    // Padding and all, then the rows close up; the padding of the blocks is not kept.
    transpose_units(n_block_cols, block_rows, block_cols * width, blocks);
    for (uint64_t row = 0; row < rows; ++row)
      memmove(to + row * n_col * width, blocks + row * n_block_cols * block_cols * width, n_col * width);
  }
}

}  // namespace tavik
