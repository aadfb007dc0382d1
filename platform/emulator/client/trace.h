// The record of platform calls.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string_view>
#include <vector>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

parlo_emulator_call make_call(parlo_emulator_operation operation, std::initializer_list<uint64_t> arguments);
void set_text(parlo_emulator_call& call, std::string_view text);

// Converts an address or a signed number to an argument of a recorded call.
inline uint64_t word(const void* address) {
  return reinterpret_cast<uintptr_t>(address);
}
inline uint64_t word(int32_t number) {
  return static_cast<uint64_t>(int64_t{number});
}

class Trace {
 public:
  Trace() { choose_output(); }

  // Decides whether calls are also printed. They are when the environment variable PARLO_TRACE is 1.
  void choose_output();
  bool printing() const { return printing_; }

  // `error` is the call's errno. When memory runs out, the call is not recorded.
  void record(const parlo_emulator_call& call, int error);

  size_t length() const { return n_call_; }
  // Returns nullptr for a call that is not recorded, or no longer.
  const parlo_emulator_call* at(size_t index) const;
  void clear();

 private:
  std::vector<parlo_emulator_call> calls_;  // call number i is at index i modulo the capacity
  size_t n_call_ = 0;
  bool printing_ = false;
};

}  // namespace parlo::client
