// The choice of a vector backend, and what the library tells about backends.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "include/morun.h"
#include "include/tavik.h"

namespace {

std::string backends(int32_t which) {
  char text[256];
  const uint64_t length = morun_vector_backends(which, text, sizeof text);
  EXPECT_EQ(length, std::string(text).size());
  return text;
}

// Runs first in its process (each test has one of its own), so that the threads race for the choice.
TEST(Backends, ManyThreadsMayComputeFirst) {
  testing::internal::CaptureStderr();
  setenv("MORUN_SIMD", "no such backend", 1);
  std::vector<std::thread> threads;
  std::vector<std::vector<uint16_t>> results(8, std::vector<uint16_t>(1024));
  for (std::vector<uint16_t>& result : results)
    threads.emplace_back([&result] {
      const std::vector<float> ones(result.size(), 1.0f);
      tavik_f32_to_f16(ones.size(), ones.data(), result.data());
    });
  for (std::thread& thread : threads) thread.join();
  for (const std::vector<uint16_t>& result : results) EXPECT_EQ(std::count(result.begin(), result.end(), 0x3c00), 1024);
  const std::string lines = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 1) << lines;
  EXPECT_EQ(lines.find("libmorun: MORUN_SIMD is \"no such backend\", which this build does not have; "), 0u) << lines;
}

TEST(Backends, TheVariableChoosesOneOfThoseSupported) {
  const std::string supported = backends(MORUN_BACKENDS_SUPPORTED);
  const std::string first = supported.substr(0, supported.find(' '));
  setenv("MORUN_SIMD", first.c_str(), 1);
  EXPECT_EQ(backends(MORUN_BACKENDS_IN_USE), first);
  setenv("MORUN_SIMD", "another, too late", 1);
  EXPECT_EQ(backends(MORUN_BACKENDS_IN_USE), first);
}

TEST(Backends, WithoutTheVariableTheFastestSupportedOneIsUsed) {
  unsetenv("MORUN_SIMD");
  const std::string supported = backends(MORUN_BACKENDS_SUPPORTED);
  EXPECT_EQ(backends(MORUN_BACKENDS_IN_USE), supported.substr(supported.rfind(' ') + 1));
}

TEST(Backends, NamesAreCutToTheRoomThereIs) {
  const std::string built = backends(MORUN_BACKENDS_BUILT);
  for (uint64_t size = 0; size <= built.size() + 1; ++size) {
    std::string text(built.size() + 2, '#');
    EXPECT_EQ(morun_vector_backends(MORUN_BACKENDS_BUILT, text.data(), size), built.size());
    const std::string expected = size == 0 ? "" : built.substr(0, size - 1) + '\0';
    EXPECT_EQ(text, expected + std::string(text.size() - expected.size(), '#')) << size;
  }
  EXPECT_EQ(morun_vector_backends(MORUN_BACKENDS_BUILT, nullptr, 0), built.size());
  for (const int32_t which : {-1, 3}) {
    char text[] = "before";
    EXPECT_EQ(morun_vector_backends(which, text, sizeof text), 0u);
    EXPECT_STREQ(text, "");
  }
}

}  // namespace
