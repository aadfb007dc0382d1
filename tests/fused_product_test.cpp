// Products of one, two and three weight matrices in all weight formats: the calls that they make, and what is refused.
// Their results, in one session and in several, are held to exact products by the self-test of the tool.
#include "tests/support.h"

namespace {

using test::last_error;

constexpr uint64_t n_inner = 96, n_col = 64;
constexpr int32_t inner = n_inner, columns = n_col;

enum Kind { f16, a8w8, a8w4 };

// A weight matrix in a shared buffer: values, zero points, scales and sums at these byte offsets.
struct Weights {
  uint32_t fd = 0, q = 2048;
  uint64_t z = 16384, s = z + 2048, sum = s + 2048;
};

using Result = std::vector<float>;

class FusedProducts : public test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    // Sessions with room for the cross-session buffers and one large weight buffer.
    test::configure([](auto& config) { config.session_bytes = 3 << 20; });
    context_ = initialise();
    ASSERT_EQ(tavik_lock_compute_device(context_), 0);
  }
  void TearDown() override {
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
    clean_up(context_);
    PlatformTest::TearDown();
  }

  // In the first session with room: a large buffer leaves none for another large one.
  Weights share(bool is_large = false) {
    return {static_cast<uint32_t>(allocate(context_, is_large ? 3 << 19 : 32768))};
  }

  uint32_t multiply(Kind kind, const Weights& w, Result& a) {
    const auto run = kind == a8w8 ? tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_mm_a8w4_f32_rm_f32_rm_i4f16_wh;
    if (kind == f16)
      return tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, n_row, columns, inner, a.data(), x_.data(), w.fd, w.q);
    return run(context_, n_row, columns, inner, a.data(), x_.data(), w.fd, w.q, w.z, w.s, w.sum);
  }
  uint32_t multiply(Kind kind, const Weights& u, const Weights& f, Result* a) {
    const auto run =
        kind == a8w8 ? tavik_npu_2mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_2mm_a8w4_f32_rm_f32_rm_i4f16_wh;
    if (kind == f16)
      return tavik_npu_2mm_f32_rm_f32_rm_f16_wh(context_, n_row, columns, inner, a[0].data(), a[1].data(), x_.data(),
                                                u.fd, f.fd, u.q, f.q);
    return run(context_, n_row, columns, inner, a[0].data(), a[1].data(), x_.data(), u.fd, f.fd, u.q, u.z, u.s, u.sum,
               f.q, f.z, f.s, f.sum);
  }
  // Q takes 32 of its columns only, so that the two counts differ.
  uint32_t multiply(Kind kind, const Weights& q, const Weights& k, const Weights& v, Result* a, int32_t q_columns = 32,
                    int32_t kv_columns = columns) {
    const auto run =
        kind == a8w8 ? tavik_npu_3mm_a8w8_f32_rm_f32_rm_i8f16_wh : tavik_npu_3mm_a8w4_f32_rm_f32_rm_i4f16_wh;
    if (kind == f16)
      return tavik_npu_3mm_f32_rm_f32_rm_f16_wh(context_, n_row, q_columns, kv_columns, inner, a[0].data(), a[1].data(),
                                                a[2].data(), x_.data(), q.fd, k.fd, v.fd, q.q, k.q, v.q);
    return run(context_, n_row, q_columns, kv_columns, inner, a[0].data(), a[1].data(), a[2].data(), x_.data(), q.fd,
               k.fd, v.fd, q.q, q.z, q.s, q.sum, k.q, k.z, k.s, k.sum, v.q, v.z, v.s, v.sum);
  }

  static constexpr int32_t n_row = 67;
  static constexpr int single_method[] = {10, 15, 19};
  tavik_context* context_ = nullptr;
  const std::vector<float> x_ = std::vector<float>(n_row * n_inner);
};

const Result untouched(67 * n_col, -7);

TEST_F(FusedProducts, SingleFourBitProductDoesNotLockTheMatrixUnit) {
  const Weights w = share();
  Result a = untouched;
  EXPECT_EQ(multiply(a8w4, w, a), 0u) << last_error();
  ASSERT_EQ(tavik_unlock_compute_device(context_), 0);
  EXPECT_EQ(multiply(a8w4, w, a), 1u);
  EXPECT_EQ(multiply(a8w8, w, a), 0u) << last_error();
}

