#include <cstdlib>
#include <cstring>

#include "include/morun_tensor.h"
#include "source/morun_npu_macro/npu_checks.h"
#include "source/tiles.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_tensor";
constexpr char this_call[] = "morun_mm_tensor";
constexpr char allocation_of_A_failed[] = "Internal allocation of A failed\n\n";
constexpr char layouting_of_A_failed[] = "Internal layouting of A failed\n\n";

// The operands left * right and the result, after validation.
struct TensorProduct {
  uint32_t platform;
  const morun_tensor& result;
  const morun_tensor& left;
  const morun_tensor& right;
  uint64_t n_row = left.dims[0], n_col = right.dims[1], n_inner = left.dims[1];

  bool is_on_npu() const { return platform == MORUN_PLATFORM_NPU0; }
  int32_t domain() const { return is_on_npu() ? MORUN_DOMAIN_NPU0 : -1; }
  // The dimensions in the type that the NPU's products take.
  morun::Shape shape() const {
    return {static_cast<int32_t>(n_row), static_cast<int32_t>(n_col), static_cast<int32_t>(n_inner)};
  }
  // The byte offset of f16 weights in their buffer.
  uint32_t W_offset() const { return static_cast<uint32_t>(right.data_offset * 2); }
  uint64_t X_bytes() const { return 2 * n_row * n_inner; }  // this and the next two: for f16 elements
  uint64_t W_bytes() const { return 2 * n_col * n_inner; }
  uint64_t A_bytes() const { return 2 * n_row * n_col; }
};

template <class T>
T* start(const morun_tensor& tensor) {
  return static_cast<T*>(tensor.data) + tensor.data_offset;
}

// Copies packed rows to the result with the result's row stride. Products write only whole tiles of columns, so the
// last n_col % 32 columns of packed rows hold nothing, and the result keeps its values there.
template <class T>
void copy_rows_to_result(const TensorProduct& product, const T* packed) {
  T* const to = start<T>(product.result);
  const uint64_t n_col_filled = product.n_col - product.n_col % tavik::tile_side;
  for (uint64_t i = 0; i < product.n_row; ++i)
    memcpy(to + i * product.result.strides[0], packed + i * product.n_col, n_col_filled * sizeof(T));
}

// Packed rows of 4-byte elements for a product to write. They are the result itself, or a block that deliver() copies
// to the result.
template <class T>
class PackedRows {
 public:
  explicit PackedRows(const TensorProduct& product) : product_(product) {
    if (product.result.is_contiguous != 1 || product.result.strides[0] != product.result.dims[1])
      data_ = block_ = static_cast<T*>(malloc(product.n_row * product.n_col * sizeof(T)));
    else
      data_ = start<T>(product.result);
  }
  ~PackedRows() { free(block_); }
  PackedRows(const PackedRows&) = delete;
  PackedRows& operator=(const PackedRows&) = delete;

  int32_t status() const { return data_ != nullptr ? MORUN_SUCCESS : MORUN_ERROR_FAILURE; }
  T* data() const { return data_; }
  void deliver() const {
    if (block_ != nullptr) copy_rows_to_result(product_, block_);
  }

 private:
  const TensorProduct& product_;
  T* block_ = nullptr;
  T* data_ = nullptr;
};

// Copies of the f16 operands in shared buffers.
struct Copies {
  void* A = nullptr;
  void* W = nullptr;
  void* X = nullptr;

  uint16_t* halves_of_A() const { return static_cast<uint16_t*>(A); }
  uint16_t* halves_of_W() const { return static_cast<uint16_t*>(W); }
  uint16_t* halves_of_X() const { return static_cast<uint16_t*>(X); }
  int32_t release() const { return morun_npu_free(A) | morun_npu_free(W) | morun_npu_free(X); }
};

