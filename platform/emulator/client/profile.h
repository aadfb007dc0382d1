// A profile: the chip that the platform emulates, as a JSON file describes it (docs/emulator.md).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/emulator/parlo_emulator.h"
#include "platform/parlo.h"

namespace parlo::client {

struct Profile {
  std::string name = "default";
  parlo_emulator_config config = {
      .session_bytes = uint64_t{3} << 30,
      .allocation_bytes = UINT64_MAX,
      .n_sessions = 8,
      .lowest_descriptor = 0,
      .architecture = 0x73,
      .module_major = 1,
      .module_minor = 0,
      .module_patch = 0,
      .module_architecture = 73,
      .module_label = "beta1",
      .shared_matrix_unit = 0,
  };
  bool is_strict = false;  // acquiring and releasing resources twice is refused
  bool has_handle_control = true, has_system_request = true, has_debug_log = true;
  // Of the compute domain, by parlo_attribute. The first and the architecture do not come from here.
  std::array<uint32_t, 11> capabilities = {1, 1, 0, 1, 8u << 20, 1, 0, 1, 1, 1, 1};
  // The estimate of a board's time; 0 where a board is not described.
  double call_seconds = 0, bytes_per_second = 0;
  std::optional<parlo_emulator_fault> fault;
};
static_assert(PARLO_ATTRIBUTE_STATUS_NOTIFICATION == 10);

// Stores the profile that `text` describes. Returns what is wrong with the text, or "".
std::string parse_profile(const std::string& text, Profile& profile);

// Stores the profile of the file that PARLO_PROFILE names, or the default one. A file that cannot be taken is told on
// standard error, and the function returns false.
bool choose_profile(Profile& profile) noexcept;

}  // namespace parlo::client
