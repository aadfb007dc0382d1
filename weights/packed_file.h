// A packed file, open and checked: safetensors entries joined with their records.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "include/morun_weights.h"
#include "weights/input_file.h"
#include "weights/record.h"
#include "weights/safetensors.h"

namespace weights {

struct PackedTensor {
  TensorEntry entry;
  Record record;
  morun_weights_layout layout = {};  // zeros where carried
  uint64_t file_offset = 0;

  uint64_t n_byte() const { return entry.end - entry.begin; }
};

// Throws RECORD_MISSING to CHECKSUM_TEXT, NOT_PACKED_FILE, UNKNOWN_VERSION. `header` is valid; `path` stands in
// messages.
std::vector<PackedTensor> checked_tensors(const std::string& path, SafetensorsHeader header);

}  // namespace weights

struct morun_weights_file {
  explicit morun_weights_file(const char* path);

  const weights::PackedTensor& tensor(uint64_t index) const;  // throws BAD_ARGUMENT

  // Reads a whole tensor to `bytes`. Throws READ, SHRUNK, and CHECKSUM if the checksum is to be compared.
  void read_tensor(const weights::PackedTensor& tensor, bool compares_checksum, void* bytes) const;

  // Reads a whole tensor and keeps nothing of it. Throws READ, SHRUNK, CHECKSUM.
  void verify_tensor(const weights::PackedTensor& tensor) const;

  weights::InputFile input;
  std::vector<weights::PackedTensor> tensors;
  std::unordered_map<std::string, uint64_t> numbers;  // by name
};
