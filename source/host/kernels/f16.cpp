#include "source/host/kernels/products.h"
#include "source/host/kernels/size_check.h"

namespace {

constexpr char reporting_file[] = "source/host/kernels";

}  // namespace

uint32_t tavik_npu_test(tavik_context* context, int32_t size, uint32_t v_fd) {
  uint64_t handle;
  TAVIK_TRY(tavik::find_handle(context, v_fd, &handle));
  return TAVIK_REMOTE(__LINE__, tavik_veyra_test(handle, size, v_fd));
}

uint32_t tavik_npu_mm_f16_ah_f16_ah_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           uint32_t A_fd, uint32_t X_fd, uint32_t W_fd, uint32_t A_offset,
                                           uint32_t X_offset, uint32_t W_offset) {
  TAVIK_TRY(tavik::mm_size_check(context, tavik::widen_dimension(n_row), tavik::widen_dimension(n_col),
                                 tavik::widen_dimension(n_inner)));
  uint64_t handle;
  TAVIK_TRY(tavik::find_handle(context, W_fd, &handle));
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  return TAVIK_REMOTE(
      __LINE__, tavik_veyra_mm_f16(handle, n_row_32, n_col, n_inner, A_fd, X_fd, W_fd, A_offset, X_offset, W_offset));
}

uint32_t tavik_npu_mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                           float* A, const float* X, uint32_t W_fd, uint32_t W_offset) {
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  return tavik::run_product(
      context, tavik::f16_family, {n_row, n_inner, X},
      {W_fd, n_col, A, TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col, n_inner, W_fd, W_offset))},
      __func__);
}

// The error record quotes the source text of a remote call, so the blanks inside the parentheses of the third product
// are part of a published message.
// clang-format off

uint32_t tavik_npu_2mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner,
                                            float* A_U, float* A_F, const float* X, uint32_t UW_fd, uint32_t FW_fd,
                                            uint32_t UW_offset, uint32_t FW_offset) {
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  return tavik::run_products(
      context, tavik::f16_family, {n_row, n_inner, X},
      {{UW_fd, n_col, A_U, TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col, n_inner, UW_fd, UW_offset))},
       {FW_fd, n_col, A_F, TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col, n_inner, FW_fd, FW_offset))}},
      TAVIK_REMOTE_CALL(tavik_veyra_2mm_f16(handle, n_row_32, n_col, n_inner, UW_fd, FW_fd, UW_offset, FW_offset)),
      __func__);
}

uint32_t tavik_npu_3mm_f32_rm_f32_rm_f16_wh(tavik_context* context, int32_t n_row, int32_t n_col_q, int32_t n_col_kv,
                                            int32_t n_inner, float* A_Q, float* A_K, float* A_V, const float* X,
                                            uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QW_offset,
                                            uint32_t KW_offset, uint32_t VW_offset) {
  const uint32_t n_row_32 = tavik::round_up_to_32(n_row);
  return tavik::run_products(
      context, tavik::f16_family, {n_row, n_inner, X},
      {{QW_fd, n_col_q, A_Q,
        TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col_q, n_inner, QW_fd, QW_offset))},
       {KW_fd, n_col_kv, A_K,
        TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col_kv, n_inner, KW_fd, KW_offset))},
       {VW_fd, n_col_kv, A_V,
        TAVIK_REMOTE_CALL(tavik_veyra_1mm_f16(handle, n_row_32, n_col_kv, n_inner, VW_fd, VW_offset))}},
      TAVIK_REMOTE_CALL(tavik_veyra_3mm_f16( handle, n_row_32, n_col_q, n_col_kv, n_inner, QW_fd, KW_fd, VW_fd,
                                             QW_offset, KW_offset, VW_offset )),
      __func__);
}

// clang-format on
