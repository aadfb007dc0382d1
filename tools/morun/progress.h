// One line on the terminal, which is overwritten and finally removed. Prints nothing when standard error is no
// terminal.
#pragma once

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace tool {

class Progress {
 public:
  Progress() : is_seen_(isatty(STDERR_FILENO) != 0) {}
  ~Progress() { clear(); }
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // Updates the line at most ten times a second.
  void show(size_t n_done, size_t n, std::string_view things) {
    if (!is_seen_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now < next_) return;
    next_ = now + std::chrono::milliseconds(100);
    fmt::print(stderr, "\r\x1b[K{} of {} {}", n_done, n, things);
  }
  void clear() {
    if (is_seen_) fmt::print(stderr, "\r\x1b[K");
    next_ = {};
  }

 private:
  bool is_seen_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tool
