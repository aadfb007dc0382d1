#include "platform/emulator/client/platform.h"

#include <pthread.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string_view>

#include "platform/emulator/process/host.h"

namespace parlo::client {
namespace {

// ---- Forks: the child finds all locks free, and its parent's sessions and buffers set aside ------------------------

void before_fork() {
  platform().lifecycle.lock();
  platform().mutex.lock();
  platform().units.before_fork();
}

void after_fork_in_parent() {
  platform().units.after_fork(false);
  platform().mutex.unlock();
  platform().lifecycle.unlock();
}

void after_fork_in_child() {
  platform().units.after_fork(true);
  platform().sessions.inherit();
  platform().memory.inherit();
  platform().trace.timeline().inherit();
  platform().mutex.unlock();
  platform().lifecycle.unlock();
}

// Other threads may go on with their calls, and are left out of the timeline.
[[gnu::destructor]] void finish_timeline() {
  const std::unique_lock lock(platform().mutex, std::try_to_lock);
  if (lock) platform().trace.timeline().finish();
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

Carrier default_carrier() {
  Carrier carrier;
  carrier.limit_milliseconds = process::default_limit_milliseconds();
  const char* const name = std::getenv("PARLO_DSP");
  if (!name || *name == '\0' || std::string_view(name) == "here") return carrier;
  carrier.kind = std::string_view(name) == "process" ? int32_t{PARLO_EMULATOR_PROCESS} : unknown_carrier;
  if (carrier.kind == unknown_carrier)
    std::fprintf(stderr, "[parlo] PARLO_DSP is \"%s\"; it takes here or process, and no session can be opened\n", name);
  return carrier;
}

Platform& platform() {
  alignas(Platform) static std::byte storage[sizeof(Platform)];
  static Platform& the_platform = *new (storage) Platform;
  return the_platform;
}

}  // namespace parlo::client
