// One function runs all products with a row-major f32 activation: one, two or three weight matrices that share the
// activation.
#pragma once

#include <cstdint>
#include <initializer_list>

#include "include/tavik.h"
#include "source/host/kernels/remote_call.h"

namespace tavik {

struct Family;
extern const Family f16_family;
extern const Family a8w8_family;
extern const Family a8w4_family;

struct Activation {
  int32_t n_row;
  int32_t n_inner;
  const float* X;  // n_row x n_inner
};

// Byte offsets into the buffer of quantised weights: zero points, scales and sums, n_col of each.
struct SideData {
  uint64_t zero_points = 0;
  uint64_t scales = 0;
  uint64_t sums = 0;
};

// One weight matrix of a call, the place of its result, and the remote call that computes its product alone.
struct Weights {
  uint32_t fd;
  int32_t n_col;
  float* result;  // n_row x n_col
  RemoteCall alone;
  SideData side = {};
};

// Checks the sizes, stages the activation once, computes all products and brings the results back. When one session
// holds all weights, the remote call `together` computes all products. Otherwise each product has a remote call of its
// own. The error record names `function` as the caller of a remote call that fails.
int32_t run_products(tavik_context* context, const Family& family, const Activation& activation,
                     std::initializer_list<Weights> weights, const RemoteCall& together, const char* function);

inline int32_t run_product(tavik_context* context, const Family& family, const Activation& activation,
                           const Weights& weights, const char* function) {
  return run_products(context, family, activation, {weights}, weights.alone, function);
}

}  // namespace tavik
