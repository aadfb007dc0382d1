// The sub-commands. Each returns when it has done its work and throws an Error when it could not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>

namespace tool {

struct InfoArguments {
  bool as_json = false;
};
void info(const InfoArguments& arguments);

void hello();

struct MmArguments {
  std::filesystem::path x;
  std::filesystem::path w;
  std::filesystem::path y;
  bool check = false;
  uint32_t n_repeat = 1;
};
void mm(const MmArguments& arguments);

struct MakeArguments {
  uint32_t n_row = 0;
  uint32_t n_col = 0;
  std::filesystem::path output;
  uint64_t seed = 1;
  bool f16 = false;
};
void make(const MakeArguments& arguments);

}  // namespace tool
