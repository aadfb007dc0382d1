// The vector vocabulary, operation by operation: each against a scalar definition over special values, on the backend
// that is built. A new backend is finished when these tests pass. Memory is guarded: an operation that reads or writes
// more than its vector ends the test.
#include "simd/simd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <numeric>

#include "tests/definitions.h"

namespace {

namespace simd = morun::simd;
using test::exact_fma, test::exact_product, test::exact_sum, test::is_nan, test::sign_bit, test::Vector;

constexpr float infinity = INFINITY;
constexpr float special_floats[] = {
    0,           -0.0f,        1,          -1,         0.5f,       -0.5f,    1.5f,         -2.5f,
    0.49999997f, -0.49999997f, 0x1p-149f,  -0x1p-149f, 0x1p-126f,  0x1p-25f, 0x1p-24f,     3e-8f,
    65504,       65519.9f,     65520,      -65536,     8388607.5f, -8388609, 0x1p30f,      -0x1p30f,
    0x1p127f,    -0x1p127f,    3.1415927f, 127.5f,     -128,       1e-3f,    0x1.ffcp-15f, 0x1.ffep-15f,
    2049,        2051,         infinity,   -infinity};
constexpr uint32_t nan_patterns[] = {0x7fc00000, 0xffc00000, 0x7f800001, 0xff812345, 0x7fffffff, 0x7f802000};
constexpr uint16_t special_halves[] = {0,      1,      2,      0x3ff,  0x400,  0x401,  0x1000, 0x13ff, 0x1400, 0x17ff,
                                       0x3bff, 0x3c00, 0x3c01, 0x3fff, 0x57ff, 0x6801, 0x7bfe, 0x7bff, 0x7c00, 0x7e01};

uint32_t bits_of(float value) {
  return std::bit_cast<uint32_t>(value);
}
uint16_t special_half(size_t i) {
  return static_cast<uint16_t>(special_halves[i / 2 % std::size(special_halves)] | (i % 2 ? sign_bit : 0));
}
// Every special value meets every other in some lane and some round; random ones follow.
float special_float(size_t i, bool with_nan = true) {
  constexpr size_t n = std::size(special_floats), n_nan = std::size(nan_patterns);
  const size_t at = i % (n + (with_nan ? n_nan : 0));
  return at < n ? special_floats[at] : std::bit_cast<float>(nan_patterns[at - n]);
}
constexpr size_t n_round = 400;

// Eight lanes in guarded memory.
template <class T>
struct Lanes : Vector<T> {
  explicit Lanes(const std::function<T(size_t)>& lane, size_t n = 8) : Vector<T>(n) {
    for (size_t i = 0; i < n; ++i) (*this)[i] = lane(i);
  }
  Lanes() : Vector<T>(8) {}
  auto load() const { return simd::load(this->data()); }
};
// Stores a vector in both ways and returns what they store alike.
template <class T, class V>
Vector<T> stored(const V& v, size_t n = 8) {
  Vector<T> lanes(n), streamed(n);
  simd::store(lanes.data(), v);
  simd::store_streaming(streamed.data(), v);
  simd::fence_streaming();
  EXPECT_TRUE(test::same_bits(lanes, streamed));
  return lanes;
}
// Bit by bit; where `any_nan`, one NaN is as good as another.
template <class T>
void expect_lanes(const Vector<T>& result, const std::function<T(size_t)>& lane, const char* operation,
                  bool any_nan = false) {
  const auto nan = [](T v) {
    if constexpr (std::is_same_v<T, float>) return v != v;
    if constexpr (std::is_same_v<T, uint16_t>) return is_nan(v);
    return false;
  };
  for (size_t i = 0; i < result.size(); ++i) {
    const T expected = lane(i);
    if (memcmp(&result[i], &expected, sizeof(T)) == 0 || (any_nan && nan(result[i]) && nan(expected))) continue;
    ADD_FAILURE() << operation << ", lane " << i << ": " << +result[i] << " instead of " << +expected;
    return;
  }
}
#define EXPECT_LANES(T, result, lane, ...) \
  expect_lanes<T>(                         \
      result, [&]([[maybe_unused]] size_t i) -> T { return lane; }, #result __VA_OPT__(, ) __VA_ARGS__)

class Simd : public testing::Test {
 protected:
  float random_float() { return std::ldexp(random.value(), static_cast<int>(random.bits() % 60) - 30); }
  template <class T>
  Lanes<T> any() {
    return Lanes<T>([&](size_t) { return random.any<T>(1)[0]; });
  }
  test::Random random{1};
};

TEST_F(Simd, FloatsAreMovedWholeAndToWhereTheyBelong) {
  const Lanes<float> a([](size_t i) { return special_float(34 + i); }),
      b([](size_t i) { return static_cast<float>(i); });
  EXPECT_LANES(float, stored<float>(a.load()), a[i]);
  EXPECT_LANES(float, stored<float>(simd::broadcast(-0.0f)), -0.0f);
  EXPECT_LANES(float, stored<float>(simd::broadcast_four(Lanes<float>([&](size_t i) { return a[i]; }, 4).data())),
               a[i % 4]);
  EXPECT_LANES(float, stored<float>(simd::lower_fours(a.load(), b.load())), i < 4 ? a[i] : b[i - 4]);
  EXPECT_LANES(float, stored<float>(simd::upper_fours(a.load(), b.load())), i < 4 ? a[i + 4] : b[i]);
  Vector<float> lower(4), upper(4);
  simd::store_fours(lower.data(), upper.data(), a.load());
  EXPECT_LANES(float, lower, a[i]);
  EXPECT_LANES(float, upper, a[i + 4]);
  simd::prefetch(nullptr);
  simd::prefetch_ahead(a.data(), size_t{1} << 40);
  simd::prefetch_outer(reinterpret_cast<const void*>(~uintptr_t{0}));
}

TEST_F(Simd, HalvesAreMovedWholeAndToWhereTheyBelong) {
  const Lanes<uint16_t> a = any<uint16_t>(), b = any<uint16_t>();
  EXPECT_LANES(uint16_t, stored<uint16_t>(a.load()), a[i]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::zip_low(a.load(), b.load())), (i % 2 ? b : a)[i / 2]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::zip_high(a.load(), b.load())), (i % 2 ? b : a)[4 + i / 2]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::unzip_even(a.load(), b.load())), (i < 4 ? a : b)[i % 4 * 2]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::unzip_odd(a.load(), b.load())), (i < 4 ? a : b)[i % 4 * 2 + 1]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::lower_fours(a.load(), b.load())), (i < 4 ? a : b)[i % 4]);
  EXPECT_LANES(uint16_t, stored<uint16_t>(simd::upper_fours(a.load(), b.load())), (i < 4 ? a : b)[4 + i % 4]);
}

