// Matrices in NumPy's .npy files, formats 1.0 and 2.0, little-endian.
#pragma once

#include <cstddef>
#include <filesystem>
#include <fstream>
#include <ostream>

#include "tools/morun/matrix.h"

namespace tool {

enum class NpyType { f32, f16 };  // "<f4", "<f2"

// A file that holds a matrix which is not empty; anything else is refused with an Error that names the file. Opening it
// reads the header alone.
class NpyFile {
 public:
  explicit NpyFile(const std::filesystem::path& path);

  const std::filesystem::path& path() const { return path_; }
  size_t n_row() const { return n_row_; }
  size_t n_col() const { return n_col_; }

  // The values, halves widened to f32. May be called once.
  Matrix read();

 private:
  std::filesystem::path path_;
  std::ifstream stream_;
  NpyType type_ = NpyType::f32;
  bool fortran_order_ = false;
  size_t n_row_ = 0;
  size_t n_col_ = 0;
};

// Writes `matrix` in C order, as `type`. The stream's state tells whether that worked.
void write_npy(std::ostream& stream, const Matrix& matrix, NpyType type);

}  // namespace tool
