// From checkpoints to packed files: what is packed, every byte of the file, every refusal, and that a failure leaves
// nothing. Files are written and read here by the format's definition.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "include/morun_weights.h"
#include "tests/packed_matrix.h"

namespace {

namespace fs = std::filesystem;
using Json = nlohmann::json;

template <typename Value>
std::string bytes_of(const std::vector<Value>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Value)};
}

struct Tensor {
  std::string name, dtype;
  std::vector<uint64_t> shape;
  std::string bytes;
};

// Not aligned to anything, as some writers leave it.
std::string safetensors(const std::vector<Tensor>& tensors, const Json& metadata = {}) {
  Json header = Json::object();
  std::string data;
  for (const Tensor& tensor : tensors) {
    header[tensor.name] = {{"dtype", tensor.dtype},
                           {"shape", tensor.shape},
                           {"data_offsets", {data.size(), data.size() + tensor.bytes.size()}}};
    data += tensor.bytes;
  }
  if (!metadata.is_null()) header["__metadata__"] = metadata;
  const std::string json = header.dump();
  std::string file(8, '\0');
  for (size_t i = 0; i < 4; ++i) file[i] = static_cast<char>(json.size() >> 8 * i);
  return file + json + data;
}

std::string npy(const std::string& descr, bool fortran, const std::string& shape, const std::string& bytes) {
  std::string header =
      "{'descr': '" + descr + "', 'fortran_order': " + (fortran ? "True" : "False") + ", 'shape': " + shape + ", }\n";
  const auto size = static_cast<char>(header.size());
  return std::string("\x93NUMPY\x01\0", 8) + size + '\0' + header + bytes;
}

// Values that halves and bfloats hold, from -2 to 2.
std::vector<float> some_values(size_t n, unsigned seed) {
  std::vector<float> values(n);
  for (float& value : values) {
    seed = seed * 1664525u + 1013904223u;
    value = static_cast<float>(static_cast<int>(seed >> 20) % 129 - 64) / 32;
  }
  return values;
}

std::string encoded(const std::string& dtype, const std::vector<float>& values) {
  std::string bytes;
  for (const float value : values) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    if (dtype == "F64") bytes += bytes_of<double>({double{value}});
    if (dtype == "F32") bytes += bytes_of<float>({value});
    if (dtype == "F16") bytes += bytes_of<uint16_t>({morun::simd::narrow_bits(value)});
    if (dtype == "BF16") bytes += bytes_of<uint16_t>({static_cast<uint16_t>(bits >> 16)});
  }
  return bytes;
}

class Packer {
 public:
  explicit Packer(const std::function<void(morun_weights_pack_options&)>& change = {}) {
    morun_weights_pack_options options;
    morun_weights_pack_options_init(&options);
    if (change) change(options);
    EXPECT_EQ(morun_weights_packer_create(&options, &handle), 0) << morun_weights_error_text();
  }
  ~Packer() { morun_weights_packer_free(handle); }
  Packer(const Packer&) = delete;
  Packer& operator=(const Packer&) = delete;

  Packer& source(const std::string& path) {
    EXPECT_EQ(morun_weights_packer_add_source(handle, path.c_str()), 0) << morun_weights_error_text();
    return *this;
  }
  Packer& rule(const char* pattern, int32_t form) {
    EXPECT_EQ(morun_weights_packer_add_rule(handle, pattern, form), 0) << morun_weights_error_text();
    return *this;
  }
  int32_t run(const std::string& path) { return morun_weights_packer_run(handle, path.c_str()); }
  std::vector<morun_weights_decision> decisions() const {
    uint64_t count = 0;
    EXPECT_EQ(morun_weights_packer_count(handle, &count), 0);
    std::vector<morun_weights_decision> all(count);
    for (uint64_t i = 0; i < count; ++i) EXPECT_EQ(morun_weights_packer_decision(handle, i, &all[i]), 0);
    return all;
  }

  morun_weights_packer* handle = nullptr;
};

