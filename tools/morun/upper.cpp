#include "tools/morun/upper.h"

#include <morun_state.h>

#include <cstdlib>
#include <cstring>
#include <new>
#include <numeric>

#include "tools/morun/error.h"
#include "tools/morun/half.h"
#include "tools/morun/layouts.h"

namespace tool {
namespace {

constexpr size_t element_bits[] = {4, 8, 8, 32, 16, 32};  // of an element of each type
constexpr int untouched = 0x7e;             // byte value; halves and floats of such bytes are NaN or very large
constexpr uint64_t elements_around = 1024;  // before the first element of a tensor, and behind the result's last

morun_tensor_dtype_e weight_type(WeightKind kind) {
  return kind == WeightKind::f16 ? MORUN_DTYPE_F16 : kind == WeightKind::a8w8 ? MORUN_DTYPE_I8 : MORUN_DTYPE_I4;
}

morun_tensor_dtype_e result_type(morun_tensor_dtype_e x) {
  return x == MORUN_DTYPE_U8 ? MORUN_DTYPE_I32 : x;
}

void start_behind(uint64_t n_element, morun_tensor& tensor) {
  tensor.data_offset = n_element;
  tensor.num_elements += n_element;
}

// For a strided record, validation counts the offset twice, so num_elements does too.
void widen_rows(uint64_t gap, morun_tensor& tensor) {
  tensor.is_contiguous = 0;
  tensor.strides[0] += gap;
  tensor.num_elements = 2 * tensor.data_offset + (tensor.dims[0] - 1) * tensor.strides[0] + tensor.dims[1];
}

template <typename Element>
Element* elements(const morun_tensor& tensor) {
  return static_cast<Element*>(tensor.data) + tensor.data_offset;
}

// Row-major weights are read as n_col rows of n_inner. places[i] is the place of the weight that is used as weight i of
// the n_inner x n_col matrix. The host takes each row as a column.
std::vector<size_t> places_for_host(size_t n_inner, size_t n_col) {
  std::vector<size_t> places(n_inner * n_col);
  for (size_t i = 0; i < places.size(); ++i) places[i] = i % n_col * n_inner + i / n_col;
  return places;
}

// The NPU's path lays out the rows in tiles, and its product reads these tiles as tiles of n_inner rows.
std::vector<size_t> places_for_npu(size_t n_inner, size_t n_col) {
  std::vector<size_t> places(n_inner * n_col), source_of(n_inner * n_col);
  for (size_t i = 0; i < places.size(); ++i) source_of[place_f16_wh(i / n_inner, i % n_inner, n_inner)] = i;
  for (size_t i = 0; i < places.size(); ++i) places[i] = source_of[place_f16_wh(i / n_col, i % n_col, n_col)];
  return places;
}

}  // namespace

// When initialising fails before a context is open, `context` keeps the address that it had before.
UpperInterface::UpperInterface() {
  const tavik_context* const before = context;
  const int32_t status = morun_npu_initialize(MORUN_DOMAIN_NPU0);
  if (status == MORUN_SUCCESS) return;
  const bool is_open = context != before;
  const std::string why = is_open ? "the matrix unit cannot be locked" : tavik_error_get_last()->message;
  if (is_open) morun_npu_finalize(MORUN_DOMAIN_NPU0);
  throw Error("the upper interface cannot be opened: status {}: {}", status, why);
}

UpperInterface::~UpperInterface() {
  morun_npu_finalize(MORUN_DOMAIN_NPU0);
}

UpperVersions upper_versions() {
  char library[64] = "";
  const int32_t status = morun_npu_get_version(MORUN_DOMAIN_NPU0, library);
  return {status, library, npu_version};
}

UpperCall::UpperCall(const Kernel& kernel, const OperandSet& operands, size_t row_gap) : kernel_(kernel) {
  const UpperForm& form = kernel.form;
  const Matrix& w = operands.weights[0].values;
  const size_t n_row = operands.x.n_row, n_inner = w.n_row, n_col = w.n_col;
  call_.n_row = static_cast<int32_t>(n_row);
  call_.n_inner = static_cast<int32_t>(n_inner);
  call_.products[0].n_col = static_cast<int32_t>(n_col);

  auto& [result, left, right] = call_.tensors;
  result = morun_tensor_matrix(n_row, n_col, result_type(form.x), form.x_layout, nullptr);
  left = morun_tensor_matrix(n_row, n_inner, form.x, form.x_layout, nullptr);
  right = morun_tensor_matrix(n_inner, n_col, weight_type(kernel.weights), form.w_layout, nullptr);
  if (form.takes_tensors) {
    start_behind(elements_around, result);
    start_behind(elements_around, left);
    // Integer weights are read from the start of their buffer, whatever the data offset.
    if (kernel.weights == WeightKind::f16) start_behind(elements_around, right);
  }
  if (row_gap > 0) widen_rows(row_gap, result);
  result.num_elements += elements_around;
  allocate('A', result, untouched);
  allocate('X', left, 0);
  allocate('W', right, 0);
  write_activation(operands.x);
  write_weights(w);
}

void UpperCall::allocate(char operand, morun_tensor& tensor, int filler) {
  const uint64_t n_byte = tensor.num_elements * element_bits[tensor.data_dtype] / 8;
  if (kernel_.form.shares(operand)) {
    const int32_t status = morun_npu_alloc(n_byte, &tensor.data);
    if (status != MORUN_SUCCESS) throw Error("{} bytes cannot be shared with the DSP: status {}", n_byte, status);
    memory_.emplace_back(tensor.data, [](void* data) { morun_npu_free(data); });
  } else {
    tensor.data = std::malloc(n_byte);
    if (tensor.data == nullptr) throw std::bad_alloc();
    memory_.emplace_back(tensor.data, std::free);
  }
  std::memset(tensor.data, filler, n_byte);
}

void UpperCall::write_activation(const Matrix& x) {
  const morun_tensor& left = call_.tensors[1];
  for (size_t i = 0; i < x.values.size(); ++i) {
    const float value = x.values[i];
    if (left.layout == MORUN_LAYOUT_2D_AH) {
      elements<uint16_t>(left)[place_f16_ah(i / x.n_col, i % x.n_col, x.n_col)] = half::bits(value);
    } else if (left.data_dtype == MORUN_DTYPE_F16) {
      elements<uint16_t>(left)[i] = half::bits(value);
    } else if (left.data_dtype == MORUN_DTYPE_F32) {
      elements<float>(left)[i] = value;
    } else {
      elements<uint8_t>(left)[i] = static_cast<uint8_t>(value);
    }
  }
}

void UpperCall::write_weights(const Matrix& w) {
  const morun_tensor& right = call_.tensors[2];
  if (right.layout == MORUN_LAYOUT_2D_RM) {
    const auto places = (kernel_.is_on_host() ? places_for_host : places_for_npu)(w.n_row, w.n_col);
    for (size_t i = 0; i < places.size(); ++i) elements<uint16_t>(right)[places[i]] = half::bits(w.values[i]);
    return;
  }
  auto* const base = static_cast<uint8_t*>(right.data) + right.data_offset * element_bits[right.data_dtype] / 8;
  for (size_t i = 0; i < w.values.size(); ++i) {
    write_weight(kernel_.weights, base, i / w.n_col, i % w.n_col, w.n_col, w.values[i]);
  }
}

size_t UpperCall::place_of_result(size_t r, size_t c) const {
  const morun_tensor& result = call_.tensors[0];
  if (result.layout == MORUN_LAYOUT_2D_AH) return place_f16_ah(r, c, result.dims[1]);
  return r * (kernel_.form.packs_rows ? result.dims[1] : result.strides[0]) + c;
}

double UpperCall::result(size_t, size_t r, size_t c) const {
  const morun_tensor& result = call_.tensors[0];
  const size_t place = place_of_result(r, c);
  if (result.data_dtype == MORUN_DTYPE_F16) return half::value(elements<uint16_t>(result)[place]);
  if (result.data_dtype == MORUN_DTYPE_F32) return double{elements<float>(result)[place]};
  return elements<int32_t>(result)[place];
}

bool UpperCall::leaves_the_rest() const {
  const morun_tensor& result = call_.tensors[0];
  const size_t n_byte = element_bits[result.data_dtype] / 8;
  std::vector<char> is_left(result.num_elements * n_byte, 1);
  for (size_t r = 0; r < result.dims[0]; ++r) {
    for (size_t c = 0; c < result.dims[1]; ++c) {
      const size_t place = result.data_offset + place_of_result(r, c);
      std::fill_n(is_left.begin() + static_cast<ptrdiff_t>(place * n_byte), n_byte, 0);
    }
  }
  const auto* const bytes = static_cast<const uint8_t*>(result.data);
  for (size_t i = 0; i < is_left.size(); ++i) {
    if (is_left[i] != 0 && bytes[i] != untouched) return false;
  }
  return true;
}

}  // namespace tool
