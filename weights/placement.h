// Which tensor goes into which shared buffer, and where in it.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "include/morun_weights.h"

namespace weights {

constexpr uint64_t default_largest_buffer = uint64_t{1} << 28;  // bytes

struct Placement {
  morun_weights_plan plan = {};
  std::vector<morun_weights_place> places;  // by request
};

// Arguments and failures are those of morun_weights_plan_places.
Placement place(const morun_weights_file& file, std::span<const morun_weights_request> requests,
                uint64_t largest_buffer, uint32_t n_free_buffer);

}  // namespace weights
