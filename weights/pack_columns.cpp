#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "simd/scalar.h"
#include "weights/calibration.h"
#include "weights/error.h"
#include "weights/layout.h"
#include "weights/quantisers.h"
#include "weights/relative_error.h"

namespace weights {
namespace {

constexpr uint32_t magnitude_mask = 0x7fffffff;
constexpr uint32_t infinity_bits = 0x7f800000;
constexpr uint32_t overflow_bits = 0x477ff000;  // 65520, the least magnitude that f16 rounds to infinity
constexpr float largest_finite_half = 65504;

// ---- Checking ------------------------------------------------------------------------------------------------------

morun_weights_layout checked_layout(const morun_weights_recipe* recipe, uint64_t first_column, uint64_t n_column,
                                    const float* values, uint64_t inner_stride, uint64_t column_stride,
                                    const void* packed, uint64_t packed_size) {
  require_not_null(recipe, "recipe");
  require_not_null(values, "values");
  require_not_null(packed, "packed");
  require_argument(is_packed(recipe->form), "form is none of a packed matrix");
  const bool is_quantiser = quantiser_name(recipe->quantiser) != nullptr;
  require_argument(!is_quantised(recipe->form) || is_quantiser, "quantiser is none");
  const morun_weights_calibration* const calibration = recipe->calibration;
  if (is_quantised(recipe->form) && recipe->quantiser == MORUN_WEIGHTS_CALIBRATED)
    require_not_null(calibration, "calibration");
  require_argument(calibration == nullptr || calibration->is_finished, "the calibration is not finished");
  require_argument(calibration == nullptr || calibration->n_inner == recipe->n_inner,
                   "the calibration has another n_inner");
  const morun_weights_layout layout = layout_of(recipe->form, recipe->n_inner, recipe->n_col);
  require_argument(first_column % tile == 0 && first_column < recipe->n_col, "first_column");
  const uint64_t n_left = recipe->n_col - first_column;
  require_argument(n_column > 0 && n_column <= n_left && (n_column % tile == 0 || n_column == n_left), "n_column");
  require_argument(inner_stride > 0 && column_stride > 0, "a stride is 0");
  require_argument(packed_size >= layout.n_byte, "packed_size");
  return layout;
}

// ---- Looking at values ---------------------------------------------------------------------------------------------

struct Place {
  uint64_t k;
  uint64_t c;
};

// A row of tiles' width of columns on its way into the packed matrix.
struct Band {
  uint64_t first_column = 0;
  uint64_t n_column = 0;
  uint64_t n_inner = 0;
  uint64_t n_padded = 0;
  std::vector<float> values;      // (k, c) at c * n_padded + k, padded with zeros to whole tiles
  std::vector<Place> not_finite;  // of them

