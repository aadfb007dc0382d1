// A file that appears whole or not at all.
#pragma once

#include <cstdint>
#include <string>

namespace weights {

class OutputFile {
 public:
  // Creates a file without a name in the folder of `path`, or under another name where the file system has none such.
  // Throws WRITE.
  explicit OutputFile(const std::string& path);
  // Removes the file unless it was committed.
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  // Throws WRITE.
  void write(uint64_t offset, uint64_t n_byte, const void* bytes) const;

  // Gives the file its name, replacing what was there. Throws WRITE.
  void commit();

 private:
  std::string path_;        // behind all links
  std::string other_name_;  // empty while the file has no name
  int descriptor_ = -1;
};

}  // namespace weights
