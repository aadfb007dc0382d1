// What a kernel has to give, computed apart from the library, and how far its roundings may lead away from that.
#pragma once

#include <cstddef>
#include <vector>

#include "tools/morun/kernels.h"
#include "tools/morun/operands.h"

namespace tool {

struct Expected {
  double value;
  double bound;  // of |result - value|; a value that is not finite has to be met
};

// Elements of result i, row after row.
std::vector<Expected> expected_product(const Kernel& kernel, const OperandSet& operands, size_t i);

// The same of a quantised kernel that finds PreparedCall::earlier_sum(i, ...) for the sums of its products.
std::vector<Expected> expected_of_earlier_sums(const OperandSet& operands, size_t i);

}  // namespace tool
