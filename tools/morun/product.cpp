#include "tools/morun/product.h"

#include <algorithm>
#include <limits>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr size_t tile = 32;

size_t whole_tiles(size_t extent) {
  return tavik_align_offset(extent, tile);
}

// ---- Limits of the context -----------------------------------------------------------------------------------------

// What a kernel's results take of a result buffer, which has 4 bytes for an element of its limit.
struct ResultTiles {
  size_t n_row;
  size_t n_limit_per_column;  // elements of the limit that one tile's height of a column takes
};

ResultTiles result_tiles(WeightKind kind) {
  return kind == WeightKind::f16 ? ResultTiles{32, 16} : ResultTiles{64, 64};  // halves; sums of 32 bits
}

// The lowest limits that leave room for one row of tiles. The activation buffer has 2 bytes for an element of its
// limit, as a half takes and as two rows of bytes take.
tavik_options options_for(WeightKind kind, size_t n_inner, size_t n_col) {
  tavik_options options = default_options();
  options.input_matrix_size_max = std::max(options.input_matrix_size_max, tile * n_inner);
  options.output_matrix_size_max =
      std::max(options.output_matrix_size_max, result_tiles(kind).n_limit_per_column * n_col);
  return options;
}

// Whole tiles, so that the padding of a band stays within the limits too.
size_t band_height(WeightKind kind, const tavik_options& options, size_t n_inner, size_t n_col) {
  const size_t highest =
      std::min({options.n_row_max, options.input_matrix_size_max / n_inner, options.output_matrix_size_max / n_col});
  const size_t step = result_tiles(kind).n_row;
  return highest < step ? highest : highest / step * step;
}

// ---- Weights -------------------------------------------------------------------------------------------------------

constexpr uint64_t addressable = std::numeric_limits<uint32_t>::max();

size_t bits_of(WeightKind kind) {
  return kind == WeightKind::f16 ? 16 : kind == WeightKind::a8w8 ? 8 : 4;
}

// Places arrays one after the other.
class Layout {
 public:
  uint64_t add(uint64_t size) {
    const uint64_t offset = end_;
    end_ = tavik_apply_padding(end_ + size);
    return offset;
  }
  uint64_t end() const { return end_; }

 private:
  uint64_t end_ = 0;
};

WeightArrays place(Layout& layout, WeightKind kind, size_t n_inner, size_t n_col) {
  WeightArrays arrays;
  arrays.values = static_cast<uint32_t>(layout.add(n_inner * n_col * bits_of(kind) / 8));
  if (kind == WeightKind::f16) return arrays;
  arrays.zero_points = layout.add(n_col * bits_of(kind) / 8);
  arrays.scales = layout.add(n_col * sizeof(uint16_t));
  arrays.sums = layout.add(n_col * sizeof(int32_t));
  return arrays;
}

// Where a weight matrix goes, and its padded extents.
struct Destination {
  std::byte* base;
  const WeightArrays& arrays;
  size_t n_inner;
  size_t n_col;

  template <typename Element>
  Element* at(uint64_t offset) const {
    return reinterpret_cast<Element*>(base + offset);
  }
};

// The rows of w, padded to n_col with zeros.
void narrow_rows(const Matrix& w, size_t n_col, uint16_t* halves) {
  std::vector<float> padded_row(n_col);
  for (size_t k = 0; k < w.n_row; ++k) {
    std::copy_n(w.row(k), w.n_col, padded_row.begin());
    tavik_f32_to_f16(n_col, padded_row.data(), halves + k * n_col);
  }
}

void write_f16(const Matrix& w, const Destination& to) {
  auto* const halves = to.at<uint16_t>(to.arrays.values);
  narrow_rows(w, to.n_col, halves);
  std::fill(halves + w.n_row * to.n_col, halves + to.n_inner * to.n_col, uint16_t{0});
  tavik_f16_rm_to_f16_wh_inplace(to.n_inner, to.n_col, halves);
}

// One column a row. Columns are padded with copies of their first value: those change neither a column's range, and so
// its scale and zero point, nor the result, because the activation's padding stands for 0 and the sums and n_inner that
// the result is brought back with count the copies too.
std::vector<uint16_t> padded_columns(const Matrix& w, size_t n_inner, size_t n_col) {
  std::vector<uint16_t> halves(n_inner * n_col);
  narrow_rows(w, n_col, halves.data());
  for (size_t k = w.n_row; k < n_inner; ++k) std::copy_n(halves.data(), n_col, halves.data() + k * n_col);
  tavik_matrix_transpose_f16(n_inner, n_col, halves.data());
  return halves;
}