  float* column(uint64_t c) { return values.data() + c * n_padded; }
  const float* column(uint64_t c) const { return values.data() + c * n_padded; }
};

void gather(const float* values, uint64_t inner_stride, uint64_t column_stride, Band& band) {
  std::fill(band.values.begin(), band.values.end(), 0.0f);
  constexpr uint64_t step = 16;  // rows at a time, so that the lines of a row-major source are read once
  for (uint64_t k = 0; k < band.n_inner; k += step) {
    const uint64_t end = std::min(k + step, band.n_inner);
    for (uint64_t c = 0; c < band.n_column; ++c) {
      const float* const from = values + c * column_stride;
      for (uint64_t i = k; i < end; ++i) band.column(c)[i] = from[i * inner_stride];
    }
  }
}

struct ColumnFacts {
  uint32_t largest = 0;  // bits of the largest magnitude; above those of infinity for NaN
  uint64_t n_overflow = 0;
  bool is_constant = true;
};
ColumnFacts look_at(uint64_t n, const float* values) {
  ColumnFacts facts;
  const uint32_t first = std::bit_cast<uint32_t>(values[0]);
  uint32_t differences = 0, n_overflow = 0;
  for (uint64_t k = 0; k < n; ++k) {
    const uint32_t bits = std::bit_cast<uint32_t>(values[k]);
    const uint32_t magnitude = bits & magnitude_mask;
    facts.largest = std::max(facts.largest, magnitude);
    n_overflow += static_cast<uint32_t>(magnitude >= overflow_bits) & static_cast<uint32_t>(magnitude < infinity_bits);
    differences |= bits ^ first;
  }
  facts.n_overflow = n_overflow;
  facts.is_constant = differences == 0;
  return facts;
}

void count(Band& band, morun_weights_statistics& statistics) {
  band.not_finite.clear();
  for (uint64_t c = 0; c < band.n_column; ++c) {
    const ColumnFacts facts = look_at(band.n_inner, band.column(c));
    statistics.n_overflow += facts.n_overflow;
    const bool is_finite = facts.largest < infinity_bits;
    if (facts.largest == 0)
      ++statistics.n_zero;
    else if (facts.is_constant && is_finite)
      ++statistics.n_constant;
    for (uint64_t k = 0; !is_finite && k < band.n_inner; ++k) {
      if (std::isfinite(band.column(c)[k])) continue;
      ++(std::isnan(band.column(c)[k]) ? statistics.n_nan : statistics.n_infinite);
      band.not_finite.push_back({k, c});
    }
  }
  statistics.n_value += band.n_inner * band.n_column;
}

void make_finite(Band& band) {
  for (const Place& place : band.not_finite) {
    float& value = band.column(place.c)[place.k];
    value = std::isnan(value) ? 0 : std::copysign(largest_finite_half, value);
  }
}

// ---- Measuring -----------------------------------------------------------------------------------------------------

struct Squares {
  double value = 0;
  double error = 0;
};

// Of a column and of what it differs by from what is stored.
Squares squares_of(uint64_t n, const float* values, const double* stored) {
  constexpr uint64_t n_lane = 8;
  double value[n_lane] = {}, error[n_lane] = {};
  for (uint64_t k = 0; k < n; k += n_lane) {
    for (uint64_t i = 0; i < n_lane; ++i) {
      const double w = double{values[k + i]}, difference = w - stored[k + i];
      value[i] += w * w;
      error[i] += difference * difference;
    }
  }
  Squares squares;
  for (uint64_t i = 0; i < n_lane; ++i) {
    squares.value += value[i];
    squares.error += error[i];
  }
  if (std::isnan(squares.error)) squares.error = HUGE_VAL;
  return squares;
}

bool is_worse(const morun_weights_column_error& a, const morun_weights_column_error& b) {
  return a.relative_error != b.relative_error ? a.relative_error > b.relative_error : a.column < b.column;
}

void add_worst(morun_weights_statistics& statistics, const morun_weights_column_error& column) {
  morun_weights_column_error* const begin = statistics.worst;
  morun_weights_column_error* const end = begin + statistics.n_worst;
  morun_weights_column_error* const place = std::upper_bound(begin, end, column, is_worse);
  if (place == begin + MORUN_WEIGHTS_MAX_WORST_COLUMNS) return;
  if (statistics.n_worst < MORUN_WEIGHTS_MAX_WORST_COLUMNS) ++statistics.n_worst;
  std::copy_backward(place, begin + statistics.n_worst - 1, begin + statistics.n_worst);
  *place = column;
}

void measure_products(const Band& band, const std::vector<double>& stored, const morun_weights_calibration& calibration,
                      morun_weights_statistics& statistics) {
  const auto n_inner = static_cast<Eigen::Index>(band.n_inner), n_column = static_cast<Eigen::Index>(band.n_column);
  const Eigen::OuterStride<> stride(static_cast<Eigen::Index>(band.n_padded));
  const Eigen::Map<const Eigen::MatrixXf, 0, Eigen::OuterStride<>> values(band.values.data(), n_inner, n_column,
                                                                          stride);
  const Eigen::Map<const Eigen::MatrixXd, 0, Eigen::OuterStride<>> stored_values(stored.data(), n_inner, n_column,
                                                                                 stride);
  const Eigen::MatrixXd w = values.cast<double>();
  statistics.product_squares += product_squares(calibration, w);
  statistics.product_error += product_squares(calibration, w - stored_values);
}

// `stored_at` gives what the packed matrix stands for at row k of column c. All columns of that are held at a time only
// for products.
template <typename StoredAt>
void measure(Band& band, const StoredAt& stored_at, const morun_weights_calibration* calibration,
             morun_weights_statistics& statistics) {
  std::vector<double> stored((calibration != nullptr ? tile : 1) * band.n_padded);
  for (uint64_t c = 0; c < band.n_column; ++c) {
    double* const column = stored.data() + (calibration != nullptr ? c * band.n_padded : 0);
    for (uint64_t k = 0; k < band.n_inner; ++k) column[k] = stored_at(k, c);
    for (const Place& place : band.not_finite)
      if (place.c == c) column[place.k] = band.column(c)[place.k] = 0;
    const Squares squares = squares_of(band.n_padded, band.column(c), column);
    statistics.sum_of_squares += squares.value;
    statistics.squared_error += squares.error;
    add_worst(statistics, {band.first_column + c, relative_error(squares.error, squares.value)});
  }
  if (calibration != nullptr) measure_products(band, stored, *calibration, statistics);
}

// ---- Storing -------------------------------------------------------------------------------------------------------

// The packed matrix as bytes.
struct Packed {
  const morun_weights_layout& layout;
  std::byte* bytes;

