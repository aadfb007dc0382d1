// The vector vocabulary on 64-bit Arm with half-precision arithmetic (armv8.2-a+fp16).
#pragma once

#include <arm_neon.h>

#include <cstddef>
#include <cstdint>

#include "source/simd/scalar.h"

namespace morun::simd {

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
inline void fence_streaming() {}
inline void prefetch(const void* p) {
  __builtin_prefetch(p);
}

inline f32x8 broadcast(float x) {
  return {vdupq_n_f32(x), vdupq_n_f32(x)};
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

inline f16x8 narrow(f32x8 a) {
  return {vreinterpretq_u16_f16(vcvt_high_f16_f32(vcvt_f16_f32(a.low), a.high))};
}
inline f32x8 widen(f16x8 a) {
  const float16x8_t halves = vreinterpretq_f16_u16(a.v);
  return {vcvt_f32_f16(vget_low_f16(halves)), vcvt_high_f32_f16(halves)};
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

// Four blocks of 4 x 4 words.
template <class Map>
inline void transpose_words_with(const std::byte* source, size_t source_pitch, std::byte* destination,
                                 size_t destination_pitch, Map map) {
  const auto load_row = [&](size_t row, size_t column) {
    return map(vld1q_u32(reinterpret_cast<const uint32_t*>(source + row * source_pitch + 4 * column)));
  };
  for (size_t row = 0; row < 8; row += 4) {
    for (size_t column = 0; column < 8; column += 4) {
      const uint32x4_t r0 = load_row(row, column), r1 = load_row(row + 1, column);
      const uint32x4_t r2 = load_row(row + 2, column), r3 = load_row(row + 3, column);
      const uint64x2_t even01 = vreinterpretq_u64_u32(vtrn1q_u32(r0, r1));
      const uint64x2_t odd01 = vreinterpretq_u64_u32(vtrn2q_u32(r0, r1));
      const uint64x2_t even23 = vreinterpretq_u64_u32(vtrn1q_u32(r2, r3));
      const uint64x2_t odd23 = vreinterpretq_u64_u32(vtrn2q_u32(r2, r3));
      const auto store_column = [&](size_t index, uint64x2_t words) {
        std::byte* p = destination + (column + index) * destination_pitch + 4 * row;
        vst1q_u32(reinterpret_cast<uint32_t*>(p), vreinterpretq_u32_u64(words));
      };
      store_column(0, vtrn1q_u64(even01, even23));
      store_column(1, vtrn1q_u64(odd01, odd23));
      store_column(2, vtrn2q_u64(even01, even23));
      store_column(3, vtrn2q_u64(odd01, odd23));
    }
  }
}
inline void transpose_words(const std::byte* source, size_t source_pitch, std::byte* destination,
                            size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch, [](uint32x4_t words) { return words; });
}
inline void transpose_zip_nibbles(const std::byte* source, size_t source_pitch, std::byte* destination,
                                  size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch,
                       [](uint32x4_t words) { return zip_nibbles(words); });
}

}  // namespace morun::simd
