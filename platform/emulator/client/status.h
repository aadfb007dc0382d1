// Outcomes of platform calls.
#pragma once

#include <cstdint>

namespace parlo::client {

// What a call returns, and errno where it failed (0 where it did not).
struct Outcome {
  int32_t result;
  int error;
};

inline constexpr Outcome success{0, 0};

// The refusal `status` (parlo_emulator_status) with the errno that fits it; success where it is 0.
Outcome outcome_of(int32_t status);

}  // namespace parlo::client
