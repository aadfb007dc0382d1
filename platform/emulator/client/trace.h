// The record of platform calls.
#pragma once

#include <cstddef>
#include <vector>

#include "platform/emulator/client/timeline.h"
#include "platform/emulator/client/trace_call.h"
#include "platform/emulator/parlo_emulator.h"

namespace parlo::client {

class Trace {
 public:
  Trace() { choose_output(); }

  // Decides by the environment variable PARLO_TRACE: with 1, calls are also printed; any other value names the file of a
  // timeline.
  void choose_output();
  bool printing() const { return printing_; }

  // `error` is the call's errno. When memory runs out, the call is not recorded.
  void record(const TracedCall& call, int error, const Counters& counters);
  Timeline& timeline() { return timeline_; }

  size_t length() const { return n_call_; }
  // Returns nullptr for a call that is not recorded, or no longer.
  const parlo_emulator_call* at(size_t index) const;
  void clear();

 private:
  std::vector<parlo_emulator_call> calls_;  // call number i is at index i modulo the capacity
  size_t n_call_ = 0;
  bool printing_ = false;
  Timeline timeline_;
};

}  // namespace parlo::client
