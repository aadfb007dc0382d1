// How the matrix unit handles the elements of each kind of product: from tiles to the data that its kernel reads, and
// from the kernel's sums to tiles.
//
// The kernel takes the inner dimension in steps. A step is one word of 32 bits in the staged operands: one inner
// element widened to f32, or two inner elements widened to 16 bits. The kernel's lanes run along rows, and it
// broadcasts columns of the weights. The weights, the larger operand, then need little rearranging, and the activation
// is transposed once for many columns.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/emulator/dsp/matrix_unit.h"
#include "simd/simd.h"

namespace parlo::dsp::inline MORUN_BACKEND {

namespace simd = morun::simd;

inline constexpr size_t panel_rows = 16;  // two vectors
inline constexpr size_t tile_elements = tile_size * tile_size;
inline constexpr size_t pair_pitch = 2 * tile_size;  // elements of two columns, or two rows, of a tile

inline const std::byte* bytes_of(const auto* elements) {
  return reinterpret_cast<const std::byte*>(elements);
}
inline std::byte* bytes_of(auto* elements) {
  return reinterpret_cast<std::byte*>(elements);
}

// Each kind has these functions:
//   stage_activation  converts 16 rows x 32 inner elements to [step][16 rows]
//   stage_weights     converts a tile to [column pair][step][2 columns]
//   stage_columns     converts a tile to [step][32 lanes]; a lane is the column column_of_lane(lane)
//   store_columns     converts eight of a tile's columns from [column][16 rows] to 16 rows x 32 columns

struct HalfElements {
  using Activation = uint16_t;
  using Weight = uint16_t;
  using Result = uint16_t;
  using Staged = float;
  using Sum = float;
  static constexpr size_t tile_rows = 32;
  static constexpr size_t unit_rows = 2;  // rows whose elements alternate in memory
  static constexpr size_t step = 1;       // inner elements
  static constexpr size_t weight_bits = 16;

  static simd::f32x8 load(const float* staged) { return simd::load(staged); }
  static simd::f32x8 broadcast(const float* staged) { return simd::broadcast(*staged); }

  // The panel has n_lane rows in its lanes; the function writes 16 of them.
  template <size_t n_lane = panel_rows>
  static void stage_activation(const uint16_t* rows, float* panel) {
    constexpr size_t n_word = 8;  // words, each of two rows of one column
    alignas(32) uint16_t columns[n_word][panel_rows];
    for (size_t k = 0; k < tile_size; k += n_word) {
      simd::transpose_words(bytes_of(rows + 2 * k), 2 * pair_pitch, bytes_of(columns), sizeof columns[0]);
      for (const auto& column : columns) {
        simd::store(panel, simd::widen(simd::load(column)));
        simd::store(panel + 8, simd::widen(simd::load(column + 8)));
        panel += n_lane;
      }
    }
  }

  static void stage_weights(const uint16_t* tile, float* staged) {
    for (size_t i = 0; i < tile_elements; i += 8) simd::store(staged + i, simd::widen(simd::load(tile + i)));
  }

  // Columns stand in tiles of weights as rows stand in tiles of the activation.
  static void stage_columns(const uint16_t* tile, float* panel) {
    for (size_t column = 0; column < tile_size; column += panel_rows)
      stage_activation<tile_size>(tile + column * tile_size, panel + column);
  }
  static constexpr size_t column_of_lane(size_t lane) { return lane; }

  static void store_columns(const float* sums, uint16_t* rows, size_t column) {
    constexpr size_t n_column = 8;
    alignas(32) uint16_t halves[n_column][panel_rows];
    for (auto& rounded : halves) {
      simd::store(rounded, simd::narrow(simd::load(sums)));
      simd::store(rounded + 8, simd::narrow(simd::load(sums + 8)));
      sums += panel_rows;
    }
    simd::transpose_words(bytes_of(halves), sizeof halves[0], bytes_of(rows + 2 * column), 2 * pair_pitch);
  }
};

// One step takes inner elements 4i and 4i + 2, the next step 4i + 1 and 4i + 3.
template <size_t n_bit>
struct IntegerElements {
  using Activation = uint8_t;
  using Weight = uint8_t;
  using Result = int32_t;
  using Staged = int16_t;
  using Sum = int32_t;
  static constexpr size_t tile_rows = 64;
  static constexpr size_t unit_rows = 1;
  static constexpr size_t step = 2;
  static constexpr size_t weight_bits = n_bit;

  static simd::pairs8 load(const int16_t* staged) { return simd::load_pairs(staged); }
  static simd::same_pair8 broadcast(const int16_t* staged) { return simd::broadcast_pair(staged); }

  static void stage_activation(const uint8_t* rows, int16_t* panel) {
    constexpr size_t n_word = 8;  // words, each of four inner elements of one row
    alignas(32) uint8_t words[n_word][32];
    for (size_t row = 0; row < panel_rows; row += 8) {
      simd::transpose_words(bytes_of(rows + row * tile_size), tile_size, bytes_of(words), sizeof words[0]);
      int16_t* even = panel + 2 * row;
      for (const auto& word : words) {
        simd::pair_bytes(word, even, even + 2 * panel_rows);
        even += 4 * panel_rows;
      }
    }
  }

  // Stages a group of four columns, whose weights are n_bit bits of each byte, from `bit` on.
  template <int bit>
  static void stage_group(const uint8_t* group, int16_t* staged) {
    for (size_t k = 0; k < tile_size; k += 8)
      simd::pair_rows<bit, n_bit>(group + 4 * k, staged + 2 * k, staged + pair_pitch + 2 * k);
  }

  static void stage_weights(const uint8_t* tile, int16_t* staged) {
    constexpr size_t group_columns = 32 / n_bit;
    for (size_t column = 0; column < tile_size; column += group_columns) {
      stage_group<0>(tile, staged);
      if constexpr (n_bit == 4) stage_group<4>(tile, staged + 2 * pair_pitch);
      tile += 4 * tile_size;
      staged += group_columns * tile_size;
    }
  }

  // The lanes hold the first columns of all pairs, then the second columns.
  static void stage_columns(const uint8_t* tile, int16_t* panel) {
    constexpr size_t n_pair = tile_size / 2, pitch = pair_pitch * sizeof(int16_t), word = 4;
    alignas(32) int16_t pairs[tile_elements];
    stage_weights(tile, pairs);
    for (size_t i = 0; i < pitch; i += 8 * word)
      for (size_t pair = 0; pair < n_pair; pair += 8)
        simd::transpose_words(bytes_of(pairs) + pair * pitch + i, pitch, bytes_of(panel) + i * n_pair + pair * word,
                              n_pair * word);
  }
  static constexpr size_t column_of_lane(size_t lane) { return lane % (tile_size / 2) * 2 + lane / (tile_size / 2); }

  static void store_columns(const int32_t* sums, int32_t* rows, size_t column) {
    for (size_t row = 0; row < panel_rows; row += 8)
      simd::transpose_words(bytes_of(sums + row), sizeof(int32_t) * panel_rows,
                            bytes_of(rows + row * tile_size + column), sizeof(int32_t) * tile_size);
  }
};

using ByteElements = IntegerElements<8>;
using NibbleElements = IntegerElements<4>;

}  // namespace parlo::dsp::inline MORUN_BACKEND
