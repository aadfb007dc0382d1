// Tile geometry and rounding up, for the whole library. The emulated platform stands for the DSP and has tile numbers
// of its own, so that a wrong number in this file gives a wrong product on the emulator.
#pragma once

#include <cstddef>
#include <cstdint>

namespace tavik {

// Every tile is tile_side columns wide. Tiles of halves and of weights are square.
inline constexpr uint64_t tile_side = 32;
inline constexpr uint64_t tile_elements = tile_side * tile_side;
inline constexpr uint64_t band_rows = tile_side;  // the rows of a band of tiles
inline constexpr uint64_t i4_tile_bytes = tile_elements / 2;

// u8 activations and i32 results stand in tiles of twice that height, which are row-major inside.
inline constexpr uint64_t tall_tile_rows = 64;
inline constexpr uint64_t tall_tile_elements = tall_tile_rows * tile_side;

// Divide and round up to the next multiple of `unit`. The functions never form value + unit, so only a multiple that
// does not fit into 64 bits wraps.
constexpr uint64_t divide_up(uint64_t value, uint64_t unit) {
  return value / unit + (value % unit != 0);
}
constexpr uint64_t round_up(uint64_t value, uint64_t unit) {
  return divide_up(value, unit) * unit;
}

// Round an extent up to whole tiles, in the 32 bits that the DSP takes. A negative extent counts as a large unsigned
// number and may wrap to 0.
constexpr uint32_t round_up_to_32(int32_t extent) {
  return static_cast<uint32_t>(round_up(static_cast<uint32_t>(extent), tile_side));
}
constexpr uint32_t round_up_to_64(int32_t n_row) {
  return static_cast<uint32_t>(round_up(static_cast<uint32_t>(n_row), tall_tile_rows));
}

}  // namespace tavik
