#include "platform/emulator/client/profile.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "platform/emulator/client/fault.h"
#include "remote/methods.h"

namespace parlo::client {
namespace {

using Json = nlohmann::json;

constexpr size_t file_size_max = 1 << 16;

struct Invalid : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// The fields of one object, which are taken one by one. A field that is not there leaves the value as it is.
class Fields {
 public:
  Fields(const Json& object, std::string path) : object_(object), path_(std::move(path)) {
    if (!object.is_object()) throw Invalid((path_.empty() ? "the profile" : path_) + " is no object");
  }

  const Json* find(const char* name) {
    known_.insert(name);
    const auto found = object_.find(name);
    return found == object_.end() ? nullptr : &*found;
  }
  std::string path(const char* name) const { return path_.empty() ? name : path_ + "." + name; }
  [[noreturn]] void refuse(const char* name, const std::string& why) const { throw Invalid(path(name) + " " + why); }

  template <class Number>
  void take_number(const char* name, Number& number, uint64_t least, uint64_t most) {
    const Json* const value = find(name);
    if (!value) return;
    if (!value->is_number_unsigned() || value->get<uint64_t>() < least || value->get<uint64_t>() > most)
      refuse(name, "is no whole number from " + std::to_string(least) + " to " + std::to_string(most));
    number = static_cast<Number>(value->get<uint64_t>());
  }
  void take_positive(const char* name, double& number) {
    const Json* const value = find(name);
    if (!value) refuse(name, "is missing");
    if (!value->is_number() || !(value->get<double>() > 0 && value->get<double>() < 1e30))
      refuse(name, "is no number above 0");
    number = value->get<double>();
  }
  void take_flag(const char* name, bool& flag) {
    const Json* const value = find(name);
    if (!value) return;
    if (!value->is_boolean()) refuse(name, "is neither true nor false");
    flag = value->get<bool>();
  }
  // Returns false where there is no such field.
  bool take_text(const char* name, std::string& text, size_t length_max) {
    const Json* const value = find(name);
    if (!value) return false;
    if (!value->is_string() || value->get_ref<const std::string&>().size() > length_max)
      refuse(name, "is no text of up to " + std::to_string(length_max) + " bytes");
    text = value->get<std::string>();
    if (std::any_of(text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }))
      refuse(name, "has characters that are no printable ASCII");
    return true;
  }
  // Takes the object `name` by use(its fields).
  template <class Use>
  void take_object(const char* name, Use use) {
    const Json* const value = find(name);
    if (!value) return;
    Fields fields(*value, path(name));
    use(fields);
    fields.finish();
  }
  // Refuses fields that nobody has taken.
  void finish() const {
    for (const auto& item : object_.items())
      if (!known_.contains(item.key())) throw Invalid(path(item.key().c_str()) + " is unknown");
  }

