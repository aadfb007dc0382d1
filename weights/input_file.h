// A file that is read at given places, by any number of threads.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <utility>

namespace weights {

class InputFile {
 public:
  using Identity = std::pair<dev_t, ino_t>;

  // Throws OPEN, also for what is no regular file.
  explicit InputFile(std::string path);
  // Throws READ where another file has taken the place of the expected one, too.
  InputFile(const std::string& path, Identity expected);
  ~InputFile();
  InputFile(const InputFile&) = delete;
  InputFile& operator=(const InputFile&) = delete;

  const std::string& path() const { return path_; }
  uint64_t size() const { return size_; }  // when it was opened
  Identity identity() const { return identity_; }

  // Reads n_byte bytes; throws READ, or SHRUNK where the file ends before.
  void read(uint64_t offset, uint64_t n_byte, void* bytes) const;

 private:
  std::string path_;
  int descriptor_ = -1;
  uint64_t size_ = 0;
  Identity identity_;
};

// A file that is opened anew for each use: a checkpoint may have more files than a process may have open.
class ReopenedFile {
 public:
  explicit ReopenedFile(const InputFile& file) : path_(file.path()), identity_(file.identity()) {}

  const std::string& path() const { return path_; }

  InputFile open() const { return InputFile(path_, identity_); }

 private:
  std::string path_;
  InputFile::Identity identity_;
};

}  // namespace weights
