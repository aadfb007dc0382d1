#include "source/host/staging.h"
#include "source/morun_npu_macro/npu_checks.h"
#include "source/tiles.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_mm_u8i4_i32";

}  // namespace

int32_t morun_npu_mm_u8i4_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const uint8_t* W) {
  using own::context;
  MORUN_TRY(morun::check_operands(MORUN_HERE, X, A, W));
  MORUN_TRY(morun::check_domain(MORUN_HERE, domain));
  uint32_t W_fd;
  MORUN_TRY(morun::find_registered(MORUN_HERE, "W", W, &W_fd));

  const auto height = static_cast<uint64_t>(n_row), width = static_cast<uint64_t>(n_col),
             depth = static_cast<uint64_t>(n_inner);
  // morun_cpu_rm_to_wh_i8 reports dimensions that are no whole tiles and then writes nothing. It is therefore called
  // for these dimensions too, whether or not the activation fits.
  const bool is_in_whole_tiles = tavik::round_up_to_64(n_row) == static_cast<uint32_t>(n_row) &&
                                 tavik::round_up_to_32(n_inner) == static_cast<uint32_t>(n_inner);
  if (!is_in_whole_tiles || morun::activation_fits({n_row, n_col, n_inner})) {
    const uint32_t status = morun_cpu_rm_to_wh_i8(depth, height, X, static_cast<uint8_t*>(context->X));
    if (status != MORUN_SUCCESS) return static_cast<int32_t>(status);
    tavik::note_staged(context, height * depth);
  }
  // Kept: after the addition only the bit of value 32 is cleared, not the five lower bits.
  constexpr uint32_t tile_rows = tavik::tile_side;
  const auto n_row_32 = static_cast<int32_t>((static_cast<uint32_t>(n_row) + tile_rows - 1) & ~tile_rows);
  // A negative number of columns is passed on unchanged and refused. Rounded up, -31 to -1 would become 0.
  const auto n_col_32 = n_col < 0 ? n_col : static_cast<int32_t>(tavik::round_up_to_32(n_col));
  const auto n_inner_32 = static_cast<int32_t>(tavik::round_up_to_32(n_inner));
  const uint32_t A_fd = ~0u, X_fd = ~0u;
  MORUN_DEMAND(tavik_veyra_1mm_ui8i4_i32_tessel(context, n_row_32, n_col_32, n_inner_32, A_fd, X_fd, W_fd, 0, 0, 0));
  return static_cast<int32_t>(morun_cpu_ui8i4_ah_to_i32_rm(height, width, static_cast<const int32_t*>(context->A0), A));
}
