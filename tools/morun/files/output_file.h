// Files that appear whole or not at all.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>

#include "tools/morun/files/descriptor.h"
#include "tools/morun/files/temporary_file.h"

namespace tool {

// A file that is written and then committed. Before the commit, and without one, an existing file of that name stays as
// it was. The bytes go to a temporary file in the same folder. When the name is a symbolic link, the link stays and the
// file behind it is replaced. A new file has the usual permissions; a replaced file keeps its own.
//
// Devices, pipes and standard output, which "-" names, are written directly. Bytes written to them stay there even
// without a commit.
class OutputFile {
 public:
  // Throws an Error that names the file and the cause when the file cannot be written. For a pipe, the constructor
  // waits for a reader.
  explicit OutputFile(const std::filesystem::path& path);

  // Throws an Error when not all bytes can be written.
  void write(const void* bytes, size_t n_byte);

  // Must be called once, after the last write. Throws an Error when it fails; an existing file is then as it was.
  void commit();

  const std::filesystem::path& name() const { return name_; }  // as given

  // The path that the bytes go to, behind all links: one path for each file. "-" is standard output.
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