  // The tile of row of tiles k and the columns from `column` on.
  std::byte* tile_at(uint64_t k, uint64_t column, uint64_t tile_size) const {
    return bytes + (k / tile * (layout.padded_n_col / tile) + column / tile) * tile_size;
  }
};

// A group of columns whose values of one row stand in one word: what word (k) is.
template <typename Word, uint64_t columns_per_word, typename WordAt>
void store_tiles(const Band& band, const Packed& packed, const WordAt& word_at) {
  constexpr uint64_t words_per_tile = tile * tile / columns_per_word;
  for (uint64_t first = 0; first < band.n_padded; first += tile) {
    std::byte* to = packed.tile_at(first, band.first_column, words_per_tile * sizeof(Word));
    for (uint64_t c = 0; c < tile; c += columns_per_word) {
      Word words[tile];
      for (uint64_t k = 0; k < tile; ++k) words[k] = word_at(first + k, c);
      std::memcpy(to, words, sizeof words);
      to += sizeof words;
    }
  }
}

void store_halves(const Band& band, const std::vector<uint16_t>& halves, const Packed& packed) {
  const auto at = [&](uint64_t k, uint64_t c) { return uint32_t{halves[c * band.n_padded + k]}; };
  store_tiles<uint32_t, 2>(band, packed, [&](uint64_t k, uint64_t c) { return at(k, c) | at(k, c + 1) << 16; });
}

void store_bytes(const Band& band, const int8_t* q, const Packed& packed) {
  const auto at = [&](uint64_t k, uint64_t c) { return uint32_t{static_cast<uint8_t>(q[c * band.n_padded + k])}; };
  store_tiles<uint32_t, 4>(band, packed, [&](uint64_t k, uint64_t c) {
    return at(k, c) | at(k, c + 1) << 8 | at(k, c + 2) << 16 | at(k, c + 3) << 24;
  });
}

// Columns 4 to 7 stand in the upper nibbles.
void store_nibbles(const Band& band, const int8_t* q, const Packed& packed) {
  const auto at = [&](uint64_t k, uint64_t c) { return static_cast<uint32_t>(q[c * band.n_padded + k]) & 15; };
  store_tiles<uint32_t, 8>(band, packed, [&](uint64_t k, uint64_t c) {
    uint32_t word = 0;
    for (uint32_t i = 0; i < 4; ++i) word |= (at(k, c + i) | at(k, c + i + 4) << 4) << 8 * i;
    return word;
  });
}

void store_columns(int32_t form, const Band& band, const QuantisedColumns& columns, const Packed& packed) {
  uint8_t zero_points[tile] = {};
  int32_t sums[tile];
  for (uint64_t c = 0; c < tile; ++c) {
    const int8_t* const q = columns.q + c * band.n_padded;
    sums[c] = 0;
    for (uint64_t k = 0; k < band.n_padded; ++k) sums[c] += q[k];
    const auto zero_point = static_cast<uint8_t>(columns.zero_points[c]);
    if (form == MORUN_WEIGHTS_A8W8)
      zero_points[c] = zero_point;
    else
      zero_points[c / 2] = static_cast<uint8_t>(zero_points[c / 2] | (zero_point & 15) << 4 * (c % 2));
  }
  const uint64_t n_zero_point_bit = bits_per_value(form), first = band.first_column;
  std::memcpy(packed.bytes + packed.layout.zero_points + first * n_zero_point_bit / 8, zero_points,
              tile * n_zero_point_bit / 8);
  std::memcpy(packed.bytes + packed.layout.scales + first * sizeof(uint16_t), columns.scales, sizeof columns.scales);
  std::memcpy(packed.bytes + packed.layout.sums + first * sizeof(int32_t), sums, sizeof sums);
}

// What lies between the parts and behind the last.
void clear_gaps(int32_t form, const Packed& packed) {
  const morun_weights_layout& layout = packed.layout;
  const auto clear_up_to = [&](uint64_t begin, uint64_t end) {
    std::fill(packed.bytes + begin, packed.bytes + end, std::byte{0});
  };
  const uint64_t tiles_end = layout.padded_n_inner * layout.padded_n_col * bits_per_value(form) / 8;
  if (!is_quantised(form)) return clear_up_to(tiles_end, layout.n_byte);
  clear_up_to(tiles_end, layout.zero_points);
  clear_up_to(layout.zero_points + layout.padded_n_col * bits_per_value(form) / 8, layout.scales);
  clear_up_to(layout.scales + layout.padded_n_col * sizeof(uint16_t), layout.sums);
  clear_up_to(layout.sums + layout.padded_n_col * sizeof(int32_t), layout.n_byte);
}

// ---- Packing -------------------------------------------------------------------------------------------------------

// Work memory for a row of tiles' width of columns.
struct Work {
  Work(uint64_t n_inner, uint64_t n_padded) {
    band.n_inner = n_inner;
    band.n_padded = n_padded;
    band.values.resize(tile * n_padded);
  }

