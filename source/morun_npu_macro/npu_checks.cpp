#include "source/morun_npu_macro/npu_checks.h"

#include <cstdlib>

namespace morun {
namespace {

int32_t check_positive(const CallPlace& place, const char* name, int32_t value) {
  if (value >= 1) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_BAD_ARGUMENT, "Invalid %s: %d. Must be positive.\n", name, value);
}

int32_t check_multiple(const CallPlace& place, const char* name, int32_t value, int32_t multiple,
                       const char* operation) {
  if (value % multiple == 0) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_BAD_ARGUMENT, "%s=%d must be multiple of %d for TESSEL %s operations\n", name,
                       value, multiple, operation);
}

int32_t check_operand(const CallPlace& place, const char* name, const void* operand) {
  if (operand != nullptr) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_NULL_POINTER, "%s is NULL ptr provided\n", name);
}

}  // namespace

int32_t check_domain(const CallPlace& place, int32_t domain) {
  if (domain == MORUN_DOMAIN_NPU0) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_UNSUPPORTED_DOMAIN,
                       "Unsupported domain %d. The only supported domains are: %d \n", domain, MORUN_DOMAIN_NPU0);
}

int32_t check_initialized(const CallPlace& place) {
  if (own::context != nullptr) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_NOT_INITIALIZED, "MORUN is not initialized\n");
}

int32_t check_dimensions(const CallPlace& place, const Shape& shape, const Multiples& multiples) {
  MORUN_TRY(check_positive(place, "n_row", shape.n_row));
  MORUN_TRY(check_positive(place, "n_col", shape.n_col));
  MORUN_TRY(check_positive(place, "n_inner", shape.n_inner));
  MORUN_TRY(check_multiple(place, "n_row", shape.n_row, multiples.n_row, multiples.operation));
  MORUN_TRY(check_multiple(place, "n_col", shape.n_col, multiples.n_col, multiples.operation));
  return check_multiple(place, "n_inner", shape.n_inner, multiples.n_inner, multiples.operation);
}

int32_t check_f16_product(const CallPlace& place, int32_t domain, const Shape& shape, const void* A, const void* X,
                          const void* W) {
  MORUN_TRY(check_initialized(place));
  MORUN_TRY(check_domain(place, domain));
  MORUN_TRY(check_dimensions(place, shape, f16_multiples));
  if (A != nullptr && X != nullptr && W != nullptr) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_NULL_POINTER, "NULL ptr provided\n");
}

int32_t check_operands(const CallPlace& place, const void* X, const void* A, const void* W) {
  MORUN_TRY(check_operand(place, "X", X));
  MORUN_TRY(check_operand(place, "A", A));
  return check_operand(place, "W", W);
}

int32_t find_registered(const CallPlace& place, const char* name, const void* operand, uint32_t* fd) {
  const int32_t found = morun_parlo_find_fd(operand);
  *fd = static_cast<uint32_t>(found);
  if (found != -1) return MORUN_SUCCESS;
  return MORUN_FAIL_AT(place, MORUN_ERROR_BAD_ARGUMENT, "%s = %p, not allocated with morun_npu_alloc()\n", name,
                       operand);
}

int32_t find_all_registered(const CallPlace& place, const void* A, const void* W, const void* X, Descriptors* fds) {
  MORUN_TRY(find_registered(place, "A", A, &fds->A));
  MORUN_TRY(find_registered(place, "W", W, &fds->W));
  return find_registered(place, "X", X, &fds->X);
}

bool activation_fits(const Shape& shape) {
  if (shape.n_row < 0 || shape.n_inner < 0) return false;
  return static_cast<uint64_t>(shape.n_row) * static_cast<uint64_t>(shape.n_inner) <= own::context->X_size;
}

void end_process(const CallPlace& place, const char* call) {
  tavik_error_print(tavik_error_get_last());
  fprintf(stderr, "[Tavik] error (%s, %s, line %d): %s\n", place.function, place.file, place.line, call);
  fflush(stderr);
  exit(1);
}

}  // namespace morun
