// From checkpoints to packed files: what is packed, every refusal, and that a failure leaves nothing.

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cmath>
#include <csignal>
#include <cstdarg>
#include <map>
#include <stdexcept>

#include "tests/expected_text.h"
#include "tests/weight_files.h"

namespace {

bool takes_nameless_files = true;

}  // namespace

// Stands before the C library's.
extern "C" int open(const char* path, int flags, ...) {
  if (!takes_nameless_files && (flags & O_TMPFILE) == O_TMPFILE) return errno = EOPNOTSUPP, -1;
  va_list arguments;
  va_start(arguments, flags);
  const mode_t mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return openat(AT_FDCWD, path, flags, mode);
}

namespace {

namespace fs = std::filesystem;
using test::PackedFile, test::Packer, test::encoded, test::matrix_npy, test::npy, test::safetensors, test::some_values;

class WeightsPack : public testing::Test, public test::Folder {
 protected:
  std::string pack(const std::string& command) const;
};

// ---- The file ------------------------------------------------------------------------------------------------------

TEST_F(WeightsPack, NpyMatricesAndUntransposedOnesAreInnerByColumns) {
  const std::vector<float> w = some_values(70 * 45, 6);  // 70 x 45, row-major
  write("c.npy", matrix_npy(w, 45));
  write("fortran.npy", matrix_npy(w, 45, "<f2F"));
  write("double.npy", matrix_npy(w, 45, "<f8"));
  write("s.safetensors", safetensors({{"s.weight", "BF16", {70, 45}, encoded("BF16", w)}}));
  Packer packer([](auto& o) { o.transpose = 0, o.n_job = 2; });
  for (const char* const name : {"c.npy", "fortran.npy", "double.npy", "s.safetensors"}) packer.source(path(name));
  fs::create_symlink("packed", path("link"));  // stays, though it leads to nothing yet
  ASSERT_EQ(packer.run(path("link")), 0) << morun_weights_error_text();
  EXPECT_TRUE(fs::is_symlink(path("link")));
  const PackedFile file(read("packed"));
  for (const char* const name : {"c", "fortran", "double", "s.weight"}) {
    const test::PackedMatrix matrix = file.matrix(name);
    for (size_t i = 0; i < w.size(); ++i)
      ASSERT_NEAR(matrix.value(i / 45, i % 45), w[i], 0.501 * matrix.scale(i % 45)) << name;
    EXPECT_EQ(file.tensor(name), file.tensor("c"));
  }
}

TEST_F(WeightsPack, RowsThatAreReadInPiecesComeBackWhole) {
  constexpr size_t n_col = 40000;
  const std::vector<float> w = some_values(17 * n_col, 3);
  write("w.npy", matrix_npy(w, n_col, "<f8"));
  Packer packer([](auto& o) { o.form = MORUN_WEIGHTS_F16; });
  ASSERT_EQ(packer.source(path("w.npy")).run(path("packed")), 0) << morun_weights_error_text();
  const test::PackedMatrix matrix = PackedFile(read("packed")).matrix("w");
  for (size_t i = 0; i < w.size(); ++i) ASSERT_EQ(matrix.value(i / n_col, i % n_col), w[i]) << i;
}

TEST_F(WeightsPack, CalibrationTakesTheActivationOfEachTensor) {
  const std::vector<float> w = some_values(64 * 45, 7), few = some_values(100 * 5, 8);
  std::vector<float> x = some_values(100 * 45, 9);
  for (size_t i = 0; i < x.size(); ++i) x[i] = x[i] / 4 + few[i / 45 * 5 + i % 5];  // columns that go together
  write("m.safetensors", safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", w)},
                                      {"b.weight", "F32", {64, 45}, encoded("F32", w)}}));
  write("x/a.weight.npy", matrix_npy(x, 45));
  write("x/b.weight.npy", matrix_npy(x, 45, "<f2F"));
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
    const auto exact = test::product(x, 45, 64, [&](auto k, auto c) { return w[c * 45 + k]; });
    const auto got = test::product(x, 45, 64, [&](auto k, auto c) { return matrix.value(k, c); });
    EXPECT_NEAR(file.record("a.weight")["product_error"], test::relative_error(exact, got), 1e-6);
    product_errors[quantiser] = packer.decisions()[0].product_error;
  }
  EXPECT_LT(product_errors[MORUN_WEIGHTS_CALIBRATED], 0.8 * product_errors[MORUN_WEIGHTS_MINMAX]);
}

