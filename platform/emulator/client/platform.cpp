#include "platform/emulator/client/platform.h"

namespace parlo::client {

parlo_emulator_config default_config() {
  return {
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
  };
}

Platform& platform() {
  static Platform& the_platform = *new Platform;
  return the_platform;
}

}  // namespace parlo::client
