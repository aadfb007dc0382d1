// The events of nlohmann's parser with a refusal for each, for readers that take few of them. Texts with a NUL byte
// have to be refused before: the parser takes one for the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

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
  virtual bool parse_error(size_t position, const std::string&, const nlohmann::detail::exception&) = 0;

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

}  // namespace weights
