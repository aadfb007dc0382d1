// The one body of all products with a row-major f32 activation: one, two or three weight matrices that share it.
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

// One weight matrix of a call: where it is, where its product goes, and the call that computes it alone.
struct Weights {
  uint32_t fd;
  int32_t n_col;
  float* result;  // n_row x n_col
  RemoteCall alone;
  SideData side = {};
};

// Checks, stages the activation once, computes and brings back. Where all weights are in one session `together`
// computes all products in one call; otherwise they are computed one after the other. Failures of remote calls are
// recorded as ones of `function`.
int32_t run_products(tavik_context* context, const Family& family, const Activation& activation,
                     std::initializer_list<Weights> weights, const RemoteCall& together, const char* function);

inline int32_t run_product(tavik_context* context, const Family& family, const Activation& activation,
                           const Weights& weights, const char* function) {
  return run_products(context, family, activation, {weights}, weights.alone, function);
}

}  // namespace tavik
