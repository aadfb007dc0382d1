// Outcomes of platform calls.
#pragma once

#include <cstdint>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

// The result that a call returns, and the errno that it sets. `error` is 0 when the call succeeded.
struct Outcome {
  int32_t result;
  int error;
};

inline constexpr Outcome success{0, 0};

// Returns the refusal `status` (a parlo_emulator_status) with the errno that belongs to it. Returns success when
// `status` is 0.
Outcome outcome_of(int32_t status);

// Returns `outcome` in the form in which `call` reports failures. A call that returns an address or a descriptor
// reports a failure by errno, and its result is -1.
Outcome failure_of(const parlo_emulator_call& call, Outcome outcome);

}  // namespace parlo::client
