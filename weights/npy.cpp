#include <stdexcept>
#include <string_view>

#include "weights/error.h"
#include "weights/npy_header.h"
#include "weights/source.h"

namespace weights {
namespace {

struct TypeName {
  const char* kind_and_size;
  const char* dtype;
};
constexpr TypeName type_names[] = {
    {"f8", "F64"}, {"f4", "F32"}, {"f2", "F16"}, {"i8", "I64"}, {"i4", "I32"},  {"i2", "I16"}, {"i1", "I8"},
    {"u8", "U64"}, {"u4", "U32"}, {"u2", "U16"}, {"u1", "U8"},  {"b1", "BOOL"}, {"c8", "C64"},
};

const Dtype* dtype_of(const std::string& path, const std::string& type) {
  const bool is_single_byte = type.ends_with('1');
  const std::string_view orders = is_single_byte ? "<>=|" : "<=";
  for (const TypeName& name : type_names)
    if (orders.find(type[0]) != std::string_view::npos && type.substr(1) == name.kind_and_size)
      return dtype_by_name(name.dtype);
  throw Error(MORUN_WEIGHTS_NPY_TYPE, "%s: values of type %s are no little-endian numbers of a dtype of safetensors",
              path.c_str(), type.c_str());
}

npy::LocatedHeader header_of(const InputFile& file) {
  try {
    return npy::read_header([&](uint64_t offset, size_t n_byte, void* bytes) { file.read(offset, n_byte, bytes); });
  } catch (const Error& error) {
    if (error.status() != MORUN_WEIGHTS_SHRUNK) throw;
    throw Error(MORUN_WEIGHTS_NPY, "%s: not a .npy file that can be read (its header is cut short)",
                file.path().c_str());
  } catch (const std::runtime_error& error) {
    throw Error(MORUN_WEIGHTS_NPY, "%s: not a .npy file that can be read (%s)", file.path().c_str(), error.what());
  }
}

}  // namespace

SourceTensor open_npy(const std::string& path) {
  const InputFile file(path);
  npy::LocatedHeader located = header_of(file);
  SourceTensor tensor;
  tensor.file = std::make_shared<const ReopenedFile>(file);
  tensor.dtype = dtype_of(path, located.header.type);
  tensor.shape = std::move(located.header.shape);
  tensor.file_offset = located.end;
  tensor.is_fortran_order = located.header.fortran_order && tensor.shape.size() > 1;
  tensor.is_npy = true;

  uint64_t n_byte = tensor.dtype->n_bit / 8;
  bool fits = true;
  for (const uint64_t extent : tensor.shape) fits = fits && !__builtin_mul_overflow(n_byte, extent, &n_byte);
  const uint64_t n_left = file.size() - located.end;
  if (!fits || n_byte > n_left)
    throw Error(MORUN_WEIGHTS_NPY, "%s: holds %ju bytes of values, fewer than its shape takes", path.c_str(),
                uintmax_t{n_left});
  tensor.n_byte = n_byte;
  return tensor;
}

}  // namespace weights
