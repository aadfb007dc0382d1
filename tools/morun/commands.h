// The sub-commands. Each returns when its work is done, and throws an Error when it fails.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
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
  std::optional<WeightKind> weights;  // as packed, or f16
  bool check = false;
  std::optional<double> max_error;  // of the check
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
  std::string timeline;        // a file of trace events; empty: none
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

struct PackArguments {
  std::vector<std::filesystem::path> sources;
  std::filesystem::path output;
  std::string form = "a8w8";
  std::vector<std::pair<std::string, std::string>> rules;  // pattern and form
  std::string quantiser = "minmax";
  std::filesystem::path activations;  // empty: none
  double damping = 0.05;
  std::filesystem::path report;  // empty: none
  uint32_t n_job = 1;
  bool no_transpose = false;
  bool allow_non_finite = false;
  bool dry_run = false;
};
void pack(const PackArguments& arguments);

struct InspectArguments {
  std::filesystem::path file;
  bool as_json = false;
  bool verify = false;
};
void inspect(const InspectArguments& arguments);

struct UnpackArguments {
  std::filesystem::path file;
  std::string tensor;
  std::filesystem::path output;
};
void unpack(const UnpackArguments& arguments);

}  // namespace tool
