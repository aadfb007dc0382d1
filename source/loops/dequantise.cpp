#include "source/loops.h"

#include <algorithm>
#include <cmath>

#include "source/loops/quantise.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

struct ResultRows {
  const float* scales;
  const int32_t* sums;
};
template <class ZeroPoint>
struct ResultColumns {
  const ZeroPoint* zero_points;
  const uint16_t* scales;
  const int32_t* sums;
};

simd::i32x8 load_zero_points(const int8_t* zero_points, uint64_t column) {
  return simd::load_i8(zero_points + column);
}
simd::i32x8 load_zero_points(const uint32_t* zero_points, uint64_t column) {
  return simd::load_i4(zero_points + column / 8);
}

// The terms of eight columns that are the same in every row.
struct ColumnTerms {
  simd::f32x8 sum, negative_zero_point, zero_point_128, scale;
};
template <class ZeroPoint>
ColumnTerms load_columns(const ResultColumns<ZeroPoint>& columns, uint64_t column) {
  const simd::f32x8 zero_point = simd::to_float(load_zero_points(columns.zero_points, column));
  return {simd::to_float(simd::load(columns.sums + column)), simd::multiply(zero_point, simd::broadcast(-1)),
          simd::multiply(simd::broadcast(128), zero_point), simd::widen(simd::load(columns.scales + column))};
}

// A group of rows of one 64 x 32 tile: the first row and the number of rows, the tile's first column, and the index of
// the group's first element in the tiled array.
struct TileGroup {
  uint64_t row, n_row, column, place;
};

// Calls body(group, put) for each row group of each whole tile. The body passes the 32 results of row r of the group to
// put(r, results). With streaming stores a group is all rows of a tile. Otherwise a group is eight rows, because the
// cache lines of all rows of a tile would compete for the same sets of the cache.
template <bool streaming, class T, class Body>
void for_each_tile_group(uint64_t n_row, uint64_t n_col, T* dst, Body body) {
  constexpr uint64_t group_rows = streaming ? tall_tile_rows : 8;
  const uint64_t n_tiles = n_col / tile_side;
  for (uint64_t row = 0; row < n_row; row += group_rows) {
    const uint64_t first_place = row / tall_tile_rows * n_tiles * tall_tile_elements + row % tall_tile_rows * tile_side;
    for (uint64_t tile = 0; tile < n_tiles; ++tile)
      body(TileGroup{row, std::min(group_rows, n_row - row), tile * tile_side, first_place + tile * tall_tile_elements},
           [&](uint64_t r, const auto& results) {
             T* const to = dst + (row + r) * n_col + tile * tile_side;
             if (!streaming) fetch_ahead(to, tiles_ahead * tile_side, tile_side);
             for (size_t i = 0; i < 4; ++i)
               streaming ? simd::store_streaming(to + 8 * i, results[i]) : simd::store(to + 8 * i, results[i]);
           });
  }
  if (streaming) simd::fence_streaming();
}

// Calls for_each_tile_group, past the caches where all rows of the destination begin at a cache line. Elsewhere too many
// lines would be written in part.
template <class T, class Body>
void for_each_tile_group(uint64_t n_row, uint64_t n_col, T* dst, Body body) {
  const bool in_lines = reinterpret_cast<uintptr_t>(dst) % simd::cache_line == 0 && n_col % line_elements<T> == 0;
  if (in_lines && should_stream(8 * n_row * n_col, dst)) return for_each_tile_group<true>(n_row, n_col, dst, body);
  for_each_tile_group<false>(n_row, n_col, dst, body);
}

// Prefetches the row of the next tile that has the same place in its tile as `row`.
void fetch_next_tile(const int32_t* row) {
  simd::prefetch_ahead(row, tall_tile_elements);
  simd::prefetch_ahead(row, tall_tile_elements + tile_side / 2);
}

// Returns true when no result can be NaN. The scales multiply a finite value below 2^46. A row scale below 2^64 and a
// finite f16 column scale therefore give a finite result.
template <class ZeroPoint>
bool are_scales_ordinary(uint64_t n_row, uint64_t n_col, const ResultRows& rows,
                         const ResultColumns<ZeroPoint>& columns) {
  constexpr uint16_t f16_exponent = 0x7c00;
  bool ordinary = true;
  for (uint64_t row = 0; row < n_row; ++row) ordinary &= std::fabs(rows.scales[row]) < 0x1p64f;
  for (uint64_t column = 0; column < n_col; ++column)
    ordinary &= (columns.scales[column] & f16_exponent) != f16_exponent;
  return ordinary;
}

template <class ZeroPoint>
void output_to_f32(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                   const ResultRows& rows, const ResultColumns<ZeroPoint>& columns) {
  if (n_row <= 0 || n_col <= 0) return;
  const auto height = static_cast<uint64_t>(n_row), width = static_cast<uint64_t>(n_col);
  const simd::f32x8 inner = simd::broadcast(static_cast<float>(n_inner));
  const bool can_be_nan = !are_scales_ordinary(height, width / tile_side * tile_side, rows, columns);
  for_each_tile_group(height, width, dst, [&](const TileGroup& group, auto put) {
    ColumnTerms terms[4];
    for (size_t i = 0; i < 4; ++i) terms[i] = load_columns(columns, group.column + 8 * i);
    for (uint64_t r = 0; r < group.n_row; ++r) {
      const uint64_t row = group.row + r;
      const int32_t* const from = acc + group.place + r * tile_side;
      const simd::f32x8 row_sum = simd::broadcast(static_cast<float>(rows.sums[row]));
      const simd::f32x8 row_scale = simd::broadcast(rows.scales[row]);
      fetch_next_tile(from);
      simd::f32x8 results[4];
      for (size_t i = 0; i < 4; ++i) {
        simd::f32x8 t = simd::to_float(simd::load(from + 8 * i));
        t = simd::fused_multiply_add(simd::broadcast(-128), terms[i].sum, t);
        t = simd::fused_multiply_add(terms[i].negative_zero_point, row_sum, t);
        t = simd::fused_multiply_add(terms[i].zero_point_128, inner, t);
        results[i] = simd::multiply(simd::multiply(t, row_scale), terms[i].scale);
      }
      for (size_t i = 0; can_be_nan && i < 4; ++i) results[i] = simd::settle_nan(results[i]);
      put(r, results);
    }
  });
}

}  // namespace

void i32_tiles_to_rows(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst) {
  if (n_col < tile_side) return;
  for_each_tile_group(n_row, n_col, dst, [&](const TileGroup& group, auto put) {
    for (uint64_t r = 0; r < group.n_row; ++r) {
      const int32_t* const from = src + group.place + r * tile_side;
      fetch_next_tile(from);
      const simd::i32x8 row[4] = {simd::load(from), simd::load(from + 8), simd::load(from + 16), simd::load(from + 24)};
      put(r, row);
    }
  });
}

void a8w8_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                           const float* activation_scales, const int32_t* activation_sums, const int8_t* zero_points,
                           const uint16_t* weight_scales, const int32_t* weight_sums) {
  output_to_f32(n_row, n_col, n_inner, dst, acc, {activation_scales, activation_sums},
                ResultColumns<int8_t>{zero_points, weight_scales, weight_sums});
}

void a8w4_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                           const float* activation_scales, const int32_t* activation_sums, const uint32_t* zero_points,
                           const uint16_t* weight_scales, const int32_t* weight_sums) {
  output_to_f32(n_row, n_col, n_inner, dst, acc, {activation_scales, activation_sums},
                ResultColumns<uint32_t>{zero_points, weight_scales, weight_sums});
}

}  // namespace tavik::inline MORUN_BACKEND
