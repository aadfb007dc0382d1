#include "source/host/kernels/size_check.h"

#include "source/host/error.h"

namespace tavik {
namespace {

constexpr char reporting_file[] = "source/host/kernels";

// A product that does not fit into 64 bits exceeds every limit.
bool exceeds(uint64_t a, uint64_t b, uint64_t limit) {
  uint64_t product;
  return __builtin_mul_overflow(a, b, &product) || product > limit;
}

}  // namespace

// Kept: the last refusal has the same message for each of its reasons. The last refusal also covers a negative
// dimension that passes the two checks before it, because the widened dimension exceeds every limit.
int32_t mm_size_check(const tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner) {
  if (n_col % tile_side != 0)
    return TAVIK_FAIL(TAVIK_ERROR_BAD_DIMENSION, __LINE__, "Column dimension not multiple of %zu", size_t{tile_side});
  if (n_inner % tile_side != 0)
    return TAVIK_FAIL(TAVIK_ERROR_BAD_DIMENSION, __LINE__, "Inner dimension not multiple of %zu", size_t{tile_side});
  if (exceeds(n_row, n_col, context->output_matrix_size_max) ||
      exceeds(n_row, n_inner, context->input_matrix_size_max) || n_row > context->n_row_max)
    return TAVIK_FAIL(TAVIK_ERROR_BAD_DIMENSION, __LINE__, "Dimension(s) too large (see tavik_options to adapt)");
  return TAVIK_SUCCESS;
}

int32_t cross_session_size_check(const tavik_context* context, uint64_t activation_bytes, uint64_t result_bytes) {
  const bool has_room_for_activation = activation_bytes <= context->X_size;
  if (has_room_for_activation && result_bytes <= context->A_size) return TAVIK_SUCCESS;
  tavik_set_error(TAVIK_ERROR_BAD_DIMENSION, "mm_size_check", reporting_file, __LINE__,
                  "%s of %zu bytes in whole tiles exceeds its buffer of %zu (see tavik_options to adapt)",
                  has_room_for_activation ? "Result" : "Activation",
                  has_room_for_activation ? result_bytes : activation_bytes,
                  has_room_for_activation ? context->A_size : context->X_size);
  return TAVIK_ERROR_BAD_DIMENSION;
}

}  // namespace tavik
