#include "include/morun.h"
#include "source/loops.h"
#include "source/morun_cpu_macro/layout_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_cpu_ui8i4_ah_to_i32_rm";

}  // namespace

uint32_t morun_cpu_ui8i4_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst) {
  MORUN_TRY(morun::require_pointers(MORUN_HERE, src, dst));
  tavik::loops().i32_tiles_to_rows(n_row, n_col, src, dst);
  return MORUN_SUCCESS;
}
