// Matrices in NumPy's .npy files. Read: formats 1 to 3, values of 2, 4 or 8 bytes, either byte order, C and Fortran order;
// an array of rank 1 is a matrix of one row. Written: format 1, little-endian, C order.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>

#include "tools/morun/files/descriptor.h"
#include "tools/morun/files/matrix.h"

namespace tool {

enum class NpyType { f16, f32, f64 };

// Part of a matrix.
struct Block {
  size_t first_row, n_row;
  size_t first_col, n_col;
};

// A regular file that holds a matrix which is not empty; anything else is refused with an Error that names the file and
// the cause. Opening it reads the header alone.
class NpyFile {
 public:
  explicit NpyFile(const std::filesystem::path& path);

  const std::filesystem::path& path() const { return path_; }
  NpyType type() const { return type_; }
  size_t n_row() const { return n_row_; }
  size_t n_col() const { return n_col_; }

  // Reads a block as f32: halves are widened, f64 is rounded to nearest. The block's rows start `row_stride` values apart
  // at `to`, and what lies between them is left alone. Takes the same memory for any block.
  void read(const Block& block, float* to, size_t row_stride) const;

 private:
  void read_header();
  void read_values(size_t first, size_t n_value, float* to) const;

  std::filesystem::path path_;
  Descriptor descriptor_;
  size_t data_offset_ = 0;  // bytes from the start of the file
  NpyType type_ = NpyType::f32;
  bool big_endian_ = false;
  bool fortran_order_ = false;
  size_t n_row_ = 0;
  size_t n_col_ = 0;
};

// Takes the bytes of a file one piece after the other.
using ByteSink = std::function<void(const void* bytes, size_t n_byte)>;

// A file is its header and then all its values, row after row, as f32 or rounded to f16.
void write_npy_header(const ByteSink& sink, size_t n_row, size_t n_col, bool as_f16);
void write_npy_values(const ByteSink& sink, const float* values, size_t n_value, bool as_f16);

// The whole file of a matrix, in f32.
void write_npy(const ByteSink& sink, const Matrix& matrix);

}  // namespace tool
