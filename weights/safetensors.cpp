#include "weights/safetensors.h"

#include <algorithm>
#include <cstring>
#include <unordered_set>
#include <utility>

#include "weights/error.h"
#include "weights/json_events.h"
#include "weights/json_text.h"
#include "weights/layout.h"

namespace weights {
namespace {

constexpr Dtype dtypes[] = {
    {"F64", 64},    {"F32", 32},    {"F16", 16},    {"BF16", 16},   {"I64", 64},    {"I32", 32}, {"I16", 16},
    {"I8", 8},      {"U64", 64},    {"U32", 32},    {"U16", 16},    {"U8", 8},      {"BOOL", 8}, {"C64", 64},
    {"F8_E5M2", 8}, {"F8_E4M3", 8}, {"F8_E8M0", 8}, {"F6_E2M3", 6}, {"F6_E3M2", 6}, {"F4", 4},
};
constexpr uint64_t length_bytes = 8;
constexpr uint64_t longest_header = 100'000'000;
constexpr char metadata_key[] = "__metadata__";

// ---- Reading the JSON ----------------------------------------------------------------------------------------------

// { name: {"dtype": string, "shape": [unsigned...], "data_offsets": [unsigned, unsigned]}..., "__metadata__": {string:
// string} }
class HeaderReader : public JsonEvents {
 public:
  HeaderReader(const std::string& path, SafetensorsHeader& header) : path_(path), header_(header) {}

  bool not_json(size_t position) override {
    throw Error(MORUN_WEIGHTS_HEADER_JSON, "%s: the header is not JSON at its byte %zu", path_.c_str(), position);
  }

  bool unexpected(const char* what) override {
    const bool is_metadata = level_ == JsonLevel::metadata || (level_ == JsonLevel::root && name_ == metadata_key);
    throw fail(is_metadata ? MORUN_WEIGHTS_HEADER_METADATA : MORUN_WEIGHTS_HEADER_ENTRY, what);
  }

  bool start_object(size_t) override {
    switch (level_) {
      case JsonLevel::outside:
        level_ = JsonLevel::root;
        return true;
      case JsonLevel::root:
        level_ = name_ == metadata_key ? JsonLevel::metadata : JsonLevel::entry;
        return true;
      default:
        return too_deep("an object");
    }
  }

  bool start_array(size_t) override {
    if (level_ == JsonLevel::root) return unexpected("an array");
    if (level_ != JsonLevel::entry) return too_deep("an array");
    if (list_ == nullptr) return unexpected("an array");
    level_ = JsonLevel::list;
    return true;
  }

  bool key(std::string& key) override {
    switch (level_) {
      case JsonLevel::root:
        begin_tensor(key);
        return true;
      case JsonLevel::metadata:
        name_ = key;
        if (!header_.metadata.emplace(key, std::string()).second) throw duplicate(key);
        return true;
      default:
        begin_member(key);
        return true;
    }
  }

  bool string(std::string& value) override {
    if (level_ == JsonLevel::metadata) {
      header_.metadata[name_] = std::move(value);
      return true;
    }
    if (level_ != JsonLevel::entry || !takes_dtype_) return unexpected("a string");
    TensorEntry& entry = header_.tensors.back();
    entry.dtype = dtype_by_name(value);
    if (entry.dtype == nullptr)
      throw Error(MORUN_WEIGHTS_UNKNOWN_DTYPE, "%s: tensor %s has dtype %s, which is none", path_.c_str(),
                  in_quotes(entry.name).c_str(), in_quotes(value).c_str());
    return true;
  }

  bool number_unsigned(uint64_t value) override {
    if (level_ != JsonLevel::list) return unexpected("a number");
    list_->push_back(value);
    return true;
  }

  bool end_array() override {
    level_ = JsonLevel::entry;
    return true;
  }

  bool end_object() override {
    if (level_ == JsonLevel::entry) end_tensor();
    level_ = level_ == JsonLevel::root ? JsonLevel::outside : JsonLevel::root;
    return true;
  }

 private:
  enum class JsonLevel { outside, root, metadata, entry, list };
  static constexpr unsigned dtype = 1, shape = 2, data_offsets = 4, all = 7;

  static unsigned member_by_name(const std::string& name) {
    return name == "dtype" ? dtype : name == "shape" ? shape : name == "data_offsets" ? data_offsets : 0;
  }

