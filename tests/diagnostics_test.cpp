// What the vector aids print, and what they accept.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "include/tavik.h"
#include "tests/support.h"

namespace {

TEST(VectorPrint, ShowsTheEdgesAndTheStatisticsOfAll) {
  const std::vector<int8_t> data = {-3, 1, 2, 3, 4, 5, 6, 7, 8, 17};
  int written = 0;
  const std::string edges =
      test::printed_by([&](FILE* stream) { written = tavik_vector_print_i8(stream, 10, data.data(), "weights", 3); });
  const std::string statistics = " [min =   -3.000000, max =   17.000000, mean =    5.000000, sum =   50.000000]\n";
  EXPECT_EQ(edges,
            "weights           :   -3.00000    1.00000    2.00000 ...    7.00000    8.00000   17.00000 " + statistics);
  EXPECT_EQ(written, static_cast<int>(statistics.size()));
}

struct Edge {
  uint64_t count, edge;
  const char* elements;
};
TEST(VectorPrint, ShowsAllWhereTheEdgesOverlap) {
  const float data[] = {1, 2, 3, 4, 5};
  const Edge edges[] = {
      {5, 3, "   1.00000    2.00000    3.00000    4.00000    5.00000 "},
      {5, UINT64_MAX / 2 + 1, "   1.00000    2.00000    3.00000    4.00000    5.00000 "},
      {4, 2, "   1.00000    2.00000 ...    3.00000    4.00000 "},
      {5, 0, "... "},
      {0, 1, ""},
  };
  for (const Edge& edge : edges) {
    const std::string line =
        test::printed_by([&](FILE* stream) { tavik_vector_print_f32(stream, edge.count, data, "x", edge.edge); });
    EXPECT_EQ(line.substr(0, line.find(" [min")), "x                 : " + std::string(edge.elements));
  }
}

// Each type by a value that another type's reading would get wrong.
TEST(VectorPrint, ReadsEveryType) {
  const uint8_t u8 = 200;
  const int8_t i8 = -56;
  const uint16_t f16 = 0xc100;
  const int32_t i32 = -2147483647;
  const uint32_t u32 = 4294967295u;
  const float f32 = 0.1f;
  const auto shown = [](auto print, const auto& value) {
    return test::printed_by([&](FILE* stream) { print(stream, 1, &value, "x", 1); }).substr(20, 18);
  };
  EXPECT_EQ(shown(tavik_vector_print_u8, u8), " 200.00000  [min =");
  EXPECT_EQ(shown(tavik_vector_print_i8, i8), " -56.00000  [min =");
  EXPECT_EQ(shown(tavik_vector_print_f16, f16), "  -2.50000  [min =");
  EXPECT_EQ(shown(tavik_vector_print_i32, i32), "-2147483647.00000 ");
  EXPECT_EQ(shown(tavik_vector_print_u32, u32), "4294967295.00000  ");
  EXPECT_EQ(shown(tavik_vector_print_f32, f32), "   0.10000  [min =");
}

TEST(VectorPrint, SumsInDoublePrecision) {
  const std::vector<float> data(1000, 16777217.0f / 10);
  const std::string line =
      test::printed_by([&](FILE* stream) { tavik_vector_print_f32(stream, data.size(), data.data(), "x", 0); });
  EXPECT_NE(line.find("sum = 1677721625.000000]"), std::string::npos) << line;
}

struct Check {
  std::vector<float> reference, data;
  int passed;
  const char* line;
};
TEST(VectorCheck, FailsBeyondTheToleranceOnly) {
  const Check checks[] = {
      {{}, {}, 1, "x                 : max deviation    0.00000 \n"},
      {{1, 2000, -1}, {1.5f, 0, -1}, 1, "x                 : max deviation 2000.00000 \n"},
      {{1, -2000.5f}, {1, 0}, 0, "x                 : max deviation 2000.50000 -- Bad results :-(((\n"},
      {{NAN, 1, 5}, {0, NAN, 2}, 1, "x                 : max deviation    3.00000 \n"},
      {{INFINITY}, {0}, 0, "x                 : max deviation        inf -- Bad results :-(((\n"},
  };
  for (const Check& check : checks) {
    int passed = -1;
    const std::string line = test::printed_by([&](FILE* stream) {
      passed = tavik_vector_check_f32(stream, check.data.size(), check.reference.data(), check.data.data(), "x");
    });
    EXPECT_EQ(line, check.line);
    EXPECT_EQ(passed, check.passed);
  }
}

TEST(VectorCheck, ReadsEveryType) {
  const auto deviation = [](auto check, auto value, float reference) {
    return test::printed_by([&](FILE* stream) { check(stream, 1, &reference, &value, "x"); }).substr(34);
  };
  EXPECT_EQ(deviation(tavik_vector_check_u8, uint8_t{200}, 199), "   1.00000 \n");
  EXPECT_EQ(deviation(tavik_vector_check_i8, int8_t{-56}, -58), "   2.00000 \n");
  EXPECT_EQ(deviation(tavik_vector_check_f16, uint16_t{0xc100}, -3), "   0.50000 \n");
  EXPECT_EQ(deviation(tavik_vector_check_i32, int32_t{-16777217}, -16777216), "   0.00000 \n");  // to f32 first
  EXPECT_EQ(deviation(tavik_vector_check_u32, uint32_t{4294967295u}, 4294967296.0f), "   0.00000 \n");
  EXPECT_EQ(deviation(tavik_vector_check_f32, 0.25f, 1), "   0.75000 \n");
}

}  // namespace
