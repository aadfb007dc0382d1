// A file descriptor that closes itself.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace tool {

class Descriptor {
 public:
  explicit Descriptor(int number = -1) : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(number_, other.number_);
    return *this;
  }
  ~Descriptor() { close(); }

  int number() const { return number_; }
  bool is_open() const { return number_ >= 0; }
  // Returns false with errno when the system reports only at this point that something was not written.
  bool close() { return number_ < 0 || ::close(std::exchange(number_, -1)) == 0; }

 private:
  int number_;
};

// Tells whether the descriptor is open for writing.
inline bool is_writable(int number) {
  const int flags = fcntl(number, F_GETFL);
  return flags >= 0 && (flags & O_ACCMODE) != O_RDONLY;
}

}  // namespace tool
