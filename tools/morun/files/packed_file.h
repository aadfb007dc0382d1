// Files of packed weights, and weight matrices from any file.
#pragma once

#include <morun_weights.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tools/morun/files/npy.h"

namespace tool {

// Throws an Error with the library's text, unless `status` is a success.
void require_weights(int32_t status);

class PackedFile {
 public:
  explicit PackedFile(const std::filesystem::path& path);

  const morun_weights_file* get() const { return file_.get(); }
  uint64_t n_tensor() const;
  morun_weights_tensor tensor(uint64_t index) const;
  uint64_t find(const std::string& name) const;

 private:
  struct Close {
    void operator()(morun_weights_file* file) const { morun_weights_file_close(file); }
  };
  std::unique_ptr<morun_weights_file, Close> file_;
};

// A weight matrix as the command line names it: a .npy file, or FILE.safetensors:TENSOR for one of a packed file.
class WeightFile {
 public:
  explicit WeightFile(const std::filesystem::path& argument);

  const std::string& name() const { return name_; }
  size_t n_row() const { return npy_ ? npy_->n_row() : tensor_.n_inner; }
  size_t n_col() const { return npy_ ? npy_->n_col() : tensor_.n_col; }
  bool is_packed() const { return !npy_; }
  const NpyFile& npy() const { return *npy_; }                    // not packed
  const morun_weights_tensor& tensor() const { return tensor_; }  // packed

  // Reads the bytes of a packed matrix and compares them with their checksum.
  void read_packed(void* to) const;

  // All rows of some columns, as f32: of a packed matrix the values that it stands for.
  void read_columns(size_t first_col, size_t n_col, float* to, size_t row_stride) const;

 private:
  std::string name_;
  std::optional<NpyFile> npy_;
  std::shared_ptr<PackedFile> packed_;
  uint64_t index_ = 0;
  morun_weights_tensor tensor_ = {};
  mutable std::vector<std::byte> bytes_;  // of a packed matrix, once values were asked for
};

}  // namespace tool