// ---- Refusals ------------------------------------------------------------------------------------------------------

// Packs what "SOURCE ... OPTION=VALUE ..." asks for and returns the outcome. A failure leaves all files as they were.
std::string WeightsPack::pack(const std::string& command) const {
  std::istringstream words(command);
  std::vector<std::string> sources;
  std::string activations, rule, output = "packed";
  morun_weights_pack_options options;
  morun_weights_pack_options_init(&options);
  for (std::string word; words >> word;) {
    const size_t at = word.find('=');
    const std::string option = word.substr(0, at), value = word.substr(at + 1);
    if (at == word.npos) sources.push_back(word);
    if (option == "activations")
      activations = path(value), options.activations = activations.c_str(),
      options.quantiser = MORUN_WEIGHTS_CALIBRATED;
    if (option == "quantiser") options.quantiser = std::stoi(value);
    if (option == "damping") options.damping = std::stod(value);
    if (option == "form") options.form = std::stoi(value);
    if (option == "jobs") options.n_job = static_cast<uint32_t>(std::stoul(value));
    if (option == "rule") rule = value;
    if (option == "output") output = value;
  }
  morun_weights_packer* made = nullptr;
  if (sources.empty()) return outcome(morun_weights_packer_create(&options, &made));
  const auto before = names();
  const std::string bytes = read("packed");
  std::vector<std::string> paths;
  for (const std::string& source : sources) paths.push_back(path(source));
  const std::string target = path(output);
  // The status of the first step that fails.
  const auto attempt = [&] {
    morun_weights_packer* packer = nullptr;
    int32_t status = morun_weights_packer_create(&options, &packer);
    for (const std::string& source : paths)
      if (status == 0) status = morun_weights_packer_add_source(packer, source.c_str());
    if (status == 0 && !rule.empty()) status = morun_weights_packer_add_rule(packer, rule.c_str(), MORUN_WEIGHTS_A8W8);
    if (status == 0) status = morun_weights_packer_run(packer, target.c_str());
    morun_weights_packer_free(packer);
    return status;
  };
  if (const int32_t refusal = attempt(); refusal != 0) test::expect_refused_without_memory_too(refusal, attempt);

  Packer packer([&](auto& o) { o = options; });
  std::string told;
  for (const std::string& source : sources)
    if (const int32_t status = morun_weights_packer_add_source(packer.handle, path(source).c_str()); status != 0)
      told += outcome(status);
  if (!rule.empty()) packer.rule(rule.c_str(), MORUN_WEIGHTS_A8W8);
  const bool is_empty = packer.decisions().empty();
  const int32_t status = packer.run(path(output));
  EXPECT_EQ(is_empty, status == MORUN_WEIGHTS_SOURCE_EMPTY);
  EXPECT_EQ(!is_empty && packer.decisions()[0].n_byte == 0, status == MORUN_WEIGHTS_EXTENTS);
  EXPECT_TRUE(status == 0 || (names() == before && read("packed") == bytes)) << command;
  if (status == 0) return told + "  packs " + std::to_string(packer.decisions().size()) + " tensors\n";
  return is_empty ? told : told + outcome(status);
}

