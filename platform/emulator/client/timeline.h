// The timeline: platform calls as spans in a file of trace events, which chrome://tracing and Perfetto show. Host threads
// are tracks, module instances on the DSP are tracks, and arrows lead from a call to its run on the DSP.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/emulator/client/trace_call.h"

namespace parlo::client {

// What is alive after a call.
struct Counters {
  uint64_t n_byte, n_mapping;
};

// Writes each call at once and keeps none, so that a process that is killed leaves whole events: with "]" behind them they
// are a JSON array.
class Timeline {
 public:
  Timeline() = default;
  Timeline(const Timeline&) = delete;
  Timeline& operator=(const Timeline&) = delete;
  ~Timeline() { finish(); }

  // Begins the file `pattern`, in which %p stands for the process; "" for none. A file that is begun already goes on. A
  // file that cannot be written is told on standard error.
  void choose(std::string_view pattern);
  // Completes the file.
  void finish();
  // Runs in a forked child, which gets a file of its own when the pattern names the process, or none.
  void inherit();
  bool writing() const { return file_ >= 0; }

  void add(const TracedCall& call, int error, const Counters& counters);
  // A span of the application around calls of the calling thread. Where these ran a product on the DSP, the span has
  // three phases: staging, remote and back.
  void begin_span(std::string_view name);
  void end_span();

 private:
  void begin_file();
  void write(std::string events);

  std::string pattern_;
  int file_ = -1;
  uint64_t length_ = 0;  // bytes of the file
  uint32_t n_file_ = 0;  // files so far
  int process_ = 0;
  uint64_t n_flow_ = 0;
};

}  // namespace parlo::client