int32_t copy_operands(const TensorProduct& product, Copies& copies) {
  MORUN_TRY_STEP(this_call, morun_npu_alloc(product.A_bytes(), &copies.A), allocation_of_A_failed);
  MORUN_TRY_STEP(this_call, morun_npu_alloc(product.W_bytes(), &copies.W), "Internal allocation of W failed\n\n");
  MORUN_TRY_STEP(this_call, morun_npu_alloc(product.X_bytes(), &copies.X), "Internal allocation of X failed\n\n");
  memcpy(copies.X, start<uint16_t>(product.left), product.X_bytes());
  memcpy(copies.W, start<uint16_t>(product.right), product.W_bytes());
  return MORUN_SUCCESS;
}

int32_t multiply_copies(const TensorProduct& product, const Copies& copies) {
  const morun::Shape shape = product.shape();
  MORUN_TRY_STEP(this_call,
                 morun_npu_mm_f16(product.domain(), shape.n_row, shape.n_col, shape.n_inner, copies.halves_of_A(),
                                  copies.halves_of_X(), copies.halves_of_W()),
                 "Internal matmul failed\n\n");
  return MORUN_SUCCESS;
}

// Kept: the result is copied as one block and its row stride is ignored.
void copy_block_to_result(const TensorProduct& product, const Copies& copies) {
  memcpy(start<uint16_t>(product.result), copies.A, product.A_bytes());
}

int32_t f32_by_f16(const TensorProduct& product, Copies&) {
  const PackedRows<float> output(product);
  MORUN_TRY_STEP(this_call, output.status(), allocation_of_A_failed);
  uint32_t W_fd;
  MORUN_TRY(morun::find_registered(MORUN_HERE_IN(this_call), "W", product.right.data, &W_fd));
  const morun::Shape shape = product.shape();
  MORUN_TRY_LOWER_AT(MORUN_HERE_IN(this_call), tavik_npu_mm_f32_rm_f32_rm_f16_wh(
                                                   own::context, shape.n_row, shape.n_col, shape.n_inner, output.data(),
                                                   start<float>(product.left), W_fd, product.W_offset()));
  output.deliver();
  return MORUN_SUCCESS;
}

int32_t f16_tiled(const TensorProduct& product, Copies& copies) {
  MORUN_TRY(copy_operands(product, copies));
  MORUN_TRY(multiply_copies(product, copies));
  copy_block_to_result(product, copies);
  return MORUN_SUCCESS;
}

int32_t f16_by_tiled_weights(const TensorProduct& product, Copies& copies) {
  MORUN_TRY_STEP(this_call, morun_npu_alloc(product.A_bytes(), &copies.A), allocation_of_A_failed);
  MORUN_TRY_STEP(this_call, morun_npu_alloc(product.X_bytes(), &copies.X), "Internal allocation of X_parlo failed\n\n");
  memcpy(copies.X, start<uint16_t>(product.left), product.X_bytes());
  MORUN_TRY_STEP(this_call, morun_cpu_rm_to_ah_f16_inplace(product.n_row, product.n_inner, copies.halves_of_X()),
                 "Internal layouting of X_parlo failed\n\n");
  morun::Descriptors fds;
  MORUN_TRY(morun::find_all_registered(MORUN_HERE_IN(this_call), copies.A, product.right.data, copies.X, &fds));
  const morun::Shape shape = product.shape();
  const auto status = static_cast<int32_t>(tavik_npu_mm_f16_ah_f16_ah_f16_wh(
      own::context, shape.n_row, shape.n_col, shape.n_inner, fds.A, fds.X, fds.W, 0, 0, product.W_offset()));
  if (status != TAVIK_SUCCESS) return MORUN_FAIL_AT(MORUN_HERE_IN(this_call), status, "Err = %d\n", status);
  MORUN_TRY_STEP(this_call, morun_cpu_ah_to_rm_f16_inplace(product.n_row, product.n_col, copies.halves_of_A()),
                 layouting_of_A_failed);
  copy_rows_to_result(product, copies.halves_of_A());
  return MORUN_SUCCESS;
}

