// Products of one, two and three weight matrices in all weight formats: fused, one after the other, and refused. That
// they are the products of what the weights mean is shown by the self-test of the tool.
#include "tests/data.h"
#include "tests/support.h"

namespace {

using test::last_error;

constexpr uint64_t n_inner = 96, n_col = 64;
constexpr int32_t inner = n_inner, columns = n_col;

enum Kind { f16, a8w8, a8w4 };

// A weight matrix in a shared buffer: values, zero points, scales and sums at these byte offsets.
struct Weights {
  uint32_t fd = 0, q = 0;
  uint64_t z = 0, s = 0, sum = 0;
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
    x_ = random_.values(n_row * n_inner);
  }
  void TearDown() override {
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
    clean_up(context_);
    PlatformTest::TearDown();
  }

  // In the first session with room: a large buffer leaves none for another large one.
  Weights share(Kind kind, bool is_large = false) {
    std::vector<uint16_t> halves(n_col * n_inner);
    const std::vector<float> values = random_.values(halves.size());
    tavik_f32_to_f16(halves.size(), values.data(), halves.data());
    Weights w;
    w.z = 16384, w.s = w.z + 2048, w.sum = w.s + 2048;
    void* pointer = nullptr;
    w.fd = static_cast<uint32_t>(allocate(context_, is_large ? 3 << 19 : 32768, &pointer));
    auto* const bytes = static_cast<uint8_t*>(pointer);
    w.q = 2048;
    if (kind == f16) {
      auto* const data = reinterpret_cast<uint16_t*>(bytes + w.q);
      std::copy(halves.begin(), halves.end(), data);
      tavik_matrix_transpose_f16(n_col, n_inner, data);
      tavik_f16_rm_to_f16_wh_inplace(n_inner, n_col, data);
      return w;
    }
    std::vector<int8_t> quantised(halves.size());
    auto* const scales = reinterpret_cast<uint16_t*>(bytes + w.s);
    auto* const sums = reinterpret_cast<int32_t*>(bytes + w.sum);
    if (kind == a8w8) {
      tavik_f16_rm_to_i8_rm(n_col, n_inner, halves.data(), quantised.data(), reinterpret_cast<int8_t*>(bytes + w.z),
                            scales, sums);
      auto* const data = reinterpret_cast<int8_t*>(bytes + w.q);
      std::copy(quantised.begin(), quantised.end(), data);
      tavik_matrix_transpose_i8(n_col, n_inner, data);
      tavik_i8_rm_to_i8_wh_inplace(n_inner, n_col, data);
    } else {
      std::vector<uint32_t> packed(halves.size() / 8);
      memset(bytes + w.z, 0, n_col / 2);
      tavik_f16_rm_to_i4_rm(n_col, n_inner, halves.data(), packed.data(), reinterpret_cast<uint32_t*>(bytes + w.z),
                            scales, sums);
      for (size_t i = 0; i < quantised.size(); ++i)
        quantised[i] = int4_to_int8(static_cast<uint8_t>(packed[i / 8] >> 4 * (i % 8) & 15));
      tavik_host_layout_w4_flat_to_weight(bytes + w.q, reinterpret_cast<uint8_t*>(quantised.data()), n_col, n_inner);
    }
    return w;
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
  Result product(Kind kind, const Weights& w) {
    Result a(n_row * n_col, -7);
    EXPECT_EQ(multiply(kind, w, a), 0u) << last_error();
    return a;
  }

  // Methods invoked and the index of the session, as "10@0 10@1".
  std::string products_invoked() {
    std::string list;
    parlo_emulator_call call;
    for (size_t i = 0; parlo_emulator_trace_get(i, &call) == 0; ++i) {
      if (call.method < 9) continue;
      for (uint64_t s = 0; s < context_->n_sessions; ++s)
        if (context_->session_handle[s] == call.arguments[0])
          list.append(list.empty() ? "" : " ")
              .append(std::to_string(call.method))
              .append("@")
              .append(std::to_string(s));
    }
    parlo_emulator_trace_clear();
    return list;
  }

  static constexpr int32_t n_row = 67;
  static constexpr int single_method[] = {10, 15, 19};
  tavik_context* context_ = nullptr;
  test::Random random_{8};
  std::vector<float> x_;
};

const Result untouched(67 * n_col, -7);

TEST_F(FusedProducts, InOneSessionTakeOneCallAndGiveWhatSinglesGive) {
  for (const Kind kind : {f16, a8w8, a8w4}) {
    SCOPED_TRACE(kind);
    const Weights q = share(kind), k = share(kind), v = share(kind);
    const Result q_alone = product(kind, q), k_alone = product(kind, k), v_alone = product(kind, v);
    Result a[3] = {untouched, untouched, untouched};
    parlo_emulator_trace_clear();
    ASSERT_EQ(multiply(kind, k, v, a), 0u) << last_error();
    EXPECT_EQ(products_invoked(), std::to_string(single_method[kind] + 1) + "@0");
    EXPECT_EQ(a[0], k_alone);
    EXPECT_EQ(a[1], v_alone);

    a[0] = untouched;
    ASSERT_EQ(multiply(kind, q, v, k, a, 64), 0u) << last_error();
    EXPECT_EQ(products_invoked(), std::to_string(single_method[kind] + 2) + "@0");
    EXPECT_EQ(a[0], q_alone);
    EXPECT_EQ(a[1], v_alone);
    EXPECT_EQ(a[2], k_alone);
  }
  // 32 columns of Q and 64 of K and V.
  const Weights q = share(f16), k = share(f16);
  Result a[3] = {untouched, untouched, untouched};
  ASSERT_EQ(multiply(f16, q, k, k, a), 0u) << last_error();
  EXPECT_EQ(a[1], product(f16, k));
  EXPECT_EQ(a[0][67 * 32], -7);
  EXPECT_NE(a[0][67 * 32 - 1], -7);
}

// What each format does where the weights are in several sessions, deliberate asymmetries included.
TEST_F(FusedProducts, InSeveralSessionsRunOneAfterTheOther) {
  for (const Kind kind : {f16, a8w8, a8w4}) {
    SCOPED_TRACE(kind);
    const std::string method = std::to_string(single_method[kind]);
    const Weights q = share(kind, true), k = share(kind, true), v = share(kind, true), k2 = share(kind);
    ASSERT_EQ(context_->fd_to_session[q.fd], 0);
    ASSERT_EQ(context_->fd_to_session[k.fd], 1);
    ASSERT_EQ(context_->fd_to_session[v.fd], 2);
    ASSERT_EQ(context_->fd_to_session[k2.fd], 0);
    parlo_emulator_trace_clear();

    Result a[3] = {untouched, untouched, untouched};
    ASSERT_EQ(multiply(kind, k, k2, a), 0u) << last_error();
    EXPECT_EQ(products_invoked(), method + "@1 " + method + "@0");
    const Result k_alone = a[0];
    memset(context_->A1, 0, context_->A_size);
    ASSERT_EQ(multiply(kind, k2, k, a), 0u) << last_error();
    EXPECT_EQ(products_invoked(), method + "@0 " + method + "@1");
    // 8 bits: read from A1, which a single product does not write.
    EXPECT_EQ(a[1] == k_alone, kind != a8w8);
    memcpy(context_->A1, context_->A0, context_->A_size);
    ASSERT_EQ(multiply(kind, k2, k, a), 0u) << last_error();
    EXPECT_EQ(a[1], k_alone);
    parlo_emulator_trace_clear();

    // The value product runs where the key weights are: it is refused when that session does not map its own.
    a[2] = untouched;
    EXPECT_EQ(multiply(kind, q, k, v, a), 1u);
    EXPECT_EQ(products_invoked(), method + "@0 " + method + "@1 " + method + "@1");
    EXPECT_NE(std::string(tavik_error_get_last()->message).find("n_col_kv, n_inner, VW_fd"), std::string::npos);
    EXPECT_NE(a[0], untouched);
    EXPECT_NE(a[1], untouched);
    EXPECT_EQ(a[2], untouched);
    EXPECT_EQ(multiply(kind, q, k, k, a), 0u) << last_error();
    EXPECT_EQ(products_invoked(), method + "@0 " + method + "@1 " + method + "@1");
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
  }
}

TEST_F(FusedProducts, SingleFourBitProductStaysInSessionZero) {
  const Weights here = share(a8w4, true), there = share(a8w4, true);
  ASSERT_EQ(context_->fd_to_session[there.fd], 1);
  Result a = untouched;
  parlo_emulator_trace_clear();
  EXPECT_EQ(multiply(a8w4, there, a), 1u);
  EXPECT_EQ(products_invoked(), "19@0");
  EXPECT_EQ(a, untouched);
  EXPECT_EQ(multiply(a8w4, here, a), 0u) << last_error();
  ASSERT_EQ(tavik_unlock_compute_device(context_), 0);
  EXPECT_EQ(multiply(a8w4, here, a), 1u);  // it does not lock the matrix unit either
  const Weights eight_bits = share(a8w8);
  EXPECT_EQ(multiply(a8w8, eight_bits, a), 0u) << last_error();
}

// Each remote call that fails is named by its own source text, and what came before it stays.
TEST_F(FusedProducts, NameTheCallThatFailed) {
  const char* const kinds[] = {"f16", "a8w8", "a8w4"};
  const std::string kernels[] = {"_f32_rm_f32_rm_f16_wh", "_a8w8_f32_rm_f32_rm_i8f16_wh",
                                 "_a8w4_f32_rm_f32_rm_i4f16_wh"};
  for (const Kind kind : {f16, a8w8, a8w4}) {
    SCOPED_TRACE(kind);
    const Weights near = share(kind, true), far = share(kind, true);
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
  for (const auto& [cols, inner_size] : {std::pair{32, 4096}, {4096, 32}}) {
    EXPECT_EQ(
        tavik_npu_mm_a8w8_f32_rm_f32_rm_i8f16_wh(context_, 1, cols, inner_size, a[0].data(), x_.data(), 0, 0, 0, 0, 0),
        2u);
    EXPECT_EQ(last_error(false), "2 mm_size_check source/host/kernels 0: " + too_large);
  }
  EXPECT_EQ(parlo_emulator_trace_length(), 0u);
}

TEST_F(FusedProducts, RefuseQuantisationDataPastTheEndOfTheirBuffer) {
  for (const Kind kind : {a8w8, a8w4}) {
    const Weights w = share(kind);
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

TEST_F(FusedProducts, OfIntegersLeaveExactSumsInPlace) {
  const int32_t rows = 100;
  auto* const x = static_cast<uint8_t*>(context_->X);
  const auto place = [](uint64_t r, uint64_t c, uint64_t width) {
    return (r / 64 * (width / 32) + c / 32) * 2048 + r % 64 * 32 + c % 32;
  };
  for (uint64_t i = 0; i < 128 * n_inner; ++i) x[i] = static_cast<uint8_t>(random_.bits());
  for (const bool is_four_bit : {false, true}) {
    std::vector<int8_t> weights(n_col * n_inner);  // transposed
    for (int8_t& v : weights)
      v = static_cast<int8_t>(is_four_bit ? static_cast<int>(random_.bits() % 16) - 8 : random_.any<int8_t>(1)[0]);
    void* pointer = nullptr;
    const auto fd = static_cast<uint32_t>(allocate(context_, n_col * n_inner, &pointer));
    auto* const data = static_cast<int8_t*>(pointer);
    if (is_four_bit) {
      tavik_host_layout_w4_flat_to_weight(reinterpret_cast<uint8_t*>(data), reinterpret_cast<uint8_t*>(weights.data()),
                                          n_col, n_inner);
    } else {
      std::copy(weights.begin(), weights.end(), data);
      tavik_matrix_transpose_i8(n_col, n_inner, data);
      tavik_i8_rm_to_i8_wh_inplace(n_inner, n_col, data);
    }
    const auto run = is_four_bit ? tavik_veyra_1mm_ui8i4_i32_tessel : tavik_veyra_1mm_ui8i8_i32_tessel;
    ASSERT_EQ(run(context_, rows, columns, inner, ~0u, ~0u, fd, 0, 0, 0), 0u) << last_error();
    EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{100, n_col, n_inner, fd, 0}));
    const auto* const sums = static_cast<const int32_t*>(context_->A0);
    for (uint64_t r = 0; r < rows; ++r)
      for (uint64_t c = 0; c < n_col; ++c) {
        int32_t sum = 0;
        for (uint64_t k = 0; k < n_inner; ++k) sum += x[place(r, k, n_inner)] * weights[c * n_inner + k];
        ASSERT_EQ(sums[place(r, c, n_col)], sum) << r << ", " << c;
      }
    const std::string name = std::string("tavik_veyra_1mm_ui8i") + (is_four_bit ? "4" : "8") + "_i32_tessel";
    parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, is_four_bit ? 19 : 15, 1, 0x77, EIO);
    EXPECT_EQ(run(context_, rows, columns, inner, ~0u, ~0u, fd, 0, 0, 0), 1u);
    EXPECT_EQ(last_error(false), "1 " + name + " source/host/kernels 0: Input/output error in tavik_veyra_1mm_a8w" +
                                     (is_four_bit ? "4" : "8") +
                                     "(handle, n_row, n_col, n_inner, W_fd, W_offset) != KESO_SUCCESS");
    EXPECT_EQ(run(context_, rows, 33, inner, ~0u, ~0u, 2000, 0, 0, 0), 2u);
    EXPECT_EQ(run(context_, 1, 32, 1 << 16, ~0u, ~0u, fd, 0, 0, 0), 2u);  // the row's segments reach past X
  }
}

}  // namespace
