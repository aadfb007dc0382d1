#include "tools/morun/verify/judge.h"

#include <cmath>

namespace tool {
namespace {

double deviation_of(double expected, double result) {
  if (std::isfinite(expected) && std::isfinite(result)) return std::abs(result - expected);
  const bool is_same = result == expected || (std::isnan(result) && std::isnan(expected));
  return is_same ? 0 : INFINITY;
}

}  // namespace

bool Judge::is_within_bound(const Expected& expected, double result) {
  if (std::abs(expected.value) > expected.bound) ++n_telling_;
  const double deviation = deviation_of(expected.value, result);
  const double share = deviation == 0 ? 0 : deviation / expected.bound;
  if (n_element_++ == 0 || share > worst_share_) {
    worst_share_ = share;
    deviation_ = deviation;
    bound_ = expected.bound;
  }
  return deviation <= expected.bound;
}

std::string Judge::failure() const {
  if (n_failure_ <= 1) return first_failure_;
  return fmt::format("{} (and {} more)", first_failure_, n_failure_ - 1);
}

}  // namespace tool
