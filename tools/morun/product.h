// Products on the NPU for matrices of any shape. The matrices are padded to whole tiles, and computed in bands of rows
// when the context's limits require bands.
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

// Y = X * W for each of one to three W. X is n_row x n_inner; each W is n_inner x a number of columns of its own.
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
  tavik_options options;              // the defaults, raised when one row of tiles exceeds them
  std::vector<WeightArrays> weights;  // in one buffer, whose descriptor is filled in later
  uint64_t weight_bytes;

  size_t n_band() const { return (n_row + n_row_band - 1) / n_row_band; }
};

// Throws an Error for weights that the DSP cannot address.
ProductPlan plan_product(WeightKind kind, const ProductShape& shape);

// Called while weights are read, with values of matrix i; they include the zeros that pad the matrix.
using WeightObserver = std::function<void(size_t i, const std::vector<float>& values)>;

// All weights of a product, in the layout of the matrix unit, in one shared buffer and therefore in one session. Packed
// weights are read straight into the buffer. Other weights are quantised column by column when the product takes
// quantised ones. The constructor takes that buffer and some megabytes, whatever the size of the weights.
class Weights {
 public:
  Weights(tavik_context* context, const ProductPlan& plan, const std::vector<WeightFile>& files,
          const WeightObserver& observe);

  const WeightArrays& operator[](size_t index) const { return arrays_[index]; }

 private:
  SharedBuffer buffer_;
  std::vector<WeightArrays> arrays_;
};

// Computes each y, n_row x n_col, from x, n_row x n_inner. The row strides of x and y are their padded extents. After
// each band, calls `on_band` with the number of finished rows.
void multiply(tavik_context* context, const ProductPlan& plan, const Matrix& x, const Weights& weights,
              std::vector<Matrix>& y, const std::function<void(size_t n_row_done)>& on_band);

}  // namespace tool
