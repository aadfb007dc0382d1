#include "tools/morun/product.h"

#include <algorithm>
#include <limits>

#include "tools/morun/error.h"
#include "tools/morun/layouts.h"

namespace tool {
namespace {

size_t whole_tiles(size_t extent) {
  return tavik_align_offset(extent, tile);
}

// ---- Limits of the context -----------------------------------------------------------------------------------------

// The room that a kernel's results take in a result buffer, which has 4 bytes for each element of its limit.
struct ResultTiles {
  size_t n_row;
  size_t n_limit_per_column;  // elements of the limit for one column of a tile
};

ResultTiles result_tiles(WeightKind kind) {
  return kind == WeightKind::f16 ? ResultTiles{32, 16} : ResultTiles{64, 64};  // halves; sums of 32 bits
}

// Returns the lowest limits that leave room for one row of tiles. Each element of the activation's limit is 2 bytes of
// the activation buffer: a half of one row, or a byte of two rows.
tavik_options options_for(WeightKind kind, size_t n_inner, size_t n_col) {
  tavik_options options = default_options();
  options.input_matrix_size_max = std::max(options.input_matrix_size_max, tile * n_inner);
  options.output_matrix_size_max =
      std::max(options.output_matrix_size_max, result_tiles(kind).n_limit_per_column * n_col);
  return options;
}

// Returns a number of rows in whole tiles, so that the padding of a band stays within the limits too.
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

// Assigns offsets to arrays, one behind the other.
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

// A weight matrix in its file, its place in the shared buffer, and its padded extents there.
struct Transfer {
  const NpyFile& file;
  const std::function<void(const std::vector<float>&)>& observe;
  std::byte* base;
  const WeightArrays& arrays;
  size_t n_inner;
  size_t n_col;

