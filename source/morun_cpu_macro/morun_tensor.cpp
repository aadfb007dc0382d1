#include "include/morun_tensor.h"

#include <cstddef>

#include "source/log_line.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_tensor";
constexpr uint32_t last_dtype = MORUN_DTYPE_F32, last_layout = MORUN_LAYOUT_2D_6;

using ull = unsigned long long;

bool has_rank(const morun_tensor& tensor) {
  return tensor.ndims == 1 || tensor.ndims == 2;
}

#define TENSOR_FAIL(...) MORUN_FAIL_AT(place, MORUN_ERROR_BAD_ARGUMENT, __VA_ARGS__)

int32_t check_contiguous_vector(const morun::CallPlace& place, const morun_tensor& tensor) {
  if (tensor.layout != MORUN_LAYOUT_1D_LINEAR)
    return TENSOR_FAIL("1D tensor supported only in MORUN_LAYOUT_1D_LINEAR layout\n");
  if (tensor.strides[0] != 1)
    return TENSOR_FAIL("1D tensor is not contiguous. Expected stride[0] = 1, got %llu.\n", ull{tensor.strides[0]});
  return MORUN_SUCCESS;
}

// A tiled matrix has the strides of a row-major one.
int32_t check_contiguous_matrix(const morun::CallPlace& place, const morun_tensor& tensor) {
  if (tensor.layout < MORUN_LAYOUT_2D_RM || tensor.layout > last_layout)
    return TENSOR_FAIL("2D tensor, unsupported layout: = %d\n", static_cast<int>(tensor.layout));
  const uint64_t expected[2] = {tensor.dims[1], 1};
  for (int i = 0; i < 2; ++i)
    if (tensor.strides[i] != expected[i])
      return TENSOR_FAIL("2D tensor is not contiguous. Expected stride[%d] = %llu, got %llu.\n", i, ull{expected[i]},
                         ull{tensor.strides[i]});
  return MORUN_SUCCESS;
}

int32_t check_contiguous(const morun::CallPlace& place, const morun_tensor& tensor, uint64_t product_of_dims) {
  const uint64_t needed = tensor.data_offset + product_of_dims;
  if (tensor.num_elements < needed)
    return TENSOR_FAIL(
        "num_elements (%llu) mismatch. Expected at least %llu = data_offset (%llu) + product of dims (%llu).\n",
        ull{tensor.num_elements}, ull{needed}, ull{tensor.data_offset}, ull{product_of_dims});
  return tensor.ndims == 1 ? check_contiguous_vector(place, tensor) : check_contiguous_matrix(place, tensor);
}

int32_t check_strided(const morun::CallPlace& place, const morun_tensor& tensor, uint64_t greatest_distance) {
  // Kept: the bound adds the offset twice, here and in the next line.
  const uint64_t max_index = tensor.data_offset + 1 + greatest_distance;
  const uint64_t needed = tensor.data_offset + max_index;
  if (tensor.num_elements >= needed) return MORUN_SUCCESS;
  return TENSOR_FAIL(
      "num_elements (%llu) mismatch for strided layout. Expected at least %llu = data_offset (%llu) + max index "
      "(%llu).\n",
      ull{tensor.num_elements}, ull{needed}, ull{tensor.data_offset}, ull{max_index});
}

// Checks extents, strides and the elements that they reach. Sums and products wrap at 64 bits.
int32_t check_extents(const morun::CallPlace& place, const morun_tensor& tensor) {
  uint64_t product_of_dims = 1, greatest_distance = 0;
  for (int i = 0; i < tensor.ndims; ++i) {
    if (tensor.dims[i] == 0) return TENSOR_FAIL("Invalid dims[%d] field : = 0.  The minimal dimension is 1\n", i);
    if (tensor.strides[i] == 0) return TENSOR_FAIL("Invalid strides[%d] field : = 0.  The minimal stride is 1\n", i);
    product_of_dims *= tensor.dims[i];
    greatest_distance += (tensor.dims[i] - 1) * tensor.strides[i];
  }
  if (tensor.num_elements == 0)
    return TENSOR_FAIL("Invalid num_elements field: = 0. Tensor must access at least one element.\n");
  if (tensor.num_elements <= tensor.data_offset)
    return TENSOR_FAIL(
        "Invalid data_offset: = %llu and num_elementst: = %llu. Offset can't be greater or equal to number of elements "
        "in tensor.\n",
        ull{tensor.data_offset}, ull{tensor.num_elements});
  return tensor.is_contiguous != 0 ? check_contiguous(place, tensor, product_of_dims)
                                   : check_strided(place, tensor, greatest_distance);
}

