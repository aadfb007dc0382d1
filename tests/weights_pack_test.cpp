// From checkpoints to packed files: what is packed, every refusal, and that a failure leaves nothing.

#include <sys/resource.h>
#include <sys/wait.h>

#include <cmath>
#include <csignal>
#include <map>
#include <tuple>

#include "tests/weight_files.h"

namespace {

namespace fs = std::filesystem;
using test::PackedFile, test::Packer, test::encoded, test::npy, test::safetensors, test::some_values;

class WeightsPack : public testing::Test, public test::Folder {};

std::vector<float> transposed(const std::vector<float>& values, size_t n_row, size_t n_col) {
  std::vector<float> by_columns(values.size());
  for (size_t i = 0; i < values.size(); ++i) by_columns[i % n_col * n_row + i / n_col] = values[i];
  return by_columns;
}

// ---- The file ------------------------------------------------------------------------------------------------------

TEST_F(WeightsPack, NpyMatricesAndUntransposedOnesAreInnerByColumns) {
  const std::vector<float> w = some_values(70 * 45, 6);  // 70 x 45, row-major
  write("c.npy", npy("<f4", false, "(70, 45)", encoded("F32", w)));
  write("fortran.npy", npy("<f2", true, "(70, 45)", encoded("F16", transposed(w, 70, 45))));
  write("double.npy", npy("<f8", false, "(70, 45)", encoded("F64", w)));
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
  write("w.npy", npy("<f8", false, "(17, 40000)", encoded("F64", w)));
  Packer packer([](auto& o) { o.form = MORUN_WEIGHTS_F16; });
  ASSERT_EQ(packer.source(path("w.npy")).run(path("packed")), 0) << morun_weights_error_text();
  const test::PackedMatrix matrix = PackedFile(read("packed")).matrix("w");
  for (size_t i = 0; i < w.size(); ++i) ASSERT_EQ(matrix.value(i / n_col, i % n_col), w[i]) << i;
}

TEST_F(WeightsPack, TheLastRuleThatMatchesDecidesAndSoDoNames) {
  write("m.safetensors", safetensors({{"a.weight", "F32", {1, 1}, "1234"},
                                      {"a.bias", "F32", {1, 1}, "1234"},
                                      {"embed.weight", "F32", {1, 1}, "1234"},
                                      {"x.norm2.weight", "F16", {1, 1}, "12"},
                                      {"b.weight", "I32", {1, 1}, "1234"},
                                      {"c.weight", "F32", {1, 1, 1}, "1234"},
                                      {"d.weight", "F32", {0, 3}, ""}}));
  write("norm.npy", npy("<f4", false, "(1, 1)", "1234"));
  Packer packer([](auto& o) { o.form = MORUN_WEIGHTS_F16; });
  packer.source(path("m.safetensors")).source(path("norm.npy"));
  const auto told = [&] {
    std::vector<std::string> all;
    for (const auto& d : packer.decisions())
      all.push_back(std::string(d.name) + " " + std::to_string(d.form) + " " + d.reason);
    return all;
  };
  // Packed tensors are the first.
  EXPECT_EQ(told(), (std::vector<std::string>{
                        "a.weight 1 name ends in weight", "norm 1 a .npy matrix",
                        "a.bias 0 name does not end in weight", "embed.weight 0 name contains embed",
                        "x.norm2.weight 0 name contains norm", "b.weight 0 dtype is none of F64, F32, F16, BF16",
                        "c.weight 0 not 2-dimensional", "d.weight 0 an extent is 0"}));
  packer.rule("*", MORUN_WEIGHTS_A8W8).rule("*.weight", MORUN_WEIGHTS_A8W4).rule("?orm", MORUN_WEIGHTS_CARRIED);
  EXPECT_EQ(told(), (std::vector<std::string>{
                        "a.weight 3 rule *.weight", "a.bias 2 rule *", "embed.weight 3 rule *.weight",
                        "x.norm2.weight 3 rule *.weight", "b.weight 0 dtype is none of F64, F32, F16, BF16",
                        "c.weight 0 not 2-dimensional", "d.weight 0 an extent is 0", "norm 0 rule ?orm"}));
}

TEST_F(WeightsPack, CalibrationTakesTheActivationOfEachTensor) {
  const std::vector<float> w = some_values(64 * 45, 7), few = some_values(100 * 5, 8);
  std::vector<float> x = some_values(100 * 45, 9);
  for (size_t i = 0; i < x.size(); ++i) x[i] = x[i] / 4 + few[i / 45 * 5 + i % 5];  // columns that go together
  write("m.safetensors", safetensors({{"a.weight", "F32", {64, 45}, encoded("F32", w)},
                                      {"b.weight", "F32", {64, 45}, encoded("F32", w)}}));
  write("x/a.weight.npy", npy("<f4", false, "(100, 45)", encoded("F32", x)));
  write("x/b.weight.npy", npy("<f2", true, "(100, 45)", encoded("F16", transposed(x, 100, 45))));
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
  const std::string map = R"({"weight_map":{"a.weight":"good.safetensors"}})", deep(1 << 20, '[');
  const std::pair<const char*, std::string> indices[] = {
      {"json", "{\"weight_map\":"},
      {"nul", map + std::string("\0 {", 3)},
      {"behind", map + "x"},
      {"deep", R"({"metadata":)" + deep},
      {"name", R"({"weight_map":{"a":"good.safetensors","\u0061":"other.safetensors"}})"},
      {"maps", R"({"weight_map":{},"weight_map":{}})"},
      {"root", "[]"},
      {"no_map", R"({"metadata":{"weight_map":{"a":"b"}}})"},
      {"list", "{\"weight_map\":[]}"},
      {"outside", "{\"weight_map\":{\"a.weight\":\"../good.safetensors\"}}"},
      {"number", "{\"weight_map\":{\"a.weight\":1}}"},
      {"missing", "{\"weight_map\":{\"b.weight\":\"good.safetensors\"}}"},
      {"nowhere", "{\"weight_map\":{\"b.weight\":\"nowhere.safetensors\"}}"},
      {"nothing", "{\"weight_map\":{}}"}};
  for (const auto& [name, json] : indices) write(name + std::string(".index.json"), json);
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
      {"json.index.json", MORUN_WEIGHTS_INDEX, "is not JSON at its byte 15"},
      {"nul.index.json", MORUN_WEIGHTS_INDEX, "is not JSON at its byte 47"},
      {"behind.index.json", MORUN_WEIGHTS_INDEX, "is not JSON at its byte 47"},
      {"deep.index.json", MORUN_WEIGHTS_INDEX, "deeper than 64 levels"},
      {"name.index.json", MORUN_WEIGHTS_INDEX, "names tensor \"a\" twice"},
      {"maps.index.json", MORUN_WEIGHTS_INDEX, "two members weight_map"},
      {"root.index.json", MORUN_WEIGHTS_INDEX, "no JSON object with an object weight_map"},
      {"list.index.json", MORUN_WEIGHTS_INDEX, "no JSON object with an object weight_map"},
      {"no_map.index.json", MORUN_WEIGHTS_INDEX, "has no weight_map"},
      {"outside.index.json", MORUN_WEIGHTS_INDEX, "none of the index's folder"},
      {"number.index.json", MORUN_WEIGHTS_INDEX, "tensor \"a.weight\" is in a number, which is no file"},
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
    test::expect_status(morun_weights_packer_add_source(packer.handle, path(name).c_str()), status, text);
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
  fs::resize_file(write("big.npy", npy("<f2", false, "(134217728, 1)", "")), (uint64_t{1} << 28) + 4096);
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
    int32_t quantiser = MORUN_WEIGHTS_CALIBRATED;  // where there are activations
  };
  const Case cases[] = {
      {"nan.safetensors", MORUN_WEIGHTS_NON_FINITE, "\"a.weight\": weight (2, 3) is NaN"},
      {"m.safetensors", MORUN_WEIGHTS_RULE_UNUSED, "\"z*\"", nullptr, 0, "z*"},
      {"carried.npy", MORUN_WEIGHTS_NPY, "Fortran order"},
      {"m.safetensors", MORUN_WEIGHTS_NO_ACTIVATION, "there is no activation", "x"},
      {"m.safetensors", MORUN_WEIGHTS_NO_ACTIVATION, "none for a matrix that is packed", "x", 0, nullptr, "packed",
       MORUN_WEIGHTS_MSE},
      {"big.npy", MORUN_WEIGHTS_EXTENTS, "tensor \"big\": a matrix of 134217728 x 1 in form a8w8 takes more than"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_SHAPE, "no matrix of 45 columns", "wide"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_VALUE, "zeros alone", "zero"},
      {"m.safetensors", MORUN_WEIGHTS_ACTIVATION_VALUE, "not finite at row 0, column 0", "infinite"},
      {"m.safetensors", MORUN_WEIGHTS_COVARIANCE, "larger damping", "one.npy", 0},
      {"m.safetensors", MORUN_WEIGHTS_WRITE, "No such file", nullptr, 0, nullptr, "nowhere/packed"},
      {"m.safetensors", MORUN_WEIGHTS_WRITE, "Is a directory", nullptr, 0, nullptr, "x"},
      {"m.safetensors", MORUN_WEIGHTS_WRITE, "levels of symbolic links", nullptr, 0, nullptr, "loop"},
  };
  write("packed", "what was there");
  fs::create_symlink("loop", path("loop"));
  const std::set<std::string> before = names();
  for (const Case& test : cases) {
    const std::string activations = test.activations != nullptr ? path(test.activations) : "";
    Packer packer([&](auto& o) {
      o.damping = test.damping;
      if (!activations.empty()) o.activations = activations.c_str(), o.quantiser = test.quantiser;
    });
    packer.source(path(test.source));
    const bool is_too_large = test.status == MORUN_WEIGHTS_EXTENTS;
    EXPECT_EQ(packer.decisions()[0].n_byte == 0, is_too_large);
    EXPECT_EQ(std::strstr(packer.decisions()[0].reason, "; cannot be packed: a matrix of") != nullptr, is_too_large);
    if (test.rule != nullptr) packer.rule(test.rule, MORUN_WEIGHTS_A8W8);
    test::expect_status(packer.run(path(test.output)), test.status, test.text);
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

TEST_F(WeightsPack, SourcesAreOpenOnlyWhileTheyAreRead) {
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit few = {16, limit.rlim_max};
  Packer packer;
  setrlimit(RLIMIT_NOFILE, &few);
  for (const char letter : std::string("abcdefghijklmnopqrstuvwxyz"))
    packer.source(write(letter + std::string(".npy"), npy("<f4", false, "(1, 1)", "1234")));
  write("other", npy("<f4", false, "(1, 1)", "1235"));
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

// All of the activation takes most of a minute and is refused at its end, because all of its values are zeros.
TEST_F(WeightsPack, InterruptionEndsTheReadingOfActivations) {
  const std::string zeros = write("w.npy", npy("<f4", false, "(1024, 32)", std::string(4 * 1024 * 32, '\0')));
  const std::string x = write("x.npy", npy("<f2", false, "(524288, 1024)", ""));
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
  const std::string wide = write("wide.npy", npy("<f8", false, "(1, 4194304)", ""));
  fs::resize_file(wide, fs::file_size(wide) + 8 * n_wide);
  const std::string tall = write("tall.npy", npy("<f8", false, "(260000, 64)", ""));
  fs::resize_file(tall, fs::file_size(tall) + 8 * n_tall * 64);
  const std::tuple<std::string, uint32_t, int32_t, uint64_t> cases[] = {{zeros, 2, 1, n * n + 3 * 65536},
                                                                        {zeros, 2, 0, n * n + 3 * 65536},
                                                                        {wide, 1, 1, (32 + 7) * n_wide},
                                                                        {tall, 2, 1, n_tall * 64}};
  for (const auto& [source, n_job, transpose, largest] : cases) {
    const pid_t child = fork();
    if (child == 0) {
      Packer packer([&](auto& o) { o.n_job = n_job, o.transpose = transpose; });
      _exit(packer.source(source).run(path("packed")));
    }
    int status = 0;
    rusage usage = {};
    ASSERT_EQ(wait4(child, &status, 0, &usage), child);
    EXPECT_EQ(status, 0);
    std::printf("peak %ld MiB of resident memory\n", usage.ru_maxrss / 1024);
    EXPECT_LT(static_cast<uint64_t>(usage.ru_maxrss) * 1024, n_job * (uint64_t{64} << 20) + largest) << source;
    EXPECT_GE(fs::file_size(path("packed")), largest);
  }
}
#endif

}  // namespace
