// The vector vocabulary in plain C++, for processors without a backend of their own and for runs under sanitizers.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "simd/scalar.h"

namespace morun::simd::inline MORUN_BACKEND {

struct f32x8 {
  float lane[8];
};
struct f16x8 {
  uint16_t lane[8];
};

inline f32x8 load(const float* p) {
  f32x8 v;
  std::memcpy(v.lane, p, sizeof v.lane);
  return v;
}
inline f16x8 load(const uint16_t* p) {
  f16x8 v;
  std::memcpy(v.lane, p, sizeof v.lane);
  return v;
}
inline void store(float* p, f32x8 v) {
  std::memcpy(p, v.lane, sizeof v.lane);
}
inline void store(uint16_t* p, f16x8 v) {
  std::memcpy(p, v.lane, sizeof v.lane);
}
inline void store_streaming(float* p, f32x8 v) {
  store(p, v);
}
inline void store_streaming(uint16_t* p, f16x8 v) {
  store(p, v);
}
inline constexpr bool has_streaming_stores = false;
inline void fence_streaming() {}
inline void prefetch(const void*) {}
inline void prefetch_outer(const void*) {}
inline void store_fours(float* lower, float* upper, f32x8 v) {
  std::memcpy(lower, v.lane, sizeof v.lane / 2);
  std::memcpy(upper, v.lane + 4, sizeof v.lane / 2);
}

inline f32x8 broadcast(float x) {
  return {{x, x, x, x, x, x, x, x}};
}
inline f32x8 broadcast_four(const float* p) {
  return {{p[0], p[1], p[2], p[3], p[0], p[1], p[2], p[3]}};
}
inline f32x8 add(f32x8 a, f32x8 b) {
  for (int i = 0; i < 8; ++i) a.lane[i] += b.lane[i];
  return a;
}
inline f32x8 multiply(f32x8 a, f32x8 b) {
  for (int i = 0; i < 8; ++i) a.lane[i] *= b.lane[i];
  return a;
}
inline f32x8 multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  for (int i = 0; i < 8; ++i) c.lane[i] += a.lane[i] * b.lane[i];
  return c;
}
inline f32x8 sums_of_fours(f32x8 a, f32x8 b, f32x8 c, f32x8 d) {
  const auto sum = [](const float* four) { return (four[0] + four[1]) + (four[2] + four[3]); };
  return {{sum(a.lane), sum(b.lane), sum(c.lane), sum(d.lane),  //
           sum(a.lane + 4), sum(b.lane + 4), sum(c.lane + 4), sum(d.lane + 4)}};
}

inline f16x8 narrow(f32x8 v) {
  f16x8 r;
  for (int i = 0; i < 8; ++i) r.lane[i] = narrow_bits(v.lane[i]);
  return r;
}
inline f32x8 widen(f16x8 v) {
  f32x8 r;
  for (int i = 0; i < 8; ++i) r.lane[i] = widen_bits(v.lane[i]);
  return r;
}

inline f16x8 add(f16x8 a, f16x8 b) {
  return narrow(add(widen(a), widen(b)));
}
inline f16x8 multiply(f16x8 a, f16x8 b) {
  return narrow(multiply(widen(a), widen(b)));
}
inline f16x8 multiply_add(f16x8 a, f16x8 b, f16x8 c) {
  for (int i = 0; i < 8; ++i) c.lane[i] = half_fma(a.lane[i], b.lane[i], c.lane[i]);
  return c;
}

struct half8 {
  float lane[8];
};

inline half8 load_half8(const uint16_t* p) {
  half8 v;
  for (int i = 0; i < 8; ++i) v.lane[i] = widen_bits(p[i]);
  return v;
}

struct half8_sum {
  float lane[8];
};

inline half8_sum load_half8_sum(const uint16_t* p) {
  return std::bit_cast<half8_sum>(load_half8(p));
}
inline void store(uint16_t* p, half8_sum v) {
  for (int i = 0; i < 8; ++i) p[i] = narrow_bits(v.lane[i]);
}
inline void store(float* p, half8_sum v) {
  std::memcpy(p, v.lane, sizeof v.lane);
}
inline void accumulate(half8_sum& sum, half8 a, half8 b) {
  for (int i = 0; i < 8; ++i) sum.lane[i] = widen_bits(narrow_bits(add_to_odd(a.lane[i] * b.lane[i], sum.lane[i])));
}
template <class Body>
inline void in_half_arithmetic(const Body& body) {
  body();
}

