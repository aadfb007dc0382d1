#include "tools/morun/operand_check.h"

#include <fmt/format.h>

#include <cmath>
#include <limits>

namespace tool {
namespace {

// Halfway between the largest half and the value that the next half would have.
constexpr float f16_limit = 65520;

}  // namespace

OperandCheck::OperandCheck(const NpyFile& file, bool becomes_f16)
    : file_(file), limit_(becomes_f16 ? f16_limit : std::numeric_limits<float>::infinity()) {}

void OperandCheck::add(const float* values, size_t n_value) {
  for (size_t i = 0; i < n_value; ++i) {
    n_not_a_number_ += std::isnan(values[i]) ? 1 : 0;
    n_infinite_ += std::abs(values[i]) >= limit_ ? 1 : 0;
  }
}

std::string OperandCheck::warnings() const {
  const std::string start = fmt::format("morun: warning: {}: ", file_.path().native());
  const size_t n_value = file_.n_row() * file_.n_col();
  std::string lines;
  if (file_.type() == NpyType::f64) lines += start + "its values are f64 and are rounded to f32\n";
  if (n_not_a_number_ > 0) lines += start + fmt::format("{} of {} values are NaN\n", n_not_a_number_, n_value);
  if (n_infinite_ > 0) {
    lines +=
        start + fmt::format("{} of {} values are {}\n", n_infinite_, n_value,
                            limit_ == f16_limit ? "beyond the range of f16, which ends at 65504, and become infinite"
                                                : "infinite");
  }
  return lines;
}

}  // namespace tool
