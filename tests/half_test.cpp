// Half precision: the conversions of values by classes, and the fused converters against their definitions. That every
// half widens exactly stands in simd_test.cpp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>

#include "include/tavik.h"
#include "simd/scalar.h"
#include "tests/definitions.h"

namespace {

using test::Vector;

using test::place_in_ah, test::value_of;

uint16_t narrow(float value) {
  const float in[4] = {value, value, value, value};
  uint16_t out[4];
  tavik_f32_to_f16(4, in, out);
  return out[3];
}
// Every point half-way between two neighbours, subnormals and the step to infinity included, and the floats next to it.
TEST(Half, NarrowingRoundsToNearestEven) {
  for (uint16_t lower = 0; lower < 0x7c00; ++lower) {
    const auto upper = static_cast<uint16_t>(lower + 1);
    const auto middle = static_cast<float>(0.5 * (value_of(lower) + (upper == 0x7c00 ? 65536.0 : value_of(upper))));
    for (const int sign : {0, 0x8000}) {
      const float tie = sign ? -middle : middle;
      ASSERT_EQ(narrow(tie), sign | (lower % 2 == 0 ? lower : upper));
      ASSERT_EQ(narrow(std::nextafterf(tie, 0)), sign | lower);
      ASSERT_EQ(narrow(std::nextafterf(tie, tie * 2)), sign | upper);
    }
  }
  EXPECT_EQ(narrow(3e38f), 0x7c00);
  EXPECT_EQ(narrow(1e-45f), 0);
  EXPECT_EQ(narrow(std::bit_cast<float>(0xff800001u)), 0xfe00);  // signalling NaN
}

TEST(Half, CountsAreTakenInWholeGroups) {
  Vector<float> floats(40);
  Vector<uint16_t> halves(40);
  for (size_t i = 0; i < 40; ++i) floats[i] = static_cast<float>(i) + 8, halves[i] = test::half_of(floats[i]);
  for (uint64_t count = 0; count <= 40; ++count) {
    Vector<uint16_t> narrowed(40, 7);
    Vector<float> widened(40, 7);
    tavik_f32_to_f16(count, floats.data(), narrowed.data());
    tavik_f16_to_f32(count, halves.data(), widened.data());
    for (uint64_t i = 0; i < 40; ++i) {
      ASSERT_EQ(narrowed[i], i < count / 4 * 4 ? halves[i] : 7) << count;
      ASSERT_EQ(widened[i], i < count / 8 * 8 ? floats[i] : 7.0f) << count;
    }
  }
}

// Large enough to be written past the caches, from several places of a cache line on.
TEST(Half, LargeArraysConvertAlikeAtEveryPlace) {
  constexpr uint64_t most = 700'000;
  test::Random random(7);
  const Vector<float> floats = random.values(most);
  Vector<uint16_t> halves(most);
  for (uint64_t i = 0; i < most; ++i) halves[i] = morun::simd::narrow_bits(floats[i]);
  for (const auto& [past, count] : {std::pair<uint64_t, uint64_t>{0, most - 38}, {1, most - 31}, {31, most - 33}}) {
    Vector<uint16_t> narrowed(most, 7), expected_halves = narrowed;
    Vector<float> widened(most, 7), expected_floats = widened;
    std::copy_n(halves.begin(), count / 4 * 4, expected_halves.begin() + static_cast<ptrdiff_t>(past));
    for (uint64_t i = 0; i < count / 8 * 8; ++i) expected_floats[past + i] = morun::simd::widen_bits(halves[i]);
    tavik_f32_to_f16(count, floats.data(), narrowed.data() + past);
    tavik_f16_to_f32(count, halves.data(), widened.data() + past);
    EXPECT_TRUE(narrowed == expected_halves) << past;
    EXPECT_TRUE(widened == expected_floats) << past;
  }
}

// Small and odd shapes, and one large enough to be written past the caches.
TEST(FusedConverters, TileWholeColumnsAndPairAnOddRowWithZeros) {
  test::Random random(5);
  const std::pair<uint64_t, uint64_t> shapes[] = {{0, 32},  {1, 32},  {2, 32}, {31, 64},  {32, 96},    {33, 32},
                                                  {64, 64}, {97, 48}, {5, 31}, {3, 1056}, {351, 2112}, {700, 1060}};
  for (const auto& [n_row, n_col] : shapes) {
    SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
    const uint64_t whole = n_col / 32 * 32, tiles = (n_row + 31) / 32 * (n_col / 32) * 1024;
    const Vector<float> matrix = random.values(n_row * n_col);
    Vector<uint16_t> expected(tiles, 0xeeee), converted = expected;
    for (uint64_t r = 0; r < n_row; ++r)
      for (uint64_t c = 0; c < whole; ++c) {
        expected[place_in_ah(r, c, n_col)] = morun::simd::narrow_bits(matrix[r * n_col + c]);
        if (r + 1 == n_row && r % 2 == 0) expected[place_in_ah(r, c, n_col) + 1] = 0;
      }
    tavik_f32_rm_to_f16_ah(n_row, n_col, matrix.data(), converted.data());
    EXPECT_TRUE(converted == expected);
    const size_t before = 9;  // the tiles then begin within a cache line
    Vector<uint16_t> shifted(before + tiles, 0xeeee);
    tavik_f32_rm_to_f16_ah(n_row, n_col, matrix.data(), shifted.data() + before);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), shifted.begin() + before));
    EXPECT_EQ(std::count(shifted.begin(), shifted.begin() + before, 0xeeee), before);

    Vector<float> back(n_row * n_col, -7), expected_back = back;
    for (uint64_t r = 0; r < n_row; ++r)
      for (uint64_t c = 0; c < whole; ++c)
        expected_back[r * n_col + c] = static_cast<float>(value_of(expected[place_in_ah(r, c, n_col)]));
    tavik_f16_ah_to_f32_rm(n_row, n_col, converted.data(), back.data());
    EXPECT_TRUE(back == expected_back);
  }
}

// One digest over large inputs of every class for every conversion; the same on every platform and vector backend.
TEST(HalfDigest, IsTheSameEverywhere) {
  test::Random random(6);
  const uint64_t n_row = 255, n_col = 1024;
  Vector<uint16_t> halves = random.any<uint16_t>(256 * n_col);
  Vector<float> floats = random.any<float>(n_row * n_col);  // mostly far outside the range of halves
  for (size_t i = 0; i < floats.size(); i += 2)
    floats[i] = std::ldexp(random.value(), static_cast<int>(i / 2 % 48) - 30);
  Vector<float> widened(n_row * n_col);
  tavik_f16_to_f32(widened.size(), halves.data(), widened.data());
  uint64_t digest = test::digest(widened);
  tavik_f16_ah_to_f32_rm(n_row, n_col, halves.data(), widened.data());
  digest = test::digest(widened, digest);
  tavik_f32_to_f16(floats.size(), floats.data(), halves.data());
  digest = test::digest(halves, digest);
  tavik_f32_rm_to_f16_ah(n_row, n_col, floats.data(), halves.data());
  digest = test::digest(halves, digest);
  printf("digest %llu\n", static_cast<unsigned long long>(digest));
  EXPECT_EQ(digest, 7869082167231399355u);
}

}  // namespace
