// A platform call as the trace and the timeline take it.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string_view>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

// A call, and what its public record does not hold. The times are in nanoseconds of CLOCK_MONOTONIC.
struct TracedCall : parlo_emulator_call {
  uint64_t begin = 0;
  uint64_t dsp_begin = 0, dsp_end = 0;  // of a method that ran
  double estimated_seconds = 0;         // on the board that the profile describes; 0 for none
};

TracedCall make_call(parlo_emulator_operation operation, std::initializer_list<uint64_t> arguments);
void set_text(parlo_emulator_call& call, std::string_view text);

// Converts an address or a signed number to an argument of a recorded call.
inline uint64_t word(const void* address) {
  return reinterpret_cast<uintptr_t>(address);
}
inline uint64_t word(int32_t number) {
  return static_cast<uint64_t>(int64_t{number});
}

enum class Format : uint8_t { decimal, hexadecimal };

struct Argument {
  const char* name;
  Format format = Format::decimal;
};

// Returns the name of the remote method of an invocation, or nullptr.
const char* method_name(const parlo_emulator_call& call);
using UseArgument = std::function<void(const Argument& argument, uint64_t value)>;
// Takes the call's own arguments that have names in their order; of an invocation of a known method the handle alone.
void for_each_argument(const parlo_emulator_call& call, const UseArgument& use);
// Takes the arguments of the remote method.
void for_each_argument_of_method(const parlo_emulator_call& call, const UseArgument& use);

}  // namespace parlo::client
