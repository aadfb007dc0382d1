// The one rule for relative errors: of tensors, of columns, and of products with activations.
#pragma once

#include <cfloat>
#include <cmath>

namespace weights {

// The ratio of two norms, given by their squares: 0 for 0 / 0, 1 for another number / 0. At most DBL_MAX, which stands
// for an infinite error, because JSON has no infinity.
inline double relative_error(double squared_error, double squares) {
  if (squared_error == 0) return 0;
  const double ratio = squares > 0 ? std::sqrt(squared_error / squares) : 1;
  return ratio <= DBL_MAX ? ratio : DBL_MAX;
}

}  // namespace weights
