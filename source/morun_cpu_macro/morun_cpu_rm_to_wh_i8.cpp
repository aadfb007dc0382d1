#include "include/morun.h"
#include "source/loops.h"
#include "source/morun_cpu_macro/layout_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_cpu_rm_to_wh_i8";

}  // namespace

uint32_t morun_cpu_rm_to_wh_i8(uint64_t n_inner, uint64_t n_row, const uint8_t* src, uint8_t* dst) {
  MORUN_TRY(morun::require_pointers(MORUN_HERE, src, dst));
  MORUN_TRY(morun::require_multiple(MORUN_HERE, "n_row", tavik::tall_tile_rows, n_row));
  MORUN_TRY(morun::require_multiple(MORUN_HERE, "n_inner", tavik::tile_side, n_inner));
  tavik::loops().byte_rows_to_tiles(n_row, n_inner, src, dst);
  return MORUN_SUCCESS;
}
