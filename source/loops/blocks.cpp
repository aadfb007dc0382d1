#include "source/loops.h"

#include <algorithm>
#include <cstring>
#include <numeric>

#include "simd/simd.h"
#include "source/loops/scratch.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr uint64_t nowhere = ~uint64_t{0};

// Maps the places of units in a row-major band to their places in blocks, and back. The band has n_row of block_rows
// rows. When n_col is no multiple of block_cols, the last block has n_col % block_cols columns. All other places in the
// blocks are padding.
struct Band {
  uint64_t n_row, n_col, block_rows, block_cols;

  uint64_t size() const { return n_row * n_col; }
  uint64_t place_in_blocks(uint64_t place) const {
    if (place >= size()) return nowhere;
    const uint64_t row = place / n_col, column = place % n_col;
    return (column / block_cols * block_rows + row) * block_cols + column % block_cols;
  }
  uint64_t place_in_rows(uint64_t place) const {
    const uint64_t row = place / block_cols % block_rows;
    const uint64_t column = place / block_cols / block_rows * block_cols + place % block_cols;
    return row < n_row && column < n_col ? row * n_col + column : nowhere;
  }
};

// Each cycle of the permutation is walked once, from its lowest place. The function finds the lowest place by walking
// the cycle; that takes longer than marking visited places but needs no memory.
template <class Source>
bool is_lowest_of_its_cycle(uint64_t place, Source source_of) {
  uint64_t other = source_of(place);
  while (other != nowhere && other > place) other = source_of(other);
  return other == place;
}

// Moves units of `unit` bytes, one slice of a unit at a time. Each of the first n_places places takes the unit at
// source_of(place), or keeps its own unit when source_of(place) is nowhere. destination_of is the inverse of source_of.
// A place whose unit goes to none of the first n_places places is the end of an open path, and the path is walked from
// there.
template <class Source, class Destination>
void follow_paths(uint64_t n_places, size_t unit, std::byte* data, Source source_of, Destination destination_of) {
  constexpr size_t slice_bytes = 64;
  std::byte held[slice_bytes];
  for (size_t offset = 0; offset < unit; offset += slice_bytes) {
    const size_t length = std::min(slice_bytes, unit - offset);
    const auto slice = [&](uint64_t place) { return data + place * unit + offset; };
    for (uint64_t first = 0; first < n_places; ++first) {
      const uint64_t destination = destination_of(first);
      if (destination < first) continue;  // neither the end of an open path nor the lowest place of a cycle
      if (destination < n_places && !is_lowest_of_its_cycle(first, source_of)) continue;
      memcpy(held, slice(first), length);
      uint64_t to = first, from = source_of(to);
      for (; from != nowhere && from != first; from = source_of(to)) {
        memcpy(slice(to), slice(from), length);
        to = from;
      }
      if (from == first) memcpy(slice(to), held, length);
    }
  }
}

// Passes the usual unit sizes as constants, so that copying a unit compiles to one or a few instructions.
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

// Transposes four rows of units of 16 bytes, the height of most blocks. The units of two columns are loaded before the
// first of them is stored: where rows lie a multiple of 4 KiB apart, processors let a load wait for a store before it
// whose address ends in the same 12 bits. n_col is even.
void transpose_four_rows(uint64_t n_col, const std::byte* from, std::byte* to) {
  const auto unit = [=](uint64_t row, uint64_t column) {
    return simd::load(reinterpret_cast<const uint16_t*>(from + (row * n_col + column) * 16));
  };
  for (uint64_t column = 0; column < n_col; column += 2) {
    const simd::f16x8 held[8] = {unit(0, column),     unit(1, column),     unit(2, column),     unit(3, column),
                                 unit(0, column + 1), unit(1, column + 1), unit(2, column + 1), unit(3, column + 1)};
    for (size_t i = 0; i < 8; ++i) simd::store(reinterpret_cast<uint16_t*>(to + (4 * column + i) * 16), held[i]);
  }
}

constexpr uint64_t side = 32;

