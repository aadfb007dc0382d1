#include "tools/morun/product.h"

#include <algorithm>
#include <limits>
#include <vector>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr size_t tile = 32;

size_t whole_tiles(size_t extent) {
  return tavik_align_offset(extent, tile);
}

// The lowest limits that leave room for one row of tiles. The activation buffer has 2 bytes for an element of its
// limit, as a half takes; a result buffer has 4.
tavik_options options_for(size_t n_inner, size_t n_col) {
  tavik_options options = default_options();
  options.input_matrix_size_max = std::max(options.input_matrix_size_max, tile * n_inner);
  options.output_matrix_size_max = std::max(options.output_matrix_size_max, tile / 2 * n_col);
  return options;
}

// Whole tiles, so that the padding of a band stays within the limits too.
size_t band_height(const tavik_options& options, size_t n_inner, size_t n_col) {
  const size_t highest =
      std::min({options.n_row_max, options.input_matrix_size_max / n_inner, options.output_matrix_size_max / n_col});
  return highest < tile ? highest : highest / tile * tile;
}

}  // namespace

ProductPlan plan_product(const ProductShape& shape) {
  constexpr size_t addressable = std::numeric_limits<uint32_t>::max();
  const size_t n_inner = whole_tiles(shape.n_inner);
  const size_t n_col = whole_tiles(shape.n_col);
  if (n_inner > addressable / sizeof(uint16_t) / n_col) {
    throw Error("weights of {} x {} are too large: in halves they take more than the {} bytes that the DSP addresses",
                shape.n_inner, shape.n_col, addressable);
  }
  const tavik_options options = options_for(n_inner, n_col);
  return {shape.n_row, n_inner, n_col, band_height(options, n_inner, n_col), options};
}

F16Weights::F16Weights(tavik_context* context, const ProductPlan& plan, const Matrix& w)
    : buffer_(context, plan.n_inner * plan.n_col * sizeof(uint16_t)) {
  auto* const halves = static_cast<uint16_t*>(buffer_.data());
  std::vector<float> padded_row(plan.n_col);
  for (size_t k = 0; k < w.n_row; ++k) {
    std::copy_n(w.row(k), w.n_col, padded_row.begin());
    tavik_f32_to_f16(plan.n_col, padded_row.data(), halves + k * plan.n_col);
  }
  std::fill(halves + w.n_row * plan.n_col, halves + plan.n_inner * plan.n_col, uint16_t{0});
  tavik_f16_rm_to_f16_wh_inplace(plan.n_inner, plan.n_col, halves);
}

void multiply(tavik_context* context, const ProductPlan& plan, const Matrix& x, const F16Weights& w, Matrix& y,
              const std::function<void(size_t n_row_done)>& on_band) {
  for (size_t first = 0; first < plan.n_row; first += plan.n_row_band) {
    const size_t n_row = std::min(plan.n_row_band, plan.n_row - first);
    require(
        tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, static_cast<int32_t>(n_row), static_cast<int32_t>(plan.n_col),
                                          static_cast<int32_t>(plan.n_inner), y.row(first), x.row(first), w.fd(), 0),
        "the product failed");
    on_band(first + n_row);
  }
}

}  // namespace tool
