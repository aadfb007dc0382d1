#include "platform/emulator/dsp/matrix_unit.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "platform/emulator/dsp/parallel.h"
#include "source/simd/simd.h"

namespace parlo::dsp {
namespace {

namespace simd = morun::simd;

// The kernel's lanes run along rows and its broadcasts along columns: then weights need no rearranging at all, only
// widening, and the activation, of which there is less, is transposed once for many columns.
constexpr size_t tile_elements = tile_size * tile_size;
constexpr size_t panel_rows = 16;  // two vectors
constexpr size_t panels_per_band = tile_size / panel_rows;
constexpr size_t pair_pitch = 2 * tile_size;  // elements of one row pair or column pair of a tile
// Inner elements of one pass: a panel and a column of tiles fit the first-level cache.
constexpr size_t block_depth = 128;
constexpr size_t block_rows = 256;
constexpr size_t block_columns = 256;
constexpr size_t n_product_per_thread = size_t{1} << 21;  // below, starting a thread costs more than it saves

struct Operands {
  size_t n_row, n_col, n_inner;
  const uint16_t* X;
  const uint16_t* W;
  uint16_t* A;
};

struct Range {
  size_t begin, end;
  size_t size() const { return end - begin; }
};

// What one thread works in.
struct Scratch {
  alignas(64) float activation[block_rows * block_depth];  // panel after panel, each [k][16 rows]
  alignas(64) float weights[tile_size * block_depth];      // tile after tile, as stored but widened
  alignas(64) float sums[block_rows * block_columns];      // panel after panel, each [column][16 rows]
};

// One activation tile to its two panels.
void transpose_activation_tile(const uint16_t* tile, float* panel, size_t panel_pitch) {
  constexpr size_t step = 8;  // words, each two rows of one column
  alignas(32) uint16_t rows[step][panel_rows];
  for (size_t half = 0; half < panels_per_band; ++half) {
    for (size_t k = 0; k < tile_size; k += step) {
      const uint16_t* source = tile + half * step * pair_pitch + 2 * k;
      simd::transpose_words(reinterpret_cast<const std::byte*>(source), 2 * pair_pitch,
                            reinterpret_cast<std::byte*>(rows), sizeof rows[0]);
      float* destination = panel + half * panel_pitch + k * panel_rows;
      for (size_t i = 0; i < step; ++i) {
        simd::store(destination + i * panel_rows, simd::widen(simd::load(rows[i])));
        simd::store(destination + i * panel_rows + 8, simd::widen(simd::load(rows[i] + 8)));
      }
    }
  }
}

void transpose_activation(const Operands& p, Range rows, Range inner, float* panels) {
  const size_t panel_pitch = inner.size() * panel_rows;
  for (size_t row = rows.begin; row < rows.end; row += tile_size) {
    float* panel = panels + (row - rows.begin) * inner.size();
    for (size_t k = inner.begin; k < inner.end; k += tile_size) {
      const uint16_t* tile = p.X + row * p.n_inner + k * tile_size;
      transpose_activation_tile(tile, panel + (k - inner.begin) * panel_rows, panel_pitch);
    }
  }
}

void widen_weights(const Operands& p, Range inner, size_t column, float* weights) {
  for (size_t k = inner.begin; k < inner.end; k += tile_size) {
    const uint16_t* tile = p.W + k * p.n_col + column * tile_size;
    for (size_t i = 0; i < tile_elements; i += 8) simd::store(weights + i, simd::widen(simd::load(tile + i)));
    weights += tile_elements;
  }
}

// Adds the products of one panel and n_column columns, over n_tile tiles of the inner dimension, to sums[column][16].
template <size_t n_column>
void accumulate(size_t n_tile, const float* panel, const float* weights, float* sums) {
  simd::f32x8 low[n_column], high[n_column];
#pragma GCC unroll 6
  for (size_t c = 0; c < n_column; ++c) {
    low[c] = simd::load(sums + c * panel_rows);
    high[c] = simd::load(sums + c * panel_rows + 8);
  }
  for (size_t tile = 0; tile < n_tile; ++tile) {
    for (size_t k = 0; k < tile_size; ++k) {
      const simd::f32x8 x_low = simd::load(panel), x_high = simd::load(panel + 8);
#pragma GCC unroll 6
      for (size_t c = 0; c < n_column; ++c) {
        const simd::f32x8 w = simd::broadcast(weights[c / 2 * pair_pitch + 2 * k + c % 2]);
        low[c] = simd::multiply_add(x_low, w, low[c]);
        high[c] = simd::multiply_add(x_high, w, high[c]);
      }
      panel += panel_rows;
    }
    weights += tile_elements;
  }
#pragma GCC unroll 6
  for (size_t c = 0; c < n_column; ++c) {
    simd::store(sums + c * panel_rows, low[c]);
    simd::store(sums + c * panel_rows + 8, high[c]);
  }
}

// The 32 columns of a tile in groups whose sums fill the registers: 4 x 6 + 2 x 4.
void accumulate_tile_column(size_t n_tile, const float* panel, const float* weights, float* sums) {
  size_t column = 0;
  for (; column < 24; column += 6)
    accumulate<6>(n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
  for (; column < tile_size; column += 4)
    accumulate<4>(n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
}

// Eight columns of one panel, from sums[column][16] to their place in a tile of the result.
void round_columns(const float* sums, uint16_t* destination) {
  constexpr size_t step = 8;
  alignas(32) uint16_t columns[step][panel_rows];
  for (size_t c = 0; c < step; ++c) {
    simd::store(columns[c], simd::narrow(simd::load(sums + c * panel_rows)));
    simd::store(columns[c] + 8, simd::narrow(simd::load(sums + c * panel_rows + 8)));
  }
  simd::transpose_words(reinterpret_cast<const std::byte*>(columns), sizeof columns[0],
                        reinterpret_cast<std::byte*>(destination), 2 * pair_pitch);
}

void round_block(const Operands& p, Range rows, Range columns, const float* sums) {
  for (size_t row = rows.begin; row < rows.end; row += panel_rows) {
    const size_t band = row / tile_size * tile_size;
    for (size_t column = columns.begin; column < columns.end; column += 8) {
      uint16_t* tile = p.A + band * p.n_col + column / tile_size * tile_elements;
      round_columns(sums, tile + (row - band) / 2 * pair_pitch + column % tile_size * 2);
      sums += 8 * panel_rows;
    }
  }
}

void multiply_block(const Operands& p, Range rows, Range columns, Scratch& scratch) {
  std::fill_n(scratch.sums, rows.size() * columns.size(), 0.0f);
  for (size_t k = 0; k < p.n_inner; k += block_depth) {
    const Range inner{k, std::min(k + block_depth, p.n_inner)};
    transpose_activation(p, rows, inner, scratch.activation);
    for (size_t column = columns.begin; column < columns.end; column += tile_size) {
      widen_weights(p, inner, column, scratch.weights);
      for (size_t row = 0; row < rows.size(); row += panel_rows) {
        float* sums = scratch.sums + row * columns.size() + (column - columns.begin) * panel_rows;
        accumulate_tile_column(inner.size() / tile_size, scratch.activation + row * inner.size(), scratch.weights,
                               sums);
      }
    }
  }
  round_block(p, rows, columns, scratch.sums);
}

size_t divide_up(size_t a, size_t b) {
  return (a + b - 1) / b;
}

}  // namespace

void multiply_f16(size_t n_row, size_t n_col, size_t n_inner, const uint16_t* X, const uint16_t* W, uint16_t* A) {
  const Operands operands{n_row, n_col, n_inner, X, W, A};
  const size_t n_row_block = divide_up(n_row, block_rows);
  const size_t n_thread = std::clamp(n_row * n_col * n_inner / n_product_per_thread, size_t{1}, n_processors());
  // Narrower blocks where there would be too few to keep every thread busy.
  const size_t even_share = divide_up(n_col / tile_size * n_row_block, 4 * n_thread) * tile_size;
  const size_t n_column = n_thread == 1 ? block_columns : std::min(block_columns, even_share);
  const size_t n_block = n_row_block * divide_up(n_col, n_column);

  std::atomic<size_t> next{0};
  run_on_threads(n_thread, [&] {
    const auto scratch = std::make_unique_for_overwrite<Scratch>();
    for (size_t block = next++; block < n_block; block = next++) {
      const size_t row = block % n_row_block * block_rows, column = block / n_row_block * n_column;
      multiply_block(operands, {row, std::min(row + block_rows, n_row)}, {column, std::min(column + n_column, n_col)},
                     *scratch);
    }
  });
}

}  // namespace parlo::dsp
