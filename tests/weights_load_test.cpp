// Packed matrices in shared buffers: what is planned, that products of what is loaded are right, every refusal, and
// that a failure leaves nothing.
#include <malloc.h>
#include <sys/resource.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cmath>

#include "tests/data.h"
#include "tests/expected_text.h"
#include "tests/products.h"
#include "tests/support.h"
#include "tests/weight_files.h"

namespace {

namespace fs = std::filesystem;
using test::Json;

// What the nth read from now on does; 0: none.
uint64_t nth_read;
enum { whole, short_read, interrupted, input_output_error, end_of_file } read_result;

}  // namespace

extern "C" ssize_t pread(int file, void* bytes, size_t n_byte, off_t offset) {
  const auto result = nth_read != 0 && --nth_read == 0 ? read_result : whole;
  if (result == end_of_file) return 0;
  if (result == short_read) n_byte = (n_byte + 1) / 2;
  if (result != interrupted && result != input_output_error) return syscall(SYS_pread64, file, bytes, n_byte, offset);
  errno = result == interrupted ? EINTR : EIO;
  return -1;
}

namespace {

constexpr int32_t f16 = MORUN_WEIGHTS_F16, a8w8 = MORUN_WEIGHTS_A8W8, a8w4 = MORUN_WEIGHTS_A8W4;
constexpr uint64_t kib = 1024;
using Requests = std::vector<morun_weights_request>;

class WeightsLoad : public test::PlatformTest, public test::Folder {
 protected:
  void TearDown() override {
    morun_weights_file_close(file_);
    test::PlatformTest::TearDown();
  }

  // Packs matrices, "NAME FORM N_INNER N_COL ...", into a file and opens the file.
  void open(const std::string& matrices) {
    morun_weights_file_close(std::exchange(file_, nullptr));
    test::pack(path_, matrices);
    ASSERT_EQ(morun_weights_file_open(path_.c_str(), &file_), 0) << morun_weights_error_text();
  }
  // "NAME ...", each followed by "/GROUP" where it has one, and by "!" where it is alone too.
  Requests requests(const std::string& text) const {
    Requests all;
    std::istringstream words(text);
    for (std::string word; words >> word;) {
      morun_weights_request& request = all.emplace_back();
      const size_t end = word.find('/');
      if (end != word.npos) request.group = static_cast<uint32_t>(std::stoul(word.substr(end + 1)));
      request.alone = word.back() == '!';
      EXPECT_EQ(morun_weights_file_find(file_, word.substr(0, end).c_str(), &request.tensor), 0) << word;
    }
    return all;
  }
  // For so many bytes in each session.
  static tavik_context* initialise_with_room(uint64_t n_byte) {
    test::configure([&](auto& c) { c.session_bytes = 3 * (4 << 16) + 3 * 1024 + 2 * (1 << 16) + n_byte; });
    return initialise();
  }
  morun_weights_tensor tensor(uint64_t index) const {
    morun_weights_tensor tensor;
    EXPECT_EQ(morun_weights_file_tensor(file_, index, &tensor), 0);
    return tensor;
  }
  int32_t load(tavik_context* context, const std::string& text, uint64_t largest_buffer = 0, int32_t skips = 0) {
    const Requests all = requests(text);
    const morun_weights_load_options options = {largest_buffer, skips, 0};
    loaded_ = nullptr;
    return morun_weights_load(file_, context, all.size(), all.data(), &options, &loaded_);
  }
  void expect_success(tavik_context* context, const std::string& text) {
    ASSERT_EQ(load(context, text), 0) << morun_weights_error_text();
    const Requests all = requests(text);
    for (size_t i = 0; i < all.size(); ++i) {
      morun_weights_operand operand;
      EXPECT_EQ(morun_weights_operand_of(loaded_, i, &operand), 0);
      const std::vector<uint8_t> expected = matrix(all[i]).bytes;
      EXPECT_EQ(memcmp(operand.bytes, expected.data(), expected.size()), 0) << text << ", " << i;
    }
    EXPECT_EQ(morun_weights_release(loaded_), 0) << morun_weights_error_text();
  }
  // Nothing is left but sessions.
  void expect_failure(tavik_context* context, const std::string& requested, int32_t status, const std::string& text,
                      uint64_t largest_buffer = 0) {
    const parlo_emulator_usage before = test::usage();
    const uint64_t n_buffers = context->n_buffers;
    test::expect_status(load(context, requested, largest_buffer), status, text);
    EXPECT_EQ(loaded_, nullptr);
    EXPECT_EQ(context->n_buffers, n_buffers);
    EXPECT_EQ(test::usage().n_allocations, before.n_allocations);
    EXPECT_EQ(test::usage().n_bytes, before.n_bytes);
  }
  test::PackedMatrix matrix(const morun_weights_request& request) const {
    const morun_weights_tensor t = tensor(request.tensor);
    test::PackedMatrix matrix = {t.form, t.layout, std::vector<uint8_t>(t.n_byte)};
    EXPECT_EQ(morun_weights_file_read(file_, request.tensor, 0, t.n_byte, matrix.bytes.data()), 0);
    return matrix;
  }