  Band band;
  std::vector<uint16_t> halves;
  std::vector<int8_t> q;
};

void pack_halves(const morun_weights_recipe& recipe, Work& work, const Packed& packed,
                 morun_weights_statistics& statistics) {
  work.halves.resize(work.band.values.size());
  tavik_f32_to_f16(work.halves.size(), work.band.values.data(), work.halves.data());
  store_halves(work.band, work.halves, packed);
  const auto stored_at = [&](uint64_t k, uint64_t c) {
    return double{morun::simd::widen_bits(work.halves[c * work.band.n_padded + k])};
  };
  measure(work.band, stored_at, recipe.calibration, statistics);
}

void pack_quantised(const morun_weights_recipe& recipe, Work& work, const Packed& packed,
                    morun_weights_statistics& statistics) {
  if (recipe.quantiser != MORUN_WEIGHTS_LIBRARY) make_finite(work.band);
  work.q.resize(work.band.values.size());
  QuantisedColumns columns = {};
  columns.q = work.q.data();
  const uint64_t n_padded = work.band.n_padded;
  quantise(recipe.form, recipe.quantiser, recipe.calibration, {recipe.n_inner, n_padded, work.band.values.data()},
           columns);
  if (recipe.form == MORUN_WEIGHTS_A8W8)
    store_bytes(work.band, columns.q, packed);
  else
    store_nibbles(work.band, columns.q, packed);
  store_columns(recipe.form, work.band, columns, packed);
  double scales[tile];
  for (uint64_t c = 0; c < tile; ++c) scales[c] = double{morun::simd::widen_bits(columns.scales[c])};
  const auto stored_at = [&](uint64_t k, uint64_t c) {
    return (columns.q[c * n_padded + k] - columns.zero_points[c]) * scales[c];
  };
  measure(work.band, stored_at, recipe.calibration, statistics);
}

// `n_more` of the columns of one call, which need not be all of the matrix.
[[noreturn]] void refuse(const Place& place, float value, uint64_t n_more, uint64_t first_column, uint64_t n_column) {
  char more[100] = "";
  if (n_more > 0)
    snprintf(more, sizeof more, ", and %ju more in columns %ju to %ju are not finite", uintmax_t{n_more},
             uintmax_t{first_column}, uintmax_t{first_column + n_column - 1});
  throw Error(MORUN_WEIGHTS_NON_FINITE, "weight (%ju, %ju) is %s%s", uintmax_t{place.k}, uintmax_t{place.c},
              std::isnan(value) ? "NaN" : "infinite", more);
}

void pack_columns(const morun_weights_recipe& recipe, uint64_t first_column, uint64_t n_column, const float* values,
                  uint64_t inner_stride, uint64_t column_stride, const Packed& packed,
                  morun_weights_statistics& statistics) {
  Work work(recipe.n_inner, packed.layout.padded_n_inner);
  Band& band = work.band;
  bool is_refused = false;
  Place first_not_finite = {};
  float its_value = 0;
  for (uint64_t done = 0; done < n_column; done += tile) {
    band.first_column = first_column + done;
    band.n_column = std::min(tile, n_column - done);
    gather(values + done * column_stride, inner_stride, column_stride, band);
    count(band, statistics);
    if (!band.not_finite.empty() && recipe.allow_non_finite == 0 && !is_refused) {
      is_refused = true;
      const Place& place = band.not_finite.front();
      first_not_finite = {place.k, band.first_column + place.c};
      its_value = band.column(place.c)[place.k];
    }
    if (is_refused) continue;
    if (recipe.form == MORUN_WEIGHTS_F16)
      pack_halves(recipe, work, packed, statistics);
    else
      pack_quantised(recipe, work, packed, statistics);
  }
  if (is_refused)
    refuse(first_not_finite, its_value, statistics.n_nan + statistics.n_infinite - 1, first_column, n_column);
  if (first_column + n_column == recipe.n_col) clear_gaps(recipe.form, packed);
}

}  // namespace
}  // namespace weights

