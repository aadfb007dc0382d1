// How the matrix unit handles the elements of each kind of product: from tiles to the data that its kernel reads, and
// from the kernel's sums to tiles.
//
// The kernel takes the inner dimension in steps. A step is one word of 32 bits in the staged operands: one inner
// element widened to f32, or the two or four inner elements whose products one instruction of the backend adds up. The
// kernel's lanes run along the columns of the weights, and it broadcasts the rows of the activation. Every row then
// costs the same, whether an activation has few of them or many.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/emulator/dsp/matrix_unit.h"
#include "simd/simd.h"

namespace parlo::dsp::inline MORUN_BACKEND {

namespace simd = morun::simd;

inline constexpr size_t tile_elements = tile_size * tile_size;

inline const std::byte* bytes_of(const auto* elements) {
  return reinterpret_cast<const std::byte*>(elements);
}
inline std::byte* bytes_of(auto* elements) {
  return reinterpret_cast<std::byte*>(elements);
}

// Rows of X, and of A, whose elements alternate in memory are a unit. Each kind has these functions:
//   stage_unit     converts a unit of 32 columns of X to [step][row of the unit]
//   stage_weights  converts a tile of W to [step][32 columns]
//   store_unit     converts the sums of 32 columns, which begin at sums[0] for the first row of the unit and at last for
//                  the last row, to a unit of A

struct HalfElements {
  using Activation = uint16_t;
  using Weight = uint16_t;
  using Result = uint16_t;
  using Staged = float;
  using Sum = float;
  static constexpr size_t tile_rows = 32;
  static constexpr size_t unit_rows = 2;
  static constexpr size_t step = 1;  // inner elements
  static constexpr size_t weight_bits = 16;

  static simd::wide_f32 load(const float* staged) { return simd::load_wide(staged); }
  static simd::wide_f32 broadcast(const float* staged) { return simd::broadcast_wide(*staged); }

  static void stage_unit(const uint16_t* unit, float* staged) {
    for (size_t i = 0; i < unit_rows * tile_size; i += simd::wide_lanes)
      simd::store(staged + i, simd::widen_wide(unit + i));
  }

  static void stage_weights(const uint16_t* tile, float* panel) {
    constexpr size_t n_column = 16, n_step = 8;  // two columns and one step are a word, and 8 x 8 words are transposed
    alignas(32) uint16_t halves[n_step][n_column];
    for (size_t column = 0; column < tile_size; column += n_column) {
      float* step_of_panel = panel + column;
      for (size_t k = 0; k < tile_size; k += n_step) {
        simd::transpose_words(bytes_of(tile + column * tile_size + 2 * k), 2 * sizeof(uint16_t) * tile_size,
                              bytes_of(halves), sizeof halves[0]);
        for (const auto& row : halves) {
          for (size_t i = 0; i < n_column; i += simd::wide_lanes)
            simd::store(step_of_panel + i, simd::widen_wide(row + i));
          step_of_panel += tile_size;
        }
      }
    }
  }

  static void store_unit(const float* first, const float* last, uint16_t* unit) {
    for (size_t column = 0; column < tile_size; column += 8) {
      const auto a = simd::narrow(simd::load(first + column)), b = simd::narrow(simd::load(last + column));
      simd::store(unit + 2 * column, simd::zip_low(a, b));
      simd::store(unit + 2 * column + 8, simd::zip_high(a, b));
    }
  }
};

template <size_t n_bit>
struct IntegerElements {
  using Activation = uint8_t;
  using Weight = uint8_t;
  using Result = int32_t;
  using Staged = simd::dot_element;
  using Sum = int32_t;
  static constexpr size_t tile_rows = 64;
  static constexpr size_t unit_rows = 1;
  static constexpr size_t step = sizeof(uint32_t) / sizeof(Staged);
  static constexpr size_t weight_bits = n_bit;

  static simd::wide_dots load(const Staged* staged) { return simd::load_dots(staged); }
  static simd::same_dots broadcast(const Staged* staged) { return simd::broadcast_dots(staged); }

  static void stage_unit(const uint8_t* row, Staged* staged) { simd::stage_row(row, staged); }

  static void stage_weights(const uint8_t* tile, Staged* panel) {
    constexpr size_t pitch = tile_size * step;
    constexpr size_t group_columns = 32 / n_bit;  // a group's bytes hold four columns, or four in each half
    for (size_t column = 0; column < tile_size; column += group_columns) {
      simd::stage_columns<0, n_bit>(tile, panel + column * step, pitch);
      if constexpr (n_bit == 4) simd::stage_columns<4, 4>(tile, panel + (column + 4) * step, pitch);
      tile += 4 * tile_size;
    }
  }

  static void store_unit(const int32_t* row, const int32_t*, int32_t* unit) {
    std::memcpy(unit, row, tile_size * sizeof *unit);
  }
};

using ByteElements = IntegerElements<8>;
using NibbleElements = IntegerElements<4>;

}  // namespace parlo::dsp::inline MORUN_BACKEND
