#include "platform/emulator/dsp/matrix_unit.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "platform/emulator/dsp/elements.h"
#include "platform/emulator/dsp/parallel.h"
#include "simd/backends.h"

namespace parlo::dsp::inline MORUN_BACKEND {
namespace {

// The number of steps in one pass. A panel and a column of tiles of this depth fit into the first-level cache.
constexpr size_t block_steps = 128;
constexpr size_t block_rows = 256;
constexpr size_t block_columns = 256;
constexpr size_t few_rows = 8;
// The inner elements of one pass with few rows. A short pass reads the weights nearly in the order of memory.
constexpr size_t few_rows_depth = 2 * tile_size;
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
  static constexpr size_t block_depth = block_steps * Elements::step;
  static constexpr size_t tile_weights =  // values of type Elements::Weight in a tile of W
      tile_elements * Elements::weight_bits / (8 * sizeof(typename Elements::Weight));

  const Shape shape;
  const typename Elements::Activation* X;
  const typename Elements::Weight* W;
  typename Elements::Result* A;

  // The working memory of one thread.
  struct Scratch {
    alignas(64) Staged panels[block_rows * block_depth];  // the operand in lanes
    alignas(64) Staged tiles[tile_size * block_depth];    // the operand that is broadcast, tile after tile
    // Panel after panel, each [column][16 rows]. With few rows: tile after tile, each [row][32 columns in lane order].
    alignas(64) Sum sums[block_rows * block_columns];
  };

  // Returns the index at which row `row` of the tile at column `column` begins, in a tiled matrix of n_column columns.
  static size_t position(size_t row, size_t column, size_t n_column) {
    const size_t row_of_tile = row % Elements::tile_rows;
    return (row - row_of_tile) * n_column + column * Elements::tile_rows + row_of_tile * tile_size;
  }

  const typename Elements::Weight* weight_tile(size_t k, size_t column) const {
    return W + (k / tile_size * (shape.n_col / tile_size) + column / tile_size) * tile_weights;
  }

  // Multiplies the panel, whose lanes fill one vector for each `v`, by n_broadcast rows or columns, over n_tile tiles
  // of the inner dimension. Adds the products to sums[n_broadcast][lanes].
  template <size_t n_broadcast, size_t... v>
  static void accumulate(std::index_sequence<v...>, size_t n_tile, const Staged* panel, const Staged* tiles,
                         Sum* sums) {
    constexpr size_t n_lane = 8 * sizeof...(v);
    decltype(simd::load(sums)) total[sizeof...(v)][n_broadcast];
#pragma GCC unroll 6
    for (size_t b = 0; b < n_broadcast; ++b) ((total[v][b] = simd::load(sums + b * n_lane + 8 * v)), ...);
    for (size_t tile = 0; tile < n_tile; ++tile) {
      for (size_t k = 0; k < tile_size; k += Elements::step) {
        const decltype(Elements::load(panel)) lanes[] = {Elements::load(panel + 8 * v * Elements::step)...};
#pragma GCC unroll 6
        for (size_t b = 0; b < n_broadcast; ++b) {
          const auto same = Elements::broadcast(tiles + b / 2 * pair_pitch + 2 * k + b % 2 * Elements::step);
          ((total[v][b] = simd::multiply_add(lanes[v], same, total[v][b])), ...);
        }
        panel += n_lane * Elements::step;
      }
      tiles += tile_elements;
    }
#pragma GCC unroll 6
    for (size_t b = 0; b < n_broadcast; ++b) (simd::store(sums + b * n_lane + 8 * v, total[v][b]), ...);
  }
  static constexpr std::make_index_sequence<2> two_vectors{};
  static constexpr std::make_index_sequence<4> four_vectors{};

