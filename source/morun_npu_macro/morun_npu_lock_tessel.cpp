#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_lock_tessel";

}  // namespace

int32_t morun_npu_lock_tessel(int32_t domain) {
  MORUN_TRY(morun::check_domain(MORUN_HERE, domain));
  MORUN_TRY_LOWER(tavik_lock_compute_device(own::context));
  return MORUN_SUCCESS;
}

int32_t morun_npu_unlock_tessel(int32_t domain) {
  MORUN_TRY(morun::check_domain(MORUN_HERE, domain));
  MORUN_TRY_LOWER(tavik_unlock_compute_device(own::context));
  return MORUN_SUCCESS;
}
