// The host's own product in double precision, against which results are judged.
#pragma once

#include <cstddef>
#include <functional>

#include "tools/morun/files/matrix.h"
#include "tools/morun/files/packed_file.h"

namespace tool {

// The deviation of a result from the exact product. Elements whose exact value is not finite are left out. A result
// that is not finite although the exact value is finite deviates infinitely.
struct Deviation {
  double largest_error = 0;  // largest |result - exact|
  double largest_exact = 0;  // largest |exact|
  double squared_error = 0;  // sum of squared differences
  double squared_exact = 0;
  size_t n_left_out = 0;

  double relative() const;            // largest_error / largest_exact
  double relative_frobenius() const;  // norm of the difference / norm of the exact product

  void add(const Deviation& other);
};

// Compares y with x * w. Reads w in blocks of columns and uses all processors. The calling thread calls `on_piece` now
// and then with the number of finished pieces of y.
Deviation deviation_from_exact(const Matrix& x, const WeightFile& w, const Matrix& y,
                               const std::function<void(size_t n_done, size_t n)>& on_piece);

}  // namespace tool
