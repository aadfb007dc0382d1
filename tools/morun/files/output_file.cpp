#include "tools/morun/files/output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

#include "tools/morun/error.h"
#include "weights/output_target.h"

namespace tool {
namespace {

namespace fs = std::filesystem;

Error cannot_write(const fs::path& path, int error) {
  return Error("{}: cannot be written: {}", path == "-" ? "standard output" : path.native(), std::strerror(error));
}

mode_t usual_permissions() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

}  // namespace

OutputFile::OutputFile(const fs::path& path) : name_(path), target_(path) {
  struct stat status = {};
  const bool exists = stat(path.c_str(), &status) == 0;
  if (!exists && (errno != ENOENT || !path.has_filename())) throw cannot_write(name_, errno);
  if (path == "-" || (exists && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode))) {
    open_directly();
    return;
  }
  if (exists && S_ISDIR(status.st_mode)) throw Error("{}: cannot be written: it is a directory", name_.native());
  open_replacement();
}

void OutputFile::open_directly() {
  const bool to_standard_output = name_ == "-";
  if (to_standard_output && !is_writable(STDOUT_FILENO)) throw cannot_write(name_, EBADF);
  direct_ = Descriptor(to_standard_output ? fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1)
                                          : open(name_.c_str(), O_WRONLY | O_CLOEXEC | O_NOCTTY));
  if (!direct_.is_open()) throw cannot_write(name_, errno);
}

void OutputFile::open_replacement() {
  output::Target target;
  try {
    target = output::target_of(name_);
    replacement_ = std::make_unique<TemporaryFile>(target.path.parent_path());
  } catch (const std::system_error& error) {
    throw cannot_write(name_, error.code().value());
  }
  target_ = target.path;
  const mode_t permissions = target.permissions.value_or(usual_permissions());
  if (fchmod(replacement_->descriptor(), permissions) != 0) throw cannot_write(name_, errno);
}

void OutputFile::write(const void* bytes, size_t n_byte) {
  const int descriptor = replacement_ ? replacement_->descriptor() : direct_.number();
  const auto* next = static_cast<const std::byte*>(bytes);
  while (n_byte > 0) {
    const ssize_t n_written = ::write(descriptor, next, n_byte);
    if (n_written < 0 && errno != EINTR) throw cannot_write(name_, errno);
    if (n_written < 0) continue;
    next += n_written;
    n_byte -= static_cast<size_t>(n_written);
  }
}

void OutputFile::commit() {
  if (!replacement_) {
    if (!direct_.close()) throw cannot_write(name_, errno);
    return;
  }
  try {
    replacement_->rename_to(target_);
  } catch (const std::system_error& error) {
    throw cannot_write(name_, error.code().value());
  }
}

}  // namespace tool
