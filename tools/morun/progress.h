// One line on the terminal that is written over, and gone at the end; nothing where standard error is no terminal.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace tool {

class Progress {
 public:
  explicit Progress(bool wanted) : shown_(wanted && isatty(STDERR_FILENO) != 0) {}
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  void show(size_t n_done, size_t n, const char* things) const {
    if (shown_) fmt::print(stderr, "\r\x1b[K{} of {} {}", n_done, n, things);
  }
  void clear() const {
    if (shown_) fmt::print(stderr, "\r\x1b[K");
  }

 private:
  bool shown_;
};

}  // namespace tool
