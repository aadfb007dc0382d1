// The reference products against exact half arithmetic: sums in their order, each step rounded once.
#include <bit>
#include <cstdio>

#include "simd/scalar.h"
#include "tests/data.h"
#include "tests/exact_half.h"
#include "tests/support.h"

namespace {

using test::Vector;

namespace simd = morun::simd;
using test::exact_fma, test::exact_product, test::exact_sum, test::is_nan, test::last_error, test::sign_bit;

// ---- Products, as their declarations tell them

using Halves = Vector<uint16_t>;

float settled(float value) {
  return value == value ? value : std::bit_cast<float>(0x7fc00000u);
}
float wide_sum_of_eight(const Halves& l) {
  const auto v = [&](size_t i) { return simd::widen_bits(l[i]); };
  return settled(((v(0) + v(4)) + (v(1) + v(5))) + ((v(2) + v(6)) + (v(3) + v(7))));
}
float half_sum_of_sixteen(const Halves& l) {
  uint16_t u[4];
  for (size_t i = 0; i < 4; ++i) u[i] = exact_sum(exact_sum(l[i], l[i + 8]), exact_sum(l[i + 4], l[i + 12]));
  return settled(simd::widen_bits(exact_sum(exact_sum(u[0], u[1]), exact_sum(u[2], u[3]))));
}

struct Matrices {
  uint64_t n_row, n_col, n_inner;
  Halves a, w;

