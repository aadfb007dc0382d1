#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_mm_f32f16_f32";

}  // namespace

int32_t morun_npu_mm_f32f16_f32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, float* A, const float* X,
                                const uint16_t* W) {
  MORUN_TRY(morun::check_f16_product(MORUN_HERE, domain, {n_row, n_col, n_inner}, A, X, W));
  uint32_t W_fd;
  MORUN_TRY(morun::find_registered(MORUN_HERE, "W", W, &W_fd));
  MORUN_TRY_LOWER(tavik_npu_mm_f32_rm_f32_rm_f16_wh(own::context, n_row, n_col, n_inner, A, X, W_fd, 0));
  return MORUN_SUCCESS;
}
