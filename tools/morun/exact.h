// The host's own product in double precision, to judge results by.
#pragma once

#include <cstddef>
#include <functional>

#include "tools/morun/files/matrix.h"
#include "tools/morun/files/packed_file.h"

namespace tool {

// How far a result is from the exact product. Elements whose exact value is not finite are left out; a result that is
// not finite where the exact value is deviates infinitely.
struct Deviation {
  double largest_error = 0;  // of all elements: |result - exact|
  double largest_exact = 0;  // |exact|
  double squared_error = 0;  // added up
  double squared_exact = 0;
  size_t n_left_out = 0;

  double relative() const;            // largest_error / largest_exact
  double relative_frobenius() const;  // of the difference's and the exact product's norms

  void add(const Deviation& other);
};

// Compares y with x * w. Reads w in blocks of columns and uses all cores. `on_piece` is told now and then, by the calling
// thread, how many of the pieces of y are done.
Deviation deviation_from_exact(const Matrix& x, const WeightFile& w, const Matrix& y,
                               const std::function<void(size_t n_done, size_t n)>& on_piece);

}  // namespace tool
