// Writes and reads checkpoints and packed files by the definition of their format.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "include/morun_weights.h"
#include "simd/scalar.h"
#include "tests/allocation_shim.h"
#include "tests/packed_matrix.h"

namespace test {

namespace fs = std::filesystem;
using Json = nlohmann::json;

struct Tensor {
  std::string name, dtype;
  std::vector<uint64_t> shape;
  std::string bytes;
};

inline std::string with_length(const std::string& header) {
  std::string length(8, '\0');
  for (size_t i = 0; i < 4; ++i) length[i] = static_cast<char>(header.size() >> 8 * i);
  return length + header;
}

// Not aligned to anything, as some writers leave it.
inline std::string safetensors(const std::vector<Tensor>& tensors, const Json& metadata = {}) {
  Json header = Json::object();
  std::string data;
  for (const Tensor& tensor : tensors) {
    header[tensor.name] = {{"dtype", tensor.dtype},
                           {"shape", tensor.shape},
                           {"data_offsets", {data.size(), data.size() + tensor.bytes.size()}}};
    data += tensor.bytes;
  }
  if (!metadata.is_null()) header["__metadata__"] = metadata;
  return with_length(header.dump()) + data;
}

// n_col x n_inner zeros of f32 for each name, without the bytes.
inline std::string safetensors_of_zeros(const std::vector<std::string>& names, uint64_t n_col, uint64_t n_inner) {
  Json header;
  uint64_t end = 0;
  for (const std::string& name : names) {
    const uint64_t begin = std::exchange(end, end + 4 * n_col * n_inner);
    header[name] = {{"dtype", "F32"}, {"shape", {n_col, n_inner}}, {"data_offsets", {begin, end}}};
  }
  return with_length(header.dump());
}

// Values that halves and bfloats hold, from -2 to 2.
inline std::vector<float> some_values(size_t n, unsigned seed) {
  std::vector<float> values(n);
  for (float& value : values) {
    seed = seed * 1664525u + 1013904223u;
    value = static_cast<float>(static_cast<int>(seed >> 20) % 129 - 64) / 32;
  }
  return values;
}

inline int32_t form_of(const std::string& name) {
  const std::string names[] = {"carried", "f16", "a8w8", "a8w4"};
  return static_cast<int32_t>(std::find(names, names + 4, name) - names);
}

inline void expect_status(int32_t status, int32_t expected, const std::string& text) {
  EXPECT_STREQ(morun_weights_status_name(status), morun_weights_status_name(expected)) << text;
  const std::string told = morun_weights_error_text();
  EXPECT_NE(told.find(text), std::string::npos) << told << "\n  does not contain\n" << text;
}

// Calls the function once for each pointer among its parameters, with a null pointer there.
template <class... Parameters>
void expect_nulls_refused(int32_t (*call)(Parameters...), std::type_identity_t<Parameters>... arguments) {
  for (size_t null = 0; null < sizeof...(arguments); ++null) {
    size_t at = 0;
    bool has_null = false;
    const auto changed = [&]<class Argument>(Argument argument) {
      const bool is_null = std::is_pointer_v<Argument> && at++ == null;
      has_null = has_null || is_null;
      return is_null ? Argument{} : argument;
    };
    const std::tuple<Parameters...> all{changed(arguments)...};
    EXPECT_TRUE(!has_null || std::apply(call, all) == MORUN_WEIGHTS_NULL_ARGUMENT) << "pointer " << null;
  }
}

// Lets the allocations of a refused call fail one by one, later ones in larger steps. The call wants memory then, or is
// refused as it is otherwise.
template <typename Call>
void expect_refused_without_memory_too(int32_t expected, const Call& call) {
  for (uint64_t nth = 1, n_failed = 1; n_failed != 0; nth += 1 + nth / 16) {
    allocation_shim_fail(nth, false);
    const int32_t status = call();
    n_failed = allocation_shim_failed();
    allocation_shim_fail(0, false);
    EXPECT_TRUE(status == expected || (n_failed != 0 && status == MORUN_WEIGHTS_NO_MEMORY))
        << "allocation " << nth << ": status " << status << " instead of " << expected;
  }
}

class Packer {
 public:
  explicit Packer(const std::function<void(morun_weights_pack_options&)>& change = {}) {
    morun_weights_pack_options options;
    morun_weights_pack_options_init(&options);
    if (change) change(options);
    EXPECT_EQ(morun_weights_packer_create(&options, &handle), 0) << morun_weights_error_text();
  }
  ~Packer() { morun_weights_packer_free(handle); }
  Packer(const Packer&) = delete;
  Packer& operator=(const Packer&) = delete;

