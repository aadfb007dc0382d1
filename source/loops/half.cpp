#include "source/loops.h"

#include <algorithm>

#include "simd/simd.h"
#include "source/loops/streaming.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

bool should_stream_rows(uint64_t n_row, uint64_t n_col, const void* dst) {
  return should_stream(6 * n_row * n_col, dst) && n_col % 8 == 0;
}

// Calls body(row, tile, is_pair) for each pair of rows of each whole tile; is_pair is false for an odd last row. The
// function changes to the next pair after a few tiles of one pair. Neighbouring tiles lie close together and the rows
// of a matrix may lie pages apart, so this order touches fewer pages at a time.
template <bool streaming, class Body>
void for_each_row_pair(uint64_t n_row, uint64_t n_col, Body body) {
  constexpr uint64_t tiles_at_once = streaming ? 4 : 16;
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

template <bool streaming>
void rows_to_tiles(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst) {
  static constexpr float zeros[tile_side] = {};
  for_each_row_pair<streaming>(n_row, n_col, [&](uint64_t row, uint64_t tile, bool is_pair) {
    const float* const even = src + row * n_col + tile * tile_side;
    const float* const odd = is_pair ? even + n_col : zeros;
    uint16_t* const pair = dst + place_of_pair(row, tile, n_col);
    fetch_for_put<streaming>(pair, tiles_ahead * tile_elements, 2 * tile_side);
    for (size_t i = 0; i < tile_side; i += 8) {
      const simd::f16x8 a = simd::narrow(simd::load(even + i)), b = simd::narrow(simd::load(odd + i));
      put<streaming>(pair + 2 * i, simd::zip_low(a, b));
      put<streaming>(pair + 2 * i + 8, simd::zip_high(a, b));
    }
  });
  if constexpr (streaming) simd::fence_streaming();
}

template <bool streaming>
void tiles_to_rows(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  for_each_row_pair<streaming>(n_row, n_col, [&](uint64_t row, uint64_t tile, bool is_pair) {
    const uint16_t* const pair = src + place_of_pair(row, tile, n_col);
    float* const even = dst + row * n_col + tile * tile_side;
    fetch_for_put<streaming>(even, tiles_ahead * tile_side, tile_side);
    if (is_pair) fetch_for_put<streaming>(even + n_col, tiles_ahead * tile_side, tile_side);
    // Writes 16 values, a whole cache line, of the even row, and then 16 values of the odd row.
    for (size_t i = 0; i < tile_side; i += 16) {
      const simd::f16x8 a = simd::load(pair + 2 * i), b = simd::load(pair + 2 * i + 8);
      const simd::f16x8 c = simd::load(pair + 2 * i + 16), d = simd::load(pair + 2 * i + 24);
      put<streaming>(even + i, simd::widen(simd::unzip_even(a, b)));
      put<streaming>(even + i + 8, simd::widen(simd::unzip_even(c, d)));
      if (!is_pair) continue;
      put<streaming>(even + n_col + i, simd::widen(simd::unzip_odd(a, b)));
      put<streaming>(even + n_col + i + 8, simd::widen(simd::unzip_odd(c, d)));
    }
  });
  if constexpr (streaming) simd::fence_streaming();
}

// Writes `count` elements. eight(i) returns a vector of those from index i on, and one(i) returns a single one. Arrays
// of `bytes` together that are too large for the caches are written past them, from the first whole cache line on.
template <class T, class Eight, class One>
void convert(uint64_t count, uint64_t bytes, T* dst, Eight eight, One one) {
  constexpr uint64_t line = line_elements<T>;
  uint64_t i = 0;
  if (exceeds_caches(bytes) && reinterpret_cast<uintptr_t>(dst) % sizeof(T) == 0) {
    for (const uint64_t head = elements_before_line(dst); i < head; ++i) dst[i] = one(i);
    for (; i + line <= count; i += line)
      for (uint64_t j = i; j < i + line; j += 8) simd::store_streaming(dst + j, eight(j));
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
  if (should_stream_rows(n_row, n_col, dst)) return rows_to_tiles<true>(n_row, n_col, src, dst);
  rows_to_tiles<false>(n_row, n_col, src, dst);
}

void f16_ah_to_f32_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  if (should_stream_rows(n_row, n_col, dst)) return tiles_to_rows<true>(n_row, n_col, src, dst);
  tiles_to_rows<false>(n_row, n_col, src, dst);
}

}  // namespace tavik::inline MORUN_BACKEND