  const std::string path_ = path("packed.safetensors");
  morun_weights_file* file_ = nullptr;
  morun_weights_loaded* loaded_ = nullptr;
};

// ---- Plans ---------------------------------------------------------------------------------------------------------

// Returns "SIZES of the buffers / of which in session 0: BUFFER+OFFSET of each request", in units of 2048 bytes.
std::string told(const morun_weights_plan& plan, const std::vector<morun_weights_place>& places) {
  std::ostringstream text;
  for (uint32_t i = 0; i < plan.n_buffer; ++i) text << plan.buffer_size[i] / 2048 << ' ';
  text << "/ " << plan.n_first_session << ':';
  for (const auto& place : places) text << ' ' << place.buffer << '+' << place.offset / 2048;
  return text.str();
}

TEST_F(WeightsLoad, PlansOfBuffers) {
  // fN takes N times 2048 bytes; q4 and q5, of 4 bits, take 4 and 5 times.
  open(
      "f1 f16 32 32  f2 f16 32 64  f3 f16 96 32  f4 f16 64 64  f5 f16 32 160  f6 f16 96 64  q4 a8w4 32 32 "
      "q5 a8w4 32 256  plain carried 1 1");
  test::expect_kept_text(test::played_commands([&](const std::string& command) {
    std::istringstream words(command);
    uint64_t largest = 0;
    uint32_t n_free = 0;
    words >> largest >> n_free;
    const Requests all = requests({std::istreambuf_iterator<char>(words), {}});
    std::vector<morun_weights_place> places(all.size(), {77, 77});
    morun_weights_plan plan = {};
    const int32_t status =
        morun_weights_plan_places(file_, all.size(), all.data(), 2048 * largest, n_free, &plan, places.data());
    if (status == 0) return "  " + told(plan, places) + '\n';
    EXPECT_EQ(plan.n_buffer + places[0].buffer + places[0].offset, 154u) << "unchanged";
    return outcome(status);
  }));

  const morun_weights_request any = {0, 0, 0}, none = {9, 0, 0};
  morun_weights_plan plan;
  morun_weights_place place;
  EXPECT_EQ(morun_weights_plan_places(file_, 1, &any, 2047, 32, &plan, &place), MORUN_WEIGHTS_BAD_ARGUMENT);
  EXPECT_EQ(morun_weights_plan_places(file_, 1, &none, 0, 32, &plan, &place), MORUN_WEIGHTS_BAD_ARGUMENT);
  test::expect_nulls_refused(morun_weights_plan_places, file_, 1, &any, 0, 32, &plan, &place);
}

TEST_F(WeightsLoad, PlansReachOffsetsOf32Bits) {
  // The data, of which nothing is read, is a hole: a and b take 2^31 bytes, c takes 2048.
  constexpr uint64_t large = uint64_t{1} << 31;
  const std::pair<std::string, uint64_t> columns[] = {{"a", large / 64}, {"b", large / 64}, {"c", 32}};
  Json header;
  header["__metadata__"]["morun.format"] = "1";
  uint64_t begin = 0;
  for (const auto& [name, n_col] : columns) {
    Json record = Json::parse(R"({"form": "f16", "n_inner": 32, "source": "", "source_dtype": "", "error": 0,
                                        "checksum": "xxh3:0123456789abcdef"})");
    record["n_col"] = n_col;
    header["__metadata__"]["morun.tensor." + name] = record.dump();
    header[name] = {{"dtype", "U8"}, {"shape", {64 * n_col}}, {"data_offsets", {begin, begin + 64 * n_col}}};
    begin += 64 * n_col;
  }
  std::string text = header.dump();
  text.resize(4088, ' ');
  write("packed.safetensors", test::with_length(text));
  fs::resize_file(path_, 4096 + begin);
  ASSERT_EQ(morun_weights_file_open(path_.c_str(), &file_), 0) << morun_weights_error_text();
  morun_weights_plan plan;
  std::vector<morun_weights_place> places(3);
  const auto make = [&](const Requests& all) {
    return morun_weights_plan_places(file_, all.size(), all.data(), 2 * large - 2048, 32, &plan, places.data());
  };
  ASSERT_EQ(make(requests("a/1 b c/1")), 0) << morun_weights_error_text();
  EXPECT_EQ(told(plan, places), "1048577 1048576 / 0: 0+0 1+0 0+1048576");
  test::expect_status(make(requests("a/1 b/1")), MORUN_WEIGHTS_GROUP_TOO_LARGE,
                      "takes 4294967296 bytes in one buffer, and the largest buffer has 4294965248");
  EXPECT_EQ(make(requests("a/1 b/1 c/1")), MORUN_WEIGHTS_GROUP_TOO_LARGE);
  const Requests a = requests("a");
  test::expect_status(morun_weights_plan_places(file_, 1, a.data(), 0, 32, &plan, places.data()),
                      MORUN_WEIGHTS_GROUP_TOO_LARGE, "and the largest buffer has 268435456");
}

