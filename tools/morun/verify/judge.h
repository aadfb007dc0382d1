// Compares results with expected values. Remembers the first failure, and the element that uses the largest share of
// its bound.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <string>

#include "tools/morun/verify/expected.h"

namespace tool {

class Judge {
 public:
  // `name_place` returns the name of the element for the failure's text.
  template <typename NamePlace>
  void judge(const Expected& expected, double result, const NamePlace& name_place) {
    if (!is_within_bound(expected, result)) {
      fail(fmt::format("{} is {:.9g} instead of {:.9g}", name_place(), result, expected.value));
    }
  }

  void fail(const std::string& what) {
    if (n_failure_++ == 0) first_failure_ = what;
  }

  // A kernel that computes nothing would pass where all expected values are zero or within their own bounds.
  void require_telling_values() {
    if (2 * n_telling_ < n_element_) fail("what is expected is mostly zero");
  }

  bool has_elements() const { return n_element_ > 0; }
  double deviation() const { return deviation_; }
  double bound() const { return bound_; }
  // Returns an empty string when nothing failed.
  std::string failure() const;

 private:
  bool is_within_bound(const Expected& expected, double result);

  size_t n_element_ = 0;
  size_t n_telling_ = 0;
  size_t n_failure_ = 0;
  std::string first_failure_;
  double worst_share_ = 0;
  double deviation_ = 0;
  double bound_ = 0;
};

}  // namespace tool
