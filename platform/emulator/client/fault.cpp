#include "platform/emulator/client/fault.h"

namespace parlo::client {

void Fault::arm(int32_t operation, int32_t method, uint32_t nth, Outcome outcome) {
  *this = Fault();
  armed_ = true;
  operation_ = operation;
  method_ = method;
  n_until_ = nth;
  outcome_ = outcome;
}

void Fault::clear() {
  armed_ = false;
}

bool Fault::concerns(const parlo_emulator_call& call) const {
  if (call.operation == PARLO_EMULATOR_MEM_FREE || call.operation == PARLO_EMULATOR_DEBUG_LOG) return false;
  return (operation_ == PARLO_EMULATOR_ANY_OPERATION || operation_ == call.operation) &&
         (method_ < 0 || method_ == call.method);
}

bool Fault::strikes(const parlo_emulator_call& call) {
  if (!armed_ || !concerns(call)) return false;
  if (n_until_ > 1) {
    --n_until_;
    return false;
  }
  if (n_until_ == 1) armed_ = false;
  ++n_fired_;
  return true;
}

Outcome Fault::outcome_of(const parlo_emulator_call& call) const {
  switch (call.operation) {
    case PARLO_EMULATOR_MEM_ALLOC:
    case PARLO_EMULATOR_MEM_ALLOC2:
    case PARLO_EMULATOR_MEM_TO_FD:
      return {-1, outcome_.error};
    default:
      return outcome_;
  }
}

}  // namespace parlo::client
