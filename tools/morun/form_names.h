// The names of forms and quantisers of packed matrices, on the command line and in reports.
#pragma once

#include <morun_weights.h>

#include <array>
#include <string>
#include <string_view>

#include "tools/morun/error.h"

namespace tool {

constexpr std::array<std::string_view, 4> form_names = {"carried", "f16", "a8w8", "a8w4"};
constexpr std::array<std::string_view, 4> quantiser_names = {"minmax", "mse", "calibrated", "library"};

template <size_t count>
int32_t number_of(const std::array<std::string_view, count>& names, std::string_view name) {
  for (size_t i = 0; i < count; ++i) {
    if (names[i] == name) return static_cast<int32_t>(i);
  }
  throw Error("{} is none of {}", name, fmt::join(names, ", "));
}

// What the library stores for an infinite error is the largest number.
inline std::string error_text(double error) {
  return error > 1e300 ? "infinite" : fmt::format("{:.3g}", error);
}

inline bool is_quantised(int32_t form) {
  return form == MORUN_WEIGHTS_A8W8 || form == MORUN_WEIGHTS_A8W4;
}

}  // namespace tool
