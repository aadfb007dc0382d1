// The command-line tool as its users have it: started as a program, judged by its files, its output and its exit
// status. MORUN_TOOL_PATH and MORUN_RUNNER (an emulator of the target's processor, or nothing) come from the build.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Outcome {
  int status;
  std::string out, err;
};

std::string text(const auto&... parts) {
  std::ostringstream stream;
  (stream << ... << parts);
  return stream.str();
}

std::string contents(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// A .npy file of format 1.0 as text; `shape` as Python writes it.
std::string npy(const std::string& type, const std::string& shape, const std::string& bytes,
                const std::string& fortran_order = "False") {
  const auto header = text("{'descr': '", type, "', 'fortran_order': ", fortran_order, ", 'shape': ", shape, ", }\n");
  return std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(header.size()) + '\0' + header + bytes;
}

template <typename Value>
std::string bytes_of(const std::vector<Value>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Value)};
}

template <typename Value>
std::vector<Value> values_of(const std::string& npy_bytes) {
  if (npy_bytes.size() < 10) return {};
  uint16_t header_size = 0;
  std::memcpy(&header_size, npy_bytes.data() + 8, sizeof header_size);
  std::vector<Value> values((npy_bytes.size() - 10 - header_size) / sizeof(Value));
  std::memcpy(values.data(), npy_bytes.data() + 10 + header_size, values.size() * sizeof(Value));
  return values;
}

// Integers from -4 to 4: products of up to 128 pairs of them are exact in half precision.
std::vector<float> small_integers(size_t count, uint32_t seed) {
  std::vector<float> values(count);
  for (float& value : values) {
    seed = seed * 1664525u + 1013904223u;
    value = static_cast<float>(static_cast<int>(seed >> 16) % 9 - 4);
  }
  return values;
}

// Halves take integers of up to 11 bits.
std::string integer_npy(const std::vector<float>& values, size_t n_col, bool f16) {
  const std::string shape = text("(", values.size() / n_col, ", ", n_col, ")");
  if (!f16) return npy("<f4", shape, bytes_of(values));
  std::vector<uint16_t> halves;
  for (const float value : values) {
    const auto bits = std::bit_cast<uint32_t>(value);
    const uint32_t magnitude = value == 0 ? 0 : (bits >> 13 & 0x3ffff) - (112 << 10);
    halves.push_back(static_cast<uint16_t>((bits >> 16 & 0x8000) | magnitude));
  }
  return npy("<f2", shape, bytes_of(halves));
}

// What follows the label, up to the end of its line, each time.
std::multiset<std::string> all_after(const std::string& label, const std::string& report) {
  std::multiset<std::string> found;
  for (size_t at = report.find(label); at != std::string::npos; at = report.find(label, at + 1))
    found.insert(report.substr(at + label.size(), report.find('\n', at) - at - label.size()));
  return found;
}

// Runs the tool in a directory of its own.
class ToolTest : public testing::Test {
 protected:
  ToolTest() : directory_(fs::path(testing::TempDir()) / ("morun_tool_test." + std::to_string(getpid()))) {
    fs::create_directories(directory_ / "work");
  }
  ~ToolTest() override { fs::remove_all(directory_); }

  Outcome run(const std::string& arguments) const {
    const std::string command =
        "cd '" + work() + "' && >../out 2>../err </dev/null " MORUN_RUNNER " '" MORUN_TOOL_PATH "' " + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(directory_ / "out"), contents(directory_ / "err")};
  }

  std::string report(const std::string& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  std::string work() const { return directory_ / "work"; }
  std::string file(const std::string& name) const { return contents(fs::path(work()) / name); }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(fs::path(work()) / name, std::ios::binary) << bytes;
  }

  const fs::path directory_;
};