TEST_F(Simd, WideHalvesAreGatheredAndZippedEightByEight) {
  constexpr size_t n = simd::wide_lanes_of_halves, pitch = 11;  // elements between two eights in memory
  const auto size = [](size_t n_eight) { return (n_eight - 1) * pitch + 8; };
  const auto halves = [&](size_t) { return random.any<uint16_t>(1)[0]; };
  const Lanes<uint16_t> a(halves, size(n / 8)), b(halves, size(n / 8));
  const auto load = [](const Lanes<uint16_t>& from) {
    return simd::load_eights(reinterpret_cast<const std::byte*>(from.data()), 2 * pitch);
  };
  const auto lane = [](const Lanes<uint16_t>& from, size_t i) { return from[i / 8 * pitch + i % 8]; };
  Vector<uint16_t> same(n), low(n), high(n);
  simd::store(same.data(), load(a));
  simd::store(low.data(), simd::zip_low(load(a), load(b)));
  simd::store(high.data(), simd::zip_high(load(a), load(b)));
  EXPECT_LANES(uint16_t, same, lane(a, i));
  EXPECT_LANES(uint16_t, low, lane(i % 2 ? b : a, i / 8 * 8 + i % 8 / 2));
  EXPECT_LANES(uint16_t, high, lane(i % 2 ? b : a, i / 8 * 8 + 4 + i % 8 / 2));
}

