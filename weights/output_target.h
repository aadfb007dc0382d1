// What a new file takes the place of. Shared by the library for weight files and the tool.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <system_error>

namespace output {

struct Target {
  std::filesystem::path path;         // behind all symbolic links, in its canonical folder: one path for each file
  std::optional<mode_t> permissions;  // of the file that is there
};

// Neither the file nor what the last link leads to need exist.
inline std::filesystem::path behind_links(std::filesystem::path path) {
  constexpr int longest_chain = 40;
  std::error_code error;
  for (int i = 0; i < longest_chain && std::filesystem::is_symlink(path, error); ++i) {
    path = path.parent_path() / std::filesystem::read_symlink(path, error);
  }
  const auto folder = std::filesystem::canonical(path.has_parent_path() ? path.parent_path() : ".", error);
  return error ? path : folder / path.filename();
}

// A symbolic link stays, and the file that it leads to is replaced and keeps its permissions. Throws a std::system_error
// where a folder, a device or a file that may not be written is there, or where the path names no file.
inline Target target_of(const std::filesystem::path& name) {
  const auto refuse = [](int error) { throw std::system_error(error, std::generic_category()); };
  Target target = {behind_links(name), std::nullopt};
  if (!target.path.has_filename()) refuse(name.empty() ? ENOENT : EISDIR);
  struct stat state = {};
  if (stat(target.path.c_str(), &state) != 0) {
    if (errno != ENOENT) refuse(errno);
    return target;
  }
  if (!S_ISREG(state.st_mode)) refuse(S_ISDIR(state.st_mode) ? EISDIR : EINVAL);
  if (access(target.path.c_str(), W_OK) != 0) refuse(errno);
  target.permissions = state.st_mode & 0777;
  return target;
}

}  // namespace output
