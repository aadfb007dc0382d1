#include "source/host/error.h"
#include "source/host/kernels/size_check.h"

namespace {

constexpr char reporting_file[] = "source/host/kernels";
constexpr uint64_t no_handle = ~uint64_t{0};

int32_t check_dimensions(const tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner) {
  return tavik::mm_size_check(context, tavik::widen_dimension(n_row), tavik::widen_dimension(n_col),
                              tavik::widen_dimension(n_inner));
}

int32_t find_handle(tavik_context* context, uint32_t fd, uint64_t* handle) {
  *handle = no_handle;
  return tavik_context_get_handle_from_fd(context, static_cast<int32_t>(fd), handle);
}

}  // namespace

uint32_t tavik_npu_test(tavik_context* context, int32_t size, uint32_t v_fd) {
  uint64_t handle;
  TAVIK_TRY(find_handle(context, v_fd, &handle));
  return TAVIK_REMOTE(__LINE__, tavik_veyra_test(handle, size, v_fd));
}

uint32_t tavik_npu_mm_f16_ah_f16_ah_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                           uint32_t X_offset, uint32_t W_offset) {
  TAVIK_TRY(check_dimensions(context, n_row, n_col, n_inner));
  uint64_t handle;
  TAVIK_TRY(find_handle(context, W_fd, &handle));
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  return TAVIK_REMOTE(
      __LINE__, tavik_veyra_mm_f16(handle, n_row_32, n_col, n_inner, A_fd, X_fd, W_fd, A_offset, X_offset, W_offset));
}

uint32_t tavik_npu_mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           float* A, const float* X, uint32_t W_fd, uint32_t W_offset) {
  TAVIK_TRY(check_dimensions(context, n_row, n_col, n_inner));
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  const uint64_t rows = tavik::widen_dimension(n_row), columns = tavik::widen_dimension(n_col);
  const uint64_t inner = tavik::widen_dimension(n_inner);
  TAVIK_TRY(tavik::cross_session_size_check(context, 2 * inner * n_row_32, 2 * columns * n_row_32));
  uint64_t handle;
  TAVIK_TRY(find_handle(context, W_fd, &handle));
  tavik_f32_rm_to_f16_ah(rows, inner, X, static_cast<uint16_t*>(context->X));
  TAVIK_TRY(TAVIK_REMOTE(__LINE__, tavik_veyra_1mm_f16(handle, n_row_32, n_col, n_inner, W_fd, W_offset)));
  tavik_f16_ah_to_f32_rm(rows, columns, static_cast<const uint16_t*>(context->A0), A);
  return TAVIK_SUCCESS;
}