TEST_F(Simd, FloatArithmeticRoundsOnceAndSelectsAsDefined) {
  for (size_t round = 0; round < n_round; ++round) {
    const auto number = [&](size_t i) {
      return round % 2 ? random_float() : special_float(i * (round / 2 + 1) + round);
    };
    const Lanes<float> a(number), b([&](size_t i) { return number(i + 1 + round % 41); }), c(number), d(number);
    const auto A = a.load(), B = b.load(), C = c.load();
    EXPECT_LANES(float, stored<float>(simd::add(A, B)), a[i] + b[i], true);
    EXPECT_LANES(float, stored<float>(simd::multiply(A, B)), a[i] * b[i], true);
    EXPECT_LANES(float, stored<float>(simd::fused_multiply_add(A, B, C)), std::fma(a[i], b[i], c[i]), true);
    EXPECT_LANES(float, stored<float>(simd::greater(A, B)), a[i] > b[i] ? a[i] : b[i]);
    EXPECT_LANES(float, stored<float>(simd::lesser(A, B)), a[i] < b[i] ? a[i] : b[i]);
    EXPECT_LANES(float, stored<float>(simd::number_or_zero(A)), a[i] == a[i] ? a[i] : 0);
    EXPECT_LANES(float, stored<float>(simd::settle_nan(A)), a[i] == a[i] ? a[i] : std::bit_cast<float>(0x7fc00000));
    const auto sum = [](const float* l) { return (l[0] + l[1]) + (l[2] + l[3]); };
    const Vector<float>* const four[] = {&a, &b, &c, &d};
    EXPECT_LANES(float, stored<float>(simd::sums_of_fours(A, B, C, d.load())), sum(four[i % 4]->data() + i / 4 * 4),
                 true);
    EXPECT_LANES(uint16_t, stored<uint16_t>(simd::narrow(A)), simd::narrow_bits(a[i]));
    // Products that are exact in f32, so that a fused operation gives the same.
    const Lanes<float> x([&](size_t i) { return simd::widen_bits(simd::narrow_bits(a[i])); }),
        y([&](size_t i) { return simd::widen_bits(simd::narrow_bits(b[i])); });
    EXPECT_LANES(float, stored<float>(simd::multiply_add(x.load(), y.load(), C)), x[i] * y[i] + c[i], true);

    const Lanes<float> in_range([&](size_t i) { return std::fabs(a[i]) < 0x1p31f ? a[i] : 0.5f; });
    EXPECT_LANES(int32_t, stored<int32_t>(simd::to_nearest(in_range.load())),
                 static_cast<int32_t>(std::round(in_range[i])));
    const Lanes<int32_t> so_far([&](size_t i) { return static_cast<int32_t>(bits_of(number(i + 3)) & 0x7fffffff); });
    const auto magnitude = [&](size_t i) { return static_cast<int32_t>(bits_of(a[i]) & 0x7fffffff); };
    const auto greatest = stored<int32_t>(simd::greater_magnitude(a.data(), so_far.load()));
    for (size_t i = 0; i < 8; ++i) {
      const int32_t expected = std::max(magnitude(i), so_far[i]);
      EXPECT_TRUE(greatest[i] == expected || (greatest[i] > 0x7f800000 && expected > 0x7f800000)) << a[i];
    }
  }
}

Vector<uint16_t> every_half() {
  Vector<uint16_t> halves(0x10000);
  std::iota(halves.begin(), halves.end(), uint16_t{0});
  return halves;
}

TEST_F(Simd, EveryHalfWidensExactlyAndNarrowsBack) {
  const Vector<uint16_t> halves = every_half();
  Vector<float> wide(halves.size());
  Vector<uint16_t> narrowed(halves.size());
  for (size_t i = 0; i < halves.size(); i += 8) {
    simd::store(&wide[i], simd::widen(simd::load(&halves[i])));
    simd::store(&narrowed[i], simd::narrow(simd::load(&wide[i])));
  }
  EXPECT_LANES(float, wide,
               test::is_nan(halves[i])
                   ? std::bit_cast<float>((halves[i] & 0x8000u) << 16 | 0x7fc00000u | (halves[i] & 0x3ffu) << 13)
                   : static_cast<float>(test::value_of(halves[i])));
  EXPECT_LANES(uint16_t, narrowed, static_cast<uint16_t>(halves[i] | (test::is_nan(halves[i]) ? 0x200 : 0)));
}