  uint16_t a_at(uint64_t r, uint64_t k) const { return a[r * n_inner + k]; }
  uint16_t w_at(uint64_t k, uint64_t c) const { return w[c / 4 * 4 * n_inner + k / 8 * 32 + c % 4 * 8 + k % 8]; }
  Halves half_sums(uint64_t r, uint64_t c, size_t n_sums) const {
    Halves sums(n_sums);
    for (uint64_t k = 0; k < n_inner / n_sums * n_sums; ++k)
      sums[k % n_sums] = exact_fma(a_at(r, k), w_at(k, c), sums[k % n_sums]);
    return sums;
  }
  float of_block(uint64_t r, uint64_t c) const { return wide_sum_of_eight(half_sums(r, c, 8)); }
  float of_row(uint64_t r, uint64_t c) const { return half_sum_of_sixteen(half_sums(r, c, 16)); }
  float of_block_in_floats(uint64_t r, uint64_t c) const {
    float l[4] = {};
    for (uint64_t k = 0; k < n_inner / 8 * 8; ++k)
      l[k % 4] += simd::widen_bits(a_at(r, k)) * simd::widen_bits(w_at(k, c));  // the product is exact
    return settled((l[0] + l[1]) + (l[2] + l[3]));
  }
  float of_odd_column(uint64_t r, uint64_t c) const {
    float sum = 0;
    for (uint64_t k = 0; k < n_inner; ++k) sum += simd::widen_bits(exact_product(a_at(r, k), w[c * n_inner + k]));
    return settled(sum);
  }
  float at(uint64_t r, uint64_t c) const {
    if (c / 4 * 4 + 4 > n_col) return of_odd_column(r, c);
    return r / 4 * 4 + 4 > n_row ? of_row(r, c) : of_block(r, c);
  }
  Vector<float> product() const {
    Vector<float> result;
    for (uint64_t r = 0; r < n_row; ++r)
      for (uint64_t c = 0; c < n_col; ++c) result.push_back(at(r, c));
    return result;
  }
};

enum class Values { ordinary, large, small, any };

Halves halves(test::Random& random, size_t count, Values values) {
  constexpr uint64_t lowest[] = {9, 20, 0}, n_exponent[] = {7, 4, 8};
  Halves halves(count);
  for (uint16_t& h : halves) {
    const uint64_t bits = random.bits(), more = bits >> 40, kind = static_cast<uint64_t>(values);
    h = static_cast<uint16_t>(bits);
    if (values != Values::any)
      h = static_cast<uint16_t>((h & 0x83ff) | (lowest[kind] + more % n_exponent[kind]) << 10);
    else if (more % 256)  // infinities and NaNs leave nothing else to see where every sum meets one
      h &= 0xbfff;
  }
  return halves;
}
Matrices matrices(test::Random& random, uint64_t n_row, uint64_t n_col, uint64_t n_inner, Values values) {
  return {n_row, n_col, n_inner, halves(random, n_row * n_inner, values), halves(random, n_col * n_inner, values)};
}

// To tell NaNs and zeros apart.
Vector<uint32_t> patterns(const Vector<float>& values) {
  Vector<uint32_t> patterns;
  for (float v : values) patterns.push_back(std::bit_cast<uint32_t>(v));
  return patterns;
}

constexpr float untouched = -7;
constexpr Values all_values[] = {Values::ordinary, Values::large, Values::small, Values::any};

struct Shape {
  uint64_t n_row, n_col, n_inner;
};
TEST(ReferenceBlocks, CoverResultsOfAnyShapeToTheLastBit) {
  test::Random random(2);
  const Shape shapes[] = {{1, 4, 32},   {2, 6, 24},  {3, 7, 32}, {4, 4, 8},    {4, 5, 7}, {5, 64, 40},
                          {6, 8, 1000}, {7, 12, 64}, {8, 6, 0},  {9, 16, 104}, {9, 9, 33}};
  for (const Shape& s : shapes)
    for (Values values : all_values) {
      SCOPED_TRACE(testing::Message() << s.n_row << " x " << s.n_col << " x " << s.n_inner << ' ' << int(values));
      const Matrices m = matrices(random, s.n_row, s.n_col, s.n_inner, values);
      Vector<float> c(s.n_row * s.n_col, untouched);
      for (uint64_t p = 0; p < 4; ++p)
        for (uint64_t q = 0; q < 18; ++q)
          dravin_math_matmul_pq(s.n_row, s.n_col, s.n_inner, p, q, c.data(), m.a.data(), m.w.data());
      EXPECT_EQ(patterns(c), patterns(m.product()));
    }
}

TEST(ReferenceBlocks, PastTheEdgesTouchNothing) {
  for (uint64_t past : {uint64_t{2}, uint64_t{1} << 62, (uint64_t{1} << 62) - 1, UINT64_MAX}) {
    dravin_math_matmul_pq(8, 8, 8, past, 0, nullptr, nullptr, nullptr);
    dravin_math_matmul_pq(8, 8, 8, 0, past, nullptr, nullptr, nullptr);
    dravin_math_matmul_pq(UINT64_MAX, 0, 8, past, past, nullptr, nullptr, nullptr);
  }
  dravin_math_matmul_pq(0, 8, 8, 0, 0, nullptr, nullptr, nullptr);
}

TEST(ReferenceKernels, AddUpInTheirOrder) {
  test::Random random(3);
  constexpr uint64_t pitch = 6;
  for (uint64_t n_inner : {0, 5, 8, 15, 16, 24, 100, 1000})
    for (Values values : all_values) {
      SCOPED_TRACE(testing::Message() << n_inner << ' ' << int(values));
      const Matrices m = matrices(random, 4, 4, n_inner, values);
      Vector<float> block(4 * pitch, untouched), in_floats = block, row(5, untouched);
      Vector<float> expected_block = block, expected_in_floats = block, expected_row = row;
      qmmbp_HxD(pitch, n_inner, block.data(), m.w.data(), m.a.data());
      qmmbp_HxD_(pitch, n_inner, in_floats.data(), m.w.data(), m.a.data());
      qdotxH(n_inner, row.data(), m.w.data(), m.a.data());
      for (uint64_t j = 0; j < 4; ++j) {
        expected_row[j] = m.of_row(0, j);
        for (uint64_t i = 0; i < 4; ++i) {
          expected_block[i * pitch + j] = m.of_block(i, j);
          expected_in_floats[i * pitch + j] = m.of_block_in_floats(i, j);
        }
      }
      EXPECT_EQ(patterns(block), patterns(expected_block));
      EXPECT_EQ(patterns(in_floats), patterns(expected_in_floats));
      EXPECT_EQ(patterns(row), patterns(expected_row));
    }
}

class ReferenceProducts : public test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    context_ = initialise();
  }
  void TearDown() override {
    clean_up(context_);
    PlatformTest::TearDown();
  }
  uint16_t* activation() const { return static_cast<uint16_t*>(context_->X); }

  tavik_context* context_ = nullptr;
  test::Random random_{4};
};

