// The results that a kernel must give, computed independently of the library, with bounds for the kernel's roundings.
#pragma once

#include <cstddef>
#include <vector>

#include "tools/morun/kernels.h"
#include "tools/morun/operands.h"

namespace tool {

struct Expected {
  double value;
  double bound;  // of |result - value|; a value that is not finite must be met exactly
};

// Returns the elements of result i, row after row.
std::vector<Expected> expected_product(const Kernel& kernel, const OperandSet& operands, size_t i);

// Returns the same for a quantised kernel that reads PreparedCall::earlier_sum(i, ...) as the sums of its products.
std::vector<Expected> expected_of_earlier_sums(const OperandSet& operands, size_t i);

}  // namespace tool
