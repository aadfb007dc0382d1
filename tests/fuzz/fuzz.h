// What the fuzzers share: how they end a run, what must be as before a call, and the proof of what they exercised.
#pragma once

#include <sanitizer/allocator_interface.h>
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "platform/emulator/parlo_emulator.h"

namespace fuzz {

inline int report_fd = STDERR_FILENO;  // standard error is closed to the lines of the library

// What a run exercised, counted by name. scripts/test wants none of them to be 0.
struct Counter {
  const char* name;
  uint64_t count;
};
inline Counter* counters;
inline size_t n_counter;

inline void print_counters() {
  for (size_t i = 0; i < n_counter; ++i) dprintf(report_fd, "exercised %s: %lu\n", counters[i].name, counters[i].count);
}

template <size_t n>
void start(Counter (&of)[n]) {
  report_fd = dup(STDERR_FILENO);
  counters = of;
  n_counter = n;
  atexit(print_counters);
}

inline void (*print_input)();

inline void expect(bool holds, const char* otherwise) {
  if (holds) return;
  dprintf(report_fd, "fuzz: %s\n", otherwise);
  print_input();
  abort();
}

// What is in use, the emulator's trace apart.
using Usage = std::array<uint64_t, 6>;
inline Usage usage() {
  parlo_emulator_trace_clear();
  parlo_emulator_usage u;
  parlo_emulator_get_usage(&u);
  const auto n_descriptor = std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
  const uint64_t heap_bytes = __sanitizer_get_current_allocated_bytes();
  return {u.n_bytes, u.n_sessions, u.n_handles, u.n_mappings, static_cast<uint64_t>(n_descriptor), heap_bytes};
}

// Whether a call, made once already, leaves nothing. The emulator remembers addresses of freed buffers: what the first
// calls leave, later ones must not leave again.
inline bool leaves_nothing(Usage before, auto call) {
  for (int again = 0; again < 16; ++again) {
    const Usage after = usage();
    if (after == before) return true;
    before = after;
    call();
  }
  return false;
}

// The bytes of an input as a record; zeros where bytes are missing.
template <class Input>
Input read(const uint8_t* data, size_t size) {
  Input input = {};
  memcpy(&input, data, std::min(size, sizeof input));
  return input;
}

}  // namespace fuzz
