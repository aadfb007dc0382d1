#include "weights/unpack_columns.h"

#include <algorithm>
#include <cstring>

#include "simd/scalar.h"
#include "weights/error.h"
#include "weights/layout.h"

namespace weights {
namespace {

constexpr uint64_t words_per_column_group = tile;  // a word holds values of one row and as many columns as fit

float half_at(const std::byte* bytes) {
  uint16_t half;
  std::memcpy(&half, bytes, sizeof half);
  return morun::simd::widen_bits(half);
}

// ---- Values of a tile ----------------------------------------------------------------------------------------------

float half_of_tile(const std::byte* tile_bytes, uint64_t k, uint64_t c) {
  return half_at(tile_bytes + 2 * ((c / 2 * words_per_column_group + k) * 2 + c % 2));
}
int32_t byte_of_tile(const std::byte* tile_bytes, uint64_t k, uint64_t c) {
  return static_cast<int8_t>(tile_bytes[(c / 4 * words_per_column_group + k) * 4 + c % 4]);
}
int32_t nibble_of_tile(const std::byte* tile_bytes, uint64_t k, uint64_t c) {
  return nibble(std::to_integer<uint32_t>(tile_bytes[(c / 8 * words_per_column_group + k) * 4 + c % 4]), c % 8 / 4);
}

// ---- Columns -------------------------------------------------------------------------------------------------------

// What (q - zero point) * scale takes for the columns of a row of tiles' width. Products are exact in f32.
struct Scaling {
  float scales[tile];
  int32_t zero_points[tile];
};
Scaling scaling_of(const PackedMatrix& packed, uint64_t first_column) {
  Scaling scaling;
  const std::byte* const zero_points = packed.bytes + packed.layout.zero_points;
  for (uint64_t i = 0; i < tile; ++i) {
    const uint64_t c = first_column + i;
    scaling.scales[i] = half_at(packed.bytes + packed.layout.scales + 2 * c);
    scaling.zero_points[i] = packed.form == MORUN_WEIGHTS_A8W8
                                 ? static_cast<int8_t>(zero_points[c])
                                 : nibble(std::to_integer<uint32_t>(zero_points[c / 2]), c % 2);
  }
  return scaling;
}

// Columns first_column to first_column + n_column - 1 of one tile's width. value_at(tile, k, c) takes places in a tile.
template <typename ValueAt>
void unpack_tiles(const PackedMatrix& packed, uint64_t n_inner, uint64_t first_column, uint64_t n_column, float* values,
                  uint64_t inner_stride, uint64_t column_stride, const ValueAt& value_at) {
  const uint64_t tile_size = tile * tile * bits_per_value(packed.form) / 8, first = first_column % tile;
  for (uint64_t k = 0; k < n_inner; ++k) {
    const uint64_t number = k / tile * (packed.layout.padded_n_col / tile) + first_column / tile;
    const std::byte* const tile_bytes = packed.bytes + number * tile_size;
    float* const row = values + k * inner_stride;
    for (uint64_t i = 0; i < n_column; ++i) row[i * column_stride] = value_at(tile_bytes, k % tile, first + i);
  }
}

}  // namespace

void unpack_columns(const PackedMatrix& packed, uint64_t n_inner, uint64_t first_column, uint64_t n_column,
                    float* values, uint64_t inner_stride, uint64_t column_stride) {
  for (uint64_t done = 0, n = 0; done < n_column; done += n) {
    const uint64_t column = first_column + done;
    n = std::min(tile - column % tile, n_column - done);
    const auto unpack = [&](const auto& value_at) {
      unpack_tiles(packed, n_inner, column, n, values + done * column_stride, inner_stride, column_stride, value_at);
    };
    if (packed.form == MORUN_WEIGHTS_F16) {
      unpack(half_of_tile);
      continue;
    }
    const Scaling scaling = scaling_of(packed, column / tile * tile);
    const auto real = [&](int32_t q, uint64_t c) {
      return static_cast<float>(q - scaling.zero_points[c]) * scaling.scales[c];
    };
    if (packed.form == MORUN_WEIGHTS_A8W8)
      unpack([&](const std::byte* bytes, uint64_t k, uint64_t c) { return real(byte_of_tile(bytes, k, c), c); });
    else
      unpack([&](const std::byte* bytes, uint64_t k, uint64_t c) { return real(nibble_of_tile(bytes, k, c), c); });
  }
}

}  // namespace weights

int32_t morun_weights_unpack_columns(int32_t form, uint64_t n_inner, uint64_t n_col, const void* packed,
                                     uint64_t packed_size, uint64_t first_column, uint64_t n_column, float* values,
                                     uint64_t inner_stride, uint64_t column_stride) {
  return weights::guarded([&] {
    weights::require_not_null(packed, "packed");
    weights::require_not_null(values, "values");
    weights::require_argument(weights::is_packed(form), "form is none of a packed matrix");
    const morun_weights_layout layout = weights::layout_of(form, n_inner, n_col);
    weights::require_argument(first_column < n_col, "first_column");
    weights::require_argument(n_column > 0 && n_column <= n_col - first_column, "n_column");
    weights::require_argument(inner_stride > 0 && column_stride > 0, "a stride is 0");
    weights::require_argument(packed_size >= layout.n_byte, "packed_size");
    weights::unpack_columns({form, layout, static_cast<const std::byte*>(packed)}, n_inner, first_column, n_column,
                            values, inner_stride, column_stride);
  });
}
