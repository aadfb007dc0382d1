// The one fault that can be armed.
#pragma once

#include <cstdint>

#include "platform/emulator/client/status.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

class Fault {
 public:
  enum class Effect : uint8_t { none, failure, truncated_reply, session_lost };

  void arm(const parlo_emulator_fault& fault);
  void clear();

  // Counts the call that is about to be made; what is to become of it.
  Effect strike(const parlo_emulator_call& call);

  // Of the fault as it is armed.
  Outcome outcome() const { return {fault_.status, fault_.error_number}; }
  uint32_t n_fired() const { return n_fired_; }

 private:
  bool concerns(const parlo_emulator_call& call) const;

  bool armed_ = false;
  parlo_emulator_fault fault_{};
  uint32_t n_until_ = 0;  // calls until it fires, this one included
  uint32_t n_fired_ = 0;
};

}  // namespace parlo::client
