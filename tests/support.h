// What the tests of the runtime share: a fresh platform for each test, and the check that each gives everything back.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "include/tavik.h"
#include "platform/emulator/parlo_emulator.h"

namespace test {

inline size_t open_descriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

inline parlo_emulator_usage usage() {
  parlo_emulator_usage usage;
  parlo_emulator_get_usage(&usage);
  return usage;
}

// What the platform and the process hold.
constexpr const char* held_names[] = {"allocations", "descriptors", "sessions", "handles", "mappings", "bytes"};
using Held = std::array<uint64_t, std::size(held_names)>;
inline Held held() {
  const parlo_emulator_usage u = usage();
  return {u.n_allocations, open_descriptors(), u.n_sessions, u.n_handles, u.n_mappings, u.n_bytes};
}

// Runs `body` in a forked child and returns its exit status, or -1 when a signal ends the child.
inline int status_of_child(const auto& body) {
  const pid_t child = fork();
  if (child == 0) _exit(static_cast<int>(body()));
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline void configure(auto change) {
  parlo_emulator_config config;
  parlo_emulator_get_config(&config);
  change(config);
  parlo_emulator_set_config(&config);
}

// The trace since the last reset or clear without lines logged; invocations as the number of their method, other calls
// by name.
inline std::vector<std::string> trace() {
  std::vector<std::string> names;
  parlo_emulator_call call;
  for (size_t i = 0; parlo_emulator_trace_get(i, &call) == 0; ++i) {
    if (call.operation == PARLO_EMULATOR_DEBUG_LOG) continue;
    names.push_back(call.method >= 0 ? std::to_string(call.method) : parlo_emulator_operation_name(call.operation));
  }
  return names;
}

// The arguments of the last invocation behind handle and scalars word.
inline std::vector<uint64_t> last_invocation() {
  std::vector<uint64_t> arguments;
  parlo_emulator_call call;
  for (size_t i = 0; parlo_emulator_trace_get(i, &call) == 0; ++i)
    if (call.operation == PARLO_EMULATOR_HANDLE_INVOKE)
      arguments.assign(call.arguments + 2, call.arguments + call.n_arguments);
  return arguments;
}

inline std::string last_error() {
  const tavik_error& error = *tavik_error_get_last();
  return std::string(error.function) + ", line " + std::to_string(error.line) + ": " + error.message;
}

class PlatformTest : public ::testing::Test {
 protected:
  void SetUp() override {
    parlo_emulator_reset();
    before_ = held();
  }
  void TearDown() override {
    EXPECT_EQ(held(), before_) << "in the order of held_names";
    EXPECT_EQ(usage().n_double_frees + usage().n_foreign_frees, 0u);
    parlo_emulator_reset();
  }

  static tavik_options small_options() {
    return {.output_matrix_size_max = 1 << 16, .n_row_max = 256, .input_matrix_size_max = 1 << 16, .reserved = 0};
  }
  static tavik_context* initialise(const tavik_options& options = small_options()) {
    tavik_context* context = nullptr;
    EXPECT_EQ(tavik_init(&options, &context), TAVIK_SUCCESS) << last_error();
    return context;
  }
  static void clean_up(tavik_context* context) { EXPECT_EQ(tavik_cleanup(context), TAVIK_SUCCESS) << last_error(); }

  static int32_t allocate(tavik_context* context, uint64_t size, void** pointer = nullptr) {
    int32_t fd = -1;
    EXPECT_EQ(tavik_buffer_alloc(context, size, pointer, &fd), TAVIK_SUCCESS) << last_error();
    return fd;
  }
  static void release(tavik_context* context, int32_t fd) {
    EXPECT_EQ(tavik_buffer_free(context, fd), TAVIK_SUCCESS) << last_error();
  }

 private:
  Held before_ = {};
};

}  // namespace test
