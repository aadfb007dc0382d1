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

// A line of the upper interface's log with its place shortened to file and function, and without the function where the
// file has its name: "npu_alloc.npu_free: MESSAGE". A file that is not in the folder of its first word stays as it is.
inline std::string with_short_place(const std::string& line) {
  char folder[4], file[64], function[64];
  int end_of_place = 0;
  sscanf(line.c_str(),
         "[MORUN][ERROR] file = source/morun_%3[a-z]_macro/morun_%60[a-z0-9_], func = morun_%60[a-z0-9_], line = %*d%n",
         folder, file, function, &end_of_place);
  if (end_of_place == 0) return line;
  const bool is_of_npu = std::string(file).starts_with("npu");
  if (folder != std::string(is_of_npu ? "npu" : "cpu")) return line;
  const std::string place = strcmp(file, function) == 0 ? file : std::string(file) + "." + function;
  return place + line.substr(static_cast<size_t>(end_of_place));
}

// The line that ends a process tells a place in parentheses, the number of its source line last.
inline std::string without_line_number(std::string line) {
  if (const size_t at = line.find(", line "); at != line.npos) line.erase(at, line.find(')', at) - at);
  return line;
}

inline std::string shortened(const std::string& log) {
  std::string text;
  for (size_t start = 0, end; start < log.size(); start = end) {
    end = std::min(log.find('\n', start), log.size() - 1) + 1;
    text += without_line_number(with_short_place(log.substr(start, end - start)));
  }
  return text;
}

// The status of a call and what it prints: "14 LOG", and " | OUTPUT" where it writes to standard output. The status is
// followed by "unflushed" where part of the output would be lost by the end of the process.
inline std::string outcome(const std::function<int32_t()>& call) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const std::string status = std::to_string(call());
  const bool is_flushed = __fpending(stdout) == 0;
  const std::string log = testing::internal::GetCapturedStderr(), output = testing::internal::GetCapturedStdout();
  std::string told = status + (is_flushed ? " " : " unflushed ") + shortened(log);
  told.pop_back();  // the end of the last line, or the blank where there is none
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

// What a path of morun_mm_tensor takes, left, right and result in this order.
struct TensorFormats {
  morun_tensor_dtype_e types[3];
  morun_tensor_layout_e layouts[3];
};
namespace formats {
constexpr auto i4 = MORUN_DTYPE_I4, i8 = MORUN_DTYPE_I8, u8 = MORUN_DTYPE_U8, i32 = MORUN_DTYPE_I32,
               f16 = MORUN_DTYPE_F16, f32 = MORUN_DTYPE_F32;
constexpr auto rm = MORUN_LAYOUT_2D_RM, wh = MORUN_LAYOUT_2D_WH, ah = MORUN_LAYOUT_2D_AH;
}  // namespace formats
// The paths by their names in include/morun_tensor.h.
namespace paths {
using namespace formats;
constexpr TensorFormats P1 = {{f32, f16, f32}, {rm, wh, rm}}, P2 = {{f16, f16, f16}, {ah, wh, ah}},
                        P3 = {{f16, f16, f16}, {rm, wh, rm}}, P4 = {{u8, i4, i32}, {rm, wh, rm}},
                        P5 = {{f16, f16, f16}, {rm, rm, rm}}, P6 = {{u8, i8, i32}, {rm, wh, rm}};
}  // namespace paths

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