 private:
  const Json& object_;
  const std::string path_;
  std::set<std::string> known_;
};

// Two decimal digits, which the platform's capability holds as two digits of four bits.
void take_architecture(Fields& fields, uint32_t& capability) {
  uint32_t version = 0;
  fields.take_number("architecture", version, 1, 99);
  if (version != 0) capability = version / 10 << 4 | version % 10;
}

void take_limits(Fields& fields, parlo_emulator_config& config) {
  fields.take_number("session_bytes", config.session_bytes, 1, INT64_MAX);
  fields.take_number("allocation_bytes", config.allocation_bytes, 0, UINT64_MAX);
  fields.take_number("sessions", config.n_sessions, 1, 1000);
  fields.take_number("lowest_descriptor", config.lowest_descriptor, 0, 1 << 20);
}

void take_module(Fields& fields, parlo_emulator_config& config) {
  std::string text;
  if (fields.take_text("version", text, 32)) {
    char end;
    if (text.find_first_not_of("0123456789.") != text.npos ||
        std::sscanf(text.c_str(), "%9u.%9u.%9u%c", &config.module_major, &config.module_minor, &config.module_patch,
                    &end) != 3)
      fields.refuse("version", "is not of the form 1.2.3");
  }
  if (fields.take_text("label", text, sizeof config.module_label - 1)) {
    std::memset(config.module_label, 0, sizeof config.module_label);
    std::copy(text.begin(), text.end(), config.module_label);
  }
  fields.take_number("architecture", config.module_architecture, 1, 99);
}

void take_capabilities(Fields& fields, Profile& profile) {
  constexpr std::pair<const char*, parlo_attribute> names[] = {
      {"unsigned_pd_support", PARLO_ATTRIBUTE_UNSIGNED_PD_SUPPORT},
      {"ondra_support_64b", PARLO_ATTRIBUTE_ONDRA_SUPPORT_64B},
      {"ondra_support_128b", PARLO_ATTRIBUTE_ONDRA_SUPPORT_128B},
      {"vtcm_page", PARLO_ATTRIBUTE_VTCM_PAGE},
      {"vtcm_count", PARLO_ATTRIBUTE_VTCM_COUNT},
      {"tessel_support_spatial", PARLO_ATTRIBUTE_TESSEL_SUPPORT_SPATIAL},
      {"tessel_support_depth", PARLO_ATTRIBUTE_TESSEL_SUPPORT_DEPTH},
      {"asynchronous_calls", PARLO_ATTRIBUTE_ASYNCHRONOUS_CALLS},
      {"status_notification", PARLO_ATTRIBUTE_STATUS_NOTIFICATION}};
  for (const auto& [name, attribute] : names) fields.take_number(name, profile.capabilities[attribute], 0, UINT32_MAX);
}

void take_optional_entries(Fields& fields, Profile& profile) {
  constexpr char name[] = "optional_entries";
  const Json* const list = fields.find(name);
  if (!list) return;
  if (!list->is_array()) fields.refuse(name, "is no list");
  profile.has_handle_control = profile.has_system_request = profile.has_debug_log = false;
  for (const Json& entry : *list) {
    if (entry == "parlo_handle_control")
      profile.has_handle_control = true;
    else if (entry == "parlo_system_request")
      profile.has_system_request = true;
    else if (entry == "platform_debug_log")
      profile.has_debug_log = true;
    else
      fields.refuse(name, "holds " + entry.dump(-1, ' ', true, Json::error_handler_t::replace) +
                              "; it takes parlo_handle_control, parlo_system_request and platform_debug_log");
  }
}

// Returns the place of the text among the names.
template <class Names>
int32_t take_name(Fields& fields, const char* field, const char* what, int32_t otherwise, const Names& names) {
  std::string text;
  if (!fields.take_text(field, text, 64)) return otherwise;
  const auto found = std::find(std::begin(names), std::end(names), text);
  if (found == std::end(names)) fields.refuse(field, "is \"" + text + "\", which is no " + what);
  return static_cast<int32_t>(found - std::begin(names));
}

void take_fault(Fields& fields, Profile& profile) {
  constexpr std::string_view classes[] = {"once", "from_then_on", "truncated", "die",
                                          "hang", "late",         "status",    "flipped_bits"};
  static_assert(std::size(classes) == PARLO_EMULATOR_FAULT_FLIPPED_BITS + 1);
  std::vector<std::string_view> operations, methods;
  for (int32_t i = 0; i < PARLO_EMULATOR_N_OPERATIONS; ++i) operations.push_back(parlo_emulator_operation_name(i));
  for (const tavik::remote::Method& method : tavik::remote::methods) methods.push_back(method.name);
  parlo_emulator_fault fault = {};
  if (!fields.find("class")) fields.refuse("class", "is missing");
  fault.fault_class = take_name(fields, "class", "class of faults", 0, classes);
  fault.operation = take_name(fields, "operation", "operation", PARLO_EMULATOR_ANY_OPERATION, operations);
  fault.method = take_name(fields, "method", "method", -1, methods);
  fields.take_number("nth", fault.nth, 1, UINT32_MAX);
  const bool takes_nothing = fault.fault_class == PARLO_EMULATOR_FAULT_TRUNCATED_REPLY ||
                             fault.fault_class == PARLO_EMULATOR_FAULT_SESSION_LOST ||
                             fault.fault_class == PARLO_EMULATOR_FAULT_HANG;
  if (!takes_nothing && !fields.find("status")) fields.refuse("status", "is missing");
  fields.take_number("status", fault.status, takes_nothing ? 0 : 1, INT32_MAX);
  fields.take_number("errno", fault.error_number, 0, 4095);
  if (!Fault::can_strike(fault)) throw Invalid("fault strikes no call of that operation and method");
  profile.fault = fault;
}

void take_board(Fields& fields, Profile& profile) {
  double microseconds = 0;
  fields.take_positive("call_microseconds", microseconds);
  profile.call_seconds = microseconds * 1e-6;
  fields.take_positive("bytes_per_second", profile.bytes_per_second);
}

void take_profile(Fields& fields, Profile& profile) {
  fields.take_text("name", profile.name, 64);
  fields.take_object("limits", [&](Fields& limits) { take_limits(limits, profile.config); });
  take_architecture(fields, profile.config.architecture);
  fields.take_object("module", [&](Fields& module) { take_module(module, profile.config); });
  bool shares_unit = false;
  fields.take_flag("shared_matrix_unit", shares_unit);
  profile.config.shared_matrix_unit = shares_unit;
  fields.take_flag("strict", profile.is_strict);
  take_optional_entries(fields, profile);
  fields.take_object("capabilities", [&](Fields& capabilities) { take_capabilities(capabilities, profile); });
  fields.take_object("board_estimate", [&](Fields& board) { take_board(board, profile); });
  fields.take_object("fault", [&](Fields& fault) { take_fault(fault, profile); });
  fields.finish();
}

// Parses the text. The library would take the last of several fields with one name.
Json parse(const std::string& text) {
  std::vector<std::set<std::string>> names;  // of the objects that are open, and of those in between
  return Json::parse(text, [&names](int depth, Json::parse_event_t event, const Json& parsed) {
    const auto level = static_cast<size_t>(depth);
    if (event == Json::parse_event_t::object_start) {
      names.resize(level + 1);
      names[level].clear();
    }
    if (event == Json::parse_event_t::key && !names[level - 1].insert(parsed.get<std::string>()).second)
      throw Invalid("the field " + parsed.get<std::string>() + " stands there twice");
    return true;
  });
}

// A name out of the file may hold anything.
std::string printable(std::string text) {
  constexpr size_t length_max = 300;
  if (text.size() > length_max) text.replace(length_max, text.npos, "...");
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
  return text;
}

}  // namespace

