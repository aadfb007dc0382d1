// The header of a .npy file: a literal of a Python dictionary.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace tool {

struct NpyHeader {
  std::string type;  // as NumPy writes it: byte order, kind, bytes of a value
  bool fortran_order = false;
  std::vector<uint64_t> shape;
};

// Parses a header: three keys in any order, then only spaces. When `text` is no header, throws an Error that gives the
// reason. The parser does not recurse, whatever the text contains. A returned header has at most 32 extents, and a type
// of at most 16 printable characters.
NpyHeader parse_npy_header(std::string_view text);

// Returns the header of a matrix in C order. Magic string, version, length, dictionary and padding together are a
// multiple of 64 bytes.
std::string npy_header(std::string_view type, size_t n_row, size_t n_col);

}  // namespace tool
