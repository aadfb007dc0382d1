// Each lane of a register holds one of the four sums whose order is prescribed. A panel is as many columns of the result
// as four wide vectors hold: one or two times eight. The panel's sums of one row, or the panel's weights of four inner
// indices, stand in the vectors, one behind the other: the four lanes of each of the columns 0 4 1 5 2 6 3 7, then of
// the next eight columns alike. The activation is broadcast four values at a time.
//
// Inner indices are taken in steps of eight. Four zeros may fill up the last step. Adding zeros leaves every sum as it
// is, because no sum is -0.
#include "source/loops.h"

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <utility>

#include "simd/fetcher.h"
#include "simd/simd.h"
#include "source/loops/scratch.h"
#include "source/tiles.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr size_t n_lane = 4;
constexpr size_t step = 8;
constexpr size_t n_vector = 4;
constexpr size_t panel_lanes = n_vector * simd::wide_lanes;
constexpr size_t panel_columns = panel_lanes / n_lane;
// The rows whose sums fill the registers, and leave some to the activation and the weights. Vectors of 16 lanes come
// with twice as many registers.
constexpr bool has_many_registers = simd::wide_lanes == 16;
constexpr size_t group_rows = has_many_registers ? 6 : 3;

// The largest extents of a block. The block's widened activation stays in the second-level cache, and a panel's weights
// stay in the first-level cache. The rows are whole groups. All working memory together is less than 1 MiB.
constexpr size_t block_rows = has_many_registers ? 156 : 129, block_columns = 256;
constexpr size_t block_inner = has_many_registers ? 384 : 512;
// With at most few_rows rows, each group of rows widens the weights again, which costs less than storing them widened.
constexpr size_t few_rows = 6, few_rows_inner = 1024;
// A single group of rows reads each weight only once. Longer runs along a column then read memory faster.
constexpr size_t single_group_inner = 4096;

constexpr size_t results_at_once = 8;

constexpr size_t line_halves = simd::cache_line / sizeof(uint16_t);
constexpr size_t weights_lead = 512;  // halves of a column between the prefetch and the use
constexpr size_t fetched_lead = 64;   // the same, when the second-level cache has the column already

struct Range {
  size_t begin, end;
  size_t size() const { return end - begin; }
};
Range range_from(size_t begin, size_t most, size_t end) {
  return {begin, begin + std::min(most, end - begin)};
}

// The activation and the sums of one group of rows.
struct Group {
  const float* activation;  // [four][row]
  float* sums;              // [row][vector]
  bool is_new;              // sums start from 0
};

template <size_t n_row>
using Sums = simd::wide_f32[n_row][n_vector];

template <size_t n_row>
void load_sums(const Group& group, Sums<n_row>& sums) {
#pragma GCC unroll 6
  for (size_t i = 0; i < n_row; ++i)
#pragma GCC unroll 4
    for (size_t v = 0; v < n_vector; ++v)
      sums[i][v] =
          group.is_new ? simd::broadcast_wide(0) : simd::load_wide(group.sums + i * panel_lanes + simd::wide_lanes * v);
}
template <size_t n_row>
void store_sums(const Sums<n_row>& sums, const Group& group) {
#pragma GCC unroll 6
  for (size_t i = 0; i < n_row; ++i)
#pragma GCC unroll 4
    for (size_t v = 0; v < n_vector; ++v) simd::store(group.sums + i * panel_lanes + simd::wide_lanes * v, sums[i][v]);
}

// Adds the products of four inner indices. Registers hold the activation or the weights, whichever are fewer.
template <size_t n_row>
void accumulate_four(const float* activation, const float* weights, Sums<n_row>& sums) {
  if constexpr (n_row < n_vector) {
    simd::wide_f32 x[n_row];
#pragma GCC unroll 3
    for (size_t i = 0; i < n_row; ++i) x[i] = simd::broadcast_four_wide(activation + i * n_lane);
#pragma GCC unroll 4
    for (size_t v = 0; v < n_vector; ++v) {
      const simd::wide_f32 w = simd::load_wide(weights + simd::wide_lanes * v);
#pragma GCC unroll 3
      for (size_t i = 0; i < n_row; ++i) sums[i][v] = simd::multiply_add(x[i], w, sums[i][v]);
    }
  } else {
    simd::wide_f32 w[n_vector];
#pragma GCC unroll 4
    for (size_t v = 0; v < n_vector; ++v) w[v] = simd::load_wide(weights + simd::wide_lanes * v);
#pragma GCC unroll 6
    for (size_t i = 0; i < n_row; ++i) {
      const simd::wide_f32 x = simd::broadcast_four_wide(activation + i * n_lane);
#pragma GCC unroll 4
      for (size_t v = 0; v < n_vector; ++v) sums[i][v] = simd::multiply_add(x, w[v], sums[i][v]);
    }
  }
}

