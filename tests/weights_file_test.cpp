// Packed files: a checkpoint comes back as what it held, and every file that is not as the format has it is refused.

#include <sys/stat.h>

#include <cstdio>
#include <iterator>
#include <optional>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "tests/allocation_shim.h"
#include "tests/expected_text.h"
#include "tests/weight_files.h"

namespace {

namespace fs = std::filesystem;
using test::Json, test::PackedFile, test::Packer, test::encoded, test::safetensors, test::some_values;

std::string checksum_of(const std::string& bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "xxh3:%016jx", static_cast<uintmax_t>(XXH3_64bits(bytes.data(), bytes.size())));
  return text;
}

// An open packed file.
class Reader {
 public:
  explicit Reader(const std::string& path) {
    EXPECT_EQ(morun_weights_file_open(path.c_str(), &handle), 0) << morun_weights_error_text();
  }
  ~Reader() { morun_weights_file_close(handle); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  morun_weights_tensor tensor(uint64_t index) const {
    morun_weights_tensor tensor = {};
    EXPECT_EQ(morun_weights_file_tensor(handle, index, &tensor), 0) << morun_weights_error_text();
    return tensor;
  }
  std::string bytes(uint64_t index, uint64_t offset, uint64_t n_byte) const {
    std::string bytes(n_byte, '?');
    EXPECT_EQ(morun_weights_file_read(handle, index, offset, n_byte, bytes.data()), 0) << morun_weights_error_text();
    return bytes;
  }

  morun_weights_file* handle = nullptr;
};

class WeightsFile : public testing::Test, public test::Folder {};

// ---- From checkpoint to values -------------------------------------------------------------------------------------

struct Expected {
  const char* name;
  const char* form;
  const char* dtype;  // of the source
  std::vector<uint64_t> shape;
  std::vector<float> values;  // packed
  std::string bytes;          // carried
};

void expect_packed(const PackedFile& file, const Reader& reader, uint64_t index, const Expected& e) {
  const Json record = file.record(e.name);
  const uint64_t n_col = e.shape[0], n_inner = e.shape[1];
  const test::PackedMatrix matrix = file.matrix(e.name);
  const bool is_quantised = matrix.form != MORUN_WEIGHTS_F16;
  ASSERT_EQ(file.tensor(e.name).size(), matrix.layout.n_byte);
  std::vector<float> transposed, stored, unpacked(n_inner * n_col);
  for (uint64_t i = 0; i < n_inner * n_col; ++i) {
    const uint64_t k = i / n_col, c = i % n_col;
    transposed.push_back(e.values[c * n_inner + k]);
    stored.push_back(static_cast<float>(matrix.value(k, c)));
    ASSERT_NEAR(stored[i], transposed[i], is_quantised ? 0.501 * matrix.scale(c) : 0) << k << ", " << c;
  }
  EXPECT_NEAR(record["error"], test::relative_error(transposed, stored), 1e-9);
  EXPECT_EQ(morun_weights_file_unpack(reader.handle, index, unpacked.data()), 0) << morun_weights_error_text();
  EXPECT_TRUE(unpacked == stored);
}

TEST_F(WeightsFile, ACheckpointOfTwoShardsComesBackAsWhatItHeld) {
  const Expected expected[] = {
      {"q.weight", "a8w8", "BF16", {70, 45}, some_values(70 * 45, 1), ""},
      {"k.weight", "a8w8", "F32", {33, 45}, some_values(33 * 45, 2), ""},
      {"up.weight", "a8w4", "F16", {40, 64}, some_values(40 * 64, 3), ""},
      {"lm_head.weight", "f16", "F64", {5, 3}, some_values(5 * 3, 4), ""},
      {"odd", "carried", "U8", {3}, {}, "abc"},
      {"norm.weight", "carried", "F32", {45}, {}, encoded("F32", some_values(45, 5))},
      {"steps", "carried", "F64", {40000}, {}, encoded("F64", some_values(40000, 6))},  // read in several pieces
      {"embed.weight", "carried", "F16", {2, 2}, {}, "12345678"},
      {"nothing.weight", "carried", "F32", {0, 4}, {}, ""},
  };
  const auto source = [&](size_t i) {
    const Expected& e = expected[i];
    return test::Tensor{e.name, e.dtype, e.shape, e.values.empty() ? e.bytes : encoded(e.dtype, e.values)};
  };
  const test::Tensor unlisted = {"unlisted.weight", "F32", {1, 1}, "1234"};
  const Json metadata = {{"format", "pt"}, {"morun.tensor.ghost", "{}"}};
  write("model/a.safetensors", safetensors({source(4), source(0), source(1), source(5), unlisted}, metadata));
  write("model/b.safetensors", safetensors({source(2), source(3), source(6), source(7), source(8)}));
  Json map;
  for (const size_t i : {4, 0, 1, 5}) map[expected[i].name] = "a.safetensors";
  for (const size_t i : {2, 3, 6, 7, 8}) map[expected[i].name] = "b.safetensors";
  write("model/model.safetensors.index.json", Json{{"metadata", {{"deep", {{1, {2}}}}}}, {"weight_map", map}}.dump());

  std::string first;
  for (const uint32_t n_job : {1u, 3u}) {
    for (const char* const model : {"model", "model/model.safetensors.index.json"}) {
      Packer packer([&](auto& o) { o.n_job = n_job; });
      packer.source(path(model)).rule("*.weight", MORUN_WEIGHTS_A8W4).rule("[kq].weight", MORUN_WEIGHTS_A8W8);
      packer.rule("lm_*", MORUN_WEIGHTS_F16).rule("embed*", MORUN_WEIGHTS_CARRIED);
      ASSERT_EQ(packer.run(path("p.safetensors")), 0) << morun_weights_error_text();
      if (first.empty()) first = read("p.safetensors");
      EXPECT_TRUE(first == read("p.safetensors")) << n_job << " jobs, " << model;
      EXPECT_EQ(packer.run(path("p.safetensors")), MORUN_WEIGHTS_BAD_ARGUMENT);
    }
  }
  const PackedFile file(first);
  EXPECT_EQ(file.data % 4096, 0u);
  EXPECT_EQ(file.bytes[8], '{');
  EXPECT_EQ(file.metadata["morun.format"], "1");
  EXPECT_EQ(file.metadata["format"], "pt");
  EXPECT_EQ(file.metadata.size(), 2 + file.header.size()) << "no record of a tensor that is not there";
  ASSERT_EQ(file.header.size(), std::size(expected));

  const Reader reader(path("p.safetensors"));
  uint64_t covered = 0, index = 0, count = 0;
  EXPECT_EQ(morun_weights_file_count(reader.handle, &count), 0);
  ASSERT_EQ(count, std::size(expected));
  for (const Expected& e : expected) {
    SCOPED_TRACE(e.name);
    const Json record = file.record(e.name);
    const std::string bytes = file.tensor(e.name);
    EXPECT_EQ(file.header[e.name]["data_offsets"][0], covered);
    EXPECT_EQ(record["form"], e.form);

    uint64_t found = 99;
    EXPECT_EQ(morun_weights_file_find(reader.handle, e.name, &found), 0);
    EXPECT_EQ(found, index);
    const morun_weights_tensor tensor = reader.tensor(index);
    EXPECT_EQ(tensor.checksum, XXH3_64bits(bytes.data(), bytes.size()));
    EXPECT_EQ(morun_weights_file_verify(reader.handle, index), 0) << morun_weights_error_text();
    std::string whole(bytes.size(), '?');
    EXPECT_EQ(morun_weights_file_read_verified(reader.handle, index, whole.data()), 0) << morun_weights_error_text();
    EXPECT_TRUE(whole == bytes && reader.bytes(index, 0, bytes.size()) == bytes);
    EXPECT_EQ(reader.bytes(index, bytes.size() / 3, bytes.size() / 2),
              bytes.substr(bytes.size() / 3, bytes.size() / 2));
    if (e.values.empty()) {
      EXPECT_EQ(bytes, e.bytes);
      EXPECT_EQ(tensor.n_inner + tensor.n_col + tensor.layout.n_byte, 0u);
    } else {
      expect_packed(file, reader, index, e);
    }
    covered += bytes.size();
    ++index;
  }
  EXPECT_EQ(file.data + covered, file.bytes.size());
}

// The example of docs/weight-files.md.
TEST_F(WeightsFile, EveryByteIsWhereTheFormatHasIt) {
  write("w.npy", test::matrix_npy({155, 64, 255, -100, -63.5, 2}, 3));
  Packer packer;
  ASSERT_EQ(packer.source(path("w.npy")).run(path("p.safetensors")), 0) << morun_weights_error_text();
  std::string header =
      R"({"__metadata__":{"morun.format":"1","morun.tensor.w":"{'form':'a8w8','n_inner':2,'n_col':3,'zero_points':2048,)"
      R"('scales':4096,'sums':6144,'quantiser':'minmax','source':'w','source_dtype':'F32','error':0.0,)"
      R"('checksum':'xxh3:e0fd663639f5ddde'}"},"w":{"dtype":"U8","shape":[8192],"data_offsets":[0,8192]}})";
  for (size_t at = 0; (at = header.find('\'', at)) != std::string::npos; at += 2) header.replace(at, 1, "\\\"");
  std::string expected = std::string("\xf8\x0f\0\0\0\0\0\0", 8) + header;
  expected.resize(4096, ' ');
  expected.resize(12288, '\0');
  expected.replace(4096, 8, std::string("\x7f\x7f\x7f\0\x80\x80\x82\0", 8));
  for (size_t row = 2; row < 32; ++row) expected.replace(4096 + 4 * row, 3, "\xe4\xff\x80");
  expected.replace(6144, 3, "\xe4\xff\x80");
  expected.replace(8192, 6, std::string("\0\x3c\0\x38\0\x3c", 6));
  expected.replace(10240, 12, "\xb7\xfc\xff\xff\xe1\xff\xff\xff\x01\xf1\xff\xff");
  EXPECT_TRUE(read("p.safetensors") == expected);
}

