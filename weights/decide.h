// What becomes of the tensors of a packer: rules, defaults, extents.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "include/morun_weights.h"
#include "weights/source.h"

namespace weights {

struct Rule {
  std::string pattern;  // fnmatch's
  int32_t form;
};

// A tensor on its way into the packed file.
struct Decision {
  const SourceTensor* tensor = nullptr;
  int32_t form = MORUN_WEIGHTS_CARRIED;
  std::string reason;
  uint64_t n_inner = 0;  // true extents where packed
  uint64_t n_col = 0;
  uint64_t n_byte = 0;  // in the packed file
  std::string refusal;  // why no file can hold the matrix in this form; empty: one can
  bool is_transposed = false;
  bool is_done = false;
  double error = 0;
  double product_error = -1;
  uint64_t checksum = 0;
  morun_weights_statistics statistics = {};
};

// Packed matrices first, then what is carried over, each in the order of the tensors.
std::vector<Decision> decide(const std::vector<SourceTensor>& tensors, const std::vector<Rule>& rules,
                             int32_t default_form, bool transpose);

// Throws RULE_UNUSED.
void require_rules_used(const std::vector<SourceTensor>& tensors, const std::vector<Rule>& rules);

}  // namespace weights
