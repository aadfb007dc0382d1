#include "source/loops.h"

#include <algorithm>

#include "simd/simd.h"
#include "source/loops/streaming.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

// Calls body(row, tile, is_pair) for each pair of rows of each whole tile; is_pair is false for an odd last row. The
// function changes to the next pair after a few tiles of one pair. Neighbouring tiles lie close together and the rows
// of a matrix may lie pages apart, so this order touches fewer pages at a time.
template <class Body>
void for_each_row_pair(uint64_t n_row, uint64_t n_col, Body body) {
  constexpr uint64_t tiles_at_once = 16;
  const uint64_t n_tiles = n_col / tile_side;
  for (uint64_t band = 0; band < n_row; band += tile_side) {
    const uint64_t end_row = std::min(band + tile_side, n_row);
    for (uint64_t first = 0; first < n_tiles; first += tiles_at_once) {
      const uint64_t end_tile = std::min(first + tiles_at_once, n_tiles);
      for (uint64_t row = band; row < end_row; row += 2)
        for (uint64_t tile = first; tile < end_tile; ++tile) body(row, tile, row + 1 < end_row);
    }
  }
}

// Returns the index at which the interleaved values of a row pair start in the tiles.
uint64_t place_of_pair(uint64_t row, uint64_t tile, uint64_t n_col) {
  return (row / tile_side * (n_col / tile_side) + tile) * tile_elements + row % tile_side * tile_side;
}

// Converts one tile's values of a pair of rows, and interleaves them.
void rows_to_pair(const float* even, const float* odd, uint16_t* pair) {
  for (size_t i = 0; i < tile_side; i += 8) {
    const simd::f16x8 a = simd::narrow(simd::load(even + i)), b = simd::narrow(simd::load(odd + i));
    simd::store(pair + 2 * i, simd::zip_low(a, b));
    simd::store(pair + 2 * i + 8, simd::zip_high(a, b));
  }
}

// Does the inverse of rows_to_pair. The pair may have no odd row.
void pair_to_rows(const uint16_t* pair, float* even, float* odd, bool is_pair) {
  // Writes 16 values, a whole cache line, of the even row, and then 16 values of the odd row. The second eight of a line are
  // stored as two times four: in memory that begins 16 bytes past a line, eight of them would reach into the next line.
  for (size_t i = 0; i < tile_side; i += 16) {
    const simd::f16x8 a = simd::load(pair + 2 * i), b = simd::load(pair + 2 * i + 8);
    const simd::f16x8 c = simd::load(pair + 2 * i + 16), d = simd::load(pair + 2 * i + 24);
    simd::store(even + i, simd::widen(simd::unzip_even(a, b)));
    simd::store_fours(even + i + 8, even + i + 12, simd::widen(simd::unzip_even(c, d)));
    if (!is_pair) continue;
    simd::store(odd + i, simd::widen(simd::unzip_odd(a, b)));
    simd::store_fours(odd + i + 8, odd + i + 12, simd::widen(simd::unzip_odd(c, d)));
  }
}

void rows_to_tiles(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst) {
  static constexpr float zeros[tile_side] = {};
  for_each_row_pair(n_row, n_col, [&](uint64_t row, uint64_t tile, bool is_pair) {
    const float* const even = src + row * n_col + tile * tile_side;
    uint16_t* const pair = dst + place_of_pair(row, tile, n_col);
    fetch_ahead(pair, tiles_ahead * tile_elements, 2 * tile_side);
    const float* const odd = is_pair ? even + n_col : zeros;
    rows_to_pair(even, odd, pair);
  });
}

// Does the work of rows_to_tiles for whole bands of rows, past the caches. The tiles come one after the other, as they lie
// in memory.
void stream_rows_to_tiles(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst) {
  StreamWriter<uint16_t, 2 * tile_side> tiles;
  tiles.begin(dst);
  for (uint64_t band = 0; band < n_row; band += band_rows)
    for (uint64_t column = 0; column + tile_side <= n_col; column += tile_side)
      for (uint64_t row = band; row < band + band_rows; row += 2) {
        const float* const even = src + row * n_col + column;
        fetch_ahead(even, tiles_ahead * tile_side, tile_side);
        fetch_ahead(even, n_col + tiles_ahead * tile_side, tile_side);
        rows_to_pair(even, even + n_col, tiles.room());
        tiles.commit(2 * tile_side);
      }
  tiles.end();
  simd::fence_streaming();
}

