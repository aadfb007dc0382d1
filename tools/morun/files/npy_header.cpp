#include "tools/morun/files/npy_header.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <system_error>

#include "tools/morun/error.h"

namespace tool {
namespace {

constexpr size_t n_extent_max = 32;
constexpr size_t n_type_max = 16;

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text), n_byte_(text.size()) {}

  NpyHeader header() {
    expect('{');
    while (!accept('}')) {
      read_entry();
      if (accept(',')) continue;
      expect('}');
      break;
    }
    skip_space();
    if (!rest_.empty()) throw Error("something stands behind its dictionary");
    if (!has_type_ || !has_order_ || !has_shape_) throw Error("descr, fortran_order or shape is missing");
    return header_;
  }

 private:
  void skip_space() {
    constexpr std::string_view spaces = " \t\r\n";
    rest_.remove_prefix(std::min(rest_.find_first_not_of(spaces), rest_.size()));
  }

  bool accept(std::string_view token) {
    skip_space();
    if (!rest_.starts_with(token)) return false;
    rest_.remove_prefix(token.size());
    return true;
  }
  bool accept(char character) { return accept(std::string_view(&character, 1)); }

  void expect(char character) {
    if (!accept(character))
      throw Error("{} is missing at byte {} of its dictionary", character, n_byte_ - rest_.size());
  }

  void read_entry() {
    const std::string_view key = quoted();
    expect(':');
    if (key == "descr") {
      first_time(has_type_);
      header_.type = type();
    } else if (key == "fortran_order") {
      first_time(has_order_);
      header_.fortran_order = boolean();
    } else if (key == "shape") {
      first_time(has_shape_);
      header_.shape = shape();
    } else {
      throw Error("its dictionary has an unknown key");
    }
  }

  static void first_time(bool& is_read) {
    if (is_read) throw Error("its dictionary has a key twice");
    is_read = true;
  }

  std::string_view quoted() {
    const char quote = accept('"') ? '"' : '\'';
    if (quote == '\'') expect(quote);
    const size_t end = rest_.find(quote);
    if (end == rest_.npos) throw Error("a quotation mark is not closed");
    const std::string_view content = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return content;
  }

  std::string type() {
    if (accept('[') || accept('(')) throw Error("its values are records or arrays");
    const std::string_view name = quoted();
    const auto is_printable = [](char c) { return c >= ' ' && c <= '~'; };
    if (name.size() > n_type_max || !std::ranges::all_of(name, is_printable)) throw Error("descr names no type");
    return std::string(name);
  }

  bool boolean() {
    const bool is_true = accept("True");
    if (!is_true && !accept("False")) throw Error("fortran_order is neither True nor False");
    return is_true;
  }

  std::vector<uint64_t> shape() {
    std::vector<uint64_t> extents;
    expect('(');
    while (!accept(')')) {
      if (extents.size() == n_extent_max) throw Error("its shape has more than {} extents", n_extent_max);
      extents.push_back(extent());
      if (accept(',')) continue;
      expect(')');
      break;
    }
    return extents;
  }

  // A number may end in L, which Python 2 wrote behind large numbers.
  uint64_t extent() {
    if (accept('-')) throw Error("an extent of its shape is negative");
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error == std::errc::result_out_of_range) throw Error("an extent of its shape has more than 64 bits");
    if (error != std::errc()) throw Error("an extent of its shape is no number");
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    accept('L');
    return value;
  }

  std::string_view rest_;
  size_t n_byte_;
  NpyHeader header_;
  bool has_type_ = false, has_order_ = false, has_shape_ = false;
};

}  // namespace

NpyHeader parse_npy_header(std::string_view text) {
  return Parser(text).header();
}

std::string npy_header(std::string_view type, size_t n_row, size_t n_col) {
  constexpr size_t n_prefix = 10, alignment = 64;
  std::string text = fmt::format("{{'descr': '{}', 'fortran_order': False, 'shape': ({}, {}), }}", type, n_row, n_col);
  text.append(alignment - (n_prefix + text.size() + 1) % alignment, ' ');
  text += '\n';
  const std::array<char, 4> version_and_length = {1, 0, static_cast<char>(text.size() & 255),
                                                  static_cast<char>(text.size() >> 8)};
  return "\x93NUMPY" + std::string(version_and_length.begin(), version_and_length.end()) + text;
}

}  // namespace tool