TEST_F(ToolTest, RealTextIsReadAsAccuratelyAsTheWeightsAllow) {
  const fs::path data = fs::path(MORUN_DATA_DIR) / "ocr";
  if (!fs::exists(data)) GTEST_SKIP() << "no real matrices at " << data;
  fs::create_directory_symlink(data, fs::path(work()) / "ocr");
  constexpr size_t n_col = 6656, n_class = 6625;
  const std::string attend =
      "attention_x.npy --qkv ocr/attention_q.npy ocr/attention_k.npy ocr/attention_v.npy -o q k v";
  const std::string label = "relative Frobenius error ";
  const auto expected = values_of<int32_t>(file("ocr/classifier_y.npy"));
  for (const auto& [kind, n_same_min, classifier_error_max, attention_error_max] :
       {std::tuple{"f16", 88u, 0.0005, 0.0005}, {"a8w8", 86u, 0.003, 0.012}, {"a8w4", 83u, 0.03, 0.1}}) {
    SCOPED_TRACE(kind);
    const std::string mm = text("mm --check --weights ", kind, " ocr/");
    auto errors = all_after(label, report(mm + "classifier_x.npy ocr/classifier_w.npy -o y.npy"));
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_LE(std::stod(*errors.begin()), classifier_error_max);

    const auto y = values_of<float>(file("y.npy"));
    ASSERT_EQ(y.size(), expected.size() * n_col);
    size_t n_same = 0;
    for (size_t r = 0; r < expected.size(); ++r)
      n_same += std::max_element(&y[r * n_col], &y[r * n_col + n_class]) - &y[r * n_col] == expected[r];
    EXPECT_GE(n_same, n_same_min);

    errors = all_after(label, report(mm + attend));
    ASSERT_EQ(errors.size(), 3u);
    for (const std::string& error : errors) EXPECT_LE(std::stod(error), attention_error_max);
  }
}

// Whole numbers that quantise with a scale of exactly 1: even columns have the whole range of the levels, odd ones
// their count and 1. Padding that counted as a value would change the scale. Without levels they are exact as halves.
std::vector<float> weights(size_t n_inner, size_t n_col, int levels, uint32_t seed) {
  std::vector<float> w = small_integers(n_inner * n_col, seed);
  for (size_t i = 0; levels > 0 && i < w.size(); ++i) {
    const size_t k = i / n_col;
    const float low = i % n_col % 2 == 0 ? static_cast<float>(-levels / 2) : 1;
    const float high = low + static_cast<float>(levels - 1);
    w[i] = k == 0 ? low : k == 1 ? high : std::clamp(w[i], low, high);
  }
  return w;
}

// A column of positive values alone starts at the lowest zero point, and so loses its largest value.
std::vector<float> product(const std::vector<float>& x, const std::vector<float>& w, size_t n_inner, int levels) {
  const size_t n_col = w.size() / n_inner;
  const float largest = levels > 0 ? static_cast<float>(levels - 1) : INFINITY;
  std::vector<float> y(x.size() / n_inner * n_col);
  for (size_t i = 0; i < y.size(); ++i)
    for (size_t k = 0; k < n_inner; ++k)
      y[i] += x[i / n_col * n_inner + k] * std::min(w[k * n_col + i % n_col], largest);
  return y;
}

