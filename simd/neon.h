// The vector vocabulary on 64-bit Arm with half-precision arithmetic (armv8.2-a+fp16).
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/scalar.h"

namespace morun::simd::inline MORUN_BACKEND {

struct f32x8 {
  float32x4_t low, high;
};
struct f16x8 {
  uint16x8_t v;
};

inline f32x8 load(const float* p) {
  return {vld1q_f32(p), vld1q_f32(p + 4)};
}
inline f16x8 load(const uint16_t* p) {
  return {vld1q_u16(p)};
}
inline void store(float* p, f32x8 a) {
  vst1q_f32(p, a.low);
  vst1q_f32(p + 4, a.high);
}
inline void store(uint16_t* p, f16x8 a) {
  vst1q_u16(p, a.v);
}
inline void store_streaming(float* p, f32x8 a) {
  store(p, a);
}
inline void store_streaming(uint16_t* p, f16x8 a) {
  store(p, a);
}
inline constexpr bool has_streaming_stores = false;
inline void fence_streaming() {}
inline void prefetch(const void* p) {
  __builtin_prefetch(p);
}
inline void prefetch_outer(const void* p) {
  __builtin_prefetch(p, 0, 2);
}
inline void store_fours(float* lower, float* upper, f32x8 a) {
  vst1q_f32(lower, a.low);
  vst1q_f32(upper, a.high);
}

inline f32x8 broadcast(float x) {
  return {vdupq_n_f32(x), vdupq_n_f32(x)};
}
inline f32x8 broadcast_four(const float* p) {
  const float32x4_t four = vld1q_f32(p);
  return {four, four};
}
inline f32x8 add(f32x8 a, f32x8 b) {
  return {vaddq_f32(a.low, b.low), vaddq_f32(a.high, b.high)};
}
inline f32x8 multiply(f32x8 a, f32x8 b) {
  return {vmulq_f32(a.low, b.low), vmulq_f32(a.high, b.high)};
}
inline f32x8 multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  return {vfmaq_f32(c.low, a.low, b.low), vfmaq_f32(c.high, a.high, b.high)};
}
inline f32x8 sums_of_fours(f32x8 a, f32x8 b, f32x8 c, f32x8 d) {
  return {vpaddq_f32(vpaddq_f32(a.low, b.low), vpaddq_f32(c.low, d.low)),
          vpaddq_f32(vpaddq_f32(a.high, b.high), vpaddq_f32(c.high, d.high))};
}

inline f16x8 narrow(f32x8 a) {
  return {vreinterpretq_u16_f16(vcvt_high_f16_f32(vcvt_f16_f32(a.low), a.high))};
}
inline f32x8 widen(f16x8 a) {
  const float16x8_t halves = vreinterpretq_f16_u16(a.v);
  return {vcvt_f32_f16(vget_low_f16(halves)), vcvt_high_f32_f16(halves)};
}

inline f16x8 add(f16x8 a, f16x8 b) {
  return {vreinterpretq_u16_f16(vaddq_f16(vreinterpretq_f16_u16(a.v), vreinterpretq_f16_u16(b.v)))};
}
inline f16x8 multiply(f16x8 a, f16x8 b) {
  return {vreinterpretq_u16_f16(vmulq_f16(vreinterpretq_f16_u16(a.v), vreinterpretq_f16_u16(b.v)))};
}
inline f16x8 multiply_add(f16x8 a, f16x8 b, f16x8 c) {
  return {vreinterpretq_u16_f16(
      vfmaq_f16(vreinterpretq_f16_u16(c.v), vreinterpretq_f16_u16(a.v), vreinterpretq_f16_u16(b.v)))};
}

struct half8 {
  float16x8_t v;
};

inline half8 load_half8(const uint16_t* p) {
  return {vreinterpretq_f16_u16(vld1q_u16(p))};
}

struct half8_sum {
  float16x8_t v;
};

inline half8_sum load_half8_sum(const uint16_t* p) {
  return {load_half8(p).v};
}
inline void store(uint16_t* p, half8_sum a) {
  vst1q_u16(p, vreinterpretq_u16_f16(a.v));
}
inline void store(float* p, half8_sum a) {
  store(p, widen(f16x8{vreinterpretq_u16_f16(a.v)}));
}
inline void accumulate(half8_sum& sum, half8 a, half8 b) {
  sum.v = vfmaq_f16(sum.v, a.v, b.v);
}
template <class Body>
inline void in_half_arithmetic(const Body& body) {
  body();
}