TEST_F(WeightsPack, RefusedPackings) {
  test::expect_kept_text(test::played_commands([&](const std::string& command) -> std::string {
    if (command.starts_with("pack ")) return pack(command.substr(5));
    FILE* const shell = popen("bash", "w");
    fputs(("cd '" + path("") + "'; . '" MORUN_TOOL_COMMANDS "'\n" + command).c_str(), shell);
    EXPECT_EQ(pclose(shell), 0) << command;
    return "";
  }));
  const std::string no_text = write("a\xff.npy", npy("<f4", "(1, 1)", "1234"));
  test::expect_status(morun_weights_packer_add_source(Packer().handle, no_text.c_str()), MORUN_WEIGHTS_HEADER_NAME,
                      "no UTF-8");
}

class FailingPackings : public WeightsPack, public testing::WithParamInterface<bool> {
  void SetUp() override { takes_nameless_files = GetParam(); }
  void TearDown() override { takes_nameless_files = true; }
};
INSTANTIATE_TEST_SUITE_P(, FailingPackings, testing::Bool());

// On file systems with nameless files, and on others. The first name for such a file is taken.
TEST_P(FailingPackings, LeaveNothingBehindAndWhatWasThereAsItWas) {
  write(".morun." + std::to_string(getpid()) + ".0", "another program's");
  write("m.safetensors", safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", some_values(64 * 45, 9))},
                                      {"b.bias", "U8", {4}, "1234"}}));
  write("packed", "what was there");
  const std::set<std::string> before = names();
  // A full disk.
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

TEST_F(WeightsPack, SourcesAreOpenOnlyWhileTheyAreRead) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {16, limit.rlim_max};
  Packer packer;
  setrlimit(RLIMIT_NOFILE, &few);
  for (const char letter : std::string("abcdefghijklmnopqrstuvwxyz"))
    packer.source(write(letter + std::string(".npy"), npy("<f4", "(1, 1)", "1234")));
  write("other", npy("<f4", "(1, 1)", "1235"));
  fs::rename(path("other"), path("z.npy"));
  test::expect_status(packer.run(path("packed")), MORUN_WEIGHTS_READ, "z.npy: is another file than");
  EXPECT_FALSE(fs::exists(path("packed")));
  Packer again;
  EXPECT_EQ(again.source(folder_).run(path("packed")), 0) << morun_weights_error_text();
  setrlimit(RLIMIT_NOFILE, &limit);
  EXPECT_EQ(again.decisions().size(), 26u);
}

TEST_F(WeightsPack, InterruptionEndsSoonAndLeavesNothing) {
  const std::string zeros = write("m.safetensors", test::safetensors_of_zeros({"a.weight"}, 4096, 4096));
  fs::resize_file(zeros, fs::file_size(zeros) + 67108864);
  struct Interruption {
    morun_weights_packer* packer;
    int n_call;
    bool is_at_end;  // where all but the file's name is done
  };
  Interruption interruption = {};
  Packer packer([&](auto& o) {
    o.user = &interruption;
    o.n_job = 2;
    o.quantiser = MORUN_WEIGHTS_MSE;
    o.progress = [](void* user, const morun_weights_progress* progress) {
      auto& state = *static_cast<Interruption*>(user);
      EXPECT_LE(progress->n_byte_done, progress->n_byte);
      EXPECT_EQ(progress->n_tensor, 1u);
      const bool is_end = state.is_at_end && progress->n_tensor_done == 1;
      if (++state.n_call == 1 || is_end) morun_weights_packer_interrupt(state.packer);
    };
  });
  packer.source(zeros);
  interruption.packer = packer.handle;
  const std::set<std::string> before = names();
  morun_weights_packer_interrupt(packer.handle);
  for (const bool is_at_end : {false, true}) {
    EXPECT_EQ(packer.run(path("packed")), MORUN_WEIGHTS_INTERRUPTED);
    EXPECT_EQ(names(), before);
    interruption = {packer.handle, 1, !is_at_end};
  }
  EXPECT_EQ(packer.run(path("packed")), 0) << morun_weights_error_text();
  EXPECT_GT(interruption.n_call, 1);
}

