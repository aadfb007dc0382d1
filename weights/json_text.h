// JSON as text. A document of nlohmann::json asks for memory when it is destroyed, and ends the process where there is none;
// its texts and numbers by themselves do not.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace weights {

// Of a text or a number.
template <typename Scalar>
std::string json_text(const Scalar& value) {
  return nlohmann::json(value).dump();
}

class JsonObject {
 public:
  // Appends a member whose value is JSON already.
  void add_json(const std::string& name, const std::string& value) {
    text_ += text_.empty() ? '{' : ',';
    text_ += json_text(name);
    text_ += ':';
    text_ += value;
  }
  template <typename Scalar>
  void add(const std::string& name, const Scalar& value) {
    add_json(name, json_text(value));
  }
  // Must be called with at least one member.
  std::string text() const { return text_ + '}'; }

 private:
  std::string text_;
};

}  // namespace weights
