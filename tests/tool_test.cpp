// The command-line tool as its users have it: started as a program, judged by its files, its output and its exit
// status. MORUN_TOOL_PATH and MORUN_RUNNER (an emulator of the target's processor, or nothing) come from the build.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

std::string contents(const fs::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// A .npy file of format 1.0 as text; `shape` as Python writes it.
std::string npy(const std::string& type, const std::string& shape, const std::string& bytes,
                const std::string& fortran_order = "False") {
  const std::string header =
      "{'descr': '" + type + "', 'fortran_order': " + fortran_order + ", 'shape': " + shape + ", }\n";
  return std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(header.size()) + '\0' + header + bytes;
}

template <typename Value>
std::string bytes_of(const std::vector<Value>& values) {
  return {reinterpret_cast<const char*>(values.data()), values.size() * sizeof(Value)};
}

template <typename Value>
std::vector<Value> values_of(const std::string& npy_bytes) {
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

uint16_t half_of_small_integer(float value) {
  constexpr uint16_t halves[] = {0, 0x3c00, 0x4000, 0x4200, 0x4400};
  return static_cast<uint16_t>(halves[std::abs(static_cast<int>(value))] | (value < 0 ? 0x8000 : 0));
}

std::string small_integer_npy(const std::vector<float>& values, size_t n_row, size_t n_col, bool f16) {
  std::ostringstream shape;
  shape << "(" << n_row << ", " << n_col << ")";
  if (!f16) return npy("<f4", shape.str(), bytes_of(values));
  std::vector<uint16_t> halves(values.size());
  std::transform(values.begin(), values.end(), halves.begin(), half_of_small_integer);
  return npy("<f2", shape.str(), bytes_of(halves));
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

  std::string work() const { return directory_ / "work"; }
  std::string file(const std::string& name) const { return contents(fs::path(work()) / name); }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(fs::path(work()) / name, std::ios::binary) << bytes;
  }
  void write_f32(const std::string& name, const std::string& shape, const std::vector<float>& values) const {
    write(name, npy("<f4", shape, bytes_of(values)));
  }
  size_t n_files() const {
    return static_cast<size_t>(std::distance(fs::directory_iterator(work()), fs::directory_iterator()));
  }

 private:
  fs::path directory_;
};

TEST_F(ToolTest, ClassifierOfRealTextPicksTheSameCharacters) {
  const fs::path data = fs::path(MORUN_DATA_DIR) / "ocr";
  if (!fs::exists(data)) GTEST_SKIP() << "no real matrices at " << data;
  const Outcome outcome =
      run("mm '" + (data / "classifier_x.npy").string() + "' '" + (data / "classifier_w.npy").string() + "' -o y.npy");
  ASSERT_EQ(outcome.status, 0) << outcome.err;

  constexpr size_t n_col = 6656;
  constexpr size_t n_class = 6625;
  const auto y = values_of<float>(file("y.npy"));
  const auto expected = values_of<int32_t>(contents(data / "classifier_y.npy"));
  ASSERT_EQ(y.size(), expected.size() * n_col);
  for (size_t r = 0; r < expected.size(); ++r) {
    const float* const row = y.data() + r * n_col;
    EXPECT_EQ(std::max_element(row, row + n_class) - row, expected[r]) << "row " << r;
  }
}

TEST_F(ToolTest, ProductsOfAnyShapeAndTypeAreExactWhereHalvesAre) {
  struct Case {
    size_t n_row, n_inner, n_col;
    bool x_f16, w_f16;
  };
  const Case cases[] = {{1, 1, 1, false, false},    {3, 5, 7, true, false},     {33, 40, 65, false, true},
                        {32, 64, 96, true, true},   {2, 128, 1, false, false},  {1100, 40, 33, false, false},
                        {2049, 3, 31, true, false}, {1, 1, 1048577, true, true}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.n_row << " x " << c.n_inner << " x " << c.n_col);
    const auto x = small_integers(c.n_row * c.n_inner, 1);
    const auto w = small_integers(c.n_inner * c.n_col, 2);
    write("x.npy", small_integer_npy(x, c.n_row, c.n_inner, c.x_f16));
    write("w.npy", small_integer_npy(w, c.n_inner, c.n_col, c.w_f16));

    const Outcome outcome = run("mm x.npy w.npy -o y.npy --check");
    ASSERT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(outcome.err, "");
    EXPECT_NE(outcome.out.find("largest deviation 0 absolute, 0 relative"), std::string::npos) << outcome.out;

    std::vector<float> expected(c.n_row * c.n_col);
    for (size_t i = 0; i < expected.size(); ++i) {
      for (size_t k = 0; k < c.n_inner; ++k)
        expected[i] += x[i / c.n_col * c.n_inner + k] * w[k * c.n_col + i % c.n_col];
    }
    EXPECT_EQ(values_of<float>(file("y.npy")), expected);
  }
}