template <size_t n_row>
void accumulate_widened(size_t n_inner, const Group& group, const float* weights) {
  Sums<n_row> sums;
  load_sums<n_row>(group, sums);
  const float* activation = group.activation;
  for (size_t k = 0; k < n_inner; k += step) {
#pragma GCC unroll 2
    for (size_t four = 0; four < step / n_lane; ++four) {
      accumulate_four<n_row>(activation, weights, sums);
      activation += n_row * n_lane;
      weights += panel_lanes;
    }
  }
  store_sums<n_row>(sums, group);
}

constexpr size_t parts = simd::wide_lanes / n_lane;  // columns in a vector

// The weights of a panel in the order of memory.
struct Columns {
  const uint16_t* column[panel_columns];  // in the order of the panel's lanes
  size_t to_next_panel;                   // halves

  // Prefetches one cache line of each column. Near the end of the block, the function prefetches the first lines of the
  // next panel instead.
  void fetch_ahead(size_t k, size_t n_inner) const {
    const size_t ahead = k + weights_lead < n_inner ? weights_lead : weights_lead + to_next_panel - n_inner;
    fetch(k + ahead);
  }
  void fetch(size_t k) const {
    for (const uint16_t* const start : column) simd::prefetch_ahead(start, k);
  }
};

// With `keep`, the function stores the widened weights for the groups of rows that follow. The groups before have
// fetched the weights into the second-level cache.
template <size_t n_row, bool keep>
void accumulate_halves(size_t n_inner, const Group& group, const Columns& columns, [[maybe_unused]] float* widened) {
  Sums<n_row> sums;
  load_sums<n_row>(group, sums);
  const float* activation = group.activation;
  for (size_t k = 0; k < n_inner; k += step) {
    if (k % line_halves == 0) keep ? columns.fetch(k + fetched_lead) : columns.fetch_ahead(k, n_inner);
    // Two vectors at a time, or one where registers are few.
    constexpr size_t at_once = has_many_registers ? 2 : 1;
#pragma GCC unroll 4
    for (size_t begin = 0; begin < n_vector; begin += at_once) {
      simd::wide_f32 first[at_once], second[at_once];
#pragma GCC unroll 2
      for (size_t v = 0; v < at_once; ++v) {
        simd::widen_eights(columns.column + (begin + v) * parts, k, first[v], second[v]);
        if constexpr (keep) {
          simd::store(widened + simd::wide_lanes * (begin + v), first[v]);
          simd::store(widened + panel_lanes + simd::wide_lanes * (begin + v), second[v]);
        }
      }
#pragma GCC unroll 6
      for (size_t i = 0; i < n_row; ++i) {
        const simd::wide_f32 x = simd::broadcast_four_wide(activation + i * n_lane);
#pragma GCC unroll 2
        for (size_t v = 0; v < at_once; ++v) sums[i][begin + v] = simd::multiply_add(x, first[v], sums[i][begin + v]);
      }
#pragma GCC unroll 6
      for (size_t i = 0; i < n_row; ++i) {
        const simd::wide_f32 x = simd::broadcast_four_wide(activation + (n_row + i) * n_lane);
#pragma GCC unroll 2
        for (size_t v = 0; v < at_once; ++v) sums[i][begin + v] = simd::multiply_add(x, second[v], sums[i][begin + v]);
      }
    }
    activation += 2 * n_row * n_lane;
    if constexpr (keep) widened += 2 * panel_lanes;
  }
  store_sums<n_row>(sums, group);
}