// Each remote call that fails is named by its own source text, and what came before it stays.
TEST_F(FusedProducts, NameTheCallThatFailed) {
  const char* const kinds[] = {"f16", "a8w8", "a8w4"};
  const std::string kernels[] = {"_f32_rm_f32_rm_f16_wh", "_a8w8_f32_rm_f32_rm_i8f16_wh",
                                 "_a8w4_f32_rm_f32_rm_i4f16_wh"};
  for (const Kind kind : {f16, a8w8, a8w4}) {
    SCOPED_TRACE(kind);
    const Weights near = share(true), far = share(true);
    const std::string row = kind == f16 ? "n_row_32" : "n_row_64", q = kind == f16 ? "" : "q";
    const auto one = [&](const std::string& cols, const std::string& w) {
      return "(handle, " + row + ", " + cols + ", n_inner, " + w + "W_fd, " + w + "W" + q + "_offset)";
    };
    Result a[3] = {untouched, untouched, untouched};
    struct Case {
      int products;
      uint32_t nth;  // invocation of the method that fails
      std::string call;
      std::function<uint32_t()> run;
    };
    const Case cases[] = {
        {1, 1, one("n_col", ""), [&] { return multiply(kind, near, a[0]); }},
        {2, 1, "(handle, " + row + ", n_col, n_inner, UW_fd, FW_fd, UW" + q + "_offset, FW" + q + "_offset)",
         [&] { return multiply(kind, near, near, a); }},
        {-2, 1, one("n_col", "U"), [&] { return multiply(kind, near, far, a); }},
        {-2, 2, one("n_col", "F"), [&] { return multiply(kind, near, far, a); }},
        {3, 1,
         "( handle, " + row + ", n_col_q, n_col_kv, n_inner, QW_fd, KW_fd, VW_fd, QW" + q + "_offset, KW" + q +
             "_offset, VW" + q + "_offset )",
         [&] { return multiply(kind, near, near, near, a); }},
        {-3, 1, one("n_col_q", "Q"), [&] { return multiply(kind, near, far, far, a); }},
        {-3, 2, one("n_col_kv", "K"), [&] { return multiply(kind, near, far, far, a); }},
        {-3, 3, one("n_col_kv", "V"), [&] { return multiply(kind, near, far, far, a); }},
    };
    for (const Case& c : cases) {
      // Several sessions: single products, whose literals name the weights by a letter.
      const int count = std::abs(c.products), method = single_method[kind] + (c.products > 0 ? count - 1 : 0);
      std::fill_n(a, 3, untouched);
      parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, method, c.nth, 0x77, EIO);
      EXPECT_EQ(c.run(), 1u);
      parlo_emulator_clear_fault();
      const std::string whole = "Input/output error in tavik_veyra_" + std::to_string(c.products > 0 ? count : 1) +
                                "mm_" + kinds[kind] + c.call + " != KESO_SUCCESS";
      const std::string function = "tavik_npu_" + (count == 1 ? "" : std::to_string(count)) + "mm" + kernels[kind];
      EXPECT_EQ(last_error(false), "1 " + function + " source/host/kernels 0: " + whole.substr(0, 127));
      for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(a[i] == untouched, i + 1 >= c.nth) << c.call << " " << i;
      if (c.products > 1) {
        parlo_emulator_trace_clear();
        EXPECT_EQ(c.run(), 0u) << last_error();
        EXPECT_EQ(test::trace(), std::vector{std::to_string(method)});
      }
    }
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
  }
}

TEST_F(FusedProducts, CheckAllTheirDimensionsBeforeAnything) {
  const std::string not_32 = "Column dimension not multiple of 32",
                    too_large = "Dimension(s) too large (see tavik_options to adapt)";
  Result a[3] = {untouched, untouched, untouched};
  const Weights none = {};
  parlo_emulator_trace_clear();
  for (const Kind kind : {f16, a8w8, a8w4}) {
    struct Case {
      int32_t q_columns, kv_columns;
      std::string message;
    };
    for (const Case& c : {Case{16, 32, not_32}, {32, 16, not_32}, {1024, 32, too_large}, {32, 1024, too_large}}) {
      EXPECT_EQ(multiply(kind, none, none, none, a, c.q_columns, c.kv_columns), 2u);
      EXPECT_EQ(last_error(false), "2 mm_size_check source/host/kernels 0: " + c.message);
    }
  }
  // Within the limits, but not in whole tiles of 64 rows: the activation, then the result.
  for (const auto& [cols, inner_size, what] :
       {std::tuple{32, 4096, "Activation of 264196 bytes in whole tiles exceeds its buffer of 134144"},
        {4096, 32, "Result of 1048576 bytes in whole tiles exceeds its buffer of 262144"}}) {
    EXPECT_EQ(
        tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh(context_, 1, cols, inner_size, a[0].data(), x_.data(), 0, 0, 0, 0, 0),
        2u);
    EXPECT_EQ(last_error(false),
              std::string("2 mm_size_check source/host/kernels 0: ") + what + " (see tavik_options to adapt)");
  }
  EXPECT_EQ(parlo_emulator_trace_length(), 0u);
}

TEST_F(FusedProducts, RefuseQuantisationDataPastTheEndOfTheirBuffer) {
  for (const Kind kind : {a8w8, a8w4}) {
    const Weights w = share();
    for (uint64_t Weights::*offset : {&Weights::z, &Weights::s, &Weights::sum})
      for (const uint64_t bad : {uint64_t{32768 - 31}, uint64_t{32769}, ~uint64_t{0}}) {
        Weights moved = w;
        moved.*offset = bad;
        Result a = untouched;
        EXPECT_EQ(multiply(kind, moved, a), 1u);
        EXPECT_EQ(a, untouched);
      }
  }
}

TEST_F(FusedProducts, OfIntegersTakeTheirRowsAsTheyAreAndOnlyWhatFits) {
  const uint32_t fd = share().fd;
  for (const auto run : {tavik_veyra_1mm_ui8i8_i32_tessel, tavik_veyra_1mm_ui8i4_i32_tessel}) {
    EXPECT_EQ(run(context_, n_row, columns, inner, ~0u, ~0u, fd, 0, 0, 48), 0u) << last_error();
    EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{67, n_col, n_inner, fd, 48}));
    EXPECT_EQ(run(context_, n_row, 33, inner, ~0u, ~0u, 2000, 0, 0, 0), 2u);
    EXPECT_EQ(run(context_, 1, 32, 1 << 16, ~0u, ~0u, fd, 0, 0, 0), 2u);  // the row's segments reach past X
  }
}

}  // namespace
