#include "weights/index.h"

#include <unordered_set>
#include <utility>

#include "weights/error.h"
#include "weights/input_file.h"
#include "weights/json_events.h"

namespace weights {
namespace {

constexpr uint64_t longest_index = 100'000'000;  // bytes
constexpr uint64_t deepest_value = 64;
constexpr char map_key[] = "weight_map";

// { "weight_map": {tensor: file...}, and members of any content }
class IndexReader : public JsonEvents {
 public:
  explicit IndexReader(const std::string& path) : path_(path) {}

  // Whether the index has a weight_map.
  bool has_map() const { return has_map_; }
  std::map<std::string, std::set<std::string>>& files() { return files_; }

  bool not_json(size_t position) override {
    throw Error(MORUN_WEIGHTS_INDEX, "%s: is not JSON at its byte %zu", path_.c_str(), position);
  }

  bool unexpected(const char* what) override {
    if (depth_ == 0 || is_map())
      throw Error(MORUN_WEIGHTS_INDEX, "%s: is no JSON object with an object weight_map", path_.c_str());
    if (is_in_map_)
      throw Error(MORUN_WEIGHTS_INDEX, "%s: tensor %s is in %s, which is no file", path_.c_str(),
                  in_quotes(tensor_).c_str(), what);
    return true;
  }

  bool start_object(size_t) override {
    if (is_in_map_) return unexpected("an object");
    is_in_map_ = is_map();
    return go_deeper();
  }
  bool end_object() override {
    is_in_map_ = false;
    --depth_;
    return true;
  }
  bool start_array(size_t) override { return unexpected("an array") && go_deeper(); }
  bool end_array() override {
    --depth_;
    return true;
  }

  bool key(std::string& key) override {
    if (is_in_map_) begin_tensor(key);
    if (depth_ == 1) member_ = key;
    if (is_map() && std::exchange(has_map_, true))
      throw Error(MORUN_WEIGHTS_INDEX, "%s: has two members %s", path_.c_str(), map_key);
    return true;
  }

  bool string(std::string& file) override {
    if (!is_in_map_) return unexpected("a string");
    if (file.empty() || file.find('/') != std::string::npos || file.find('\0') != std::string::npos || file == "." ||
        file == "..")
      throw Error(MORUN_WEIGHTS_INDEX, "%s: tensor %s is in file %s, which is none of the index's folder",
                  path_.c_str(), in_quotes(tensor_).c_str(), in_quotes(file).c_str());
    files_[file].insert(tensor_);
    return true;
  }

 private:
  // Whether the value at hand is that of weight_map.
  bool is_map() const { return depth_ == 1 && member_ == map_key; }

  bool go_deeper() {
    if (++depth_ <= deepest_value) return true;
    throw Error(MORUN_WEIGHTS_INDEX, "%s: nests values deeper than %ju levels", path_.c_str(),
                uintmax_t{deepest_value});
  }

  void begin_tensor(const std::string& name) {
    if (!tensors_.insert(name).second)
      throw Error(MORUN_WEIGHTS_INDEX, "%s: names tensor %s twice", path_.c_str(), in_quotes(name).c_str());
    tensor_ = name;
  }

  const std::string& path_;
  uint64_t depth_ = 0;  // of objects and arrays around the value at hand
  bool has_map_ = false, is_in_map_ = false;
  std::string member_, tensor_;
  std::unordered_set<std::string> tensors_;
  std::map<std::string, std::set<std::string>> files_;
};

}  // namespace

std::map<std::string, std::set<std::string>> tensors_by_file(const std::string& path) {
  const InputFile file(path);
  if (file.size() > longest_index)
    throw Error(MORUN_WEIGHTS_INDEX, "%s: has %ju bytes, more than %ju", path.c_str(), uintmax_t{file.size()},
                uintmax_t{longest_index});
  std::string text(file.size(), ' ');
  file.read(0, text.size(), text.data());
  IndexReader reader(path);
  read_json(text, reader);
  if (!reader.has_map()) throw Error(MORUN_WEIGHTS_INDEX, "%s: has no weight_map", path.c_str());
  return std::move(reader.files());
}

}  // namespace weights