TEST_F(WeightsFile, AnyColumnsAreUnpackedIntoAnyStrides) {
  constexpr uint64_t n_inner = 45, n_col = 70, inner_stride = 3, column_stride = 150;
  const std::vector<float> w = some_values(n_inner * n_col, 1);
  for (const int32_t form : {MORUN_WEIGHTS_F16, MORUN_WEIGHTS_A8W8, MORUN_WEIGHTS_A8W4}) {
    test::PackedMatrix packed = {form, {}, {}};
    const morun_weights_recipe recipe = {form, MORUN_WEIGHTS_MINMAX, n_inner, n_col, nullptr, 0, 0};
    ASSERT_EQ(morun_weights_layout_of(form, n_inner, n_col, &packed.layout), 0);
    packed.bytes.resize(packed.layout.n_byte);
    ASSERT_EQ(morun_weights_pack_columns(&recipe, 0, n_col, w.data(), n_col, 1, packed.bytes.data(),
                                         packed.bytes.size(), nullptr),
              0);
    const auto unpack = [&](uint64_t first, uint64_t n, float* values, uint64_t by_row = 3) {
      return morun_weights_unpack_columns(form, n_inner, n_col, packed.bytes.data(), packed.bytes.size(), first, n,
                                          values, by_row, column_stride);
    };
    for (const auto& [first, n] : {std::pair{0ul, 70ul}, {5, 1}, {30, 40}, {33, 30}, {69, 1}}) {
      std::vector<float> values(column_stride * n_col, 99), expected = values;
      EXPECT_EQ(unpack(first, n, values.data()), 0) << morun_weights_error_text();
      for (uint64_t i = 0; i < n_inner * n; ++i)
        expected[i / n * inner_stride + i % n * column_stride] = static_cast<float>(packed.value(i / n, first + i % n));
      EXPECT_TRUE(values == expected) << "form " << form << ", columns from " << first;
    }
    float value = 99;
    for (const auto& [first, n] : {std::pair{70ul, 1ul}, {69, 2}, {1, UINT64_MAX}, {0, 0}})
      EXPECT_EQ(unpack(first, n, &value), MORUN_WEIGHTS_BAD_ARGUMENT);
    EXPECT_EQ(unpack(0, 1, &value, 0), MORUN_WEIGHTS_BAD_ARGUMENT);
    for (const auto& [as, n_missing] : {std::pair{form, 1u}, {4, 0u}})
      EXPECT_EQ(morun_weights_unpack_columns(as, n_inner, n_col, packed.bytes.data(), packed.bytes.size() - n_missing,
                                             0, 1, &value, 1, 1),
                MORUN_WEIGHTS_BAD_ARGUMENT);
    test::expect_nulls_refused(morun_weights_unpack_columns, form, n_inner, n_col, packed.bytes.data(),
                               packed.bytes.size(), 0, 1, &value, 1, 1);
    EXPECT_EQ(value, 99);
  }
}