  Error fail(int32_t status, const char* what) const {
    return Error(status, "%s: %s in the entry of %s, where the format has none", path_.c_str(), what,
                 in_quotes(name_).c_str());
  }
  Error duplicate(const std::string& name) const {
    return Error(MORUN_WEIGHTS_DUPLICATE_NAME, "%s: two entries are named %s", path_.c_str(), in_quotes(name).c_str());
  }
  bool too_deep(const char* what) const { throw fail(MORUN_WEIGHTS_HEADER_DEPTH, what); }

  void begin_tensor(const std::string& name) {
    if (name.empty() || name.find('\0') != std::string::npos)
      throw Error(MORUN_WEIGHTS_HEADER_NAME, "%s: the name %s is empty or holds a NUL character", path_.c_str(),
                  in_quotes(name).c_str());
    if (!names_.insert(name).second) throw duplicate(name);
    name_ = name;
    members_ = 0;
    offsets_.clear();
    if (name == metadata_key) return;
    header_.tensors.emplace_back();
    header_.tensors.back().name = name;
  }

  void begin_member(const std::string& key) {
    const unsigned member = member_by_name(key);
    if (member == 0 || (members_ & member) != 0)
      throw Error(MORUN_WEIGHTS_HEADER_ENTRY, "%s: the entry of %s has a member %s%s", path_.c_str(),
                  in_quotes(name_).c_str(), in_quotes(key).c_str(), member == 0 ? ", which is none" : " twice");
    members_ |= member;
    takes_dtype_ = member == dtype;
    list_ = member == shape ? &header_.tensors.back().shape : member == data_offsets ? &offsets_ : nullptr;
  }

  void end_tensor() {
    if (members_ != all || offsets_.size() != 2)
      throw Error(MORUN_WEIGHTS_HEADER_ENTRY, "%s: the entry of %s lacks dtype, shape or two data_offsets",
                  path_.c_str(), in_quotes(name_).c_str());
    header_.tensors.back().begin = offsets_[0];
    header_.tensors.back().end = offsets_[1];
    takes_dtype_ = false;
    list_ = nullptr;
  }

