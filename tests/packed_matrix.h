// A packed matrix, read by the definitions of the layouts.
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "include/morun_weights.h"
#include "simd/scalar.h"

namespace test {

struct PackedMatrix {
  int32_t form;
  morun_weights_layout layout;
  std::vector<uint8_t> bytes;

  int q(uint64_t k, uint64_t c) const {
    if (form == MORUN_WEIGHTS_A8W8)
      return static_cast<int8_t>(bytes[tile(k, c) * 1024 + c % 32 / 4 * 128 + k % 32 * 4 + c % 4]);
    return nibble(bytes[tile(k, c) * 512 + c % 32 / 8 * 128 + k % 32 * 4 + c % 4], c % 8 >= 4);
  }
  int zero_point(uint64_t c) const {
    if (form == MORUN_WEIGHTS_A8W8) return static_cast<int8_t>(bytes[layout.zero_points + c]);
    return nibble(bytes[layout.zero_points + c / 2], c % 2 == 1);
  }
  uint16_t half(uint64_t offset) const { return static_cast<uint16_t>(bytes[offset] | bytes[offset + 1] << 8); }
  double scale(uint64_t c) const { return morun::simd::widen_bits(half(layout.scales + 2 * c)); }
  int32_t sum(uint64_t c) const {
    int32_t value;
    std::memcpy(&value, &bytes[layout.sums + 4 * c], sizeof value);
    return value;
  }
  double value(uint64_t k, uint64_t c) const {
    if (form != MORUN_WEIGHTS_F16) return (q(k, c) - zero_point(c)) * scale(c);
    return morun::simd::widen_bits(half(2 * (tile(k, c) * 1024 + c % 32 / 2 * 64 + k % 32 * 2 + c % 2)));
  }

 private:
  uint64_t tile(uint64_t k, uint64_t c) const { return k / 32 * (layout.padded_n_col / 32) + c / 32; }
  static int nibble(uint8_t byte, bool is_high) { return static_cast<int8_t>(is_high ? byte : byte << 4) >> 4; }
};

}  // namespace test