TEST_F(ToolTest, FortranOrderIsRead) {
  write("x.npy", npy("<f4", "(2, 3)", bytes_of<float>({1, 4, 2, 5, 3, 6}), "True"));
  write_f32("w.npy", "(3, 1)", {100, 10, 1});
  ASSERT_EQ(run("mm x.npy w.npy -o y.npy --repeat 2").status, 0);
  EXPECT_EQ(values_of<float>(file("y.npy")), (std::vector<float>{123, 456}));
}

TEST_F(ToolTest, CheckComparesWithTheValuesAsGiven) {
  const struct {
    std::vector<float> x;
    float w;
    const char* report;
  } cases[] = {
      {{1 + 0x1p-12f, -0.5f}, 1, "deviation 0.000244 absolute, 0.000244 relative to the largest value 1\n"},
      {{1, 70000}, 1, "deviation inf absolute, inf relative to the largest value 7e+04\n"},
      {{1, 70000}, 0, "deviation inf absolute, inf relative to the largest value 0\n"},
      {{1, INFINITY}, 1, "value 1\n       1 elements are not finite and left out\n"},
  };
  for (const auto& c : cases) {
    write_f32("x.npy", "(2, 1)", c.x);
    write_f32("w.npy", "(1, 1)", {c.w});
    const Outcome outcome = run("mm x.npy w.npy -o y.npy --check");
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_NE(outcome.out.find(c.report), std::string::npos) << outcome.out;
  }
}

TEST_F(ToolTest, EveryErrorIsOneLineAndLeavesNoFileBehind) {
  write_f32("x.npy", "(2, 3)", std::vector<float>(6));
  write_f32("w.npy", "(3, 2)", std::vector<float>(6));
  write_f32("w4.npy", "(4, 2)", std::vector<float>(8));
  write_f32("cube.npy", "(2, 3, 1)", std::vector<float>(6));
  write_f32("empty.npy", "(0, 3)", {});
  write_f32("short.npy", "(2, 3)", std::vector<float>(5));
  write_f32("overflow.npy", "(4294967296, 4294967296)", std::vector<float>(4));
  write("i32.npy", npy("<i4", "(2, 3)", std::string(24, '\0')));
  write("big_endian.npy", npy(">f4", "(2, 3)", std::string(24, '\0')));
  write("text.npy", "1 2 3\n4 5 6\n");
  write("header.npy", npy("<f4", "(2, 3)", "").substr(0, 30));
  write("wide_x.npy", npy("<f2", "(1, 131072)", std::string(262144, '\0')));
  write("wide_w.npy", npy("<f2", "(131072, 131072)", ""));
  fs::resize_file(fs::path(work()) / "wide_w.npy", (uint64_t{1} << 35) + 128);  // sparse files
  write("one.npy", npy("<f2", "(1, 1)", "12"));
  write("long_w.npy", npy("<f2", "(1, 33554433)", ""));
  fs::resize_file(fs::path(work()) / "long_w.npy", (uint64_t{1} << 26) + 128);
  fs::create_directory(fs::path(work()) / "directory");

  const struct {
    const char* arguments;
    const char* part_of_line;
  } cases[] = {
      {"", "subcommand"},
      {"mm x.npy", "required"},
      {"mm x.npy w.npy -o y.npy --unknown", "--unknown"},
      {"mm x.npy w.npy -o y.npy --repeat 0", "--repeat"},
      {"mm nowhere.npy w.npy -o y.npy", "nowhere.npy: No such file"},
      {"mm directory w.npy -o y.npy", "directory: not a .npy file"},
      {"mm text.npy w.npy -o y.npy", "text.npy: not a .npy file"},
      {"mm header.npy w.npy -o y.npy", "header.npy: not a .npy file"},
      {"mm i32.npy w.npy -o y.npy", "<i4"},
      {"mm big_endian.npy w.npy -o y.npy", ">f4"},
      {"mm cube.npy w.npy -o y.npy", "rank 3"},
      {"mm empty.npy w.npy -o y.npy", "empty (0 x 3)"},
      {"mm short.npy w.npy -o y.npy", "holds 5 values"},
      {"mm overflow.npy w.npy -o y.npy", "holds 4 values"},
      {"mm x.npy w4.npy -o y.npy", "x.npy has 3 columns and w4.npy has 4 rows"},
      {"mm wide_x.npy wide_w.npy -o y.npy", "131072 x 131072 are too large"},
      {"mm one.npy long_w.npy -o y.npy", "the DSP cannot be opened: options ask for"},
      {"mm x.npy w.npy -o nowhere/y.npy", "nowhere/y.npy: cannot be written: No such file"},
      {"mm x.npy w.npy -o directory", "directory: cannot be written"},
      {"mm x.npy w.npy -o /dev/full", "/dev/full: cannot be written: No space left"},
      {"make 0 5 -o y.npy", "ROWS"},
      {"make 5 5 -o nowhere/y.npy", "nowhere/y.npy: cannot be written"},
      {"info >/dev/full", "standard output"},
  };
  const size_t n_files_before = n_files();
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments);
    const Outcome outcome = run(c.arguments);
    EXPECT_GT(outcome.status, 0);
    EXPECT_EQ(outcome.err.rfind("morun: ", 0), 0u) << outcome.err;
    EXPECT_EQ(outcome.err.find('\n'), outcome.err.size() - 1) << outcome.err;
    EXPECT_NE(outcome.err.find(c.part_of_line), std::string::npos) << outcome.err;
    EXPECT_EQ(n_files(), n_files_before);
  }
}

