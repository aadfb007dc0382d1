#include "include/morun.h"
#include "source/loops.h"
#include "source/morun_cpu_macro/layout_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_cpu_rm_to_wh_i4";

}  // namespace

uint32_t morun_cpu_rm_to_wh_i4(uint8_t* dst, const uint8_t* src, uint64_t n_col, uint64_t n_row) {
  MORUN_TRY(morun::require_pointers(MORUN_HERE, src, dst));
  tavik::loops().nibble_rows_to_tiles(n_row, n_col, src, dst);
  return MORUN_SUCCESS;
}