// Kept: the values of `right` are read as n_col rows of n_inner, as on the host. The NPU takes the tiles of these rows
// for tiles of an n_inner x n_col matrix. That gives the plain product left * right only when n_col = n_inner.
int32_t f16_row_major_on_npu(const TensorProduct& product, Copies& copies) {
  MORUN_TRY(copy_operands(product, copies));
  MORUN_TRY_STEP(this_call, morun_cpu_rm_to_wh_f16_inplace(product.n_col, product.n_inner, copies.halves_of_W()),
                 "Internal layouting of W failed\n\n");
  MORUN_TRY_STEP(this_call, morun_cpu_rm_to_ah_f16_inplace(product.n_row, product.n_inner, copies.halves_of_X()),
                 "Internal layouting of X failed\n\n");
  MORUN_TRY(multiply_copies(product, copies));
  MORUN_TRY_STEP(this_call, morun_cpu_ah_to_rm_f16_inplace(product.n_row, product.n_col, copies.halves_of_A()),
                 layouting_of_A_failed);
  copy_block_to_result(product, copies);
  return MORUN_SUCCESS;
}

int32_t f16_row_major(const TensorProduct& product, Copies& copies) {
  if (product.is_on_npu()) return f16_row_major_on_npu(product, copies);
  // Kept: every other platform returns success and computes nothing.
  if (product.platform == MORUN_PLATFORM_CPU)
    morun_tensor_cpu_matmul_scenario_5(product.n_row, product.n_col, product.n_inner, start<uint16_t>(product.result),
                                       start<uint16_t>(product.left), start<uint16_t>(product.right));
  return MORUN_SUCCESS;
}

template <class Weight,
          int32_t (*multiply)(int32_t, int32_t, int32_t, int32_t, int32_t*, const uint8_t*, const Weight*)>
int32_t u8_by_integer(const TensorProduct& product, Copies&) {
  const PackedRows<int32_t> output(product);
  MORUN_TRY_STEP(this_call, output.status(), allocation_of_A_failed);
  uint32_t W_fd;
  MORUN_TRY(morun::find_registered(MORUN_HERE_IN(this_call), "W", product.right.data, &W_fd));
  const morun::Shape shape = product.shape();
  // Kept: the data offset of `right` is ignored.
  MORUN_TRY_LOWER_AT(MORUN_HERE_IN(this_call),
                     multiply(product.domain(), shape.n_row, shape.n_col, shape.n_inner, output.data(),
                              start<uint8_t>(product.left), static_cast<const Weight*>(product.right.data)));
  output.deliver();
  return MORUN_SUCCESS;
}

// What a path accepts (types and layouts of left, right and result, in this order), and its further requirements.
struct Path {
  bool is_on_npu_only;
  morun_tensor_dtype_e types[3];
  morun_tensor_layout_e layouts[3];
  bool writes_packed_rows;       // writes rows without gaps into the result, whatever its strides
  bool finds_weights_by_offset;  // passes the weights' byte offset in 32 bits
  int32_t (*run)(const TensorProduct&, Copies&);
};

constexpr auto i4 = MORUN_DTYPE_I4, i8 = MORUN_DTYPE_I8, u8 = MORUN_DTYPE_U8, i32 = MORUN_DTYPE_I32,
               f16 = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;
constexpr auto rm = MORUN_LAYOUT_2D_RM, wh = MORUN_LAYOUT_2D_WH, ah = MORUN_LAYOUT_2D_AH;

