// The tensors of checkpoints and .npy files, and their values in f32, read band by band.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "weights/input_file.h"
#include "weights/safetensors.h"

namespace weights {

struct SourceTensor {
  std::string name;
  const Dtype* dtype = nullptr;
  std::vector<uint64_t> shape;
  std::shared_ptr<const ReopenedFile> file;
  uint64_t file_offset = 0;
  uint64_t n_byte = 0;
  bool is_fortran_order = false;  // .npy: the first index runs fastest
  bool is_npy = false;
};

struct Source {
  std::vector<SourceTensor> tensors;
  std::map<std::string, std::string> metadata;  // of safetensors files
};

// Opens NAME.safetensors, NAME.index.json, a directory or NAME.npy and reads the headers. Throws what
// morun_weights_packer_add_source documents.
Source open_source(const std::string& path);

// One tensor from a .npy file of format 1.0, 2.0 or 3.0. Throws NPY, NPY_TYPE. Activations come by this too.
SourceTensor open_npy(const std::string& path);

// F64, F32, F16 or BF16.
bool is_float(const Dtype& dtype);

// A 2-dimensional tensor of floats as the matrix W.
struct SourceMatrix {
  const SourceTensor* tensor;
  const InputFile* file;  // the tensor's, open
  uint64_t n_inner;
  uint64_t n_col;
  bool is_transposed;  // the file holds column after column of W
};

// Reads columns first_column to first_column + n_column - 1 as f32, whole columns at a time: value (k, c) goes to
// values[(c - first_column) * n_inner + k]. `scratch` grows to what a piece of the file takes, some MiB.
void read_columns(const SourceMatrix& matrix, uint64_t first_column, uint64_t n_column, float* values,
                  std::vector<std::byte>& scratch);

}  // namespace weights