  const std::string& path_;
  SafetensorsHeader& header_;
  std::unordered_set<std::string> names_;
  JsonLevel level_ = JsonLevel::outside;
  std::string name_;  // of the entry at hand
  unsigned members_ = 0;
  bool takes_dtype_ = false;
  std::vector<uint64_t>* list_ = nullptr;  // takes the numbers of the member at hand
  std::vector<uint64_t> offsets_;
};

// ---- Checking ------------------------------------------------------------------------------------------------------

uint64_t bytes_of(const std::string& path, const TensorEntry& tensor) {
  uint64_t n_bit = tensor.dtype->n_bit;
  bool fits = true;
  for (const uint64_t extent : tensor.shape) fits = fits && !__builtin_mul_overflow(n_bit, extent, &n_bit);
  if (!fits || n_bit % 8 != 0)
    throw Error(MORUN_WEIGHTS_SHAPE_OVERFLOW, "%s: tensor %s takes more than 2^61 bytes, or no whole bytes",
                path.c_str(), in_quotes(tensor.name).c_str());
  return n_bit / 8;
}

void check_tensor(const std::string& path, const TensorEntry& tensor, uint64_t n_data_byte) {
  const std::string name = in_quotes(tensor.name);
  const uintmax_t begin = tensor.begin, end = tensor.end;
  if (begin > end)
    throw Error(MORUN_WEIGHTS_RANGE_REVERSED, "%s: tensor %s begins at byte %ju and ends at byte %ju", path.c_str(),
                name.c_str(), begin, end);
  if (end > n_data_byte)
    throw Error(MORUN_WEIGHTS_RANGE_OUTSIDE, "%s: tensor %s ends at byte %ju of the data, which have %ju", path.c_str(),
                name.c_str(), end, uintmax_t{n_data_byte});
  const uintmax_t n_byte = bytes_of(path, tensor);
  if (n_byte != end - begin)
    throw Error(MORUN_WEIGHTS_SHAPE_MISMATCH, "%s: tensor %s has %ju bytes, and its shape takes %ju", path.c_str(),
                name.c_str(), end - begin, n_byte);
}

// Sorted by their bytes, tensors follow each other and cover the data.
void check_cover(const std::string& path, const std::vector<TensorEntry>& tensors, uint64_t n_data_byte) {
  uint64_t covered = 0;
  for (const TensorEntry& tensor : tensors) {
    const std::string name = in_quotes(tensor.name);
    if (tensor.begin < covered)
      throw Error(MORUN_WEIGHTS_RANGE_OVERLAP, "%s: tensor %s begins at byte %ju, inside another that ends at %ju",
                  path.c_str(), name.c_str(), uintmax_t{tensor.begin}, uintmax_t{covered});
    if (tensor.begin > covered)
      throw Error(MORUN_WEIGHTS_RANGE_GAP, "%s: bytes %ju to %ju, before tensor %s, belong to no tensor", path.c_str(),
                  uintmax_t{covered}, uintmax_t{tensor.begin}, name.c_str());
    covered = tensor.end;
  }
  if (covered < n_data_byte)
    throw Error(MORUN_WEIGHTS_TRAILING_DATA, "%s: bytes %ju to %ju, behind the last tensor, belong to no tensor",
                path.c_str(), uintmax_t{covered}, uintmax_t{n_data_byte});
}

}  // namespace

const Dtype* dtype_by_name(std::string_view name) {
  const auto* const found =
      std::find_if(std::begin(dtypes), std::end(dtypes), [name](const Dtype& dtype) { return dtype.name == name; });
  return found == std::end(dtypes) ? nullptr : found;
}

SafetensorsHeader parse_header(const std::string& path, std::string_view json, uint64_t n_data_byte) {
  if (json.empty() || json.front() != '{')
    throw Error(MORUN_WEIGHTS_HEADER_START, "%s: the header does not begin with '{'", path.c_str());
  SafetensorsHeader header;
  HeaderReader reader(path, header);
  read_json(json, reader);

  for (const TensorEntry& tensor : header.tensors) check_tensor(path, tensor, n_data_byte);
  std::stable_sort(header.tensors.begin(), header.tensors.end(), [](const TensorEntry& a, const TensorEntry& b) {
    return std::pair(a.begin, a.end) < std::pair(b.begin, b.end);
  });
  check_cover(path, header.tensors, n_data_byte);
  return header;
}

SafetensorsHeader read_header(const InputFile& file) {
  const char* const path = file.path().c_str();
  if (file.size() < length_bytes)
    throw Error(MORUN_WEIGHTS_TOO_SHORT, "%s: has %ju bytes, fewer than the 8 of the header's length", path,
                uintmax_t{file.size()});
  uint8_t bytes[length_bytes];
  file.read(0, sizeof bytes, bytes);
  uint64_t length = 0;
  for (size_t i = 0; i < length_bytes; ++i) length |= uint64_t{bytes[i]} << 8 * i;
  if (length > longest_header)
    throw Error(MORUN_WEIGHTS_HEADER_TOO_LONG, "%s: the header's length is %ju, above %ju", path, uintmax_t{length},
                uintmax_t{longest_header});
  if (length > file.size() - length_bytes)
    throw Error(MORUN_WEIGHTS_HEADER_CUT, "%s: the header's length is %ju, and %ju bytes follow", path,
                uintmax_t{length}, uintmax_t{file.size() - length_bytes});

  std::string json(length, ' ');
  file.read(length_bytes, length, json.data());
  SafetensorsHeader header = parse_header(file.path(), json, file.size() - length_bytes - length);
  header.data_begin = length_bytes + length;
  return header;
}

static std::string array_text(const std::vector<uint64_t>& numbers) {
  std::string text = "[";
  for (const uint64_t number : numbers) {
    if (text.size() > 1) text += ',';
    text += json_text(number);
  }
  return text + ']';
}

std::string format_header(const std::vector<TensorEntry>& tensors, const std::map<std::string, std::string>& metadata,
                          uint64_t least_size) {
  JsonObject json, texts;
  for (const auto& [name, text] : metadata) texts.add(name, text);
  json.add_json(metadata_key, texts.text());
  for (const TensorEntry& tensor : tensors) {
    JsonObject entry;
    entry.add("dtype", tensor.dtype->name);
    entry.add_json("shape", array_text(tensor.shape));
    entry.add_json("data_offsets", array_text({tensor.begin, tensor.end}));
    json.add_json(tensor.name, entry.text());
  }
  std::string text = std::string(length_bytes, '\0') + json.text();
  text.resize(std::max(round_up(text.size(), data_alignment), least_size), ' ');
  const uint64_t length = text.size() - length_bytes;
  if (length > longest_header)
    throw Error(MORUN_WEIGHTS_HEADER_TOO_LONG, "names and records of the tensors take %ju bytes, above %ju",
                uintmax_t{length}, uintmax_t{longest_header});
  for (size_t i = 0; i < length_bytes; ++i) text[i] = static_cast<char>(length >> 8 * i);
  return text;
}

}  // namespace weights
