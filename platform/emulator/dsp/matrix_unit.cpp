#include "platform/emulator/dsp/matrix_unit.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "platform/emulator/dsp/elements.h"
#include "platform/emulator/dsp/parallel.h"
#include "simd/backends.h"
#include "simd/fetcher.h"

namespace parlo::dsp::inline MORUN_BACKEND {
namespace {

// The number of steps in one pass. A tile column of staged weights of this depth, and the rows that the kernel takes at a
// time, fit into the first-level cache.
constexpr size_t block_steps = 128;
constexpr size_t block_rows = 512;
constexpr size_t block_sums = size_t{1} << 18;  // rows x columns of a block
// With few rows, reading the weights takes most of the time. A short pass over many columns reads them nearly in the
// order of memory.
constexpr size_t few_rows = 8;
constexpr size_t few_rows_depth = 2 * tile_size;  // inner elements
// For fewer products, starting a thread costs more than the thread saves.
constexpr size_t n_product_per_thread = size_t{1} << 21;

size_t divide_up(size_t a, size_t b) {
  return (a + b - 1) / b;
}

struct Range {
  size_t begin, end;
  size_t size() const { return end - begin; }
};

template <class Elements>
struct TiledProduct {
  using Staged = typename Elements::Staged;
  using Sum = typename Elements::Sum;
  static constexpr size_t unit_rows = Elements::unit_rows;
  static constexpr size_t block_depth = block_steps * Elements::step;
  static constexpr size_t tile_weights =  // values of type Elements::Weight in a tile of W
      tile_elements * Elements::weight_bits / (8 * sizeof(typename Elements::Weight));

  const Shape shape;
  const typename Elements::Activation* X;
  const typename Elements::Weight* W;
  typename Elements::Result* A;

  // The working memory of one thread.
  struct Scratch {
    alignas(64) Staged activation[block_rows * block_depth];  // units of rows, each [step][row of the unit]
    alignas(64) Staged panel[tile_size * block_depth];        // a column of tiles, [step][32 columns]
    alignas(64) Sum sums[block_sums];                         // for each column of tiles [row][32 columns]
  };

  // Returns the index at which row `row` of the tile at column `column` begins, in a tiled matrix of n_column columns.
  static size_t position(size_t row, size_t column, size_t n_column) {
    const size_t row_of_tile = row % Elements::tile_rows;
    return (row - row_of_tile) * n_column + column * Elements::tile_rows + row_of_tile * tile_size;
  }

  const typename Elements::Weight* weight_tile(size_t k, size_t column) const {
    return W + (k / tile_size * (shape.n_col / tile_size) + column / tile_size) * tile_weights;
  }

  void stage_activation(Range rows, Range inner, Staged* staged) const {
    for (size_t band = rows.begin; band < rows.end; band += Elements::tile_rows)
      for (size_t k = inner.begin; k < inner.end; k += tile_size)
        for (size_t row = band; row < std::min(band + Elements::tile_rows, rows.end); row += unit_rows)
          Elements::stage_unit(X + position(row, k, shape.n_inner),
                               staged + (row - rows.begin) * block_depth + (k - inner.begin) * unit_rows);
  }

  void stage_weights(Range inner, size_t column, Staged* panel) const {
    for (size_t k = inner.begin; k < inner.end; k += tile_size)
      Elements::stage_weights(weight_tile(k, column), panel + (k - inner.begin) * tile_size);
  }

  // Fetches the sums of the group of rows that follows.
  template <size_t n_row, size_t n_column>
  static void fetch_sums_behind(const Sum* sums) {
#pragma GCC unroll 16
    for (size_t r = 0; r < n_row; ++r)
#pragma GCC unroll 4
      for (size_t i = 0; i < n_column; i += simd::cache_line / sizeof *sums)
        simd::prefetch_ahead(sums, (n_row + r) * tile_size + i);
  }

  // Multiplies n_row rows by the first columns of the panel, n_vector vectors of them, and adds the products to
  // sums[n_row][tile_size].
  template <size_t n_row, size_t n_vector>
  static void accumulate(size_t n_inner, const Staged* rows, const Staged* panel, Sum* sums) {
    constexpr size_t n_lane = simd::wide_lanes, step = Elements::step;
    decltype(simd::load_wide(sums)) total[n_row][n_vector];
#pragma GCC unroll 16
    for (size_t r = 0; r < n_row; ++r)
#pragma GCC unroll 4
      for (size_t v = 0; v < n_vector; ++v) total[r][v] = simd::load_wide(sums + r * tile_size + v * n_lane);
    fetch_sums_behind<n_row, n_vector * n_lane>(sums);
    for (size_t k = 0; k < n_inner; k += step) {
      decltype(Elements::load(panel)) weights[n_vector];
#pragma GCC unroll 4
      for (size_t v = 0; v < n_vector; ++v) weights[v] = Elements::load(panel + v * n_lane * step);
#pragma GCC unroll 16
      for (size_t r = 0; r < n_row; ++r) {
        const size_t unit = r / unit_rows * unit_rows;
        const auto same = Elements::broadcast(rows + unit * block_depth + r % unit_rows * step);
#pragma GCC unroll 4
        for (size_t v = 0; v < n_vector; ++v) total[r][v] = simd::multiply_add(weights[v], same, total[r][v]);
      }
      panel += tile_size * step;
      rows += unit_rows * step;
    }
#pragma GCC unroll 16
    for (size_t r = 0; r < n_row; ++r)
#pragma GCC unroll 4
      for (size_t v = 0; v < n_vector; ++v) simd::store(sums + r * tile_size + v * n_lane, total[r][v]);
  }