TEST_F(Simd, IntegersWrapAndCompareAndConvert) {
  constexpr int32_t notable[] = {0, 1, -1, INT32_MAX, INT32_MIN, 0x1000001, -0x1000003, 127, 1 << 30};
  for (size_t round = 0; round < n_round; ++round) {
    const Lanes<int32_t> a([&](size_t i) {
      return round % 2 ? static_cast<int32_t>(random.bits()) : notable[(i * (round + 2) + round) % std::size(notable)];
    }),
        b = any<int32_t>();
    const auto wrapped = [](uint32_t value) { return static_cast<int32_t>(value); };
    const auto u = [](int32_t value) { return static_cast<uint32_t>(value); };
    EXPECT_LANES(int32_t, stored<int32_t>(a.load()), a[i]);
    EXPECT_LANES(int32_t, stored<int32_t>(simd::add(a.load(), b.load())), wrapped(u(a[i]) + u(b[i])));
    EXPECT_LANES(int32_t, stored<int32_t>(simd::greater(a.load(), b.load())), std::max(a[i], b[i]));
    EXPECT_LANES(float, stored<float>(simd::to_float(a.load())), static_cast<float>(a[i]));
    EXPECT_EQ(simd::greatest(a.load()), *std::max_element(a.begin(), a.end()));
    EXPECT_EQ(simd::sum(a.load()),
              std::accumulate(a.begin(), a.end(), 0u, [&](uint32_t s, int32_t v) { return s + u(v); }));
  }
}

TEST_F(Simd, BytesAndNibblesArePackedAndUnpacked) {
  for (size_t round = 0; round < n_round; ++round) {
    const Vector<uint8_t> bytes = random.any<uint8_t>(32);
    const Vector<uint32_t> word = random.any<uint32_t>(1);
    const Vector<int8_t> eight = random.any<int8_t>(8);
    EXPECT_LANES(int32_t, stored<int32_t>(simd::load_i8(eight.data())), eight[i]);
    EXPECT_LANES(int32_t, stored<int32_t>(simd::load_i4(word.data())),
                 static_cast<int32_t>(word[0] >> 4 * i << 28) >> 28);
    const auto v = simd::load(bytes.data());
    EXPECT_LANES(uint8_t, stored<uint8_t>(v, 32), bytes[i]);
    EXPECT_LANES(uint8_t, stored<uint8_t>(simd::flip_top_bits(v), 32), static_cast<uint8_t>(bytes[i] + 128));
    const Lanes<int32_t> sums = any<int32_t>();
    EXPECT_EQ(simd::sum(simd::add_bytes(sums.load(), v)),
              std::accumulate(bytes.begin(), bytes.end(), simd::sum(sums.load())));
    const auto nibble = [&](size_t i) { return static_cast<uint32_t>(bytes[i] & 15); };
    Vector<uint32_t> words(4), zipped(4);
    simd::store_nibbles(words.data(), v);
    simd::store_zipped_nibbles(zipped.data(), v);
    for (size_t i = 0; i < 32; ++i) {
      EXPECT_EQ(words[i / 8] >> 4 * (i % 8) & 15, nibble(i));
      EXPECT_EQ(zipped[i / 8] >> 4 * (i % 4 * 2 + i / 4 % 2) & 15, nibble(i));
    }
    // Four vectors of integers to 32 bytes.
    const auto pack = [&](int32_t low, int32_t high, const char* name, auto operation, auto lane) {
      std::vector<Lanes<int32_t>> q;
      for (int i = 0; i < 4; ++i)
        q.emplace_back([&](size_t) {
          const auto bits = static_cast<int32_t>(random.bits() % static_cast<uint64_t>(high - low + 1));
          return random.bits() % 8 == 0 ? (random.bits() % 2 ? low : high) : low + bits;
        });
      expect_lanes<uint8_t>(
          stored<uint8_t>(operation(q[0].load(), q[1].load(), q[2].load(), q[3].load()), 32),
          [&](size_t i) { return static_cast<uint8_t>(lane(q[i / 8][i % 8])); }, name);
    };
    pack(
        -128, 127, "pack_bytes", [](auto... q) { return simd::pack_bytes(q...); }, [](int32_t x) { return x; });
    pack(
        -32768, 32767, "low", [](auto... q) { return simd::pack_low_bytes(q...); }, [](int32_t x) { return x; });
    pack(
        -32768, 32767, "high", [](auto... q) { return simd::pack_high_bytes(q...); }, [](int32_t x) { return x >> 8; });
  }
}