class WeightsPack : public testing::Test {
 protected:
  WeightsPack() : folder_(fs::path(testing::TempDir()) / ("weights_pack_test." + std::to_string(getpid()))) {
    fs::create_directories(folder_);
  }
  ~WeightsPack() override { fs::remove_all(folder_); }

  std::string path(const std::string& name) const { return folder_ / name; }
  std::string write(const std::string& name, const std::string& bytes) const {
    fs::create_directories(fs::path(path(name)).parent_path());
    std::ofstream(path(name), std::ios::binary) << bytes;
    return path(name);
  }
  std::string read(const std::string& name) const {
    std::ifstream stream(path(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
  }
  std::set<std::string> names() const {
    std::set<std::string> all;
    for (const auto& entry : fs::recursive_directory_iterator(folder_)) all.insert(entry.path());
    return all;
  }

  const fs::path folder_;
};

// ---- The file ------------------------------------------------------------------------------------------------------

struct PackedFile {
  explicit PackedFile(const std::string& file) : bytes(file) {
    uint64_t size = 0;
    std::memcpy(&size, file.data(), sizeof size);
    data = 8 + size;
    header = Json::parse(file.substr(8, size));
    metadata = header["__metadata__"];
    header.erase("__metadata__");
  }
  std::string tensor(const std::string& name) const {
    const uint64_t begin = header.at(name)["data_offsets"][0], end = header.at(name)["data_offsets"][1];
    return bytes.substr(data + begin, end - begin);
  }
  Json record(const std::string& name) const {
    return Json::parse(metadata.at("morun.tensor." + name).get<std::string>());
  }
  test::PackedMatrix matrix(const std::string& name) const {
    const std::string content = tensor(name);
    const std::string form = record(name)["form"];
    test::PackedMatrix packed = {form == "f16"    ? MORUN_WEIGHTS_F16
                                 : form == "a8w8" ? MORUN_WEIGHTS_A8W8
                                                  : MORUN_WEIGHTS_A8W4,
                                 {},
                                 {content.begin(), content.end()}};
    EXPECT_EQ(morun_weights_layout_of(packed.form, record(name)["n_inner"], record(name)["n_col"], &packed.layout), 0);
    return packed;
  }

  std::string bytes;
  uint64_t data;
  Json header, metadata;
};

TEST_F(WeightsPack, ACheckpointOfTwoShardsBecomesOneFileByTheDefinition) {
  const std::vector<float> q = some_values(70 * 45, 1), k = some_values(33 * 45, 2), up = some_values(40 * 64, 3),
                           head = some_values(5 * 3, 4), norm = some_values(45, 5);
  write("model/a.safetensors", safetensors({{"odd", "U8", {3}, "abc"},
                                            {"q.weight", "BF16", {70, 45}, encoded("BF16", q)},
                                            {"k.weight", "F32", {33, 45}, encoded("F32", k)},
                                            {"norm.weight", "F32", {45}, encoded("F32", norm)},
                                            {"unlisted.weight", "F32", {1, 1}, "1234"}},
                                           {{"format", "pt"}, {"morun.tensor.ghost", "{}"}}));
  write("model/b.safetensors", safetensors({{"up.weight", "F16", {40, 64}, encoded("F16", up)},
                                            {"lm_head.weight", "F64", {5, 3}, encoded("F64", head)},
                                            {"steps", "I64", {2}, std::string(16, '\7')},
                                            {"embed.weight", "F16", {2, 2}, "12345678"},
                                            {"nothing.weight", "F32", {0, 4}, ""}}));
  Json map;
  for (const char* const name : {"odd", "q.weight", "k.weight", "norm.weight"}) map[name] = "a.safetensors";
  for (const char* const name : {"up.weight", "lm_head.weight", "steps", "embed.weight", "nothing.weight"})
    map[name] = "b.safetensors";
  write("model/model.safetensors.index.json", Json{{"metadata", {{"deep", {{1, {2}}}}}}, {"weight_map", map}}.dump());

  std::string first;
  for (const uint32_t n_job : {1u, 3u}) {
    for (const char* const source : {"model", "model/model.safetensors.index.json"}) {
      Packer packer([&](auto& o) { o.n_job = n_job; });
      packer.source(path(source)).rule("*.weight", MORUN_WEIGHTS_A8W4).rule("[kq].weight", MORUN_WEIGHTS_A8W8);
      packer.rule("lm_*", MORUN_WEIGHTS_F16).rule("embed*", MORUN_WEIGHTS_CARRIED);
      ASSERT_EQ(packer.run(path("packed")), 0) << morun_weights_error_text();
      if (first.empty()) first = read("packed");
      EXPECT_TRUE(first == read("packed")) << n_job << " jobs, " << source;
      EXPECT_EQ(packer.run(path("packed")), MORUN_WEIGHTS_BAD_ARGUMENT);
    }
  }
  const PackedFile file(first);
  EXPECT_EQ(file.data % 4096, 0u);
  EXPECT_EQ(file.bytes[8], '{');
  EXPECT_EQ(file.metadata["morun.format"], "1");
  EXPECT_EQ(file.metadata["format"], "pt");
  EXPECT_EQ(file.metadata.size(), 2 + file.header.size()) << "no record of a tensor that is not there";

  struct Expected {
    const char* name;
    const char* form;
    const char* dtype;  // of the source
    const std::vector<float>* values;
    uint64_t n_col, n_inner;
    std::string bytes;  // carried
  };
  const Expected expected[] = {{"q.weight", "a8w8", "BF16", &q, 70, 45, ""},
                               {"k.weight", "a8w8", "F32", &k, 33, 45, ""},
                               {"up.weight", "a8w4", "F16", &up, 40, 64, ""},
                               {"lm_head.weight", "f16", "F64", &head, 5, 3, ""},
                               {"odd", "carried", "U8", nullptr, 0, 0, "abc"},
                               {"norm.weight", "carried", "F32", nullptr, 0, 0, encoded("F32", norm)},
                               {"steps", "carried", "I64", nullptr, 0, 0, std::string(16, '\7')},
                               {"embed.weight", "carried", "F16", nullptr, 0, 0, "12345678"},
                               {"nothing.weight", "carried", "F32", nullptr, 0, 0, ""}};
  ASSERT_EQ(file.header.size(), std::size(expected));
  uint64_t covered = 0;
  for (const Expected& e : expected) {
    SCOPED_TRACE(e.name);
    const Json record = file.record(e.name);
    const std::string bytes = file.tensor(e.name);
    EXPECT_EQ(file.header[e.name]["data_offsets"][0], covered);
    covered += bytes.size();
    EXPECT_EQ(record["form"], e.form);
    EXPECT_EQ(record["source"], e.name);
    EXPECT_EQ(record["source_dtype"], e.dtype);
    char checksum[32];
    std::snprintf(checksum, sizeof checksum, "xxh3:%016jx",
                  static_cast<uintmax_t>(XXH3_64bits(bytes.data(), bytes.size())));
    EXPECT_EQ(record["checksum"], checksum);
    if (e.values == nullptr) {
      EXPECT_EQ(bytes, e.bytes);
      EXPECT_EQ(file.header[e.name]["dtype"], e.dtype);
      continue;
    }
    EXPECT_EQ(file.header[e.name]["dtype"], "U8");
    EXPECT_EQ(file.header[e.name]["shape"], Json({bytes.size()}));
    EXPECT_EQ(record["n_inner"], e.n_inner);
    EXPECT_EQ(record["n_col"], e.n_col);
    const test::PackedMatrix matrix = file.matrix(e.name);
    ASSERT_EQ(bytes.size(), matrix.layout.n_byte);
    if (matrix.form != MORUN_WEIGHTS_F16) {
      EXPECT_EQ(record["quantiser"], "minmax");
      EXPECT_EQ(record["zero_points"], matrix.layout.zero_points);
      EXPECT_EQ(record["scales"], matrix.layout.scales);
      EXPECT_EQ(record["sums"], matrix.layout.sums);
    }
    double error = 0, all = 0;
    for (uint64_t c = 0; c < e.n_col; ++c) {
      const double half_step = matrix.form == MORUN_WEIGHTS_F16 ? 0 : 0.501 * matrix.scale(c);
      for (uint64_t i = 0; i < e.n_inner; ++i) {
        const double value = (*e.values)[c * e.n_inner + i];
        ASSERT_NEAR(matrix.value(i, c), value, half_step) << i << ", " << c;
        error += std::pow(matrix.value(i, c) - value, 2);
        all += value * value;
      }
    }
    EXPECT_NEAR(record["error"], std::sqrt(error / all), 1e-9);
  }
  EXPECT_EQ(file.data + covered, file.bytes.size());
}

TEST_F(WeightsPack, NpyMatricesAndUntransposedOnesAreInnerByColumns) {
  const std::vector<float> w = some_values(70 * 45, 6);  // 70 x 45, row-major
  std::vector<float> by_columns(w.size());
  for (size_t i = 0; i < w.size(); ++i) by_columns[i % 45 * 70 + i / 45] = w[i];
  write("c.npy", npy("<f4", false, "(70, 45)", encoded("F32", w)));
  write("fortran.npy", npy("<f2", true, "(70, 45)", encoded("F16", by_columns)));
  write("double.npy", npy("<f8", false, "(70, 45)", encoded("F64", w)));
  write("s.safetensors", safetensors({{"s.weight", "BF16", {70, 45}, encoded("BF16", w)}}));
  Packer packer([](auto& o) { o.transpose = 0, o.n_job = 2; });
  for (const char* const name : {"c.npy", "fortran.npy", "double.npy", "s.safetensors"}) packer.source(path(name));
  ASSERT_EQ(packer.run(path("packed")), 0) << morun_weights_error_text();
  const PackedFile file(read("packed"));
  for (const char* const name : {"c", "fortran", "double", "s.weight"}) {
    const test::PackedMatrix matrix = file.matrix(name);
    for (size_t i = 0; i < w.size(); ++i)
      ASSERT_NEAR(matrix.value(i / 45, i % 45), w[i], 0.501 * matrix.scale(i % 45)) << name;
    EXPECT_EQ(file.tensor(name), file.tensor("c"));
  }
}

TEST_F(WeightsPack, TheLastRuleThatMatchesDecidesAndSoDoNames) {
  const std::vector<Tensor> tensors = {{"a.weight", "F32", {1, 1}, "1234"},     {"a.bias", "F32", {1, 1}, "1234"},
                                       {"embed.weight", "F32", {1, 1}, "1234"}, {"x.norm2.weight", "F16", {1, 1}, "12"},
                                       {"b.weight", "I32", {1, 1}, "1234"},     {"c.weight", "F32", {1, 1, 1}, "1234"},
                                       {"d.weight", "F32", {0, 3}, ""}};
  write("m.safetensors", safetensors(tensors));
  write("norm.npy", npy("<f4", false, "(1, 1)", "1234"));
  Packer packer([](auto& o) { o.form = MORUN_WEIGHTS_F16; });
  packer.source(path("m.safetensors")).source(path("norm.npy"));
  const auto told = [&] {
    std::map<std::string, std::string> all;
    for (const morun_weights_decision& d : packer.decisions()) all[d.name] = std::to_string(d.form) + " " + d.reason;
    return all;
  };
  std::map<std::string, std::string> expected = {{"a.weight", "1 name ends in weight"},
                                                 {"a.bias", "0 name does not end in weight"},
                                                 {"embed.weight", "0 name contains embed"},
                                                 {"x.norm2.weight", "0 name contains norm"},
                                                 {"b.weight", "0 dtype is none of F64, F32, F16, BF16"},
                                                 {"c.weight", "0 not 2-dimensional"},
                                                 {"d.weight", "0 an extent is 0"},
                                                 {"norm", "1 a .npy matrix"}};
  EXPECT_EQ(told(), expected);
  packer.rule("*", MORUN_WEIGHTS_A8W8).rule("*.weight", MORUN_WEIGHTS_A8W4).rule("?orm", MORUN_WEIGHTS_CARRIED);
  expected["a.weight"] = expected["embed.weight"] = expected["x.norm2.weight"] = "3 rule *.weight";
  expected["a.bias"] = "2 rule *";
  expected["norm"] = "0 rule ?orm";
  EXPECT_EQ(told(), expected);
  std::vector<std::string> order;
  for (const morun_weights_decision& d : packer.decisions()) order.push_back(d.name);
  EXPECT_EQ(order, (std::vector<std::string>{"a.weight", "a.bias", "embed.weight", "x.norm2.weight", "b.weight",
                                             "c.weight", "d.weight", "norm"}));
}

TEST_F(WeightsPack, CalibrationTakesTheActivationOfEachTensor) {
  const std::vector<float> w = some_values(64 * 45, 7), few = some_values(100 * 5, 8);
  std::vector<float> x = some_values(100 * 45, 9);
  for (size_t i = 0; i < x.size(); ++i) x[i] = x[i] / 4 + few[i / 45 * 5 + i % 5];  // columns that go together
  write("m.safetensors", safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", w)},
                                      {"b.weight", "F32", {64, 45}, encoded("F32", w)}}));
  std::vector<float> by_columns(x.size());
  for (size_t i = 0; i < x.size(); ++i) by_columns[i % 45 * 100 + i / 45] = x[i];
  write("x/a.weight.npy", npy("<f4", false, "(100, 45)", encoded("F32", x)));
  write("x/b.weight.npy", npy("<f2", true, "(100, 45)", encoded("F16", by_columns)));
  const std::string activations = path("x");
  std::map<int32_t, double> product_errors;
  for (const int32_t quantiser : {MORUN_WEIGHTS_MINMAX, MORUN_WEIGHTS_CALIBRATED}) {
    Packer packer([&](auto& o) {
      o.quantiser = quantiser, o.activations = activations.c_str(), o.form = MORUN_WEIGHTS_A8W4, o.n_job = 2;
    });
    ASSERT_EQ(packer.source(path("m.safetensors")).run(path("packed")), 0) << morun_weights_error_text();
    const PackedFile file(read("packed"));
    EXPECT_EQ(file.tensor("a.weight"), file.tensor("b.weight"));
    const test::PackedMatrix matrix = file.matrix("a.weight");
    double error = 0, all = 0;
    for (size_t r = 0; r < 100; ++r) {
      for (size_t c = 0; c < 64; ++c) {
        double exact = 0, got = 0;
        for (size_t k = 0; k < 45; ++k) {
          exact += double{x[r * 45 + k]} * w[c * 45 + k];
          got += x[r * 45 + k] * matrix.value(k, c);
        }
        error += std::pow(got - exact, 2);
        all += exact * exact;
      }
    }
    EXPECT_NEAR(file.record("a.weight")["product_error"], std::sqrt(error / all), 1e-6);
    product_errors[quantiser] = packer.decisions()[0].product_error;
  }
  EXPECT_LT(product_errors[MORUN_WEIGHTS_CALIBRATED], 0.8 * product_errors[MORUN_WEIGHTS_MINMAX]);
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

TEST_F(WeightsPack, SourcesThatAreNoneAreRefused) {
  const std::string good = safetensors({{"a.weight", "F32", {1, 1}, "1234"}});
  write("good.safetensors", good);
  write("packed/p.safetensors", safetensors({}, {{"morun.format", "1"}}));
  write("cut.safetensors", good.substr(0, good.size() - 1));
  write("none.safetensors", safetensors({}));
  write("text.txt", "text");
  fs::create_directories(path("empty"));
  write("two/a.index.json", "{}");
  write("two/b.index.json", "{}");
  write("twice/a.safetensors", good);
  write("twice/b.safetensors", good);
  const auto index = [&](const std::string& name, const std::string& json) {
    return write(name + ".index.json", json);
  };
  index("json", "{\"weight_map\":");
  index("list", "{\"weight_map\":[]}");
  index("outside", "{\"weight_map\":{\"a.weight\":\"../good.safetensors\"}}");
  index("number", "{\"weight_map\":{\"a.weight\":1}}");
  index("missing", "{\"weight_map\":{\"b.weight\":\"good.safetensors\"}}");
  index("nowhere", "{\"weight_map\":{\"b.weight\":\"nowhere.safetensors\"}}");
  index("nothing", "{\"weight_map\":{}}");
  write("cut.npy", npy("<f4", false, "(2, 2)", "123"));
  write("big.npy", npy(">f4", false, "(1, 1)", "1234"));
  write("text.npy", npy("<U1", false, "(1, 1)", "1234"));
  write("huge.npy", npy("<f8", false, "(4294967296, 4294967296)", "1234"));
  write("short.npy", "\x93NUM");
  write("other.npy", "not one of these files");
  write("a\xff.npy", npy("<f4", false, "(1, 1)", "1234"));
  const std::tuple<const char*, int32_t, const char*> cases[] = {
      {"absent.safetensors", MORUN_WEIGHTS_OPEN, "No such file"},
      {"absent", MORUN_WEIGHTS_OPEN, "No such file"},
      {"text.txt", MORUN_WEIGHTS_SOURCE_KIND, "neither a directory nor"},
      {"packed", MORUN_WEIGHTS_ALREADY_PACKED, "is a packed file already"},
      {"cut.safetensors", MORUN_WEIGHTS_RANGE_OUTSIDE, "ends at byte 4"},
      {"none.safetensors", MORUN_WEIGHTS_SOURCE_EMPTY, "no tensors"},
      {"empty", MORUN_WEIGHTS_SOURCE_EMPTY, "no tensors"},
      {"nothing.index.json", MORUN_WEIGHTS_SOURCE_EMPTY, "no tensors"},
      {"two", MORUN_WEIGHTS_INDEX, "2 files *.index.json"},
      {"twice", MORUN_WEIGHTS_DUPLICATE_NAME, "too"},
      {"json.index.json", MORUN_WEIGHTS_INDEX, "no JSON object with a weight_map"},
      {"list.index.json", MORUN_WEIGHTS_INDEX, "no JSON object with a weight_map"},
      {"outside.index.json", MORUN_WEIGHTS_INDEX, "none of the index's folder"},
      {"number.index.json", MORUN_WEIGHTS_INDEX, "none of the index's folder"},
      {"missing.index.json", MORUN_WEIGHTS_INDEX, "does not have tensor \"b.weight\""},
      {"nowhere.index.json", MORUN_WEIGHTS_OPEN, "No such file"},
      {"cut.npy", MORUN_WEIGHTS_NPY, "holds 3 bytes"},
      {"huge.npy", MORUN_WEIGHTS_NPY, "holds 4 bytes"},
      {"short.npy", MORUN_WEIGHTS_NPY, "cut short"},
      {"other.npy", MORUN_WEIGHTS_NPY, "does not start as one"},
      {"big.npy", MORUN_WEIGHTS_NPY_TYPE, "type >f4"},
      {"text.npy", MORUN_WEIGHTS_NPY_TYPE, "type <U1"},
      {"a\xff.npy", MORUN_WEIGHTS_HEADER_NAME, "no UTF-8"},
  };
  for (const auto& [name, status, text] : cases) {
    Packer packer;
    EXPECT_EQ(morun_weights_packer_add_source(packer.handle, path(name).c_str()), status) << name;
    EXPECT_NE(std::string(morun_weights_error_text()).find(text), std::string::npos) << morun_weights_error_text();
    EXPECT_TRUE(packer.decisions().empty());
    EXPECT_EQ(packer.run(path("out")), MORUN_WEIGHTS_SOURCE_EMPTY);
  }
  Packer packer;
  packer.source(path("good.safetensors"));
  EXPECT_EQ(morun_weights_packer_add_source(packer.handle, path("good.safetensors").c_str()),
            MORUN_WEIGHTS_DUPLICATE_NAME);
  EXPECT_EQ(packer.decisions().size(), 1u);
  EXPECT_EQ(packer.run(path("out")), 0);
  for (const auto& change : std::vector<std::function<void(morun_weights_pack_options&)>>{
           [](auto& o) { o.form = MORUN_WEIGHTS_CARRIED; }, [](auto& o) { o.quantiser = 4; },
           [](auto& o) { o.n_job = 0; }, [](auto& o) { o.n_job = 257; }, [](auto& o) { o.damping = -1; },
           [](auto& o) { o.damping = NAN; }, [](auto& o) { o.quantiser = MORUN_WEIGHTS_CALIBRATED; }}) {
    morun_weights_pack_options options;
    morun_weights_pack_options_init(&options);
    change(options);
    morun_weights_packer* made = nullptr;
    EXPECT_EQ(morun_weights_packer_create(&options, &made), MORUN_WEIGHTS_BAD_ARGUMENT);
  }
}

TEST_F(WeightsPack, AFailureLeavesNothingBehindAndWhatWasThereAsItWas) {
  std::vector<float> w = some_values(64 * 45, 9);
  write("m.safetensors",
        safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", w)}, {"b.bias", "U8", {4}, "1234"}}));
  w[3 * 45 + 2] = NAN;
  write("nan.safetensors", safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", w)}}));
  write("carried.npy", npy("<f4", true, "(1, 2, 2)", std::string(16, '1')));
  write("x/other.npy", npy("<f4", false, "(1, 1)", "1234"));
  write("wide/a.weight.npy", npy("<f4", false, "(1, 46)", std::string(4 * 46, '\0')));
  write("zero/a.weight.npy", npy("<f4", false, "(1, 45)", std::string(4 * 45, '\0')));
  write("infinite/a.weight.npy", npy("<f4", false, "(1, 45)", encoded("F32", std::vector<float>(45, INFINITY))));
  write("one.npy", npy("<f4", false, "(1, 45)", encoded("F32", std::vector<float>(45, 1))));
  struct Case {
    const char* source;
    int32_t status;
    const char* text;
    const char* activations = nullptr;
    double damping = 0.05;
    const char* rule = nullptr;
    const char* output = "packed";
  };
  const Case cases[] = {
      {"nan.safetensors", MORUN_WEIGHTS_NON_FINITE, "\"a.weight\": weight (2, 3) is NaN"},
      {"m.safetensors", MORUN_WEIGHTS_RULE_UNUSED, "\"z*\"", nullptr, 0, "z*"},
      {"carried.npy", MORUN_WEIGHTS_NPY, "Fortran order"},
      {"m.safetensors", MORUN_WEIGHTS_NO_ACTIVATION, "there is no activation", "x"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_SHAPE, "no matrix of 45 columns", "wide"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_VALUE, "zeros alone", "zero"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_VALUE, "not finite at row 0, column 0", "infinite"},
      {"m.safetensors", MORUN_WEIGHTS_COVARIANCE, "larger damping", "one.npy", 0},
      {"m.safetensors", MORUN_WEIGHTS_WRITE, "No such file", nullptr, 0, nullptr, "nowhere/packed"},
      {"m.safetensors", MORUN_WEIGHTS_WRITE, "Is a directory", nullptr, 0, nullptr, "x"},
  };
  write("packed", "what was there");
  const std::set<std::string> before = names();
  for (const Case& test : cases) {
    SCOPED_TRACE(test.text);
    const std::string activations = test.activations != nullptr ? path(test.activations) : "";
    Packer packer([&](auto& o) {
      o.damping = test.damping;
      if (!activations.empty()) o.activations = activations.c_str(), o.quantiser = MORUN_WEIGHTS_CALIBRATED;
    });
    packer.source(path(test.source));
    if (test.rule != nullptr) packer.rule(test.rule, MORUN_WEIGHTS_A8W8);
    EXPECT_EQ(packer.run(path(test.output)), test.status);
    EXPECT_NE(std::string(morun_weights_error_text()).find(test.text), std::string::npos) << morun_weights_error_text();
    EXPECT_EQ(names(), before);
    EXPECT_EQ(read("packed"), "what was there");
  }

  // A full disk; and the same packer afterwards.
  Packer packer;
  packer.source(path("m.safetensors"));
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit;
  getrlimit(RLIMIT_FSIZE, &limit);
  const rlimit small = {6000, limit.rlim_max};
  setrlimit(RLIMIT_FSIZE, &small);
  const int32_t status = packer.run(path("packed"));
  setrlimit(RLIMIT_FSIZE, &limit);
  EXPECT_EQ(status, MORUN_WEIGHTS_WRITE);
  EXPECT_EQ(names(), before);
  EXPECT_EQ(read("packed"), "what was there");
  // A source that shrinks.
  fs::resize_file(path("m.safetensors"), fs::file_size(path("m.safetensors")) - 1);
  EXPECT_EQ(packer.run(path("packed")), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(names(), before);
  std::ofstream(path("m.safetensors"), std::ios::app | std::ios::binary) << '4';
  fs::permissions(path("packed"), fs::perms::owner_read | fs::perms::owner_write);
  EXPECT_EQ(packer.run(path("packed")), 0) << morun_weights_error_text();
  EXPECT_EQ(names(), before);
  EXPECT_EQ(PackedFile(read("packed")).tensor("b.bias"), "1234");
  EXPECT_EQ(fs::status(path("packed")).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

struct Interruption {
  morun_weights_packer* packer;
  int n_call;
};

TEST_F(WeightsPack, InterruptionEndsSoonAndLeavesNothing) {
  const std::string zeros = path("m.safetensors");
  write("m.safetensors", safetensors({{"a.weight", "F32", {4096, 4096}, ""}}));
  std::string header = read("m.safetensors");
  header.replace(header.find("[0,0]"), 5, "[0,67108864]");
  header[0] = static_cast<char>(header.size() - 8);
  write("m.safetensors", header);
  fs::resize_file(zeros, header.size() + 67108864);
  Interruption interruption = {};
  Packer packer([&](auto& o) {
    o.user = &interruption;
    o.n_job = 2;
    o.quantiser = MORUN_WEIGHTS_MSE;
    o.progress = [](void* user, const morun_weights_progress* progress) {
      auto& state = *static_cast<Interruption*>(user);
      EXPECT_LE(progress->n_byte_done, progress->n_byte);
      EXPECT_EQ(progress->n_tensor, 1u);
      if (++state.n_call == 1) morun_weights_packer_interrupt(state.packer);
    };
  });
  packer.source(zeros);
  interruption.packer = packer.handle;
  const std::set<std::string> before = names();
  morun_weights_packer_interrupt(packer.handle);
  EXPECT_EQ(packer.run(path("packed")), MORUN_WEIGHTS_INTERRUPTED);
  EXPECT_EQ(names(), before);
  interruption.n_call = 1;
  EXPECT_EQ(packer.run(path("packed")), 0) << morun_weights_error_text();
  EXPECT_GT(interruption.n_call, 1);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__aarch64__)
// A child that packs has its own peak.
TEST_F(WeightsPack, AGibibyteIsPackedInTheMemoryOfOneMatrix) {
  constexpr uint64_t n = 8192, size = n * n * 4;
  Json header;
  for (uint64_t i = 0; i < 4; ++i)
    header[std::to_string(i) + ".weight"] = {
        {"dtype", "F32"}, {"shape", {n, n}}, {"data_offsets", {i * size, (i + 1) * size}}};
  const std::string json = header.dump();
  std::string start(8, '\0');
  start[0] = static_cast<char>(json.size());
  start[1] = static_cast<char>(json.size() >> 8);
  write("m.safetensors", start + json);
  fs::resize_file(path("m.safetensors"), 8 + json.size() + 4 * size);
  for (const int32_t transpose : {1, 0}) {
    const pid_t child = fork();
    if (child == 0) {
      Packer packer([&](auto& o) { o.n_job = 2, o.transpose = transpose; });
      _exit(packer.source(path("m.safetensors")).run(path("packed")));
    }
    int status = 0;
    rusage usage = {};
    ASSERT_EQ(wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    const uint64_t largest = n * n + 3 * 65536;
    std::printf("peak %ld MiB of resident memory\n", usage.ru_maxrss / 1024);
    EXPECT_LT(static_cast<uint64_t>(usage.ru_maxrss) * 1024, 2 * (uint64_t{64} << 20) + largest);
    EXPECT_GT(fs::file_size(path("packed")), 4 * n * n);
  }
}
#endif

}  // namespace