  // Multiplies n_row rows by all columns of the panel. Two rows by two vectors would be so few sums that each
  // multiply-add waits for the one before.
  template <size_t n_row>
  static void accumulate_group(size_t n_inner, const Staged* rows, const Staged* panel, Sum* sums) {
    constexpr size_t n_vector = n_row == 2 ? tile_size / simd::wide_lanes : 2;
    for (size_t column = 0; column < tile_size; column += n_vector * simd::wide_lanes)
      accumulate<n_row, n_vector>(n_inner, rows, panel + column * Elements::step, sums + column);
  }

  static size_t n_group(size_t n_row) {
    return divide_up(n_row, simd::kernel_rows);
  }

  // Multiplies all rows by a column of tiles. The rows are taken in n_group(n_row) groups of nearly equal size.
  template <class BeforeGroup>
  static void accumulate_rows(size_t n_row, size_t n_inner, const Scratch& scratch, Sum* sums,
                              const BeforeGroup& before_group) {
    static constexpr auto accumulate_pairs = []<size_t... pair>(std::index_sequence<pair...>) {
      return std::array{accumulate_group<2 * (pair + 1)>...};
    }
    (std::make_index_sequence<simd::kernel_rows / 2>());
    size_t n_left = n_group(n_row);
    for (size_t row = 0; row < n_row; --n_left) {
      const size_t n_pair = divide_up((n_row - row) / 2, n_left);
      before_group();
      accumulate_pairs[n_pair - 1](n_inner, scratch.activation + row * block_depth, scratch.panel,
                                   sums + row * tile_size);
      row += 2 * n_pair;
    }
  }

  // Stores the sums of the block. The rows from rows.end up to stored_end have the result of the last row.
  void store_block(Range rows, size_t stored_end, Range columns, const Sum* sums) const {
    const auto sums_of = [&](size_t row) { return sums + (std::min(row, rows.end - 1) - rows.begin) * tile_size; };
    for (size_t column = columns.begin; column < columns.end; column += tile_size) {
      for (size_t row = rows.begin; row < stored_end; row += unit_rows)
        Elements::store_unit(sums_of(row), sums_of(row + unit_rows - 1), A + position(row, column, shape.n_col));
      sums += rows.size() * tile_size;
    }
  }

  // What the stage functions will read, fetched in n_share shares.
  simd::Fetcher activation_fetcher(Range rows, Range inner, size_t n_share) const {
    constexpr size_t band_bytes = Elements::tile_rows * sizeof *X;  // of one inner element
    return {X + position(rows.begin, inner.begin, shape.n_inner), inner.size() * band_bytes, shape.n_inner * band_bytes,
            divide_up(rows.size(), Elements::tile_rows), n_share};
  }
  simd::Fetcher weights_fetcher(Range inner, size_t column, size_t n_share) const {
    constexpr size_t tile_bytes = tile_weights * sizeof *W;
    return {weight_tile(inner.begin, column), tile_bytes, shape.n_col / tile_size * tile_bytes,
            inner.size() / tile_size, n_share};
  }

  void multiply_block(Range rows, size_t stored_end, Range columns, size_t depth, Scratch& scratch) const {
    std::fill_n(scratch.sums, rows.size() * columns.size(), Sum{0});
    // After the last pass, another block may begin with the first, for the same columns or for the same rows.
    const auto pass_from = [&](size_t k) {
      const size_t begin = k < shape.n_inner ? k : 0;
      return Range{begin, std::min(begin + depth, shape.n_inner)};
    };
    const size_t n_share = n_group(rows.size());  // one for each group of rows
    for (size_t k = 0; k < shape.n_inner; k += depth) {
      const Range inner = pass_from(k), next_inner = pass_from(k + depth);
      stage_activation(rows, inner, scratch.activation);
      simd::Fetcher next_activation = activation_fetcher(rows, next_inner, columns.size() / tile_size * n_share);
      Sum* sums = scratch.sums;
      for (size_t column = columns.begin; column < columns.end; column += tile_size) {
        stage_weights(inner, column, scratch.panel);
        const bool is_last = column + tile_size == columns.end;
        simd::Fetcher next_weights = is_last ? weights_fetcher(next_inner, columns.begin, n_share)
                                             : weights_fetcher(inner, column + tile_size, n_share);
        accumulate_rows(rows.size(), inner.size(), scratch, sums, [&] {
          next_weights.fetch_share();
          next_activation.fetch_share();
        });
        sums += rows.size() * tile_size;
      }
    }
    store_block(rows, stored_end, columns, scratch.sums);
  }

