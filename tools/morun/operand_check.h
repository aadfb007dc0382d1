// Warnings about operand values that a product changes.
#pragma once

#include <cstddef>
#include <string>

#include "tools/morun/files/npy.h"

namespace tool {

// Examines the values of one file.
class OperandCheck {
 public:
  // `becomes_f16` tells whether the product rounds the values to halves.
  OperandCheck(const NpyFile& file, bool becomes_f16);

  // The values may include padding zeros that are not in the file.
  void add(const float* values, size_t n_value);

  // Returns one line for standard error about each finding; empty when there is none.
  std::string warnings() const;

 private:
  const NpyFile& file_;
  float limit_;  // values of this magnitude become infinite in the product
  size_t n_not_a_number_ = 0;
  size_t n_infinite_ = 0;
};

}  // namespace tool
