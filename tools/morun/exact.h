// The host's own product in double precision, to judge results by.
#pragma once

#include <cstddef>

#include "tools/morun/matrix.h"

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
};

// Compares y with x * w. Uses all cores.
Deviation deviation_from_exact(const Matrix& x, const Matrix& w, const Matrix& y);

}  // namespace tool
