#include <string>
#include <vector>

#include "weights/error.h"
#include "weights/layout.h"
#include "weights/packed_file.h"
#include "weights/unpack_columns.h"

namespace weights {
namespace {

morun_weights_tensor describe(const PackedTensor& tensor) {
  const Record& record = tensor.record;
  morun_weights_tensor told = {};
  told.name = tensor.entry.name.c_str();
  told.form = record.form;
  told.quantiser = record.quantiser;
  told.dtype = tensor.entry.dtype->name;
  told.shape = tensor.entry.shape.data();
  told.n_dimension = tensor.entry.shape.size();
  told.file_offset = tensor.file_offset;
  told.n_byte = tensor.n_byte();
  told.n_inner = record.n_inner;
  told.n_col = record.n_col;
  told.layout = tensor.layout;
  told.source_name = record.source.c_str();
  told.source_dtype = record.source_dtype.c_str();
  told.error = record.error;
  told.product_error = record.product_error;
  told.checksum = record.checksum;
  return told;
}

}  // namespace
}  // namespace weights

int32_t morun_weights_file_open(const char* path, morun_weights_file** file) {
  return weights::guarded([&] {
    weights::require_not_null(path, "path");
    weights::require_not_null(file, "file");
    *file = new morun_weights_file(path);
  });
}

void morun_weights_file_close(morun_weights_file* file) {
  delete file;
}

int32_t morun_weights_file_count(const morun_weights_file* file, uint64_t* count) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(count, "count");
    *count = file->tensors.size();
  });
}

int32_t morun_weights_file_tensor(const morun_weights_file* file, uint64_t index, morun_weights_tensor* tensor) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(tensor, "tensor");
    *tensor = weights::describe(file->tensor(index));
  });
}

int32_t morun_weights_file_find(const morun_weights_file* file, const char* name, uint64_t* index) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(name, "name");
    weights::require_not_null(index, "index");
    const auto found = file->numbers.find(name);
    if (found == file->numbers.end())
      throw weights::Error(MORUN_WEIGHTS_NOT_FOUND, "%s: has no tensor %s", file->input.path().c_str(),
                           weights::in_quotes(name).c_str());
    *index = found->second;
  });
}

int32_t morun_weights_file_verify(const morun_weights_file* file, uint64_t index) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    file->verify_tensor(file->tensor(index));
  });
}

int32_t morun_weights_file_read(const morun_weights_file* file, uint64_t index, uint64_t offset, uint64_t n_byte,
                                void* bytes) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    const weights::PackedTensor& tensor = file->tensor(index);
    weights::require_argument(offset <= tensor.n_byte() && n_byte <= tensor.n_byte() - offset,
                              "the range does not lie in the tensor");
    if (n_byte == 0) return;
    weights::require_not_null(bytes, "bytes");
    file->input.read(tensor.file_offset + offset, n_byte, bytes);
  });
}

int32_t morun_weights_file_read_verified(const morun_weights_file* file, uint64_t index, void* bytes) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    const weights::PackedTensor& tensor = file->tensor(index);
    if (tensor.n_byte() != 0) weights::require_not_null(bytes, "bytes");
    file->read_tensor(tensor, true, bytes);
  });
}

int32_t morun_weights_file_unpack(const morun_weights_file* file, uint64_t index, float* values) {
  return weights::guarded([&] {
    weights::require_not_null(file, "file");
    weights::require_not_null(values, "values");
    const weights::PackedTensor& tensor = file->tensor(index);
    if (!weights::is_packed(tensor.record.form))
      throw weights::Error(MORUN_WEIGHTS_NOT_PACKED, "%s: tensor %s is not packed", file->input.path().c_str(),
                           weights::in_quotes(tensor.entry.name).c_str());
    std::vector<std::byte> bytes(tensor.n_byte());
    file->read_tensor(tensor, true, bytes.data());
    const uint64_t n_col = tensor.record.n_col;
    const weights::PackedMatrix packed = {tensor.record.form, tensor.layout, bytes.data()};
    weights::unpack_columns(packed, tensor.record.n_inner, 0, n_col, values, n_col, 1);
  });
}
