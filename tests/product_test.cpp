// Products with row-major activations and of tiles: what they compute, in one session and in several, against small
// definitions; what they leave in the cross-session buffers; what they refuse before they write anything.
#include <array>
#include <functional>

#include "tests/definitions.h"
#include "tests/support.h"

namespace {

using test::last_error, test::place_in_tall_tiles, test::Vector;

enum Kind { f16, a8w8, a8w4 };
constexpr Kind kinds[] = {f16, a8w8, a8w4};

struct Shape {
  int32_t n_row, n_col, n_inner;
  uint64_t rows() const { return static_cast<uint64_t>(n_row); }
  uint64_t columns() const { return static_cast<uint64_t>(n_col); }
  uint64_t inner() const { return static_cast<uint64_t>(n_inner); }
};

// A weight matrix in a shared buffer at the end of it, its side data behind it, all without a gap.
struct Weights {
  uint32_t fd, q;
  uint64_t z, s, sum;
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
    Weights w = {static_cast<uint32_t>(allocate(context_, size, &base)),
                 static_cast<uint32_t>(size - side - q_bytes),
                 size - side,
                 size - 6 * n_col,
                 size - 4 * n_col,
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

  // One, two or three weight matrices; the second count of columns is that of the second and third.
  uint32_t multiply(Kind kind, const Shape& s, const std::vector<Weights>& w, std::vector<Vector<float>>& a,
                    const float* x, int32_t n_col_kv = 0) {
    tavik_context* const c = context_;
    const Weights& u = w[0];
    if (w.size() == 1) {
      if (kind == f16)
        return tavik_npu_mm_f32_rm_f32_rm_f16_wh(c, s.n_row, s.n_col, s.n_inner, a[0].data(), x, u.fd, u.q);
      const auto run =
          kind == a8w8 ? tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh;
      return run(c, s.n_row, s.n_col, s.n_inner, a[0].data(), x, u.fd, u.q, u.z, u.s, u.sum);
    }
    const Weights &f = w[1], &v = w.back();
    if (w.size() == 2) {
      if (kind == f16)
        return tavik_npu_2mm_f32_rm_f32_rm_f16_wh(c, s.n_row, s.n_col, s.n_inner, a[0].data(), a[1].data(), x, u.fd,
                                                  f.fd, u.q, f.q);
      const auto run =
          kind == a8w8 ? tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh;
      return run(c, s.n_row, s.n_col, s.n_inner, a[0].data(), a[1].data(), x, u.fd, f.fd, u.q, u.z, u.s, u.sum, f.q,
                 f.z, f.s, f.sum);
    }
    if (kind == f16)
      return tavik_npu_3mm_f32_rm_f32_rm_f16_wh(c, s.n_row, s.n_col, n_col_kv, s.n_inner, a[0].data(), a[1].data(),
                                                a[2].data(), x, u.fd, f.fd, v.fd, u.q, f.q, v.q);
    const auto run =
        kind == a8w8 ? tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh;
    return run(c, s.n_row, s.n_col, n_col_kv, s.n_inner, a[0].data(), a[1].data(), a[2].data(), x, u.fd, f.fd, v.fd,
               u.q, u.z, u.s, u.sum, f.q, f.z, f.s, f.sum, v.q, v.z, v.s, v.sum);
  }
  uint32_t multiply(Kind kind, const Shape& s, const Weights& w, Vector<float>& a, const float* x) {
    std::vector<Vector<float>> results = {a};
    const uint32_t status = multiply(kind, s, std::vector{w}, results, x);
    a = results[0];
    return status;
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

// Bytes of X and of A0 that a product takes; a quantised one has scales and sums in X too.
uint64_t bytes_of_X(Kind kind, const Shape& s) {
  const uint64_t rows = round_up(s.rows(), 64);
  if (kind == f16) return 2 * round_up(s.rows(), 32) * s.inner();
  return round_up(rows * s.inner(), 2048) + round_up(4 * rows, 2048) + 4 * s.rows();
}
uint64_t bytes_of_A(Kind kind, const Shape& s) {
  return kind == f16 ? 2 * round_up(s.rows(), 32) * s.columns() : 4 * round_up(s.rows(), 64) * s.columns();
}

constexpr Shape shapes[] = {{1, 32, 32}, {33, 64, 96}, {64, 96, 160}, {67, 32, 64}, {193, 160, 32}};

// Where the weights are: in one session, the second and third in another one than the first, or the second alone. The
// third product runs in the session of the second, where its weights are not.
enum Place { near, far, apart };

TEST_F(Products, AreExactInOneSessionAndInSeveral) {
  constexpr int single_method[] = {10, 15, 19};
  for (const Kind kind : kinds)
    for (const size_t count : {1, 2, 3})
      for (const Place place : {near, far, apart})
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
            left.push_back(random_.any<int32_t>(bytes_of_A(a8w8, of) / 4));
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

TEST_F(Products, OfTilesInTheCallersBuffersCopyNothing) {
  const Shape s = {33, 96, 128};
  const Weights w = weights(f16, s.inner(), s.columns());
  const Vector<float> x = random_.values(64 * s.inner());
  void *X = nullptr, *A = nullptr;
  const auto x_fd = static_cast<uint32_t>(allocate(context_, 64 + 2 * x.size(), &X)),
             a_fd = static_cast<uint32_t>(allocate(context_, 2048 + 2 * 64 * s.columns(), &A));
  for (uint64_t i = 0; i < x.size(); ++i)
    at<uint16_t>(X, 64)[test::place_in_ah(i / s.inner(), i % s.inner(), s.inner())] = test::half_of(x[i]);
  ASSERT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 33, 96, 128, a_fd, x_fd, w.fd, 2048, 64, w.q), 0u);
  EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{64, 96, 128, a_fd, x_fd, w.fd, 2048, 64, w.q}));
  const Vector<float> sums = expected(f16, {64, 96, 128}, w, x, nullptr);
  for (uint64_t i = 0; i < sums.size(); ++i)
    ASSERT_EQ(widen(at<uint16_t>(A, 2048)[test::place_in_ah(i / 96, i % 96, 96)]), sums[i]) << i;
}

// The remote call goes to the session of the weights, whichever sessions the other buffers are in.
TEST_F(Products, RunInTheSessionOfTheirWeights) {
  const uint32_t near = weights(f16, 32, 32, large).fd, far = weights(f16, 32, 32, large).fd;
  const auto handle = [] {
    parlo_emulator_call call = {};
    for (size_t i = 0; i < parlo_emulator_trace_length(); ++i)
      if (parlo_emulator_trace_get(i, &call); call.method > 8) return call.arguments[0];
    return uint64_t{0};
  };
  const std::function<uint32_t(uint32_t w, uint32_t other)> calls[] = {
      [&](auto w, auto other) {
        return tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 1, 32, 32, other, other, w, 0, 0, 0);
      },
      [&](auto w, auto) { return tavik_npu_test(context_, 4, w); },
      [&](auto w, auto other) {
        return tavik_veyra_1mm_ui8i8_i32_tessel(context_, 1, 32, 32, other, other, w, 0, 0, 0);
      },
      [&](auto w, auto other) {
        return tavik_veyra_1mm_ui8i4_i32_tessel(context_, 1, 32, 32, other, other, w, 0, 0, 0);
      }};
  for (const auto& call : calls)
    for (const bool is_far : {false, true, false}) {
      parlo_emulator_trace_clear();
      call(is_far ? far : near, is_far ? near : far);
      EXPECT_EQ(handle(), context_->session_handle[is_far]) << "call " << &call - calls;
    }
}

