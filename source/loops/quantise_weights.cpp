#include "source/loops.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "source/loops/quantise.h"

namespace tavik::inline MORUN_BACKEND {
namespace {

namespace simd = morun::simd;

constexpr uint16_t half_nan = 0x7e00;
constexpr uint16_t half_sign = 0x8000;

// The two widths of weights, with their bounds and storage. `low` is also the zero point of a row whose least element
// is 0. A stored word holds one value of 8 bits, or eight values of 4 bits.
struct I8 {
  static constexpr float divisor = 255, low = -128, high = 127;
  using Word = int8_t;
  static constexpr uint64_t per_word = 1;
  static void store(int8_t* p, simd::u8x32 q) { simd::store(reinterpret_cast<uint8_t*>(p), q); }
};
struct I4 {
  static constexpr float divisor = 15, low = -8, high = 7;
  using Word = uint32_t;
  static constexpr uint64_t per_word = 8;
  static void store(uint32_t* p, simd::u8x32 q) { simd::store_nibbles(p, q); }
};

struct Extremes {
  float min, max;
};

uint64_t whole_segments(uint64_t n_col) {
  return n_col / segment_cols * segment_cols;
}

// The extremes of a row's first element, to which the row's segments are added.
simd::half_extremes first_extremes(const uint16_t* row, uint64_t n_col) {
  return simd::half_extremes(n_col > 0 ? row[0] : uint16_t{0});
}

// Returns minimum and maximum of a row, whose whole segments are already in `lanes`. Both start at the row's first
// element. The comparisons ignore NaN unless the row starts with one; then both results are NaN.
Extremes extremes_of(const simd::half_extremes& lanes, const uint16_t* row, uint64_t n_col) {
  if (n_col == 0) return {0, 0};
  const float first = simd::widen_bits(row[0]);
  Extremes extremes = {first, first};
  const auto include = [&extremes](float least, float most) {
    if (least < extremes.min) extremes.min = least;
    if (most > extremes.max) extremes.max = most;
  };
  float mins[8], maxs[8];
  simd::store(mins, maxs, lanes);
  for (size_t i = 0; i < 8; ++i) include(mins[i], maxs[i]);
  for (uint64_t c = whole_segments(n_col); c < n_col; ++c) include(simd::widen_bits(row[c]), simd::widen_bits(row[c]));
  return extremes;
}

struct HalfStep {
  uint16_t scale, inverse, zero_point;
};

// A NaN becomes 0, both in the stored zero point and in the zero point that quantises the row.
template <class Width>
uint16_t whole_zero_point(uint16_t x) {
  const float rounded = std::round(simd::widen_bits(x));
  if (rounded != rounded) return 0;
  if (rounded < Width::low) return simd::narrow_bits(Width::low);
  return simd::narrow_bits(rounded > Width::high ? Width::high : rounded);
}

// A difference or quotient of halves has the same value whether it is rounded to f32 and then to f16, or to f16 at
// once.
template <class Width>
HalfStep half_step_of(const Extremes& extremes) {
  const uint16_t range = simd::narrow_bits(extremes.max - extremes.min);
  const float scale = simd::widen_bits(simd::narrow_bits(simd::widen_bits(range) / Width::divisor));
  const uint16_t inverse = scale != 0 ? simd::narrow_bits(1 / scale) : 0;
  const uint16_t zero_point = simd::half_fma(static_cast<uint16_t>(inverse ^ half_sign),
                                             simd::narrow_bits(extremes.min), simd::narrow_bits(Width::low));
  return {scale == scale ? simd::narrow_bits(scale) : half_nan, inverse, whole_zero_point<Width>(zero_point)};
}

int8_t stored_zero_point(const HalfStep& step) {
  return static_cast<int8_t>(simd::widen_bits(step.zero_point));
}

// The number of values of a row that half arithmetic scales together.
constexpr uint64_t scaled_cols = 1024;

// Scales n_col values for simd::round_scaled(). n_col is a multiple of segment_cols.
void scale_halves(const uint16_t* from, uint64_t n_col, const HalfStep& step, simd::scaled_halves* to) {
  simd::in_half_arithmetic([&] {
    const simd::half_scaler scaler(step.inverse, step.zero_point);
    for (const uint16_t* const end = from + n_col; from < end; from += segment_cols) scaler.scale(from, *to++);
  });
}

// Quantises n_col values and returns their sum. n_col is a multiple of the number of values in a word. Also adds the
// whole segments of the next row to `next_extremes`: the next row comes from memory while this row is computed.
template <class Width>
int32_t quantise_half_row(const uint16_t* from, uint64_t n_col, const HalfStep& step, typename Width::Word* to,
                          const uint16_t* next, simd::half_extremes& next_extremes) {
  // Halves between the prefetch and the use. Prefetches may reach behind the matrix.
  constexpr uint64_t lead = 1024;
  simd::i32x8 sums{};
  simd::half_extremes lanes = next_extremes;
  simd::scaled_halves scaled[scaled_cols / segment_cols];
  const uint64_t whole = whole_segments(n_col);
  uint64_t c = 0;
  while (c < whole) {
    const uint64_t begin = c, end = std::min(begin + scaled_cols, whole);
    scale_halves(from + begin, end - begin, step, scaled);
    const simd::scaled_halves* result = scaled;
    for (; c < end; c += segment_cols) {
      simd::prefetch_ahead(next + c, lead);
      simd::include(lanes, next + c);
      const simd::u8x32 q = simd::round_scaled(*result++, Width::low, Width::high);
      Width::store(to + c / Width::per_word, q);
      sums = simd::add_bytes(sums, simd::flip_top_bits(q));
    }
  }
  next_extremes = lanes;
  uint32_t sum = simd::sum(sums) - 128 * static_cast<uint32_t>(c);
  if (c == n_col) return static_cast<int32_t>(sum);

  uint16_t rest[segment_cols] = {};
  memcpy(rest, from + c, (n_col - c) * sizeof *from);
  scale_halves(rest, segment_cols, step, scaled);
  const simd::u8x32 q = simd::round_scaled(scaled[0], Width::low, Width::high);
  typename Width::Word words[segment_cols / Width::per_word];
  Width::store(words, q);
  memcpy(to + c / Width::per_word, words, (n_col - c) / Width::per_word * sizeof *to);
  uint8_t bytes[segment_cols];
  simd::store(bytes, q);
  for (uint64_t i = 0; i < n_col - c; ++i) sum += static_cast<uint32_t>(static_cast<int8_t>(bytes[i]));
  return static_cast<int32_t>(sum);
}

// Quantises rows and calls put(row, step, sum of the values) for each. A row has n_col / Width::per_word words.
template <class Width, class Put>
void quantise_half_rows(uint64_t n_row, uint64_t n_col, const uint16_t* src, typename Width::Word* dst, Put put) {
  // A row has as many whole segments as its whole words have.
  static_assert(segment_cols % Width::per_word == 0);
  if (n_row == 0) return;
  const uint64_t n_word = n_col / Width::per_word;
  simd::half_extremes lanes = first_extremes(src, n_col);
  for (uint64_t c = 0; c < whole_segments(n_col); c += segment_cols) simd::include(lanes, src + c);
  for (uint64_t r = 0; r < n_row; ++r) {
    const uint16_t* const from = src + r * n_col;
    // Behind the last row there is none. The last row's own extremes are then computed once more, and not used.
    const uint16_t* const next = r + 1 < n_row ? from + n_col : from;
    const HalfStep step = half_step_of<Width>(extremes_of(lanes, from, n_col));
    lanes = first_extremes(next, n_col);
    put(r, step, quantise_half_row<Width>(from, n_word * Width::per_word, step, dst + r * n_word, next, lanes));
  }
}

}  // namespace

void f16_rm_to_i8_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, int8_t* dst, int8_t* zero_points,
                     uint16_t* scales, int32_t* sums) {
  quantise_half_rows<I8>(n_row, n_col, src, dst, [&](uint64_t row, const HalfStep& step, int32_t sum) {
    zero_points[row] = stored_zero_point(step);
    scales[row] = step.scale;
    sums[row] = sum;
  });
}

void f16_rm_to_i4_rm(uint64_t n_row, uint64_t n_col, const uint16_t* src, uint32_t* dst, uint32_t* zero_points,
                     uint16_t* scales, int32_t* sums) {
  uint32_t packed = 0;
  quantise_half_rows<I4>(n_row, n_col, src, dst, [&](uint64_t row, const HalfStep& step, int32_t sum) {
    scales[row] = step.scale;
    sums[row] = sum;
    packed |= (static_cast<uint32_t>(stored_zero_point(step)) & 15) << 4 * (row % 8);
    if (row % 8 != 7) return;
    zero_points[row / 8] |= packed;  // kept: words are not cleared first; a last group of fewer than 8 rows is dropped
    packed = 0;
  });
}

}  // namespace tavik::inline MORUN_BACKEND
