// The fault that a test has armed. At most one fault is armed at a time.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/emulator/client/status.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

class Fault {
 public:
  enum class Effect : uint8_t { none, failure, session_lost, disturbance };

  // The fault of a profile, which may have none.
  static Fault of(const std::optional<parlo_emulator_fault>& fault) {
    Fault armed;
    if (fault) armed.arm(*fault);
    return armed;
  }

  // Tells whether there is a call on which this fault has its effect.
  static bool can_strike(const parlo_emulator_fault& fault);

  void arm(const parlo_emulator_fault& fault);
  void clear();

  // Counts the call that is about to be made and returns the fault's effect on it.
  Effect strike(const parlo_emulator_call& call);

  // What the fault does to a call that it lets through.
  struct Disturbance {
    bool truncates_reply = false;
    uint32_t late_milliseconds = 0;  // dsp::never for a session that hangs
    uint32_t n_flipped_bit = 0;
    bool replaces_status = false;  // of a call that succeeds
  };
  Disturbance disturbance() const;

  // The status and errno of the armed fault.
  Outcome outcome() const { return {fault_.status, fault_.error_number}; }
  uint32_t n_fired() const { return n_fired_; }

 private:
  bool concerns(const parlo_emulator_call& call) const;

  bool armed_ = false;
  parlo_emulator_fault fault_{};
  uint32_t n_until_ = 0;  // calls until the fault fires, including the call that fires it
  uint32_t n_fired_ = 0;
};

}  // namespace parlo::client