TEST_F(ToolTest, InfoIsOneJsonDocument) {
  const Outcome outcome = run("info --json");
  ASSERT_EQ(outcome.status, 0) << outcome.err;
  const auto report = nlohmann::json::parse(outcome.out, nullptr, false);
  ASSERT_FALSE(report.is_discarded()) << outcome.out;
  EXPECT_EQ(report["library"]["version"], "1.0.0");
  EXPECT_EQ(report["limits"]["n_row_max"], 1024);
  EXPECT_NE(report["platform"]["library"].dump().find("libparlo.so"), std::string::npos);
  EXPECT_FALSE(report["domains"].empty());
  EXPECT_EQ(report["compute_dsp"]["architecture"], 73);
  EXPECT_EQ(report["dsp_module"]["version"], "1.0.0 beta1");
  EXPECT_NE(run("info").out.find("1.0.0 beta1"), std::string::npos);
}

TEST_F(ToolTest, InfoTellsWhatThePlatformLacks) {
  const fs::path build = fs::path(MORUN_TOOL_PATH).parent_path().parent_path();
  setenv("LD_LIBRARY_PATH", (build / "lib" / "minimal").c_str(), 1);
  const Outcome outcome = run("info --json");
  unsetenv("LD_LIBRARY_PATH");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_EQ(outcome.err, "");
  const auto report = nlohmann::json::parse(outcome.out, nullptr, false);
  ASSERT_FALSE(report.is_discarded()) << outcome.out;
  EXPECT_TRUE(report["domains"].is_null());
  EXPECT_TRUE(report["compute_dsp"].is_null());
  EXPECT_EQ(report["dsp_module"]["version"], "1.0.0 beta1");
}

TEST_F(ToolTest, HostAndDspGreet) {
  const Outcome outcome = run("hello");
  EXPECT_EQ(outcome.status, 0);
  EXPECT_NE(outcome.err.find("host says answer to life, universe and everything is 42"), std::string::npos);
  EXPECT_NE(outcome.err.find("veyra says answer to life, universe and everything is 42"), std::string::npos);
}

TEST_F(ToolTest, MakeIsRepeatable) {
  for (const char* command :
       {"make 5 7 -o a.npy --f16", "make 5 7 -o b.npy --f16", "make 5 7 -o c.npy --f16 --seed 2"}) {
    ASSERT_EQ(run(command).status, 0);
  }
  EXPECT_EQ(values_of<uint16_t>(file("a.npy")).size(), 35u);
  EXPECT_EQ(file("a.npy"), file("b.npy"));
  EXPECT_NE(file("a.npy"), file("c.npy"));
}

}  // namespace
