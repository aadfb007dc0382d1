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
    if (is_due()) fmt::print(stderr, "\r\x1b[K{} of {} {}", n_done, n, things);
  }
  void show(std::string_view line) {
    if (is_due()) fmt::print(stderr, "\r\x1b[K{}", line);
  }
  void clear() {
    if (is_seen_) fmt::print(stderr, "\r\x1b[K");
    next_ = {};
  }

 private:
  bool is_due() {
    const auto now = std::chrono::steady_clock::now();
    if (!is_seen_ || now < next_) return false;
    next_ = now + std::chrono::milliseconds(100);
    return true;
  }

  bool is_seen_;
  std::chrono::steady_clock::time_point next_;
};

}  // namespace tool