// P1 to P6 are the paths of include/morun_tensor.h.
constexpr Path paths[] = {
    {true, {f32, f16, f32}, {rm, wh, rm}, false, true, f32_by_f16},                                    // P1
    {true, {f16, f16, f16}, {ah, wh, ah}, true, false, f16_tiled},                                     // P2
    {true, {f16, f16, f16}, {rm, wh, rm}, false, true, f16_by_tiled_weights},                          // P3
    {true, {u8, i4, i32}, {rm, wh, rm}, false, false, u8_by_integer<uint8_t, morun_npu_mm_u8i4_i32>},  // P4
    {false, {f16, f16, f16}, {rm, rm, rm}, true, false, f16_row_major},                                // P5
    {true, {u8, i8, i32}, {rm, wh, rm}, false, false, u8_by_integer<int8_t, morun_npu_mm_u8i8_i32>},   // P6
};

bool takes(const Path& path, const TensorProduct& product) {
  if (path.is_on_npu_only && !product.is_on_npu()) return false;
  const morun_tensor* const tensors[3] = {&product.left, &product.right, &product.result};
  for (int i = 0; i < 3; ++i)
    if (tensors[i]->data_dtype != path.types[i] || tensors[i]->layout != path.layouts[i]) return false;
  return product.result.strides[1] == 1;
}

const Path* find_path(const TensorProduct& product) {
  if (product.left.ndims != 2 || product.right.ndims != 2 || product.result.ndims != 2) return nullptr;
  if (product.left.is_contiguous != 1 || product.right.is_contiguous != 1) return nullptr;
  for (const Path& path : paths)
    if (takes(path, product)) return &path;
  return nullptr;
}

// Tells whether a matrix with that row stride and dense columns lies within num_elements. Validation counts in 64 bits
// that wrap; this function detects the overflow instead.
bool lies_inside(const morun_tensor& tensor, uint64_t row_stride) {
  uint64_t end;
  return !__builtin_mul_overflow(tensor.dims[0] - 1, row_stride, &end) &&
         !__builtin_add_overflow(end, tensor.dims[1], &end) && !__builtin_add_overflow(end, tensor.data_offset, &end) &&
         end <= tensor.num_elements;
}

bool has_room(const Path& path, const TensorProduct& product) {
  const morun_tensor& result = product.result;
  if (!lies_inside(product.left, product.n_inner) || !lies_inside(product.right, product.n_col) ||
      !lies_inside(result, path.writes_packed_rows ? product.n_col : result.strides[0]))
    return false;
  if (path.finds_weights_by_offset && product.right.data_offset > UINT32_MAX / 2) return false;
  return !product.is_on_npu() ||
         (product.n_row <= INT32_MAX && product.n_col <= INT32_MAX && product.n_inner <= INT32_MAX);
}

int32_t validate(const char* name, const morun_tensor* tensor) {
  const int32_t status = morun_tensor_validate(tensor);
  if (status == MORUN_SUCCESS) return status;
  return MORUN_FAIL_AT(MORUN_HERE_IN(this_call), status, "Bad configuration of %s\n", name);
}

}  // namespace

int32_t morun_mm_tensor(uint32_t platform, const morun_tensor* result, const morun_tensor* left,
                        const morun_tensor* right) {
  MORUN_TRY(morun::check_initialized(MORUN_HERE));
  if (platform == 1 || platform == 4)
    return MORUN_FAIL(MORUN_ERROR_BAD_ARGUMENT,
                      "Unsupported platform selected. Currently, only MORUN_PLATFORM_NPU0 and MORUN_PLATFORM_CPU are "
                      "supported.\n");
  MORUN_TRY(validate("result_tensor", result));
  MORUN_TRY(validate("left_tensor", left));
  MORUN_TRY(validate("right_tensor", right));
  MORUN_TRY_STEP(this_call, morun_mm_tensor_validate(result, left, right), "Tensor multiplication mismatch\n");

  const TensorProduct product = {platform, *result, *left, *right};
  const Path* const path = find_path(product);
  if (path == nullptr || !has_room(*path, product))
    return MORUN_FAIL(MORUN_ERROR_UNSUPPORTED_TENSORS, "Unsupported matmul tensors configuration\n");
  Copies copies;
  const int32_t status = path->run(product, copies);
  return status | copies.release();
}
