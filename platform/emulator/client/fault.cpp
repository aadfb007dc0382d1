#include "platform/emulator/client/fault.h"

#include <algorithm>

#include "platform/emulator/client/sessions.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

// Products, the self-test and the version query have this number or a higher one.
constexpr int32_t first_method_with_reply = 9;

bool has_reply(const parlo_emulator_call& call) {
  return call.operation == PARLO_EMULATOR_HANDLE_INVOKE && call.method >= first_method_with_reply;
}

}  // namespace

bool Fault::can_strike(const parlo_emulator_fault& fault) {
  parlo_emulator_call call = {};
  const bool is_any = fault.operation == PARLO_EMULATOR_ANY_OPERATION;
  call.operation = is_any ? int32_t{PARLO_EMULATOR_HANDLE_INVOKE} : fault.operation;
  call.method = -1;
  if (call.operation == PARLO_EMULATOR_HANDLE_INVOKE)
    call.method = fault.method < 0 ? first_method_with_reply : fault.method;
  call.n_arguments = 3;
  call.arguments[0] = PARLO_SESSION_UNSIGNED_MODULE;  // where the operation is parlo_session_control
  Fault armed;
  armed.arm(fault);
  return armed.concerns(call);
}

void Fault::arm(const parlo_emulator_fault& fault) {
  *this = Fault();
  armed_ = true;
  fault_ = fault;
  n_until_ = std::max(fault.nth, 1u);
}

void Fault::clear() {
  armed_ = false;
}

bool Fault::concerns(const parlo_emulator_call& call) const {
  if (call.operation == PARLO_EMULATOR_MEM_FREE || call.operation == PARLO_EMULATOR_DEBUG_LOG) return false;
  if (fault_.operation != PARLO_EMULATOR_ANY_OPERATION && fault_.operation != call.operation) return false;
  if (fault_.method >= 0 && fault_.method != call.method) return false;
  switch (fault_.fault_class) {
    case PARLO_EMULATOR_FAULT_TRUNCATED_REPLY:
    case PARLO_EMULATOR_FAULT_FLIPPED_BITS:
      return has_reply(call);
    case PARLO_EMULATOR_FAULT_HANG:
    case PARLO_EMULATOR_FAULT_LATE:
    case PARLO_EMULATOR_FAULT_WRONG_STATUS:
      return call.operation == PARLO_EMULATOR_HANDLE_INVOKE;
    case PARLO_EMULATOR_FAULT_SESSION_LOST:
      return Sessions::names_session(call);
    default:
      return true;
  }
}

Fault::Effect Fault::strike(const parlo_emulator_call& call) {
  if (!armed_ || !concerns(call)) return Effect::none;
  if (n_until_ > 1) {
    --n_until_;
    return Effect::none;
  }
  ++n_fired_;
  armed_ = fault_.fault_class == PARLO_EMULATOR_FAULT_FROM_THEN_ON;
  switch (fault_.fault_class) {
    case PARLO_EMULATOR_FAULT_ONCE:
    case PARLO_EMULATOR_FAULT_FROM_THEN_ON:
      return Effect::failure;
    case PARLO_EMULATOR_FAULT_SESSION_LOST:
      return Effect::session_lost;
    default:
      return Effect::disturbance;
  }
}

Fault::Disturbance Fault::disturbance() const {
  const auto amount = static_cast<uint32_t>(fault_.status);
  switch (fault_.fault_class) {
    case PARLO_EMULATOR_FAULT_TRUNCATED_REPLY:
      return {.truncates_reply = true, .replaces_status = true};
    case PARLO_EMULATOR_FAULT_WRONG_STATUS:
      return {.replaces_status = true};
    case PARLO_EMULATOR_FAULT_HANG:
      return {.late_milliseconds = dsp::never};
    case PARLO_EMULATOR_FAULT_LATE:
      return {.late_milliseconds = amount};
    case PARLO_EMULATOR_FAULT_FLIPPED_BITS:
      return {.n_flipped_bit = amount};
    default:
      return {};
  }
}

}  // namespace parlo::client