TEST_F(Simd, ScaledFloatsBecomeBytesAsRoundedOneByOne) {
  for (const float factor : {1.0f, 0.037f, 1e-6f, 0x1p100f})
    for (size_t round = 0; round < n_round; ++round) {
      const Lanes<float> values(
          [&](size_t) {
            const auto whole = static_cast<float>(static_cast<int>(random.bits() % 254) - 127);
            const float product = random.bits() % 4        ? 127 * random.value()
                                  : std::fabs(whole) < 127 ? whole + 0.5f
                                                           : whole;
            return std::fabs(product / factor * factor) <= 127 ? product / factor : 0;
          },
          32);
      const auto bytes = stored<uint8_t>(simd::scale_to_bytes(values.data(), simd::broadcast(factor)), 32);
      EXPECT_LANES(uint8_t, bytes, static_cast<uint8_t>(static_cast<int>(std::round(values[i] * factor))));
    }
}

TEST_F(Simd, WordsAreTransposedAndTheirNibblesZipped) {
  for (const size_t from : {32, 36, 100})
    for (const size_t to : {32, 44, 128}) {
      const Vector<uint8_t> source = random.any<uint8_t>(7 * from + 32);
      const auto* const bytes = reinterpret_cast<const std::byte*>(source.data());
      const auto row = [&](size_t i) { return bytes + i * from; };
      for (const int form : {0, 1, 2}) {
        Vector<uint8_t> target(7 * to + 32, 0x5a), expected = target;
        auto* const out = reinterpret_cast<std::byte*>(target.data());
        if (form == 0) simd::transpose_words(row, out, to);
        if (form == 1) simd::transpose_words(bytes, from, out, to);
        if (form == 2) simd::transpose_zip_nibbles(row, out, to);
        for (size_t r = 0; r < 8; ++r)
          for (size_t c = 0; c < 8; ++c) {
            uint32_t word, zipped = 0;
            memcpy(&word, &source[r * from + 4 * c], 4);
            for (size_t n = 0; n < 8; ++n) zipped |= (word >> 4 * n & 15) << 4 * (n % 4 * 2 + n / 4);
            memcpy(&expected[c * to + 4 * r], form == 2 ? &zipped : &word, 4);
          }
        EXPECT_EQ(target, expected) << form;
      }
    }
}

TEST_F(Simd, WideVectorsMultiplyAndAddInEveryLane) {
  for (size_t round = 0; round < n_round; ++round) {
    const auto half = [&](size_t i) { return simd::widen_bits(special_half(i)); };  // so that products are exact
    const Lanes<float> a([&](size_t i) { return half(7 * i + round); }, simd::wide_lanes),
        c([&](size_t i) { return round % 2 ? random_float() : special_float(i * (round / 2 + 1) + round); },
          simd::wide_lanes);
    const float b = half(round / 3);
    Vector<float> sums(simd::wide_lanes);
    simd::store(sums.data(),
                simd::multiply_add(simd::load_wide(a.data()), simd::broadcast_wide(b), simd::load_wide(c.data())));
    EXPECT_LANES(float, sums, a[i] * b + c[i], true);
  }
}

TEST_F(Simd, WideVectorsTakeTheirFoursFromWhereTheyBelong) {
  constexpr size_t n = simd::wide_lanes / 4;
  const Lanes<float> four([](size_t i) { return static_cast<float>(i) + 0.5f; }, 4);
  Vector<float> same(4 * n), first(4 * n), second(4 * n);
  simd::store(same.data(), simd::broadcast_four_wide(four.data()));
  EXPECT_LANES(float, same, four[i % 4]);
  std::array<Lanes<uint16_t>, n> eights;
  const uint16_t* columns[n];
  for (size_t i = 0; i < n; ++i) {
    for (uint16_t& half : eights[i]) half = static_cast<uint16_t>(random.bits() & 0xbfff);
    columns[i] = eights[i].data() - 3;
  }
  simd::wide_f32 lower, upper;
  simd::widen_eights(columns, 3, lower, upper);
  simd::store(first.data(), lower);
  simd::store(second.data(), upper);
  EXPECT_LANES(float, first, simd::widen_bits(eights[i / 4][i % 4]));
  EXPECT_LANES(float, second, simd::widen_bits(eights[i / 4][4 + i % 4]));
}

