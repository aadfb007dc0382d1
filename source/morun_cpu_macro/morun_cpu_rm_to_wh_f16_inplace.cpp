#include "include/morun.h"
#include "source/loops.h"
#include "source/morun_cpu_macro/layout_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_cpu_macro/morun_cpu_rm_to_wh_f16_inplace";

}  // namespace

uint32_t morun_cpu_rm_to_wh_f16_inplace(uint64_t n_row, uint64_t n_col, uint16_t* data) {
  MORUN_TRY(morun::require_square_tiles(MORUN_HERE, n_row, n_col, data));
  tavik::loops().rows_to_word_columns(n_row / tavik::band_rows, n_col / 2, tavik::WordMap::keep,
                                      reinterpret_cast<std::byte*>(data));
  return MORUN_SUCCESS;
}