int32_t morun_weights_pack_columns(const morun_weights_recipe* recipe, uint64_t first_column, uint64_t n_column,
                                   const float* values, uint64_t inner_stride, uint64_t column_stride, void* packed,
                                   uint64_t packed_size, morun_weights_statistics* statistics) {
  morun_weights_statistics figures = {};
  const int32_t status = weights::guarded([&] {
    const morun_weights_layout layout = weights::checked_layout(recipe, first_column, n_column, values, inner_stride,
                                                                column_stride, packed, packed_size);
    weights::pack_columns(*recipe, first_column, n_column, values, inner_stride, column_stride,
                          {layout, static_cast<std::byte*>(packed)}, figures);
  });
  const bool is_filled = status == MORUN_WEIGHTS_SUCCESS || status == MORUN_WEIGHTS_NON_FINITE;
  if (statistics != nullptr && is_filled) *statistics = figures;
  return status;
}

void morun_weights_statistics_add(morun_weights_statistics* statistics, const morun_weights_statistics* other) {
  statistics->n_value += other->n_value;
  statistics->n_nan += other->n_nan;
  statistics->n_infinite += other->n_infinite;
  statistics->n_overflow += other->n_overflow;
  statistics->n_constant += other->n_constant;
  statistics->n_zero += other->n_zero;
  statistics->sum_of_squares += other->sum_of_squares;
  statistics->squared_error += other->squared_error;
  statistics->product_squares += other->product_squares;
  statistics->product_error += other->product_error;
  for (uint32_t i = 0; i < other->n_worst; ++i) weights::add_worst(*statistics, other->worst[i]);
}