// ---- Malformed files -----------------------------------------------------------------------------------------------

// A packed file of three tensors. In the records ' stands for \", and $a for the checksum of tensor a.
constexpr char good_header[] =
    R"({"__metadata__":{"morun.format":"1","note":"kept","morun.later":"?",
"morun.tensor.a":"{'form':'f16','n_inner':33,'n_col':40,'source':'A','source_dtype':'F32',)"
    R"('error':0.5,'checksum':'$a','later':true}",
"morun.tensor.b":"{'form':'a8w4','n_inner':33,'n_col':40,'zero_points':2048,'scales':4096,'sums':6144,)"
    R"('quantiser':'mse','source':'B','source_dtype':'F64','error':1e-3,'product_error':0,'checksum':'$b','later':null}",
"morun.tensor.c":"{'form':'carried','source':'C','source_dtype':'I16','checksum':'$c'}"},
"a":{"dtype":"U8","shape":[8192],"data_offsets":[0,8192]},
"b":{"dtype":"U8","shape":[8192],"data_offsets":[8192,16384]},
"c":{"shape":[2,3],"data_offsets":[16384,16396],"dtype":"I16"}})";

void replace(std::string& text, const std::string& from, const std::string& to) {
  for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size())
    text.replace(at, from.size(), to);
}

