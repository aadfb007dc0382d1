// The products of one to three weight matrices with a row-major activation, of every kind, behind one call.
#pragma once

#include <span>

#include "include/tavik.h"

namespace products {

enum Kind { f16, a8w8, a8w4 };
constexpr Kind kinds[] = {f16, a8w8, a8w4};
constexpr const char* kind_names[] = {"f16", "a8w8", "a8w4"};

// Where a weight matrix stands: its buffer, and the byte offsets of values, zero points, scales and sums.
struct WeightPlace {
  uint32_t fd, q;
  uint64_t z = 0, s = 0, sum = 0;
};

struct Operands {
  int32_t n_row, n_col, n_col_kv, n_inner;  // the second and third of three have n_col_kv columns
  float* A[3];
  const float* X;
};

template <auto one, auto two, auto three>
uint32_t quantised_product(tavik_context* context, const Operands& p, std::span<const WeightPlace> w) {
  const WeightPlace &u = w[0], &f = w[w.size() > 1], &v = w.back();
  if (w.size() == 1) return one(context, p.n_row, p.n_col, p.n_inner, p.A[0], p.X, u.fd, u.q, u.z, u.s, u.sum);
  if (w.size() == 2)
    return two(context, p.n_row, p.n_col, p.n_inner, p.A[0], p.A[1], p.X, u.fd, f.fd, u.q, u.z, u.s, u.sum, f.q, f.z,
               f.s, f.sum);
  return three(context, p.n_row, p.n_col, p.n_col_kv, p.n_inner, p.A[0], p.A[1], p.A[2], p.X, u.fd, f.fd, v.fd, u.q,
               u.z, u.s, u.sum, f.q, f.z, f.s, f.sum, v.q, v.z, v.s, v.sum);
}

inline uint32_t half_product(tavik_context* context, const Operands& p, std::span<const WeightPlace> w) {
  const WeightPlace &u = w[0], &f = w[w.size() > 1], &v = w.back();
  if (w.size() == 1)
    return tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, p.n_row, p.n_col, p.n_inner, p.A[0], p.X, u.fd, u.q);
  if (w.size() == 2)
    return tavik_npu_2mm_f32_rm_f32_rm_f16_wh(context, p.n_row, p.n_col, p.n_inner, p.A[0], p.A[1], p.X, u.fd, f.fd,
                                              u.q, f.q);
  return tavik_npu_3mm_f32_rm_f32_rm_f16_wh(context, p.n_row, p.n_col, p.n_col_kv, p.n_inner, p.A[0], p.A[1], p.A[2],
                                            p.X, u.fd, f.fd, v.fd, u.q, f.q, v.q);
}

inline uint32_t multiply(tavik_context* context, Kind kind, const Operands& product, std::span<const WeightPlace> w) {
  if (kind == f16) return half_product(context, product, w);
  const auto quantised =
      kind == a8w8
          ? quantised_product<tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh, tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh,
                              tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh>
          : quantised_product<tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh, tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh,
                              tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh>;
  return quantised(context, product, w);
}

}  // namespace products