TEST_F(ToolTest, ProductsOfAnyShapeAndTypeAreExactWhereTheirWeightsAre) {
  // Rows, inner size, columns of the first and of the other weights, whether x and w are halves, number of weights.
  const std::tuple<size_t, size_t, size_t, size_t, bool, bool, size_t> cases[] = {
      {1, 1, 1, 1, false, false, 1},       {1, 2, 1, 1, true, false, 1},      {65, 33, 65, 65, false, true, 1},
      {32, 64, 96, 96, true, true, 1},     {33, 64, 32, 32, false, false, 2}, {67, 45, 40, 9, false, false, 3},
      {1100, 40, 33, 33, false, false, 1}, {2049, 3, 31, 31, true, false, 1}, {1, 1, 1048577, 1048577, true, true, 1}};
  const char* const files[] = {"w0.npy -o y0.npy", "--pair w0.npy w1.npy -o y0.npy y1.npy",
                               "--qkv w0.npy w1.npy w2.npy -o y0.npy y1.npy y2.npy"};
  for (const auto& [n_row, n_inner, n_col_first, n_col_other, x_f16, w_f16, n_weights] : cases) {
    for (const auto& [kind, levels] : {std::tuple{"f16", 0}, {"a8w8", 256}, {"a8w4", 16}}) {
      if (levels > 0 && n_inner == 1) continue;  // one value has no range
      SCOPED_TRACE(testing::Message() << kind << " " << n_row << " x " << n_inner << " x " << n_col_first);
      std::vector<float> x = small_integers(n_row * n_inner, 1);
      for (size_t r = 0; levels > 0 && r < n_row; ++r) x[r * n_inner + r % n_inner] = r % 2 == 0 ? 127 : -127;
      write("x.npy", integer_npy(x, n_inner, x_f16));
      std::vector<std::vector<float>> expected;
      for (size_t i = 0; i < n_weights; ++i) {
        const size_t n_col = i == 0 ? n_col_first : n_col_other;
        const auto w = weights(n_inner, n_col, levels, static_cast<uint32_t>(2 + i));
        write(text("w", i, ".npy"), integer_npy(w, n_col, w_f16));
        expected.push_back(product(x, w, n_inner, levels));
      }

      const auto output = report(text("mm x.npy ", files[n_weights - 1], " --check --repeat 2 --weights ", kind));
      EXPECT_TRUE(levels > 0 || output.find("deviation 0 absolute, 0 relative") != std::string::npos) << output;
      for (size_t i = 0; i < n_weights; ++i)
        EXPECT_TRUE(values_of<float>(file(text("y", i, ".npy"))) == expected[i]) << "result " << i;
    }
  }
}

TEST_F(ToolTest, FortranOrderIsRead) {
  write("x.npy", npy("<f4", "(2, 3)", bytes_of<float>({1, 4, 2, 5, 3, 6}), "True"));
  write("w.npy", npy("<f4", "(3, 1)", bytes_of<float>({100, 10, 1})));
  report("mm x.npy w.npy -o y.npy");
  EXPECT_EQ(values_of<float>(file("y.npy")), (std::vector<float>{123, 456}));
}

TEST_F(ToolTest, CheckComparesWithTheValuesAsGiven) {
  const std::tuple<std::vector<float>, float, const char*, const char*> cases[] = {
      {{1 + 0x1p-12f, -0.5f}, 1, "0.000244 absolute, 0.000244 relative to the largest value 1\n", "error 0.000218\n"},
      {{1, 70000}, 1, "inf absolute, inf relative to the largest value 7e+04\n", "error inf\n"},
      {{1, 70000}, 0, "inf absolute, inf relative to the largest value 0\n", ""},
      {{1, INFINITY}, 1, "0 absolute, 0 relative to the largest value 1\n", "1 elements are not finite"}};
  for (const auto& [x, w, deviation, rest] : cases) {
    write("x.npy", npy("<f4", "(2, 1)", bytes_of(x)));
    write("w.npy", npy("<f4", "(1, 1)", bytes_of<float>({w})));
    const std::string output = report("mm x.npy w.npy -o y.npy --check");
    EXPECT_NE(output.find(text("largest deviation ", deviation)), std::string::npos) << output;
    EXPECT_NE(output.find(rest), std::string::npos) << output;
  }
}

