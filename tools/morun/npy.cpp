#include "tools/morun/npy.h"

#include <tavik.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>
#include <xtensor/xnpy.hpp>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr char f32_name[] = "<f4";
constexpr char f16_name[] = "<f2";

struct Header {
  std::string type;
  bool fortran_order = false;
  std::vector<size_t> shape;
};

// Little-endian, of two bytes in format 1.0 and four in 2.0.
size_t read_header_length(std::istream& stream, size_t n_bytes) {
  size_t length = 0;
  for (size_t i = 0; i < n_bytes; ++i) length |= size_t{static_cast<unsigned char>(stream.get())} << (8 * i);
  return length;
}

// xtensor throws std::runtime_error where the text is no header.
Header read_header(std::istream& stream) {
  unsigned char major = 0;
  unsigned char minor = 0;
  xt::detail::read_magic(stream, &major, &minor);
  if (major != 1 && major != 2) throw std::runtime_error("unknown format version");

  constexpr size_t longest = 1 << 20;
  const size_t length = read_header_length(stream, major == 1 ? 2 : 4);
  if (!stream || length == 0 || length > longest) throw std::runtime_error("invalid header length");
  std::string text(length, ' ');
  if (!stream.read(text.data(), static_cast<std::streamsize>(length))) throw std::runtime_error("header is cut short");

  Header header;
  xt::detail::parse_header(text, header.type, &header.fortran_order, header.shape);
  return header;
}

size_t bytes_left(std::istream& stream) {
  const auto here = stream.tellg();
  const auto end = stream.seekg(0, std::ios::end).tellg();
  stream.seekg(here);
  return stream ? static_cast<size_t>(end - here) : 0;
}

// The conversions take whole groups of values.
constexpr size_t f16_group = 8;

std::vector<float> read_f16(std::istream& stream, size_t count) {
  const size_t n_padded = tavik_align_offset(count, f16_group);
  std::vector<uint16_t> halves(n_padded);
  stream.read(reinterpret_cast<char*>(halves.data()), static_cast<std::streamsize>(count * sizeof(uint16_t)));
  std::vector<float> values(n_padded);
  tavik_f16_to_f32(n_padded, halves.data(), values.data());
  values.resize(count);
  return values;
}

std::vector<uint16_t> to_f16(std::vector<float> values) {
  values.resize(tavik_align_offset(values.size(), f16_group));
  std::vector<uint16_t> halves(values.size());
  tavik_f32_to_f16(values.size(), values.data(), halves.data());
  return halves;
}

template <typename Value>
void write_values(std::ostream& stream, const std::vector<Value>& values, size_t count) {
  stream.write(reinterpret_cast<const char*>(values.data()), static_cast<std::streamsize>(count * sizeof(Value)));
}

}  // namespace

NpyFile::NpyFile(const std::filesystem::path& path) : path_(path), stream_(path, std::ios::binary) {
  if (!stream_) throw Error("{}: {}", path_.native(), std::strerror(errno));
  Header header;
  try {
    header = read_header(stream_);
  } catch (const std::runtime_error& error) {
    throw Error("{}: not a .npy file that can be read ({})", path_.native(), error.what());
  }

  if (header.type != f32_name && header.type != f16_name) {
    throw Error("{}: values are of type {}, which is neither f32 ({}) nor f16 ({})", path_.native(), header.type,
                f32_name, f16_name);
  }
  if (header.shape.size() != 2) {
    throw Error("{}: an array of rank {}, not a matrix", path_.native(), header.shape.size());
  }
  type_ = header.type == f32_name ? NpyType::f32 : NpyType::f16;
  fortran_order_ = header.fortran_order;
  n_row_ = header.shape[0];
  n_col_ = header.shape[1];
  if (n_row_ == 0 || n_col_ == 0) throw Error("{}: the matrix is empty ({} x {})", path_.native(), n_row_, n_col_);

  const size_t n_values = bytes_left(stream_) / (type_ == NpyType::f32 ? sizeof(float) : sizeof(uint16_t));
  if (n_row_ > n_values / n_col_) {
    throw Error("{}: holds {} values, fewer than its shape {} x {} has", path_.native(), n_values, n_row_, n_col_);
  }
}

Matrix NpyFile::read() {
  Matrix matrix(n_row_, n_col_);
  if (type_ == NpyType::f32) {
    stream_.read(reinterpret_cast<char*>(matrix.values.data()),
                 static_cast<std::streamsize>(matrix.values.size() * sizeof(float)));
  } else {
    matrix.values = read_f16(stream_, n_row_ * n_col_);
  }
  if (!stream_) throw Error("{}: {}", path_.native(), std::strerror(errno));

  // Column after column is the transposed matrix row after row.
  if (fortran_order_) tavik_matrix_transpose_f32(n_col_, n_row_, matrix.values.data());
  return matrix;
}

void write_npy(std::ostream& stream, const Matrix& matrix, NpyType type) {
  const std::array<size_t, 2> shape = {matrix.n_row, matrix.n_col};
  xt::detail::write_header(stream, type == NpyType::f32 ? f32_name : f16_name, false, shape);
  if (type == NpyType::f32) {
    write_values(stream, matrix.values, matrix.values.size());
  } else {
    write_values(stream, to_f16(matrix.values), matrix.values.size());
  }
}

}  // namespace tool
