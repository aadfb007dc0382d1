// The events of nlohmann's parser with a refusal for each, for readers that take few of them. A reader never holds the
// whole document, however deep its values are nested.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace weights {

struct JsonEvents {
  using number_integer_t = int64_t;
  using number_unsigned_t = uint64_t;
  using number_float_t = double;
  using string_t = std::string;
  using binary_t = nlohmann::json::binary_t;

  virtual ~JsonEvents() = default;
  // A value that the reader has no use for.
  virtual bool unexpected(const char* what) = 0;
  // The text is not JSON at this byte, counted from 1.
  virtual bool not_json(size_t position) = 0;

  bool parse_error(size_t position, const std::string&, const nlohmann::detail::exception&) {
    return not_json(position);
  }
  virtual bool null() { return unexpected("null"); }
  virtual bool boolean(bool) { return unexpected("a boolean"); }
  virtual bool number_integer(int64_t) { return unexpected("a negative number"); }
  virtual bool number_unsigned(uint64_t) { return unexpected("a number"); }
  virtual bool number_float(double, const std::string&) { return unexpected("a number that is no 64-bit integer"); }
  virtual bool string(std::string&) { return unexpected("a string"); }
  virtual bool binary(binary_t&) { return unexpected("binary data"); }
  virtual bool start_object(size_t) { return unexpected("an object"); }
  virtual bool key(std::string&) = 0;
  virtual bool end_object() = 0;
  virtual bool start_array(size_t) { return unexpected("an array"); }
  virtual bool end_array() { return true; }
};

// The parser takes a NUL byte for the end of the text, and ignores what follows.
template <typename Reader>
void read_json(std::string_view text, Reader& reader) {
  if (const size_t nul = text.find('\0'); nul != std::string_view::npos) reader.not_json(nul + 1);
  nlohmann::json::sax_parse(text, &reader);
}

}  // namespace weights