TEST_F(Simd, EveryHalfIsScaledAndRoundedToAByte) {
  const Vector<uint16_t> halves = every_half();
  Vector<simd::scaled_halves> scaled(halves.size() / 32);
  Vector<uint8_t> bytes(halves.size());
  constexpr uint16_t one = 0x3c00, third = 0x3555, large = 0x5bf7, least = 1, infinite = 0x7c00, minus_two = 0xc000;
  constexpr uint16_t zero = 0, three = 0x4200, top = 0x57f0, bottom = 0xd800;
  for (const uint16_t factor : {one, third, large, least, infinite, minus_two, uint16_t{0x2e8b}, uint16_t{0x3bff}})
    for (const uint16_t addend : {zero, three, top, bottom}) {
      SCOPED_TRACE(testing::Message() << factor << ", " << addend);
      simd::in_half_arithmetic([&] {
        const simd::half_scaler scaler(factor, addend);
        for (size_t i = 0; i < halves.size(); i += 32) scaler.scale(&halves[i], scaled[i / 32]);
      });
      for (const auto& bounds : {std::pair{-128.0f, 127.0f}, {-8.0f, 7.0f}}) {
        const float low = bounds.first, high = bounds.second;
        for (size_t i = 0; i < halves.size(); i += 32)
          simd::store(&bytes[i], simd::round_scaled(scaled[i / 32], low, high));
        const auto value = [&](size_t i) { return simd::widen_bits(simd::half_fma(halves[i], factor, addend)); };
        EXPECT_LANES(uint8_t, bytes,
                     static_cast<uint8_t>(value(i) != value(i) ? 0 : std::lround(std::clamp(value(i), low, high))));
      }
    }
}

TEST_F(Simd, ExtremesOfHalvesAreFound) {
  Vector<uint16_t> halves(32);
  Vector<float> min(8), max(8);
  for (uint32_t first = 0; first < 0x10000; first += 32) {
    std::iota(halves.begin(), halves.end(), static_cast<uint16_t>(first));
    const auto value = [&](size_t i) { return simd::widen_bits(halves[i]); };
    // A tour through all places; a NaN that comes first stays.
    for (const uint16_t start : {uint16_t{0x3c00}, uint16_t{0xfe00}}) {
      simd::half_extremes extremes(start);
      std::swap(halves[first / 32 % 32], halves[0]);
      simd::include(extremes, halves.data());
      simd::store(min.data(), max.data(), extremes);
      const float least = *std::min_element(min.begin(), min.end()), most = *std::max_element(max.begin(), max.end());
      if (start == 0xfe00) {
        EXPECT_TRUE(std::all_of(min.begin(), min.end(), [](float x) { return x != x; }));
        EXPECT_TRUE(std::all_of(max.begin(), max.end(), [](float x) { return x != x; }));
        continue;
      }
      float expected_least = 1, expected_most = 1;
      for (size_t i = 0; i < 32; ++i) {
        if (value(i) < expected_least) expected_least = value(i);
        if (value(i) > expected_most) expected_most = value(i);
      }
      EXPECT_EQ(least, expected_least) << first;
      EXPECT_EQ(most, expected_most) << first;
    }
  }
}

TEST_F(Simd, NibblesOfColumnsBecomeWords) {
  const Vector<uint8_t> source = random.any<uint8_t>(7 * 33 + 32);
  Vector<uint8_t> words(128);
  simd::store_nibble_columns(words.data(), [&](size_t i) { return source.data() + 33 * i; });
  for (size_t c = 0; c < 32; ++c)
    for (size_t r = 0; r < 8; ++r)
      EXPECT_EQ(words[4 * c + r % 4] >> r / 4 * 4 & 15, source[33 * r + c] & 15) << r << " " << c;
}