void tiles_to_rows(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  for_each_row_pair(n_row, n_col, [&](uint64_t row, uint64_t tile, bool is_pair) {
    float* const even = dst + row * n_col + tile * tile_side;
    fetch_ahead(even, tiles_ahead * tile_side, tile_side);
    if (is_pair) fetch_ahead(even + n_col, tiles_ahead * tile_side, tile_side);
    pair_to_rows(src + place_of_pair(row, tile, n_col), even, even + n_col, is_pair);
  });
}

// Does the work of tiles_to_rows past the caches, in long pieces of rows.
void stream_tiles_to_rows(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  constexpr uint64_t tiles_at_once = 64, fetched_tiles = 8;
  const uint64_t n_tiles = n_col / tile_side;
  using Writer = StreamWriter<float, tile_side>;
  Writer even, odd;
  for (uint64_t band = 0; band < n_row; band += band_rows)
    for (uint64_t first = 0; first < n_tiles; first += tiles_at_once) {
      const uint64_t end = std::min(first + tiles_at_once, n_tiles), width = (end - first) * tile_side;
      for (uint64_t row = band; row < std::min(band + band_rows, n_row); row += 2) {
        float* const to = dst + row * n_col + first * tile_side;
        const bool is_pair = row + 1 < n_row;
        even.begin(to);
        odd.begin(to + n_col);
        Writer::fetch_ends(to, 2 * n_col, width);
        Writer::fetch_ends(to, 3 * n_col, width);
        for (uint64_t tile = first; tile < end; ++tile) {
          const uint16_t* const pair = src + place_of_pair(row, tile, n_col);
          // A pair is two cache lines long, and touches three where it begins within one.
          fetch_ahead(pair, fetched_tiles * tile_elements, 3 * tile_side);
          pair_to_rows(pair, even.room(), odd.room(), is_pair);
          even.commit(tile_side);
          if (is_pair) odd.commit(tile_side);
        }
        even.end();
        if (is_pair) odd.end();
      }
    }
  simd::fence_streaming();
}

// Writes `count` elements. eight(i) returns a vector of those from index i on, and one(i) returns a single one. Arrays
// of `bytes` together that are too large for the caches are written past them, from the first whole cache line on.
template <class T, class Eight, class One>
void convert(uint64_t count, uint64_t bytes, T* dst, Eight eight, One one) {
  constexpr uint64_t n_line = line_elements<T>;
  uint64_t i = 0;
  if (should_stream(bytes, dst)) {
    for (const uint64_t before = elements_before_line(dst); i < before; ++i) dst[i] = one(i);
    for (; i + n_line <= count; i += n_line)
      for (uint64_t j = i; j < i + n_line; j += 8) simd::store_streaming(dst + j, eight(j));
    simd::fence_streaming();
  }
  for (; i + 8 <= count; i += 8) simd::store(dst + i, eight(i));
  for (; i < count; ++i) dst[i] = one(i);
}

}  // namespace

void f32_to_f16(uint64_t count, const float* src, uint16_t* dst) {
  const auto narrow = [=](uint64_t i) { return simd::narrow(simd::load(src + i)); };
  convert(count / 4 * 4, 6 * count, dst, narrow, [=](uint64_t i) { return simd::narrow_bits(src[i]); });
}

void f16_to_f32(uint64_t count, const uint16_t* src, float* dst) {
  const auto widen = [=](uint64_t i) { return simd::widen(simd::load(src + i)); };
  convert(count / 8 * 8, 6 * count, dst, widen, [=](uint64_t i) { return simd::widen_bits(src[i]); });
}

void f32_rm_to_f16_ah(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst) {
  const uint64_t whole_bands = should_stream(6 * n_row * n_col, dst) ? n_row / band_rows * band_rows : 0;
  if (whole_bands > 0) stream_rows_to_tiles(whole_bands, n_col, src, dst);
  rows_to_tiles(n_row - whole_bands, n_col, src + whole_bands * n_col, dst + place_of_pair(whole_bands, 0, n_col));
}

void f16_ah_to_f32_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  if (should_stream(6 * n_row * n_col, dst)) return stream_tiles_to_rows(n_row, n_col, src, dst);
  tiles_to_rows(n_row, n_col, src, dst);
}

}  // namespace tavik::inline MORUN_BACKEND