template <size_t n_row>
void accumulate_halves(size_t n_inner, const Group& group, const Columns& columns, float* widened) {
  if (widened) return accumulate_halves<n_row, true>(n_inner, group, columns, widened);
  accumulate_halves<n_row, false>(n_inner, group, columns, nullptr);
}

// The last four weights of each column, padded with zeros to a step.
struct Ends {
  Ends(const Columns& columns, size_t k) {
    for (size_t c = 0; c < panel_columns; ++c) {
      memcpy(values[c], columns.column[c] + k, n_lane * sizeof(uint16_t));
      as_columns.column[c] = values[c];
    }
  }
  uint16_t values[panel_columns][step] = {};
  Columns as_columns = {};
};

// Adds a piece of the inner dimension: whole steps, and the four indices that may follow them.
template <size_t n_row>
void accumulate_piece(size_t n_inner, Group group, const Columns& columns, float* widened) {
  const size_t whole_steps = n_inner / step * step;
  accumulate_halves<n_row>(whole_steps, group, columns, widened);
  if (whole_steps == n_inner) return;
  group.activation += n_row * whole_steps;
  group.is_new = false;
  if (widened) widened += panel_columns * whole_steps;
  accumulate_halves<n_row>(step, group, Ends(columns, whole_steps).as_columns, widened);
}

// Widens halves of consecutive inner indices of one row, or of `parts` rows, whose fours stand side by side: to[0] has
// the rows' first fours, to[pitch] their second, and so on.
template <size_t n_row>
void widen_steps(const uint16_t* const* rows, size_t n_inner, float* to, size_t pitch) {
  for (size_t k = 0; k < n_inner; k += step, to += 2 * pitch) {
    if constexpr (n_row == 1) {
      simd::store_fours(to, to + pitch, simd::widen(simd::load(rows[0] + k)));
    } else {
      simd::wide_f32 first, second;
      simd::widen_eights(rows, k, first, second);
      simd::store(to, first);
      simd::store(to + pitch, second);
    }
  }
}
// Widens a whole row, or `parts` whole rows that stand `n_apart` halves apart. Zeros fill up the last step.
template <size_t n_row>
void widen_rows(const uint16_t* first_row, size_t n_apart, size_t n_inner, float* to, size_t pitch) {
  const size_t whole_steps = n_inner / step * step;
  const uint16_t* rows[n_row];
  for (size_t i = 0; i < n_row; ++i) rows[i] = first_row + i * n_apart;
  widen_steps<n_row>(rows, whole_steps, to, pitch);
  if (whole_steps == n_inner) return;
  uint16_t ends[n_row][step] = {};
  for (size_t i = 0; i < n_row; ++i) {
    memcpy(ends[i], rows[i] + whole_steps, n_lane * sizeof(uint16_t));
    rows[i] = ends[i];
  }
  widen_steps<n_row>(rows, step, to + whole_steps / n_lane * pitch, pitch);
}

// Calls body(first row, number of rows as a constant). The groups have nearly the same size.
template <class Body>
void for_each_group(size_t n_row, Body body) {
  size_t n_group = divide_up(n_row, group_rows);
  for (size_t row = 0; row < n_row; --n_group) {
    const size_t n = divide_up(n_row - row, n_group);
    [&]<size_t... fewer>(std::index_sequence<fewer...>) {
      ((n == fewer + 1 ? body(row, std::integral_constant<size_t, fewer + 1>()) : void()), ...);
    }
    (std::make_index_sequence<group_rows>());
    row += n;
  }
}

// The result is computed in blocks of rows and columns, and a block in pieces of the inner dimension. For each piece,
// the block's rows of the activation are widened and each panel of the block adds the piece's terms to its sums. The
// sums stay in memory between the pieces. After the last piece come the terms past the last four inner indices, and the
// sums are rounded.

// The extents of a block that does not reach an edge of the result.
struct Blocking {
  size_t n_row, n_col, n_inner;
};

// Memory for the current block, in f32.
struct Working {
  float* weights;     // one panel: [four][vector]; NULL when each group widens its weights
  float* sums;        // [panel][row][vector]
  float* activation;  // [group of rows][four][row]
};

