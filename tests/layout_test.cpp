// Block rearrangements and tiled layouts against their definitions, with scratch memory and without.
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <string>

#include "include/tavik.h"
#include "tests/definitions.h"

namespace {

using test::Vector;

bool memory_is_short = false;

}  // namespace

// Replaces the function of the C library for this program and for the libraries that it loads.
extern "C" void* aligned_alloc(size_t alignment, size_t size) {
  void* block = nullptr;
  if (memory_is_short || posix_memalign(&block, alignment, size) != 0) return nullptr;
  return block;
}

namespace {

using Size = uint64_t;

// The definitions, element by element. An element whose place lies outside the array is dropped, and a place that
// receives no element keeps its value.
template <class T>
void linearize(Size n_row, Size n_col, Size block_rows, Size block_cols, Vector<T>& data) {
  const Vector<T> in = data;
  const Size nb = n_col / block_cols;
  for (Size r = 0; r < n_row; ++r)
    for (Size j = 0; j < nb; ++j)
      for (Size k = 0; k < block_cols; ++k) {
        const Size to = ((r / block_rows * nb + j) * block_rows + r % block_rows) * block_cols + k;
        if (to < n_row * n_col) data[to] = in[r * nb * block_cols + j * block_cols + k];
      }
}
template <class T>
void unlinearize(Size n_row, Size n_col, Size block_rows, Size block_cols, Vector<T>& data) {
  const Vector<T> in = data;
  const Size nbc = (n_col + block_cols - 1) / block_cols;
  for (Size r = 0; r < n_row; ++r)
    for (Size c = 0; c < n_col; ++c)
      data[r * n_col + c] =
          in[((r / block_rows * nbc + c / block_cols) * block_rows + r % block_rows) * block_cols + c % block_cols];
}
template <class T>
void transpose(Size n_row, Size n_col, Vector<T>& data) {
  const Vector<T> in = data;
  for (Size r = 0; r < n_row; ++r)
    for (Size c = 0; c < n_col; ++c) data[c * n_row + r] = in[r * n_col + c];
}

class Layouts : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { memory_is_short = GetParam(); }
  void TearDown() override { memory_is_short = false; }
  test::Random random_{1};
};
INSTANTIATE_TEST_SUITE_P(, Layouts, testing::Bool(), [](const auto& variant) {
  return std::string(variant.param ? "WithoutScratch" : "WithScratch");
});

struct Blocks {
  Size n_row, n_col, block_rows, block_cols;
};

template <class T>
void check_family(test::Random& random, void (*linearize_member)(Size, Size, Size, Size, T*),
                  void (*unlinearize_member)(Size, Size, Size, Size, T*), void (*transpose_member)(Size, Size, T*)) {
  const Blocks cases[] = {{64, 96, 32, 32},   {64, 63, 32, 63},     {12, 20, 4, 5},       {7, 9, 7, 9},
                          {30, 30, 1, 30},    {30, 30, 30, 1},      {0, 8, 2, 2},         {8, 0, 2, 2},
                          {64, 300, 16, 100},  // all in whole blocks; then rows and columns left over, and either
                          {8, 22, 2, 4},      {3, 4, 2, 1},         {5, 8, 3, 2},         {33, 20, 16, 3},
                          {5, 7, 8, 2},       {1, 40, 16, 8},       {29, 64, 32, 1},      {35, 340, 16, 70},
                          {5, 37, 4, 8},      {63, 65, 64, 1},      {3, 200, 2, 131},     {7, 9, 4, 4},
                          {8, 9, 4, 4},       {7, 8, 4, 4},         {3, 3, 5, 5},         {70, 33, 64, 2},
                          {33, 70, 16, 64},   {48, 97, 16, 32},     {9, 5, 2, 3},         {3, 4, 0, 1},
                          {3, 4, 1, 0},       {260, 290, 260, 290}, {300, 300, 300, 300}, {514, 771, 16, 64},
                          {768, 512, 32, 32}, {1026, 513, 7, 11}};
  for (const Blocks& b : cases) {
    SCOPED_TRACE(testing::Message() << b.n_row << " x " << b.n_col << " in " << b.block_rows << " x " << b.block_cols);
    const bool has_blocks = b.block_rows != 0 && b.block_cols != 0;
    Vector<T> data = random.any<T>(b.n_row * b.n_col), expected = data;
    if (has_blocks) linearize(b.n_row, b.n_col, b.block_rows, b.block_cols, expected);
    linearize_member(b.n_row, b.n_col, b.block_rows, b.block_cols, data.data());
    EXPECT_TRUE(test::same_bits(data, expected));

    transpose(b.n_row, b.n_col, expected);
    transpose_member(b.n_row, b.n_col, data.data());
    EXPECT_TRUE(test::same_bits(data, expected));

    // Edge blocks are whole in the source and cut in the result.
    const Size blocks_down = has_blocks ? (b.n_row + b.block_rows - 1) / b.block_rows : b.n_row;
    const Size blocks_across = has_blocks ? (b.n_col + b.block_cols - 1) / b.block_cols : b.n_col;
    data = random.any<T>(blocks_down * blocks_across * (has_blocks ? b.block_rows * b.block_cols : 1));
    expected = data;
    if (has_blocks) unlinearize(b.n_row, b.n_col, b.block_rows, b.block_cols, expected);
    unlinearize_member(b.n_row, b.n_col, b.block_rows, b.block_cols, data.data());
    EXPECT_TRUE(test::same_bits(data, expected));
  }
}

