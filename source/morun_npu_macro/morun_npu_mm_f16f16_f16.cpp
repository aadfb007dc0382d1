#include <cstring>

#include "source/morun_npu_macro/npu_checks.h"

namespace {

constexpr char reporting_file[] = "source/morun_npu_macro/morun_npu_mm_f16f16_f16";
constexpr char this_call[] = "morun_npu_mm_f16f16_f16";

// The size of X in bytes. Kept: the number of elements is computed in signed 32 bits. A product that does not fit
// exceeds every buffer.
uint64_t activation_bytes(int32_t n_row, int32_t n_inner) {
  int32_t count;
  return __builtin_mul_overflow(n_row, n_inner, &count) ? INT64_MAX : 2 * static_cast<uint64_t>(count);
}

// X_parlo is a shared buffer that holds X in row-major order.
int32_t multiply(const morun::Shape& shape, uint16_t* A, uint16_t* X_parlo, const uint16_t* W) {
  const auto n_row = static_cast<uint64_t>(shape.n_row), n_col = static_cast<uint64_t>(shape.n_col),
             n_inner = static_cast<uint64_t>(shape.n_inner);
  MORUN_TRY_STEP(this_call, morun_cpu_rm_to_ah_f16_inplace(n_row, n_inner, X_parlo),
                 "Internal layouting of X_parlo failed\n\n");
  MORUN_TRY_STEP(this_call, morun_npu_mm_f16(MORUN_DOMAIN_NPU0, shape.n_row, shape.n_col, shape.n_inner, A, X_parlo, W),
                 "Internal morun_npu_mm_f16 call failed\n\n");
  MORUN_TRY_STEP(this_call, morun_cpu_ah_to_rm_f16_inplace(n_row, n_col, A), "Internal layouting of A failed\n\n");
  return MORUN_SUCCESS;
}

}  // namespace

int32_t morun_npu_mm_f16f16_f16(int32_t domain, int32_t n_row, int32_t n_col, int32_t n_inner, uint16_t* A,
                                const uint16_t* X, const uint16_t* W) {
  const morun::Shape shape = {n_row, n_col, n_inner};
  MORUN_TRY(morun::check_f16_product(MORUN_HERE, domain, shape, A, X, W));
  const uint64_t X_size = activation_bytes(n_row, n_inner);
  void* X_parlo = nullptr;
  MORUN_TRY_STEP(this_call, morun_npu_alloc(X_size, &X_parlo), "Internal allocation of X_parlo failed\n\n");
  memcpy(X_parlo, X, X_size);
  const int32_t status = multiply(shape, A, static_cast<uint16_t*>(X_parlo), W);
  return status | morun_npu_free(X_parlo);
}