void set_length(std::string& file, uint64_t length) {
  for (size_t i = 0; i < 8; ++i) file[i] = static_cast<char>(length >> 8 * i);
}

std::string file_of(std::string header, bool is_padded = true) {
  std::string data;
  for (size_t i = 0; i < 16396; ++i) data += static_cast<char>(i * i >> 3);
  replace(header, "'", "\\\"");
  replace(header, "$a", checksum_of(data.substr(0, 8192)));
  replace(header, "$b", checksum_of(data.substr(8192, 8192)));
  replace(header, "$c", checksum_of(data.substr(16384)));
  const size_t size = is_padded ? (8 + header.size() + 4095) / 4096 * 4096 : 8 + header.size();
  std::string file = std::string(8, '\0') + header + std::string(size - 8 - header.size(), ' ') + data;
  set_length(file, size - 8);
  return file;
}

// Makes the changes to the good file that tests/transcripts/MalformedPackedFiles.txt describes. A change that is missing in
// the good header, or that has no such name, throws.
std::string malformed_file(const std::string& changes) {
  std::string header = good_header;
  std::optional<std::string> file;
  std::istringstream stream(changes);
  for (std::string change; std::getline(stream, change, ';'); stream.ignore()) {
    if (const size_t arrow = change.find(" -> "); arrow != change.npos) {
      std::string to = change.substr(arrow + 4);
      replace(to, "MANY", std::string(1 << 20, '['));
      replace(to, "NOTHING", "");
      header.replace(header.find(change.substr(0, arrow)), arrow, to);
      continue;
    }
    std::istringstream words(change);
    std::string name;
    uint64_t number = 0, value = 0;
    words >> name >> number >> value;
    if (!file) file = file_of(name == "header" ? change.substr(7) : header, name != "unaligned");
    if (name == "cut") file->resize(number);
    if (name == "length") set_length(*file, number);
    if (name == "blanks") file->insert(4096, number, ' ');
    if (name == "byte") file->resize(std::max(file->size(), number + 1)), (*file)[number] = static_cast<char>(value);
  }
  return file ? *file : file_of(header);
}

TEST_F(WeightsFile, MalformedPackedFiles) {
  test::expect_kept_text(test::played_commands([&](const std::string& changes) {
    morun_weights_file* opened = nullptr;
    const std::string file = write("p.safetensors", malformed_file(changes));
    const int32_t status = morun_weights_file_open(file.c_str(), &opened);
    const std::string told = outcome(status);
    test::expect_refused_without_memory_too(status, [&] { return morun_weights_file_open(file.c_str(), &opened); });
    EXPECT_EQ(opened, nullptr);
    return told;
  }));
}

// ---- Refusals of calls ---------------------------------------------------------------------------------------------

