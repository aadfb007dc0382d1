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

bool has_begun = false;  // a program that has called nothing of the platform gets no timeline

// Other threads may go on with their calls, and are left out of the timeline.
[[gnu::destructor]] void finish_timeline() {
  if (!has_begun) return;
  const std::unique_lock lock(platform().mutex, std::try_to_lock);
  if (lock) platform().trace.timeline().finish();
}

[[gnu::constructor]] void watch_forks() {
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

}  // namespace

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
  static Platform& the_platform = [&]() -> Platform& {
    has_begun = true;
    return *new (storage) Platform;
  }();
  return the_platform;
}

}  // namespace parlo::client
