// The products a8w8 and a8w4, with 8-bit and with 4-bit weights. In this file the two formats differ only in names. The
// table of families in products.cpp holds their other differences, and run_products in that file runs each product: the
// host quantises the activation, the DSP multiplies, and the host dequantises the result. On the emulator
// platform/emulator/dsp/matrix_unit.cpp multiplies.
#include "source/host/kernels/products.h"
#include "source/host/kernels/size_check.h"

// The error record quotes the source text of a remote call, so the blanks inside the parentheses of the third product
// are part of a published message.
// clang-format off

#define TAVIK_QUANTISED_PRODUCTS(kind, mm, mm_2, mm_3)                                                                \
  uint32_t mm(                                                                                                        \
      tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner, float* A, const float* X, uint32_t W_fd, \
      uint32_t Wq_offset, uint64_t Wz_offset, uint64_t Ws_offset, uint64_t Wsum_offset) {                             \
    const uint32_t n_row_64 = tavik::round_up_to_64(n_row);                                                           \
    return tavik::run_product(                                                                                        \
        context, tavik::kind##_family, {n_row, n_inner, X},                                                           \
        {W_fd, n_col, A,                                                                                              \
         TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col, n_inner, W_fd, Wq_offset)),                \
         {Wz_offset, Ws_offset, Wsum_offset}},                                                                        \
        __func__);                                                                                                    \
  }                                                                                                                   \
                                                                                                                      \
  uint32_t mm_2(                                                                                                      \
      tavik_context* context, int32_t n_row, int32_t n_col, int32_t n_inner, float* A_U, float* A_F, const float* X,  \
      uint32_t UW_fd, uint32_t FW_fd, uint32_t UWq_offset, uint64_t UWz_offset, uint64_t UWs_offset,                  \
      uint64_t UWsum_offset, uint32_t FWq_offset, uint64_t FWz_offset, uint64_t FWs_offset, uint64_t FWsum_offset) {  \
    const uint32_t n_row_64 = tavik::round_up_to_64(n_row);                                                           \
    return tavik::run_products(                                                                                       \
        context, tavik::kind##_family, {n_row, n_inner, X},                                                           \
        {{UW_fd, n_col, A_U,                                                                                          \
          TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col, n_inner, UW_fd, UWq_offset)),             \
          {UWz_offset, UWs_offset, UWsum_offset}},                                                                    \
         {FW_fd, n_col, A_F,                                                                                          \
          TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col, n_inner, FW_fd, FWq_offset)),             \
          {FWz_offset, FWs_offset, FWsum_offset}}},                                                                   \
        TAVIK_REMOTE_CALL(                                                                                            \
            tavik_veyra_2mm_##kind(handle, n_row_64, n_col, n_inner, UW_fd, FW_fd, UWq_offset, FWq_offset)),          \
        __func__);                                                                                                    \
  }                                                                                                                   \
                                                                                                                      \
  uint32_t mm_3(                                                                                                      \
      tavik_context* context, int32_t n_row, int32_t n_col_q, int32_t n_col_kv, int32_t n_inner, float* A_Q,          \
      float* A_K, float* A_V, const float* X, uint32_t QW_fd, uint32_t KW_fd, uint32_t VW_fd, uint32_t QWq_offset,    \
      uint64_t QWz_offset, uint64_t QWs_offset, uint64_t QWsum_offset, uint32_t KWq_offset, uint64_t KWz_offset,      \
      uint64_t KWs_offset, uint64_t KWsum_offset, uint32_t VWq_offset, uint64_t VWz_offset, uint64_t VWs_offset,      \
      uint64_t VWsum_offset) {                                                                                        \
    const uint32_t n_row_64 = tavik::round_up_to_64(n_row);                                                           \
    return tavik::run_products(                                                                                       \
        context, tavik::kind##_family, {n_row, n_inner, X},                                                           \
        {{QW_fd, n_col_q, A_Q,                                                                                        \
          TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col_q, n_inner, QW_fd, QWq_offset)),           \
          {QWz_offset, QWs_offset, QWsum_offset}},                                                                    \
         {KW_fd, n_col_kv, A_K,                                                                                       \
          TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col_kv, n_inner, KW_fd, KWq_offset)),          \
          {KWz_offset, KWs_offset, KWsum_offset}},                                                                    \
         {VW_fd, n_col_kv, A_V,                                                                                       \
          TAVIK_REMOTE_CALL(tavik_veyra_1mm_##kind(handle, n_row_64, n_col_kv, n_inner, VW_fd, VWq_offset)),          \
          {VWz_offset, VWs_offset, VWsum_offset}}},                                                                   \
        TAVIK_REMOTE_CALL(tavik_veyra_3mm_##kind( handle, n_row_64, n_col_q, n_col_kv, n_inner, QW_fd, KW_fd, VW_fd,  \
                                                  QWq_offset, KWq_offset, VWq_offset )),                              \
        __func__);                                                                                                    \
  }

TAVIK_QUANTISED_PRODUCTS(a8w8, tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh, tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh,
                         tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh)
TAVIK_QUANTISED_PRODUCTS(a8w4, tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh, tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh,
                         tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh)
#undef TAVIK_QUANTISED_PRODUCTS

// clang-format on
