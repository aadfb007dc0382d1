// The f16 products, to the last bit. What they call and refuse stands in the transcripts.
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

}  // namespace
