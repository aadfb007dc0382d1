// The client half's state, and the way that every platform call takes through it.
#pragma once

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/emulator/client/fault.h"
#include "platform/emulator/client/sessions.h"
#include "platform/emulator/client/shared_memory.h"
#include "platform/emulator/client/status.h"
#include "platform/emulator/client/trace.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

parlo_emulator_config default_config();

// Lines of the debug log that are printed: levels by bit, files by name or, without any, all of them.
struct LogFilter {
  uint32_t level_mask = 0;
  std::vector<std::string> files;
};

struct Platform {
  std::mutex mutex;  // guards all of the rest
  parlo_emulator_config config = default_config();
  SharedMemory memory;
  Sessions sessions;
  Trace trace;
  Fault fault;
  LogFilter log_filter;
};

// Never destroyed: a program may end with buffers and sessions alive.
Platform& platform();

using PlatformLock = std::unique_lock<std::mutex>;

// Carries out the platform call that `call` describes: body(platform, lock) returns its Outcome and may add to `call`;
// an armed fault stands in for it. Records the call, sets errno where it failed, and returns its result.
template <class Body>
int32_t carry_out(parlo_emulator_call& call, Body body) {
  Platform& p = platform();
  PlatformLock lock(p.mutex);
  const Outcome outcome = p.fault.strikes(call) ? p.fault.outcome_of(call) : body(p, lock);
  call.result = outcome.result;
  p.trace.record(call, outcome.error);
  lock.unlock();
  if (outcome.error != 0) errno = outcome.error;
  return outcome.result;
}

}  // namespace parlo::client