TEST_F(Products, OfIntegersTakeTheirRowsAsTheyAreAndOnlyWhatFits) {
  for (const Kind kind : {a8w8, a8w4}) {
    const auto run = kind == a8w8 ? tavik_veyra_1mm_ui8i8_i32_tessel : tavik_veyra_1mm_ui8i4_i32_tessel;
    const Shape s = {67, 64, 96};
    const Weights w = weights(kind, s.inner(), s.columns());
    const Vector<uint8_t> x = random_.any<uint8_t>(128 * s.inner());
    memcpy(context_->X, x.data(), x.size());
    ASSERT_EQ(run(context_, s.n_row, s.n_col, s.n_inner, ~0u, ~0u, w.fd, 0, 0, w.q), 0u) << last_error();
    EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{67, 64, 96, w.fd, w.q}));
    for (uint64_t i = 0; i < s.rows() * s.columns(); ++i) {
      const uint64_t r = i / s.columns(), c = i % s.columns();
      int32_t sum = 0;
      for (uint64_t k = 0; k < s.inner(); ++k)
        sum += x[place_in_tall_tiles(r, k, s.inner())] * static_cast<int32_t>(w.values[k * s.columns() + c]);
      ASSERT_EQ(at<int32_t>(context_->A0, 0)[place_in_tall_tiles(r, c, s.columns())], sum) << r << ' ' << c;
    }
    // Of the last tile the rows asked for are enough.
    const uint64_t X_size = context_->X_size, A_size = context_->A_size, X_bytes = (5 * 64 + 3) * 32,
                   A_bytes = 4 * (3 * 64 + 3) * 32;
    for (const int less : {0, 1}) {
      const auto status = [&](uint64_t X, uint64_t A) {
        context_->X_size = X, context_->A_size = A;
        const uint32_t result = run(context_, s.n_row, s.n_col, s.n_inner, ~0u, ~0u, w.fd, 0, 0, w.q);
        context_->X_size = X_size, context_->A_size = A_size;
        return result;
      };
      EXPECT_EQ(status(X_bytes - static_cast<uint64_t>(less), A_size), less ? 2u : 0u);
      EXPECT_EQ(status(X_size, A_bytes - static_cast<uint64_t>(less)), less ? 2u : 0u);
    }
    EXPECT_EQ(run(context_, 1, 32, 0, ~0u, ~0u, w.fd, 0, 0, w.q), 0u);
  }
}

