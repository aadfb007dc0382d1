// The exceptions by which the tool reports every failure.
#pragma once

#include <fmt/format.h>

#include <stdexcept>
#include <utility>

namespace tool {

// The text is one line for the user. The command line prints "morun: " before it.
class Error : public std::runtime_error {
 public:
  template <typename... Arguments>
  explicit Error(fmt::format_string<Arguments...> format, Arguments&&... arguments)
      : std::runtime_error(fmt::format(format, std::forward<Arguments>(arguments)...)) {}
};

// The command line is wrong, which only the command itself could tell.
class Misuse : public Error {
  using Error::Error;
};

}  // namespace tool