int32_t check_enumerations(const morun::CallPlace& place, const morun_tensor& tensor) {
  if (tensor.data_dtype > last_dtype)
    return TENSOR_FAIL("Invalid data_dtype field : = %d. Use morun_tensor_dtype_e to declare tensor type\n",
                       static_cast<int>(tensor.data_dtype));
  if (tensor.quantization != MORUN_QUANTIZATION_NONE)
    return TENSOR_FAIL(
        "Invalid quantization field : = %d. Use morun_tensor_quantization_e to declare tensor quantization\n",
        static_cast<int>(tensor.quantization));
  if (tensor.layout > last_layout)
    return TENSOR_FAIL("Invalid layout field : = %d. Use morun_tensor_layout_e to declare tensor layout\n",
                       static_cast<int>(tensor.layout));
  return MORUN_SUCCESS;
}

int32_t check_vector_by_vector(const morun::CallPlace& place, const morun_tensor& result, const morun_tensor& left,
                               const morun_tensor& right) {
  if (left.dims[0] != right.dims[0])
    return TENSOR_FAIL("1D x 1D mismatch: left dim = %llu, right dim = %llu\n", ull{left.dims[0]}, ull{right.dims[0]});
  if (result.ndims != 1 || result.dims[0] != 1)
    return TENSOR_FAIL("Result tensor shape mismatch for 1D x 1D. Expected [1], got ndims = %u, dims[0] = %llu\n",
                       unsigned{result.ndims}, ull{result.dims[0]});
  return MORUN_SUCCESS;
}

int32_t check_matrix_by_matrix(const morun::CallPlace& place, const morun_tensor& result, const morun_tensor& left,
                               const morun_tensor& right) {
  if (left.dims[1] != right.dims[0])
    return TENSOR_FAIL("2D x 2D mismatch: left inner dim = %llu, right outer dim = %llu\n", ull{left.dims[1]},
                       ull{right.dims[0]});
  if (result.ndims != 2 || result.dims[0] != left.dims[0] || result.dims[1] != right.dims[1])
    return TENSOR_FAIL("Result tensor shape mismatch for 2D x 2D. Expected [%llu, %llu], got [%llu, %llu]\n",
                       ull{left.dims[0]}, ull{right.dims[1]}, ull{result.dims[0]}, ull{result.dims[1]});
  return MORUN_SUCCESS;
}

int32_t check_vector_by_matrix(const morun::CallPlace& place, const morun_tensor& result, const morun_tensor& left,
                               const morun_tensor& right) {
  if (left.dims[0] != right.dims[0])
    return TENSOR_FAIL("1D x 2D mismatch: left dim = %llu, right rows = %llu\n", ull{left.dims[0]}, ull{right.dims[0]});
  if (result.ndims != 1 || result.dims[0] != right.dims[1])
    return TENSOR_FAIL("Result tensor shape mismatch for 1D x 2D. Expected [%llu], got [%llu]\n", ull{right.dims[1]},
                       ull{result.dims[0]});
  return MORUN_SUCCESS;
}

