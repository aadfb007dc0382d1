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
  Platform() noexcept = default;
  parlo_emulator_config config = default_config();
  SharedMemory memory;
  Sessions sessions;
  Trace trace;
  Fault fault;
  bool truncates_reply = false;  // of the call that is being carried out
  LogFilter log_filter;
};

// Never destroyed: a program may end with buffers and sessions alive.
Platform& platform();

using PlatformLock = std::unique_lock<std::mutex>;

// The outcome of body(), which may unlock and lock `lock`, or of running out of memory in it.
template <class Body>
Outcome attempt(const parlo_emulator_call& call, PlatformLock& lock, Body body) {
  try {
    return body();
  } catch (...) {
    if (!lock.owns_lock()) lock.lock();
    return failure_of(call, outcome_of(PARLO_EMULATOR_NO_MEMORY));
  }
}

// The outcome of a call that the armed fault strikes; the body's where it does not, and of one whose reply is truncated.
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

// Carries out the platform call that `call` describes: body(platform, lock) returns its Outcome and may add to `call`.
// Records the call, sets errno where it failed, and returns its result. Throws nothing.
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
