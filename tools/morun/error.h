// The one kind of failure that the tool reports.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace tool {

// Its text is one line for the user; the command line puts "morun: " in front.
class Error : public std::runtime_error {
 public:
  template <typename... Arguments>
  explicit Error(fmt::format_string<Arguments...> format, Arguments&&... arguments)
      : std::runtime_error(fmt::format(format, std::forward<Arguments>(arguments)...)) {}
};

}  // namespace tool