// Transposes eight columns of `side` rows of halves. Pitches are in bytes.
void transpose_eight_halves(const std::byte* from, size_t from_pitch, std::byte* to, size_t to_pitch) {
  constexpr size_t rows = simd::wide_lanes_of_halves;
  for (size_t r = 0; r < side; r += rows) {
    simd::wide_f16 row[8], zipped[8];
    for (size_t i = 0; i < 8; ++i) row[i] = simd::load_eights(from + (r + i) * from_pitch, 8 * from_pitch);
    // Each round interleaves rows i and i + 4. Three rounds transpose the eight rows.
    for (int again = 0; again < 3; ++again) {
      for (size_t i = 0; i < 4; ++i) {
        zipped[2 * i] = simd::zip_low(row[i], row[i + 4]);
        zipped[2 * i + 1] = simd::zip_high(row[i], row[i + 4]);
      }
      std::copy(zipped, zipped + 8, row);
    }
    for (size_t i = 0; i < 8; ++i) simd::store(reinterpret_cast<uint16_t*>(to + i * to_pitch + r * 2), row[i]);
  }
}

// Transposes eight rows of `side` columns of words. Pitches are in bytes.
void transpose_eight_words(const std::byte* from, size_t from_pitch, std::byte* to, size_t to_pitch) {
  for (size_t c = 0; c < side; c += 8) simd::transpose_words(from + c * 4, from_pitch, to + c * to_pitch, to_pitch);
}

// Transposes a patch, which is at most 32 rows and 32 columns of a matrix. `size()` is the size of an element, pitches are
// in bytes.
template <class Size>
void transpose_patch(uint64_t n_row, uint64_t n_col, Size size, const std::byte* from, size_t from_pitch, std::byte* to,
                     size_t to_pitch) {
  // Rows that stand pages apart compete for the same few places of the first-level cache. Words are therefore taken eight
  // rows at a time. Halves would then be stored in pieces of 16 bytes, which takes longer.
  if (n_row == side && n_col == side && size() == 2) {
    for (uint64_t c = 0; c < side; c += 8)
      transpose_eight_halves(from + c * 2, from_pitch, to + c * to_pitch, to_pitch);
    return;
  }
  if (n_row == side && n_col == side && size() == 4) {
    for (uint64_t r = 0; r < side; r += 8)
      transpose_eight_words(from + r * from_pitch, from_pitch, to + r * 4, to_pitch);
    return;
  }
  for (uint64_t c = 0; c < n_col; ++c)
    for (uint64_t r = 0; r < n_row; ++r)
      memcpy(to + c * to_pitch + r * size(), from + r * from_pitch + c * size(), size());
}

// Calls body(row, rows, column, columns) for each patch of a matrix. Without patches, each column would read whole cache
// lines that the next columns need again, and rows whose length is a power of two would compete for the same sets of the
// caches. Large matrices are taken in squares of 256 x 256, so that the pages of a square stay in the second-level TLB.
template <class Body>
void for_each_patch(uint64_t n_row, uint64_t n_col, Body body) {
  constexpr uint64_t square = 256;
  for (uint64_t c0 = 0; c0 < n_col; c0 += square)
    for (uint64_t r0 = 0; r0 < n_row; r0 += square)
      for (uint64_t column = c0; column < std::min(c0 + square, n_col); column += side)
        for (uint64_t row = r0; row < std::min(r0 + square, n_row); row += side)
          body(row, std::min(side, n_row - row), column, std::min(side, n_col - column));
}

void transpose_to(uint64_t n_row, uint64_t n_col, size_t unit, const std::byte* from, std::byte* to) {
  if (unit == 16 && n_row == 4 && n_col % 2 == 0) return transpose_four_rows(n_col, from, to);
  with_constant_size(unit, [&](auto size) {
    for_each_patch(n_row, n_col, [&](uint64_t row, uint64_t rows, uint64_t column, uint64_t columns) {
      transpose_patch(rows, columns, size, from + (row * n_col + column) * size(), n_col * size(),
                      to + (column * n_row + row) * size(), n_row * size());
    });
  });
}