TEST_F(WeightsPack, WhatACallbackThrowsIsAFailureThatLeavesNothing) {
  const std::string source = write("a.npy", npy("<f4", "(1, 1)", "1234"));
  using Progress = void (*)(void*, const morun_weights_progress*);
  const std::pair<Progress, const char*> callbacks[] = {
      {[](void*, auto*) { throw std::runtime_error("the program's own"); }, "the program's own"},
      {[](void*, auto*) { throw 7; }, "a failure without a text"}};
  for (const auto& [progress, text] : callbacks) {
    Packer packer([&, call = progress](auto& o) { o.progress = call; });
    test::expect_status(packer.source(source).run(path("packed")), MORUN_WEIGHTS_UNEXPECTED, text);
    EXPECT_EQ(names(), std::set{source});
  }
}

// All of the activation takes most of a minute and is refused at its end, because all of its values are zeros.
TEST_F(WeightsPack, InterruptionEndsTheReadingOfActivations) {
  const std::string zeros = write("w.npy", matrix_npy(std::vector<float>(1024 * 32), 32));
  const std::string x = write("x.npy", npy("<f2", "(524288, 1024)", ""));
  fs::resize_file(x, fs::file_size(x) + 2ul * 524288 * 1024);
  morun_weights_packer* handle = nullptr;
  Packer packer([&](auto& o) {
    o.user = &handle, o.activations = x.c_str(), o.quantiser = MORUN_WEIGHTS_CALIBRATED;
    o.progress = [](void* user, auto*) { morun_weights_packer_interrupt(*static_cast<morun_weights_packer**>(user)); };
  });
  handle = packer.source(zeros).handle;
  EXPECT_EQ(packer.run(path("packed")), MORUN_WEIGHTS_INTERRUPTED);
  EXPECT_FALSE(fs::exists(path("packed")));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__aarch64__)
// A child that packs has its own peak.
TEST_F(WeightsPack, MatricesArePackedInTheMemoryOfOneAnd64MebibytesAJob) {
  constexpr uint64_t n = 8192, n_wide = uint64_t{1} << 22, n_tall = 260'000;
  const std::string zeros =
      write("m.safetensors", test::safetensors_of_zeros({"0.weight", "1.weight", "2.weight", "3.weight"}, n, n));
  fs::resize_file(zeros, fs::file_size(zeros) + 4 * 4 * n * n);
  const std::string wide = write("wide.npy", npy("<f8", "(1, 4194304)", ""));
  fs::resize_file(wide, fs::file_size(wide) + 8 * n_wide);
  const std::string tall = write("tall.npy", npy("<f8", "(260000, 64)", ""));
  fs::resize_file(tall, fs::file_size(tall) + 8 * n_tall * 64);
  const struct {
    std::string source;
    uint32_t n_job;
    int32_t transpose;
    uint64_t largest;
  } cases[] = {{zeros, 2, 1, n * n + 3 * 65536},
               {zeros, 2, 0, n * n + 3 * 65536},
               {wide, 1, 1, (32 + 7) * n_wide},
               {tall, 2, 1, n_tall * 64}};
  for (const auto& each : cases) {
    const pid_t child = fork();
    if (child == 0) {
      Packer packer([&](auto& o) { o.n_job = each.n_job, o.transpose = each.transpose; });
      _exit(packer.source(each.source).run(path("packed")));
    }
    int status = 0;
    rusage usage = {};
    ASSERT_EQ(wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    std::printf("peak %ld MiB of resident memory\n", usage.ru_maxrss / 1024);
    EXPECT_LT(static_cast<uint64_t>(usage.ru_maxrss) * 1024, each.n_job * (uint64_t{64} << 20) + each.largest)
        << each.source;
    EXPECT_GE(fs::file_size(path("packed")), each.largest);
  }
}
#endif

}  // namespace