// Columns in all lanes, times one row.
template <int bit, int n_bit>
void check_dots(test::Random& random) {
  constexpr size_t n_row = 32, n_column = simd::wide_lanes, n = sizeof(uint32_t) / sizeof(simd::dot_element);
  const auto bytes = [&](size_t count) {
    Vector<uint8_t> values = random.any<uint8_t>(count);
    for (uint8_t& value : values)
      if (random.bits() % 4 == 0) value = std::array<uint8_t, 4>{0, 0x7f, 0x88, 0xff}[random.bits() % 4];
    return values;
  };
  const Vector<uint8_t> row = bytes(n_row);
  Vector<simd::dot_element> staged(n_row), panel(n_row * n_column);
  simd::stage_row(row.data(), staged.data());
  const Vector<int32_t> before = random.any<int32_t>(n_column);
  Vector<int32_t> expected = before, result(n_column);
  for (size_t column = 0; column < n_column; column += 4) {
    const Vector<uint8_t> weights = bytes(4 * n_row);
    simd::stage_columns<bit, n_bit>(weights.data(), panel.data() + column * n, n_column * n);
    for (size_t i = 0; i < 4 * n_row; ++i) {
      const int field = weights[i] >> bit & ((1 << n_bit) - 1),
                weight = field >> (n_bit - 1) ? field - (1 << n_bit) : field;
      int32_t& sum = expected[column + i % 4];
      sum = static_cast<int32_t>(sum + int64_t{row[i / 4]} * weight);
    }
  }
  auto sums = simd::load_wide(before.data());
  for (size_t k = 0; k < n_row; k += n)
    sums =
        simd::multiply_add(simd::load_dots(panel.data() + k * n_column), simd::broadcast_dots(staged.data() + k), sums);
  simd::store(result.data(), sums);
  EXPECT_EQ(result, expected) << bit << ' ' << n_bit;
}

TEST_F(Simd, DotProductsOfBytesAndNibblesAreExact) {
  for (size_t round = 0; round < n_round; ++round) {
    check_dots<0, 8>(random);
    check_dots<0, 4>(random);
    check_dots<4, 4>(random);
  }
}

// ---- Half arithmetic

struct Triple {
  uint16_t a, b, c;
};

// Collects triples and compares many at a time, in every form that a half multiply-add has.
class Comparison {
 public:
  void add(Triple t) {
    a_[count_] = t.a, b_[count_] = t.b, c_[count_] = t.c;
    if (++count_ == n) compare();
  }
  size_t n_double_rounded() const { return n_double_rounded_; }

 private:
  static constexpr size_t n = 32;
  using Halves = Vector<uint16_t>;

  void compare() {
    count_ = 0;
    for (size_t i = 0; i < n; i += 8) {
      const simd::f16x8 a = simd::load(&a_[i]), b = simd::load(&b_[i]), c = simd::load(&c_[i]);
      simd::store(&anywhere_[i], simd::multiply_add(a, b, c));
      simd::store(&sum_[i], simd::add(a, c));
      simd::store(&product_[i], simd::multiply(a, b));
    }
    simd::in_half_arithmetic([&] {
      simd::half8x4_sum total = simd::load_half8x4_sum(c_.data());
      simd::accumulate(total, simd::load_half8x4(a_.data()), simd::load_half8x4(b_.data()));
      simd::store(accumulated_.data(), total);
    });
    for (size_t i = 0; i < n; ++i) {
      const uint16_t expected = exact_fma(a_[i], b_[i], c_[i]);
      expect(i, "half_fma", simd::half_fma(a_[i], b_[i], c_[i]), expected);
      expect(i, "multiply_add", anywhere_[i], expected);
      expect(i, "accumulate", accumulated_[i], expected);
      expect(i, "add", sum_[i], exact_sum(a_[i], c_[i]));
      expect(i, "multiply", product_[i], exact_product(a_[i], b_[i]));
      const float twice = simd::widen_bits(a_[i]) * simd::widen_bits(b_[i]) + simd::widen_bits(c_[i]);
      n_double_rounded_ += !is_nan(expected) && simd::narrow_bits(twice) != expected;
    }
  }
  void expect(size_t i, const char* operation, uint16_t result, uint16_t expected) {
    if (result == expected || (is_nan(result) && is_nan(expected))) return;
    if (n_wrong_++ < 10)
      ADD_FAILURE() << std::hex << operation << " of " << a_[i] << ' ' << b_[i] << ' ' << c_[i] << ": " << result
                    << " instead of " << expected;
  }

  Halves a_ = Halves(n), b_ = a_, c_ = a_, anywhere_ = a_, accumulated_ = a_, sum_ = a_, product_ = a_;
  size_t count_ = 0, n_wrong_ = 0, n_double_rounded_ = 0;
};