TEST_F(ToolTest, EveryErrorIsOneLineAndLeavesNoFileBehind) {
  const std::tuple<const char*, const char*, size_t> files[] = {
      {"x", "(2, 3)", 6},       {"w", "(3, 2)", 6},
      {"w1", "(3, 1)", 3},      {"w4", "(4, 2)", 8},
      {"cube", "(2, 3, 1)", 6}, {"empty", "(0, 3)", 0},
      {"short", "(2, 3)", 5},   {"overflow", "(4294967296, 4294967296)", 4}};
  for (const auto& [name, shape, n_value] : files)
    write(text(name, ".npy"), npy("<f4", shape, std::string(4 * n_value, '\0')));
  write("big_endian.npy", npy(">f4", "(2, 3)", std::string(24, '\0')));
  write("header.npy", npy("<f4", "(2, 3)", "").substr(0, 30));
  write("wide_x.npy", npy("<f2", "(1, 131072)", std::string(262144, '\0')));
  write("wide_w.npy", npy("<f2", "(131072, 131072)", ""));
  fs::resize_file(fs::path(work()) / "wide_w.npy", (uint64_t{1} << 35) + 128);  // sparse files

  const std::tuple<const char*, const char*> cases[] = {
      {"", "subcommand"},
      {"mm nowhere.npy w.npy -o y.npy", "nowhere.npy: No such file"},
      {"mm header.npy w.npy -o y.npy", "header.npy: not a .npy file"},
      {"mm big_endian.npy w.npy -o y.npy", ">f4"},
      {"mm cube.npy w.npy -o y.npy", "rank 3"},
      {"mm empty.npy w.npy -o y.npy", "empty (0 x 3)"},
      {"mm short.npy w.npy -o y.npy", "holds 5 values"},
      {"mm overflow.npy w.npy -o y.npy", "holds 4 values"},
      {"mm x.npy w4.npy -o y.npy", "x.npy has 3 columns and w4.npy has 4 rows"},
      {"mm wide_x.npy wide_w.npy -o y.npy", "131072 x 131072 are too large"},
      {"mm x.npy w.npy -o nowhere/y.npy", "nowhere/y.npy: cannot be written: No such file"},
      {"mm x.npy w.npy -o /dev/full", "/dev/full: cannot be written: No space left"},
      {"mm x.npy -o y.npy", "one of W, --pair and --qkv"},
      {"mm x.npy --pair w.npy w.npy -o y.npy", "2 weights give as many results, and --output names 1"},
      {"mm x.npy --pair w.npy w.npy -o y.npy y.npy", "y.npy: every result needs a file of its own"},
      {"mm x.npy --qkv w.npy w.npy w1.npy -o q.npy k.npy v.npy", "w.npy has 2 columns and w1.npy has 1"},
      {"verify --kernel nonsense", "no kernel has nonsense in its name"},
      {"bench --kernel npu_test", "names no product"},
      {"bench --shape 64x64", "is not three numbers"},
      {"bench --shape 64x64x33", "multiples of 32"},
      {"bench --shape 999999999x32x32", "the DSP cannot be opened"},
      {"info >/dev/full", "standard output"},
  };
  const auto n_file = [&] { return std::distance(fs::directory_iterator(work()), fs::directory_iterator()); };
  const auto n_file_before = n_file();
  for (const auto& [arguments, part_of_line] : cases) {
    SCOPED_TRACE(arguments);
    const Outcome outcome = run(arguments);
    EXPECT_GT(outcome.status, 0);
    EXPECT_EQ(outcome.err.rfind("morun: ", 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    EXPECT_NE(outcome.err.find(part_of_line), std::string::npos) << outcome.err;
    EXPECT_EQ(n_file(), n_file_before);
  }
}

TEST_F(ToolTest, VerifyHoldsEveryKernelToItsDefinition) {
  const std::string output = report("verify --quick");
  const std::string refused_v = "V runs in K's session, which does not map it";
  const std::string turned = "the weights' data are taken as n_col rows of n_inner", packed = "Y is packed";
  const std::pair<std::string, size_t> expected[] = {{refused_v, 4},
                                                     {"K is of earlier sums in A1, " + refused_v, 2},
                                                     {"F is of earlier sums in A1", 2},
                                                     {"K and V are of earlier sums in A1 and A2", 1},
                                                     {"it runs on session 0, which does not map the weights", 1},
                                                     {turned, 18},
                                                     {turned + ", " + packed, 2},
                                                     {packed, 1}};
  std::multiset<std::string> notes;
  for (const auto& [note, count] : expected)
    for (size_t i = 0; i < count; ++i) notes.insert(note);
  EXPECT_EQ(all_after("  by design: ", output), notes);
  EXPECT_TRUE(output.ends_with("239 calls: 208 good, 31 by design, 0 failed, 0 left out\n")) << output;
}

TEST_F(ToolTest, BenchWritesWhatGoogleBenchmarkWrites) {
  const std::string f32 = "tavik_npu_mm_f32_rm_f32_rm_f16_wh";
  report("bench --kernel " + f32 + " --shape 33x64x96 --json b.json");
  const auto benchmarks = nlohmann::json::parse(file("b.json")).at("benchmarks");
  std::vector<std::string> names;
  for (const auto& entry : benchmarks) {
    names.push_back(entry.at("name"));
    EXPECT_GE(entry.at("iterations"), 5);
    EXPECT_GT(entry.at("real_time"), 0);
  }
  const std::string run = f32 + "/33x64x96/";
  ASSERT_EQ(names, (std::vector<std::string>{run + "call", run + "convert", run + "remote"}));
  EXPECT_GT(benchmarks[0].at("operations_per_second"), 0);
  EXPECT_GT(benchmarks[0].at("convert_share"), 0);
}

TEST_F(ToolTest, InfoIsOneJsonDocumentWhateverThePlatformLacks) {
  const auto info = nlohmann::json::parse(report("info --json"));
  EXPECT_EQ(info.at("library").at("version"), "1.0.0");
  EXPECT_NE(info.at("platform").at("library").dump().find("libparlo.so"), std::string::npos);
  EXPECT_FALSE(info.at("domains").empty());
  EXPECT_EQ(info.at("compute_dsp").at("architecture"), 73);
  const nlohmann::json same = {
      {"library", "1_0_0_beta1_VEYRA_V73"}, {"dsp_module", "1_0_0_beta1_VEYRA_V73"}, {"status", 0}};
  EXPECT_EQ(info.at("version_query"), same);
  EXPECT_NE(report("info").find("1.0.0 beta1"), std::string::npos);

  const fs::path build = fs::path(MORUN_TOOL_PATH).parent_path().parent_path();
  setenv("LD_LIBRARY_PATH", (build / "lib" / "minimal").c_str(), 1);
  const Outcome outcome = run("info --json");
  unsetenv("LD_LIBRARY_PATH");
  const auto minimal = nlohmann::json::parse(outcome.out);
  EXPECT_NE(outcome.err.find("Get NPU arch failed"), std::string::npos) << outcome.err;
  EXPECT_EQ(minimal.at("version_query").at("status"), 1);
  EXPECT_TRUE(minimal.at("domains").is_null() && minimal.at("compute_dsp").is_null()) << minimal;
  EXPECT_EQ(minimal.at("dsp_module").at("version"), "1.0.0 beta1");
}

TEST_F(ToolTest, HostAndDspGreet) {
  const Outcome outcome = run("hello");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(all_after(" says answer to life, universe and everything is 42", outcome.err).size(), 2u) << outcome.err;
  EXPECT_NE(outcome.err.find("veyra says answer"), std::string::npos) << outcome.err;
}

TEST_F(ToolTest, MakeIsRepeatable) {
  report("make 5 7 -o a.npy --f16");
  report("make 5 7 -o b.npy --f16");
  report("make 5 7 -o c.npy --f16 --seed 2");
  EXPECT_EQ(values_of<uint16_t>(file("a.npy")).size(), 35u);
  EXPECT_EQ(file("a.npy"), file("b.npy"));
  EXPECT_NE(file("a.npy"), file("c.npy"));
}

}  // namespace
