#include "tools/morun/files/packed_file.h"

#include <string_view>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr std::string_view between_file_and_tensor = ".safetensors:";

// Where the name of a tensor begins; npos in the name of a .npy file. Names of files and of tensors may both hold what
// stands between them: the first file that exists is meant, or the last where none does.
size_t tensor_name(const std::filesystem::path& argument) {
  std::error_code error;
  const std::string& text = argument.native();
  size_t begin = std::string::npos;
  if (std::filesystem::exists(argument, error)) return begin;
  for (size_t at = 0; (at = text.find(between_file_and_tensor, at)) != std::string::npos; ++at) {
    begin = at + between_file_and_tensor.size();
    if (std::filesystem::exists(text.substr(0, begin - 1), error)) break;
  }
  return begin;
}

}  // namespace

void require_weights(int32_t status) {
  if (status != MORUN_WEIGHTS_SUCCESS) throw Error("{}", morun_weights_error_text());
}

PackedFile::PackedFile(const std::filesystem::path& path) {
  morun_weights_file* file = nullptr;
  require_weights(morun_weights_file_open(path.c_str(), &file));
  file_.reset(file);
}

uint64_t PackedFile::n_tensor() const {
  uint64_t count = 0;
  require_weights(morun_weights_file_count(get(), &count));
  return count;
}

morun_weights_tensor PackedFile::tensor(uint64_t index) const {
  morun_weights_tensor tensor = {};
  require_weights(morun_weights_file_tensor(get(), index, &tensor));
  return tensor;
}

uint64_t PackedFile::find(const std::string& name) const {
  uint64_t index = 0;
  require_weights(morun_weights_file_find(get(), name.c_str(), &index));
  return index;
}

WeightFile::WeightFile(const std::filesystem::path& argument) : name_(argument.native()) {
  const size_t tensor = tensor_name(argument);
  if (tensor == std::string::npos) {
    npy_.emplace(argument);
    return;
  }
  packed_ = std::make_shared<PackedFile>(name_.substr(0, tensor - 1));
  index_ = packed_->find(name_.substr(tensor));
  tensor_ = packed_->tensor(index_);
  if (tensor_.form == MORUN_WEIGHTS_CARRIED) throw Error("{}: the tensor is not packed", name_);
}

void WeightFile::read_packed(void* to) const {
  require_weights(morun_weights_file_read_verified(packed_->get(), index_, to));
}

void WeightFile::read_columns(size_t first_col, size_t n_col, float* to, size_t row_stride) const {
  if (npy_) return npy_->read({0, n_row(), first_col, n_col}, to, row_stride);
  if (bytes_.empty()) {
    bytes_.resize(tensor_.n_byte);
    read_packed(bytes_.data());
  }
  require_weights(morun_weights_unpack_columns(tensor_.form, tensor_.n_inner, tensor_.n_col, bytes_.data(),
                                               bytes_.size(), first_col, n_col, to, row_stride, 1));
}

}  // namespace tool
