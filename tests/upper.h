// What the tests of the upper interface share: what a call returns and prints, and a fresh library for each test.
#pragma once

#include <stdio_ext.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "include/morun_state.h"
#include "include/morun_tensor.h"
#include "tests/support.h"

namespace test {

// The status and what is printed, as "14 npu_alloc.npu_free: MESSAGE": of an error's line its file, its function where
// that is another, and its message. What is on standard output follows behind a bar.
inline std::string outcome(const std::function<int32_t()>& call) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  std::string told = std::to_string(call());
  told += __fpending(stdout) == 0 ? " " : " unflushed ";
  const std::string errors = testing::internal::GetCapturedStderr(), output = testing::internal::GetCapturedStdout();
  for (size_t start = 0, end; start < errors.size(); start = end) {
    end = std::min(errors.find('\n', start), errors.size() - 1) + 1;
    std::string row = errors.substr(start, end - start);
    char folder[4], file[64], function[64];
    int number, length = 0;
    constexpr char prefix[] =
        "[MORUN][ERROR] file = source/morun_%3[a-z]_macro/morun_%60[a-z0-9_], func = "
        "morun_%60[a-z0-9_], line = %d%n";
    sscanf(row.c_str(), prefix, folder, file, function, &number, &length);
    if (length != 0 && (*folder == 'n') == (strncmp(file, "npu", 3) == 0))
      row = file + (strcmp(file, function) == 0 ? "" : std::string(".") + function) + row.substr(length);
    if (const size_t at = row.find(", line "); at != row.npos) row.erase(at, row.find(')', at) - at);
    told += row;
  }
  told.pop_back();  // the blank, or the end of the last line
  return told + (output.empty() ? "" : " | " + output);
}
#define EXPECT_OUTCOME(call, ...) EXPECT_EQ(test::outcome([&] { return call; }), __VA_ARGS__)

// The same of a call in a process of its own, which it should end.
inline std::string ending(const std::function<void()>& call) {
  return "exit " + outcome([&] {
           const pid_t child = fork();
           if (child == 0) parlo_emulator_take_over(), call(), _exit(99);
           int status = 0;
           waitpid(child, &status, 0);
           return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
         });
}

inline std::string not_shared(const char* name, const void* pointer) {
  char text[99];
  snprintf(text, sizeof text, "%s = %p, not allocated with morun_npu_alloc()", name, pointer);
  return text;
}

inline void make_view(morun_tensor& t, uint64_t row_stride, uint64_t column_stride, uint64_t num_elements) {
  t.is_contiguous = 0;
  t.strides[0] = row_stride, t.strides[1] = column_stride;
  t.num_elements = num_elements;
}

// Initialised and otherwise like a process of its own. No file takes a descriptor that the registry has an entry for.
class UpperTest : public PlatformTest {
 public:
  static void start_afresh() {
    parlo_emulator_reset();
    std::fill(std::begin(morun_map_db), std::end(morun_map_db), morun_map_entry{});
    configure([](auto& config) { config.lowest_descriptor = 100; });
  }

 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    start_afresh();
    ASSERT_EQ(morun_npu_initialize(MORUN_DOMAIN_NPU0), 0);
  }
  void TearDown() override {
    release_shared();
    EXPECT_EQ(morun_npu_finalize(MORUN_DOMAIN_NPU0), 0);
    context = nullptr;
    PlatformTest::TearDown();
  }
  void release_shared() {
    for (; !shared_.empty(); shared_.pop_back()) EXPECT_EQ(morun_npu_free(shared_.back()), 0);
  }
  void* share(uint64_t size) {
    EXPECT_EQ(morun_npu_alloc(size, &shared_.emplace_back()), 0);
    return shared_.back();
  }
  std::vector<void*> shared_;
};

}  // namespace test
