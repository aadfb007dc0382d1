// The public conversions, which the backend in use computes.
#include "include/tavik.h"
#include "source/loops.h"
#include "source/own.h"

MORUN_WEAK(int4_to_int8)

using tavik::loops;

void tavik_f32_to_f16(uint64_t count, const float* src, uint16_t* dst) {
  loops().f32_to_f16(count, src, dst);
}

void tavik_f16_to_f32(uint64_t count, const uint16_t* src, float* dst) {
  loops().f16_to_f32(count, src, dst);
}

void tavik_f32_rm_to_f16_ah(uint64_t n_row, uint64_t n_col, const float* src, uint16_t* dst) {
  loops().f32_rm_to_f16_ah(n_row, n_col, src, dst);
}

void tavik_f16_ah_to_f32_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, float* dst) {
  loops().f16_ah_to_f32_rm(n_row, n_col, src, dst);
}

void tavik_f32_rm_to_u8_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums) {
  loops().f32_rm_to_u8_rm(n_row, n_col, src, dst, scales, sums);
}

void tavik_f32_rm_to_u8_ah(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* dst, float* scales,
                           uint32_t* sums) {
  loops().f32_rm_to_u8_ah(n_row, n_col, src, dst, scales, sums);
}

void tavik_f32_rm_to_u16_rm(uint64_t n_row, uint64_t n_col, const float* src, uint8_t* high, uint8_t* low,
                            float* scales, uint32_t* sums) {
  loops().f32_rm_to_u16_rm(n_row, n_col, src, high, low, scales, sums);
}

void tavik_f16_rm_to_i8_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, int8_t* dst, int8_t* zero_points,
                           uint16_t* scales, int32_t* sums) {
  loops().f16_rm_to_i8_rm(n_row, n_col, src, dst, zero_points, scales, sums);
}

void tavik_f16_rm_to_i4_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, uint32_t* dst, uint32_t* zero_points,
                           uint16_t* scales, int32_t* sums) {
  loops().f16_rm_to_i4_rm(n_row, n_col, src, dst, zero_points, scales, sums);
}

void tavik_a8w8_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const int8_t* zero_points, const uint16_t* weight_scales, const int32_t* weight_sums) {
  loops().a8w8_output_to_f32_rm(n_row, n_col, n_inner, dst, acc, activation_scales, activation_sums, zero_points,
                                weight_scales, weight_sums);
}

void tavik_a8w4_output_to_f32_rm(int32_t n_row, int32_t n_col, int32_t n_inner, float* dst, const int32_t* acc,
                                 const float* activation_scales, const int32_t* activation_sums,
                                 const uint32_t* zero_points, const uint16_t* weight_scales,
                                 const int32_t* weight_sums) {
  loops().a8w4_output_to_f32_rm(n_row, n_col, n_inner, dst, acc, activation_scales, activation_sums, zero_points,
                                weight_scales, weight_sums);
}

int8_t int4_to_int8(uint8_t byte) {
  return static_cast<int8_t>(((byte & 15) ^ 8) - 8);
}
