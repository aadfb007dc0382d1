// The command-line tool as its users have it: started as a program, judged by its files, its output and its exit
// status. What is said and refused stands in tests/transcripts/Tool*.txt, command by command. MORUN_TOOL_PATH and
// MORUN_RUNNER (an emulator of the target's processor, or nothing) come from the build.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <span>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "tests/expected_text.h"
#include "tests/packed_matrix.h"

namespace {

namespace fs = std::filesystem;
using test::matrix_npy;

struct Outcome {
  int status;
  std::string out, err;
  rusage usage;
};

std::string text(const auto&... parts) {
  std::ostringstream stream;
  (stream << ... << parts);
  return stream.str();
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

// Runs commands in a directory of its own.
class ToolTest : public testing::Test {
 protected:
  ToolTest() : directory_(fs::path(testing::TempDir()) / ("morun_tool_test." + std::to_string(getpid()))) {
    fs::create_directories(directory_ / "work");
  }
  ~ToolTest() override { fs::remove_all(directory_); }

  // By a shell that knows `morun` and tests/tool_commands.sh.
  Outcome run(const std::string& command) const {
    const fs::path libraries = fs::path(MORUN_TOOL_PATH).parent_path().parent_path() / "lib";
    const std::string before = text("tool=(" MORUN_RUNNER " '" MORUN_TOOL_PATH "'); libraries='", libraries.native(),
                                    "'; . '" MORUN_TOOL_COMMANDS "'; ");
    const pid_t process = fork();
    if (process == 0) {
      const bool is_set_up = chdir(work().c_str()) == 0 && freopen("/dev/null", "r", stdin) != nullptr &&
                             freopen("../out", "w", stdout) != nullptr && freopen("../err", "w", stderr) != nullptr;
      if (is_set_up) execlp("bash", "bash", "-c", (before + command).c_str(), nullptr);
      _exit(127);
    }
    Outcome outcome = {};
    int status = 0;
    EXPECT_EQ(wait4(process, &status, 0, &outcome.usage), process);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    outcome.out = test::file_contents(directory_ / "out");
    outcome.err = test::file_contents(directory_ / "err");
    return outcome;
  }

  std::string report(const std::string& command) const {
    const Outcome outcome = run(command);
    EXPECT_EQ(outcome.status, 0) << outcome.out;
    EXPECT_EQ(outcome.err, "");
    return outcome.out;
  }

  // Runs the commands of the test's transcript. The results are both outputs, the exit status and the changed files.
  void play() const {
    test::expect_kept_text(test::played_commands([this](const std::string& command) {
      auto before = files();
      const Outcome outcome = run(command);
      std::string told = test::indented(outcome.out) + test::indented(outcome.err, "  2> ");
      for (const auto& [name, bytes] : files())
        if (before[name] != bytes) told += "  writes " + name + '\n';
      return told + (outcome.status == 0 ? "" : text("  exit status ", outcome.status, '\n'));
    }));
  }

  // All files, with what they hold and a mark that they are there. A file called report is left out: the times in a
  // report may repeat by chance, so that two reports are the same in one run and differ in the next.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> all;
    std::error_code is_a_loop;
    for (const auto& entry : fs::directory_iterator(work()))
      if (entry.is_regular_file(is_a_loop) && entry.path().filename() != "report")
        all[entry.path().filename()] = '!' + test::file_contents(entry.path());
    return all;
  }

  bool has_real_matrices() const {
    fs::create_directory_symlink(fs::path(MORUN_DATA_DIR) / "ocr", fs::path(work()) / "ocr");
    return fs::exists(fs::path(work()) / "ocr");
  }
  std::string work() const { return directory_ / "work"; }
  std::string file(const std::string& name) const { return test::file_contents(fs::path(work()) / name); }
  void write(const std::string& name, const std::string& bytes) const {
    std::ofstream(fs::path(work()) / name, std::ios::binary) << bytes;
  }

  const fs::path directory_;
};

class ToolScripts : public ToolTest, public testing::WithParamInterface<const char*> {};
TEST_P(ToolScripts, Plays) {
  play();
}
INSTANTIATE_TEST_SUITE_P(, ToolScripts,
                         testing::Values("ToolCompletion", "ToolEmulator", "ToolErrors", "ToolInputs", "ToolOutputs",
                                         "ToolPacked", "ToolReports"),
                         [](const auto& name) { return std::string(name.param); });

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
      std::vector<std::vector<double>> expected;
      // A column of positive values alone starts at the lowest zero point, and so loses its largest value.
      const float largest = levels > 0 ? static_cast<float>(levels - 1) : INFINITY;
      for (size_t i = 0; i < n_weights; ++i) {
        const size_t n_col = i == 0 ? n_col_first : n_col_other;
        const auto w = weights(n_inner, n_col, levels, static_cast<uint32_t>(2 + i));
        write(text("w", i, ".npy"), matrix_npy(w, n_col, w_type));
        expected.push_back(test::product(x, n_inner, n_col,
                                         [&](uint64_t k, uint64_t c) { return std::min(w[k * n_col + c], largest); }));
      }

