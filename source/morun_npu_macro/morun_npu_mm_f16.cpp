#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_mm_f16";

}  // namespace

int32_t morun_npu_mm_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A, const uint16_t* X,
                         const uint16_t* W) {
  MORUN_TRY(morun::check_f16_product(MORUN_HERE, domain, {n_row, n_col, n_inner}, A, X, W));
  morun::Descriptors fds;
  MORUN_TRY(morun::find_all_registered(MORUN_HERE, A, W, X, &fds));
  MORUN_TRY_LOWER(tavik_npu_mm_f16_ah_f16_ah_f16_wh(own::context, n_row, n_col, n_inner, fds.A, fds.X, fds.W, 0, 0, 0));
  return MORUN_SUCCESS;
}
