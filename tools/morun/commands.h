// The sub-commands. Each returns when its work is done, and throws an Error when it fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "tools/morun/kernels.h"

namespace tool {

struct InfoArguments {
  bool as_json = false;
};
void info(const InfoArguments& arguments);

void hello();

struct MmArguments {
  std::filesystem::path x;
  std::vector<std::filesystem::path> w;  // one, two or three
  std::vector<std::filesystem::path> y;
  WeightKind weights = WeightKind::f16;
  bool check = false;
  uint32_t n_repeat = 1;
};
void mm(const MmArguments& arguments);

struct VerifyArguments {
  bool quick = false;
  bool one_session = false;
  uint64_t seed = 1;
  std::string kernel;  // part of a name; empty: all
};
void verify(const VerifyArguments& arguments);

struct BenchArguments {
  std::string kernel;  // part of a name; empty: all
  uint32_t n_row = 64;
  uint32_t n_col = 1024;
  uint32_t n_inner = 1024;
  std::filesystem::path json;  // empty: none
};
void bench(const BenchArguments& arguments);

struct MakeArguments {
  uint32_t n_row = 0;
  uint32_t n_col = 0;
  std::filesystem::path output;
  uint64_t seed = 1;
  bool f16 = false;
};
void make(const MakeArguments& arguments);

}  // namespace tool
