// Packed files of any content: the reader refuses one with a status of an invalid file, or lists tensors that cover its
// data and whose bytes can be read, compared with their checksums and unpacked. Nothing is left of either.
//
// An input is the number of bytes of the data, two bytes little-endian, and the header's JSON, in which ' stands for
// \". The data are zeros that begin at a multiple of 4096. A number of 65535 stands for nothing: the rest is the whole
// file.
#include <memory>
#include <string>

#include "include/morun_weights.h"
#include "tests/fuzz/fuzz.h"

namespace {

using fuzz::expect;

fuzz::Counter packed_files = "packed files", invalid_files = "invalid files", invalid_records = "invalid records",
              right_checksums = "right checksums", wrong_checksums = "wrong checksums", unpacked = "matrices unpacked";
std::string file;

void print_input() {
  dprintf(fuzz::report_fd, "%zu bytes: %.4000s\n%s\n", file.size(), file.c_str() + std::min<size_t>(8, file.size()),
          morun_weights_error_text());
}

std::string file_of(const uint8_t* data, size_t size) {
  const unsigned n_data = size < 2 ? 65535 : data[0] | data[1] << 8;
  std::string json(data + std::min<size_t>(size, 2), data + size);
  if (n_data == 65535) return json;
  for (size_t at = 0; (at = json.find('\'', at)) != std::string::npos; at += 2) json.replace(at, 1, "\\\"");
  std::string bytes = std::string(8, '\0') + json;
  bytes.resize((bytes.size() + 4095) / 4096 * 4096, ' ');
  for (size_t i = 0; i < 8; ++i) bytes[i] = static_cast<char>((bytes.size() - 8) >> 8 * i);
  return bytes + std::string(n_data, '\0');
}

// Memory of just so many bytes.
template <typename Value>
std::unique_ptr<Value[]> memory_for(uint64_t count) {
  expect(count <= 2 * file.size(), "a tensor is larger than the file");
  return std::unique_ptr<Value[]>(new Value[count]);
}

void use(const morun_weights_file* opened, uint64_t index, const morun_weights_tensor& tensor) {
  uint64_t found = ~index;
  expect(morun_weights_file_find(opened, tensor.name, &found) == 0 && found == index, "a tensor is not found");
  const int32_t verified = morun_weights_file_verify(opened, index);
  expect(verified == 0 || verified == MORUN_WEIGHTS_CHECKSUM, "a tensor cannot be verified");
  (verified == 0 ? right_checksums : wrong_checksums) += 1;
  const auto bytes = memory_for<char>(tensor.n_byte);
  expect(morun_weights_file_read_verified(opened, index, bytes.get()) == verified, "reading does not verify");
  expect(morun_weights_file_read(opened, index, 0, tensor.n_byte, bytes.get()) == 0, "a tensor cannot be read");
  expect(memcmp(bytes.get(), file.data() + tensor.file_offset, tensor.n_byte) == 0, "other bytes are read");
  expect(morun_weights_file_read(opened, index, 1, tensor.n_byte, bytes.get()) == MORUN_WEIGHTS_BAD_ARGUMENT,
         "bytes past a tensor are read");
  if (tensor.form == MORUN_WEIGHTS_CARRIED) return;
  morun_weights_layout layout;
  expect(morun_weights_layout_of(tensor.form, tensor.n_inner, tensor.n_col, &layout) == 0, "a layout cannot be");
  expect(memcmp(&layout, &tensor.layout, sizeof layout) == 0 && layout.n_byte == tensor.n_byte, "a layout differs");
  expect(tensor.file_offset % 2048 == 0, "a matrix is not aligned");
  const auto values = memory_for<float>(tensor.n_inner * tensor.n_col);
  expect(morun_weights_file_unpack(opened, index, values.get()) == verified, "a matrix cannot be unpacked");
  unpacked += verified == 0;
}

void use(const morun_weights_file* opened) {
  uint64_t count = 0, end = 0;
  expect(morun_weights_file_count(opened, &count) == 0, "tensors cannot be counted");
  for (uint64_t i = 0; i < count; ++i) {
    morun_weights_tensor tensor;
    expect(morun_weights_file_tensor(opened, i, &tensor) == 0, "a tensor cannot be had");
    expect(i == 0 || tensor.file_offset == end, "tensors are not one behind the other");
    end = tensor.file_offset + tensor.n_byte;
    use(opened, i, tensor);
  }
  expect(count == 0 || end == file.size(), "tensors do not end with the file");
}

void open_and_use(const std::string& path) {
  morun_weights_file* opened = nullptr;
  const int32_t status = morun_weights_file_open(path.c_str(), &opened);
  if (status == 0) {
    use(opened);
    morun_weights_file_close(opened);
    packed_files += 1;
    return;
  }
  expect(opened == nullptr, "a file that is refused is open");
  const bool is_record = status >= MORUN_WEIGHTS_NOT_PACKED_FILE && status <= MORUN_WEIGHTS_CHECKSUM_TEXT;
  expect(is_record || (status >= MORUN_WEIGHTS_TOO_SHORT && status <= MORUN_WEIGHTS_TRAILING_DATA),
         "a file is refused with a status of another matter");
  expect(strncmp(morun_weights_error_text(), path.c_str(), path.size()) == 0, "a message names no file");
  (is_record ? invalid_records : invalid_files) += 1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return fuzz::start(print_input);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemoryFile memory;
  file = file_of(data, size);
  memory.fill(file.data(), file.size());
  const auto call = [&] { open_and_use(memory.path()); };
  call();
  const fuzz::Usage before = fuzz::usage();
  call();
  expect(fuzz::leaves_nothing(before, call), "something is left");
  return 0;
}
