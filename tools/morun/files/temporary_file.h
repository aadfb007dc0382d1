// Files that exist only while they are written, and that are removed when the program is interrupted.
#pragma once

#include <array>
#include <csignal>
#include <cstddef>
#include <filesystem>

#include "tools/morun/files/descriptor.h"

namespace tool {

// The signals by which users, terminals and other programs end a command.
inline constexpr std::array interruptions = {SIGHUP, SIGINT, SIGPIPE, SIGQUIT, SIGTERM};

// Installs handlers by which these signals remove all temporary files before they end the program as usual. A signal
// that was ignored when the program started stays ignored. A main function calls this once; a library does not.
void remove_temporary_files_on_interruption();

// A new file under an unpredictable name, open for writing, with permissions for its owner alone. The destructor
// removes the file. At most 16 such files exist at a time.
class TemporaryFile {
 public:
  // Creates the file in `folder`. Throws a std::system_error whose code gives the reason when that fails.
  explicit TemporaryFile(const std::filesystem::path& folder);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int descriptor() const { return descriptor_.number(); }

  // Closes the file and gives it the name `target`, replacing an existing file in one step. Both names must be in one
  // file system. On failure, it throws a std::system_error and the file is still temporary.
  void rename_to(const std::filesystem::path& target);

 private:
  size_t entry_;  // index in the table that the signal handler reads
  Descriptor descriptor_;
};

}  // namespace tool
