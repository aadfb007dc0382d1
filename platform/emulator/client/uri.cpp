#include "platform/emulator/client/uri.h"

#include <charconv>

#include "platform/emulator/parlo_emulator.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

constexpr std::string_view scheme = "file:///";
constexpr std::string_view module_entry = "libtavik_skel.so?tavik_skel_handle_invoke";
constexpr std::string_view version_option = "_modver=", version = "1.0";
constexpr std::string_view domain_option = "_dom=", domain = "cdsp";
constexpr std::string_view session_option = "_session=";

// Removes the text up to the next "&" from the front of `rest` and returns it.
std::string_view next_option(std::string_view& rest) {
  const size_t end = rest.find('&');
  const std::string_view option = rest.substr(0, end);
  rest = end == rest.npos ? std::string_view() : rest.substr(end + 1);
  return option;
}

bool take_prefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

bool parse_number(std::string_view text, uint32_t& number) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  return error == std::errc() && end == text.data() + text.size();
}

}  // namespace

std::string session_uri(std::string_view module_uri, uint32_t session_id) {
  std::string uri(module_uri);
  uri.append("&").append(domain_option).append(domain);
  if (session_id != 0) uri.append("&").append(session_option).append(std::to_string(session_id));
  return uri;
}

int32_t parse_uri(std::string_view uri, uint32_t& session_id) {
  session_id = 0;
  if (!take_prefix(uri, scheme)) return PARLO_EMULATOR_BAD_URI;
  if (next_option(uri) != module_entry) return PARLO_EMULATOR_NO_SUCH_MODULE;
  bool has_version = false, has_domain = false;
  while (!uri.empty()) {
    std::string_view option = next_option(uri);
    if (take_prefix(option, version_option)) {
      if (option != version) return PARLO_EMULATOR_NO_SUCH_MODULE;
      has_version = true;
    } else if (take_prefix(option, domain_option)) {
      if (option != domain) return PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
      has_domain = true;
    } else if (!take_prefix(option, session_option) || !parse_number(option, session_id)) {
      return PARLO_EMULATOR_BAD_URI;
    }
  }
  return has_version && has_domain ? KESO_SUCCESS : PARLO_EMULATOR_BAD_URI;
}

}  // namespace parlo::client
