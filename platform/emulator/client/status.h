// Outcomes of platform calls.
#pragma once

#include <cstdint>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

// What a call returns, and errno where it failed (0 where it did not).
struct Outcome {
  int32_t result;
  int error;
};

inline constexpr Outcome success{0, 0};

// The refusal `status` (parlo_emulator_status) with the errno that fits it; success where it is 0.
Outcome outcome_of(int32_t status);

// The failure of `call` that `outcome` tells. A call that returns an address or a descriptor tells it by errno alone: its
// result is -1.
Outcome failure_of(const parlo_emulator_call& call, Outcome outcome);

}  // namespace parlo::client
