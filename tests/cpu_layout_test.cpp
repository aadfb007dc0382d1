// The checked layout calls: each result element by element between guards.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>

#include "include/morun.h"
#include "tests/definitions.h"

namespace {

using test::Vector;

using Size = uint64_t;
struct Shape {
  Size n_row, n_col;
};

// Calls `convert` on memory that holds `before` and expects `after`. Adds to the digest.
template <class T>
void expect_result(uint64_t& digest, const Vector<T>& before, const Vector<T>& after, auto convert, size_t shift = 0) {
  const size_t start = shift;  // large results then begin within a cache line
  Vector<T> memory(start + std::max<size_t>(after.size(), 1), T{90}), expected = memory;
  std::copy(before.begin(), before.end(), memory.begin() + static_cast<long>(start));
  std::copy(after.begin(), after.end(), expected.begin() + static_cast<long>(start));
  EXPECT_EQ(convert(memory.data() + start), 0u);
  EXPECT_TRUE(memory == expected);
  digest = test::digest(memory, digest);
}

// One digest over all results; the same on every platform and vector backend.
TEST(CpuLayouts, FollowTheirDefinitions) {
  test::Random random(51);
  uint64_t digest = 0;
  const auto check_in_place = [&]<class T>(uint32_t (*to_tiles)(Size, Size, T*), Size (*place)(Size, Size, Size),
                                           uint32_t (*to_rows)(Size, Size, T*) = nullptr) {
    const Shape shapes[] = {{32, 32}, {96, 64}, {64, 1056}, {32, 4096}, {0, 1 << 20}, {Size{1} << 40, 0}};
    for (const Shape& shape : shapes) {
      const Size n_row = shape.n_row, n_col = shape.n_col;
      SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
      const Vector<T> rows = random.any<T>(n_row * n_col);
      Vector<T> tiles = rows;
      for (Size i = 0; i < rows.size(); ++i) tiles[place(i / n_col, i % n_col, n_col)] = rows[i];
      expect_result(digest, rows, tiles, [&](T* data) { return to_tiles(n_row, n_col, data); });
      if (to_rows) expect_result(digest, tiles, rows, [&](T* data) { return to_rows(n_row, n_col, data); });
    }
  };
  check_in_place(morun_cpu_rm_to_ah_f16_inplace, test::place_in_ah, morun_cpu_ah_to_rm_f16_inplace);
  check_in_place(morun_cpu_rm_to_wh_f16_inplace, test::place_in_wh<2>);
  check_in_place(morun_cpu_rm_to_wh_i8_inplace, test::place_in_wh<4>);

  for (const Shape& shape : {Shape{64, 32}, {128, 96}, {2048, 1056}, {0, 64}, {Size{1} << 60, 0}}) {
    const Size n_row = shape.n_row, n_col = shape.n_col;
    SCOPED_TRACE(testing::Message() << "bytes " << n_row << " x " << n_col);
    const Vector<uint8_t> rows = random.any<uint8_t>(n_row * n_col + 1);  // never NULL
    Vector<uint8_t> tiles(n_row * n_col);
    for (Size i = 0; i < tiles.size(); ++i) tiles[test::place_in_tall_tiles(i / n_col, i % n_col, n_col)] = rows[i];
    for (const size_t shift : {0, 1})
      expect_result(
          digest, {}, tiles, [&](uint8_t* dst) { return morun_cpu_rm_to_wh_i8(n_col, n_row, rows.data(), dst); },
          shift);
  }

  const Shape weights[] = {{32, 64},  {33, 33},    {1, 1}, {31, 96},          {64, 65},
                           {70, 127}, {300, 1120}, {0, 9}, {Size{1} << 60, 0}};
  for (const Shape& shape : weights) {
    const Size n_row = shape.n_row, n_col = shape.n_col;
    SCOPED_TRACE(testing::Message() << "nibbles " << n_row << " x " << n_col);
    const Vector<uint8_t> rows = random.any<uint8_t>(n_row * n_col + 1);  // upper bits are not looked at
    const Size tiles_across = (n_col + 31) / 32;
    Vector<uint8_t> tiles((n_row + 31) / 32 * tiles_across * 512);
    for (Size i = 0; i < n_row * n_col; ++i) {
      uint8_t& byte = tiles[test::byte_of_nibble(i / n_col, i % n_col, n_col)];
      byte = static_cast<uint8_t>(byte | (rows[i] & 15) << test::shift_of_nibble(i % n_col));
    }
    expect_result(digest, {}, tiles,
                  [&](uint8_t* dst) { return morun_cpu_rm_to_wh_i4(dst, rows.data(), n_col, n_row); });
  }

  uint64_t of_others = 0;
  for (const Shape& shape :
       {Shape{65, 96}, {128, 32}, {3, 40}, {700, 1056}, {0, 32}, {Size{1} << 60, 0}, {700, 1060}}) {
    const Size n_row = shape.n_row, n_col = shape.n_col;
    SCOPED_TRACE(testing::Message() << "results " << n_row << " x " << n_col);
    const Vector<int32_t> tiles = random.any<int32_t>((n_row + 63) / 64 * (n_col / 32) * 2048 + 1);
    Vector<int32_t> rows(n_row * n_col, 90);  // columns past the last whole tile stay
    for (Size i = 0; i < rows.size(); ++i)
      if (i % n_col < n_col / 32 * 32)
        rows[i] = tiles[test::place_in_tall_tiles(i / n_col, i % n_col, n_col / 32 * 32)];
    expect_result(n_col == 1060 ? of_others : digest, {}, rows,
                  [&](int32_t* dst) { return morun_cpu_ui8i4_ah_to_i32_rm(n_row, n_col, tiles.data(), dst); });
    expect_result(
        of_others, {}, rows,
        [&](int32_t* dst) { return morun_cpu_ui8i8_ah_to_i32_rm(n_row, n_col, tiles.data(), dst); }, 4);
  }
  printf("digest %llu\n", static_cast<unsigned long long>(digest));
  EXPECT_EQ(digest, 2939682234721852338u);
}

}  // namespace
