// Files of any content: the reader refuses one with an Error, or gives a matrix that reads the same in every piece, and
// the same again when it has been written.
#include <cmath>

#include "tests/fuzz/fuzz.h"
#include "tools/morun/error.h"
#include "tools/morun/files/npy.h"

namespace {

using fuzz::expect;

fuzz::Counter matrices = "matrices", refusals = "refusals";

tool::Matrix whole(const tool::NpyFile& file) {
  tool::Matrix matrix(file.n_row(), file.n_col(), file.n_col() + 1);
  file.read({0, file.n_row(), 0, file.n_col()}, matrix.row(0), matrix.row_stride);
  return matrix;
}

void expect_same(float value, float expected, const char* what) {
  expect(value == expected || (std::isnan(value) && std::isnan(expected)), what);
}

void expect_same_in_pieces(const tool::NpyFile& file, const tool::Matrix& matrix) {
  const size_t row = matrix.n_row / 2, col = matrix.n_col / 2;
  tool::Matrix quarter(matrix.n_row - row, matrix.n_col - col);
  file.read({row, quarter.n_row, col, quarter.n_col}, quarter.row(0), quarter.row_stride);
  for (size_t r = 0; r < matrix.n_row; ++r) expect(matrix.row(r)[matrix.n_col] == 0, "padding is written");
  for (size_t r = 0; r < quarter.n_row; ++r)
    for (size_t c = 0; c < quarter.n_col; ++c)
      expect_same(quarter.row(r)[c], matrix.row(row + r)[col + c], "a block differs from the whole");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return fuzz::start();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryFile given, copy;
  given.fill(data, size);
  try {
    const tool::NpyFile file(given.path());
    const tool::Matrix matrix = whole(file);
    expect_same_in_pieces(file, matrix);

    copy.fill("", 0);
    tool::write_npy([](const void* bytes, size_t n_byte) { copy.append(bytes, n_byte); }, matrix);
    const tool::NpyFile copied(copy.path());
    expect(copied.n_row() == matrix.n_row && copied.n_col() == matrix.n_col, "the copy's extents differ");
    const tool::Matrix again = whole(copied);
    for (size_t i = 0; i < matrix.values.size(); ++i)
      expect_same(again.values[i], matrix.values[i], "the copy's values differ");
    matrices += 1;
  } catch (const tool::Error&) {
    refusals += 1;
  }
  return 0;
}