TEST_P(Layouts, BlockFamiliesFollowTheirDefinitions) {
#define CHECK_FAMILY(suffix)                                                                            \
  check_family(random_, tavik_matrix_block_linearize_##suffix, tavik_matrix_block_unlinearize_##suffix, \
               tavik_matrix_transpose_##suffix)
  CHECK_FAMILY(i8);
  CHECK_FAMILY(u8);
  CHECK_FAMILY(f16);
  CHECK_FAMILY(i32);
  CHECK_FAMILY(u32);
  CHECK_FAMILY(f32);
}

// Each tiled layout: its converter, where element (r, c) of an R x C matrix goes, and the steps that it is made of
// elsewhere.
template <class T>
struct Layout {
  const char* name;
  void (*converter)(Size, Size, T*);
  Size (*place)(Size r, Size c, Size n_col);
  void (*steps)(Size, Size, Vector<T>&);
  Size column_multiple;
};

template <class T>
void check_layout(test::Random& random, const Layout<T>& layout) {
  SCOPED_TRACE(layout.name);
  const Size rows[] = {0, 32, 64, 96, 33, 31, 48, 2};
  const Size columns[] = {32, 64, 96, 416, 34, 36, 33, 2, 1056};
  for (const Size n_row : rows) {
    for (const Size n_col : columns) {
      SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
      Vector<T> data = random.any<T>(n_row * n_col), expected = data;
      if (n_row % 32 != 0 || n_col % layout.column_multiple != 0)
        layout.steps(n_row, n_col, expected);
      else
        for (Size i = 0; i < n_row * n_col; ++i) expected[layout.place(i / n_col, i % n_col, n_col)] = data[i];
      layout.converter(n_row, n_col, data.data());
      EXPECT_TRUE(test::same_bits(data, expected));
    }
  }
}

const Layout<uint16_t> ah = {"ah", tavik_f16_rm_to_f16_ah_inplace, test::place_in_ah,
                             [](Size n_row, Size n_col, Vector<uint16_t>& data) {
                               linearize(n_row, n_col, 2, 1, data);
                               linearize(n_row / 2, 2 * n_col, 16, 64, data);
                             },
                             32};

TEST_P(Layouts, TilesAreWhereTheirFormulasSay) {
  check_layout(random_, ah);
  static const auto steps = [](Size group, Size n_row, Size n_col, auto& data) {
    transpose(n_row, n_col, data);
    linearize(n_col, n_row, group, 1, data);
    linearize(n_col / group, group * n_row, n_col / group, 32 * group, data);
  };
  check_layout(random_, Layout<uint16_t>{"wh f16", tavik_f16_rm_to_f16_wh_inplace, test::place_in_wh<2>,
                                         [](Size r, Size c, Vector<uint16_t>& data) { steps(2, r, c, data); }, 2});
  check_layout(random_, Layout<int8_t>{"wh i8", tavik_i8_rm_to_i8_wh_inplace, test::place_in_wh<4>,
                                       [](Size r, Size c, Vector<int8_t>& data) { steps(4, r, c, data); }, 4});
}

TEST_P(Layouts, ActivationTilesConvertBack) {
  for (const auto& [n_row, n_col] : {std::pair<Size, Size>{32, 32}, {96, 1056}, {64, 64}}) {
    const Vector<uint16_t> matrix = random_.any<uint16_t>(n_row * n_col);
    Vector<uint16_t> data = matrix;
    tavik_f16_rm_to_f16_ah_inplace(n_row, n_col, data.data());
    EXPECT_NE(data, matrix);
    tavik_f16_ah_to_f16_rm_inplace(n_row, n_col, data.data());
    EXPECT_EQ(data, matrix);
  }
  // A partial band and a partial column of tiles: the inverses of the steps.
  const Size n_row = 40, n_col = 48;
  Vector<uint16_t> data = random_.any<uint16_t>(64 * 64), expected = data;
  unlinearize(n_row / 2, 2 * n_col, 16, 64, expected);
  unlinearize(n_row, n_col, 2, 1, expected);
  tavik_f16_ah_to_f16_rm_inplace(n_row, n_col, data.data());
  EXPECT_EQ(data, expected);
}

TEST_P(Layouts, FourBitTilesArePackedAndPadded) {
  for (const auto& [n_row, n_col] : {std::pair<Size, Size>{32, 32},
                                     {64, 96},
                                     {1, 8},
                                     {33, 40},
                                     {70, 1056},
                                     {31, 64},
                                     {1030, 64},
                                     {4128, 704},
                                     {4100, 704},
                                     {4096, 712}}) {
    SCOPED_TRACE(testing::Message() << n_row << " x " << n_col);
    const Size tiles_down = (n_row + 31) / 32, tiles_across = (n_col + 31) / 32;
    Vector<uint32_t> data = random_.any<uint32_t>(tiles_down * tiles_across * 128);  // the room behind is not zero
    Vector<uint8_t> expected(tiles_down * tiles_across * 512), transposed(n_row * n_col);
    for (Size r = 0; r < n_row; ++r)
      for (Size c = 0; c < n_col; ++c) {
        const uint32_t nibble = data[(r * n_col + c) / 8] >> 4 * (c % 8) & 15u;
        uint8_t& byte = expected[test::byte_of_nibble(r, c, n_col)];
        byte = static_cast<uint8_t>(byte | nibble << test::shift_of_nibble(c));
        transposed[c * n_row + r] = static_cast<uint8_t>(nibble | 0xa0u);  // upper bits are not looked at
      }
    // The large matrices may be written past the caches, from any place of a line on. The memory ends, or begins, at a line.
    for (const Size past : {0, 16, 37}) {
      Vector<uint8_t> tiles(past + expected.size() + (64 - past), 0xee), surrounded(tiles);
      std::copy(expected.begin(), expected.end(), surrounded.begin() + static_cast<ptrdiff_t>(past));
      tavik_host_layout_w4_flat_to_weight(tiles.data() + past, transposed.data(), n_col, n_row);
      EXPECT_TRUE(test::same_bits(tiles, surrounded)) << past << " bytes past a line";
    }
    tavik_i4_rm_to_i4_wh_inplace(n_row, n_col, data.data());
    EXPECT_EQ(memcmp(data.data(), expected.data(), expected.size()), 0);
  }
}

TEST(Blocks, OfFourByEight) {
  test::Random random(3);
  Vector<uint16_t> data = random.any<uint16_t>(12 * 24), expected = data;
  linearize(12, 24, 4, 8, expected);
  tavik_f16_cm_to_f16_zb_inplace(12, 24, data.data());
  EXPECT_EQ(data, expected);
}

}  // namespace