inline f16x8 lower_fours(f16x8 a, f16x8 b) {
  return {{a.lane[0], a.lane[1], a.lane[2], a.lane[3], b.lane[0], b.lane[1], b.lane[2], b.lane[3]}};
}
inline f16x8 upper_fours(f16x8 a, f16x8 b) {
  return {{a.lane[4], a.lane[5], a.lane[6], a.lane[7], b.lane[4], b.lane[5], b.lane[6], b.lane[7]}};
}
inline f32x8 lower_fours(f32x8 a, f32x8 b) {
  std::memcpy(a.lane + 4, b.lane, sizeof b.lane / 2);
  return a;
}
inline f32x8 upper_fours(f32x8 a, f32x8 b) {
  std::memcpy(b.lane, a.lane + 4, sizeof a.lane / 2);
  return b;
}
inline f16x8 zip_low(f16x8 a, f16x8 b) {
  return {{a.lane[0], b.lane[0], a.lane[1], b.lane[1], a.lane[2], b.lane[2], a.lane[3], b.lane[3]}};
}
inline f16x8 zip_high(f16x8 a, f16x8 b) {
  return {{a.lane[4], b.lane[4], a.lane[5], b.lane[5], a.lane[6], b.lane[6], a.lane[7], b.lane[7]}};
}
inline f16x8 unzip_even(f16x8 a, f16x8 b) {
  return {{a.lane[0], a.lane[2], a.lane[4], a.lane[6], b.lane[0], b.lane[2], b.lane[4], b.lane[6]}};
}
inline f16x8 unzip_odd(f16x8 a, f16x8 b) {
  return {{a.lane[1], a.lane[3], a.lane[5], a.lane[7], b.lane[1], b.lane[3], b.lane[5], b.lane[7]}};
}

template <class Row, class Map>
inline void transpose_words_with(const Row& row, std::byte* destination, size_t destination_pitch, Map map) {
  for (size_t i = 0; i < 8; ++i) {
    for (size_t column = 0; column < 8; ++column) {
      uint32_t word;
      std::memcpy(&word, row(i) + 4 * column, 4);
      word = map(word);
      std::memcpy(destination + column * destination_pitch + 4 * i, &word, 4);
    }
  }
}
template <class Row>
inline void transpose_words(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](uint32_t word) { return word; });
}
template <class Row>
inline void transpose_zip_nibbles(const Row& row, std::byte* destination, size_t destination_pitch) {
  transpose_words_with(row, destination, destination_pitch, [](uint32_t word) { return zip_nibbles(word); });
}

// Operations for quantisation.

struct i32x8 {
  int32_t lane[8];
};
struct u8x32 {
  uint8_t lane[32];
};

inline i32x8 load(const int32_t* p) {
  i32x8 v;
  std::memcpy(v.lane, p, sizeof v.lane);
  return v;
}
inline i32x8 load_i8(const int8_t* p) {
  i32x8 v;
  for (int i = 0; i < 8; ++i) v.lane[i] = int32_t{p[i]};
  return v;
}
inline i32x8 load_i4(const uint32_t* p) {
  uint32_t word;
  std::memcpy(&word, p, sizeof word);
  i32x8 v;
  for (int i = 0; i < 8; ++i) v.lane[i] = static_cast<int32_t>(word << (28 - 4 * i)) >> 28;
  return v;
}
inline void store(int32_t* p, i32x8 v) {
  std::memcpy(p, v.lane, sizeof v.lane);
}
inline void store_streaming(int32_t* p, i32x8 v) {
  store(p, v);
}
inline u8x32 load(const uint8_t* p) {
  u8x32 v;
  std::memcpy(v.lane, p, sizeof v.lane);
  return v;
}
inline void store(uint8_t* p, u8x32 v) {
  std::memcpy(p, v.lane, sizeof v.lane);
}
inline void store_streaming(uint8_t* p, u8x32 v) {
  store(p, v);
}

inline f32x8 fused_multiply_add(f32x8 a, f32x8 b, f32x8 c) {
  for (int i = 0; i < 8; ++i) c.lane[i] = std::fma(a.lane[i], b.lane[i], c.lane[i]);
  return c;
}
inline f32x8 greater(f32x8 a, f32x8 b) {
  for (int i = 0; i < 8; ++i) b.lane[i] = a.lane[i] > b.lane[i] ? a.lane[i] : b.lane[i];
  return b;
}
inline f32x8 lesser(f32x8 a, f32x8 b) {
  for (int i = 0; i < 8; ++i) b.lane[i] = a.lane[i] < b.lane[i] ? a.lane[i] : b.lane[i];
  return b;
}
inline f32x8 number_or_zero(f32x8 v) {
  for (float& x : v.lane) x = x == x ? x : 0;
  return v;
}
inline f32x8 settle_nan(f32x8 v) {
  for (float& x : v.lane) x = x == x ? x : std::bit_cast<float>(0x7fc00000u);
  return v;
}
inline i32x8 to_nearest(f32x8 v) {
  i32x8 r;
  for (int i = 0; i < 8; ++i) r.lane[i] = static_cast<int32_t>(std::round(v.lane[i]));
  return r;
}
inline f32x8 to_float(i32x8 v) {
  f32x8 r;
  for (int i = 0; i < 8; ++i) r.lane[i] = static_cast<float>(v.lane[i]);
  return r;
}

