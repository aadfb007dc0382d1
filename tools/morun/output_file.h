// Files that appear whole or not at all.
#pragma once

#include <filesystem>
#include <functional>
#include <ostream>

namespace tool {

// A file to be written later, which an Error refuses at once where that will not be possible.
class OutputFile {
 public:
  explicit OutputFile(const std::filesystem::path& path);

  // Calls `write_to` with a stream; the file is replaced when everything has been written, else an Error is thrown and
  // the file is what it was. Devices and pipes are written directly.
  void write(const std::function<void(std::ostream&)>& write_to) const;

 private:
  bool is_replaced() const { return part_ != path_; }

  std::filesystem::path path_;
  std::filesystem::path part_;  // what is written, and then renamed to path_
};

}  // namespace tool
