// The state of the client half, and the function that carries out every platform call.
#pragma once

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "platform/emulator/client/fault.h"
#include "platform/emulator/client/profile.h"
#include "platform/emulator/client/sessions.h"
#include "platform/emulator/client/shared_memory.h"
#include "platform/emulator/client/status.h"
#include "platform/emulator/client/trace.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

// The lines of the debug log that are printed: one bit for each level, and the names of files. Without names, all files
// are printed.
struct LogFilter {
  uint32_t level_mask = 0;
  std::vector<std::string> files;
};

inline constexpr int32_t unknown_carrier = -1;

// Where the DSP halves of sessions run, for sessions that begin.
struct Carrier {
  int32_t kind = PARLO_EMULATOR_IN_PROCESS;  // parlo_emulator_carrier, or unknown_carrier
  uint32_t limit_milliseconds = 0;           // for the answer of a session; 0 for no limit
};
// Returns the carrier that PARLO_DSP names. A value that names none is told on standard error, and sessions cannot be
// opened with the carrier that is returned for it.
Carrier default_carrier();

struct Platform {
  std::mutex lifecycle;  // held while a session is opened, closed or forked away; locked before `mutex`
  std::mutex mutex;      // guards all other members
  Platform() noexcept = default;
  Profile profile;
  bool is_configured = choose_profile(profile);  // otherwise no session can be opened
  parlo_emulator_config config = profile.config;
  SharedMemory memory;
  dsp::HostMatrixUnitTable units;  // has a lock of its own
  Sessions sessions{units};
  Trace trace;
  Fault fault = Fault::of(profile.fault);
  double estimated_seconds = 0;    // that a board would have taken for all invocations
  Fault::Disturbance disturbance;  // of the call that is being carried out
  Carrier carrier = default_carrier();
  LogFilter log_filter;
};

// The object is never destroyed, because a program may end with buffers and sessions alive.
Platform& platform();

using PlatformLock = std::unique_lock<std::mutex>;

// Does work that may take long, during which other calls go on.
template <class Work>
void without_lock(PlatformLock& lock, Work work) {
  lock.unlock();
  work();
  lock.lock();
}

// Takes its turn at opening or closing a session, and holds the platform's lock as before.
class LifecycleLock {
 public:
  LifecycleLock(Platform& p, PlatformLock& lock) : turn_(p.lifecycle, std::defer_lock) {
    without_lock(lock, [&] { turn_.lock(); });
  }

 private:
  std::unique_lock<std::mutex> turn_;
};

// Ends the DSP half of a session that is in no book any more.
inline void destroy(PlatformLock& lock, std::shared_ptr<dsp::Space> space) {
  if (space) without_lock(lock, [&] { space.reset(); });
}

// Returns the status of a call to the DSP half, after marking a session that has ended as lost.
inline int32_t noted(Platform& p, PlatformLock& lock, const dsp::Space* space, int32_t status) {
  if (status == PARLO_EMULATOR_SESSION_LOST || status == PARLO_EMULATOR_TIMED_OUT)
    destroy(lock, p.sessions.lose(space));
  return status;
}

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

// Returns the outcome of body(), unless the armed fault fails the call. A fault that disturbs the call lets body() run,
// and may replace a success by the fault's outcome.
template <class Body>
Outcome outcome_under_fault(Platform& p, PlatformLock& lock, const parlo_emulator_call& call, Body body) {
  const Fault::Effect effect = p.fault.strike(call);
  const Fault::Disturbance disturbance =
      effect == Fault::Effect::disturbance ? p.fault.disturbance() : Fault::Disturbance();
  const Outcome replacement = p.fault.outcome();
  p.disturbance = disturbance;
  if (effect == Fault::Effect::failure) return failure_of(call, replacement);
  if (effect == Fault::Effect::session_lost) {
    destroy(lock, p.sessions.lose(call));
    return outcome_of(PARLO_EMULATOR_SESSION_LOST);
  }
  const Outcome outcome = body(p, lock);
  return disturbance.replaces_status && outcome.result == 0 ? replacement : outcome;
}

// Carries out the platform call that `call` describes. body(platform, lock) returns the Outcome and may add to `call`.
// carry_out records the call, sets errno when it failed, and returns its result. It throws nothing.
template <class Body>
int32_t carry_out(TracedCall& call, Body body) {
  Platform& p = platform();
  call.begin = dsp::now();
  PlatformLock lock(p.mutex);
  const Outcome outcome = attempt(call, lock, [&] { return outcome_under_fault(p, lock, call, body); });
  call.result = outcome.result;
  p.trace.record(call, outcome.error,
                 p.trace.timeline().writing() ? Counters{p.memory.n_bytes(), p.sessions.n_mappings()} : Counters{});
  lock.unlock();
  if (outcome.error != 0) errno = outcome.error;
  return outcome.result;
}

}  // namespace parlo::client