inline i32x8 greater(i32x8 a, i32x8 b) {
  for (int i = 0; i < 8; ++i) b.lane[i] = a.lane[i] > b.lane[i] ? a.lane[i] : b.lane[i];
  return b;
}
inline i32x8 greater_magnitude(const float* p, i32x8 a) {
  i32x8 v;
  std::memcpy(v.lane, p, sizeof v.lane);
  for (int32_t& x : v.lane) x &= 0x7fffffff;
  return greater(v, a);
}
inline int32_t wrapping_sum(int32_t a, uint32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + b);
}
inline i32x8 add(i32x8 a, i32x8 b) {
  for (int i = 0; i < 8; ++i) b.lane[i] = wrapping_sum(b.lane[i], static_cast<uint32_t>(a.lane[i]));
  return b;
}
inline int32_t greatest(i32x8 v) {
  int32_t greatest = v.lane[0];
  for (const int32_t x : v.lane) greatest = x > greatest ? x : greatest;
  return greatest;
}
inline uint32_t sum(i32x8 v) {
  uint32_t sum = 0;
  for (const int32_t x : v.lane) sum += static_cast<uint32_t>(x);
  return sum;
}

inline u8x32 pack_low_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  u8x32 r;
  const i32x8* const quarters[4] = {&a, &b, &c, &d};
  for (int i = 0; i < 32; ++i) r.lane[i] = static_cast<uint8_t>(quarters[i / 8]->lane[i % 8]);
  return r;
}
inline u8x32 pack_high_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  u8x32 r;
  const i32x8* const quarters[4] = {&a, &b, &c, &d};
  for (int i = 0; i < 32; ++i) r.lane[i] = static_cast<uint8_t>(quarters[i / 8]->lane[i % 8] >> 8);
  return r;
}
inline u8x32 pack_bytes(i32x8 a, i32x8 b, i32x8 c, i32x8 d) {
  return pack_low_bytes(a, b, c, d);
}
inline u8x32 scale_to_bytes(const float* p, f32x8 factor) {
  const auto scaled = [&](size_t i) { return to_nearest(multiply(load(p + 8 * i), factor)); };
  return pack_bytes(scaled(0), scaled(1), scaled(2), scaled(3));
}
inline u8x32 flip_top_bits(u8x32 v) {
  for (uint8_t& x : v.lane) x ^= 128;
  return v;
}
inline i32x8 add_bytes(i32x8 sums, u8x32 v) {
  for (int i = 0; i < 32; ++i) sums.lane[i / 4] = wrapping_sum(sums.lane[i / 4], v.lane[i]);
  return sums;
}
inline void store_nibbles(uint32_t* p, u8x32 v) {
  uint8_t bytes[16];
  for (size_t i = 0; i < 16; ++i) bytes[i] = static_cast<uint8_t>((v.lane[2 * i] & 15) | (v.lane[2 * i + 1] & 15) << 4);
  std::memcpy(p, bytes, sizeof bytes);
}
inline void store_zipped_nibbles(uint32_t* p, u8x32 v) {
  store_nibbles(p, v);
  for (int i = 0; i < 4; ++i) p[i] = zip_nibbles(p[i]);
}
template <class Row>
inline void store_nibble_columns(uint8_t* p, const Row& row) {
  for (int i = 0; i < 4; ++i)
    for (int column = 0; column < 32; ++column)
      p[4 * column + i] = static_cast<uint8_t>((row(i)[column] & 15) | (row(i + 4)[column] & 15) << 4);
}

// Operations for exact products of small integers.

using dot_element = int16_t;

struct wide_dots {
  int16_t lane[16];
};

inline wide_dots load_dots(const int16_t* p) {
  wide_dots v;
  std::memcpy(v.lane, p, sizeof v.lane);
  return v;
}
using same_dots = wide_dots;
inline same_dots broadcast_dots(const int16_t* p) {
  wide_dots v;
  for (int i = 0; i < 16; ++i) v.lane[i] = p[i % 2];
  return v;
}
inline i32x8 multiply_add(wide_dots a, same_dots b, i32x8 sum) {
  for (size_t i = 0; i < 8; ++i) {
    const int32_t product = a.lane[2 * i] * b.lane[2 * i] + a.lane[2 * i + 1] * b.lane[2 * i + 1];
    sum.lane[i] = wrapping_sum(sum.lane[i], static_cast<uint32_t>(product));
  }
  return sum;
}
inline void stage_row(const uint8_t* row, dot_element* staged) {
  for (size_t i = 0; i < 16; ++i) {
    staged[i] = row[2 * i];
    staged[16 + i] = row[2 * i + 1];
  }
}
template <int bit, int n_bit>
inline void stage_columns(const uint8_t* rows, dot_element* panel, size_t pitch) {
  for (size_t i = 0; i < 128; ++i) {
    const size_t row = i / 4, column = i % 4, step = row / 4 + row % 2 * 8, member = row % 4 / 2;
    const int at_top = rows[i] << (16 - bit - n_bit);
    panel[step * pitch + 2 * column + member] = static_cast<int16_t>(static_cast<int16_t>(at_top) >> (16 - n_bit));
  }
}

inline constexpr size_t kernel_rows = 4;

}  // namespace morun::simd::inline MORUN_BACKEND