// The second rounds its floats into the cross-session buffer.
TEST_F(ReferenceProducts, TakeWeightsAsTheLayoutMakesThemAndHalvesOrFloats) {
  for (uint64_t n_row : {1, 4, 6, 19, 33}) {
    const uint64_t n_col = 96, n_inner = 64;
    const Vector<float> a = random_.values(n_row * n_inner);
    Matrices m = {n_row, n_col, n_inner, Halves(a.size()), halves(random_, n_col * n_inner, Values::ordinary)};
    tavik_f16_cm_to_f16_zb_inplace(n_col, n_inner, m.w.data());
    tavik_f32_to_f16(a.size(), a.data(), m.a.data());
    Vector<float> c(n_row * n_col + 1, untouched), d = c, expected = m.product();
    expected.push_back(untouched);
    activation()[a.size()] = 0x1234;
    EXPECT_EQ(tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(context_, n_row, n_col, n_inner, c.data(), m.a.data(), m.w.data()),
              0u);
    EXPECT_EQ(tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(context_, n_row, n_col, n_inner, d.data(), a.data(), m.w.data()),
              0u);
    EXPECT_EQ(patterns(c), patterns(expected));
    EXPECT_EQ(patterns(d), patterns(expected));
    EXPECT_EQ(Halves(activation(), activation() + a.size()), m.a);
    EXPECT_EQ(activation()[a.size()], 0x1234);
  }
}

// A program may set up a context of its own for these products. Nothing behind its record is read or written.
TEST_F(ReferenceProducts, RunOnAContextThatTheProgramMade) {
  struct {
    tavik_context context;
    char behind[256];
  } own;
  memset(&own, 0x5a, sizeof own);
  own.context = *context_;
  const Vector<float> a(64, 1.0f);
  const Halves w(32 * 64, 0x3c00);
  Vector<float> c(32);
  EXPECT_EQ(tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(&own.context, 1, 32, 64, c.data(), a.data(), w.data()), 0u);
  EXPECT_EQ(c, Vector<float>(32, 64.0f));
  for (char byte : own.behind) ASSERT_EQ(byte, 0x5a);
}

// The same on every processor.
TEST_F(ReferenceProducts, AreTheSameToTheLastBitEverywhere) {
  uint64_t hash = 0xcbf29ce484222325u;
  for (Values values : all_values)
    for (uint64_t n_row : {6, 35}) {
      const uint64_t n_col = 64, n_inner = 1024;
      const Matrices m = matrices(random_, n_row, n_col, n_inner, values);
      Vector<float> wide_a(m.a.size()), c(n_row * n_col), d = c, e(n_row * 6), f(4 * 4), g = f, h(4);
      tavik_f16_to_f32(m.a.size(), m.a.data(), wide_a.data());
      for (float& v : wide_a) v *= 1 + 0x1p-12f;
      tavik_cpu_mm_fp32_rm_fp16_rm_fp16_zb(context_, n_row, n_col, n_inner, c.data(), m.a.data(), m.w.data());
      tavik_cpu_mm_fp32_rm_fp32_rm_fp16_zb(context_, n_row, n_col, n_inner, d.data(), wide_a.data(), m.w.data());
      for (uint64_t p = 0; p < 9; ++p)
        for (uint64_t q = 0; q < 2; ++q)
          dravin_math_matmul_pq(n_row, 6, n_inner, p, q, e.data(), m.a.data(), m.w.data());
      qmmbp_HxD(4, n_inner - 3, f.data(), m.w.data(), m.a.data());
      qmmbp_HxD_(4, n_inner, g.data(), m.w.data(), m.a.data());
      qdotxH(n_inner - 3, h.data(), m.w.data(), m.a.data());
      for (const Vector<float>& results : {c, d, e, f, g, h}) hash = test::digest(results, hash);
    }
  printf("digest %llu\n", static_cast<unsigned long long>(hash));
  EXPECT_EQ(hash, 14367766271978253130u);
}

}  // namespace
