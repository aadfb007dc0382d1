// What the tests of the upper interface share: the paths of tensor products, and a fresh library for each test.
#pragma once

#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "tests/support.h"

namespace test {

inline void make_view(morun_tensor& t, uint64_t row_stride, uint64_t column_stride, uint64_t num_elements) {
  t.is_contiguous = 0;
  t.strides[0] = row_stride, t.strides[1] = column_stride;
  t.num_elements = num_elements;
}

// What a path of morun_mm_tensor takes, left, right and result in this order.
struct TensorFormats {
  morun_tensor_dtype_e types[3];
  morun_tensor_layout_e layouts[3];
};
namespace formats {
constexpr auto i4 = MORUN_DTYPE_I4, i8 = MORUN_DTYPE_I8, u8 = MORUN_DTYPE_U8, i32 = MORUN_DTYPE_I32,
               f16 = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;
constexpr auto rm = MORUN_LAYOUT_2D_RM, wh = MORUN_LAYOUT_2D_WH, ah = MORUN_LAYOUT_2D_AH;
}  // namespace formats
// The paths by their names in include/morun_tensor.h.
namespace paths {
using namespace formats;
constexpr TensorFormats P1 = {{f32, f16, f32}, {rm, wh, rm}}, P2 = {{f16, f16, f16}, {ah, wh, ah}},
                        P3 = {{f16, f16, f16}, {rm, wh, rm}}, P4 = {{u8, i4, i32}, {rm, wh, rm}},
                        P5 = {{f16, f16, f16}, {rm, rm, rm}}, P6 = {{u8, i8, i32}, {rm, wh, rm}},
                        every[] = {P1, P2, P3, P4, P5, P6};
}  // namespace paths

// Each test starts like a new process that has initialised the upper interface. Buffers take descriptors from 100 on,
// which no file of the test takes.
class UpperTest : public PlatformTest {
 public:
  static void start_afresh() {
    parlo_emulator_reset();
    std::fill(std::begin(morun_map_db), std::end(morun_map_db), morun_map_entry{});
    configure([](auto& config) { config.lowest_descriptor = 100; });
  }

 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    start_afresh();
    ASSERT_EQ(morun_npu_initialize(MORUN_DOMAIN_NPU0), 0);
  }
  void TearDown() override {
    release_shared();
    EXPECT_EQ(morun_npu_finalize(MORUN_DOMAIN_NPU0), 0);
    context = nullptr;
    PlatformTest::TearDown();
  }
  void release_shared() {
    for (; !shared_.empty(); shared_.pop_back()) EXPECT_EQ(morun_npu_free(shared_.back()), 0);
  }
  void* share(uint64_t size) {
    EXPECT_EQ(morun_npu_alloc(size, &shared_.emplace_back()), 0);
    return shared_.back();
  }
  std::vector<void*> shared_;
};

}  // namespace test