// The weights past the last four inner indices of each column of a block, [index][column].
struct Tails {
  size_t count;
  float weights[n_lane - 1][block_columns];
};

struct HostProduct {
  const size_t n_row, n_col, n_inner;
  uint16_t* const A;
  const uint16_t* const X;
  const uint16_t* const W;

  size_t n_inner_in_lanes() const { return n_inner / n_lane * n_lane; }
  bool has_few_rows() const { return n_row <= few_rows; }

  Blocking blocking() const {
    const size_t most_inner = n_row <= group_rows ? single_group_inner : has_few_rows() ? few_rows_inner : block_inner;
    return {std::min(n_row, block_rows), round_up(std::min(n_col, block_columns), panel_columns),
            round_up(std::min(n_inner_in_lanes(), most_inner), step)};
  }

  void multiply() const {
    const Blocking blocking = this->blocking();
    const size_t n_weights = has_few_rows() ? 0 : panel_columns * blocking.n_inner;
    const size_t n_sums = blocking.n_row * blocking.n_col * n_lane;
    const Scratch scratch((n_weights + n_sums + blocking.n_row * blocking.n_inner) * sizeof(float));
    if (!scratch) return multiply_without_scratch();
    auto* const floats = reinterpret_cast<float*>(scratch.bytes());
    multiply_blocks(blocking, {n_weights == 0 ? nullptr : floats, floats + n_weights, floats + n_weights + n_sums});
  }

  void multiply_without_scratch() const {
    constexpr Blocking small = {group_rows, panel_columns, 256};
    float sums[small.n_row * small.n_col * n_lane], activation[small.n_row * small.n_inner];
    multiply_blocks(small, {nullptr, sums, activation});
  }

  void multiply_blocks(const Blocking& blocking, const Working& working) const {
    for (size_t row = 0; row < n_row; row += blocking.n_row)
      for (size_t column = 0; column < n_col; column += blocking.n_col)
        multiply_block(range_from(row, blocking.n_row, n_row), range_from(column, blocking.n_col, n_col),
                       blocking.n_inner, working);
  }

  void multiply_block(Range rows, Range columns, size_t most_inner, const Working& working) const {
    // After the last piece, another block may begin with the first, for the same rows.
    const auto piece_from = [&](size_t k) {
      return range_from(k < n_inner_in_lanes() ? k : 0, most_inner, n_inner_in_lanes());
    };
    const size_t n_share = divide_up(rows.size(), group_rows);  // one for each group of rows
    size_t k = 0;
    do {  // also once when n_inner is 0, which sets the sums to 0
      const Range inner = piece_from(k), next_inner = piece_from(inner.end);
      widen_activation(rows, inner, working.activation);
      simd::Fetcher next_activation = fetcher(X, rows, next_inner, divide_up(columns.size(), panel_columns) * n_share);
      for (size_t c = 0; c < columns.size(); c += panel_columns) {
        const size_t column = columns.begin + c, next_column = column + panel_columns;
        simd::Fetcher next_weights =
            next_column < columns.end
                ? fetcher(W, range_from(next_column, panel_columns, columns.end), inner, n_share)
                : fetcher(W, range_from(columns.begin, panel_columns, columns.end), next_inner, n_share);
        accumulate_panel(column, rows.size(), inner, working, sums_of(0, c, rows, working), [&] {
          next_weights.fetch_share();
          next_activation.fetch_share();
        });
      }
      k = inner.end;
    } while (k < n_inner_in_lanes());
    const Tails tails = tails_of(columns);
    for (size_t row = 0; row < rows.size(); ++row)  // not panel by panel: rows of the result may lie pages apart
      for (size_t c = 0; c < columns.size(); c += results_at_once)
        finish_sums(rows.begin + row, columns, c, sums_of(row, c, rows, working), tails);
  }

  // Fetches a piece of the rows of the activation, or of the columns of the weights, in n_share shares.
  simd::Fetcher fetcher(const uint16_t* matrix, Range lines, Range inner, size_t n_share) const {
    return {matrix + lines.begin * n_inner + inner.begin, inner.size() * sizeof *matrix, n_inner * sizeof *matrix,
            lines.size(), n_share};
  }

