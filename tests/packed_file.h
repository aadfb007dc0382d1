// Packed files of random values.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "include/morun_weights.h"
#include "tests/data.h"

namespace test {

// Packs matrices into a file at `path`: "NAME FORM N_INNER N_COL ...".
inline void pack(const std::string& path, const std::string& matrices) {
  const std::filesystem::path sources = path + ".sources";
  std::filesystem::create_directories(sources);
  morun_weights_packer* packer = nullptr;
  ASSERT_EQ(morun_weights_packer_create(nullptr, &packer), 0) << morun_weights_error_text();
  std::istringstream words(matrices);
  uint64_t n_inner, n_col;
  for (std::string name, form; words >> name >> form >> n_inner >> n_col;) {
    const std::string source = sources / (name + ".npy");
    std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (" + std::to_string(n_inner) + ", " +
                         std::to_string(n_col) + "), }";
    header.resize(118, ' ');
    const auto values = Random(n_col).values(n_inner * n_col);
    std::ofstream(source, std::ios::binary)
        << std::string("\x93NUMPY\x01\0\x76\0", 10) << header
        << std::string_view(reinterpret_cast<const char*>(values.data()), 4 * values.size());
    ASSERT_EQ(morun_weights_packer_add_source(packer, source.c_str()), 0) << morun_weights_error_text();
    const int32_t number = form == "f16"    ? MORUN_WEIGHTS_F16
                           : form == "a8w8" ? MORUN_WEIGHTS_A8W8
                           : form == "a8w4" ? MORUN_WEIGHTS_A8W4
                                            : MORUN_WEIGHTS_CARRIED;
    ASSERT_EQ(morun_weights_packer_add_rule(packer, name.c_str(), number), 0) << morun_weights_error_text();
  }
  ASSERT_EQ(morun_weights_packer_run(packer, path.c_str()), 0) << morun_weights_error_text();
  morun_weights_packer_free(packer);
  std::filesystem::remove_all(sources);
}

}  // namespace test