// ---- Products ------------------------------------------------------------------------------------------------------

constexpr int32_t n_row = 3;

// Integers up to 127, which 127 makes exact in 8 bits; the padding is 0.
std::vector<float> activation_of(const morun_weights_operand& o) {
  const auto n_inner = static_cast<size_t>(o.padded_n_inner);
  std::vector<float> X(n_row * n_inner);
  test::Random random(5);
  for (size_t at = 0; at < X.size(); ++at)
    if (at % n_inner < static_cast<size_t>(o.n_inner))
      X[at] = at % n_inner == 3 ? 127 : static_cast<float>(random.bits() % 255) - 127;
  return X;
}

void expect_product(const test::PackedMatrix& W, const std::vector<float>& X, const std::vector<float>& A) {
  const size_t n_inner = W.layout.padded_n_inner, n_col = W.layout.padded_n_col;
  std::vector<float> sizes_of_x(X);
  for (float& x : sizes_of_x) x = std::abs(x);
  const auto exact = test::product(X, n_inner, n_col, [&](auto k, auto c) { return W.value(k, c); });
  const auto sizes = test::product(sizes_of_x, n_inner, n_col, [&](auto k, auto c) { return std::abs(W.value(k, c)); });
  for (size_t at = 0; at < A.size(); ++at)
    ASSERT_NEAR(A[at], exact[at], sizes[at] * (W.form == f16 ? 1e-3 : 1e-6)) << at / n_col << ", " << at % n_col;
}

// One product, or two in one call.
uint32_t multiply(tavik_context* context, const std::vector<morun_weights_operand>& operands,
                  const std::vector<float*>& A, const float* X) {
  const morun_weights_operand& first = operands[0];
  products::Operands product = {n_row, first.padded_n_col, first.padded_n_col, first.padded_n_inner, {}, X};
  std::copy(A.begin(), A.end(), product.A);
  std::vector<products::WeightPlace> places;
  for (const morun_weights_operand& o : operands)
    places.push_back({static_cast<uint32_t>(o.fd), o.q_offset, o.z_offset, o.s_offset, o.sum_offset});
  uint64_t handle;
  if (first.form == a8w4) tavik_context_get_handle_from_fd(context, first.fd, &handle);  // the single product does not
  const auto kind = first.form == f16 ? products::f16 : first.form == a8w8 ? products::a8w8 : products::a8w4;
  return products::multiply(context, kind, product, places);
}