  // The sums of a row of the block from column c on, where a panel or eight columns begin.
  static float* sums_of(size_t row, size_t c, Range rows, const Working& working) {
    const size_t in_panel = c % panel_columns;
    return working.sums + ((c - in_panel) * rows.size() + row * panel_columns + in_panel) * n_lane;
  }

  void widen_activation(Range rows, Range inner, float* activation) const {
    const size_t padded_inner = round_up(inner.size(), step);
    for_each_group(rows.size(), [&](size_t first, auto n) {
      constexpr size_t at_once = n < parts ? 1 : parts;
      for (size_t i = 0; i < n; i += at_once) {
        const size_t in_group = std::min(i, n - at_once);  // the last rows may be widened twice
        widen_rows<at_once>(X + (rows.begin + first + in_group) * n_inner + inner.begin, n_inner, inner.size(),
                            activation + first * padded_inner + in_group * n_lane, n * n_lane);
      }
    });
  }

  // Adds the terms of a piece to the sums of the panel that starts at `column`. Calls fetch_share()
  // before each group of rows when the groups share the widened weights. Otherwise each group prefetches by itself.
  template <class FetchShare>
  void accumulate_panel(size_t column, size_t n_rows, Range inner, const Working& working, float* sums,
                        const FetchShare& fetch_share) const {
    const size_t padded_inner = round_up(inner.size(), step);
    const Columns columns = columns_at(column, inner.begin);
    for_each_group(n_rows, [&](size_t first, auto n) {
      const Group group = {working.activation + first * padded_inner, sums + first * panel_lanes, inner.begin == 0};
      if (working.weights) fetch_share();
      const bool are_weights_widened = first > 0 && working.weights;
      if (are_weights_widened) return accumulate_widened<n>(inner.size(), group, working.weights);
      accumulate_piece<n>(inner.size(), group, columns, working.weights);
    });
  }

  // Past the last column, the function repeats the last column.
  Columns columns_at(size_t first, size_t k) const {
    Columns columns;
    for (size_t i = 0; i < panel_columns; ++i) {
      const size_t c = i / results_at_once * results_at_once + i % results_at_once / 2 + i % 2 * (results_at_once / 2);
      columns.column[i] = W + std::min(first + c, n_col - 1) * n_inner + k;
    }
    columns.to_next_panel = panel_columns * n_inner;
    return columns;
  }

  Tails tails_of(Range columns) const {
    Tails tails = {n_inner % n_lane, {}};
    for (size_t c = 0; c < columns.size(); ++c)
      for (size_t t = 0; t < tails.count; ++t)
        tails.weights[t][c] = simd::widen_bits(W[(columns.begin + c) * n_inner + n_inner_in_lanes() + t]);
    return tails;
  }

  // Adds up the four sums of each of eight columns of a row, adds the terms of the tails, rounds and stores. `c` is the
  // first of the columns, counted from the block's first column.
  void finish_sums(size_t row, Range columns, size_t c, const float* sums, const Tails& tails) const {
    const uint16_t* const x = X + row * n_inner + n_inner_in_lanes();
    simd::f32x8 sum = simd::sums_of_fours(simd::load(sums), simd::load(sums + 8), simd::load(sums + 16),  //
                                          simd::load(sums + 24));
    for (size_t t = 0; t < tails.count; ++t)
      sum = simd::multiply_add(simd::broadcast(simd::widen_bits(x[t])), simd::load(tails.weights[t] + c), sum);
    store_results(simd::narrow(simd::settle_nan(sum)), columns.size() - c, A + row * n_col + columns.begin + c);
  }

  static void store_results(simd::f16x8 results, size_t n_left, uint16_t* to) {
    if (n_left >= results_at_once) return simd::store(to, results);
    uint16_t values[results_at_once];
    simd::store(values, results);
    memcpy(to, values, n_left * sizeof(uint16_t));
  }
};

}  // namespace

void tensor_product(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t* A, const uint16_t* X,
                    const uint16_t* W) {
  if (n_row > 0 && n_col > 0) HostProduct{n_row, n_col, n_inner, A, X, W}.multiply();
}

}  // namespace tavik::inline MORUN_BACKEND
