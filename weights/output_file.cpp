#include "weights/output_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "weights/error.h"
#include "weights/output_target.h"

namespace weights {
namespace {

Error cannot_write(const std::string& path, int error) {
  return Error(MORUN_WEIGHTS_WRITE, "%s: cannot be written: %s", path.c_str(), strerror(error));
}

output::Target target_of(const std::string& path) {
  try {
    return output::target_of(path);
  } catch (const std::system_error& error) {
    throw cannot_write(path, error.code().value());
  }
}

std::string folder_of(const std::string& path) {
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  return folder.empty() ? "." : folder.string();
}

// Tries names in the folder of `path` until `create` succeeds with one, or fails for another reason than that the name
// is taken. The value is that of `create`, below 0 for a failure.
template <typename Create>
int with_unused_name(const std::string& path, std::string& name, const Create& create) {
  constexpr int n_attempt = 1000;
  int result = -1;
  for (int i = 0; i < n_attempt; ++i) {
    const std::string attempt = folder_of(path) + "/.morun." + std::to_string(getpid()) + "." + std::to_string(i);
    result = create(attempt.c_str());
    if (result >= 0) name = attempt;
    if (result >= 0 || errno != EEXIST) break;
  }
  return result;
}

}  // namespace

OutputFile::OutputFile(const std::string& path) {
  const output::Target target = target_of(path);
  path_ = target.path;
  constexpr mode_t permissions = 0666;  // without those that the process masks
  descriptor_ = open(folder_of(path_).c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, permissions);
  if (descriptor_ < 0 && (errno == EOPNOTSUPP || errno == EISDIR || errno == EINVAL))
    descriptor_ = with_unused_name(path_, other_name_, [](const char* name) {
      return open(name, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC | O_NOFOLLOW, permissions);
    });
  if (descriptor_ < 0) throw cannot_write(path, errno);
  if (target.permissions) fchmod(descriptor_, *target.permissions);
}

OutputFile::~OutputFile() {
  if (!other_name_.empty()) unlink(other_name_.c_str());
  if (descriptor_ >= 0) close(descriptor_);
}

void OutputFile::write(uint64_t offset, uint64_t n_byte, const void* bytes) const {
  constexpr uint64_t most_at_once = uint64_t{1} << 30;
  const auto* from = static_cast<const char*>(bytes);
  while (n_byte > 0) {
    const ssize_t n_written = pwrite(descriptor_, from, std::min(n_byte, most_at_once), static_cast<off_t>(offset));
    if (n_written < 0 && errno == EINTR) continue;
    if (n_written < 0) throw cannot_write(path_, errno);
    from += n_written;
    offset += static_cast<uint64_t>(n_written);
    n_byte -= static_cast<uint64_t>(n_written);
  }
}

// A file without a name gets one in one step where the name is free. Where it is taken the file is first given another
// name, since only renaming replaces a file.
void OutputFile::commit() {
  const std::string nameless = "/proc/self/fd/" + std::to_string(descriptor_);
  const auto link_to = [&](const char* name) {
    return linkat(AT_FDCWD, nameless.c_str(), AT_FDCWD, name, AT_SYMLINK_FOLLOW);
  };
  if (other_name_.empty()) {
    if (link_to(path_.c_str()) == 0) return;
    if (errno != EEXIST || with_unused_name(path_, other_name_, link_to) < 0) throw cannot_write(path_, errno);
  }
  if (rename(other_name_.c_str(), path_.c_str()) != 0) throw cannot_write(path_, errno);
  other_name_.clear();
}

}  // namespace weights
