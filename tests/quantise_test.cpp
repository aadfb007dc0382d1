// Quantisation: every routine against its definition, value by value, and one digest that holds on every platform.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <string>

#include "include/morun.h"
#include "include/tavik.h"
#include "tests/definitions.h"

namespace {

using test::Vector;

using test::same_bits, test::exact_fma, test::exact_sum, test::half_of, test::integer_of, test::place_in_tall_tiles,
    test::sign_bit, test::value_of, test::wide;
constexpr float infinity = INFINITY, nan = NAN;

// ---- Definitions

uint16_t half_quotient(uint16_t half, int divisor) {
  if (!std::isfinite(value_of(half))) return half;
  const wide exact = static_cast<wide>(test::units(half)) << 24, quotient = exact / divisor;
  return test::nearest_half(quotient | (quotient * divisor != exact));  // the last bit stands for what is cut off
}
struct Weights {
  Vector<int8_t> q, zero_points;
  Vector<uint16_t> scales;
  Vector<int32_t> sums;
};
double rounded_within(uint16_t half, int low, int high) {
  const double value = std::round(value_of(half));
  return value < low ? low : value > high ? high : value;
}
// The first n_quantised columns are quantised.
Weights quantise(uint64_t n_row, uint64_t n_col, uint64_t n_quantised, const Vector<uint16_t>& src, int divisor,
                 int low, int high) {
  Weights w{Vector<int8_t>(n_row * n_quantised), Vector<int8_t>(n_row), Vector<uint16_t>(n_row),
            Vector<int32_t>(n_row)};
  for (uint64_t r = 0; r < n_row; ++r) {
    uint16_t max = n_col ? src[r * n_col] : 0, min = max;
    for (uint64_t c = 1; c < n_col; ++c) {
      const uint16_t x = src[r * n_col + c];
      if (value_of(x) > value_of(max)) max = x;
      if (value_of(x) < value_of(min)) min = x;
    }
    w.scales[r] = half_quotient(exact_sum(max, min ^ sign_bit), divisor);
    const auto scale = static_cast<float>(value_of(w.scales[r]));
    const uint16_t inverse = half_of(scale != 0 ? 1 / scale : 0);
    const int32_t zero_point = integer_of(rounded_within(exact_fma(inverse ^ sign_bit, min, half_of(low)), low, high));
    w.zero_points[r] = static_cast<int8_t>(zero_point);
    for (uint64_t c = 0; c < n_quantised; ++c) {
      const uint16_t q = exact_fma(src[r * n_col + c], inverse, half_of(zero_point));
      w.q[r * n_quantised + c] = static_cast<int8_t>(integer_of(rounded_within(q, low, high)));
      w.sums[r] += w.q[r * n_quantised + c];
    }
  }
  return w;
}
// Whole groups of eight only.
Vector<uint32_t> packed(const Vector<int8_t>& values) {
  Vector<uint32_t> words(values.size() / 8);
  for (size_t i = 0; i < words.size() * 8; ++i) words[i / 8] |= (static_cast<uint32_t>(values[i]) & 15) << 4 * (i % 8);
  return words;
}

// ---- Comparison

void expect_activations_as_defined(uint64_t n_row, uint64_t n_col, const Vector<float>& src) {
  SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
  const test::QuantisedActivation a = test::quantise(n_row, n_col, src, 127, 128),
                                  b = test::quantise(n_row, n_col, src, 32767, 32768, 0xffff);
  const uint64_t tiles_per_row = (n_col + 31) / 32;
  Vector<uint8_t> rows(n_row * n_col, 0xee), high = rows, low = rows, out = rows, out_low = rows;
  Vector<uint8_t> tiles((n_row + 63) / 64 * tiles_per_row * 2048, 0xee), out_tiles = tiles;
  for (uint64_t i = 0; i < n_row * n_col; ++i) {
    rows[i] = tiles[place_in_tall_tiles(i / n_col, i % n_col, n_col)] = static_cast<uint8_t>(a.q[i]);
    high[i] = static_cast<uint8_t>(b.q[i] >> 8);
    low[i] = static_cast<uint8_t>(b.q[i]);
  }
  Vector<float> scales(n_row);
  Vector<uint32_t> sums(n_row);
  tavik_f32_rm_to_u8_rm(n_row, n_col, src.data(), out.data(), scales.data(), sums.data());
  EXPECT_TRUE(out == rows && same_bits(scales, a.scales) && sums == a.sums);
  tavik_f32_rm_to_u16_rm(n_row, n_col, src.data(), out.data(), out_low.data(), scales.data(), sums.data());
  EXPECT_TRUE(out == high && out_low == low && same_bits(scales, b.scales) && sums == b.sums);
  const size_t before = n_row > 800 ? 16 : 0;  // large results then begin within a cache line
  for (Vector<uint8_t>* const all : {&tiles, &out_tiles}) all->insert(all->begin(), before, 0xee);
  tavik_f32_rm_to_u8_ah(n_row, n_col, src.data(), out_tiles.data() + before, scales.data(), sums.data());
  EXPECT_TRUE(out_tiles == tiles && same_bits(scales, a.scales) && sums == a.sums);
}

void expect_weights_as_defined(uint64_t n_row, uint64_t n_col, const Vector<uint16_t>& src) {
  SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
  Vector<uint16_t> scales(n_row);
  Vector<int32_t> sums(n_row);
  const Weights a = quantise(n_row, n_col, n_col, src, 255, -128, 127);
  Vector<int8_t> q(n_row * n_col, 99), zero_points(n_row);
  tavik_f16_rm_to_i8_rm(n_row, n_col, src.data(), q.data(), zero_points.data(), scales.data(), sums.data());
  EXPECT_TRUE(q == a.q && zero_points == a.zero_points && scales == a.scales && sums == a.sums);

  const Weights b = quantise(n_row, n_col, n_col / 8 * 8, src, 15, -8, 7);
  Vector<uint32_t> words(n_row * (n_col / 8), 99), zeros(n_row / 8);
  tavik_f16_rm_to_i4_rm(n_row, n_col, src.data(), words.data(), zeros.data(), scales.data(), sums.data());
  EXPECT_TRUE(words == packed(b.q) && zeros == packed(b.zero_points));
  EXPECT_TRUE(scales == b.scales && sums == b.sums);
}

// The rows take turns in what they hold: ordinary, large, tiny or subnormal values, any bit patterns, or ordinary
// values with some that are not finite.
Vector<float> float_rows(test::Random& random, uint64_t n_row, uint64_t n_col) {
  Vector<float> rows(n_row * n_col);
  for (uint64_t i = 0; i < rows.size(); ++i) {
    const uint64_t kind = i / n_col % 8;
    rows[i] = std::ldexp(random.value(), kind == 1 ? 128 : kind == 2 ? -119 : kind == 3 ? -127 : kind == 4 ? -140 : 0);
    const uint64_t bits = random.bits();
    if (kind == 5) rows[i] = std::bit_cast<float>(static_cast<uint32_t>(bits));
    if (kind == 6 && bits % 16 == 0) rows[i] = bits & 16 ? nan : bits & 32 ? infinity : -infinity;
    if (kind == 7 && bits % 16 == 0) rows[i] = std::bit_cast<float>(bits & 16 ? 0xff812345u : 0x7f800001u);
  }
  return rows;
}
Vector<uint16_t> half_rows(test::Random& random, uint64_t n_row, uint64_t n_col) {
  Vector<uint16_t> rows(n_row * n_col);
  for (uint64_t r = 0; r < n_row; ++r) {
    const uint64_t kind = r % 6, shape = random.bits();
    for (uint64_t c = 0; c < n_col; ++c) {
      const uint64_t bits = random.bits();
      uint64_t half = bits & 0xbfff;                                           // up to 2
      if (kind == 1) half = 0x3800 + (shape & 0x1ff) + (bits & 0xff);          // far from zero, of one sign
      if (kind == 2) half = bits & (shape & 1 ? 0x83ff : c % 8 ? 0x03ff : 0);  // subnormal, some with 0 as the least
      if (kind == 3) half = bits & 0xffff;                                     // any pattern
      if (kind == 4) half = bits % 32 == 0 ? 0x7c00 | (bits & 0x83ff) : half;  // NaN now and then, infinity rarely
      if (kind == 5) half = (bits & 0x8fff) + (shape & 0x6000);                // a few binades
      rows[r * n_col + c] = static_cast<uint16_t>(half);
    }
  }
  return rows;
}

constexpr std::pair<uint64_t, uint64_t> shapes[] = {{0, 32},   {1, 1},   {3, 0},   {1, 32},   {2, 31},
                                                    {63, 33},  {64, 64}, {65, 95}, {130, 40}, {24, 257},
                                                    {129, 32}, {48, 16}, {40, 7}};

// ---- Activations

TEST(ActivationQuantiser, GivesWhatIsDefinedForEveryShapeAndKindOfRow) {
  test::Random random(31);
  for (const auto& [n_row, n_col] : shapes)
    for (int round = 0; round < 8; ++round)
      expect_activations_as_defined(n_row, n_col, float_rows(random, n_row, n_col));
  for (const uint64_t n_col : {1056, 1060})  // 1056 columns make whole tiles, which are written past the caches
    expect_activations_as_defined(801, n_col, float_rows(random, 801, n_col));
}

TEST(ActivationQuantiser, RoundsHalfAwayFromZeroAndNothingBelowAHalf) {
  for (const int largest : {127, 32767}) {  // the scale is 1
    Vector<float> row = {static_cast<float>(largest)};
    for (int n = -largest; n < largest; ++n) {
      const float tie = static_cast<float>(n) + 0.5f;
      for (const float x : {tie, std::nextafterf(tie, 1e9f), std::nextafterf(tie, -1e9f)}) row.push_back(x);
    }
    expect_activations_as_defined(1, row.size(), row);
  }
}

TEST(ActivationQuantiser, QuantisesEdgeRowsAsDefined) {
  const Vector<float> rows[] = {{0, -0.0f, 0},  // and ties, NaN that is passed over, and what no scale or inverse fits
                                {127, 0.5f, -0.5f, 2.5f, -2.5f, 0.49999997f},
                                {nan, 127, -nan, -3},
                                {1, infinity, -5, nan},
                                {nan, nan},
                                {0x1p-140f, 0, -0x1p-140f},
                                {0x1p-149f, -0x1p-149f}};
  for (const Vector<float>& row : rows) expect_activations_as_defined(1, row.size(), row);
}

// ---- Weights

TEST(WeightQuantiser, GivesWhatIsDefinedForEveryShapeAndKindOfRow) {
  test::Random random(32);
  for (const auto& [n_row, n_col] : shapes)
    for (int round = 0; round < 8; ++round) expect_weights_as_defined(n_row, n_col, half_rows(random, n_row, n_col));
}

// Where a second rounding would tell: zero points next to a tie, and all halves between two bounds.
TEST(WeightQuantiser, RoundsOnceAStep) {
  constexpr uint16_t maxima[] = {0x1c75, 0x1aae, 0x1eaf}, minima[] = {0x8655, 0x8767, 0x8b67};
  Vector<uint16_t> rows;
  for (size_t r = 0; r < 16; ++r) rows.insert(rows.end(), {maxima[r % 3], minima[r / 3 % 3]});
  expect_weights_as_defined(16, 2, rows);
  test::Random random(33);
  for (int round = 0; round < 24; ++round) {
    const auto max = static_cast<uint16_t>(0x2000 + random.bits() % 0x4000);
    const auto min = static_cast<uint16_t>(round % 2 ? 0x8000 + random.bits() % max : random.bits() % max);
    Vector<uint16_t> row;
    for (uint32_t half = min & 0x8000 ? 0 : min; half <= max; ++half) row.push_back(static_cast<uint16_t>(half));
    for (uint32_t half = min; half > 0x8000; --half) row.push_back(static_cast<uint16_t>(half));
    expect_weights_as_defined(1, row.size(), row);
  }
}

TEST(WeightQuantiser, QuantisesEdgeRowsAsDefined) {
  const Vector<uint16_t> rows[] = {
      {0x8000, 0, 0x8000},  // constant; then the whole range, NaN and infinities
      {0, 0x5bf8, 0x3c00, 0x5800},
      {0xd800, 0x57f0, 0, 0x4100},
      {0x7d01, 0x3c00},
      {0, 0xfe00, 0x5bf8},
      {0, 0x7c00, 0x3c00},
      {0xfc00, 0x7c00, 0x3c00},
      {0x7c00, 0x7c00},
      {0x8001, 0x0100, 0},  // an inverse that overflows, without and with a zero point that is NaN
      {0, 0x0100},
      {0, 0x1800, 0x1700, 0x1000, 0x0800, 0x1400, 0x1200, 0x1600}};
  for (const Vector<uint16_t>& row : rows) expect_weights_as_defined(1, row.size(), row);
}

TEST(WeightQuantiser, OrsFourBitZeroPointsOfWholeGroupsOfEightRows) {
  const uint64_t n_row = 12, n_col = 12;
  const Vector<uint16_t> src(n_row * n_col, 0x3c00);  // zero points of -8
  Vector<uint32_t> q(n_row, 99), zero_points = {0x11111111, 0x22222222};
  Vector<uint16_t> scales(n_row);
  Vector<int32_t> sums(n_row);
  tavik_f16_rm_to_i4_rm(n_row, n_col, src.data(), q.data(), zero_points.data(), scales.data(), sums.data());
  EXPECT_EQ(zero_points, (Vector<uint32_t>{0x99999999, 0x22222222}));
}

TEST(WeightQuantiser, NibblesAreSigned) {
  for (int byte = 0; byte < 256; ++byte)
    EXPECT_EQ(int4_to_int8(static_cast<uint8_t>(byte)), (byte & 15) < 8 ? (byte & 15) : (byte & 15) - 16);
}

// ---- Results

struct Result {
  int32_t n_row, n_col, n_inner;
  Vector<int32_t> acc, sums, column_sums;
  Vector<float> scales;
  Vector<int8_t> zero_points;
  Vector<uint16_t> column_scales;
};
Result result_of(test::Random& random, int32_t n_row, int32_t n_col, bool any_scale) {
  const auto rows = static_cast<size_t>(n_row), columns = static_cast<size_t>(n_col);
  Result result{n_row, n_col, static_cast<int32_t>(random.bits()), {}, {}, {}, {}, {}, {}};
  result.acc = random.any<int32_t>((rows + 63) / 64 * (columns / 32) * 2048);
  result.scales = any_scale ? random.any<float>(rows) : random.values(rows);
  result.sums = random.any<int32_t>(rows);
  result.zero_points = random.any<int8_t>(columns);
  result.column_scales = random.any<uint16_t>(columns);
  for (uint16_t& scale : result.column_scales)
    if (!any_scale) scale &= 0xbfff;
  result.column_sums = random.any<int32_t>(columns);
  if (!any_scale && n_row > 0 && n_col > 0) result.scales[0] = 0x1p120f, result.column_scales[0] = 0;  // infinity * 0
  if (any_scale && n_row > 2 && n_col >= 32) {  // products that are no number
    result.acc.assign(result.acc.size(), 0);
    result.column_sums.assign(columns, 0);
    result.scales[0] = infinity, result.scales[1] = -nan;
    result.sums[0] = result.n_inner = 0;
  }
  return result;
}
Vector<float> expected_result(const Result& a, const Vector<int8_t>& zero_points) {
  Vector<float> out(static_cast<size_t>(a.n_row) * static_cast<size_t>(a.n_col), -7);
  const auto columns = static_cast<uint64_t>(a.n_col);
  for (uint64_t i = 0; i < static_cast<uint64_t>(a.n_row); ++i)
    for (uint64_t j = 0; j < columns / 32 * 32; ++j) {
      out[i * columns + j] =
          test::dequantised(a.acc[place_in_tall_tiles(i, j, columns / 32 * 32)], a.n_inner, {a.scales[i], a.sums[i]},
                            {zero_points[j], a.column_scales[j], a.column_sums[j]});
    }
  return out;
}
Vector<float> dequantised(const Result& a, auto routine, const auto& zero_points) {
  Vector<float> out(static_cast<size_t>(a.n_row) * static_cast<size_t>(a.n_col), -7);
  routine(a.n_row, a.n_col, a.n_inner, out.data(), a.acc.data(), a.scales.data(), a.sums.data(), zero_points.data(),
          a.column_scales.data(), a.column_sums.data());
  return out;
}

TEST(Dequantiser, GivesWhatIsDefinedInEveryShape) {
  test::Random random(34);
  const std::pair<int32_t, int32_t> result_shapes[] = {{0, 32},  {1, 31},  {1, 32},   {7, 64},     {63, 96},
                                                       {64, 48}, {65, 72}, {130, 40}, {520, 1056}, {520, 1060}};
  for (const auto& [n_row, n_col] : result_shapes)
    for (const bool any_scale : {false, true}) {
      SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
      const Result a = result_of(random, n_row, n_col, any_scale);
      EXPECT_TRUE(
          same_bits(dequantised(a, tavik_a8w8_output_to_f32_rm, a.zero_points), expected_result(a, a.zero_points)));
      Vector<int8_t> nibbles;
      for (const int8_t z : a.zero_points) nibbles.push_back(int4_to_int8(static_cast<uint8_t>(z)));
      EXPECT_TRUE(
          same_bits(dequantised(a, tavik_a8w4_output_to_f32_rm, packed(a.zero_points)), expected_result(a, nibbles)));
    }
}

// One digest over large inputs of every class for every routine; the same on every platform and vector backend.
TEST(QuantiseDigest, IsTheSameEverywhere) {
  test::Random random(36);
  const uint64_t n_row = 264, n_col = 1001;
  const Vector<float> activation = float_rows(random, n_row, n_col);
  Vector<uint8_t> high(n_row * n_col), low = high, tiles(5 * 32 * 2048);
  Vector<float> scales(n_row);
  Vector<uint32_t> sums(n_row), words(n_row * n_col / 8), zeros(n_row / 8);
  uint64_t digest = 0;
  const auto add = [&digest](const auto&... values) { ((digest = test::digest(values, digest)), ...); };
  tavik_f32_rm_to_u8_rm(n_row, n_col, activation.data(), high.data(), scales.data(), sums.data());
  add(high, scales, sums);
  tavik_f32_rm_to_u8_ah(n_row, n_col, activation.data(), tiles.data(), scales.data(), sums.data());
  add(tiles, scales, sums);
  tavik_f32_rm_to_u16_rm(n_row, n_col, activation.data(), high.data(), low.data(), scales.data(), sums.data());
  add(high, low, scales, sums);

  const Vector<uint16_t> weights = half_rows(random, n_row, n_col);
  Vector<int8_t> q(n_row * n_col), zero_points(n_row);
  Vector<uint16_t> scales_w(n_row);
  Vector<int32_t> sums_w(n_row);
  tavik_f16_rm_to_i8_rm(n_row, n_col, weights.data(), q.data(), zero_points.data(), scales_w.data(), sums_w.data());
  add(q, zero_points, scales_w, sums_w);
  tavik_f16_rm_to_i4_rm(n_row, n_col, weights.data(), words.data(), zeros.data(), scales_w.data(), sums_w.data());
  add(words, zeros, scales_w, sums_w);

  for (const bool any_scale : {false, true}) {
    const Result result = result_of(random, n_row, n_col, any_scale);
    add(dequantised(result, tavik_a8w8_output_to_f32_rm, result.zero_points));
    add(dequantised(result, tavik_a8w4_output_to_f32_rm, packed(result.zero_points)));
  }
  printf("digest %llu\n", static_cast<unsigned long long>(digest));
  EXPECT_EQ(digest, 1107430863417368623u);
}

}  // namespace
