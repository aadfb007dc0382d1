// The header of a .npy file: a literal of a Python dictionary. Shared by the library for weight files and the tool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace npy {

struct Header {
  std::string type;  // as NumPy writes it: byte order, kind, bytes of a value
  bool fortran_order = false;
  std::vector<uint64_t> shape;
};

// Parses a header: three keys in any order, then only spaces. When `text` is no header, throws a std::runtime_error
// that gives the reason. The parser does not recurse, whatever the text contains. A returned header has at most 32
// extents, and a type of at most 16 printable characters.
Header parse_header(std::string_view text);

// The header of a file of format 1 to 3, and the byte where the values start. `read` stores n_byte bytes that begin at
// an offset of the file, and throws when the file ends before.
struct LocatedHeader {
  Header header;
  uint64_t end;
};
using ByteReader = std::function<void(uint64_t offset, size_t n_byte, void* bytes)>;
LocatedHeader read_header(const ByteReader& read);

// Returns the header of a matrix in C order. Magic string, version, length, dictionary and padding together are a
// multiple of 64 bytes.
std::string format_header(std::string_view type, size_t n_row, size_t n_col);

}  // namespace npy