// Transposes a square of n x n elements whose rows stand `pitch` bytes apart. Exchanges the patches on both sides of the
// diagonal, which moves every element once.
constexpr size_t largest_exchanged = 4;
template <class Size>
void transpose_square(uint64_t n, Size size, std::byte* data, size_t pitch) {
  for_each_patch(n, n, [&](uint64_t row, uint64_t rows, uint64_t column, uint64_t columns) {
    if (column < row) return;
    alignas(64) std::byte held[side * side * largest_exchanged];
    std::byte* const upper = data + row * pitch + column * size();
    std::byte* const lower = data + column * pitch + row * size();
    transpose_patch(rows, columns, size, upper, pitch, held, rows * size());
    if (upper != lower) transpose_patch(columns, rows, size, lower, pitch, upper, pitch);
    for (uint64_t c = 0; c < columns; ++c) memcpy(lower + c * pitch, held + c * rows * size(), rows * size());
  });
}

// A matrix of squares: `down` x `across` squares of `side` x `side` elements. Once each square is transposed, the rows of
// squares, which are the segments here, stand at their wanted length and only have to be put into another order.
struct Squares {
  uint64_t side, down, across;

  uint64_t n_segment() const { return side * down * across; }
  // Returns the place in the matrix of the segment that belongs at `place` in its transpose.
  uint64_t source_of(uint64_t place) const {
    const uint64_t i = place % down, row = place / down % side, j = place / down / side;
    return (i * side + row) * across + j;
  }
};

// Puts the segments into the order of the transpose. Each cycle of the permutation is walked once. `moved` has a bit for
// each segment, all 0, and `held` has room for a segment.
void order_segments(const Squares& squares, size_t segment, std::byte* data, uint8_t* moved, std::byte* held) {
  for (uint64_t first = 0; first < squares.n_segment(); ++first) {
    if (moved[first / 8] >> first % 8 & 1) continue;
    uint64_t to = first, from = squares.source_of(to);
    if (from == first) continue;
    memcpy(held, data + first * segment, segment);
    for (; from != first; from = squares.source_of(to)) {
      memcpy(data + to * segment, data + from * segment, segment);
      moved[from / 8] |= static_cast<uint8_t>(1 << from % 8);
      to = from;
    }
    memcpy(data + to * segment, held, segment);
  }
}

// Transposes a matrix of squares in place. Returns false, with the matrix unchanged, when the working memory, less than
// the 64th part of the matrix, is not to be had.
bool transpose_squares(const Squares& squares, size_t unit, std::byte* data) {
  const size_t segment = squares.side * unit;
  const size_t map_bytes = divide_up(squares.n_segment(), 8);
  const Scratch scratch(segment + map_bytes);
  if (!scratch) return false;
  std::byte* const map = scratch.bytes() + segment;
  memset(map, 0, map_bytes);
  const auto order = [&] { order_segments(squares, segment, data, reinterpret_cast<uint8_t*>(map), scratch.bytes()); };
  // The squares are transposed where their rows are nearer to each other: before the change of the order or after it.
  const bool is_wide = squares.across > squares.down;
  const uint64_t down = is_wide ? squares.across : squares.down, across = is_wide ? squares.down : squares.across;
  if (is_wide) order();
  with_constant_size(unit, [&](auto size) {
    for (uint64_t i = 0; i < down; ++i)
      for (uint64_t j = 0; j < across; ++j)
        transpose_square(squares.side, size, data + (i * squares.side * across + j) * segment, across * segment);
  });
  if (!is_wide) order();
  return true;
}

// Copies the blocks of one band into `rows` row-major rows of `pitch` elements. The right part of the last block may
// lie outside the rows.
void copy_band_out_of_blocks(uint64_t rows, uint64_t pitch, uint64_t block_rows, uint64_t block_cols, size_t width,
                             const std::byte* blocks, std::byte* band) {
  for (uint64_t column = 0; column < pitch; column += block_cols) {
    const size_t length = std::min(block_cols, pitch - column) * width;
    for (uint64_t row = 0; row < rows; ++row)
      memcpy(band + (row * pitch + column) * width, blocks + row * block_cols * width, length);
    blocks += block_rows * block_cols * width;
  }
}

// Does the work of copy_band_out_of_blocks in place, without scratch memory. The blocks begin `distance` bytes behind
// the rows.
void move_band_out_of_blocks(const Band& band, size_t unit, size_t distance, std::byte* rows) {
  const uint64_t ahead = distance / unit;
  const auto source_of = [&](uint64_t to) {
    const uint64_t place = band.place_in_blocks(to);
    return place == nowhere ? nowhere : ahead + place;
  };
  follow_paths(band.size(), unit, rows, source_of,
               [&](uint64_t from) { return from < ahead ? nowhere : band.place_in_rows(from - ahead); });
}

