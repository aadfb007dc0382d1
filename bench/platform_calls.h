// Where the time of a call goes: this program's own parlo_* stand before the platform's and take the time that passes in
// them. What remains is the library's.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

// Seconds of one call.
struct Split {
  double staging;        // the library's, until the product's remote call
  double platform;       // in the platform
  double bringing_back;  // the library's, from then on
  size_t n_platform_calls;

  double library() const { return staging + bringing_back; }
  double whole() const { return library() + platform; }
};

Split split(const std::function<void()>& call);

}  // namespace bench
