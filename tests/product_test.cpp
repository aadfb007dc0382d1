// Products with row-major activations: what they compute, in one session and in several, against small definitions, and
// what they need and leave of the cross-session buffers. What they say and refuse stands in the transcripts.
#include <array>

#include "tests/definitions.h"
#include "tests/products.h"
#include "tests/support.h"

namespace {

using products::f16, products::a8w8, products::a8w4, products::Kind, test::last_error, test::place_in_tall_tiles,
    test::Vector;

struct Shape {
  int32_t n_row, n_col, n_inner;
  uint64_t rows() const { return static_cast<uint64_t>(n_row); }
  uint64_t columns() const { return static_cast<uint64_t>(n_col); }
  uint64_t inner() const { return static_cast<uint64_t>(n_inner); }
};

// A weight matrix in a shared buffer at the end of it, its side data behind it, all without a gap.
struct Weights : products::WeightPlace {
  Vector<float> values;  // n_inner x n_col
  std::vector<test::ColumnTerms> columns;
};

constexpr uint64_t large = 3 << 19;  // bytes: a session has room for one such buffer

float widen(uint16_t half) {
  return static_cast<float>(test::value_of(half));
}
float half_precision(double value) {
  return widen(test::half_of(value));
}
uint64_t round_up(uint64_t value, uint64_t unit) {
  return (value + unit - 1) / unit * unit;
}
template <class T>
T* at(void* base, uint64_t offset) {
  return reinterpret_cast<T*>(static_cast<char*>(base) + offset);
}

class Products : public test::PlatformTest {
 protected:
  // Each limit is a number of its own, and so are the sizes of the buffers that follow from them.
  static constexpr tavik_options options = {
      .output_matrix_size_max = 3 << 14, .n_row_max = 200, .input_matrix_size_max = 5 << 14, .reserved = 0};
  void SetUp() override {
    PlatformTest::SetUp();
    test::configure([](auto& config) { config.session_bytes = 3 << 20; });
    context_ = initialise(options);
    ASSERT_EQ(tavik_lock_compute_device(context_), 0);
  }
  void TearDown() override {
    free_buffers();
    clean_up(context_);
    PlatformTest::TearDown();
  }
  void free_buffers() {
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
  }

  Weights weights(Kind kind, uint64_t n_inner, uint64_t n_col, uint64_t least_bytes = 0) {
    const uint64_t q_bytes = n_inner * n_col *
                             (kind == f16    ? 16
                              : kind == a8w8 ? 8
                                             : 4) /
                             8,
                   z_bytes = kind == f16    ? 0
                             : kind == a8w8 ? n_col
                                            : n_col / 2,
                   side = z_bytes + (kind == f16 ? 0 : 6) * n_col;
    const uint64_t size = std::max(q_bytes + side, least_bytes);
    void* base = nullptr;
    Weights w = {{static_cast<uint32_t>(allocate(context_, size, &base)), static_cast<uint32_t>(size - side - q_bytes),
                  size - side, size - 6 * n_col, size - 4 * n_col},
                 Vector<float>(n_inner * n_col),
                 {}};
    auto* const tiles = at<uint8_t>(base, w.q);
    for (uint64_t i = 0; i < w.values.size(); ++i) {
      const uint64_t k = i / n_col, c = i % n_col, bits = random_.bits();
      const auto half = test::half_of(random_.value());
      const int nibble = static_cast<int>(bits % 16), byte = static_cast<int8_t>(bits);
      w.values[i] = kind == f16    ? widen(half)
                    : kind == a8w8 ? static_cast<float>(byte)
                                   : static_cast<float>(nibble - 8);
      if (kind == f16) at<uint16_t>(tiles, 0)[test::place_in_wh<2>(k, c, n_col)] = half;
      if (kind == a8w8) tiles[test::place_in_wh<4>(k, c, n_col)] = static_cast<uint8_t>(byte);
      if (kind == a8w4) {
        uint8_t& pair = tiles[test::byte_of_nibble(k, c, n_col)];
        pair = static_cast<uint8_t>(pair | ((nibble - 8) & 15) << test::shift_of_nibble(c));
      }
    }
    for (uint64_t c = 0; c < n_col && kind != f16; ++c) {
      const uint64_t bits = random_.bits();
      const int z = kind == a8w8 ? static_cast<int8_t>(bits) : static_cast<int>(bits % 16) - 8;
      const auto scale = static_cast<uint16_t>(bits >> 8 & 0x3fff);
      const auto sum = static_cast<int32_t>(bits >> 40) - (1 << 23);
      w.columns.push_back({z, scale, sum});
      if (kind == a8w8) at<int8_t>(base, w.z)[c] = static_cast<int8_t>(z);
      if (kind == a8w4) {
        uint8_t& pair = at<uint8_t>(base, w.z)[c / 2];
        pair = static_cast<uint8_t>(pair | (z & 15) << c % 2 * 4);
      }
      memcpy(at<char>(base, w.s + 2 * c), &scale, 2);
      memcpy(at<char>(base, w.sum + 4 * c), &sum, 4);
    }
    return w;
  }

