// Products on the NPU for matrices of any shape: padded to whole tiles, and run in bands of rows where the context's
// limits ask for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "tools/morun/files/matrix.h"
#include "tools/morun/files/packed_file.h"
#include "tools/morun/kernels.h"
#include "tools/morun/library.h"

namespace tool {

// Y = X * W for each of one to three W: X is n_row x n_inner, each W n_inner x a number of columns of its own.
struct ProductShape {
  size_t n_row;
  size_t n_inner;
  std::vector<size_t> n_col;
};

struct ProductPlan {
  const Kernel* kernel;
  size_t n_row;
  size_t n_inner;                     // padded
  std::vector<size_t> n_col;          // padded
  size_t n_row_band;                  // rows of all bands but the last
  tavik_options options;              // the defaults, raised where a single tile's height of rows would not fit
  std::vector<WeightArrays> weights;  // in one buffer, whose descriptor is yet to be filled in
  uint64_t weight_bytes;

  size_t n_band() const { return (n_row + n_row_band - 1) / n_row_band; }
};

// Throws an Error for weights that the DSP cannot address.
ProductPlan plan_product(WeightKind kind, const ProductShape& shape);

// Is told of weights while they are read: values of matrix i, and zeros among them that pad it.
using WeightObserver = std::function<void(size_t i, const std::vector<float>& values)>;

// All weights of a product as the matrix unit reads them, in one shared buffer and so in one session. Those of packed files
// are read straight into it; others are quantised column by column where the product takes quantised ones. Besides that buffer the constructor takes some megabytes, whatever the weights' size.
class Weights {
 public:
  Weights(tavik_context* context, const ProductPlan& plan, const std::vector<WeightFile>& files,
          const WeightObserver& observe);

  const WeightArrays& operator[](size_t index) const { return arrays_[index]; }

 private:
  SharedBuffer buffer_;
  std::vector<WeightArrays> arrays_;
};

// Computes each y, n_row x n_col, from x, n_row x n_inner. Rows of x and y start as far apart as their padded extents say.
// `on_band` is told how many rows are done after each band.
void multiply(tavik_context* context, const ProductPlan& plan, const Matrix& x, const Weights& weights,
              std::vector<Matrix>& y, const std::function<void(size_t n_row_done)>& on_band);

}  // namespace tool
