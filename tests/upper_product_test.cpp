// Products of the upper interface, by its calls and by the paths of tensors: checks in their order, exact results.
#include <fcntl.h>
#include <malloc.h>
#include <sys/mman.h>

#include <list>

#include "tests/data.h"
#include "tests/upper.h"

namespace {

using test::ending, test::make_view, test::not_shared;
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
// Claims extents that no memory has: those not 0.
auto claims(uint64_t n_row, uint64_t n_col, uint64_t n_inner) {
  return [=](Triple& t) {
    for (Tensor* m : {&t.result, &t.left, &t.right}) m->num_elements = ~uint64_t{0};
    if (n_row != 0) t.result.dims[0] = t.left.dims[0] = n_row;
    if (n_col != 0) t.result.dims[1] = t.right.dims[1] = t.result.strides[0] = t.right.strides[0] = n_col;
    if (n_inner != 0) t.left.dims[1] = t.right.dims[0] = t.left.strides[0] = n_inner;
  };
}

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
  void expect_outcome(const Triple& t, const std::string& outcome, uint32_t platform, std::list<Bytes> memory) {
    const uint64_t n_allocation = test::usage().n_allocations;
    EXPECT_OUTCOME(morun_mm_tensor(platform, &t.result, &t.left, &t.right), outcome);
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
      expect_outcome(t, "0", p.platform, memory);

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

TEST_F(UpperProducts, OfFourBitWeightsTakeAnyColumnsAndNoMoreThanFits) {
  // Of 40 columns the DSP computes 64, whose two tiles a band are taken for those of two bands: rows of all r, c are 2 r.
  Values x(128 * 32), w(32 * 64);
  for (size_t r = 0; r < 128; ++r) x[r * 32] = static_cast<float>(r);
  for (size_t c = 0; c < 64; ++c) w[c] = c < 32 ? 1 : 2;
  const Triple t = operands(P4, {128, 64, 32}, 0, 0, x, w);
  std::vector<int32_t> A(128 * 40, -7), expected = A;
  for (int r = 0; r < 128; ++r) std::fill_n(&expected[r * 40], 32, r % 64 * (r / 64 + 1));
  const auto multiply = [&](int32_t n_row, int32_t n_col, int32_t n_inner, const void* X) {
    return morun_npu_mm_u8i4_i32(3, n_row, n_col, n_inner, A.data(), static_cast<const uint8_t*>(X),
                                 static_cast<uint8_t*>(t.right.data));
  };
  EXPECT_OUTCOME(multiply(128, 40, 32, t.left.data), "0");
  EXPECT_EQ(test::last_invocation(), (std::vector<uint64_t>{159, 64, 32, test::last_invocation()[3], 0}));
  // A result with gaps takes the same columns, and keeps the others as a packed one does.
  const Tensor right = morun_tensor_matrix(32, 40, i4, wh, t.right.data);
  std::vector<int32_t> strided(128 * 45, -7), expected_strided = strided;
  Tensor result = morun_tensor_matrix(128, 40, i32, rm, strided.data());
  make_view(result, 45, 1, strided.size());
  for (int r = 0; r < 128; ++r) std::copy_n(&expected[r * 40], 40, &expected_strided[r * 45]);
  mallopt(M_PERTURB, 1);  // new memory is not zero
  EXPECT_OUTCOME(morun_mm_tensor(MORUN_PLATFORM_NPU0, &result, &t.left, &right), "0");
  mallopt(M_PERTURB, 0);
  EXPECT_EQ(strided, expected_strided);

  const std::string rows = "14 cpu_rm_to_wh_i8: n_row must be multiple of 64, got ",
                    inner = "14 cpu_rm_to_wh_i8: n_inner must be multiple of 32, got ";
  parlo_emulator_trace_clear();
  for (const int32_t bad : {-1, -31, 32, 100001, INT32_MAX})
    for (const int32_t n_inner : {32, 16384, -32})
      EXPECT_OUTCOME(multiply(bad, 32, n_inner, t.left.data), rows + std::to_string(bad));
  for (const int32_t bad : {-1, 48, 20000001, INT32_MAX, INT32_MIN + 1})
    for (const int32_t n_row : {64, 0, -64})
      EXPECT_OUTCOME(multiply(n_row, 32, bad, t.left.data), inner + std::to_string(bad));
  EXPECT_EQ(parlo_emulator_trace_length(), 0u);
  EXPECT_EQ(A, expected);
  const size_t size = 64 << 24;  // more than the context's X has
  void* const large = mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  for (const auto& [n_row, n_col, n_inner] :
       {std::array{64, 32, 1 << 24}, {-64, 32, 32}, {-64, 32, -32}, {64, -1, 32}, {64, -31, 32}, {64, -32, 32}}) {
    const std::string refused = ending([&, r = n_row, c = n_col, k = n_inner] { multiply(r, c, k, large); });
    EXPECT_TRUE(refused.starts_with("exit 1 [Tavik] error 2 (mm_size_check, ")) << refused;
  }
  munmap(large, size);
}

// A file takes the descriptor that a product's own buffer had, and the buffer of the next product comes to its address.
TEST_F(UpperProducts, GoOnWhereFilesAreOpenedBetweenThem) {
  const auto* const W = static_cast<uint16_t*>(share(2 * 32 * 32));
  auto* const A = static_cast<uint16_t*>(share(2 * 32 * 32));
  test::configure([](auto& config) { config.lowest_descriptor = 0; });
  const std::vector<uint16_t> halves(32 * 32);
  const std::vector<uint8_t> ones(64 * 32, 1);
  std::vector<int32_t> sums(64 * 32);
  std::vector<int> files;
  for (int round = 0; round < 4; ++round) {
    for (int file = 0; file < 2; ++file) files.push_back(open("/dev/null", O_RDONLY));
    sums.assign(sums.size(), 0);
    EXPECT_OUTCOME(
        morun_npu_mm_u8i8_i32(3, 64, 32, 32, sums.data(), ones.data(), reinterpret_cast<const int8_t*>(ones.data())),
        "0");
    EXPECT_EQ(sums, std::vector<int32_t>(64 * 32, 32));
    EXPECT_OUTCOME(morun_npu_mm_f16f16_f16(3, 32, 32, 32, A, halves.data(), W), "0");
  }
  for (const int file : files) close(file);
}

// ---- What is refused

TEST_F(UpperProducts, OfTensorsAreRefused) {
  using T = Triple&;
  struct Case {
    std::vector<Path> paths;
    uint32_t platform;
    Shape shape;
    std::string outcome;
    std::function<void(T)> change = [](T) {};
  };
  const std::vector<Path> npu = {P1, P2, P3, P4, P5, P6};
  const Shape s = {64, 32, 32};
  const std::string platforms = "MORUN_PLATFORM_NPU0 and MORUN_PLATFORM_CPU are supported.",
                    rows = "n_row must be multiple of ",
                    call = "tensor.mm_tensor: ", none = "20 " + call + "Unsupported matmul tensors configuration",
                    platform = "14 " + call + "Unsupported platform selected. Currently, only " + platforms,
                    no_data =
                        "10 tensor.tensor_validate: tensor data pointer is NULL\n" + call + "Bad configuration of ",
                    inner =
                        "14 tensor.mm_tensor_validate: 2D x 2D mismatch: left inner dim = 8, right outer dim = 32\n",
                    to_ah = "14 cpu_rm_to_ah_f16_inplace: ", to_wh = "14 cpu_rm_to_wh_f16_inplace: ",
                    layouting = rows + "32, got 48\n" + call + "Internal layouting of ",
                    f16_48 = "14 npu_mm_f16: n_row=48 must be multiple of 32 for TESSEL F16 operations\n",
                    int8_32 = "1 npu_mm_u8i8_i32: n_row=32 must be multiple of 64 for TESSEL INT8 operations\n";
  const auto empty = [](T t) { t.result.data = t.left.data = t.right.data = nullptr; };
  const auto vectors = [](T t) {
    for (Tensor* v : {&t.result, &t.left, &t.right}) v->ndims = 1, v->layout = 0, v->dims[0] = v->strides[0] = 1;
  };
  const uint64_t wraps = uint64_t{1} << 59, large = uint64_t{1} << 31;
  const Case cases[] = {
      {{P3}, 1, s, platform, empty},
      {{P3}, 4, s, platform, empty},
      {{P3}, 3, s, no_data + "result_tensor", empty},
      {{P3}, 3, s, no_data + "left_tensor", [](T t) { t.left.data = t.right.data = nullptr; }},
      {{P3}, 3, s, no_data + "right_tensor", [](T t) { t.right.data = nullptr; }},
      {{P3},
       3,
       s,
       inner + call + "Tensor multiplication mismatch",
       [](T t) { t.left.dims[1] = t.left.strides[0] = 8; }},
      {npu, 3, s, none, [](T t) { t.left.is_contiguous = 0; }},
      {npu, 3, s, none, [](T t) { t.right.is_contiguous = 0; }},
      {npu, 3, s, none, [](T t) { t.left.data_dtype = i8; }},
      {npu, 3, s, none, [](T t) { t.right.data_dtype = u8; }},
      {npu, 3, s, none, [](T t) { t.result.data_dtype = i8; }},
      {npu, 3, s, none, [](T t) { t.left.layout = MORUN_LAYOUT_2D_6; }},
      {npu, 3, s, none, [](T t) { t.right.layout = MORUN_LAYOUT_2D_5; }},
      {npu, 3, s, none, [](T t) { t.result.layout = MORUN_LAYOUT_2D_2; }},
      {npu, 3, s, none, [](T t) { make_view(t.result, 64, 2, 1 << 20); }},
      {{P5}, 3, s, none, vectors},
      {{P1, P2, P3, P4, P6}, 0, s, none},
      {{P1, P2, P3, P4, P6}, 2, s, none},
      {{P5}, 2, s, "0"},
      {npu, 3, s, none, claims(large, 0, 0)},
      {npu, 3, s, none, claims(0, large, 0)},
      {npu, 3, s, none, claims(0, 0, large)},
      {{host}, 0, s, none, claims(wraps, 0, 0)},
      {{host}, 0, s, none, claims(0, wraps, 0)},
      {{host}, 0, s, none, claims(0, 0, wraps)},
      {{P2, P5}, 3, s, none, [](T t) { make_view(t.result, 1, 1, 64 * 32 - 1); }},
      {{host}, 0, s, none, [](T t) { make_view(t.result, 1, 1, 64 * 32 - 1); }},
      {{P1, P3}, 3, s, none, [=](T t) { t.right.data_offset = large, t.right.num_elements = 2 * large; }},
      {{P1}, 3, {32, 48, 32}, "1 " + call + "Err = 2"},
      {{P2}, 3, {48, 48, 32}, f16_48 + call + "Internal matmul failed\n"},
      {{P3}, 3, {48, 48, 32}, to_ah + layouting + "X_parlo failed\n"},
      {{P3}, 3, {32, 48, 32}, "2 " + call + "Err = 2"},
      {{P4}, 3, {32, 32, 32}, "1 cpu_rm_to_wh_i8: " + rows + "64, got 32\n" + call + "Err = 14"},
      {{P5}, 3, {48, 48, 32}, to_wh + layouting + "W failed\n"},
      {{P5}, 3, {48, 32, 32}, to_ah + layouting + "X failed\n"},
      {{P6}, 3, {32, 32, 32}, int8_32 + call + "Err = 14"}};
  for (const Case& c : cases)
    for (const Path& p : c.paths) {
      SCOPED_TRACE(&c - cases);
      Triple t = operands(p, c.shape, 0, 3, {}, {});
      c.change(t);
      expect_outcome(t, c.outcome, c.platform, heap_);
    }
  for (const Path& p : {P1, P3, P4, P6}) {
    Triple t = operands(p, s, 0, 3, {}, {});
    t.right.data = static_cast<char*>(t.right.data) + 2;
    expect_outcome(t, "14 " + call + not_shared("W", t.right.data), 3, heap_);
  }
  tavik_context* const initialised = std::exchange(context, nullptr);
  EXPECT_OUTCOME(morun_mm_tensor(1, nullptr, nullptr, nullptr), "107 " + call + "MORUN is not initialized");
  context = initialised;
}

}  // namespace