inline f16x8 lower_fours(f16x8 a, f16x8 b) {
  return {vreinterpretq_u16_u64(vzip1q_u64(vreinterpretq_u64_u16(a.v), vreinterpretq_u64_u16(b.v)))};
}
inline f16x8 upper_fours(f16x8 a, f16x8 b) {
  return {vreinterpretq_u16_u64(vzip2q_u64(vreinterpretq_u64_u16(a.v), vreinterpretq_u64_u16(b.v)))};
}
inline f32x8 lower_fours(f32x8 a, f32x8 b) {
  return {a.low, b.low};
}
inline f32x8 upper_fours(f32x8 a, f32x8 b) {
  return {a.high, b.high};
}
inline f16x8 zip_low(f16x8 a, f16x8 b) {
  return {vzip1q_u16(a.v, b.v)};
}
inline f16x8 zip_high(f16x8 a, f16x8 b) {
  return {vzip2q_u16(a.v, b.v)};
}
inline f16x8 unzip_even(f16x8 a, f16x8 b) {
  return {vuzp1q_u16(a.v, b.v)};
}
inline f16x8 unzip_odd(f16x8 a, f16x8 b) {
  return {vuzp2q_u16(a.v, b.v)};
}

inline uint32x4_t zip_nibbles(uint32x4_t words) {
  static constexpr uint8_t swap_middle_bytes[16] = {0, 2, 1, 3, 4, 6, 5, 7, 8, 10, 9, 11, 12, 14, 13, 15};
  const uint16x8_t swapped = vreinterpretq_u16_u8(vqtbl1q_u8(vreinterpretq_u8_u32(words), vld1q_u8(swap_middle_bytes)));
  const uint16x8_t differing = vandq_u16(veorq_u16(swapped, vshrq_n_u16(swapped, 4)), vdupq_n_u16(0x00f0));
  return vreinterpretq_u32_u16(veorq_u16(swapped, veorq_u16(differing, vshlq_n_u16(differing, 4))));
}

// Transposes four blocks of 4 x 4 words.
template <class Row, class Map>
inline void transpose_words_with(const Row& row, std::byte* destination, size_t destination_pitch, Map map) {
  const auto load_row = [&](size_t i, size_t column) {
    return map(vld1q_u32(reinterpret_cast<const uint32_t*>(row(i) + 4 * column)));
  };
  for (size_t first = 0; first < 8; first += 4) {
    for (size_t column = 0; column < 8; column += 4) {
      const uint32x4_t r0 = load_row(first, column), r1 = load_row(first + 1, column);
      const uint32x4_t r2 = load_row(first + 2, column), r3 = load_row(first + 3, column);
      const uint64x2_t even01 = vreinterpretq_u64_u32(vtrn1q_u32(r0, r1));
      const uint64x2_t odd01 = vreinterpretq_u64_u32(vtrn2q_u32(r0, r1));
      const uint64x2_t even23 = vreinterpretq_u64_u32(vtrn1q_u32(r2, r3));
      const uint64x2_t odd23 = vreinterpretq_u64_u32(vtrn2q_u32(r2, r3));
      const auto store_column = [&](size_t index, uint64x2_t words) {
        std::byte* p = destination + (column + index) * destination_pitch + 4 * first;
        vst1q_u32(reinterpret_cast<uint32_t*>(p), vreinterpretq_u32_u64(words));
      };
      store_column(0, vtrn1q_u64(even01, even23));
      store_column(1, vtrn1q_u64(odd01, odd23));
      store_column(2, vtrn2q_u64(even01, even23));
      store_column(3, vtrn2q_u64(odd01, odd23));
    }
  }
}
template <class Row>
inline void transpose_words(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](uint32x4_t words) { return words; });
}
template <class Row>
inline void transpose_zip_nibbles(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](uint32x4_t words) { return zip_nibbles(words); });
}

// Operations for quantisation.

struct i32x8 {
  int32x4_t low, high;
};
struct u8x32 {
  uint8x16_t low, high;
};

inline i32x8 load(const int32_t* p) {
  return {vld1q_s32(p), vld1q_s32(p + 4)};
}
inline i32x8 load_i8(const int8_t* p) {
  const int16x8_t wide = vmovl_s8(vld1_s8(p));
  return {vmovl_s16(vget_low_s16(wide)), vmovl_high_s16(wide)};
}
inline i32x8 load_i4(const uint32_t* p) {
  static constexpr int32_t places[8] = {28, 24, 20, 16, 12, 8, 4, 0};
  const int32x4_t word = vreinterpretq_s32_u32(vld1q_dup_u32(p));
  return {vshrq_n_s32(vshlq_s32(word, vld1q_s32(places)), 28), vshrq_n_s32(vshlq_s32(word, vld1q_s32(places + 4)), 28)};
}
inline void store(int32_t* p, i32x8 a) {
  vst1q_s32(p, a.low);
  vst1q_s32(p + 4, a.high);
}
inline void store_streaming(int32_t* p, i32x8 a) {
  store(p, a);
}
inline u8x32 load(const uint8_t* p) {
  return {vld1q_u8(p), vld1q_u8(p + 16)};
}
inline void store(uint8_t* p, u8x32 a) {
  vst1q_u8(p, a.low);
  vst1q_u8(p + 16, a.high);
}
inline void store_streaming(uint8_t* p, u8x32 a) {
  store(p, a);
}

