// The command-line tool as its users have it: started as a program, judged by its files, its output and its exit
// status. MORUN_TOOL_PATH and MORUN_RUNNER (an emulator of the target's processor, or nothing) come from the build.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
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

// A .npy file; `shape` as Python writes it, and `type` with F behind it in Fortran order.
std::string npy(std::string type, const std::string& shape, const std::string& bytes, char version = 1) {
  const char* const order = type.ends_with("F") ? "True" : "False";
  if (type.ends_with("F")) type.pop_back();
  const auto header = text("{'descr': '", type, "', 'fortran_order': ", order, ", 'shape': ", shape, ", }\n");
  return text("\x93NUMPY", version, '\0', static_cast<char>(header.size()), '\0',
              std::string(version == 1 ? 0 : 2, '\0'), header, bytes);
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
uint16_t half_of(float value) {
  const auto bits = std::bit_cast<uint32_t>(value);
  const uint32_t magnitude = value == 0 ? 0 : (bits >> 13 & 0x3ffff) - (112 << 10);
  return static_cast<uint16_t>((bits >> 16 & 0x8000) | magnitude);
}

// The bytes of row-major values as a file of that type holds them.
std::string encoded(const std::string& type, const std::vector<float>& values, size_t n_col) {
  std::string bytes;
  const size_t n_row = values.size() / n_col;
  for (size_t i = 0; i < values.size(); ++i) {
    const float value = type.ends_with("F") ? values[i % n_row * n_col + i / n_row] : values[i];
    std::string one = type[2] == '2'   ? bytes_of<uint16_t>({half_of(value)})
                      : type[2] == '4' ? bytes_of<float>({value})
                                       : bytes_of<double>({value});
    if (type[0] == '>') std::reverse(one.begin(), one.end());
    bytes += one;
  }
  return bytes;
}

std::string matrix_npy(const std::vector<float>& values, size_t n_col, const std::string& type = "<f4") {
  return npy(type, text("(", values.size() / n_col, ", ", n_col, ")"), encoded(type, values, n_col));
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
  static constexpr char tool[] = MORUN_RUNNER " '" MORUN_TOOL_PATH "' ";

  ToolTest() : directory_(fs::path(testing::TempDir()) / ("morun_tool_test." + std::to_string(getpid()))) {
    fs::create_directories(directory_ / "work");
  }
  ~ToolTest() override { fs::remove_all(directory_); }

  // `before`: shell commands.
  Outcome run(const std::string& arguments, const std::string& before = "") const {
    const std::string command = "cd '" + work() + "' && " + before + " >../out 2>../err </dev/null " + tool + arguments;
    const int status = std::system(command.c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, contents(directory_ / "out"), contents(directory_ / "err")};
  }

  std::string report(const std::string& arguments) const {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // All files, with what they hold.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> all;
    std::error_code is_a_loop;
    for (const auto& entry : fs::directory_iterator(work()))
      if (entry.is_regular_file(is_a_loop)) all[entry.path().filename()] = contents(entry.path());
    return all;
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
  // Rows, inner size, columns of the first and of the other weights, types of x and w, number of weights.
  const std::tuple<size_t, size_t, size_t, size_t, const char*, const char*, size_t> cases[] = {
      {1, 1, 1, 1, "<f4", "<f4", 1},          {1, 2, 1, 1, "<f2", "=f4", 1},
      {65, 33, 65, 65, ">f4", "<f2F", 1},     {32, 64, 96, 96, "<f2", "<f2", 1},
      {33, 64, 32, 32, "<f4F", "<f4", 2},     {67, 45, 40, 9, "<f4", ">f2", 3},
      {1100, 40, 33, 33, "<f4F", ">f4F", 1},  {2049, 3, 31, 31, "<f2F", "<f4", 1},
      {2, 40, 40000, 40000, "<f4", "<f2", 1}, {1, 1, 1048577, 1048577, "<f2", "<f2", 1}};
  const char* const files[] = {"w0.npy -o y0.npy", "--pair w0.npy w1.npy -o y0.npy y1.npy",
                               "--qkv w0.npy w1.npy w2.npy -o y0.npy y1.npy y2.npy"};
  for (const auto& [n_row, n_inner, n_col_first, n_col_other, x_type, w_type, n_weights] : cases) {
    for (const auto& [kind, levels] : {std::tuple{"f16", 0}, {"a8w8", 256}, {"a8w4", 16}}) {
      if (levels > 0 && n_inner == 1) continue;  // one value has no range
      SCOPED_TRACE(testing::Message() << kind << " " << n_row << " x " << n_inner << " x " << n_col_first);
      std::vector<float> x = small_integers(n_row * n_inner, 1);
      for (size_t r = 0; levels > 0 && r < n_row; ++r) x[r * n_inner + r % n_inner] = r % 2 == 0 ? 127 : -127;
      write("x.npy", matrix_npy(x, n_inner, x_type));
      std::vector<std::vector<float>> expected;
      for (size_t i = 0; i < n_weights; ++i) {
        const size_t n_col = i == 0 ? n_col_first : n_col_other;
        const auto w = weights(n_inner, n_col, levels, static_cast<uint32_t>(2 + i));
        write(text("w", i, ".npy"), matrix_npy(w, n_col, w_type));
        expected.push_back(product(x, w, n_inner, levels));
      }

      const auto output = report(text("mm x.npy ", files[n_weights - 1], " --check --repeat 2 --weights ", kind));
      EXPECT_TRUE(levels > 0 || output.find("deviation 0 absolute, 0 relative") != std::string::npos) << output;
      for (size_t i = 0; i < n_weights; ++i)
        EXPECT_TRUE(values_of<float>(file(text("y", i, ".npy"))) == expected[i]) << "result " << i;
    }
  }
}

TEST_F(ToolTest, EveryFormOfMatrixFileIsReadAndRoundingIsSaid) {
  const std::vector<float> x = {1, 2, 3, 4, 5, 6};
  const std::string rounded = "morun: warning: x.npy: its values are f64 and are rounded to f32\n";
  const std::string dictionary = "{ \"shape\":(2L,3L) ,'fortran_order':False,\"descr\":\"<f4\"}", fill(7, ' ');
  const std::string other_order = text("\x93NUMPY\x01", '\0', static_cast<char>(dictionary.size() + 7), '\0');
  const std::tuple<std::string, std::vector<float>, std::string> cases[] = {
      {npy("<f8", "(2, 3)", encoded("<f8", x, 3)), {123, 456}, rounded},
      {npy(">f8F", "(2, 3)", encoded(">f8F", x, 3), 2), {123, 456}, rounded},
      {npy("<f8", "(3,)", bytes_of<double>({1 + 0x1p-30, 2, 3 - 0x1p-30})), {123}, rounded},
      {npy(">f2", "(2, 3)", encoded(">f2", x, 3), 3), {123, 456}, ""},
      {npy("<f4F", "(3,)", bytes_of<float>({4, 5, 6})), {456}, ""},
      {other_order + dictionary + fill + encoded("<f4", x, 3) + "more", {123, 456}, ""}};
  write("w.npy", matrix_npy({100, 10, 1}, 1));
  for (const auto& [bytes, y, warning] : cases) {
    write("x.npy", bytes);
    const Outcome outcome = run("mm x.npy w.npy -o y.npy");
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, warning);
    EXPECT_EQ(values_of<float>(file("y.npy")), y) << bytes;
  }
}

TEST_F(ToolTest, CheckComparesWithTheValuesAsGivenAndOddOperandsAreWarnedOf) {
  const std::string range = " values are beyond the range of f16, which ends at 65504, and become infinite\n";
  const std::tuple<std::vector<float>, float, const char*, const char*, const char*, std::string> cases[] = {
      {{1 + 0x1p-12f, -0.5f},
       1,
       "f16",
       "0.000244 absolute, 0.000244 relative to the largest value 1\n",
       "error 0.000218\n",
       ""},
      {{1, -65519},
       1,
       "f16",
       "15 absolute, 0.000229 relative to the largest value 6.552e+04\n",
       "error 0.000229\n",
       ""},
      {{1, -65520},
       1,
       "f16",
       "inf absolute, inf relative to the largest value 6.552e+04\n",
       "error inf\n",
       "x.npy: 1 of 2" + range},
      {{70000, 70000}, 0, "f16", "inf absolute, inf relative to the largest value 0\n", "", "x.npy: 2 of 2" + range},
      {{1, 1},
       NAN,
       "f16",
       "0 absolute, 0 relative to the largest value 0\n",
       "2 elements are not finite",
       "w.npy: 1 of 1 values are NaN\n"},
      {{1, 70000}, 70000, "a8w8", "inf absolute", "", "w.npy: 1 of 1" + range},
      {{1, INFINITY}, 1, "a8w4", "", "1 elements are not finite", "x.npy: 1 of 2 values are infinite\n"},
      {{1, INFINITY},
       1,
       "f16",
       "0 absolute, 0 relative to the largest value 1\n",
       "1 elements are not finite",
       "x.npy: 1 of 2" + range}};
  for (const auto& [x, w, kind, deviation, rest, warning] : cases) {
    write("x.npy", matrix_npy(x, 1));
    write("w.npy", matrix_npy({w}, 1));
    const Outcome outcome = run(text("mm x.npy w.npy -o y.npy --check --weights ", kind));
    EXPECT_EQ(outcome.status, 0);
    EXPECT_NE(outcome.out.find(text("largest deviation ", deviation)), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find(rest), std::string::npos) << outcome.out;
    EXPECT_EQ(outcome.err, warning.empty() ? "" : "morun: warning: " + warning);
  }
}

TEST_F(ToolTest, EveryErrorIsOneLineWithItsCauseAndLeavesAllFilesAsTheyWere) {
  const std::tuple<const char*, const char*, size_t> shapes[] = {{"x", "(2, 3)", 6},
                                                                 {"w", "(3, 2)", 6},
                                                                 {"w1", "(3, 1)", 3},
                                                                 {"w4", "(4, 2)", 8},
                                                                 {"no", "()", 1},
                                                                 {"overflow", "(4294967296, 4294967296)", 4},
                                                                 {"cube", "(2, 3, 1)", 6},
                                                                 {"0", "(0, 3)", 0},
                                                                 {"long", "(99999999999999999999, 1)", 4},
                                                                 {"short", "(2, 3)", 5},
                                                                 {"int", "6", 6},
                                                                 {"deep", "((((((((((((((((", 6},
                                                                 {"minus", "(2, -3)", 6},
                                                                 {"word", "(x,)", 6},
                                                                 {"extents",
                                                                  "(1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,1,"
                                                                  "1,1,1,1,1,1,1,1,1,1)",
                                                                  1},
                                                                 {"open", "(2 3)", 6}};
  for (const auto& [name, shape, n_value] : shapes)
    write(text(name, ".npy"), npy("<f4", shape, std::string(4 * n_value, '\0')));
  write("integer.npy", npy("<i4", "(2, 3)", std::string(24, '\0')));
  write("magic.npy", "NUMPY" + npy("<f4", "(2, 3)", ""));
  write("version.npy", npy("<f4", "(2, 3)", "", 4));
  write("cut.npy", npy("<f4", "(2, 3)", "").substr(0, 30));
  write("huge.npy", std::string("\x93NUMPY\x02\0\x01\0\x01\0", 12));
  const auto with_dictionary = [](const std::string& dictionary) {
    return text(std::string("\x93NUMPY\x02\0", 8), static_cast<char>(dictionary.size() & 255),
                static_cast<char>(dictionary.size() >> 8), std::string(2, '\0'), dictionary);
  };
  const std::string rest = "'fortran_order': False, 'shape': (2, 3)}";
  write("digits.npy", with_dictionary("{'descr': '<f" + std::string(30000, '4') + "', " + rest));
  write("record.npy", with_dictionary("{'descr': [('a', '<f4')], " + rest));
  write("twice.npy", with_dictionary("{'shape': (2, 3), 'descr': '<f4', " + rest));
  write("key.npy", with_dictionary("{'colour': '<f4', " + rest));
  write("missing.npy", with_dictionary("{" + rest));
  write("behind.npy", with_dictionary("{'descr': '<f4', " + rest + " {}"));
  write("quote.npy", with_dictionary("{'descr: "));
  write("order.npy", with_dictionary("{'fortran_order': 1}"));
  write("wide_x.npy", npy("<f2", "(1, 131072)", std::string(262144, '\0')));
  fs::create_directory(fs::path(work()) / "folder");
  mkfifo((fs::path(work()) / "fifo").c_str(), 0600);
  fs::create_symlink("loop", fs::path(work()) / "loop");
  const auto before = files();
  const std::string wide_w = "/wide_w.npy", not_readable = ": not a .npy file that can be read (";
  std::ofstream(directory_ / "wide_w.npy", std::ios::binary) << npy("<f2", "(131072, 131072)", "");
  fs::resize_file(directory_ / "wide_w.npy", (uint64_t{1} << 35) + 128);  // a sparse file

  // Command line, status, line. Where the line starts with ':', the command line is that of a product of this file.
  const std::tuple<std::string, int, std::string> cases[] = {
      {"", 2, "a command is required: info, hello, mm, verify, bench, make"},
      {"inof", 2, "there is no command inof; did you mean info?"},
      {"multiply", 2, "there is no command multiply; there are info, hello, mm, verify, bench, make"},
      {"--vresion", 2, "there is no option --vresion; did you mean --version?"},
      {"mm x.npy w.npy --ouput=y.npy", 2, "mm: there is no option --ouput; did you mean --output?"},
      {"mm x.npy w.npy -o y.npy --chekc", 2, "mm: there is no option --chekc; did you mean --check?"},
      {"info -x", 2, "info: there is no option -x; there are --help, --json"},
      {"mm x.npy w.npy -o y.npy --weights a8", 2, "--weights: a8 not in {f16,a8w8,a8w4}"},
      {"mm x.npy -o y.npy", 2, "mm: one of W, --pair and --qkv is required"},
      {"mm x.npy --pair w.npy w.npy -o y.npy", 2, "--output: 2 weights give as many results, and 1 are named"},
      {"bench --shape 64x64", 2, "--shape: 64x64 is not three numbers as in 64x1024x1024"},
      {"nowhere", 1, ": No such file or directory"},
      {"folder", 1, ": it is a directory, not a .npy file"},
      {"fifo", 1, ": it is a pipe; matrices are read from files"},
      {"/dev/zero", 1, ": it is a device; matrices are read from files"},
      {"magic.npy", 1, not_readable + "the file does not start as one)"},
      {"version.npy", 1, not_readable + "its format version 4 is not 1, 2 or 3)"},
      {"cut.npy", 1, not_readable + "the file is cut short)"},
      {"huge.npy", 1, not_readable + "its header has 65537 bytes, more than 65536)"},
      {"digits.npy", 1, not_readable + "descr names no type)"},
      {"record.npy", 1, not_readable + "its values are records or arrays)"},
      {"twice.npy", 1, not_readable + "its dictionary has a key twice)"},
      {"key.npy", 1, not_readable + "its dictionary has an unknown key)"},
      {"missing.npy", 1, not_readable + "descr, fortran_order or shape is missing)"},
      {"behind.npy", 1, not_readable + "something stands behind its dictionary)"},
      {"quote.npy", 1, not_readable + "a quotation mark is not closed)"},
      {"order.npy", 1, not_readable + "fortran_order is neither True nor False)"},
      {"minus.npy", 1, not_readable + "an extent of its shape is negative)"},
      {"long.npy", 1, not_readable + "an extent of its shape has more than 64 bits)"},
      {"word.npy", 1, not_readable + "an extent of its shape is no number)"},
      {"extents.npy", 1, not_readable + "its shape has more than 32 extents)"},
      {"deep.npy", 1, not_readable + "an extent of its shape is no number)"},
      {"int.npy", 1, not_readable + "( is missing at byte 50 of its dictionary)"},
      {"open.npy", 1, not_readable + ") is missing at byte 53 of its dictionary)"},
      {"integer.npy", 1, ": values are of type <i4, which is none of f16 (f2), f32 (f4) and f64 (f8)"},
      {"no.npy", 1, ": an array of rank 0, not a matrix"},
      {"cube.npy", 1, ": an array of rank 3, not a matrix"},
      {"0.npy", 1, ": the matrix is empty (0 x 3)"},
      {"short.npy", 1, ": holds 5 values, fewer than its shape 2 x 3 has"},
      {"overflow.npy", 1, ": holds 4 values, fewer than its shape 4294967296 x 4294967296 has"},
      {"mm x.npy w4.npy -o y.npy", 1, "x.npy has 3 columns and w4.npy has 4 rows; the numbers must be equal"},
      {"mm x.npy --qkv w.npy w.npy w1.npy -o q.npy k.npy v.npy", 1,
       "w.npy has 2 columns and w1.npy has 1; the numbers must be equal"},
      {"mm wide_x.npy .." + wide_w + " -o y.npy", 1,
       "weights of 131072 x 131072 are too large: with 16 bits a value they take more than the 4294967295 bytes that "
       "the DSP addresses"},
      {"mm x.npy w.npy -o nowhere/y.npy", 1, "nowhere/y.npy: cannot be written: No such file or directory"},
      {"mm x.npy w.npy -o x.npy/y.npy", 1, "x.npy/y.npy: cannot be written: Not a directory"},
      {"mm x.npy w.npy -o folder", 1, "folder: cannot be written: it is a directory"},
      {"mm x.npy w.npy -o loop", 1, "loop: cannot be written: Too many levels of symbolic links"},
      {"mm x.npy w.npy -o ''", 1, ": cannot be written: No such file or directory"},
      {"make 5 7 -o /dev/full", 1, "/dev/full: cannot be written: No space left on device"},
      {"mm x.npy --pair w.npy w.npy -o y.npy ./y.npy", 1, "./y.npy: every result needs a file of its own"},
      {"mm x.npy --pair w.npy w.npy -o x.npy folder/../x.npy", 1,
       "folder/../x.npy: every result needs a file of its own"},
      {"verify --kernel nonsense", 1, "no kernel has nonsense in its name; the --help lists them"},
      {"bench --kernel npu_test", 1, "npu_test names no product to be timed"},
      {"bench --shape 64x64x33", 1, "--shape: columns and inner dimension are multiples of 32, and no number is 0"},
      {"bench --json nowhere/b", 1, "nowhere/b: cannot be written: No such file or directory"},
      {"info >/dev/full", 1, "standard output cannot be written: No space left on device"},
      {"--help >/dev/full", 1, "standard output cannot be written: No space left on device"}};
  for (const auto& [given, status, line] : cases) {
    const bool is_file = line[0] == ':' && line.find("cannot") == line.npos;
    SCOPED_TRACE(given);
    const Outcome outcome = run(is_file ? "mm " + given + " w.npy -o y.npy" : given, "export PARLO_TRACE=1; ");
    EXPECT_EQ(outcome.status, status);
    if (given.starts_with("info"))
      EXPECT_TRUE(outcome.err.ends_with("morun: " + line + "\n")) << outcome.err;  // behind its calls
    else
      EXPECT_EQ(outcome.err, "morun: " + (is_file ? given : "") + line + "\n");
    EXPECT_TRUE(files() == before);
  }
  for (const char* const command : {"info", "hello", "--help", "--version", "make 5 7 -o y.npy", "bench",
                                    "mm x.npy w.npy -o y.npy", "mm x.npy w.npy -o -"}) {
    const Outcome outcome = run(text(command, " >&-"));
    EXPECT_EQ(outcome.status, 1) << command;
    EXPECT_EQ(outcome.err, "morun: standard output cannot be written: Bad file descriptor\n");
    EXPECT_TRUE(files() == before);
  }
}

TEST_F(ToolTest, OutputAppearsWholeOrNotAtAll) {
  const auto mode = [&](const char* name) {
    return static_cast<unsigned>(fs::status(fs::path(work()) / name).permissions());
  };
  report("make 64 64 -o old.npy");
  const std::string old = file("old.npy");

  // A replaced file keeps its permissions and a link stays one; a new file has the usual ones.
  fs::permissions(fs::path(work()) / "old.npy", fs::perms(0640));
  fs::create_symlink("old.npy", fs::path(work()) / "link");
  fs::create_symlink("new.npy", fs::path(work()) / "dangling");
  EXPECT_EQ(run("make 5 7 -o link").status, 0);
  EXPECT_EQ(run("make 5 7 -o dangling", "umask 027; ").status, 0);
  write("i.npy", matrix_npy({1}, 1));
  EXPECT_EQ(run("mm i.npy --pair i.npy i.npy -o first.npy second.npy", "umask 027; ").status, 0);
  for (const char* const name : {"old.npy", "new.npy", "first.npy", "second.npy"}) EXPECT_EQ(mode(name), 0640u) << name;
  EXPECT_TRUE(fs::is_symlink(fs::path(work()) / "link") && fs::is_symlink(fs::path(work()) / "dangling"));
  EXPECT_NE(file("old.npy"), old);
  EXPECT_EQ(file("old.npy"), file("new.npy"));

  // Standard output and pipes take the bytes as they come; the report goes elsewhere.
  EXPECT_EQ(run("make 5 7 -o -").out, file("new.npy"));
  EXPECT_EQ(run("make 5 7 -o fifo & cat fifo >../out; wait", "mkfifo fifo; ").out, file("new.npy"));
  write("x.npy", matrix_npy({5}, 1));
  Outcome outcome = run("mm x.npy i.npy -o - --check");
  EXPECT_EQ(outcome.out.size(), 132u);
  EXPECT_EQ(values_of<float>(outcome.out), std::vector<float>{5});
  EXPECT_TRUE(outcome.err.starts_with("shape  1 x 1 = (1 x 1) * (1 x 1), 1 band\n")) << outcome.err;
  EXPECT_EQ(run("mm x.npy i.npy -o - 2>&- <&-").out.size(), 132u);
  outcome = run("bench --kernel tavik_npu_mm_f32_rm_f32_rm_f16_wh --shape 1x32x32 --json -");
  EXPECT_EQ(nlohmann::json::parse(outcome.out).at("benchmarks").size(), 3u);

  // A full disk and a signal leave what was there before.
  const auto before = files();
  EXPECT_EQ(run("make 512 512 -o old.npy", "trap '' XFSZ; ulimit -f 1; ").err,
            "morun: old.npy: cannot be written: File too large\n");
  EXPECT_TRUE(files() == before);
  const std::tuple<const char*, std::vector<int>> endings[] = {
      {"", {SIGINT}}, {"", {SIGTERM}}, {"", {SIGHUP}}, {"trap '' HUP; ", {SIGHUP, SIGTERM}}};
  for (const auto& [trap, signals] : endings) {
    const pid_t process = fork();
    ASSERT_GE(process, 0);
    if (process == 0) {
      std::signal(SIGINT, SIG_DFL);
      execl("/bin/sh", "sh", "-c",
            text("cd '", work(), "' && ", trap, "exec ", tool, "mm x.npy i.npy -o old.npy --repeat 100000000 >&2")
                .c_str(),
            nullptr);
    }
    for (int i = 0; i < 6000 && files().size() == before.size(); ++i) usleep(10000);
    EXPECT_EQ(files().size(), before.size() + 1);
    for (const int signal : signals) kill(process, signal);
    int status = 0;
    waitpid(process, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signals.back()) << status;
    EXPECT_TRUE(files() == before);
  }
}

TEST_F(ToolTest, ProductsHoldEachMatrixOnceAndShowHowFarTheyAre) {
  // Large blocks go back when they are freed; otherwise the C library keeps as many as it likes.
  const auto peak_kib = [&](const std::string& arguments) {
    rusage usage = {};
    int status = 0;
    const pid_t process = fork();
    if (process == 0)
      execl("/bin/sh", "sh", "-c",
            text("cd '", work(), "' && MALLOC_MMAP_THRESHOLD_=131072 exec ", tool, arguments, " >/dev/null").c_str(),
            nullptr);
    EXPECT_EQ(wait4(process, &status, 0, &usage), process);
    EXPECT_EQ(status, 0);
    return usage.ru_maxrss;
  };
  const std::string make[] = {"make 1 2047 -o x.npy", "make 2047 4033 -o w.npy", "make 131072 31 -o tall_x.npy",
                              "make 31 31 -o small_w.npy", "make 1 31 -o small_x.npy"};
  for (const std::string& arguments : make) report(arguments);
    // Sanitizers and an emulated processor take memory of their own.
#ifdef __SANITIZE_ADDRESS__
  constexpr bool has_peak_of_its_own = false;
#else
  constexpr bool has_peak_of_its_own = sizeof MORUN_RUNNER == 1;
#endif
  if (has_peak_of_its_own) {
    const long little = peak_kib("mm small_x.npy small_w.npy -o y.npy");
    // Kibibytes as f32, and what may come on top of it for the conversion of some columns or rows at a time.
    constexpr long n_kib = 32 * 1024, conversion = 16 * 1024, other = 4 * 1024;
    for (const std::string kind : {"f16", "a8w8", "a8w4"})
      EXPECT_LT(peak_kib("mm x.npy w.npy -o y.npy --weights " + kind), little + n_kib + other) << kind;
    EXPECT_LT(peak_kib("mm x.npy w.npy -o y.npy --check"), little + n_kib / 2 + 2 * conversion + other);
    EXPECT_LT(peak_kib("mm tall_x.npy small_w.npy -o y.npy"), little + n_kib + conversion);
  }

  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  EXPECT_EQ(run(text("mm x.npy w.npy -o y.npy --check 2>", ptsname(terminal))).status, 0);
  std::string shown(4096, '\0');
  shown.resize(static_cast<size_t>(std::max(read(terminal, shown.data(), shown.size()), ssize_t{0})));
  close(terminal);
  for (const char* const what : {" of 1 rows of the activation read", " weights read", "\r\x1b[K0 of 1 rows multiplied",
                                 " of 8 pieces compared"})
    EXPECT_NE(shown.find(what), std::string::npos) << what;
  EXPECT_TRUE(shown.ends_with("\r\x1b[K")) << shown;
}

// ---- Packed files --------------------------------------------------------------------------------------------------

std::vector<float> rows_of(const std::vector<float>& x, size_t n_col, size_t first, size_t n) {
  return {x.begin() + static_cast<ptrdiff_t>(first * n_col), x.begin() + static_cast<ptrdiff_t>((first + n) * n_col)};
}

std::vector<double> exact_product(const std::vector<float>& x, const std::vector<float>& w, size_t n_inner) {
  const size_t n_col = w.size() / n_inner, n_row = x.size() / n_inner;
  std::vector<double> y(n_row * n_col);
  for (size_t r = 0; r < n_row; ++r)
    for (size_t k = 0; k < n_inner; ++k)
      for (size_t c = 0; c < n_col; ++c) y[r * n_col + c] += double{x[r * n_inner + k]} * w[k * n_col + c];
  return y;
}

struct Judged {
  double error = 0;
  size_t n_same = 0;  // rows whose largest value among the classes is the exact one's
};
Judged judge(const std::vector<float>& y, const std::vector<double>& exact, size_t n_col, size_t n_class) {
  double error = 0, all = 0;
  Judged judged;
  for (size_t i = 0; i < y.size(); ++i) {
    error += std::pow(y[i] - exact[i], 2);
    all += exact[i] * exact[i];
  }
  for (size_t r = 0; r < y.size() / n_col; ++r)
    judged.n_same += std::max_element(&y[r * n_col], &y[r * n_col + n_class]) - &y[r * n_col] ==
                     std::max_element(&exact[r * n_col], &exact[r * n_col + n_class]) - &exact[r * n_col];
  judged.error = std::sqrt(error / all);
  return judged;
}

TEST_F(ToolTest, PackedRealLayersMultiplyWithTheSameBitsAndBetterQuantisersWithSmallerErrors) {
  const fs::path data = fs::path(MORUN_DATA_DIR) / "ocr";
  if (!fs::exists(data)) GTEST_SKIP() << "no real matrices at " << data;
  fs::create_directory_symlink(data, fs::path(work()) / "ocr");
  constexpr size_t n_inner = 128, n_seen = 44;
  struct Layer {
    const char *x, *w;
    size_t n_col, n_class;
    double mse, calibrated;
  };
  const Layer layers[] = {{"classifier_x", "classifier_w", 6656, 6625, 0.93, 0.58},
                          {"attention_x", "attention_q", 128, 128, 0.97, 0.75},
                          {"attention_x", "attention_k", 128, 128, 0.97, 0.75},
                          {"attention_x", "attention_v", 128, 128, 1, 0.79}};
  for (const Layer& layer : layers) {
    SCOPED_TRACE(layer.w);
    const std::string x = text("ocr/", layer.x, ".npy"), w = text("ocr/", layer.w, ".npy");
    for (const std::string kind : {"f16", "a8w8", "a8w4"}) {
      report(text("pack ", w, " -o packed.safetensors --quantiser library --weights ", kind));
      report(text("mm ", x, " packed.safetensors:", layer.w, " -o packed.npy"));
      report(text("mm ", x, " ", w, " -o direct.npy --weights ", kind));
      EXPECT_TRUE(file("packed.npy") == file("direct.npy")) << kind;
    }
    const auto rows = values_of<float>(file(x));
    const auto unseen = rows_of(rows, n_inner, n_seen, 44);
    const std::vector<double> exact = exact_product(rows, values_of<float>(file(w)), n_inner);
    const std::vector<double> exact_unseen(exact.begin() + static_cast<ptrdiff_t>(n_seen * layer.n_col), exact.end());
    write("seen.npy", matrix_npy(rows_of(rows, n_inner, 0, n_seen), n_inner));
    write("unseen.npy", matrix_npy(unseen, n_inner));
    std::map<std::string, Judged> judged, judged_all;
    for (const std::string quantiser : {"minmax", "mse", "calibrated"}) {
      report(text("pack ", w, " -o packed.safetensors --weights a8w4 --activations seen.npy --quantiser ", quantiser));
      report(text("mm unseen.npy packed.safetensors:", layer.w, " -o y.npy"));
      judged[quantiser] = judge(values_of<float>(file("y.npy")), exact_unseen, layer.n_col, layer.n_class);
      report(text("mm ", x, " packed.safetensors:", layer.w, " -o y.npy"));
      judged_all[quantiser] = judge(values_of<float>(file("y.npy")), exact, layer.n_col, layer.n_class);
      std::printf("%s a8w4 %-10s error %.4f, largest values of %zu rows of 44, of %zu of 88\n", layer.w,
                  quantiser.c_str(), judged[quantiser].error, judged[quantiser].n_same, judged_all[quantiser].n_same);
    }
    EXPECT_LE(judged["mse"].error, layer.mse * judged["minmax"].error);
    EXPECT_LE(judged["calibrated"].error, layer.calibrated * judged["minmax"].error);
    if (layer.n_col == layer.n_class) continue;
    EXPECT_GE(judged_all["mse"].n_same, judged_all["minmax"].n_same);
    EXPECT_GE(judged["calibrated"].n_same, judged["minmax"].n_same);
  }
}

TEST_F(ToolTest, PackedFilesAreListedUnpackedAndMultiplied) {
  std::vector<float> w = weights(45, 70, 256, 1), v = weights(45, 33, 16, 2);
  for (size_t i = 1; i < 45 * 70; i += 2) w[i] -= 1;  // odd columns from 0 on, so that their scale is 1 too
  for (size_t i = 0; i < v.size(); ++i) v[i] -= static_cast<float>(i % 33 % 2);
  write("w.npy", matrix_npy(w, 70));
  write("v.npy", matrix_npy(v, 33, "<f2"));
  write("b.npy", npy("<i4", "(3,)", bytes_of<int32_t>({1, 2, 3})));
  write("x.npy", matrix_npy(std::vector<float>(45, 127), 45));
  EXPECT_EQ(report("pack w.npy v.npy b.npy --dry-run --form 'v=a8w4' --skip '?' --form w=f16"),
            "f16      F32   45 x 70          w (rule w)\n"
            "carried  F16   45 x 33          v (rule ?)\n"
            "carried  I32   3                b (not 2-dimensional)\n");
  report("pack w.npy v.npy b.npy -o p.safetensors --form v=a8w4 --report r.json --jobs 3");
  EXPECT_EQ(report("inspect p.safetensors --verify"),
            "form     quantiser  source  extents  bytes  error / of products  name\n"
            "a8w8     minmax     F32     45 x 70  12288  0                    w\n"
            "a8w4     minmax     F16     45 x 33  8192   0                    v\n"
            "carried             I32     3        12                          b\n"
            "3 checksums are right\n");
  const auto listed = nlohmann::json::parse(report("inspect p.safetensors --json"))["tensors"];
  EXPECT_EQ(listed[1]["n_col"], 33);
  EXPECT_EQ(listed[1]["sums"], 6144);
  EXPECT_EQ(listed[2]["file_offset"], 4096 + 12288 + 8192);
  const auto reported = nlohmann::json::parse(file("r.json"))["tensors"];
  EXPECT_EQ(reported[0]["worst_columns"].size(), 8u);
  for (const char* const name : {"w", "v"}) {
    const std::vector<float>& values = *name == 'w' ? w : v;
    report(text("unpack p.safetensors ", name, " -o u.npy"));
    EXPECT_TRUE(values_of<float>(file("u.npy")) == values) << name;
    report(text("mm x.npy p.safetensors:", name, " -o y.npy --check --max-error 0"));
    EXPECT_TRUE(values_of<float>(file("y.npy")) == product(std::vector<float>(45, 127), values, 45, 0)) << name;
  }
  std::string broken = file("p.safetensors");
  broken[4096 + 5] ^= 1;
  write("broken.safetensors", broken);
  write("odd.npy", matrix_npy({1, NAN, 1e6, 2}, 2));
  write("rough.npy", matrix_npy({1, 2.7f, 100, -3.1f}, 2));
  write("x2.npy", matrix_npy({1, 2}, 2));
  report("pack rough.npy -o rough.safetensors --weights a8w4");
  const auto before = files();
  const std::tuple<const char*, int, const char*> failures[] = {
      {"inspect broken.safetensors --verify", 1, "\"w\""},
      {"mm x.npy broken.safetensors:w -o y2.npy", 1, "\"w\""},
      {"mm x.npy p.safetensors:z -o y2.npy", 1, "\"z\""},
      {"mm x.npy p.safetensors:b -o y2.npy", 1, "is not packed"},
      {"mm x.npy p.safetensors:w -o y2.npy --weights a8w4", 1, "packed in another form"},
      {"mm x2.npy p.safetensors:w -o y2.npy", 1, "has 2 columns and p.safetensors:w has 45 rows"},
      {"mm x.npy w.npy -o y2.npy --max-error 1", 2, "--max-error"},
      {"unpack p.safetensors b -o y2.npy", 1, "is not packed"},
      {"unpack p.safetensors w -o none/y2.npy", 1, "cannot be written"},
      {"pack odd.npy -o y2", 1, "tensor \"odd\": weight (0, 1) is NaN\n"},
      {"pack w.npy -o y2 --form z=f16", 1, "no tensor has a name that matches \"z\""},
      {"pack w.npy -o y2 --form w", 2, "w is not PATTERN=FORM"},
      {"pack w.npy -o y2 --form w=f8", 1, "f8 is none of carried, f16, a8w8, a8w4"},
      {"pack w.npy", 2, "--output is required"},
      {"pack w.npy -o none/y2", 1, "No such file"},
      {"pack w.npy -o y2 --report none/r", 1, "cannot be written"},
      {"pack w.npy -o y2 --quantiser calibrated", 1, "needs activations"},
      {"pack p.safetensors -o y2", 1, "is a packed file already"}};
  for (const auto& [arguments, status, cause] : failures) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << arguments;
    EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    EXPECT_NE(outcome.err.find(cause), std::string::npos) << outcome.err;
    EXPECT_TRUE(files() == before) << arguments;
  }
  const Outcome outcome = run("mm x2.npy rough.safetensors:rough -o y2.npy --check --max-error 1e-9");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_NE(outcome.err.find(", above 1e-09\n"), std::string::npos) << outcome.err;
  EXPECT_EQ(run("pack odd.npy -o q --weights f16 --allow-nonfinite").err,
            "morun: warning: odd: 1 values are NaN and 0 infinite\n"
            "morun: warning: odd: 1 values are beyond the range of f16 and become infinite\n");
}

TEST_F(ToolTest, InterruptedPackingLeavesNothing) {
  write("w.npy", npy("<f4", "(8192, 8192)", ""));
  fs::resize_file(fs::path(work()) / "w.npy", file("w.npy").size() + 8192ul * 8192 * 4);
  write("p", "what was there");
  const std::string interrupted = text(tool, "pack w.npy -o p --quantiser mse & sleep 0.1; kill -TERM $!; wait $!");
  EXPECT_EQ(WEXITSTATUS(std::system(text("cd '", work(), "' && ", interrupted).c_str())), 128 + SIGTERM);
  EXPECT_EQ(file("p"), "what was there");
  EXPECT_EQ(std::distance(fs::directory_iterator(work()), {}), 2);
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
  // The trace finds no standard error, and no file in its place either.
  EXPECT_EQ(run("bench --kernel " + f32 + " --shape 33x64x96 --json b.json <&- 2>&-", "export PARLO_TRACE=1; ").status,
            0);
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
