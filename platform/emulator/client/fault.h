// The one fault that can be armed.
#pragma once

#include <cstdint>

#include "platform/emulator/client/status.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

class Fault {
 public:
  void arm(int32_t operation, int32_t method, uint32_t nth, Outcome outcome);
  void clear();

  // Counts the call that is about to be made; whether it is to fail.
  bool strikes(const parlo_emulator_call& call);
  // What a call that it strikes comes to.
  Outcome outcome_of(const parlo_emulator_call& call) const;

  uint32_t n_fired() const { return n_fired_; }

 private:
  bool concerns(const parlo_emulator_call& call) const;

  bool armed_ = false;
  int32_t operation_ = 0;
  int32_t method_ = -1;
  uint32_t n_until_ = 0;  // calls until it fires, this one included; 0: at every call
  Outcome outcome_{};
  uint32_t n_fired_ = 0;
};

}  // namespace parlo::client
