#include "tools/morun/output_file.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <system_error>

#include "tools/morun/error.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

Error cannot_write(const fs::path& path) {
  return Error("{}: cannot be written: {}", path.native(), std::strerror(errno));
}

class RemovedAtEnd {
 public:
  explicit RemovedAtEnd(const fs::path& path) : path_(path) {}
  ~RemovedAtEnd() {
    std::error_code ignored;
    if (!path_.empty()) fs::remove(path_, ignored);
  }
  RemovedAtEnd(const RemovedAtEnd&) = delete;
  RemovedAtEnd& operator=(const RemovedAtEnd&) = delete;

 private:
  fs::path path_;
};

}  // namespace

OutputFile::OutputFile(const fs::path& path) : path_(path), part_(path) {
  std::error_code error;
  if (fs::is_symlink(path, error)) path_ = part_ = fs::weakly_canonical(path, error);
  const bool exists = fs::exists(path_, error);
  if (fs::is_directory(path_, error)) throw Error("{}: cannot be written: it is a directory", path.native());
  if (exists && access(path_.c_str(), W_OK) != 0) throw cannot_write(path);
  if (exists && !fs::is_regular_file(path_, error)) return;

  part_ += fmt::format(".{}.part", getpid());
  const RemovedAtEnd trial(part_);
  if (!std::ofstream(part_, std::ios::binary)) throw cannot_write(path);
}

void OutputFile::write(const std::function<void(std::ostream&)>& write_to) const {
  const RemovedAtEnd part(is_replaced() ? part_ : fs::path());
  std::ofstream stream(part_, std::ios::binary);
  if (stream) write_to(stream);
  stream.close();
  if (!stream) throw cannot_write(path_);
  if (is_replaced() && std::rename(part_.c_str(), path_.c_str()) != 0) throw cannot_write(path_);
}

}  // namespace tool
