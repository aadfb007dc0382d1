// The f16 products: checks in their order, refusals before anything is written, and results to the last bit.
#include "tests/data.h"
#include "tests/support.h"

namespace {

using test::last_error;

class Products : public test::PlatformTest {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    context_ = initialise();
  }
  void TearDown() override {
    while (context_->n_buffers > 0) release(context_, context_->buffer_fd[0]);
    clean_up(context_);
    PlatformTest::TearDown();
  }
  std::vector<uint16_t> halves(uint64_t count) {
    std::vector<uint16_t> halves(count);
    const std::vector<float> values = random_.values(count);
    tavik_f32_to_f16(count, values.data(), halves.data());
    return halves;
  }
  // A shared buffer with `offset` bytes before a matrix in a layout.
  template <class Convert>
  uint32_t share(const std::vector<uint16_t>& matrix, uint64_t n_row, uint64_t n_col, uint32_t offset,
                 Convert convert) {
    void* pointer = nullptr;
    const int32_t fd = allocate(context_, offset + 2 * matrix.size(), &pointer);
    auto* const data = reinterpret_cast<uint16_t*>(static_cast<char*>(pointer) + offset);
    std::copy(matrix.begin(), matrix.end(), data);
    convert(n_row, n_col, data);
    return static_cast<uint32_t>(fd);
  }

  tavik_context* context_ = nullptr;
  test::Random random_{7};
};

float widen(uint16_t half) {
  uint16_t halves[8] = {half};
  float wide[8];
  tavik_f16_to_f32(8, halves, wide);
  return wide[0];
}
float rounded_to_half(float value) {
  const float values[4] = {value};
  uint16_t halves[4];
  tavik_f32_to_f16(4, values, halves);
  return widen(halves[0]);
}

// Sums in f32 in ascending order of the inner index, rounded once to f16, as the matrix unit computes.
std::vector<float> product(uint64_t n_row, uint64_t n_col, uint64_t n_inner, const std::vector<float>& x,
                           const std::vector<uint16_t>& w) {
  std::vector<float> result(n_row * n_col);
  for (uint64_t r = 0; r < n_row; ++r)
    for (uint64_t c = 0; c < n_col; ++c) {
      float sum = 0;
      for (uint64_t k = 0; k < n_inner; ++k) sum += rounded_to_half(x[r * n_inner + k]) * widen(w[k * n_col + c]);
      result[r * n_col + c] = rounded_to_half(sum);
    }
  return result;
}

TEST_F(Products, OfRowMajorFloatsAreExactToTheLastBit) {
  struct Shape {
    int32_t n_row, n_col, n_inner;
  };
  for (const Shape& s : {Shape{1, 32, 32}, {33, 64, 96}, {64, 96, 224}, {7, 160, 32}}) {
    SCOPED_TRACE(testing::Message() << s.n_row << " x " << s.n_col << " x " << s.n_inner);
    const auto n_row = static_cast<uint64_t>(s.n_row), n_col = static_cast<uint64_t>(s.n_col),
               n_inner = static_cast<uint64_t>(s.n_inner);
    const std::vector<float> x = random_.values(n_row * n_inner);
    const std::vector<uint16_t> w = halves(n_inner * n_col);
    const uint32_t offset = 4096;
    const uint32_t w_fd = share(w, n_inner, n_col, offset, tavik_f16_rm_to_f16_wh_inplace);
    std::vector<float> a(n_row * n_col + 8, -7);
    ASSERT_EQ(
        tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, s.n_row, s.n_col, s.n_inner, a.data(), x.data(), w_fd, offset), 0u)
        << last_error();
    EXPECT_EQ(test::last_invocation()[0], (n_row + 31) / 32 * 32);
    std::vector<float> expected = product(n_row, n_col, n_inner, x, w);
    expected.resize(a.size(), -7);
    EXPECT_EQ(a, expected);
  }
}

TEST_F(Products, OfTilesInTheCallersBuffersCopyNothing) {
  const uint64_t n_row = 64, n_col = 96, n_inner = 128;
  const std::vector<uint16_t> x = halves(n_row * n_inner), w = halves(n_inner * n_col);
  const uint32_t x_fd = share(x, n_row, n_inner, 64, tavik_f16_rm_to_f16_ah_inplace);
  const uint32_t w_fd = share(w, n_inner, n_col, 0, tavik_f16_rm_to_f16_wh_inplace);
  const uint32_t a_fd =
      share(std::vector<uint16_t>(n_row * n_col), n_row, n_col, 2048, [](uint64_t, uint64_t, uint16_t*) {});
  ASSERT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 33, 96, 128, a_fd, x_fd, w_fd, 2048, 64, 0), 0u)
      << last_error();
  EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{64, 96, 128, a_fd, x_fd, w_fd, 2048, 64, 0}));

  void* pointer = nullptr;
  ASSERT_EQ(tavik_context_get_pointer_from_fd(context_, static_cast<int32_t>(a_fd), &pointer), TAVIK_SUCCESS);
  std::vector<float> a(n_row * n_col), x_values(n_row * n_inner);
  tavik_f16_ah_to_f32_rm(n_row, n_col, reinterpret_cast<uint16_t*>(static_cast<char*>(pointer) + 2048), a.data());
  tavik_f16_to_f32(x.size(), x.data(), x_values.data());
  EXPECT_EQ(a, product(n_row, n_col, n_inner, x_values, w));
}

