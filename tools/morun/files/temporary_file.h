// Files that exist while they are written, and that nobody finds left over when the program is interrupted.
#pragma once

#include <cstddef>
#include <filesystem>

#include "tools/morun/files/descriptor.h"

namespace tool {

// Makes SIGHUP, SIGINT, SIGPIPE and SIGTERM remove all temporary files before they end the program as they always do. A
// signal that the program was started to ignore stays ignored. A main function calls this once; a library does not.
void remove_temporary_files_on_interruption();

// A new file under a name that nobody can foresee, open for writing, with permissions for its owner alone. Its destructor
// removes the file. At most 16 exist at a time.
class TemporaryFile {
 public:
  // Creates the file in `folder`. Throws a std::system_error whose code tells why that failed.
  explicit TemporaryFile(const std::filesystem::path& folder);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  int descriptor() const { return descriptor_.number(); }

  // Closes the file and gives it the name `target`, replacing a file of that name in one step. Both are in one file
  // system. Throws a std::system_error, and the file is still temporary.
  void rename_to(const std::filesystem::path& target);

 private:
  size_t entry_;  // in the table that interruptions read
  Descriptor descriptor_;
};

}  // namespace tool