TEST_F(WeightsLoad, ProductsOfLoadedMatricesAreThoseOfWhatWasPacked) {
  open(
      "k a8w8 70 45  out f16 70 45  gate a8w4 70 90  up a8w4 70 91  q a8w8 70 64  down f16 33 64  head a8w4 70 31 "
      "big a8w8 96 256");
  // The last one has to be in session 0, which has not room for everything.
  const char* const requested = "big out q/3 gate/1 k/3 up/1 down head";
  const Requests all = requests(requested);
  const int32_t n_inner[] = {96, 70, 70, 70, 70, 70, 33, 70}, n_col[] = {256, 45, 64, 90, 45, 91, 64, 31};
  constexpr size_t q = 2, gate = 3, k = 4, up = 5, head = 7;
  std::vector<test::PackedMatrix> W;
  for (const auto& r : all) W.push_back(matrix(r));
  tavik_context* const context = initialise_with_room(60 * kib);
  for (const int32_t skip_checksums : {0, 1}) {
    ASSERT_EQ(load(context, requested, 32 * kib, skip_checksums), 0) << morun_weights_error_text();
    if (skip_checksums != 0) morun_weights_file_close(std::exchange(file_, nullptr));  // which is not needed any more
    std::vector<morun_weights_operand> operands(all.size());
    std::vector<std::vector<float>> X, A;
    std::set<uint64_t> sessions;
    for (size_t i = 0; i < all.size(); ++i) {
      SCOPED_TRACE(i);
      morun_weights_operand& o = operands[i];
      ASSERT_EQ(morun_weights_operand_of(loaded_, i, &o), 0);
      EXPECT_EQ(memcmp(o.bytes, W[i].bytes.data(), W[i].bytes.size()), 0);
      EXPECT_TRUE(o.form == W[i].form && o.n_inner == n_inner[i] && o.n_col == n_col[i]);
      EXPECT_TRUE(o.form != f16 || o.z_offset + o.s_offset + o.sum_offset == 0);
      uint64_t session = 77;
      EXPECT_EQ(tavik_context_get_session_from_fd(context, o.fd, &session), 0);
      EXPECT_EQ(session, o.session);
      sessions.insert(session);
      X.push_back(activation_of(o));
      A.emplace_back(n_row * static_cast<size_t>(o.padded_n_col));
      if (i == gate || i == up) continue;
      ASSERT_EQ(multiply(context, {o}, {A[i].data()}, X[i].data()), 0u) << test::last_error();
      expect_product(W[i], X[i], A[i]);
    }
    EXPECT_EQ(operands[head].session, 0u);
    EXPECT_GT(sessions.size(), 1u);
    EXPECT_EQ(operands[q].fd, operands[k].fd);
    const std::vector pair = {operands[gate], operands[up]};
    ASSERT_EQ(multiply(context, pair, {A[gate].data(), A[up].data()}, X[gate].data()), 0u) << test::last_error();
    expect_product(W[gate], X[gate], A[gate]);
    expect_product(W[up], X[up], A[up]);
    EXPECT_EQ(morun_weights_operand_of(loaded_, all.size(), &operands[0]), MORUN_WEIGHTS_BAD_ARGUMENT);
    test::expect_nulls_refused(morun_weights_operand_of, loaded_, 0, &operands[0]);
    EXPECT_EQ(morun_weights_release(loaded_), 0) << morun_weights_error_text();
    EXPECT_EQ(context->n_buffers, 0u);
  }
  clean_up(context);
}

// ---- Failures ------------------------------------------------------------------------------------------------------

