#include "weights/record.h"

#include <cstdio>
#include <map>
#include <utility>

#include "weights/error.h"
#include "weights/json_events.h"
#include "weights/json_text.h"
#include "weights/layout.h"

namespace weights {
namespace {

constexpr char checksum_prefix[] = "xxh3:";

using Members = std::map<std::string, nlohmann::json>;

class RecordReader : public JsonEvents {
 public:
  explicit RecordReader(const std::string& place) : place_(place) {}

  const Members& members() const { return members_; }

  bool not_json(size_t position) override {
    throw Error(MORUN_WEIGHTS_RECORD_JSON, "%s: the record is not JSON at its byte %zu", place_.c_str(), position);
  }
  bool unexpected(const char* what) override {
    throw Error(MORUN_WEIGHTS_RECORD_JSON, "%s: the record is no flat object, but holds %s", place_.c_str(), what);
  }
  bool start_object(size_t) override {
    if (std::exchange(is_inside_, true)) return unexpected("an object");
    return true;
  }
  bool end_object() override { return true; }
  bool key(std::string& key) override {
    const auto [entry, is_new] = members_.emplace(key, nullptr);
    if (!is_new)
      throw Error(MORUN_WEIGHTS_RECORD_JSON, "%s: the record has two members %s", place_.c_str(),
                  in_quotes(key).c_str());
    value_ = &entry->second;
    return true;
  }
  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(int64_t value) override { return put(value); }
  bool number_unsigned(uint64_t value) override { return put(value); }
  bool number_float(double value, const std::string&) override { return put(value); }
  bool string(std::string& value) override { return put(std::move(value)); }

 private:
  bool put(nlohmann::json value) {
    if (value_ == nullptr) return unexpected("no members");
    *value_ = std::move(value);
    return true;
  }

  const std::string& place_;
  bool is_inside_ = false;
  Members members_;
  nlohmann::json* value_ = nullptr;
};

// Takes members out of a record, by their types.
class MemberReader {
 public:
  MemberReader(const std::string& place, const Members& members) : place_(place), members_(members) {}

  bool has(const char* name) const { return members_.contains(name); }

  std::string text(const char* name) const {
    const nlohmann::json& value = member(name, "a string");
    if (!value.is_string()) throw wrong(name, "a string");
    auto text = value.get<std::string>();
    if (text.find('\0') != std::string::npos) throw wrong(name, "a string without NUL characters");
    return text;
  }
  uint64_t count(const char* name) const {
    const nlohmann::json& value = member(name, "an unsigned integer");
    if (!value.is_number_unsigned()) throw wrong(name, "an unsigned integer");
    return value.get<uint64_t>();
  }
  double ratio(const char* name) const {
    const nlohmann::json& value = member(name, "a number");
    if (!value.is_number() || value.get<double>() < 0) throw wrong(name, "a number of 0 or more");
    return value.get<double>();
  }

 private:
  const nlohmann::json& member(const char* name, const char* what) const {
    const auto found = members_.find(name);
    if (found == members_.end())
      throw Error(MORUN_WEIGHTS_RECORD_MEMBER, "%s: the record lacks %s, %s", place_.c_str(), name, what);
    return found->second;
  }
  Error wrong(const char* name, const char* what) const {
    return Error(MORUN_WEIGHTS_RECORD_MEMBER, "%s: the record's %s is not %s", place_.c_str(), name, what);
  }

  const std::string& place_;
  const Members& members_;
};

std::string format_checksum(uint64_t checksum) {
  char text[32];
  snprintf(text, sizeof text, "%s%016jx", checksum_prefix, uintmax_t{checksum});
  return text;
}

uint64_t parse_checksum(const std::string& place, const std::string& text) {
  const size_t prefix = sizeof checksum_prefix - 1;
  if (text.size() != prefix + 16 || !text.starts_with(checksum_prefix) ||
      text.find_first_not_of("0123456789abcdef", prefix) != std::string::npos)
    throw Error(MORUN_WEIGHTS_CHECKSUM_TEXT, "%s: the checksum %s is not %s and 16 hexadecimal digits", place.c_str(),
                in_quotes(text).c_str(), checksum_prefix);
  return std::stoull(text.substr(prefix), nullptr, 16);
}

}  // namespace

std::string format_record(const Record& record) {
  JsonObject json;
  json.add("form", form_name(record.form));
  if (is_packed(record.form)) {
    json.add("n_inner", record.n_inner);
    json.add("n_col", record.n_col);
  }
  if (is_quantised(record.form)) {
    json.add("zero_points", record.zero_points);
    json.add("scales", record.scales);
    json.add("sums", record.sums);
    json.add("quantiser", quantiser_name(record.quantiser));
  }
  json.add("source", record.source);
  json.add("source_dtype", record.source_dtype);
  if (is_packed(record.form)) json.add("error", record.error);
  if (is_packed(record.form) && record.product_error >= 0) json.add("product_error", record.product_error);
  json.add("checksum", format_checksum(record.checksum));
  return json.text();
}

Record parse_record(const std::string& place, std::string_view text) {
  RecordReader reader(place);
  read_json(text, reader);
  const MemberReader members(place, reader.members());

  Record record;
  const std::string form = members.text("form");
  record.form = form_by_name(form);
  if (record.form < 0)
    throw Error(MORUN_WEIGHTS_UNKNOWN_FORM, "%s: the form %s is none", place.c_str(), in_quotes(form).c_str());
  record.source = members.text("source");
  record.source_dtype = members.text("source_dtype");
  record.checksum = parse_checksum(place, members.text("checksum"));
  if (is_packed(record.form)) {
    record.n_inner = members.count("n_inner");
    record.n_col = members.count("n_col");
    record.error = members.ratio("error");
    if (members.has("product_error")) record.product_error = members.ratio("product_error");
  }
  if (is_quantised(record.form)) {
    record.zero_points = members.count("zero_points");
    record.scales = members.count("scales");
    record.sums = members.count("sums");
    const std::string quantiser = members.text("quantiser");
    record.quantiser = quantiser_by_name(quantiser);
    if (record.quantiser < 0)
      throw Error(MORUN_WEIGHTS_UNKNOWN_QUANTISER, "%s: the quantiser %s is none", place.c_str(),
                  in_quotes(quantiser).c_str());
  }
  return record;
}

}  // namespace weights
