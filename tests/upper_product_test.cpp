// Products of the upper interface, by its calls and by the paths of tensors: checks in their order, exact results.

#include <list>

#include "tests/data.h"
#include "tests/upper.h"

namespace {

using test::make_view;
using Tensor = morun_tensor;
using Bytes = std::vector<uint8_t>;
using Values = std::vector<float>;  // small integers, row-major

using namespace test::formats;
uint64_t bytes_of(uint32_t dtype, uint64_t count) {
  return count * std::array<uint64_t, 6>{4, 8, 8, 32, 16, 32}[dtype] / 8;
}

Bytes encoded(uint32_t dtype, uint32_t layout, uint64_t n_row, uint64_t n_col, const Values& v) {
  if (v.empty()) return {};
  Bytes bytes(4 * v.size()), tiles(v.size() / 2);
  auto* const halves = reinterpret_cast<uint16_t*>(bytes.data());
  auto* const signed_bytes = reinterpret_cast<int8_t*>(bytes.data());
  if (dtype == f32) memcpy(bytes.data(), v.data(), bytes.size());
  if (dtype == i32) std::copy(v.begin(), v.end(), reinterpret_cast<int32_t*>(bytes.data()));
  if (dtype == f16) tavik_f32_to_f16(v.size(), v.data(), halves);
  if (dtype == f16 && layout == ah) morun_cpu_rm_to_ah_f16_inplace(n_row, n_col, halves);
  if (dtype == f16 && layout == wh) morun_cpu_rm_to_wh_f16_inplace(n_row, n_col, halves);
  if (dtype <= u8) std::copy(v.begin(), v.end(), signed_bytes);
  if (dtype == i8) morun_cpu_rm_to_wh_i8_inplace(n_row, n_col, signed_bytes);
  if (dtype == i4) morun_cpu_rm_to_wh_i4(tiles.data(), bytes.data(), n_col, n_row), bytes = tiles;
  bytes.resize(bytes_of(dtype, v.size()));
  return bytes;
}

struct Path : test::TensorFormats {
  uint32_t platform = MORUN_PLATFORM_NPU0;
  bool right_is_shared = true, takes_gaps = true;
};
constexpr Path P1{test::paths::P1}, P2{test::paths::P2, MORUN_PLATFORM_NPU0, false, false}, P3{test::paths::P3},
    P4{test::paths::P4}, P5{test::paths::P5, MORUN_PLATFORM_NPU0, false, false}, P6{test::paths::P6},
    host{test::paths::P5, MORUN_PLATFORM_CPU, false, false}, paths[] = {P1, P2, P3, P4, P5, P6, host};

struct Shape {
  uint64_t n_row, n_col, n_inner;
};
struct Triple {
  Tensor left, right, result;
};
class UpperProducts : public test::UpperTest {
 protected:
  // One of a path's three, of memory that holds `values` behind an offset, or none, and has some room more.
  Tensor record(const Path& p, int i, uint64_t n_row, uint64_t n_col, uint64_t offset, uint64_t gap, const Values& v) {
    Tensor t = morun_tensor_matrix(n_row, n_col, p.types[i], p.layouts[i], nullptr);
    if (gap != 0) make_view(t, n_col + gap, 1, 0);
    t.data_offset = offset;
    t.num_elements = 2 * offset + n_row * t.strides[0] + 8;
    const uint64_t size = bytes_of(t.data_dtype, t.num_elements);
    t.data = i == 1 && p.right_is_shared ? share(size) : heap_.emplace_back(size, uint8_t{7}).data();
    const Bytes bytes = encoded(p.types[i], p.layouts[i], n_row, n_col, v);
    std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t*>(t.data) + bytes_of(t.data_dtype, offset));
    return t;
  }
  Triple operands(const Path& p, const Shape& s, uint64_t offset, uint64_t gap, const Values& x, const Values& w) {
    heap_.clear();
    release_shared();
    return {record(p, 0, s.n_row, s.n_inner, offset, 0, x),
            record(p, 1, s.n_inner, s.n_col, p.types[1] == f16 ? offset : 0, 0, w),
            record(p, 2, s.n_row, s.n_col, offset, gap, {})};
  }
  Values random_values(uint64_t count, int low) {
    Values values(count);
    for (float& v : values) v = static_cast<float>(static_cast<int>(random_.bits() % 8) + low);
    return values;
  }
  void expect_product(const Triple& t, uint32_t platform, const std::list<Bytes>& memory) {
    const uint64_t n_allocation = test::usage().n_allocations;
    EXPECT_EQ(morun_mm_tensor(platform, &t.result, &t.left, &t.right), 0);
    EXPECT_TRUE(heap_ == memory);
    EXPECT_EQ(test::usage().n_allocations, n_allocation);
  }

  test::Random random_{11};
  std::list<Bytes> heap_;
};

TEST_F(UpperProducts, AreExactAtAnyOffsetAndLeaveTheGaps) {
  const uint64_t variants[][5] = {{64, 96, 160, 0, 0}, {128, 32, 64, 48, 0}, {64, 96, 96, 32, 5}};
  for (const Path& p : paths)
    for (const auto& [m, n, inner, offset, gap] : variants) {
      SCOPED_TRACE(testing::Message() << "path " << &p - paths << " gap " << gap);
      const Values x = random_values(m * inner, 0), w = random_values(inner * n, -4);
      // Row-major weights stand as n_col rows of n_inner; the tiles of that matrix are multiplied as if of the other.
      const auto element = [&, n = n, n_inner = inner](uint64_t k, uint64_t c) {
        const uint64_t tile = k / 32 * (n / 32) + c / 32, n_tile = n_inner / 32;
        if (p.layouts[1] == wh) return w[k * n + c];
        if (p.platform == MORUN_PLATFORM_CPU) return w[c * n_inner + k];
        return w[(tile / n_tile * 32 + k % 32) * n_inner + tile % n_tile * 32 + c % 32];
      };
      Values sums(m * n);
      for (uint64_t i = 0; i < m * n; ++i)
        for (uint64_t k = 0; k < inner; ++k) sums[i] += x[i / n * inner + k] * element(k, i % n);
      Triple t = operands(p, {m, n, inner}, offset, gap, x, w);
      const Bytes rows = encoded(p.types[2], p.layouts[2], m, n, sums);
      std::list<Bytes> memory = heap_;
      const uint64_t row = rows.size() / m, width = row / n, pitch = row + (p.takes_gaps ? gap * width : 0);
      for (uint64_t r = 0; r < m; ++r) memcpy(&memory.back()[offset * width + r * pitch], &rows[r * row], row);
      if (p.types[1] != f16) t.right.data_offset = 1;  // not looked at
      expect_product(t, p.platform, memory);

      // The two calls that no path makes give the same as their likes.
      auto *const W = static_cast<uint16_t*>(t.right.data), *const X = static_cast<uint16_t*>(t.left.data);
      auto* const A = static_cast<uint16_t*>(share(rows.size()));
      if (offset != 0 || (&p != &paths[0] && &p != &paths[2])) continue;
      if (p.types[0] == f16) morun_npu_mm_f16f16_f16(3, 64, 96, 160, A, X, W);
      if (p.types[0] == f32)
        morun_npu_mm_f32f16_f32(3, 64, 96, 160, reinterpret_cast<float*>(A), reinterpret_cast<float*>(X), W);
      EXPECT_TRUE(memcmp(A, rows.data(), rows.size()) == 0 && heap_ == memory);
    }
}

}  // namespace