  // ---- Blocks of rows and columns: lanes run along rows, columns of weights are broadcast ----

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
      Elements::stage_weights(weight_tile(k, column), staged);
      staged += tile_elements;
    }
  }

  // Takes the 32 columns of a tile in groups whose sums fill the registers: 4 x 6 + 2 x 4.
  static void accumulate_tile_column(size_t n_tile, const Staged* panel, const Staged* weights, Sum* sums) {
    size_t column = 0;
    for (; column < 24; column += 6)
      accumulate<6>(two_vectors, n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
    for (; column < tile_size; column += 4)
      accumulate<4>(two_vectors, n_tile, panel, weights + column / 2 * pair_pitch, sums + column * panel_rows);
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
      stage_activation(rows, inner, scratch.panels);
      for (size_t column = columns.begin; column < columns.end; column += tile_size) {
        stage_weights(inner, column, scratch.tiles);
        for (size_t row = 0; row < rows.size(); row += panel_rows) {
          Sum* sums = scratch.sums + row * columns.size() + (column - columns.begin) * panel_rows;
          accumulate_tile_column(inner.size() / tile_size, scratch.panels + row * inner.size(), scratch.tiles, sums);
        }
      }
    }
    store_block(rows, columns, scratch.sums);
  }

  // ---- Few rows: lanes run along columns, rows are broadcast ----

  // Stages the first rows in the form in which stage_weights stages columns.
  void stage_few_rows(Range inner, Staged* staged) const {
    for (size_t k = inner.begin; k < inner.end; k += tile_size) {
      alignas(64) Staged panel[panel_rows * tile_size];
      Elements::stage_activation(X + position(0, k, shape.n_inner), panel);
      for (size_t row = 0; row < few_rows; row += 2)
        for (size_t i = 0; i < tile_size; i += Elements::step)
          std::copy_n(panel + i * panel_rows + row * Elements::step, 2 * Elements::step,
                      staged + row * tile_size + 2 * i);
      staged += tile_elements;
    }
  }

  void stage_columns(Range inner, size_t column, Staged* panel) const {
    for (size_t k = inner.begin; k < inner.end; k += tile_size) {
      const auto* tile = weight_tile(k, column);
      for (size_t i = 0; i < tile_weights; i += 64 / sizeof *tile) simd::prefetch_ahead(tile, tile_weights + i);
      Elements::stage_columns(tile, panel);
      panel += tile_elements;
    }
  }

  // Stores sixteen rows. The rows after the first n_row are copies of row n_row - 1.
  void store_few_rows(size_t n_row, Range columns, const Sum* sums) const {
    for (size_t column = columns.begin; column < columns.end; column += tile_size) {
      alignas(64) Sum block[tile_size][panel_rows];
      for (size_t lane = 0; lane < tile_size; ++lane)
        for (size_t row = 0; row < panel_rows; ++row)
          block[Elements::column_of_lane(lane)][row] = sums[std::min(row, n_row - 1) * tile_size + lane];
      for (size_t c = 0; c < tile_size; c += 8)
        Elements::store_columns(block[c], A + position(0, column, shape.n_col), c);
      sums += few_rows * tile_size;
    }
  }

  // With few rows, rows and columns change places: lanes run along the columns of a tile, and rows are broadcast. All
  // weights have to be rearranged for this, but every lane computes a result that is needed. The weights are read in
  // the order of memory, because reading them takes most of the time.
  void multiply_few_rows(size_t n_row, Range columns, Scratch& scratch) const {
    std::fill_n(scratch.sums, few_rows * columns.size(), Sum{0});
    for (size_t k = 0; k < shape.n_inner; k += few_rows_depth) {
      const Range inner{k, std::min(k + few_rows_depth, shape.n_inner)};
      stage_few_rows(inner, scratch.tiles);
      for (size_t column = columns.begin; column < columns.end; column += tile_size) {
        stage_columns(inner, column, scratch.panels);
        Sum* sums = scratch.sums + few_rows * (column - columns.begin);
        for (size_t row = 0; row < n_row; row += 2)
          accumulate<2>(four_vectors, inner.size() / tile_size, scratch.panels, scratch.tiles + row * tile_size,
                        sums + row * tile_size);
      }
    }
    store_few_rows(n_row, columns, scratch.sums);
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

  // Copies the result of the last unit of rows before n_row to all rows from n_row on.
  void repeat_last_result(size_t n_row) const {
    constexpr size_t n_element = Elements::unit_rows * tile_size;
    for (size_t column = 0; column < shape.n_col; column += tile_size) {
      const auto* last = A + position(n_row - Elements::unit_rows, column, shape.n_col);
      for (size_t row = n_row; row < shape.n_row; row += Elements::unit_rows)
        std::copy_n(last, n_element, A + position(row, column, shape.n_col));
    }
  }
};

struct Block {
  Range rows, columns;
};

// How a product is cut into blocks, which n_thread threads share.
struct Plan {
  size_t n_row;       // rows that are computed
  bool has_few_rows;  // rows and columns change places
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
// zero. One or two of them are computed, and the result is copied to the others.
size_t n_row_to_compute(size_t n_row, size_t n_row_before_zeros, size_t unit_rows) {
  if (n_row_before_zeros < few_rows) return n_row_before_zeros + 1;
  return std::min(n_row, divide_up(n_row_before_zeros + unit_rows, panel_rows) * panel_rows);
}

Plan plan_for(const Shape& shape, size_t n_row_before_zeros, size_t unit_rows) {
  Plan plan{};
  plan.n_row = n_row_to_compute(shape.n_row, n_row_before_zeros, unit_rows);
  plan.has_few_rows = n_row_before_zeros < few_rows;
  plan.n_col = shape.n_col;
  plan.n_thread =
      std::clamp(plan.n_row * shape.n_col * shape.n_inner / n_product_per_thread, size_t{1}, n_processors());
  plan.n_column_of_block = plan.has_few_rows ? block_rows * block_columns / few_rows : block_columns;
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
  const Plan plan = plan_for(shape, product.n_row_before_zeros(), Elements::unit_rows);
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
      if (plan.has_few_rows)
        product.multiply_few_rows(block.rows.size(), block.columns, *scratch);
      else
        product.multiply_block(block.rows, block.columns, *scratch);
    }
  });
  product.repeat_last_result(plan.has_few_rows ? panel_rows : plan.n_row);
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