  // The second count of columns is that of the second and third result.
  uint32_t multiply(Kind kind, const Shape& s, const std::vector<Weights>& w, std::vector<Vector<float>>& a,
                    const float* x, int32_t n_col_kv = 0) {
    const std::vector<products::WeightPlace> places(w.begin(), w.end());
    products::Operands product = {s.n_row, s.n_col, n_col_kv, s.n_inner, {}, x};
    for (size_t i = 0; i < a.size(); ++i) product.A[i] = a[i].data();
    return products::multiply(context_, kind, product, places);
  }

  // With `left`, integer sums are those that a result buffer was left with, not the product's.
  Vector<float> expected(Kind kind, const Shape& s, const Weights& w, const Vector<float>& x, const int32_t* left) {
    Vector<float> result(s.rows() * s.columns()), halves = x;
    const test::QuantisedActivation a = test::quantise(s.rows(), s.inner(), x, 127, 128);
    for (float& value : halves) value = half_precision(value);
    for (uint64_t i = 0; i < result.size(); ++i) {
      const uint64_t r = i / s.columns(), c = i % s.columns();
      float sum = 0;
      int32_t acc = left ? left[place_in_tall_tiles(r, c, s.columns())] : 0;
      for (uint64_t k = 0; k < s.inner(); ++k) {
        const float weight = w.values[k * s.columns() + c];
        sum += halves[r * s.inner() + k] * weight;
        if (!left) acc += static_cast<uint8_t>(a.q[r * s.inner() + k]) * static_cast<int32_t>(weight);
      }
      result[i] = kind == f16
                      ? half_precision(sum)
                      : test::dequantised(acc, s.n_inner, {a.scales[r], static_cast<int32_t>(a.sums[r])}, w.columns[c]);
    }
    return result;
  }
  // Halves in ah; or bytes in tall tiles, then scales and sums, each from a multiple of 2048 bytes on.
  void expect_staged(Kind kind, const Shape& s, const Vector<float>& x, uint64_t behind) {
    const test::QuantisedActivation a = test::quantise(s.rows(), s.inner(), x, 127, 128);
    const uint64_t rows = round_up(s.rows(), 64), scales = round_up(rows * s.inner(), 2048),
                   sums = scales + round_up(4 * rows, 2048);
    size_t n_wrong = 0;
    for (uint64_t i = 0; i < x.size(); ++i) {
      const uint64_t r = i / s.inner(), k = i % s.inner();
      n_wrong += kind == f16 ? at<uint16_t>(context_->X, 0)[test::place_in_ah(r, k, s.inner())] != test::half_of(x[i])
                             : at<uint8_t>(context_->X, 0)[place_in_tall_tiles(r, k, s.inner())] !=
                                   static_cast<uint8_t>(a.q[i]);
    }
    EXPECT_EQ(n_wrong, 0u);
    EXPECT_EQ(*at<uint8_t>(context_->X, behind), 0x5a);
    if (kind == f16) return;
    EXPECT_EQ(memcmp(at<char>(context_->X, scales), a.scales.data(), 4 * s.rows()), 0);
    EXPECT_EQ(memcmp(at<char>(context_->X, sums), a.sums.data(), 4 * s.rows()), 0);
  }

