// A file that is read at given places, by any number of threads.
#pragma once

#include <cstdint>
#include <string>

namespace weights {

class InputFile {
 public:
  // Throws OPEN, also for what is no regular file.
  explicit InputFile(std::string path);
  ~InputFile();
  InputFile(InputFile&& other) noexcept;
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }  // when it was opened

  // Reads n_byte bytes; throws READ, or SHRUNK where the file ends before.
  void read(uint64_t offset, uint64_t n_byte, void* bytes) const;

 private:
  std::string path_;
  int descriptor_ = -1;
  uint64_t size_ = 0;
};

}  // namespace weights
