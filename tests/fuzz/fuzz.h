// What the fuzzers share: how they end a run, what must be as before a call, and the proof of what they exercised.
#pragma once

#include <sanitizer/allocator_interface.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

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
inline void (*print_input)();

inline void print_counters() {
  for (size_t i = 0; i < n_counter; ++i) dprintf(report_fd, "exercised %s: %lu\n", counters[i].name, counters[i].count);
}

// `print` writes the input of a failure to report_fd; libFuzzer keeps the bytes of the input in any case.
template <size_t n>
void start(
    Counter (&of)[n], void (*print)() = [] {}) {
  report_fd = dup(STDERR_FILENO);
  counters = of;
  n_counter = n;
  print_input = print;
  atexit(print_counters);
}

inline void expect(bool holds, const char* otherwise) {
  if (holds) return;
  dprintf(report_fd, "fuzz: %s\n", otherwise);
  print_input();
  abort();
}

// A file in memory, which has a name as long as the object lives.
class MemoryFile {
 public:
  MemoryFile() : number_(memfd_create("fuzz", MFD_CLOEXEC)) { expect(number_ >= 0, "no file in memory"); }
  MemoryFile(const MemoryFile&) = delete;
  ~MemoryFile() { close(number_); }

  void fill(const void* bytes, size_t n_byte) {
    expect(ftruncate(number_, 0) == 0 && lseek(number_, 0, SEEK_SET) == 0, "the file cannot be emptied");
    append(bytes, n_byte);
  }
  void append(const void* bytes, size_t n_byte) {
    expect(write(number_, bytes, n_byte) == static_cast<ssize_t>(n_byte), "the file cannot be written");
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(number_); }

 private:
  int number_;
};

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
