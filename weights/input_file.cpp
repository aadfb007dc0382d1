#include "weights/input_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "weights/error.h"

namespace weights {

InputFile::InputFile(std::string path) : path_(std::move(path)) {
  // Opening a pipe would wait for its other end.
  descriptor_ = open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat state = {};
  if (descriptor_ >= 0 && fstat(descriptor_, &state) == 0 && S_ISREG(state.st_mode)) {
    size_ = static_cast<uint64_t>(state.st_size);
    identity_ = {state.st_dev, state.st_ino};
    return;
  }
  const char* const reason = descriptor_ >= 0 && state.st_mode != 0 ? "is no regular file" : strerror(errno);
  const Error error(MORUN_WEIGHTS_OPEN, "%s: %s", path_.c_str(), reason);
  if (descriptor_ >= 0) close(descriptor_);
  throw error;
}

InputFile::~InputFile() {
  if (descriptor_ >= 0) close(descriptor_);
}

InputFile::InputFile(const std::string& path, Identity expected) : InputFile(path) {
  if (identity_ != expected)
    throw Error(MORUN_WEIGHTS_READ, "%s: is another file than the one whose header was read", path.c_str());
}

void InputFile::read(uint64_t offset, uint64_t n_byte, void* bytes) const {
  constexpr uint64_t most_at_once = uint64_t{1} << 30;
  auto* to = static_cast<char*>(bytes);
  while (n_byte > 0) {
    const ssize_t n_read = pread(descriptor_, to, std::min(n_byte, most_at_once), static_cast<off_t>(offset));
    if (n_read < 0 && errno == EINTR) continue;
    if (n_read < 0) throw Error(MORUN_WEIGHTS_READ, "%s: %s", path_.c_str(), strerror(errno));
    if (n_read == 0)
      throw Error(MORUN_WEIGHTS_SHRUNK, "%s: has become shorter and ends before byte %ju", path_.c_str(),
                  uintmax_t{offset} + n_byte);
    to += n_read;
    offset += static_cast<uint64_t>(n_read);
    n_byte -= static_cast<uint64_t>(n_read);
  }
}

}  // namespace weights