void write_a8w8(const Matrix& w, const Destination& to) {
  const std::vector<uint16_t> columns = padded_columns(w, to.n_inner, to.n_col);
  auto* const values = to.at<int8_t>(to.arrays.values);
  tavik_f16_rm_to_i8_rm(to.n_col, to.n_inner, columns.data(), values, to.at<int8_t>(to.arrays.zero_points),
                        to.at<uint16_t>(to.arrays.scales), to.at<int32_t>(to.arrays.sums));
  tavik_matrix_transpose_i8(to.n_col, to.n_inner, values);
  tavik_i8_rm_to_i8_wh_inplace(to.n_inner, to.n_col, values);
}

void write_a8w4(const Matrix& w, const Destination& to) {
  const std::vector<uint16_t> columns = padded_columns(w, to.n_inner, to.n_col);
  std::vector<uint32_t> words(columns.size() / 8);
  auto* const zero_points = to.at<uint32_t>(to.arrays.zero_points);
  std::fill_n(zero_points, to.n_col / 8, 0u);
  tavik_f16_rm_to_i4_rm(to.n_col, to.n_inner, columns.data(), words.data(), zero_points,
                        to.at<uint16_t>(to.arrays.scales), to.at<int32_t>(to.arrays.sums));

  std::vector<uint8_t> nibbles(columns.size());
  for (size_t i = 0; i < nibbles.size(); ++i) nibbles[i] = words[i / 8] >> 4 * (i % 8) & 15;
  tavik_host_layout_w4_flat_to_weight(to.at<uint8_t>(to.arrays.values), nibbles.data(), to.n_col, to.n_inner);
}

void write(WeightKind kind, const Matrix& w, const Destination& to) {
  switch (kind) {
    case WeightKind::f16:
      return write_f16(w, to);
    case WeightKind::a8w8:
      return write_a8w8(w, to);
    case WeightKind::a8w4:
      return write_a8w4(w, to);
  }
}

}  // namespace

ProductPlan plan_product(WeightKind kind, const ProductShape& shape) {
  ProductPlan plan = {};
  plan.kernel = &kernel_for(kind, shape.n_col.size());
  plan.n_row = shape.n_row;
  plan.n_inner = whole_tiles(shape.n_inner);
  Layout layout;
  for (const size_t n_col : shape.n_col) {
    plan.n_col.push_back(whole_tiles(n_col));
    const bool fits = plan.n_inner <= addressable * 8 / bits_of(kind) / plan.n_col.back();
    if (fits) plan.weights.push_back(place(layout, kind, plan.n_inner, plan.n_col.back()));
    if (!fits || layout.end() > addressable) {
      throw Error(
          "weights of {} x {} are too large: with {} bits a value they take more than the {} bytes that the "
          "DSP addresses",
          shape.n_inner, n_col, bits_of(kind), addressable);
    }
  }
  plan.weight_bytes = layout.end();

  const size_t n_col = *std::max_element(plan.n_col.begin(), plan.n_col.end());
  plan.options = options_for(kind, plan.n_inner, n_col);
  plan.n_row_band = band_height(kind, plan.options, plan.n_inner, n_col);
  return plan;
}

Weights::Weights(tavik_context* context, const ProductPlan& plan, const std::vector<Matrix>& matrices)
    : buffer_(context, plan.weight_bytes), arrays_(plan.weights) {
  for (size_t i = 0; i < arrays_.size(); ++i) {
    arrays_[i].fd = buffer_.fd();
    write(plan.kernel->weights, matrices[i],
          {static_cast<std::byte*>(buffer_.data()), arrays_[i], plan.n_inner, plan.n_col[i]});
  }
}

void multiply(tavik_context* context, const ProductPlan& plan, const Matrix& x, const Weights& weights,
              std::vector<Matrix>& y, const std::function<void(size_t n_row_done)>& on_band) {
  for (size_t first = 0; first < plan.n_row; first += plan.n_row_band) {
    const size_t n_row = std::min(plan.n_row_band, plan.n_row - first);
    Call call;
    call.context = context;
    call.n_row = static_cast<int32_t>(n_row);
    call.n_inner = static_cast<int32_t>(plan.n_inner);
    call.x = x.row(first);
    for (size_t i = 0; i < y.size(); ++i) {
      call.products[i].n_col = static_cast<int32_t>(plan.n_col[i]);
      call.products[i].weights = weights[i];
      call.products[i].result = y[i].row(first);
    }
    require(plan.kernel->run(call), "the product failed");
    on_band(first + n_row);
  }
}

}  // namespace tool
