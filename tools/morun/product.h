// Products on the NPU for matrices of any shape: padded to whole tiles, and run in bands of rows where the context's
// limits ask for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

#include "tools/morun/library.h"
#include "tools/morun/matrix.h"

namespace tool {

// Y = X * W: X is n_row x n_inner, W n_inner x n_col.
struct ProductShape {
  size_t n_row;
  size_t n_inner;
  size_t n_col;
};

struct ProductPlan {
  size_t n_row;
  size_t n_inner;         // padded
  size_t n_col;           // padded
  size_t n_row_band;      // rows of all bands but the last
  tavik_options options;  // the defaults, raised where a single tile's height of rows would not fit

  size_t n_band() const { return (n_row + n_row_band - 1) / n_row_band; }
};

// Throws an Error for weights that the DSP cannot address.
ProductPlan plan_product(const ProductShape& shape);

// Weights as the matrix unit reads them, in a shared buffer.
class F16Weights {
 public:
  F16Weights(tavik_context* context, const ProductPlan& plan, const Matrix& w);
  uint32_t fd() const { return buffer_.fd(); }

 private:
  SharedBuffer buffer_;
};

// Computes y, n_row x padded n_col, from x, n_row x padded n_inner. `on_band` is told how many rows are done after each
// band.
void multiply(tavik_context* context, const ProductPlan& plan, const Matrix& x, const F16Weights& w, Matrix& y,
              const std::function<void(size_t n_row_done)>& on_band);

}  // namespace tool
