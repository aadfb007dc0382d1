// Standard output and standard error, taken care of.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "tools/morun/files/descriptor.h"

namespace tool {

// What the program prints to standard output goes to standard error meanwhile: where a library explains its failures there,
// or where standard output is to have a file's bytes alone.
class StandardOutputAside {
 public:
  StandardOutputAside() : saved_(move(STDOUT_FILENO)) { dup2(STDERR_FILENO, STDOUT_FILENO); }
  ~StandardOutputAside() {
    std::fflush(stdout);
    dup2(saved_.number(), STDOUT_FILENO);
  }
  StandardOutputAside(const StandardOutputAside&) = delete;
  StandardOutputAside& operator=(const StandardOutputAside&) = delete;

 private:
  static Descriptor move(int number) {
    std::fflush(stdout);
    return Descriptor(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
  }

  Descriptor saved_;
};

// Standard streams that the program was started without get a descriptor that refuses reading and writing, so that no file
// opened later takes their place.
inline void occupy_standard_streams() {
  while (true) {
    const int descriptor = open("/", O_PATH);
    if (descriptor > STDERR_FILENO) close(descriptor);
    if (descriptor < 0 || descriptor > STDERR_FILENO) return;
  }
}

}  // namespace tool
