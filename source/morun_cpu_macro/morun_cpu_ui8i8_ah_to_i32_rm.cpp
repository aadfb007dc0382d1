#include "include/morun.h"
#include "source/loops.h"
#include "source/morun_cpu_macro/layout_checks.h"

namespace {

// Kept: the log line names a file that does not exist, with its ending.
constexpr char reporting_file[] = "source/host/util.c";

}  // namespace

uint32_t morun_cpu_ui8i8_ah_to_i32_rm(uint64_t n_row, uint64_t n_col, const int32_t* src, int32_t* dst) {
  MORUN_TRY(morun::require_pointers(MORUN_HERE, src, dst));
  tavik::loops().i32_tiles_to_rows(n_row, n_col, src, dst);
  return MORUN_SUCCESS;
}