// ---- What is refused: in the order of the checks, and before anything is staged, sent or written.

TEST_F(Products, CheckTheirDimensionsBeforeAnything) {
  const std::string columns = "Column dimension not multiple of 32", inner = "Inner dimension not multiple of 32",
                    too_large = "Dimension(s) too large (see tavik_options to adapt)";
  struct Case {
    Shape shape;
    std::string message;  // none: passes, and the descriptor is refused
  };
  const Case cases[] = {{{1, 48, 40}, columns},
                        {{1, 64, 40}, inner},
                        {{1, 64, -40}, inner},
                        {{192, 256, 416}, ""},        // the output limit itself
                        {{192, 288, 32}, too_large},  // past it
                        {{160, 32, 512}, ""},         // the input limit itself, past the other
                        {{160, 32, 544}, too_large},  // past both
                        {{200, 32, 32}, ""},
                        {{201, 32, 32}, too_large},  // the limit of rows
                        {{-1, 32, 32}, too_large},
                        {{1, -32, 32}, too_large},
                        {{1, 32, INT32_MIN}, too_large},
                        {{1, 32, 81920}, "Activation"},  // one row fits the limit, its tiles do not fit X
                        {{1, 49152, 32}, "Result"}};     // nor its result A0
  memset(context_->X, 0x5a, context_->X_size);
  for (const Case& c : cases)
    for (const Kind kind : kinds)
      for (const size_t count : {size_t{1}, size_t{2}, size_t{3}}) {
        if (c.message.empty() && kind == a8w4 && count == 1) continue;  // looks no descriptor up
        if (&c == cases && count == 3) continue;                        // each of the three is checked in this order
        SCOPED_TRACE(testing::Message() << kind << ": " << c.shape.n_row << " x " << c.shape.n_col << " x "
                                        << c.shape.n_inner << ", " << count);
        std::vector<Vector<float>> a(count, Vector<float>(1, -7));
        const Vector<float> x(1, 1);
        parlo_emulator_trace_clear();
        // Three share the activation, and each has its columns checked.
        const Shape first = count == 3 ? Shape{c.shape.n_row, 32, c.shape.n_inner} : c.shape;
        const uint32_t status =
            multiply(kind, first, std::vector<Weights>(count, {2000, 0, 0, 0, 0, {}, {}}), a, x.data(), c.shape.n_col);
        EXPECT_EQ(status, c.message.empty() ? 1u : 2u);
        if (status == 2) {
          const bool is_result = c.message == "Result", is_padded = is_result || c.message == "Activation";
          const std::string padded = " of " + std::to_string((is_result ? bytes_of_A : bytes_of_X)(kind, c.shape)) +
                                     " bytes in whole tiles exceeds its buffer of " +
                                     std::to_string(is_result ? context_->A_size : context_->X_size) +
                                     " (see tavik_options to adapt)";
          EXPECT_EQ(last_error(false),
                    "2 mm_size_check source/host/kernels 0: " + c.message + (is_padded ? padded : ""));
        }
        for (const Vector<float>& result : a) EXPECT_EQ(result[0], -7);
        EXPECT_EQ(parlo_emulator_trace_length(), 0u);
      }
  EXPECT_EQ(*at<uint8_t>(context_->X, 0), 0x5a);
  EXPECT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 1, 64, 40, 0, 0, 0, 0, 0, 0), 2u);
  EXPECT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 1, 32, 32, 0, 0, 1024, 0, 0, 0), 1u);
}

