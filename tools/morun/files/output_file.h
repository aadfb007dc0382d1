// Files that appear whole or not at all.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>

#include "tools/morun/files/descriptor.h"
#include "tools/morun/files/temporary_file.h"

namespace tool {

// A file to be written and then committed. Until then a file of that name is what it was, and without a commit it stays
// so. What is written gathers in a temporary file in the same folder; a symbolic link stays a link, and the file that the
// link leads to is replaced. A new file has the usual permissions, a replaced file keeps its own.
//
// Devices and pipes are written directly, and so is standard output, which "-" names: bytes that have been written to
// these stay there without a commit.
class OutputFile {
 public:
  // Throws an Error that names the file and the cause where the file cannot be written. A pipe waits here for its reader.
  explicit OutputFile(const std::filesystem::path& path);

  // Throws an Error where not all bytes can be written.
  void write(const void* bytes, size_t n_byte);

  // Called once, after the last write. Throws an Error, and the file is what it was.
  void commit();

  const std::filesystem::path& name() const { return name_; }  // as given

  // Where the bytes go: one path for each file, behind links. "-" is standard output.
  const std::filesystem::path& target() const { return target_; }

 private:
  void open_directly();
  void open_replacement();

  std::filesystem::path name_;
  std::filesystem::path target_;
  Descriptor direct_;
  std::unique_ptr<TemporaryFile> replacement_;
};

}  // namespace tool
