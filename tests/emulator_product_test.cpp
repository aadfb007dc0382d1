// The software matrix unit, method by method: its sums, its tiles, and what of the shared buffers it touches. What it
// refuses stands in tests/transcripts/EmulatorProducts.txt.
#include <sched.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <ctime>

#include "simd/scalar.h"
#include "tests/definitions.h"
#include "tests/emulator_session.h"

namespace {

namespace simd = morun::simd;
using namespace test;

// The methods of a kind of product follow one another.
struct MatrixFormat {
  uint32_t mm, twofold = mm + 2;
  size_t X_bits, W_bits, A_bits;
};
constexpr MatrixFormat f16{.mm = 9, .X_bits = 16, .W_bits = 16, .A_bits = 16};
constexpr MatrixFormat a8w8{.mm = 14, .X_bits = 8, .W_bits = 8, .A_bits = 32};
constexpr MatrixFormat a8w4{.mm = 18, .X_bits = 8, .W_bits = 4, .A_bits = 32};

struct Shape {
  size_t n_row, n_col, n_inner;
};

constexpr uint8_t untouched = 0x5a;

uint32_t word(size_t n) {
  return static_cast<uint32_t>(n);
}
uint32_t fd(const Shared& shared) {
  return static_cast<uint32_t>(shared.fd);
}

class EmulatorProduct : public Emulator {
 protected:
  void SetUp() override {
    open_first();
    ASSERT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
  }
  Shared mapped(uint64_t size) {
    const Shared shared = allocate(size);
    EXPECT_EQ(first.map(shared), 0);
    std::memset(shared.address, untouched, size);
    return shared;
  }
  // The values but for the last n_missing bytes, at an offset up to which the buffer is untouched.
  template <class T>
  Shared holding(const Vector<T>& values, size_t offset = 0, size_t n_missing = 0) {
    const size_t n_byte = values.size() * sizeof(T) - n_missing;
    const Shared shared = mapped(offset + n_byte);
    if (n_byte != 0) std::memcpy(static_cast<char*>(shared.address) + offset, values.data(), n_byte);
    return shared;
  }
  // All of the buffer from an offset on.
  template <class T = uint8_t>
  static Vector<T> read(const Shared& shared, size_t offset = 0) {
    Vector<T> values((shared.size - offset) / sizeof(T));
    std::memcpy(values.data(), static_cast<char*>(shared.address) + offset, values.size() * sizeof(T));
    return values;
  }
  static bool is_untouched(const Shared& shared, size_t n_byte) {
    const auto* bytes = static_cast<const uint8_t*>(shared.address);
    return std::count(bytes, bytes + n_byte, untouched) == static_cast<ptrdiff_t>(n_byte);
  }

  // On buffers of the caller's own.
  int multiply(const MatrixFormat& kind, const Shape& s, const Shared& a, size_t a_offset, const Shared& x,
               size_t x_offset, const Shared& w, size_t w_offset) const {
    return first.invoke(kind.mm, {word(s.n_row), word(s.n_col), word(s.n_inner), fd(a), fd(x), fd(w), word(a_offset),
                                  word(x_offset), word(w_offset)});
  }

  void check_halves(const Shape& shape, const Vector<uint16_t>& X, const Vector<uint16_t>& W);
  void check_sums(const MatrixFormat& kind, const Shape& shape, bool X_is_whole, bool A_is_whole);