TEST_F(Products, TakeTheCrossSessionBuffersToTheirLastByte) {
  const uint64_t X_size = context_->X_size, A_size = context_->A_size;
  for (const Kind kind : kinds)
    for (const Shape& s : {Shape{1, 32, 32}, {33, 64, 96}, {65, 32, 32}}) {
      SCOPED_TRACE(testing::Message() << kind << ": " << s.n_row);
      const Weights w = weights(kind, s.inner(), s.columns());
      const Vector<float> x = random_.values(s.rows() * s.inner());
      const auto status = [&](uint64_t X, uint64_t A) {
        context_->X_size = X, context_->A_size = A;
        Vector<float> a(s.rows() * s.columns());
        const uint32_t result = multiply(kind, s, w, a, x.data());
        context_->X_size = X_size, context_->A_size = A_size;
        return result;
      };
      const uint64_t X = bytes_of_X(kind, s), A = bytes_of_A(kind, s);
      EXPECT_EQ(status(X, A), 0u);
      EXPECT_EQ(status(X - 1, A), 2u);
      EXPECT_EQ(status(X, A - 1), 2u);
    }
}

TEST_F(Products, RefuseSideDataPastTheEndOfTheirBuffer) {
  const Shape s = {67, 64, 96};
  const Vector<float> x = random_.values(s.rows() * s.inner());
  for (const Kind kind : {a8w8, a8w4}) {
    const Weights w = weights(kind, s.inner(), s.columns());  // side data end with the buffer
    const uint64_t size = context_->buffer_size[context_->n_buffers - 1];
    const std::pair<uint64_t Weights::*, uint64_t> parts[] = {
        {&Weights::z, kind == a8w8 ? 64 : 32}, {&Weights::s, 128}, {&Weights::sum, 256}};
    for (const auto& [offset, bytes] : parts)
      for (const uint64_t place : {size - bytes, size - bytes + 1, size, size + 1, ~uint64_t{0}}) {
        SCOPED_TRACE(testing::Message() << kind << ' ' << bytes << ' ' << place);
        Weights moved = w;
        moved.*offset = place;
        Vector<float> a(s.rows() * s.columns(), -7);
        const Vector<float> untouched = a;
        EXPECT_EQ(multiply(kind, s, moved, a, x.data()), place == size - bytes ? 0u : 1u);
        EXPECT_EQ(a == untouched, place != size - bytes);
      }
  }
}

TEST_F(Products, OfNoRowsOrOfNothing) {
  const Vector<float> x(200 * 96, 1.0f);
  for (const Kind kind : kinds) {
    const Weights w = weights(kind, 96, 32);
    Vector<float> a(200 * 32, -7), none;
    EXPECT_EQ(multiply(kind, {200, 32, 0}, w, a, nullptr), 0u) << last_error();
    EXPECT_TRUE(a == expected(kind, {200, 32, 0}, w, {}, nullptr));  // empty sums
    EXPECT_EQ(multiply(kind, {0, 32, 96}, w, none, nullptr), 0u) << last_error();
  }
}

// The DSP refuses to reach past a buffer; nothing of it changes, and the refusal is named.
TEST_F(Products, PastTheEndOfABufferAreRefused) {
  void* pointer = nullptr;
  const auto fd = static_cast<uint32_t>(allocate(context_, 16, &pointer));
  for (const int32_t size : {17, -1}) EXPECT_EQ(tavik_npu_test(context_, size, fd), 1u);
  EXPECT_EQ(last_error(false).find("1 tavik_npu_test source/host/kernels 0: "), 0u);
  EXPECT_EQ(tavik_npu_test(context_, 16, fd), 0u);
  EXPECT_EQ(std::count(at<uint8_t>(pointer, 0), at<uint8_t>(pointer, 16), 1), 16);
  for (const Kind kind : kinds) {
    Vector<float> a(32 * 32, -7);
    const Vector<float> x(32 * 32), untouched = a;
    EXPECT_EQ(multiply(kind, {32, 32, 32}, {fd, 0, 0, 0, 0, {}, {}}, a, x.data()), 1u);
    EXPECT_EQ(a, untouched);
  }
}

}  // namespace
