// The safetensors format: 8 bytes little-endian length, a JSON header of so many bytes, the data. Reading checks
// everything that the header says.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "weights/input_file.h"

namespace weights {

// A type of elements. Records are static; two types are the same when their addresses are.
struct Dtype {
  const char* name;
  uint32_t n_bit;
};
// NULL for a name that is none.
const Dtype* dtype_by_name(std::string_view name);

struct TensorEntry {
  std::string name;
  const Dtype* dtype = nullptr;
  std::vector<uint64_t> shape;
  uint64_t begin = 0;  // bytes from the start of the data
  uint64_t end = 0;
};

struct SafetensorsHeader {
  uint64_t data_begin = 0;           // of the data in the file
  std::vector<TensorEntry> tensors;  // in the order of their bytes; no gaps, no overlaps, all of the file
  std::map<std::string, std::string> metadata;
};

// Throws one of TOO_SHORT to TRAILING_DATA, or READ, SHRUNK.
SafetensorsHeader read_header(const InputFile& file);

// The same for the JSON text alone. `path` stands in messages.
SafetensorsHeader parse_header(const std::string& path, std::string_view json, uint64_t n_data_byte);

// Returns the first bytes of a file, up to its data: the length of the JSON text, the text, and blanks. The number of
// bytes is a multiple of data_alignment and at least least_size. Names are valid UTF-8. Throws HEADER_TOO_LONG.
std::string format_header(const std::vector<TensorEntry>& tensors, const std::map<std::string, std::string>& metadata,
                          uint64_t least_size);

}  // namespace weights