TEST_F(WeightsLoad, WhatDoesNotFitIsRefusedAndLeavesNothing) {
  open("a a8w4 32 32  b a8w4 64 1024  c f16 64 128");  // 8, 40 and 16 KiB
  tavik_context* context = initialise_with_room(50 * kib);
  expect_success(context, "");
  expect_success(context, "c b a");
  const int32_t taken = allocate(context, 8 * kib);
  expect_failure(context, "c b a", MORUN_WEIGHTS_SESSION,
                 "be in session 0 and take 49152 bytes; session 0 has no room for 49152 bytes beside 0 of them");
  expect_failure(context, "c b a", MORUN_WEIGHTS_SESSION,
                 "take 49152 bytes; session 0 has no room for 8192 bytes beside 40960 of them", 40 * kib);
  expect_success(context, "c b");
  expect_failure(context, "b", MORUN_WEIGHTS_GROUP_TOO_LARGE, "takes 40960 bytes", 36 * kib);
  const uint64_t n_allocated = test::usage().n_bytes;
  test::configure([&](auto& config) { config.allocation_bytes = n_allocated + 20 * kib; });
  expect_failure(context, "c a", MORUN_WEIGHTS_BUFFER,
                 "buffer 2 of 2, of 16384 bytes, cannot be had beside 8192 bytes in those before it; the context has 2 "
                 "sessions: failed to allocate shared buffer of size 16384");
  release(context, taken);
  clean_up(context);

  parlo_emulator_reset();
  context = initialise();
  std::vector<int32_t> fds;
  while (fds.size() < 31) fds.push_back(allocate(context, 2048));
  expect_failure(context, "c a", MORUN_WEIGHTS_TOO_MANY_BUFFERS, "take 2, and 1 are free", 16 * kib);
  expect_success(context, "c a");
  for (const int32_t fd : fds) release(context, fd);
  const morun_weights_request any = {0, 0, 0};
  for (int null = 0; null < 4; ++null)
    EXPECT_EQ(morun_weights_load(null == 0 ? nullptr : file_, null == 1 ? nullptr : context, 1,
                                 null == 2 ? nullptr : &any, nullptr, null == 3 ? nullptr : &loaded_),
              MORUN_WEIGHTS_NULL_ARGUMENT);
  morun_weights_load_options options = {1, 2, 3};
  morun_weights_load_options_init(&options);
  EXPECT_EQ(options.largest_buffer, 1u << 28);
  EXPECT_EQ(options.skip_checksums, 0);
  clean_up(context);
}

TEST_F(WeightsLoad, ReadsThatFailLeaveNothingAndShortOnesGoOn) {
  constexpr char matrices[] = "a a8w8 512 1024  b f16 64 128  c a8w4 64 64";  // the first takes several reads
  open(matrices);
  tavik_context* const context = initialise();
  for (const auto result : {short_read, interrupted, input_output_error, end_of_file}) {
    read_result = result;
    const int32_t expected = result == end_of_file          ? MORUN_WEIGHTS_SHRUNK
                             : result == input_output_error ? MORUN_WEIGHTS_READ
                                                            : MORUN_WEIGHTS_SUCCESS;
    uint64_t nth = 0;
    do {
      nth_read = ++nth;
      const int32_t status = load(context, "c b a");
      EXPECT_EQ(status, nth_read == 0 ? expected : 0) << result << ", read " << nth;
      EXPECT_EQ(context->n_buffers == 0, loaded_ == nullptr);
      EXPECT_EQ(morun_weights_release(loaded_), 0);
    } while (nth_read == 0);
    EXPECT_GT(nth, 5u);
    nth_read = 0;
  }

  // The file becomes shorter, by one byte or by many. Then a byte of it changes.
  const uint64_t size = fs::file_size(path_), size_of_c = tensor(2).n_byte;
  for (const uint64_t less : {uint64_t{1}, size_of_c, size_of_c + 1, size - tensor(1).file_offset, size - 1}) {
    fs::resize_file(path_, size - less);
    expect_failure(context, "a b c", MORUN_WEIGHTS_SHRUNK, "has become shorter and ends before byte ");
  }
  fs::resize_file(path_, size);
  expect_failure(context, "c b a", MORUN_WEIGHTS_CHECKSUM, "tensor \"a\"");
  EXPECT_EQ(load(context, "c b a", 0, 1), 0);
  EXPECT_EQ(morun_weights_release(loaded_), 0);
  open(matrices);
  std::fstream(path_, std::ios::in | std::ios::out | std::ios::binary).seekp(static_cast<int64_t>(size) - 1).put('\1');
  expect_success(context, "b a");
  expect_failure(context, "c b a", MORUN_WEIGHTS_CHECKSUM, "tensor \"c\": the bytes have checksum");
  clean_up(context);
}