  tavik_context* context_ = nullptr;
  test::Random random_{7};
};

// Bytes of X that a product takes; a quantised one has scales and sums there too.
uint64_t bytes_of_X(Kind kind, const Shape& s) {
  const uint64_t rows = round_up(s.rows(), 64);
  if (kind == f16) return 2 * round_up(s.rows(), 32) * s.inner();
  return round_up(rows * s.inner(), 2048) + round_up(4 * rows, 2048) + 4 * s.rows();
}

constexpr Shape shapes[] = {{1, 32, 32}, {33, 64, 96}, {64, 96, 160}, {67, 32, 64}, {193, 160, 32}};

// Where the weights are: in one session, the second and third in another one than the first, or the second alone. The
// third product runs in the session of the second, where its weights are not.
enum WeightSessions { near, far, apart };

TEST_F(Products, AreExactInOneSessionAndInSeveral) {
  constexpr int single_method[] = {10, 15, 19};
  for (const Kind kind : products::kinds)
    for (const size_t count : {1, 2, 3})
      for (const WeightSessions place : {near, far, apart})
        for (const Shape& s : shapes) {
          const bool is_far = place != near;
          if (is_far && count < (place == far ? 2 : 3)) continue;
          SCOPED_TRACE(testing::Message() << kind << ": " << count << " of " << s.n_row << " rows, place " << place);
          const Vector<float> x = random_.values(s.rows() * s.inner());
          const Shape kv = {s.n_row, count == 3 ? 64 : s.n_col, s.n_inner};
          std::vector<Weights> w;
          std::vector<Vector<float>> a;
          void* const buffers[] = {context_->A0, context_->A1, context_->A2};
          std::vector<Vector<int32_t>> left;
          for (size_t i = 0; i < count; ++i) {
            const Shape& of = i == 0 ? s : kv;
            w.push_back(weights(kind, s.inner(), of.columns(), is_far && i < 2 ? large : 0));
            a.emplace_back(of.rows() * of.columns(), -7);
            left.push_back(random_.any<int32_t>(round_up(of.rows(), 64) * of.columns()));
            memcpy(buffers[i], left[i].data(), 4 * left[i].size());
          }
          if (place == far) w.back() = w[1];
          memset(context_->X, 0x5a, context_->X_size);
          uint64_t handle = 0;
          tavik_context_get_handle_from_fd(context_, static_cast<int32_t>(w[0].fd),
                                           &handle);  // makes its session active
          parlo_emulator_trace_clear();
          ASSERT_EQ(multiply(kind, s, w, a, x.data(), kv.n_col), place == apart ? 1u : 0u) << last_error();
          const std::vector<uint64_t> invoked = test::last_invocation();
          EXPECT_EQ(invoked[0], round_up(s.rows(), kind == f16 ? 32 : 64));
          for (size_t i = 0; i < count; ++i) {
            const bool is_stale = is_far && kind == a8w8 && i > 0, is_refused = place == apart && i == 2;
            const Vector<float> untouched(a[i].size(), -7),
                result = expected(kind, i == 0 ? s : kv, w[i], x, is_stale ? left[i].data() : nullptr);
            EXPECT_TRUE(a[i] == (is_refused ? untouched : result)) << i;
          }
          expect_staged(kind, s, x, bytes_of_X(kind, s));
          if (!is_far) {
            EXPECT_EQ(test::trace(), std::vector{std::to_string(single_method[kind] + static_cast<int>(count) - 1)});
          }
          free_buffers();
        }
}

// The rows behind the last one, up to the end of the last tiles: zeros, whatever larger activations left there.
TEST_F(Products, RowsBehindTheLastOneAreZeros) {
  constexpr int32_t rows[] = {1, 1, 2, 3, 35, 67, 193};
  for (int i = 0; i < 80; ++i) {
    const Kind kind = std::array{f16, a8w8, a8w4}[random_.bits() % 3];
    const Shape s = {rows[random_.bits() % std::size(rows)], 32, static_cast<int32_t>(32 + random_.bits() % 5 * 32)};
    const uint64_t tile_rows = kind == f16 ? 32 : 64, width = kind == f16 ? 2 : 1;
    const Vector<float> x = random_.values(s.rows() * s.inner());
    std::vector<Vector<float>> a = {Vector<float>(s.rows() * s.columns())};
    ASSERT_EQ(multiply(kind, s, {weights(kind, s.inner(), s.columns())}, a, x.data()), 0u) << last_error();
    uint64_t n_stale = 0;
    for (uint64_t r = s.rows(); r < round_up(s.rows(), tile_rows); ++r)
      for (uint64_t k = 0; k < s.inner(); ++k) {
        const uint64_t place = kind == f16 ? test::place_in_ah(r, k, s.inner()) : place_in_tall_tiles(r, k, s.inner());
        const auto* const element = at<uint8_t>(context_->X, place * width);
        n_stale += element[0] != 0 || element[width - 1] != 0;
      }
    EXPECT_EQ(n_stale, 0u) << i << ": " << kind << " " << s.n_row << " x " << s.n_inner;
    free_buffers();
  }
}

// Rows that are zeros already are not cleared again, whatever the inner dimension is: a byte that is written there stays.
TEST_F(Products, RowsBehindTheLastOneAreClearedOnce) {
  const struct {
    Kind kind;
    Shape shape;
    bool clears;
  } staged[] = {{f16, {33, 32, 160}, false}, {f16, {2, 32, 160}, true},   {f16, {1, 32, 32}, false},
                {f16, {3, 32, 64}, false},   {f16, {1, 32, 160}, false},  {a8w8, {1, 32, 160}, false},
                {a8w4, {1, 32, 96}, false},  {a8w8, {1, 32, 160}, false}, {f16, {33, 32, 160}, false},
                {a8w8, {1, 32, 32}, true}};
  for (const auto& [kind, s, clears] : staged) {
    const Vector<float> x(s.rows() * s.inner(), 1.0f);
    std::vector<Vector<float>> a = {Vector<float>(s.rows() * s.columns())};
    auto* const last_of_tile = at<uint8_t>(context_->X, 2047);
    *last_of_tile = 1;
    ASSERT_EQ(multiply(kind, s, {weights(kind, s.inner(), s.columns())}, a, x.data()), 0u) << last_error();
    EXPECT_EQ(*last_of_tile == 0, clears) << kind << " " << s.n_row << " x " << s.n_inner;
    free_buffers();
  }
}

}  // namespace
