// Warnings about operands that a product does not take as they are.
#pragma once

#include <cstddef>
#include <string>

#include "tools/morun/files/npy.h"

namespace tool {

// Looks at the values of one file.
class OperandCheck {
 public:
  // `becomes_f16` says whether the product rounds the values to halves.
  OperandCheck(const NpyFile& file, bool becomes_f16);

  // Zeros may be among the values that are not the file's.
  void add(const float* values, size_t n_value);

  // One line for standard error about each thing that is odd; empty where nothing is.
  std::string warnings() const;

 private:
  const NpyFile& file_;
  float limit_;  // values of this magnitude are infinite in the product
  size_t n_not_a_number_ = 0;
  size_t n_infinite_ = 0;
};

}  // namespace tool
