// Checks of the layout calls' arguments. The log line of a failed check names the call that made the check.
#pragma once

#include "source/log_line.h"
#include "source/tiles.h"

namespace morun {

template <class... Pointer>
int32_t require_pointers(const CallPlace& place, const Pointer*... pointers) {
  if (((pointers != nullptr) && ...)) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_NULL_POINTER, "NULL ptr provided\n");
}

// Kept: the value is printed as a 32-bit integer.
inline int32_t require_multiple(const CallPlace& place, const char* name, int32_t divisor, uint64_t value) {
  if (value % static_cast<uint64_t>(divisor) == 0) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_BAD_ARGUMENT, "%s must be multiple of %d, got %d\n", name, divisor,
                       static_cast<int32_t>(value));
}

// Checks the arguments of the calls that convert in place between rows and square tiles.
inline int32_t require_square_tiles(const CallPlace& place, uint64_t n_row, uint64_t n_col, const void* data) {
  MORUN_TRY(require_pointers(place, data));
  MORUN_TRY(require_multiple(place, "n_row", tavik::tile_side, n_row));
  return require_multiple(place, "n_col", tavik::tile_side, n_col);
}

}  // namespace morun