int32_t check_matrix_by_vector(const morun::CallPlace& place, const morun_tensor& result, const morun_tensor& left,
                               const morun_tensor& right) {
  if (left.dims[1] != right.dims[0])
    return TENSOR_FAIL("2D x 1D mismatch: left cols = %llu, right dim = %llu\n", ull{left.dims[1]}, ull{right.dims[0]});
  if (result.ndims != 1 || result.dims[0] != left.dims[0])
    return TENSOR_FAIL("Result tensor shape mismatch for 2D x 1D. Expected [%llu], got [%llu]\n", ull{left.dims[0]},
                       ull{result.dims[0]});
  return MORUN_SUCCESS;
}

int32_t check_shapes(const morun::CallPlace& place, const morun_tensor& result, const morun_tensor& left,
                     const morun_tensor& right) {
  if (left.ndims == 1 && right.ndims == 1) return check_vector_by_vector(place, result, left, right);
  if (left.ndims == 2 && right.ndims == 2) return check_matrix_by_matrix(place, result, left, right);
  if (left.ndims == 1 && right.ndims == 2) return check_vector_by_matrix(place, result, left, right);
  if (left.ndims == 2 && right.ndims == 1) return check_matrix_by_vector(place, result, left, right);
  return TENSOR_FAIL("Unsupported tensor combination: left ndims = %u, right ndims = %u\n", unsigned{left.ndims},
                     unsigned{right.ndims});
}

// Sets of refused layouts, one bit for each layout. A valid record never has layout 7, and this check refuses 7 as
// well.
constexpr uint32_t weight_side = 1u << MORUN_LAYOUT_2D_WH | 1u << MORUN_LAYOUT_2D_5 | 1u << 7;
constexpr uint32_t activation_side = 1u << MORUN_LAYOUT_2D_AH | 1u << MORUN_LAYOUT_2D_6 | 1u << 7;

int32_t check_layout(const morun::CallPlace& place, const char* name, uint32_t layout, uint32_t illegal) {
  if (layout > 7 || (illegal >> layout & 1u) == 0) return MORUN_SUCCESS;
  return TENSOR_FAIL("%s tensor illegal layout = %d\n", name, static_cast<int>(layout));
}

#undef TENSOR_FAIL

}  // namespace

int32_t morun_tensor_validate(const morun_tensor* tensor) {
  if (tensor == nullptr) return MORUN_FAIL(MORUN_ERROR_NULL_POINTER, "tensor parameter is NULL\n");
  if (tensor->data == nullptr) return MORUN_FAIL(MORUN_ERROR_NULL_POINTER, "tensor data pointer is NULL\n");
  if (!has_rank(*tensor))
    return MORUN_FAIL(MORUN_ERROR_BAD_ARGUMENT, "Invalid ndims field: %d. ndims should be in [1, %d] range\n",
                      int{tensor->ndims}, 2);
  MORUN_TRY(check_extents(MORUN_HERE, *tensor));
  return check_enumerations(MORUN_HERE, *tensor);
}

int32_t morun_mm_tensor_validate(const morun_tensor* result, const morun_tensor* left, const morun_tensor* right) {
  if (result == nullptr || left == nullptr || right == nullptr)
    return MORUN_FAIL(MORUN_ERROR_NULL_POINTER, "One or more tensor pointers are NULL.\n");
  if (!has_rank(*left) || !has_rank(*right))
    return MORUN_FAIL(MORUN_ERROR_BAD_ARGUMENT,
                      "Unsupported tensor ranks: left = %u, right = %u. Only 1D and 2D tensors are supported.\n",
                      unsigned{left->ndims}, unsigned{right->ndims});
  if (left->quantization != MORUN_QUANTIZATION_NONE)
    return MORUN_FAIL(MORUN_ERROR_BAD_ARGUMENT, "Left tensor must not be quantized. Found quantization = %d\n",
                      static_cast<int>(left->quantization));
  MORUN_TRY(check_shapes(MORUN_HERE, *result, *left, *right));
  MORUN_TRY(check_layout(MORUN_HERE, "Left", left->layout, weight_side));
  MORUN_TRY(check_layout(MORUN_HERE, "Right", right->layout, activation_side));
  return check_layout(MORUN_HERE, "Result", result->layout, weight_side);
}
