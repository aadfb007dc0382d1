#include "tools/morun/files/npy.h"

#include <sys/stat.h>
#include <tavik.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "tools/morun/error.h"
#include "weights/npy_header.h"

namespace tool {
namespace {

// Files are read and written in chunks of this many values. It is a multiple of eight, because the library converts
// groups of eight.
constexpr size_t n_chunk = 16384;
using Chunk = std::array<float, n_chunk>;

constexpr size_t f16_group = 8;

size_t size_of(NpyType type) {
  return type == NpyType::f16 ? 2 : type == NpyType::f32 ? 4 : 8;
}

std::optional<NpyType> type_named(std::string_view name) {
  if (name.size() != 3 || std::string_view("<>=").find(name[0]) == std::string_view::npos) return std::nullopt;
  const std::string_view kind = name.substr(1);
  if (kind == "f2") return NpyType::f16;
  if (kind == "f4") return NpyType::f32;
  if (kind == "f8") return NpyType::f64;
  return std::nullopt;
}

// ---- Reading -------------------------------------------------------------------------------------------------------

// Opening a FIFO in the ordinary way would wait for a writer.
int open_for_reading(const std::filesystem::path& path) {
  return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

size_t size_of_regular_file(const Descriptor& descriptor) {
  struct stat status = {};
  if (!descriptor.is_open() || fstat(descriptor.number(), &status) != 0) throw Error("{}", std::strerror(errno));
  if (S_ISDIR(status.st_mode)) throw Error("it is a directory, not a .npy file");
  if (S_ISFIFO(status.st_mode)) throw Error("it is a pipe; matrices are read from files");
  if (!S_ISREG(status.st_mode)) throw Error("it is a device; matrices are read from files");
  return static_cast<size_t>(status.st_size);
}

// Throws an Error when the file ends before the last byte.
void read_bytes(const Descriptor& descriptor, size_t offset, void* to, size_t n_byte) {
  auto* next = static_cast<std::byte*>(to);
  while (n_byte > 0) {
    const ssize_t n_read = pread(descriptor.number(), next, n_byte, static_cast<off_t>(offset));
    if (n_read < 0 && errno == EINTR) continue;
    if (n_read < 0) throw Error("{}", std::strerror(errno));
    if (n_read == 0) throw Error("the file is cut short");
    next += n_read;
    offset += static_cast<size_t>(n_read);
    n_byte -= static_cast<size_t>(n_read);
  }
}

void reverse_each(std::byte* values, size_t n_value, size_t value_size) {
  for (size_t i = 0; i < n_value; ++i) std::reverse(values + i * value_size, values + (i + 1) * value_size);
}

// The lines of a block in the file, and the places for their values.
struct Lines {
  size_t length;
  size_t line_stride, value_stride;
};

// Places the next `n` values. `first` is the number of the first of them, counted over all lines.
void place(const float* values, size_t first, size_t n, const Lines& lines, float* to) {
  while (n > 0) {
    const size_t in_line = first % lines.length;
    const size_t n_same_line = std::min(n, lines.length - in_line);
    float* const target = to + first / lines.length * lines.line_stride + in_line * lines.value_stride;
    for (size_t i = 0; i < n_same_line; ++i) target[i * lines.value_stride] = values[i];
    values += n_same_line;
    first += n_same_line;
    n -= n_same_line;
  }
}

}  // namespace

NpyFile::NpyFile(const std::filesystem::path& path) : path_(path), descriptor_(open_for_reading(path)) {
  try {
    read_header();
  } catch (const Error& error) {
    throw Error("{}: {}", path_.native(), error.what());
  }
}

void NpyFile::read_header() {
  const size_t n_byte = size_of_regular_file(descriptor_);
  npy::LocatedHeader located;
  try {
    located =
        npy::read_header([&](uint64_t offset, size_t n, void* bytes) { read_bytes(descriptor_, offset, bytes, n); });
  } catch (const std::runtime_error& error) {
    throw Error("not a .npy file that can be read ({})", error.what());
  }
  const npy::Header& header = located.header;
  const std::optional<NpyType> type = type_named(header.type);
  if (!type) throw Error("values are of type {}, which is none of f16 (f2), f32 (f4) and f64 (f8)", header.type);
  const size_t rank = header.shape.size();
  if (rank != 1 && rank != 2) throw Error("an array of rank {}, not a matrix", rank);

  data_offset_ = located.end;
  type_ = *type;
  big_endian_ = header.type[0] == '>';
  fortran_order_ = header.fortran_order;
  n_row_ = rank == 1 ? 1 : header.shape[0];
  n_col_ = header.shape[rank - 1];
  if (n_row_ == 0 || n_col_ == 0) throw Error("the matrix is empty ({} x {})", n_row_, n_col_);
  const size_t n_value = (n_byte - std::min(n_byte, data_offset_)) / size_of(type_);
  if (n_row_ > n_value / n_col_) {
    throw Error("holds {} values, fewer than its shape {} x {} has", n_value, n_row_, n_col_);
  }
}

// A line is a row, or a column in Fortran order: values that are contiguous in the file. Whole lines stand one behind
// the other and are read as one run.
void NpyFile::read(const Block& block, float* to, size_t row_stride) const {
  const size_t line_length = fortran_order_ ? n_row_ : n_col_;
  const size_t first_line = fortran_order_ ? block.first_col : block.first_row;
  const size_t n_line = fortran_order_ ? block.n_col : block.n_row;
  const size_t first_in_line = fortran_order_ ? block.first_row : block.first_col;
  const Lines lines = fortran_order_ ? Lines{block.n_row, 1, row_stride} : Lines{block.n_col, row_stride, 1};

  const size_t lines_per_run = lines.length == line_length ? n_line : 1;
  const size_t run_length = lines_per_run * lines.length;
  Chunk chunk;
  for (size_t line = 0; line < n_line; line += lines_per_run) {
    const size_t run_start = (first_line + line) * line_length + first_in_line;
    for (size_t done = 0; done < run_length; done += n_chunk) {
      const size_t n = std::min(n_chunk, run_length - done);
      read_values(run_start + done, n, chunk.data());
      place(chunk.data(), done, n, lines, to + line * lines.line_stride);
    }
  }
}

// Reads at most one chunk. `to` has room for whole groups of eight halves.
void NpyFile::read_values(size_t first, size_t n_value, float* to) const {
  alignas(double) std::array<std::byte, n_chunk * sizeof(double)> bytes;
  const size_t n_byte = n_value * size_of(type_);
  try {
    read_bytes(descriptor_, data_offset_ + first * size_of(type_), bytes.data(), n_byte);
  } catch (const Error& error) {
    throw Error("{}: {}", path_.native(), error.what());
  }
  if (big_endian_) reverse_each(bytes.data(), n_value, size_of(type_));

  if (type_ == NpyType::f32) std::memcpy(to, bytes.data(), n_byte);
  if (type_ == NpyType::f16) {
    const size_t n_padded = tavik_align_offset(n_value, f16_group);
    std::memset(bytes.data() + n_byte, 0, n_padded * sizeof(uint16_t) - n_byte);
    tavik_f16_to_f32(n_padded, reinterpret_cast<const uint16_t*>(bytes.data()), to);
  }
  if (type_ == NpyType::f64) {
    const auto* const doubles = reinterpret_cast<const double*>(bytes.data());
    for (size_t i = 0; i < n_value; ++i) to[i] = static_cast<float>(doubles[i]);
  }
}

// ---- Writing -------------------------------------------------------------------------------------------------------

void write_npy_header(const ByteSink& sink, size_t n_row, size_t n_col, bool as_f16) {
  const std::string header = npy::format_header(as_f16 ? "<f2" : "<f4", n_row, n_col);
  sink(header.data(), header.size());
}

void write_npy_values(const ByteSink& sink, const float* values, size_t n_value, bool as_f16) {
  if (!as_f16) return sink(values, n_value * sizeof(float));
  Chunk chunk;
  std::array<uint16_t, n_chunk> halves;
  for (size_t done = 0; done < n_value; done += n_chunk) {
    const size_t n = std::min(n_chunk, n_value - done);
    std::fill(std::copy_n(values + done, n, chunk.begin()), chunk.end(), 0.0f);
    tavik_f32_to_f16(tavik_align_offset(n, f16_group), chunk.data(), halves.data());
    sink(halves.data(), n * sizeof(uint16_t));
  }
}

void write_npy(const ByteSink& sink, const Matrix& matrix) {
  write_npy_header(sink, matrix.n_row, matrix.n_col, false);
  if (matrix.row_stride == matrix.n_col) return write_npy_values(sink, matrix.row(0), matrix.values.size(), false);
  std::vector<float> gathered;  // several short rows together, for fewer and longer writes
  gathered.reserve(std::max(n_chunk, matrix.n_col));
  for (size_t r = 0; r < matrix.n_row; ++r) {
    gathered.insert(gathered.end(), matrix.row(r), matrix.row(r) + matrix.n_col);
    if (r + 1 < matrix.n_row && gathered.size() + matrix.n_col <= n_chunk) continue;
    write_npy_values(sink, gathered.data(), gathered.size(), false);
    gathered.clear();
  }
}

}  // namespace tool