// Moves row-major units at the start of `data` to their places in blocks, as far as these places lie inside rest_bytes.
// The last place may lie inside only in part.
void linearize_rest(const Band& rest, size_t piece, size_t rest_bytes, std::byte* data) {
  const uint64_t n_places = rest_bytes / piece;
  const auto source_of = [&](uint64_t to) { return rest.place_in_rows(to); };
  // The partial place lies behind the last row-major unit, so writing it overwrites no unit that still has to move.
  if (const uint64_t source = source_of(n_places); source != nowhere)
    memcpy(data + n_places * piece, data + source * piece, rest_bytes % piece);
  const Scratch scratch(rest.size() * piece);
  if (!scratch)
    return follow_paths(n_places, piece, data, source_of, [&](uint64_t from) { return rest.place_in_blocks(from); });
  memcpy(scratch.bytes(), data, rest.size() * piece);
  for (uint64_t to = 0; to < n_places; ++to)
    if (const uint64_t source = source_of(to); source != nowhere)
      memcpy(data + to * piece, scratch.bytes() + source * piece, piece);
}

// Transposes each of n_band matrices, which stand one behind the other.
void transpose_bands(uint64_t n_band, uint64_t n_row, uint64_t n_col, size_t unit, std::byte* data) {
  if (n_band == 0 || n_row < 2 || n_col < 2) return;
  const size_t band_bytes = n_row * n_col * unit;
  const Scratch scratch(band_bytes);
  for (; n_band > 0; --n_band, data += band_bytes) {
    if (scratch) {
      transpose_to(n_row, n_col, unit, data, scratch.bytes());
      memcpy(data, scratch.bytes(), band_bytes);
    } else {
      const Band band = {n_row, n_col, n_row, 1};
      follow_paths(
          band.size(), unit, data, [&](uint64_t to) { return band.place_in_rows(to); },
          [&](uint64_t from) { return band.place_in_blocks(from); });
    }
  }
}

}  // namespace

void transpose_units(uint64_t n_row, uint64_t n_col, size_t unit, std::byte* data) {
  constexpr size_t least_segment = 512;  // bytes; shorter ones take longer than the copy back from scratch memory
  if (n_row == 0 || n_col == 0) return;
  const uint64_t factor = std::gcd(n_row, n_col);
  if (n_row == n_col && unit <= largest_exchanged)
    return with_constant_size(unit, [&](auto size) { transpose_square(n_row, size, data, n_row * size()); });
  if (unit <= largest_exchanged && factor * unit >= least_segment &&
      transpose_squares({factor, n_row / factor, n_col / factor}, unit, data))
    return;
  transpose_bands(1, n_row, n_col, unit, data);
}

// A band of block_rows rows and the blocks of this band occupy the same bytes. Cutting the band's rows into pieces of
// block_cols elements and transposing the pieces therefore gives the blocks.
void block_linearize(uint64_t n_row, uint64_t n_col, uint64_t block_rows, uint64_t block_cols, size_t width,
                     std::byte* data) {
  if (block_rows == 0 || block_cols == 0) return;
  const uint64_t n_block_cols = n_col / block_cols;
  const size_t piece = block_cols * width;
  const size_t band_bytes = block_rows * n_block_cols * piece;
  transpose_bands(n_row / block_rows, block_rows, n_block_cols, piece, data);

  // The remaining rows are placed like the rows of a whole band, as far as their places lie inside the array.
  const Band rest = {n_row % block_rows, n_block_cols, block_rows, 1};
  if (rest.size() == 0) return;
  const size_t rest_bytes = n_row * n_col * width - n_row / block_rows * band_bytes;
  linearize_rest(rest, piece, rest_bytes, data + n_row / block_rows * band_bytes);
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
    } else if (n_col % block_cols == 0) {
      move_band_out_of_blocks({rows, n_block_cols, block_rows, 1}, block_cols * width, 0, to);
    } else {
      move_band_out_of_blocks({rows, n_col, block_rows, block_cols}, width, band * (blocks_bytes - band_bytes), to);
    }
  }
}

}  // namespace tavik::inline MORUN_BACKEND