  template <typename Element>
  Element* at(uint64_t offset) const {
    return reinterpret_cast<Element*>(base + offset);
  }
};

// A group of columns of a weight matrix that are converted together, and their number with the padding.
struct Columns {
  size_t first, n, n_padded;
};

// The number of values that a conversion holds in ordinary memory at a time.
constexpr size_t n_value_at_a_time = 1 << 20;

// Writes rows of n_padded halves. Padding columns are zero.
void narrow_rows(const Transfer& w, const Columns& columns, uint16_t* halves) {
  const size_t n_row = w.file.n_row();
  const size_t n_row_at_a_time = std::clamp(n_value_at_a_time / columns.n_padded, size_t{1}, n_row);
  std::vector<float> values(n_row_at_a_time * columns.n_padded);
  for (size_t first = 0; first < n_row; first += n_row_at_a_time) {
    const size_t n = std::min(n_row_at_a_time, n_row - first);
    values.resize(n * columns.n_padded);
    w.file.read({first, n, columns.first, columns.n}, values.data(), columns.n_padded);
    w.observe(values);
    tavik_f32_to_f16(values.size(), values.data(), halves + first * columns.n_padded);
  }
}

void write_f16(const Transfer& w) {
  auto* const halves = w.at<uint16_t>(w.arrays.values);
  narrow_rows(w, {0, w.file.n_col(), w.n_col}, halves);
  std::fill(halves + w.file.n_row() * w.n_col, halves + w.n_inner * w.n_col, uint16_t{0});
  tavik_f16_rm_to_f16_wh_inplace(w.n_inner, w.n_col, halves);
}

// Returns each column as a row. A column is padded with copies of its first value. The copies leave the column's range,
// scale and zero point as they are. They also leave the result as it is: the activation's padding stands for 0, and the
// sums and n_inner with which the result is brought back count the copies too.
std::vector<uint16_t> columns_as_rows(const Transfer& w, const Columns& columns) {
  const size_t n_col = columns.n_padded;
  std::vector<uint16_t> halves(w.n_inner * n_col);
  narrow_rows(w, columns, halves.data());
  for (size_t k = w.file.n_row(); k < w.n_inner; ++k) std::copy_n(halves.data(), n_col, halves.data() + k * n_col);
  tavik_matrix_transpose_f16(w.n_inner, n_col, halves.data());
  return halves;
}

// Returns the tiles of the columns, and stores the columns' zero points, scales and sums in their places.
std::vector<uint8_t> quantised_tiles_a8w8(const Transfer& w, const Columns& columns) {
  const std::vector<uint16_t> halves = columns_as_rows(w, columns);
  std::vector<uint8_t> bytes(halves.size());
  auto* const values = reinterpret_cast<int8_t*>(bytes.data());
  tavik_f16_rm_to_i8_rm(columns.n_padded, w.n_inner, halves.data(), values,
                        w.at<int8_t>(w.arrays.zero_points) + columns.first,
                        w.at<uint16_t>(w.arrays.scales) + columns.first, w.at<int32_t>(w.arrays.sums) + columns.first);
  tavik_matrix_transpose_i8(columns.n_padded, w.n_inner, values);
  tavik_i8_rm_to_i8_wh_inplace(w.n_inner, columns.n_padded, values);
  return bytes;
}

std::vector<uint8_t> quantised_tiles_a8w4(const Transfer& w, const Columns& columns) {
  const std::vector<uint16_t> halves = columns_as_rows(w, columns);
  std::vector<uint32_t> words(halves.size() / 8);
  auto* const zero_points = w.at<uint32_t>(w.arrays.zero_points) + columns.first / 8;
  std::fill_n(zero_points, columns.n_padded / 8, 0u);
  tavik_f16_rm_to_i4_rm(columns.n_padded, w.n_inner, halves.data(), words.data(), zero_points,
                        w.at<uint16_t>(w.arrays.scales) + columns.first, w.at<int32_t>(w.arrays.sums) + columns.first);

  std::vector<uint8_t> nibbles(halves.size());
  for (size_t i = 0; i < nibbles.size(); ++i) nibbles[i] = words[i / 8] >> 4 * (i % 8) & 15;
  std::vector<uint8_t> bytes(halves.size() / 2);
  tavik_host_layout_w4_flat_to_weight(bytes.data(), nibbles.data(), columns.n_padded, w.n_inner);
  return bytes;
}

// In each row of tiles of the whole matrix, the tiles of a group of columns stand together.
void write_tiles(const Transfer& w, const Columns& columns, const std::vector<uint8_t>& tiles) {
  const size_t n_band = w.n_inner / tile;
  const size_t n_byte = tiles.size() / n_band;  // bytes of one row of tiles
  const size_t tile_size = n_byte / (columns.n_padded / tile);
  auto* const to = w.at<uint8_t>(w.arrays.values);
  for (size_t band = 0; band < n_band; ++band) {
    std::copy_n(tiles.data() + band * n_byte, n_byte, to + (band * w.n_col + columns.first) / tile * tile_size);
  }
}

void write_quantised(WeightKind kind, const Transfer& w) {
  const size_t n_at_a_time = std::max(n_value_at_a_time / w.n_inner / tile, size_t{1}) * tile;
  for (size_t first = 0; first < w.n_col; first += n_at_a_time) {
    const Columns columns = {first, std::min(n_at_a_time, w.file.n_col() - first),
                             std::min(n_at_a_time, w.n_col - first)};
    write_tiles(w, columns,
                kind == WeightKind::a8w8 ? quantised_tiles_a8w8(w, columns) : quantised_tiles_a8w4(w, columns));
  }
}

// A packed matrix takes no more than the arrays that are planned for it, and has them at places of its own.
void read_packed(const WeightFile& file, std::byte* base, WeightArrays& arrays) {
  file.read_packed(base + arrays.values);
  const morun_weights_layout& layout = file.tensor().layout;
  arrays.zero_points = arrays.values + layout.zero_points;
  arrays.scales = arrays.values + layout.scales;
  arrays.sums = arrays.values + layout.sums;
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

Weights::Weights(tavik_context* context, const ProductPlan& plan, const std::vector<WeightFile>& files,
                 const WeightObserver& observe)
    : buffer_(context, plan.weight_bytes), arrays_(plan.weights) {
  for (size_t i = 0; i < arrays_.size(); ++i) {
    arrays_[i].fd = buffer_.fd();
    if (files[i].is_packed()) {
      read_packed(files[i], static_cast<std::byte*>(buffer_.data()), arrays_[i]);
      continue;
    }
    const std::function observe_this = [&](const std::vector<float>& values) { observe(i, values); };
    const Transfer transfer = {files[i].npy(), observe_this, static_cast<std::byte*>(buffer_.data()),
                               arrays_[i],     plan.n_inner, plan.n_col[i]};
    if (plan.kernel->weights == WeightKind::f16) {
      write_f16(transfer);
    } else {
      write_quantised(plan.kernel->weights, transfer);
    }
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
