#include <cmath>

#include "include/morun_tensor.h"
#include "source/simd/scalar.h"

uint64_t morun_tensor_cpu_matmul_scenario_5(uint64_t n_row, uint64_t n_col, uint64_t n_inner, uint16_t* A,
                                            const uint16_t* X, const uint16_t* W) {
  const auto value = [](uint16_t half) { return morun::simd::widen_bits(half); };
  for (uint64_t i = 0; i < n_row; ++i) {
    for (uint64_t j = 0; j < n_col; ++j) {
      float lanes[4] = {};
      uint64_t k = 0;
      for (; k + 4 <= n_inner; k += 4)
        for (uint64_t r = 0; r < 4; ++r)
          lanes[r] = fmaf(value(X[i * n_inner + k + r]), value(W[j * n_inner + k + r]), lanes[r]);
      float sum = (lanes[0] + lanes[1]) + (lanes[2] + lanes[3]);
      for (; k < n_inner; ++k) sum = fmaf(value(X[i * n_inner + k]), value(W[j * n_inner + k]), sum);
      A[i * n_col + j] = std::isnan(sum) ? uint16_t{0x7e00} : morun::simd::narrow_bits(sum);
    }
  }
  return n_row;
}