  Random random{1};
};

Vector<uint16_t> any_halves(Random& random, size_t count, uint32_t largest_exponent) {
  Vector<uint16_t> halves = random.any<uint16_t>(count);
  for (uint16_t& half : halves)
    half = static_cast<uint16_t>((half & 0x83ffu) | (half >> 10 & 31u) % (largest_exponent + 1) << 10);
  return halves;
}
// Rows as padding leaves them.
void clear_rows(Vector<uint16_t>& X, size_t first, const Shape& s) {
  for (size_t r = first; r < s.n_row; ++r)
    for (size_t k = 0; k < s.n_inner; ++k) X[place_in_ah(r, k, s.n_inner)] = 0;
}
// X and W are in tiles.
void EmulatorProduct::check_halves(const Shape& shape, const Vector<uint16_t>& X, const Vector<uint16_t>& W) {
  const auto& [n_row, n_col, n_inner] = shape;
  const Shared a = mapped(2 * n_row * n_col + 6), x = holding(X, 2), w = holding(W, 4);
  EXPECT_EQ(multiply(f16, shape, a, 4, x, 2, w, 4), 0);
  const Vector<uint16_t> results = read<uint16_t>(a, 4);
  size_t n_different = 0;
  for (size_t r = 0; r < n_row; ++r)
    for (size_t c = 0; c < n_col; ++c) {
      float sum = 0;
      for (size_t k = 0; k < n_inner; ++k)
        sum += simd::widen_bits(X[place_in_ah(r, k, n_inner)]) * simd::widen_bits(W[place_in_wh<2>(k, c, n_col)]);
      const uint16_t expected = simd::narrow_bits(sum), result = results[place_in_ah(r, c, n_col)];
      n_different += expected != result && !(std::isnan(sum) && std::isnan(simd::widen_bits(result)));
    }
  EXPECT_EQ(n_different, 0u) << n_row << " x " << n_col << " x " << n_inner;
  EXPECT_TRUE(is_untouched(a, 4));
  EXPECT_EQ(results.back(), 0x5a5a);
}

TEST_F(EmulatorProduct, HasTheBitsOfOrderedSumsOnAnyNumberOfThreads) {
  const Shape shapes[] = {{32, 32, 32}, {96, 160, 64}, {224, 288, 352}, {288, 320, 160}};
  cpu_set_t all, one;
  ASSERT_EQ(sched_getaffinity(0, sizeof all, &all), 0);
  CPU_ZERO(&one);
  CPU_SET(static_cast<size_t>(sched_getcpu()), &one);
  for (const auto& mask : {all, one}) {
    ASSERT_EQ(sched_setaffinity(0, sizeof mask, &mask), 0);
    for (const Shape& s : shapes)
      check_halves(s, any_halves(random, s.n_row * s.n_inner, 17), any_halves(random, s.n_inner * s.n_col, 17));
  }
  ASSERT_EQ(sched_setaffinity(0, sizeof all, &all), 0);
}

TEST_F(EmulatorProduct, HasThemWithRowsOfZerosToo) {
  const auto check = [&](const Shape& s, std::initializer_list<size_t> counts) {
    Vector<uint16_t> X = any_halves(random, s.n_row * s.n_inner, 17);
    for (const size_t n_row : counts) {
      clear_rows(X, n_row, s);
      check_halves(s, X, any_halves(random, s.n_inner * s.n_col, 17));
    }
  };
  check({96, 160, 64}, {95, 79, 16, 15, 9, 7, 2, 1, 0});
  Vector<uint16_t> X(96 * 64);
  X[place_in_ah(95, 63, 64)] = 0x3c00;  // no row is padding
  check_halves({96, 160, 64}, X, any_halves(random, 64 * 160, 17));
  check({32, 1024, 640}, {7});  // enough for two threads
}

TEST_F(EmulatorProduct, KeepsSubnormalsInfinitiesAndNaNs) {
  Vector<uint16_t> X = any_halves(random, 64 * 96, 30), W = any_halves(random, 96 * 64, 15);
  for (size_t k = 0; k < 96; ++k) {
    X[place_in_ah(1, k, 96)] = static_cast<uint16_t>(k % 7);  // subnormal results
    X[place_in_ah(2, k, 96)] = 0x8000;
    W[place_in_wh<2>(k, 3, 64)] = 0x3c00;
  }
  X[place_in_ah(5, 8, 96)] = 0x7c00;
  X[place_in_ah(6, 9, 96)] = 0x7d01;  // signalling
  X[place_in_ah(7, 10, 96)] = 0;
  W[place_in_wh<2>(10, 11, 64)] = 0xfc00;  // meets that 0
  for (const size_t n_row : {64, 40, 7, 3}) {
    clear_rows(X, n_row, {64, 64, 96});
    check_halves({64, 64, 96}, X, W);
  }
}

int weight(const MatrixFormat& kind, const Vector<uint8_t>& W, size_t k, size_t c, size_t n_col) {
  if (kind.W_bits == 8) return static_cast<int8_t>(W[place_in_wh<4>(k, c, n_col)]);
  const int nibble = W[byte_of_nibble(k, c, n_col)] >> shift_of_nibble(c) & 15;
  return nibble < 8 ? nibble : nibble - 16;
}

// With buffers that hold the last tile of activation and result in whole, or end with the last row asked for.
void EmulatorProduct::check_sums(const MatrixFormat& kind, const Shape& shape, bool X_is_whole, bool A_is_whole) {
  const auto& [n_row, n_col, n_inner] = shape;
  const size_t n_row_whole = (n_row + 63) / 64 * 64;
  const size_t n_missing = (n_row_whole - n_row) * 32;
  const Vector<uint8_t> X = random.any<uint8_t>(n_row_whole * n_inner),
                        W = random.any<uint8_t>(n_inner * n_col * kind.W_bits / 8);
  const size_t X_missing = X_is_whole || n_inner == 0 ? 0 : n_missing, A_missing = A_is_whole ? 0 : n_missing;
  const Shared x = holding(X, 1, X_missing), w = holding(W, 3);
  const Shared a = mapped(4 + 4 * (n_row_whole * n_col - A_missing));
  EXPECT_EQ(multiply(kind, shape, a, 4, x, 1, w, 3), 0);

  std::vector<int> weights;
  for (size_t k = 0; k < n_inner; ++k)
    for (size_t c = 0; c < n_col; ++c) weights.push_back(weight(kind, W, k, c, n_col));
  const size_t n_row_computed = X_missing + A_missing == 0 ? n_row_whole : n_row;
  Vector<int32_t> expected(n_row_whole * n_col, 0x5a5a5a5a);
  for (size_t r = 0; r < n_row_computed; ++r) {
    Vector<int32_t> sums(n_col);
    for (size_t k = 0; k < n_inner; ++k)
      for (size_t c = 0; c < n_col; ++c) sums[c] += X[place_in_tall_tiles(r, k, n_inner)] * weights[k * n_col + c];
    for (size_t c = 0; c < n_col; ++c) expected[place_in_tall_tiles(r, c, n_col)] = sums[c];
  }
  expected.resize(expected.size() - A_missing);
  EXPECT_TRUE(read<int32_t>(a, 4) == expected && is_untouched(a, 4))
      << kind.mm << ": " << n_row << " x " << n_col << " x " << n_inner << ", " << X_is_whole << A_is_whole;
}

TEST_F(EmulatorProduct, SumsAreExactInTheRowsThatTheBuffersHold) {
  const Shape shapes[] = {{1, 32, 32},   {7, 96, 96},   {8, 64, 288},    {31, 64, 96},  {64, 96, 32},
                          {95, 32, 288}, {100, 160, 0}, {128, 288, 544}, {320, 64, 288}};
  for (const MatrixFormat& kind : {a8w8, a8w4})
    for (const Shape& shape : shapes)
      for (const bool X_is_whole : {false, true})
        for (const bool A_is_whole : {false, true}) check_sums(kind, shape, X_is_whole, A_is_whole);
}

TEST_F(EmulatorProduct, SumsOfExtremesAreExactAndWrapOnlyPast32Bits) {
  const struct {
    const MatrixFormat& kind;
    uint8_t X, W;
    int64_t product;
    size_t n_inner;
  } cases[] = {{a8w8, 255, 0x80, 255 * -128, 4096}, {a8w8, 255, 0x7f, 255 * 127, 4096},
               {a8w4, 255, 0x88, 255 * -8, 4096},   {a8w4, 255, 0x77, 255 * 7, 4096},
               {a8w8, 255, 0xff, -255, 64},         {a8w8, 255, 0x80, 255 * -128, 65792},
               {a8w8, 255, 0x80, 255 * -128, 65824}};
  for (const auto& c : cases) {
    const Shared x = holding(Vector<uint8_t>(64 * c.n_inner, c.X)), a = mapped(4 * 64 * 32),
                 w = holding(Vector<uint8_t>(c.n_inner * 32 * c.kind.W_bits / 8, c.W));
    EXPECT_EQ(multiply(c.kind, {64, 32, c.n_inner}, a, 0, x, 0, w, 0), 0);
    const auto sum = static_cast<int32_t>(static_cast<uint32_t>(c.product * static_cast<int64_t>(c.n_inner)));
    EXPECT_EQ(read<int32_t>(a), Vector<int32_t>(64 * 32, sum)) << "case " << &c - cases;
  }
}

TEST_F(EmulatorProduct, MayOverwriteItsOperands) {
  constexpr Shape shape{64, 320, 64};  // more columns than are computed at a time
  constexpr size_t size = 1 << 18;
  for (const MatrixFormat& kind : {f16, a8w8, a8w4}) {
    const Shared original = holding(random.any<uint8_t>(size)), all = mapped(size), A1 = mapped(size);
    const auto holds = [&](const Shared& a, size_t a_offset, size_t x_offset, size_t w_offset) {
      const Shared expected = mapped(shape.n_row * shape.n_col * kind.A_bits / 8);
      EXPECT_EQ(multiply(kind, shape, expected, 0, original, x_offset, original, w_offset), 0);
      return std::memcmp(expected.address, static_cast<char*>(a.address) + a_offset, expected.size) == 0;
    };
    for (const auto& [A, X, W] : {std::array<size_t, 3>{0, 1024, size / 2}, {8192 + 4096, 0, 8192}}) {
      std::memcpy(all.address, original.address, size);
      EXPECT_EQ(multiply(kind, shape, all, A, all, X, all, W), 0);
      EXPECT_TRUE(holds(all, A, X, W)) << "method " << kind.mm << ", A at " << A;
    }
    // The first result covers the second product's activation, or its weights.
    for (const auto& [x, f] : {std::pair(all, original), std::pair(original, all)}) {
      std::memcpy(all.address, original.address, size);
      EXPECT_EQ(first.invoke(get_AX, {fd(all), fd(A1), fd(A1), fd(x)}), 0);
      EXPECT_EQ(first.invoke(kind.twofold, {64, 320, 64, fd(original), fd(f), 8192, 0}), 0);
      EXPECT_TRUE(holds(all, 0, 0, 8192) && holds(A1, 0, 0, 0)) << "method " << kind.twofold;
      EXPECT_EQ(first.invoke(put_AX), 0);
    }
  }
}

// A walk over all rows would take minutes under instrumentation, and seconds without.
TEST_F(EmulatorProduct, OfNothingWalksOverNoRows) {
  const Shared all = mapped(64);
  const auto begin = std::clock();
  for (const MatrixFormat& kind : {f16, a8w8, a8w4})
    EXPECT_EQ(multiply(kind, {0xffffffe0, 0, 0}, all, 0, all, 0, all, 0), 0);
  EXPECT_LT(std::clock() - begin, 2 * CLOCKS_PER_SEC);
}

}  // namespace