      const auto output = report(text("morun mm x.npy ", files[n_weights - 1], " --check --repeat 2 --weights ", kind));
      EXPECT_TRUE(levels > 0 || output.find("deviation 0 absolute, 0 relative") != std::string::npos) << output;
      for (size_t i = 0; i < n_weights; ++i)
        EXPECT_TRUE(std::ranges::equal(values_of<float>(file(text("y", i, ".npy"))), expected[i])) << "result " << i;
    }
  }
}

TEST_F(ToolTest, ProductsHoldEachMatrixOnceAndShowHowFarTheyAre) {
  report("morun make 1 2047 -o x.npy; morun make 2047 4033 -o w.npy");
  report("morun make 131072 31 -o tall_x.npy; morun make 31 31 -o small_w.npy; morun make 1 31 -o small_x.npy");
  // Sanitizers and an emulated processor take memory of their own.
#ifdef __SANITIZE_ADDRESS__
  constexpr bool has_peak_of_its_own = false;
#else
  constexpr bool has_peak_of_its_own = sizeof MORUN_RUNNER == 1;
#endif
  if (has_peak_of_its_own) {
    // Large blocks go back when they are freed; otherwise the C library keeps as many as it likes.
    const auto peak_kib = [&](const std::string& arguments) {
      return run("export MALLOC_MMAP_THRESHOLD_=131072; morun mm " + arguments).usage.ru_maxrss;
    };
    const long little = peak_kib("small_x.npy small_w.npy -o y.npy");
    // Kibibytes as f32, and what may come on top of it for the conversion of some columns or rows at a time.
    constexpr long n_kib = 32 * 1024, conversion = 16 * 1024, other = 4 * 1024;
    for (const std::string kind : {"f16", "a8w8", "a8w4"})
      EXPECT_LT(peak_kib("x.npy w.npy -o y.npy --weights " + kind), little + n_kib + other) << kind;
    EXPECT_LT(peak_kib("x.npy w.npy -o y.npy --check"), little + n_kib / 2 + 2 * conversion + other);
    EXPECT_LT(peak_kib("tall_x.npy small_w.npy -o y.npy"), little + n_kib + conversion);
  }

  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
  if (terminal < 0) GTEST_SKIP() << "no pseudo-terminals here, to which progress would be shown";
  ASSERT_TRUE(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
  EXPECT_EQ(run(text("morun mm x.npy w.npy -o y.npy --check 2>", ptsname(terminal))).status, 0);
  std::string shown(4096, '\0');
  shown.resize(static_cast<size_t>(std::max(read(terminal, shown.data(), shown.size()), ssize_t{0})));
  close(terminal);
  for (const char* const what : {" of 1 rows of the activation read", " weights read", "\r\x1b[K0 of 1 rows multiplied",
                                 " of 8 pieces compared"})
    EXPECT_NE(shown.find(what), std::string::npos) << what;
  EXPECT_TRUE(shown.ends_with("\r\x1b[K")) << shown;
}

// ---- Packed files --------------------------------------------------------------------------------------------------

// Of rows, those whose largest value among the classes is the exact one's.
size_t n_same(std::span<const float> y, std::span<const double> exact, size_t n_col, size_t n_class) {
  size_t n = 0;
  for (size_t r = 0; r < y.size(); r += n_col)
    n += std::max_element(&y[r], &y[r] + n_class) - &y[r] ==
         std::max_element(&exact[r], &exact[r] + n_class) - &exact[r];
  return n;
}

TEST_F(ToolTest, RealLayersAreMultipliedAsAccuratelyAsTheirWeightsAllowAndWithTheSameBitsWherePacked) {
  if (!has_real_matrices()) GTEST_SKIP() << "no real matrices at " MORUN_DATA_DIR;
  constexpr size_t n_inner = 128, n_seen = 44;
  struct Layer {
    const char *x, *w;
    size_t n_col, n_class;
    double errors[3];  // at most, of each kind of weights
    double mse, calibrated;
  };
  const Layer layers[] = {{"classifier_x", "classifier_w", 6656, 6625, {0.0005, 0.003, 0.03}, 0.93, 0.58},
                          {"attention_x", "attention_q", 128, 128, {0.0005, 0.012, 0.1}, 0.97, 0.75},
                          {"attention_x", "attention_k", 128, 128, {0.0005, 0.012, 0.1}, 0.97, 0.75},
                          {"attention_x", "attention_v", 128, 128, {0.0005, 0.012, 0.1}, 1, 0.79}};
  for (const Layer& layer : layers) {
    SCOPED_TRACE(layer.w);
    const std::string x = text("ocr/", layer.x, ".npy"), w = text("ocr/", layer.w, ".npy");
    const auto rows = values_of<float>(file(x)), weights = values_of<float>(file(w));
    const std::vector<double> exact =
        test::product(rows, n_inner, layer.n_col, [&](uint64_t k, uint64_t c) { return weights[k * layer.n_col + c]; });
    const double* error_max = layer.errors;
    for (const std::string kind : {"f16", "a8w8", "a8w4"}) {
      report(text("morun pack ", w, " -o packed.safetensors --quantiser library --weights ", kind));
      report(text("morun mm ", x, " packed.safetensors:", layer.w, " -o packed.npy"));
      report(text("morun mm ", x, " ", w, " -o direct.npy --weights ", kind));
      EXPECT_TRUE(file("packed.npy") == file("direct.npy")) << kind;
      EXPECT_LE(test::relative_error(exact, values_of<float>(file("direct.npy"))), *error_max++) << kind;
    }
    write("seen.npy", matrix_npy({rows.begin(), rows.begin() + n_seen * n_inner}, n_inner));
    struct Judged {
      double error = 0;  // of rows that were not seen
      size_t n_same = 0, n_same_of_all = 0;
    };
    std::map<std::string, Judged> judged;
    for (const std::string quantiser : {"minmax", "mse", "calibrated"}) {
      report(text("morun pack ", w, " -o packed.safetensors --weights a8w4 --activations seen.npy --quantiser ",
                  quantiser));
      report(text("morun mm ", x, " packed.safetensors:", layer.w, " -o y.npy"));
      const std::vector<float> y = values_of<float>(file("y.npy"));
      const auto unseen = std::span(y).subspan(n_seen * layer.n_col);
      const auto exact_unseen = std::span(exact).subspan(n_seen * layer.n_col);
      judged[quantiser] = {test::relative_error(exact_unseen, unseen),
                           n_same(unseen, exact_unseen, layer.n_col, layer.n_class),
                           n_same(y, exact, layer.n_col, layer.n_class)};
      std::printf("%s a8w4 %-10s error %.4f, largest values of %zu rows of 44, of %zu of 88\n", layer.w,
                  quantiser.c_str(), judged[quantiser].error, judged[quantiser].n_same,
                  judged[quantiser].n_same_of_all);
    }
    EXPECT_LE(judged["mse"].error, layer.mse * judged["minmax"].error);
    EXPECT_LE(judged["calibrated"].error, layer.calibrated * judged["minmax"].error);
    if (layer.n_col == layer.n_class) continue;
    EXPECT_GE(judged["mse"].n_same_of_all, judged["minmax"].n_same_of_all);
    EXPECT_GE(judged["calibrated"].n_same, judged["minmax"].n_same);
  }
}

}  // namespace
