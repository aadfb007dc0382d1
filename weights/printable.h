// Text out of a file as it may stand in one line. Shared by the library for weight files and the tool.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace printable {

// The bytes at `at` that make up a control character of ASCII or of UTF-8; 0 where a letter stands there.
inline size_t control_size(std::string_view text, size_t at) {
  const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
  if (byte(at) < ' ' || byte(at) == 0x7f) return 1;
  return byte(at) == 0xc2 && byte(at + 1) >= 0x80 && byte(at + 1) < 0xa0 ? 2 : 0;
}

// Control characters, which could end the line or change the terminal, are written as \x1b.
inline std::string escaped(std::string_view text) {
  constexpr char digits[] = "0123456789abcdef";
  std::string safe;
  for (size_t at = 0, n_control = 0; at < text.size(); ++at) {
    if (n_control == 0) n_control = control_size(text, at);
    if (n_control == 0) {
      safe += text[at];
      continue;
    }
    --n_control;
    const auto byte = static_cast<unsigned char>(text[at]);
    safe += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
  }
  return safe;
}

}  // namespace printable
