#include "platform/emulator/dsp/matrix_unit.h"

#include <algorithm>
#include <atomic>
#include <memory>

#include "platform/emulator/dsp/elements.h"
#include "platform/emulator/dsp/parallel.h"

namespace parlo::dsp {
namespace {

// Steps of one pass: a panel and a column of tiles fit the first-level cache.
constexpr size_t block_steps = 128;
constexpr size_t block_rows = 256;
constexpr size_t block_columns = 256;
constexpr size_t n_product_per_thread = size_t{1} << 21;  // below, starting a thread costs more than it saves

struct Range {
  size_t begin, end;
  size_t size() const { return end - begin; }
};

template <class Elements>
struct Product {
  using Staged = typename Elements::Staged;
  using Sum = typename Elements::Sum;
  static constexpr size_t block_depth = block_steps * Elements::step;

  const Shape shape;
  const typename Elements::Activation* X;
  const typename Elements::Weight* W;
  typename Elements::Result* A;

  // What one thread works in.
  struct Scratch {
    alignas(64) Staged activation[block_rows * block_depth];  // panel after panel
    alignas(64) Staged weights[tile_size * block_depth];      // tile after tile
    alignas(64) Sum sums[block_rows * block_columns];         // panel after panel, each [column][16 rows]
  };

  // Where 16 rows of the tile at that column begin, in a matrix in tiles of that many columns.
  static size_t position(size_t row, size_t column, size_t n_column) {
    const size_t row_of_tile = row % Elements::tile_rows;
    return (row - row_of_tile) * n_column + column * Elements::tile_rows + row_of_tile * tile_size;
  }

  void stage_activation(Range rows, Range inner, Staged* panel) const {
    for (size_t row = rows.begin; row < rows.end; row += panel_rows) {
      for (size_t k = inner.begin; k < inner.end; k += tile_size) {
        Elements::stage_activation(X + position(row, k, shape.n_inner), panel);
        panel += panel_rows * tile_size;
      }
    }
  }

  void stage_weights(Range inner, size_t column, Staged* staged) const {
    for (size_t k = inner.begin; k < inner.end; k += tile_size) {
      const size_t tile = k * shape.n_col + column * tile_size;
      Elements::stage_weights(W + tile * Elements::weight_bits / (8 * sizeof *W), staged);
      staged += tile_elements;
    }
  }

  // Adds the products of one panel and n_column columns, over n_tile tiles of the inner dimension, to sums[column][16].
  template <size_t n_column>
  static void accumulate(size_t n_tile, const Staged* panel, const Staged* weights, Sum* sums) {
    using Vector = decltype(simd::load(sums));
    Vector low[n_column], high[n_column];
#pragma GCC unroll 6
    for (size_t c = 0; c < n_column; ++c) {
      low[c] = simd::load(sums + c * panel_rows);
      high[c] = simd::load(sums + c * panel_rows + 8);
    }
    for (size_t tile = 0; tile < n_tile; ++tile) {
      for (size_t k = 0; k < tile_size; k += Elements::step) {
        const auto x_low = Elements::load(panel), x_high = Elements::load(panel + 8 * Elements::step);
#pragma GCC unroll 6
        for (size_t c = 0; c < n_column; ++c) {
          const auto w = Elements::broadcast(weights + c / 2 * pair_pitch + 2 * k + c % 2 * Elements::step);
          low[c] = simd::multiply_add(x_low, w, low[c]);
          high[c] = simd::multiply_add(x_high, w, high[c]);
        }
        panel += panel_rows * Elements::step;
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
  static void accumulate_tile_column(size_t n_tile, const Staged* panel, const Staged* weights, Sum* sums) {
    size_t column = 0;
    for (; column < 24; column += 6)
      accumulate<6>(n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
    for (; column < tile_size; column += 4)
      accumulate<4>(n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
  }

  void store_block(Range rows, Range columns, const Sum* sums) const {
    constexpr size_t at_a_time = 8;
    for (size_t row = rows.begin; row < rows.end; row += panel_rows) {
      for (size_t column = columns.begin; column < columns.end; column += at_a_time) {
        const size_t column_of_tile = column % tile_size;
        Elements::store_columns(sums, A + position(row, column - column_of_tile, shape.n_col), column_of_tile);
        sums += at_a_time * panel_rows;
      }
    }
  }

  void multiply_block(Range rows, Range columns, Scratch& scratch) const {
    std::fill_n(scratch.sums, rows.size() * columns.size(), Sum{0});
    for (size_t k = 0; k < shape.n_inner; k += block_depth) {
      const Range inner{k, std::min(k + block_depth, shape.n_inner)};
      stage_activation(rows, inner, scratch.activation);
      for (size_t column = columns.begin; column < columns.end; column += tile_size) {
        stage_weights(inner, column, scratch.weights);
        for (size_t row = 0; row < rows.size(); row += panel_rows) {
          Sum* sums = scratch.sums + row * columns.size() + (column - columns.begin) * panel_rows;
          accumulate_tile_column(inner.size() / tile_size, scratch.activation + row * inner.size(), scratch.weights,
                                 sums);
        }
      }
    }
    store_block(rows, columns, scratch.sums);
  }
};

size_t divide_up(size_t a, size_t b) {
  return (a + b - 1) / b;
}

template <class Elements>
void multiply(const Shape& shape, const std::byte* X, const std::byte* W, std::byte* A) {
  const auto& [n_row, n_col, n_inner] = shape;
  const Product<Elements> product{shape, reinterpret_cast<const typename Elements::Activation*>(X),
                                  reinterpret_cast<const typename Elements::Weight*>(W),
                                  reinterpret_cast<typename Elements::Result*>(A)};
  const size_t n_row_block = divide_up(n_row, block_rows);
  const size_t n_thread = std::clamp(n_row * n_col * n_inner / n_product_per_thread, size_t{1}, n_processors());
  // Narrower blocks where there would be too few to keep every thread busy.
  const size_t even_share = divide_up(n_col / tile_size * n_row_block, 4 * n_thread) * tile_size;
  const size_t n_column = n_thread == 1 ? block_columns : std::min(block_columns, even_share);
  const size_t n_block = n_row_block * divide_up(n_col, n_column);

  std::atomic<size_t> next{0};
  run_on_threads(n_thread, [&] {
    const auto scratch = std::make_unique_for_overwrite<typename Product<Elements>::Scratch>();
    for (size_t block = next++; block < n_block; block = next++) {
      const size_t row = block % n_row_block * block_rows, column = block / n_row_block * n_column;
      product.multiply_block({row, std::min(row + block_rows, shape.n_row)},
                             {column, std::min(column + n_column, shape.n_col)}, *scratch);
    }
  });
}

template <class Elements>
constexpr Kind kind(bool whole_bands) {
  return {Elements::tile_rows,
          whole_bands,
          sizeof(typename Elements::Activation),
          sizeof(typename Elements::Result),
          Elements::weight_bits,
          multiply<Elements>};
}

}  // namespace

constexpr Kind f16 = kind<HalfElements>(true);
constexpr Kind a8w8 = kind<ByteElements>(false);
constexpr Kind a8w4 = kind<NibbleElements>(false);

}  // namespace parlo::dsp
