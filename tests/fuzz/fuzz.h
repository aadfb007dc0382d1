// What the fuzzers share: how they end a run, what must be as before a call, and the proof of what they exercised.
#pragma once

#include <sanitizer/allocator_interface.h>
#include <sanitizer/asan_interface.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/emulator/parlo_emulator.h"

namespace fuzz {

inline int report_fd = STDERR_FILENO;  // standard error is closed to the lines of the library

// Counts how often a run exercised what the name says. scripts/test wants no counter to end at 0.
class Counter {
 public:
  Counter(const char* name) : name_(name) { all_.push_back(this); }
  Counter(const Counter&) = delete;
  void operator+=(uint64_t more) { count_ += more; }
  static void print() {
    for (const Counter* c : all_) dprintf(report_fd, "exercised %s: %lu\n", c->name_, c->count_);
  }

 private:
  static inline std::vector<const Counter*> all_;
  const char* name_;
  uint64_t count_ = 0;
};

// `print` writes the input of a failure to report_fd; libFuzzer keeps the bytes of the input in any case.
inline void (*print_input)();
inline int start(void (*print)() = [] {}) {
  report_fd = dup(STDERR_FILENO);
  print_input = print;
  return atexit(Counter::print);
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

template <class Value, size_t n>
Value one_of(const Value (&values)[n], uint8_t code) {
  return values[code % n];
}

// The bytes of an input as a record; zeros where bytes are missing.
template <class Input>
Input read(const uint8_t* data, size_t size) {
  Input input = {};
  memcpy(&input, data, std::min(size, sizeof input));
  return input;
}

}  // namespace fuzz
