#include "tools/morun/exact.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <thread>
#include <vector>

namespace tool {
namespace {

// A piece of the result for one thread at a time, small enough for a stack. Of the weights it takes 128 x 512 floats in
// turn, which stay in a core's second cache while all rows of the piece pass over them.
constexpr size_t piece_rows = 64;
constexpr size_t piece_columns = 512;
constexpr size_t piece_inner = 128;

struct Piece {
  size_t first_row;
  size_t n_row;
  size_t first_col;
  size_t n_col;
  double sums[piece_rows][piece_columns];
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

void add_piece(Deviation& deviation, const Piece& piece, const Matrix& y) {
  for (size_t r = 0; r < piece.n_row; ++r) {
    const float* const y_row = y.row(piece.first_row + r) + piece.first_col;
    for (size_t c = 0; c < piece.n_col; ++c) add_element(deviation, piece.sums[r][c], double{y_row[c]});
  }
}

size_t pieces(size_t extent, size_t piece_extent) {
  return (extent + piece_extent - 1) / piece_extent;
}

}  // namespace

double Deviation::relative() const {
  return largest_error == 0 ? 0 : largest_error / largest_exact;
}

double Deviation::relative_frobenius() const {
  return squared_error == 0 ? 0 : std::sqrt(squared_error / squared_exact);
}

Deviation deviation_from_exact(const Matrix& x, const Matrix& w, const Matrix& y) {
  const size_t n_across = pieces(y.n_col, piece_columns);
  const size_t n_piece = n_across * pieces(y.n_row, piece_rows);
  std::atomic<size_t> next_piece = 0;
  const auto work = [&](Deviation& result) {
    Deviation deviation;
    for (size_t index = next_piece++; index < n_piece; index = next_piece++) {
      Piece piece;
      piece.first_row = index / n_across * piece_rows;
      piece.n_row = std::min(piece_rows, y.n_row - piece.first_row);
      piece.first_col = index % n_across * piece_columns;
      piece.n_col = std::min(piece_columns, y.n_col - piece.first_col);
      compute(piece, x, w);
      add_piece(deviation, piece, y);
    }
    result = deviation;
  };

  const size_t n_core = std::max(1u, std::thread::hardware_concurrency());
  std::vector<Deviation> deviations(std::min(n_core, n_piece));
  {
    std::vector<std::jthread> threads;
    for (Deviation& deviation : deviations) threads.emplace_back(work, std::ref(deviation));
  }

  Deviation total;
  for (const Deviation& deviation : deviations) {
    total.largest_error = std::max(total.largest_error, deviation.largest_error);
    total.largest_exact = std::max(total.largest_exact, deviation.largest_exact);
    total.squared_error += deviation.squared_error;
    total.squared_exact += deviation.squared_exact;
    total.n_left_out += deviation.n_left_out;
  }
  return total;
}

}  // namespace tool
