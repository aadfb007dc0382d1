// Matrices in NumPy's .npy files. The reader takes formats 1 to 3, values of 2, 4 or 8 bytes, either byte order, C and
// Fortran order; an array of rank 1 is a matrix of one row. The writer writes format 1, little-endian, C order.
#pragma once

#include <cstddef>
#include <filesystem>
#include <functional>

#include "tools/morun/files/descriptor.h"
#include "tools/morun/files/matrix.h"

namespace tool {

enum class NpyType { f16, f32, f64 };

// A part of a matrix.
struct Block {
  size_t first_row, n_row;
  size_t first_col, n_col;
};

// A regular file that holds a matrix with at least one element. Every other file is refused with an Error that names
// the file and the cause. The constructor reads only the header.
class NpyFile {
 public:
  explicit NpyFile(const std::filesystem::path& path);

  const std::filesystem::path& path() const { return path_; }
  NpyType type() const { return type_; }
  size_t n_row() const { return n_row_; }
  size_t n_col() const { return n_col_; }

  // Reads a block as f32: halves are widened, f64 is rounded to nearest. The block's rows start `row_stride` values
  // apart at `to`; the values between the rows are not written. The memory needed does not depend on the block's size.
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

// Takes the bytes of a file, one piece after the other.
using ByteSink = std::function<void(const void* bytes, size_t n_byte)>;

// A file consists of its header and then all values, row after row, as f32 or rounded to f16.
void write_npy_header(const ByteSink& sink, size_t n_row, size_t n_col, bool as_f16);
void write_npy_values(const ByteSink& sink, const float* values, size_t n_value, bool as_f16);

// Writes the whole file of a matrix, in f32.
void write_npy(const ByteSink& sink, const Matrix& matrix);

}  // namespace tool
