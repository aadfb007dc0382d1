// Splits the time of a call between library and platform. This program defines parlo_* functions of its own, which the
// loader finds before the platform's. They call the platform and add up the time that passes there. The rest of the
// call's time is the library's.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

// Seconds of one call.
struct Split {
  double staging;        // in the library, before the product's remote call
  double platform;       // in the platform
  double bringing_back;  // in the library, after that call
  size_t n_platform_calls;

  double library() const { return staging + bringing_back; }
  double whole() const { return library() + platform; }
};

Split split(const std::function<void()>& call);

}  // namespace bench
