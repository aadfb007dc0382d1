#include <cstdlib>
#include <cstring>

#include "source/host/staging.h"
#include "source/morun_npu_macro/npu_checks.h"
#include "source/tiles.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_mm_u8i8_i32";

}  // namespace

int32_t morun_npu_mm_u8i8_i32(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, int32_t* A,
                              const uint8_t* X, const int8_t* W) {
  using own::context;
  const morun::Shape shape = {n_row, n_col, n_inner};
  MORUN_TRY(morun::check_operands(MORUN_HERE, X, A, W));
  MORUN_TRY(morun::check_domain(MORUN_HERE, domain));
  MORUN_TRY(morun::check_dimensions(MORUN_HERE, shape, morun::int8_multiples));

  const auto height = static_cast<uint64_t>(n_row), width = static_cast<uint64_t>(n_col),
             depth = static_cast<uint64_t>(n_inner);
  const uint64_t W_size = tavik_apply_padding(width * depth);
  void* W_i8_npu = nullptr;
  if (morun_npu_alloc(W_size, &W_i8_npu) != MORUN_SUCCESS) {
    // Kept: the call allocates once more to get the status that it prints.
    const int32_t status = morun_npu_alloc(W_size, &W_i8_npu);
    exit(MORUN_FAIL(1, " nErr = %d\n", status));
  }
  memcpy(W_i8_npu, W, width * depth);
  uint32_t W_fd;
  if (const int32_t status = morun::find_registered(MORUN_HERE, "W_i8_npu", W_i8_npu, &W_fd); status != MORUN_SUCCESS)
    return status | morun_npu_free(W_i8_npu);

  if (morun::activation_fits(shape)) {
    morun_cpu_rm_to_wh_i8(depth, height, X, static_cast<uint8_t*>(context->X));
    tavik::note_staged(context, height * depth);
  }
  const auto n_row_64 = static_cast<int32_t>(tavik::round_up_to_64(n_row));
  const uint32_t A_fd = ~0u, X_fd = ~0u;
  MORUN_DEMAND(tavik_veyra_1mm_ui8i8_i32_tessel(context, n_row_64, n_col, n_inner, A_fd, X_fd, W_fd, 0, 0, 0));
  const uint32_t status = morun_cpu_ui8i8_ah_to_i32_rm(height, width, static_cast<const int32_t*>(context->A0), A);
  return static_cast<int32_t>(status) | morun_npu_free(W_i8_npu);
}
