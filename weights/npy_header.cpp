#include "weights/npy_header.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <stdexcept>
#include <system_error>

namespace npy {
namespace {

constexpr size_t n_extent_max = 32;
constexpr size_t n_type_max = 16;

using refusal = std::runtime_error;

class Parser {
 public:
  explicit Parser(std::string_view text) : rest_(text), n_byte_(text.size()) {}

  Header header() {
    expect('{');
    while (!accept('}')) {
      read_entry();
      if (accept(',')) continue;
      expect('}');
      break;
    }
    skip_space();
    if (!rest_.empty()) throw refusal("something stands behind its dictionary");
    if (!has_type_ || !has_order_ || !has_shape_) throw refusal("descr, fortran_order or shape is missing");
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
      throw refusal(std::string("'") + character + "' is missing at byte " + std::to_string(n_byte_ - rest_.size()) +
                    " of its dictionary");
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
      throw refusal("its dictionary has an unknown key");
    }
  }

  static void first_time(bool& is_read) {
    if (is_read) throw refusal("its dictionary has a key twice");
    is_read = true;
  }

  std::string_view quoted() {
    const char quote = accept('"') ? '"' : '\'';
    if (quote == '\'') expect(quote);
    const size_t end = rest_.find(quote);
    if (end == std::string_view::npos) throw refusal("a quotation mark is not closed");
    const std::string_view content = rest_.substr(0, end);
    rest_.remove_prefix(end + 1);
    return content;
  }

  std::string type() {
    if (accept('[') || accept('(')) throw refusal("its values are records or arrays");
    const std::string_view name = quoted();
    const auto is_printable = [](char c) { return c >= ' ' && c <= '~'; };
    if (name.size() > n_type_max || !std::ranges::all_of(name, is_printable)) throw refusal("descr names no type");
    return std::string(name);
  }

  bool boolean() {
    const bool is_true = accept("True");
    if (!is_true && !accept("False")) throw refusal("fortran_order is neither True nor False");
    return is_true;
  }

  std::vector<uint64_t> shape() {
    std::vector<uint64_t> extents;
    expect('(');
    while (!accept(')')) {
      if (extents.size() == n_extent_max)
        throw refusal("its shape has more than " + std::to_string(n_extent_max) + " extents");
      extents.push_back(extent());
      if (accept(',')) continue;
      expect(')');
      break;
    }
    return extents;
  }

  // A number may end in L, which Python 2 wrote behind large numbers.
  uint64_t extent() {
    if (accept('-')) throw refusal("an extent of its shape is negative");
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value);
    if (error == std::errc::result_out_of_range) throw refusal("an extent of its shape has more than 64 bits");
    if (error != std::errc()) throw refusal("an extent of its shape is no number");
    rest_.remove_prefix(static_cast<size_t>(end - rest_.data()));
    accept('L');
    return value;
  }

  std::string_view rest_;
  size_t n_byte_;
  Header header_;
  bool has_type_ = false, has_order_ = false, has_shape_ = false;
};

}  // namespace

Header parse_header(std::string_view text) {
  return Parser(text).header();
}

LocatedHeader read_header(const ByteReader& read) {
  constexpr std::string_view magic = "\x93NUMPY";
  constexpr size_t n_before_length = 8, longest = 65536;
  std::array<char, n_before_length> start;
  read(0, start.size(), start.data());
  if (std::string_view(start.data(), magic.size()) != magic) throw refusal("the file does not start as one");
  const unsigned major = static_cast<unsigned char>(start[6]);
  if (major < 1 || major > 3) throw refusal("its format version " + std::to_string(major) + " is not 1, 2 or 3");

  std::array<unsigned char, 4> length_bytes = {};
  const size_t n_length_byte = major == 1 ? 2 : 4;
  read(n_before_length, n_length_byte, length_bytes.data());
  size_t length = 0;
  for (size_t i = 0; i < n_length_byte; ++i) length |= size_t{length_bytes[i]} << (8 * i);
  if (length > longest)
    throw refusal("its header has " + std::to_string(length) + " bytes, more than " + std::to_string(longest));

  std::string text(length, ' ');
  read(n_before_length + n_length_byte, length, text.data());
  return {parse_header(text), n_before_length + n_length_byte + length};
}

std::string format_header(std::string_view type, size_t n_row, size_t n_col) {
  constexpr size_t n_prefix = 10, alignment = 64;
  std::string text = "{'descr': '" + std::string(type) + "', 'fortran_order': False, 'shape': (" +
                     std::to_string(n_row) + ", " + std::to_string(n_col) + "), }";
  text.append(alignment - (n_prefix + text.size() + 1) % alignment, ' ');
  text += '\n';
  const std::array<char, 4> version_and_length = {1, 0, static_cast<char>(text.size() & 255),
                                                  static_cast<char>(text.size() >> 8)};
  return "\x93NUMPY" + std::string(version_and_length.begin(), version_and_length.end()) + text;
}

}  // namespace npy
