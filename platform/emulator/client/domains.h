// The DSP domains of the emulated system-on-chip.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/parlo.h"

namespace parlo::client {

inline constexpr uint32_t compute_domain = 3;

struct Domain {
  uint32_t id;
  const char* name;
  parlo_domain_type type;
  bool up;
};

// Sorted by id.
std::span<const Domain> domains();
const Domain* find_domain(std::string_view name);

}  // namespace parlo::client
