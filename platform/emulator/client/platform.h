// The state of the client half, and the function that carries out every platform call.
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

// The lines of the debug log that are printed: one bit for each level, and the names of files. Without names, all files
// are printed.
struct LogFilter {
  uint32_t level_mask = 0;
  std::vector<std::string> files;
};

struct Platform {
  std::mutex mutex;  // guards all other members
  Platform() noexcept = default;
  parlo_emulator_config config = default_config();
  SharedMemory memory;
  Sessions sessions;
  Trace trace;
  Fault fault;
  bool truncates_reply = false;  // for the call that is being carried out
  LogFilter log_filter;
};

// The object is never destroyed, because a program may end with buffers and sessions alive.
Platform& platform();

using PlatformLock = std::unique_lock<std::mutex>;

// Returns the outcome of body(), or the failure for memory that runs out in body(). body() may unlock and lock `lock`.
template <class Body>
Outcome attempt(const parlo_emulator_call& call, PlatformLock& lock, Body body) {
  try {
    return body();
  } catch (...) {
    if (!lock.owns_lock()) lock.lock();
    return failure_of(call, outcome_of(PARLO_EMULATOR_NO_MEMORY));
  }
}

// Returns the outcome of body(), unless the armed fault strikes the call. A fault that truncates the reply lets body()
// run and replaces a success by the fault's outcome. Every other fault prevents body() from running.
template <class Body>
Outcome outcome_under_fault(Platform& p, PlatformLock& lock, const parlo_emulator_call& call, Body body) {
  const Fault::Effect effect = p.fault.strike(call);
  p.truncates_reply = effect == Fault::Effect::truncated_reply;
  if (effect == Fault::Effect::failure) return failure_of(call, p.fault.outcome());
  if (effect == Fault::Effect::session_lost) {
    p.sessions.lose(call);
    return outcome_of(PARLO_EMULATOR_SESSION_LOST);
  }
  const Outcome outcome = body(p, lock);
  return effect == Fault::Effect::truncated_reply && outcome.result == 0 ? p.fault.outcome() : outcome;
}

// Carries out the platform call that `call` describes. body(platform, lock) returns the Outcome and may add to `call`.
// carry_out records the call, sets errno when it failed, and returns its result. It throws nothing.
template <class Body>
int32_t carry_out(parlo_emulator_call& call, Body body) {
  Platform& p = platform();
  PlatformLock lock(p.mutex);
  const Outcome outcome = attempt(call, lock, [&] { return outcome_under_fault(p, lock, call, body); });
  call.result = outcome.result;
  p.trace.record(call, outcome.error);
  lock.unlock();
  if (outcome.error != 0) errno = outcome.error;
  return outcome.result;
}

}  // namespace parlo::client