  Packer& source(const std::string& path) {
    EXPECT_EQ(morun_weights_packer_add_source(handle, path.c_str()), 0) << morun_weights_error_text();
    return *this;
  }
  Packer& rule(const char* pattern, int32_t form) {
    EXPECT_EQ(morun_weights_packer_add_rule(handle, pattern, form), 0) << morun_weights_error_text();
    return *this;
  }
  int32_t run(const std::string& path) { return morun_weights_packer_run(handle, path.c_str()); }
  std::vector<morun_weights_decision> decisions() const {
    uint64_t count = 0;
    EXPECT_EQ(morun_weights_packer_count(handle, &count), 0);
    std::vector<morun_weights_decision> all(count);
    for (uint64_t i = 0; i < count; ++i) EXPECT_EQ(morun_weights_packer_decision(handle, i, &all[i]), 0);
    return all;
  }

  morun_weights_packer* handle = nullptr;
};

// Packs matrices of some values into a file at `path`: "NAME FORM N_INNER N_COL ...".
inline void pack(const std::string& path, const std::string& matrices) {
  const fs::path sources = path + ".sources";
  fs::create_directories(sources);
  Packer packer;
  std::istringstream words(matrices);
  unsigned n_inner, n_col;
  for (std::string name, form; words >> name >> form >> n_inner >> n_col;) {
    const std::string source = sources / (name + ".npy");
    std::ofstream(source, std::ios::binary) << matrix_npy(some_values(size_t{n_inner} * n_col, n_col), n_col);
    packer.source(source).rule(name.c_str(), form_of(form));
  }
  EXPECT_EQ(packer.run(path), 0) << morun_weights_error_text();
  fs::remove_all(sources);
}

// A folder for the files of one test.
class Folder {
 protected:
  Folder() : folder_(fs::path(testing::TempDir()) / ("weight_files." + std::to_string(getpid()))) {
    fs::create_directories(folder_);
  }
  ~Folder() { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ / name; }
  std::string write(const std::string& name, const std::string& bytes) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  std::string read(const std::string& name) const {
    std::ifstream stream(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  std::set<std::string> names() const {
    std::set<std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) all.insert(entry.path());
    return all;
  }

  // Returns a line with the name of the status and, for a failure, its text without the name of the folder.
  std::string outcome(int32_t status) const {
    std::string told = morun_weights_status_name(status);
    if (status != MORUN_WEIGHTS_SUCCESS) told += std::string(": ") + morun_weights_error_text();
    const std::string folder = path("");
    for (size_t at; (at = told.find(folder)) != told.npos;) told.erase(at, folder.size());
    return "  " + told + '\n';
  }

  const fs::path folder_;
};

struct PackedFile {
  explicit PackedFile(const std::string& file) : bytes(file) {
    uint64_t size = 0;
    std::memcpy(&size, file.data(), sizeof size);
    data = 8 + size;
    header = Json::parse(file.substr(8, size));
    metadata = header["__metadata__"];
    header.erase("__metadata__");
  }
  std::string tensor(const std::string& name) const {
    const uint64_t begin = header.at(name)["data_offsets"][0], end = header.at(name)["data_offsets"][1];
    return bytes.substr(data + begin, end - begin);
  }
  Json record(const std::string& name) const {
    return Json::parse(metadata.at("morun.tensor." + name).get<std::string>());
  }
  PackedMatrix matrix(const std::string& name) const {
    const std::string content = tensor(name);
    PackedMatrix packed = {form_of(record(name)["form"]), {}, {content.begin(), content.end()}};
    EXPECT_EQ(morun_weights_layout_of(packed.form, record(name)["n_inner"], record(name)["n_col"], &packed.layout), 0);
    return packed;
  }

  std::string bytes;
  uint64_t data;
  Json header, metadata;
};

}  // namespace test
