#include "include/morun_tensor.h"
#include "source/loops.h"

uint64_t morun_tensor_cpu_matmul_scenario_5(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t* A,
                                            const uint16_t* X, const uint16_t* W) {
  tavik::loops().tensor_product(n_row, n_col, n_inner, A, X, W);
  return n_row;
}