  // ---- Rows of zeros at the end ----

  bool is_zero(size_t row) const {
    const size_t place = row % Elements::unit_rows;
    for (size_t k = 0; k < shape.n_inner; k += tile_size) {
      const auto* unit = X + position(row - place, k, shape.n_inner);
      unsigned bits = 0;
      for (size_t i = 0; i < tile_size; ++i) bits |= unit[i * Elements::unit_rows + place];
      if (bits != 0) return false;
    }
    return true;
  }

  size_t n_row_before_zeros() const {
    size_t n_row = shape.n_row;
    while (n_row > 0 && is_zero(n_row - 1)) --n_row;
    return n_row;
  }
};

struct Block {
  Range rows, columns;
};

// How a product is cut into blocks, which n_thread threads share.
struct Plan {
  size_t n_row;  // rows that are computed
  size_t depth;  // inner elements of one pass
  size_t n_col;
  size_t n_column_of_block;
  size_t n_thread;

  size_t n_row_block() const { return divide_up(n_row, block_rows); }
  size_t n_block() const { return n_row_block() * divide_up(n_col, n_column_of_block); }
  Block block(size_t index) const {
    const size_t row = index % n_row_block() * block_rows, column = index / n_row_block() * n_column_of_block;
    return {{row, std::min(row + block_rows, n_row)}, {column, std::min(column + n_column_of_block, n_col)}};
  }
};

// Padding makes rows of zeros at the end of the activation. These rows all have the same result, which is not always
// zero. One or two of them are computed, and the others have the same result. The kernel takes rows in pairs.
size_t n_row_to_compute(size_t n_row, size_t n_row_before_zeros) {
  return std::min(n_row, divide_up(n_row_before_zeros + 1, 2) * 2);
}

Plan plan_for(const Shape& shape, size_t n_row_before_zeros, size_t block_depth) {
  Plan plan{};
  plan.n_row = n_row_to_compute(shape.n_row, n_row_before_zeros);
  plan.depth = plan.n_row <= few_rows ? few_rows_depth : block_depth;
  plan.n_col = shape.n_col;
  plan.n_thread =
      std::clamp(plan.n_row * shape.n_col * shape.n_inner / n_product_per_thread, size_t{1}, n_processors());
  plan.n_column_of_block = block_sums / std::min(plan.n_row, block_rows) / tile_size * tile_size;
  if (plan.n_thread == 1) return plan;
  // Makes blocks narrower when there are too few of them to keep every thread busy.
  const size_t even_share = divide_up(shape.n_col / tile_size * plan.n_row_block(), 4 * plan.n_thread) * tile_size;
  plan.n_column_of_block = std::min(plan.n_column_of_block, even_share);
  return plan;
}

template <class Elements>
void multiply(const Shape& shape, const std::byte* X, const std::byte* W, std::byte* A) {
  if (shape.n_row == 0 || shape.n_col == 0) return;
  using Product = TiledProduct<Elements>;
  const Product product{shape, reinterpret_cast<const typename Elements::Activation*>(X),
                        reinterpret_cast<const typename Elements::Weight*>(W),
                        reinterpret_cast<typename Elements::Result*>(A)};
  const Plan plan = plan_for(shape, product.n_row_before_zeros(), Product::block_depth);
  const size_t n_block = plan.n_block();
  std::atomic<size_t> next{0};
  // The calling thread allocates its scratch memory before anything is written. Another thread that cannot allocate its
  // own leaves its work to the others.
  using Scratch = typename Product::Scratch;
  const auto first_scratch = std::make_unique_for_overwrite<Scratch>();
  std::atomic_flag first_is_taken;
  run_on_threads(plan.n_thread, [&] {
    const bool is_first = !first_is_taken.test_and_set();
    const std::unique_ptr<Scratch> own(is_first ? nullptr : new (std::nothrow) Scratch);
    Scratch* const scratch = is_first ? first_scratch.get() : own.get();
    if (!scratch) return;
    for (size_t index = next++; index < n_block; index = next++) {
      const Block block = plan.block(index);
      const size_t stored_end = block.rows.end == plan.n_row ? shape.n_row : block.rows.end;
      product.multiply_block(block.rows, stored_end, block.columns, plan.depth, *scratch);
    }
  });
}

template <class Elements>
constexpr ProductKind kind(bool whole_bands) {
  return {Elements::tile_rows,
          whole_bands,
          sizeof(typename Elements::Activation),
          sizeof(typename Elements::Result),
          Elements::weight_bits,
          multiply<Elements>};
}

}  // namespace

}  // namespace parlo::dsp::inline MORUN_BACKEND

// The only name that leaves a backend.
extern "C" const parlo::dsp::ProductKinds MORUN_BACKEND_NAME(parlo_matrix_unit);
const parlo::dsp::ProductKinds MORUN_BACKEND_NAME(parlo_matrix_unit) = {
    parlo::dsp::kind<parlo::dsp::HalfElements>(true), parlo::dsp::kind<parlo::dsp::ByteElements>(false),
    parlo::dsp::kind<parlo::dsp::NibbleElements>(false)};