// Zeros, subnormals, powers of two and their neighbours, the largest, infinity and NaN, with every other value. Each pair
// of factors meets one addend in 101, from a start of its own.
TEST(HalfMultiplyAdd, IsExactForNotableFactorsAndManyAddends) {
  Comparison comparison;
  uint32_t start = 0;
  for (size_t i = 0; i < 2 * std::size(special_halves); i += 2)
    for (size_t j = i; j < 2 * std::size(special_halves); j += 7, ++start)
      for (uint32_t any = start % 101; any < 0x10000; any += 101) {
        const uint16_t a = special_half(i), b = special_half(j), c = static_cast<uint16_t>(any);
        comparison.add({a, b, c});
        if (i % 3 == 0) comparison.add({c, a, b});
      }
}

// Where rounding to f32 first, then to f16, goes wrong: products just beside half of the addend's last place; and where
// the sum cancels, or crosses the border to the subnormals or to infinity.
TEST(HalfMultiplyAdd, IsExactBesideTiesAndUnderCancellation) {
  test::Random random(1);
  Comparison comparison;
  for (size_t i = 0; i < 1 << 16; ++i) {
    const uint64_t bits = random.bits();
    auto a = static_cast<uint16_t>(bits), b = static_cast<uint16_t>(bits >> 16), c = static_cast<uint16_t>(bits >> 32);
    const auto nudge = [&](uint16_t pattern) { return static_cast<uint16_t>(pattern + (bits >> 50) % 5 - 2); };
    const auto with_exponent = [](uint16_t pattern, int exponent) {
      return static_cast<uint16_t>((pattern & 0x83ff) | std::clamp(exponent, 0, 31) << 10);
    };
    const int exponent_c = c >> 10 & 0x1f;
    const uint64_t kind = bits >> 61;
    if (kind == 0) c = nudge(exact_product(a, b) ^ sign_bit);
    if (kind == 1) a = with_exponent(a & 0x8003, exponent_c - 11), b = nudge(0x3c00);
    if (kind == 2)  // (1 + m) * (1 - m) times half the last place
      a = with_exponent(a & 0x8007, exponent_c - 11), b = static_cast<uint16_t>(0x3c00 - 2 * (a & 7));
    if (kind == 3)  // a product of twelve bits, and an addend far below
      a = with_exponent(a & 0x80ff, 20 + a % 8), b = 0x3e00, c &= 0x83ff;
    if (kind == 4) a = with_exponent(a, 0), b = with_exponent(b, 14), c &= 0x8fff;
    if (kind == 5) a = with_exponent(a & 0x8003, 15 + b % 12), b = nudge(0x3c00), c = nudge((c & sign_bit) | 0x7bfd);
    comparison.add({a, b, c});
  }
  EXPECT_GT(comparison.n_double_rounded(), 3'250u);  // the triples are hard ones
}

TEST_F(Simd, HalfSumsAreBroadcastAndWidened) {
  const Lanes<uint16_t> a([](size_t i) { return special_half(i); }, 32),
      c([](size_t i) { return special_half(7 * i); }, 32), b([](size_t i) { return special_half(11 * i); });
  Vector<uint16_t> zeros(32);
  Vector<float> sums(32);
  simd::in_half_arithmetic([&] {
    simd::half8x4_sum total = simd::load_half8x4_sum(c.data());
    simd::accumulate(total, simd::load_half8x4(a.data()), simd::broadcast_half8x4(b.data()));
    simd::store(sums.data(), total);
    simd::store(zeros.data(), simd::half8x4_sum{});
  });
  EXPECT_LANES(float, sums, simd::widen_bits(exact_fma(a[i], b[i % 8], c[i])), true);
  EXPECT_LANES(uint16_t, zeros, 0);
}

TEST(HalfArithmetic, KeepsItsRoundingToItself) {
  volatile float one = 1, little = 0x1.8p-24f;
  uint16_t halves[32];
  EXPECT_EQ(one + little, 1 + 0x1p-23f);
  simd::in_half_arithmetic([&] { simd::store(halves, simd::half8x4_sum{}); });
  EXPECT_EQ(one + little, 1 + 0x1p-23f);
}

}  // namespace
