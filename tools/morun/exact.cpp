#include "tools/morun/exact.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

namespace tool {
namespace {

// One thread computes a piece of the result at a time, and a piece fits on a stack. The weights are taken in blocks of
// 128 x 512 floats. Such a block stays in a core's second-level cache while all rows of the piece are multiplied by it.
constexpr size_t piece_rows = 64;
constexpr size_t piece_columns = 512;
constexpr size_t piece_inner = 128;

struct Piece {
  size_t first_row;
  size_t n_row;
  size_t first_col;  // counted in the block of columns
  size_t n_col;
  double sums[piece_rows][piece_columns];
};

// A block of columns of w.
struct ColumnBlock {
  size_t first_col;
  Matrix w;
};

void add_products(Piece& piece, const Matrix& x, const Matrix& w, size_t first_inner, size_t end_inner) {
  for (size_t r = 0; r < piece.n_row; ++r) {
    double* const sums = piece.sums[r];
    const float* const x_row = x.row(piece.first_row + r);
    for (size_t k = first_inner; k < end_inner; ++k) {
      const double factor = x_row[k];
      const float* const w_row = w.row(k) + piece.first_col;
      for (size_t c = 0; c < piece.n_col; ++c) sums[c] += factor * double{w_row[c]};
    }
  }
}

void compute(Piece& piece, const Matrix& x, const Matrix& w) {
  for (size_t r = 0; r < piece.n_row; ++r) std::fill_n(piece.sums[r], piece.n_col, 0.0);
  for (size_t first = 0; first < w.n_row; first += piece_inner) {
    add_products(piece, x, w, first, std::min(first + piece_inner, w.n_row));
  }
}

void add_element(Deviation& deviation, double exact, double result) {
  if (!std::isfinite(exact)) {
    ++deviation.n_left_out;
    return;
  }
  const double error = std::isfinite(result) ? std::abs(result - exact) : std::numeric_limits<double>::infinity();
  deviation.largest_error = std::max(deviation.largest_error, error);
  deviation.largest_exact = std::max(deviation.largest_exact, std::abs(exact));
  deviation.squared_error += error * error;
  deviation.squared_exact += exact * exact;
}

void add_piece(Deviation& deviation, const Piece& piece, const Matrix& y, size_t first_col) {
  for (size_t r = 0; r < piece.n_row; ++r) {
    const float* const y_row = y.row(piece.first_row + r) + first_col + piece.first_col;
    for (size_t c = 0; c < piece.n_col; ++c) add_element(deviation, piece.sums[r][c], double{y_row[c]});
  }
}

size_t pieces(size_t extent, size_t piece_extent) {
  return (extent + piece_extent - 1) / piece_extent;
}

Deviation deviation_of(const ColumnBlock& block, const Matrix& x, const Matrix& y,
                       const std::function<void(size_t n_done)>& on_piece) {
  const size_t n_across = pieces(block.w.n_col, piece_columns);
  const size_t n_piece = n_across * pieces(y.n_row, piece_rows);
  std::atomic<size_t> next_piece = 0;
  const auto work = [&](Deviation& result, const auto& on_each) {
    Deviation deviation;
    for (size_t index = next_piece++; index < n_piece; index = next_piece++) {
      on_each(index);
      Piece piece;
      piece.first_row = index / n_across * piece_rows;
      piece.n_row = std::min(piece_rows, y.n_row - piece.first_row);
      piece.first_col = index % n_across * piece_columns;
      piece.n_col = std::min(piece_columns, block.w.n_col - piece.first_col);
      compute(piece, x, block.w);
      add_piece(deviation, piece, y, block.first_col);
    }
    result = deviation;
  };

  const size_t n_core = std::max(1u, std::thread::hardware_concurrency());
  std::vector<Deviation> deviations(std::min(n_core, n_piece));
  {
    std::vector<std::jthread> threads;
    for (size_t i = 1; i < deviations.size(); ++i) {
      threads.emplace_back([&, i] { work(deviations[i], [](size_t) {}); });
    }
    work(deviations[0], on_piece);
  }
  Deviation total;
  for (const Deviation& deviation : deviations) total.add(deviation);
  return total;
}

}  // namespace

double Deviation::relative() const {
  return largest_error == 0 ? 0 : largest_error / largest_exact;
}

double Deviation::relative_frobenius() const {
  return squared_error == 0 ? 0 : std::sqrt(squared_error / squared_exact);
}

void Deviation::add(const Deviation& other) {
  largest_error = std::max(largest_error, other.largest_error);
  largest_exact = std::max(largest_exact, other.largest_exact);
  squared_error += other.squared_error;
  squared_exact += other.squared_exact;
  n_left_out += other.n_left_out;
}

Deviation deviation_from_exact(const Matrix& x, const WeightFile& w, const Matrix& y,
                               const std::function<void(size_t n_done, size_t n)>& on_piece) {
  constexpr size_t n_value_at_a_time = 1 << 22;
  const size_t n_col_at_a_time = std::max(n_value_at_a_time / w.n_row() / piece_columns, size_t{1}) * piece_columns;
  const size_t n_down = pieces(y.n_row, piece_rows);
  const size_t n_piece = pieces(y.n_col, piece_columns) * n_down;
  Deviation total;
  for (size_t first = 0; first < y.n_col; first += n_col_at_a_time) {
    ColumnBlock block = {first, Matrix(w.n_row(), std::min(n_col_at_a_time, y.n_col - first))};
    w.read_columns(first, block.w.n_col, block.w.row(0), block.w.row_stride);
    const size_t n_done_before = first / piece_columns * n_down;
    total.add(deviation_of(block, x, y, [&](size_t n_done) { on_piece(n_done_before + n_done, n_piece); }));
  }
  return total;
}

}  // namespace tool