TEST_F(Products, CheckTheirDimensionsInOrderBeforeAnything) {
  const std::string columns = "Column dimension not multiple of 32", inner = "Inner dimension not multiple of 32",
                    too_large = "Dimension(s) too large (see tavik_options to adapt)",
                    padded = " of 4194304 bytes in whole tiles exceeds its buffer of ",
                    adapt = " (see tavik_options to adapt)";
  struct Case {
    int32_t n_row, n_col, n_inner;
    std::string message;
  };
  const Case cases[] = {{1, 48, 40, columns},
                        {1, 64, 40, inner},
                        {1, 64, -40, inner},
                        {256, 288, 32, too_large},  // output limit 2^16
                        {256, 32, 288, too_large},  // input limit 2^16
                        {257, 32, 32, too_large},   // row limit
                        {-1, 32, 32, too_large},
                        {1, -32, 32, too_large},
                        {1, 32, INT32_MIN, too_large},
                        {1, 32, 1 << 16, "Activation" + padded + "134144" + adapt},  // of one row, within the limit
                        {1, 1 << 16, 32, "Result" + padded + "262144" + adapt}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.n_row << " x " << c.n_col << " x " << c.n_inner);
    parlo_emulator_trace_clear();
    float a = -7;
    const float x = 1;
    EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, c.n_row, c.n_col, c.n_inner, &a, &x, 2000, 0), 2u);
    EXPECT_EQ(last_error(false), "2 mm_size_check source/host/kernels 0: " + c.message);
    EXPECT_EQ(a, -7);
    EXPECT_EQ(parlo_emulator_trace_length(), 0u);
  }
  EXPECT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 1, 64, 40, 0, 0, 0, 0, 0, 0), 2u);
  EXPECT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 1, 32, 32, 0, 0, 1024, 0, 0, 0), 1u);  // no such weights
}

TEST_F(Products, LimitsThemselvesPass) {
  const uint32_t w_fd = share(std::vector<uint16_t>(256 * 32), 256, 32, 0, tavik_f16_rm_to_f16_wh_inplace);
  const std::vector<float> x(256 * 256, 1.0f);
  std::vector<float> a(256 * 32, -7);
  EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 256, 32, 256, a.data(), x.data(), w_fd, 0), 0u) << last_error();
  EXPECT_EQ(a, std::vector<float>(256 * 32, 0));
  a.assign(a.size(), -7);
  EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 256, 32, 0, a.data(), nullptr, w_fd, 0), 0u) << last_error();
  EXPECT_EQ(a, std::vector<float>(256 * 32, 0));  // empty sums
  EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 0, 32, 32, nullptr, nullptr, w_fd, 0), 0u) << last_error();
}

TEST_F(Products, FailedRemoteCallLeavesTheResultAndNamesItself) {
  const uint32_t w_fd = share(std::vector<uint16_t>(32 * 32), 32, 32, 0, tavik_f16_rm_to_f16_wh_inplace);
  std::vector<float> x(32 * 32), a(32 * 32, -7);
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 10, 1, 0x77, EIO);
  EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 32, 32, 32, a.data(), x.data(), w_fd, 0), 1u);
  EXPECT_EQ(last_error(false),
            "1 tavik_npu_mm_f32_rm_f32_rm_f16_wh source/host/kernels 0: Input/output error in "
            "tavik_veyra_1mm_f16(handle, n_row_32, n_col, n_inner, W_fd, W_offset) != KESO_SUCCESS");
  EXPECT_EQ(a, std::vector<float>(32 * 32, -7));

  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 9, 1, 0x77, EIO);
  EXPECT_EQ(tavik_npu_mm_f16_ah_f16_ah_f16_wh(context_, 32, 32, 32, w_fd, w_fd, w_fd, 0, 0, 0), 1u);
  const std::string whole =
      "Input/output error in tavik_veyra_mm_f16(handle, n_row_32, n_col, n_inner, A_fd, X_fd, W_fd, "
      "A_offset, X_offset, W_offset) != KESO_SUCCESS";
  EXPECT_EQ(tavik_error_get_last()->message, whole.substr(0, 127));

  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 13, 1, 0x77, EIO);
  EXPECT_EQ(tavik_npu_test(context_, 1, w_fd), 1u);
  EXPECT_EQ(last_error(false),
            "1 tavik_npu_test source/host/kernels 0: Input/output error in "
            "tavik_veyra_test(handle, size, v_fd) != KESO_SUCCESS");
}

// The DSP refuses to reach past a buffer; nothing of it changes.
TEST_F(Products, PastTheEndOfABufferAreRefused) {
  void* pointer = nullptr;
  const int32_t fd = allocate(context_, 16, &pointer);
  EXPECT_EQ(tavik_npu_test(context_, 17, static_cast<uint32_t>(fd)), 1u);
  EXPECT_EQ(tavik_npu_test(context_, -1, static_cast<uint32_t>(fd)), 1u);
  EXPECT_EQ(tavik_npu_test(context_, 16, static_cast<uint32_t>(fd)), 0u);
  EXPECT_EQ(std::vector<uint8_t>(static_cast<uint8_t*>(pointer), static_cast<uint8_t*>(pointer) + 16),
            std::vector<uint8_t>(16, 1));
  std::vector<float> x(32 * 32), a(32 * 32, -7);
  EXPECT_EQ(tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 32, 32, 32, a.data(), x.data(), static_cast<uint32_t>(fd), 0),
            1u);
  EXPECT_EQ(a, std::vector<float>(32 * 32, -7));
}

}  // namespace