inline f32x8 fused_multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  return {vfmaq_f32(c.low, a.low, b.low), vfmaq_f32(c.high, a.high, b.high)};
}
// The processor's own maximum follows other rules: one form returns NaN when either operand is NaN, and the other form
// does so for a signalling NaN.
inline f32x8 greater(f32x8 a, f32x8 b) {
  return {vbslq_f32(vcgtq_f32(a.low, b.low), a.low, b.low), vbslq_f32(vcgtq_f32(a.high, b.high), a.high, b.high)};
}
inline f32x8 lesser(f32x8 a, f32x8 b) {
  return {vbslq_f32(vcltq_f32(a.low, b.low), a.low, b.low), vbslq_f32(vcltq_f32(a.high, b.high), a.high, b.high)};
}
inline f32x8 number_or_zero(f32x8 a) {
  const float32x4_t zero = vdupq_n_f32(0);
  return {vbslq_f32(vceqq_f32(a.low, a.low), a.low, zero), vbslq_f32(vceqq_f32(a.high, a.high), a.high, zero)};
}
inline f32x8 settle_nan(f32x8 a) {
  const float32x4_t nan = vreinterpretq_f32_u32(vdupq_n_u32(0x7fc00000));
  return {vbslq_f32(vceqq_f32(a.low, a.low), a.low, nan), vbslq_f32(vceqq_f32(a.high, a.high), a.high, nan)};
}
inline i32x8 to_nearest(f32x8 a) {
  return {vcvtaq_s32_f32(a.low), vcvtaq_s32_f32(a.high)};
}
inline f32x8 to_float(i32x8 a) {
  return {vcvtq_f32_s32(a.low), vcvtq_f32_s32(a.high)};
}

inline int32x4_t greater_magnitude(const float* p, int32x4_t a) {
  return vreinterpretq_s32_f32(vmaxq_f32(vabsq_f32(vld1q_f32(p)), vreinterpretq_f32_s32(a)));
}
inline i32x8 greater_magnitude(const float* p, i32x8 a) {
  return {greater_magnitude(p, a.low), greater_magnitude(p + 4, a.high)};
}
inline i32x8 greater(i32x8 a, i32x8 b) {
  return {vmaxq_s32(a.low, b.low), vmaxq_s32(a.high, b.high)};
}
inline i32x8 add(i32x8 a, i32x8 b) {
  return {vaddq_s32(a.low, b.low), vaddq_s32(a.high, b.high)};
}
inline int32_t greatest(i32x8 a) {
  return vmaxvq_s32(vmaxq_s32(a.low, a.high));
}
inline uint32_t sum(i32x8 a) {
  return static_cast<uint32_t>(vaddvq_s32(vaddq_s32(a.low, a.high)));
}

