// The vector vocabulary in plain C++, for processors without a backend of their own and for runs under sanitizers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "source/simd/scalar.h"

namespace morun::simd {

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
inline void fence_streaming() {}
inline void prefetch(const void*) {}

inline f32x8 broadcast(float x) {
  return {{x, x, x, x, x, x, x, x}};
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

template <class Map>
inline void transpose_words_with(const std::byte* source, size_t source_pitch, std::byte* destination,
                                 size_t destination_pitch, Map map) {
  for (size_t row = 0; row < 8; ++row) {
    for (size_t column = 0; column < 8; ++column) {
      uint32_t word;
      std::memcpy(&word, source + row * source_pitch + 4 * column, 4);
      word = map(word);
      std::memcpy(destination + column * destination_pitch + 4 * row, &word, 4);
    }
  }
}
inline void transpose_words(const std::byte* source, size_t source_pitch, std::byte* destination,
                            size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch, [](uint32_t word) { return word; });
}
inline void transpose_zip_nibbles(const std::byte* source, size_t source_pitch, std::byte* destination,
                                  size_t destination_pitch) {
  transpose_words_with(source, source_pitch, destination, destination_pitch,
                       [](uint32_t word) { return zip_nibbles(word); });
}

}  // namespace morun::simd