TEST_F(WeightsLoad, BuffersThatTheDspKeepsAreReleasedLater) {
  open("a f16 32 32  b f16 32 64");
  tavik_context* const context = initialise();
  ASSERT_EQ(load(context, "a b", 4 * kib), 0) << morun_weights_error_text();
  for (const uint64_t left : {2, 1}) {  // the DSP keeps both; then the second alone
    parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, left == 2 ? 0 : 2, 0x77, EIO);
    test::expect_status(morun_weights_release(loaded_), MORUN_WEIGHTS_BUFFER,
                        std::to_string(left) + " of the buffers cannot be freed: Failed to ");
    EXPECT_EQ(context->n_buffers, left);
    parlo_emulator_clear_fault();
  }
  EXPECT_EQ(morun_weights_release(loaded_), 0);
  EXPECT_EQ(context->n_buffers, 0u);

  // A failure half-way, and a DSP that keeps a buffer.
  fs::resize_file(path_, fs::file_size(path_) - 1);
  parlo_emulator_fail(PARLO_EMULATOR_MUNMAP, -1, 1, 0x77, EIO);
  const int32_t status = load(context, "a b", 4 * kib);
  test::expect_status(status, MORUN_WEIGHTS_SHRUNK, "1 of the buffers stay in the context, because the DSP refuses");
  test::expect_status(status, MORUN_WEIGHTS_SHRUNK, "ends before byte");
  EXPECT_EQ(context->n_buffers, 1u);
  release(context, context->buffer_fd[0]);

  // What the program has freed is gone, and nobody else's buffer with it.
  ASSERT_EQ(load(context, "a"), 0) << morun_weights_error_text();
  const int32_t freed = context->buffer_fd[0];
  release(context, freed);
  const int32_t other = allocate(context, 1 << 20);
  EXPECT_EQ(other, freed);
  EXPECT_EQ(morun_weights_release(loaded_), 0);
  EXPECT_EQ(context->n_buffers, 1u);
  release(context, other);
  EXPECT_EQ(morun_weights_release(nullptr), 0);
  clean_up(context);
}

TEST_F(WeightsLoad, LoadingTakesLittleMemoryBesideTheBuffers) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the address sanitizer maps memory of its own";
#endif
  std::ostringstream matrices, requested;
  matrices << "large f16 2048 2048 ", requested << "large ";
  for (int i = 0; i < 400; ++i) matrices << 'm' << i << " f16 32 32 ", requested << 'm' << i << ' ';
  open(matrices.str());
  tavik_context* const context = initialise();
  const Requests all = requests(requested.str());
  // Private writable memory, which shared buffers are not. What the heap has to give counts as taken.
  malloc_trim(0);
  std::ifstream status("/proc/self/status");
  std::string word;
  rlim_t held_kib = 0;
  while (status >> word && word != "VmData:") continue;
  status >> held_kib;
  rlimit limit;
  getrlimit(RLIMIT_DATA, &limit);
  const rlimit small = {held_kib * kib + (1 << 20) - mallinfo2().fordblks, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_DATA, &small), 0);
  const int32_t result = morun_weights_load(file_, context, all.size(), all.data(), nullptr, &loaded_);
  setrlimit(RLIMIT_DATA, &limit);
  EXPECT_EQ(result, 0) << morun_weights_error_text();
  EXPECT_EQ(morun_weights_release(loaded_), 0);
  clean_up(context);
}

}  // namespace