inline int16x8_t low_halves(i32x8 a) {
  return vuzp1q_s16(vreinterpretq_s16_s32(a.low), vreinterpretq_s16_s32(a.high));
}
inline u8x32 pack_low_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return {vuzp1q_u8(vreinterpretq_u8_s16(low_halves(a)), vreinterpretq_u8_s16(low_halves(b))),
          vuzp1q_u8(vreinterpretq_u8_s16(low_halves(c)), vreinterpretq_u8_s16(low_halves(d)))};
}
inline u8x32 pack_high_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return {vuzp2q_u8(vreinterpretq_u8_s16(low_halves(a)), vreinterpretq_u8_s16(low_halves(b))),
          vuzp2q_u8(vreinterpretq_u8_s16(low_halves(c)), vreinterpretq_u8_s16(low_halves(d)))};
}
inline u8x32 pack_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return pack_low_bytes(a, b, c, d);
}
inline u8x32 scale_to_bytes(const float* p, f32x8 factor) {
  const auto scaled = [&](size_t i) { return to_nearest(multiply(load(p + 8 * i), factor)); };
  return pack_bytes(scaled(0), scaled(1), scaled(2), scaled(3));
}
inline u8x32 flip_top_bits(u8x32 a) {
  return {veorq_u8(a.low, vdupq_n_u8(128)), veorq_u8(a.high, vdupq_n_u8(128))};
}
inline i32x8 add_bytes(i32x8 sums, u8x32 a) {
  const uint16x8_t fours = vpadalq_u8(vpaddlq_u8(a.low), a.high);
  return {vreinterpretq_s32_u32(vpadalq_u16(vreinterpretq_u32_s32(sums.low), fours)), sums.high};
}
inline void store_nibbles(uint32_t* p, u8x32 a) {
  const uint8x16_t even = vuzp1q_u8(a.low, a.high), odd = vuzp2q_u8(a.low, a.high);
  vst1q_u32(p, vreinterpretq_u32_u8(vsliq_n_u8(vandq_u8(even, vdupq_n_u8(15)), odd, 4)));
}
inline void store_zipped_nibbles(uint32_t* p, u8x32 a) {
  const uint32x4_t low = vreinterpretq_u32_u8(a.low), high = vreinterpretq_u32_u8(a.high);
  const uint8x16_t even = vreinterpretq_u8_u32(vuzp1q_u32(low, high));
  const uint8x16_t odd = vreinterpretq_u8_u32(vuzp2q_u32(low, high));
  vst1q_u32(p, vreinterpretq_u32_u8(vsliq_n_u8(vandq_u8(even, vdupq_n_u8(15)), odd, 4)));
}
template <class Row>
inline void store_nibble_columns(uint8_t* p, const Row& row) {
  const auto pair = [&](size_t i, size_t column) {
    const uint8x16_t low = vandq_u8(vld1q_u8(row(i) + column), vdupq_n_u8(15));
    return vsliq_n_u8(low, vld1q_u8(row(i + 4) + column), 4);
  };
  for (size_t column = 0; column < 32; column += 16)
    vst4q_u8(p + 4 * column, {{pair(0, column), pair(1, column), pair(2, column), pair(3, column)}});
}

// Operations for exact products of small integers.

using dot_element = int16_t;

struct wide_dots {
  int16x8_t first, second;
};

inline wide_dots load_dots(const int16_t* p) {
  const int16x8x2_t pairs = vld2q_s16(p);
  return {pairs.val[0], pairs.val[1]};
}
// The pair stands in the lower half of a register, and the products multiply by a lane of it. That takes fewer
// registers than two broadcasts.
struct same_dots {
  int16x4_t v;
};
inline same_dots broadcast_dots(const int16_t* p) {
  uint32_t pair;
  std::memcpy(&pair, p, sizeof pair);
  return {vcreate_s16(pair)};
}
inline i32x8 multiply_add(wide_dots a, same_dots b, i32x8 sum) {
  sum.low = vmlal_lane_s16(sum.low, vget_low_s16(a.first), b.v, 0);
  sum.high = vmlal_high_lane_s16(sum.high, a.first, b.v, 0);
  sum.low = vmlal_lane_s16(sum.low, vget_low_s16(a.second), b.v, 1);
  sum.high = vmlal_high_lane_s16(sum.high, a.second, b.v, 1);
  return sum;
}
inline void stage_row(const uint8_t* row, dot_element* staged) {
  for (size_t i = 0; i < 16; i += 8) {
    const uint16x8_t bytes = vreinterpretq_u16_u8(vld1q_u8(row + 2 * i));
    vst1q_s16(staged + i, vreinterpretq_s16_u16(vandq_u16(bytes, vdupq_n_u16(0xff))));
    vst1q_s16(staged + 16 + i, vreinterpretq_s16_u16(vshrq_n_u16(bytes, 8)));
  }
}
template <int bit, int n_bit>
inline void stage_columns(const uint8_t* rows, dot_element* panel, size_t pitch) {
  static constexpr uint8_t transpose[16] = {0, 4, 8, 12, 1, 5, 9, 13, 2, 6, 10, 14, 3, 7, 11, 15};
  for (size_t step = 0; step < 8; ++step) {
    // columns holds four rows of each of four columns.
    const int16x8_t columns = vreinterpretq_s16_u8(vqtbl1q_u8(vld1q_u8(rows + 16 * step), vld1q_u8(transpose)));
    vst1q_s16(panel + step * pitch, vshrq_n_s16(vshlq_n_s16(columns, 16 - bit - n_bit), 16 - n_bit));
    vst1q_s16(panel + (8 + step) * pitch, vshrq_n_s16(vshlq_n_s16(columns, 8 - bit - n_bit), 16 - n_bit));
  }
}

inline constexpr size_t kernel_rows = 4;

}  // namespace morun::simd::inline MORUN_BACKEND