TEST_F(WeightsFile, CallsOnAGoodFileAreRefusedForWhatIsWrongWithThem) {
  const std::string file = write("p.safetensors", file_of(good_header));
  morun_weights_file* none = nullptr;
  mkfifo(path("pipe").c_str(), 0600);
  const std::pair<std::string, const char*> paths[] = {
      {path("absent"), "No such file"}, {folder_, "no regular file"}, {path("pipe"), "no regular file"}};
  for (const auto& [name, text] : paths)
    test::expect_status(morun_weights_file_open(name.c_str(), &none), MORUN_WEIGHTS_OPEN, text);
  test::expect_nulls_refused(morun_weights_file_open, file.c_str(), &none);
  EXPECT_EQ(none, nullptr);
  morun_weights_file_close(nullptr);

  const Reader reader(file);
  EXPECT_STREQ(reader.tensor(0).source_name, "A");
  EXPECT_EQ(reader.tensor(0).error, 0.5);
  EXPECT_EQ(reader.tensor(0).product_error, -1);
  EXPECT_EQ(reader.tensor(1).product_error, 0);
  EXPECT_EQ(reader.tensor(1).quantiser, MORUN_WEIGHTS_MSE);
  for (uint64_t i = 0; i < 3; ++i) EXPECT_EQ(morun_weights_file_verify(reader.handle, i), 0);
  const morun_weights_file* const good = reader.handle;
  uint64_t number = 99;
  morun_weights_tensor tensor;
  char bytes[16] = "untouched";
  std::vector<float> values(33 * 40, 99);
  test::expect_nulls_refused(morun_weights_file_count, good, &number);
  test::expect_nulls_refused(morun_weights_file_tensor, good, 0, &tensor);
  test::expect_nulls_refused(morun_weights_file_find, good, "a", &number);
  test::expect_nulls_refused(morun_weights_file_verify, good, 0);
  test::expect_nulls_refused(morun_weights_file_read, good, 2, 0, 12, bytes);
  test::expect_nulls_refused(morun_weights_file_read_verified, good, 2, bytes);
  test::expect_nulls_refused(morun_weights_file_unpack, good, 0, values.data());
  const std::tuple<const char*, int32_t, const char*> calls[] = {
      {"BAD_ARGUMENT", morun_weights_file_tensor(good, 3, &tensor), "index"},
      {"NOT_FOUND", morun_weights_file_find(good, "A", &number), "has no tensor \"A\""},
      {"BAD_ARGUMENT", morun_weights_file_verify(good, UINT64_MAX), "index"},
      {"BAD_ARGUMENT", morun_weights_file_read(good, 3, 0, 12, bytes), "index"},
      {"BAD_ARGUMENT", morun_weights_file_read(good, 2, 13, 0, bytes), "range"},
      {"BAD_ARGUMENT", morun_weights_file_read(good, 2, 1, 12, bytes), "range"},
      {"BAD_ARGUMENT", morun_weights_file_read(good, 2, 8, UINT64_MAX - 4, bytes), "range"},
      {"SUCCESS", morun_weights_file_read(good, 2, 12, 0, nullptr), ""},
      {"BAD_ARGUMENT", morun_weights_file_read_verified(good, 3, bytes), "index"},
      {"BAD_ARGUMENT", morun_weights_file_unpack(good, 3, values.data()), "index"},
      {"NOT_PACKED", morun_weights_file_unpack(good, 2, values.data()), "tensor \"c\" is not packed"}};
  for (const auto& [status, got, what] : calls) EXPECT_STREQ(morun_weights_status_name(got), status) << what;
  // A letter of two bytes is left out where only its first byte would have room.
  const std::string long_name(199, 'x'), letter = "\u00e9";
  test::expect_status(morun_weights_file_find(good, (long_name + letter + letter).c_str(), &number),
                      MORUN_WEIGHTS_NOT_FOUND, "has no tensor \"" + long_name + "...\"");
  EXPECT_EQ(number, 99u);
  EXPECT_STREQ(bytes, "untouched");
  EXPECT_EQ(values, std::vector<float>(33 * 40, 99));

  // One bit of the open file changes, and then the file becomes shorter.
  for (const auto& [at, index] : {std::pair{4096, 0}, {4096 + 8191, 0}, {4096 + 8192, 1}, {4096 + 16395, 2}}) {
    const uint64_t damaged = static_cast<uint64_t>(index);
    std::string changed = file_of(good_header);
    std::string whole(8192, '?');
    changed[static_cast<size_t>(at)] ^= 1;
    write("p.safetensors", changed);
    for (uint64_t i = 0; i < 3; ++i) {
      const int32_t expected = i == damaged ? MORUN_WEIGHTS_CHECKSUM : MORUN_WEIGHTS_SUCCESS;
      EXPECT_EQ(morun_weights_file_verify(good, i), expected);
      EXPECT_EQ(morun_weights_file_read_verified(good, i, whole.data()), expected);
      EXPECT_TRUE(changed.compare(4096 + 8192 * i, i < 2 ? 8192 : 12, whole, 0, i < 2 ? 8192 : 12) == 0);
      if (i < 2) {
        EXPECT_EQ(morun_weights_file_unpack(good, i, values.data()), expected);
      }
      EXPECT_EQ(reader.bytes(i, 0, 4), changed.substr(4096 + 8192 * i, 4));
    }
    EXPECT_NE(std::string(morun_weights_error_text()).find(reader.tensor(damaged).name), std::string::npos);
  }
  fs::resize_file(file, 4096 + 8192 + 8191);
  EXPECT_EQ(morun_weights_file_verify(good, 1), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(morun_weights_file_read_verified(good, 1, std::string(8192, '?').data()), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(morun_weights_file_unpack(good, 1, values.data()), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(morun_weights_file_read(good, 2, 0, 1, bytes), MORUN_WEIGHTS_SHRUNK);
  EXPECT_EQ(reader.bytes(1, 8000, 191).size(), 191u) << "up to the end of the file";
}

TEST(WeightsStatus, EveryStatusHasItsName) {
  const std::pair<int32_t, int32_t> blocks[] = {
      {MORUN_WEIGHTS_SUCCESS, MORUN_WEIGHTS_UNEXPECTED},      {MORUN_WEIGHTS_OPEN, MORUN_WEIGHTS_SHRUNK},
      {MORUN_WEIGHTS_TOO_SHORT, MORUN_WEIGHTS_TRAILING_DATA}, {MORUN_WEIGHTS_NOT_PACKED_FILE, MORUN_WEIGHTS_CHECKSUM},
      {MORUN_WEIGHTS_NOT_FOUND, MORUN_WEIGHTS_NOT_PACKED},    {MORUN_WEIGHTS_SOURCE_KIND, MORUN_WEIGHTS_ALREADY_PACKED},
      {MORUN_WEIGHTS_RULE_UNUSED, MORUN_WEIGHTS_INTERRUPTED}, {MORUN_WEIGHTS_REQUESTED_TWICE, MORUN_WEIGHTS_SESSION}};
  for (int32_t status = -1; status < 100; ++status) {
    const bool is_one = std::ranges::any_of(blocks, [=](auto b) { return b.first <= status && status <= b.second; });
    EXPECT_EQ(std::string(morun_weights_status_name(status)) != "?", is_one) << status;
  }
}

TEST_F(WeightsFile, MemoryThatRunsOutIsAStatusWhereverItDoes) {
  const std::string file = write("p.safetensors", file_of(good_header));
  std::vector<float> values(33 * 40);
  const auto n_descriptor = [] { return std::distance(fs::directory_iterator("/proc/self/fd"), {}); };
  const auto before = n_descriptor();
  uint64_t n_failure = 0, n_survived = 0;
  for (bool has_run_out = true; has_run_out; ++n_failure) {
    allocation_shim_fail(n_failure + 1, false);
    morun_weights_file* opened = nullptr;
    uint64_t index = 0;
    int32_t status = morun_weights_file_open(file.c_str(), &opened);
    if (status == 0) status = morun_weights_file_find(opened, "b, which is a name of more than a few letters", &index);
    if (status == MORUN_WEIGHTS_NOT_FOUND) status = morun_weights_file_verify(opened, 1);
    if (status == 0) status = morun_weights_file_unpack(opened, 1, values.data());
    has_run_out = allocation_shim_failed() != 0;
    allocation_shim_fail(0, false);
    // Sorting works without memory of its own, and throwing has a reserve.
    if (has_run_out && status == MORUN_WEIGHTS_SUCCESS) {
      ++n_survived;
    } else {
      EXPECT_EQ(status, has_run_out ? MORUN_WEIGHTS_NO_MEMORY : MORUN_WEIGHTS_SUCCESS) << n_failure;
    }
    morun_weights_file_close(opened);
    EXPECT_EQ(n_descriptor(), before);
  }
  EXPECT_GT(n_failure, 50u);
  EXPECT_LE(n_survived, 2u);
}

}  // namespace
