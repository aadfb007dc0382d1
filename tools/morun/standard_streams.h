// Standard output and standard error: keeping them open, and redirecting one to the other.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include "tools/morun/files/descriptor.h"

namespace tool {

// While the object lives, everything that the program prints to standard output goes to standard error. The tool uses
// the object when a library prints failures to standard output, and when standard output is reserved for the bytes of a
// file.
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

// A program may be started without some standard streams. This function opens descriptors in their places that refuse
// reading and writing, so that no file opened later takes these places.
inline void occupy_standard_streams() {
  while (true) {
    const int descriptor = open("/", O_PATH);
    if (descriptor > STDERR_FILENO) close(descriptor);
    if (descriptor < 0 || descriptor > STDERR_FILENO) return;
  }
}

}  // namespace tool