std::string parse_profile(const std::string& text, Profile& profile) {
  Profile parsed;
  try {
    const Json json = parse(text);
    Fields fields(json, "");
    take_profile(fields, parsed);
  } catch (const Json::exception& error) {
    return error.what();
  } catch (const Invalid& error) {
    return error.what();
  }
  profile = std::move(parsed);
  return "";
}

bool choose_profile(Profile& profile) noexcept try {
  const char* const path = secure_getenv("PARLO_PROFILE");
  profile = Profile();
  if (!path || *path == '\0') return true;
  std::ifstream file(path, std::ios::binary);
  std::string text(file_size_max + 1, '\0'), wrong;
  if (!file)
    wrong = std::strerror(errno);
  else if (file.read(text.data(), static_cast<std::streamsize>(text.size())))
    wrong = "the file has more than " + std::to_string(file_size_max) + " bytes";
  else if (file.bad() || !file.eof())
    wrong = "the file cannot be read";
  text.resize(static_cast<size_t>(file.gcount()));
  if (wrong.empty()) wrong = parse_profile(text, profile);
  if (!wrong.empty()) std::fprintf(stderr, "[parlo] PARLO_PROFILE=%s: %s\n", path, printable(wrong).c_str());
  return wrong.empty();
} catch (const std::exception& error) {
  std::fprintf(stderr, "[parlo] PARLO_PROFILE: %s\n", error.what());
  return false;
}

}  // namespace parlo::client
