#include "platform/emulator/client/platform.h"

#include <pthread.h>

#include <cstddef>
#include <new>

namespace parlo::client {
namespace {

// ---- Forks: the child finds all locks free, and its parent's sessions and buffers set aside ------------------------

void before_fork() {
  platform().mutex.lock();
  dsp::before_fork();
}

void after_fork_in_parent() {
  dsp::after_fork(false);
  platform().mutex.unlock();
}

void after_fork_in_child() {
  dsp::after_fork(true);
  platform().sessions.inherit();
  platform().memory.inherit();
  platform().mutex.unlock();
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

}  // namespace

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
      .shared_matrix_unit = 0,
  };
}

Platform& platform() {
  alignas(Platform) static std::byte storage[sizeof(Platform)];
  static Platform& the_platform = *new (storage) Platform;
  return the_platform;
}

}  // namespace parlo::client
