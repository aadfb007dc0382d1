// What the runtime, the stub, the products and both interfaces do, say and leave: scenarios against expected texts.
#include "tests/transcript.h"

#include <dlfcn.h>
#include <sys/mman.h>

#include "include/dsp_capability.h"
#include "platform/parlo.h"
#include "tests/products.h"
#include "tests/upper.h"

// Sizes that no allocator can give are refused under instrumentation, too.
extern "C" const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}

namespace {

bool open_fails_late = false;    // after it has given a handle
bool domains_are_wrong = false;  // of another type than was asked for

}  // namespace

// These stand before the platform's.
extern "C" int parlo_system_request(parlo_system_domains* record) {
  static const auto request =
      reinterpret_cast<int (*)(parlo_system_domains*)>(dlsym(RTLD_NEXT, "parlo_system_request"));
  const int status = request(record);
  if (domains_are_wrong && record->domains != nullptr) record->domains[0].type = 9;
  return status;
}
extern "C" int parlo_handle_open(const char* uri, uint64_t* handle) {
  static const auto open = reinterpret_cast<int (*)(const char*, uint64_t*)>(dlsym(RTLD_NEXT, "parlo_handle_open"));
  const int status = open(uri, handle);
  return open_fails_late ? 0x77 : status;
}

namespace {

class LowerTranscript : public test::Transcript {
 protected:
  // Limits that all differ: a result of 8192 elements, an activation of 16384, 256 rows. Sessions with room for one large
  // buffer.
  static constexpr tavik_options limits = {8192, 256, 16384, 0};
  static constexpr uint64_t large = 1 << 20;

  int64_t initialise() { return tavik_init(&limits, &c); }
  void start(int n_session = 0) {
    test::configure([](auto& config) { config.session_bytes = 3 << 19; });
    c = nullptr;
    initialise();
    watch(c);
    for (int i = 0; i < n_session; ++i) tavik_buffer_alloc(c, large, &pointer[i], &fd[i]);
  }
  int64_t clean_up() {
    const int32_t status = tavik_cleanup(c);
    if (status == 0) c = nullptr;
    return status;
  }
  // An address that a failure sets to NULL, and a descriptor that it sets to -1.
  std::string outputs() {
    return "outputs " + std::string(out == nullptr ? "NULL" : "set") + ", " + std::to_string(out_fd);
  }

  tavik_context* c = nullptr;
  void* pointer[4] = {};
  int32_t fd[4] = {};
  void* out = &out;
  int32_t out_fd = 77;
  uint64_t handle = 5, session = 5;
};

class Transcripts : public LowerTranscript {};

TEST_F(Transcripts, StartAndStop) {
  watch(c);
  tavik_options* options = nullptr;
  PLAY(tavik_options_alloc(nullptr));
  PLAY(tavik_options_alloc(&options));
  PLAY((tavik_options_print(stdout, options), options->n_row_max + options->reserved));
  PLAY((tavik_options_print(stderr, nullptr), 0));
  PLAY(tavik_context_alloc(nullptr));
  PLAY(tavik_context_alloc(&c));
  PLAY((tavik_context_print(stderr, c), tavik_context_print(stderr, nullptr), 0));
  say("--- a context that was never initialised");
  PLAY(tavik_context_get_handle_from_fd(c, 0, &handle));
  PLAY(tavik_lock_compute_device(c));
  PLAY(tavik_unlock_compute_device(c));
  PLAY(tavik_cleanup(c));
  PLAY(tavik_cleanup(nullptr));
  PLAY(tavik_lock_compute_device(nullptr));
  PLAY(tavik_unlock_compute_device(nullptr));
  PLAY((tavik_context_free(std::exchange(c, nullptr)), tavik_context_free(nullptr), handle));
  say("--- the default options");
  PLAY(tavik_init(options, &c));
  PLAY((tavik_context_print(stderr, c), tavik_options_free(options), tavik_options_free(nullptr), 0));
  PLAY(tavik_unlock_compute_device(c));
  PLAY(tavik_lock_compute_device(c));
  PLAY(tavik_lock_compute_device(c));
  PLAY(tavik_unlock_compute_device(c));
  PLAY(tavik_lock_compute_device(c));
  PLAY(clean_up());
  say("--- sizes that are no multiples of a page");
  const tavik_options odd = {100, 1000, 2049, 9};
  PLAY(tavik_init(&odd, &c));
  PLAY(clean_up());
  say("--- what one shared buffer cannot hold, and nothing at all");
  for (const tavik_options& bad : {tavik_options{1 << 29, 1, 1, 0},
                                   {(1 << 29) - 1, 1, 1 << 30, 0},
                                   {1, 1, ~0ull, 0},
                                   {1, 1ull << 62, 1, 0},
                                   {0, 1, 1, 0}})
    play("tavik_init with " + std::to_string(bad.output_matrix_size_max) + ", " + std::to_string(bad.n_row_max) + ", " +
             std::to_string(bad.input_matrix_size_max),
         [&] { return tavik_init(&bad, &c); });
  test::configure([](auto& config) { config.lowest_descriptor = 1023; });
  PLAY(initialise());
  test::configure([](auto& config) { config.lowest_descriptor = 100; });
  say("--- greetings");
  PLAY(tavik_hello_host());
  PLAY(tavik_hello_veyra());
}

TEST_F(Transcripts, BuffersAndSessions) {
  prepare([this] { start(); });
  PLAY(tavik_buffer_alloc(c, 1, nullptr, nullptr));
  PLAY(tavik_buffer_alloc(c, 0, &out, &out_fd));
  aftermath = [this] { return outputs(); };
  PLAY(tavik_buffer_alloc(c, large, &out, &fd[0]));
  PLAY(tavik_buffer_alloc(c, large, nullptr, &fd[1]));
  PLAY(tavik_buffer_alloc(c, 100, &pointer[2], nullptr));
  PLAY(tavik_buffer_alloc(c, large, &pointer[3], &fd[3]));
  say("--- lookups");
  out = &out;
  PLAY((tavik_context_print(stderr, c), 0));
  PLAY(tavik_context_get_pointer_from_fd(c, fd[0], nullptr));
  PLAY(tavik_context_get_session_from_fd(c, fd[0], nullptr));
  PLAY(tavik_context_get_handle_from_fd(c, fd[0], nullptr));
  PLAY(tavik_context_get_pointer_from_fd(c, c->A0_fd, &out));
  PLAY(tavik_context_get_pointer_from_fd(c, fd[3], &out) + (out == pointer[3] ? 0 : 99));
  PLAY(tavik_context_get_session_from_fd(c, 1023, &session));
  PLAY((tavik_context_get_session_from_fd(c, fd[3], &session), session));
  for (const int32_t bad : {1024, -1, INT32_MIN})
    play("tavik_context_get_handle_from_fd of " + std::to_string(bad),
         [&] { return tavik_context_get_handle_from_fd(c, bad, &handle); });
  say("--- switching");
  for (const int32_t of : {fd[0], fd[1], fd[1], fd[3], c->A0_fd, 1023})
    play("tavik_context_get_handle_from_fd of " + std::to_string(of),
         [&] { return tavik_context_get_handle_from_fd(c, of, &handle); });
  PLAY(tavik_unlock_compute_device(c));
  PLAY(tavik_context_get_handle_from_fd(c, fd[3], &handle));
  say("--- freeing");
  PLAY(tavik_buffer_free(c, fd[1]));
  PLAY(tavik_buffer_free(c, fd[1]));
  PLAY(tavik_buffer_free(c, c->X_fd));
  PLAY(tavik_buffer_alloc(c, large, &pointer[1], &fd[1]));
  say("--- what no session takes opens one more each time");
  PLAY(tavik_buffer_alloc(c, 2 * large, &out, &out_fd));
  PLAY(tavik_buffer_alloc(c, 2 * large, &out, &out_fd));
  say("--- descriptors");
  test::configure([](auto& config) { config.lowest_descriptor = 1023; });
  out = &out;
  PLAY(tavik_buffer_alloc(c, 3, &out, &out_fd));
  PLAY(tavik_buffer_alloc(c, 3, &out, &out_fd));
  say("--- as many buffers as there can be");
  test::configure([](auto& config) { config.lowest_descriptor = 100; });
  prepare([&] {
    for (int i = 0; i < TAVIK_MAX_BUFFERS; ++i) tavik_buffer_alloc(c, 1, nullptr, &out_fd);
  });
  PLAY(tavik_buffer_alloc(c, 1, &out, &out_fd));
  say("--- the end, on which the sessions go one after the other");
  aftermath = [] { return ""; };
  prepare([&] {
    for (int i = 0; i < TAVIK_MAX_BUFFERS; ++i) tavik_buffer_free(c, c->buffer_fd[0]);
  });
  PLAY(clean_up());
}

TEST_F(Transcripts, FailuresOfTheRuntime) {
  const auto two = [this] { start(2); };
  aftermath = [this] { return outputs(); };
  play_failures(
      "tavik_init", [this] { c = nullptr, watch(c); }, [this] { return initialise(); });
  play_failures(
      "tavik_buffer_alloc, for which a session has room", [this] { start(); },
      [this] { return tavik_buffer_alloc(c, large, &(out = &out), &(out_fd = 77)); });
  play_failures(
      "tavik_buffer_alloc, for which the one session has no room", [this] { start(1); },
      [this] { return tavik_buffer_alloc(c, large, &(out = &out), &(out_fd = 77)); });
  aftermath = [] { return ""; };
  play_failures("tavik_buffer_free", two, [this] { return tavik_buffer_free(c, fd[1]); });
  play_failures("tavik_context_get_handle_from_fd, in the active session", two,
                [this] { return tavik_context_get_handle_from_fd(c, fd[0], &handle); });
  play_failures("tavik_context_get_handle_from_fd, from an unlocked session to another", two,
                [this] { return tavik_context_get_handle_from_fd(c, fd[1], &handle); });
  play_failures(
      "tavik_context_get_handle_from_fd, from a locked session to another",
      [&] { two(), tavik_lock_compute_device(c); },
      [this] { return tavik_context_get_handle_from_fd(c, fd[1], &handle); });
  play_failures("tavik_lock_compute_device", two, [this] { return tavik_lock_compute_device(c); });
  play_failures(
      "tavik_unlock_compute_device", [&] { two(), tavik_lock_compute_device(c); },
      [this] { return tavik_unlock_compute_device(c); });
  play_failures(
      "tavik_cleanup of two sessions",
      [&] { two(), tavik_lock_compute_device(c), tavik_buffer_free(c, fd[0]), tavik_buffer_free(c, fd[1]); },
      [this] { return clean_up(); });
  play_failures("tavik_npu_test", two, [this] { return tavik_npu_test(c, 1, static_cast<uint32_t>(fd[0])); });
  open_fails_late = true;
  play("tavik_init on a platform that gives a handle and fails", [this] { return initialise(); });
  open_fails_late = false;
  play_to_the_end("tavik_hello_veyra on a platform without the module", [] {
    parlo_emulator_fail(PARLO_EMULATOR_HANDLE_OPEN, -1, 1, 0x77, EIO);
    tavik_hello_veyra();
  });
  parlo_emulator_fail(PARLO_EMULATOR_MEM_ALLOC2, -1, 1, 0x77, EIO);
  PLAY(tavik_hello_veyra());
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 13, 1, 0x77, EIO);
  PLAY(tavik_hello_veyra());
}

TEST_F(Transcripts, SecondTries) {
  say("--- a session that could not be opened is kept for the next try");
  for (const int operation : {PARLO_EMULATOR_SESSION_CONTROL, PARLO_EMULATOR_HANDLE_OPEN}) {
    start_afresh();
    prepare([this] { start(1); });
    parlo_emulator_fail(operation, -1, operation == PARLO_EMULATOR_HANDLE_OPEN ? 1 : 2, 0x77, EIO);
    PLAY(tavik_buffer_alloc(c, large, &out, nullptr));
    PLAY(tavik_buffer_alloc(c, large, &out, &fd[1]));
    say("--- and one that is closed again is no longer reserved");
    parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 3, 1, 0x77, EIO);
    PLAY(tavik_buffer_alloc(c, large, &out, nullptr));
    PLAY(tavik_buffer_alloc(c, large, &out, &fd[2]));
    prepare([this] { tavik_buffer_free(c, fd[0]), tavik_buffer_free(c, fd[1]), tavik_buffer_free(c, fd[2]); });
    PLAY(clean_up());
  }
  say("--- a second cleanup takes every step again, and insists on closing");
  start_afresh();
  prepare([this] { start(2), tavik_buffer_free(c, fd[0]), tavik_buffer_free(c, fd[1]), tavik_lock_compute_device(c); });
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 8, 1, 0x77, EIO);
  PLAY(clean_up());
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_CLOSE, -1, 1, 0x77, EIO);
  PLAY(clean_up());
  PLAY(clean_up());
  say("--- contexts that share a matrix unit find it busy");
  start_afresh();
  test::configure([](auto& config) { config.shared_matrix_unit = 1; });
  tavik_context* rival = nullptr;
  prepare([&] { start(), tavik_init(&limits, &rival); });
  PLAY(tavik_lock_compute_device(c));
  PLAY(tavik_lock_compute_device(rival));
  PLAY(tavik_context_get_handle_from_fd(rival, rival->X_fd, &handle));
  PLAY(tavik_unlock_compute_device(c));
  PLAY(tavik_lock_compute_device(rival));
  PLAY(tavik_cleanup(rival));
}

TEST_F(Transcripts, MemoryWrappers) {
  void *block = nullptr, *shared = nullptr;
  int32_t shared_fd = 0;
  aftermath = [&] {
    return "block " + std::string(block == nullptr ? "NULL" : "set") + ", shared " +
           (shared == nullptr ? "NULL" : "set") + ", descriptor " + std::to_string(shared_fd);
  };
  const uint64_t too_much = uint64_t{1} << 62;
  PLAY(tavik_malloc(nullptr, 1));
  PLAY(tavik_malloc_zero(nullptr, 1));
  PLAY(tavik_rpcmem_alloc(nullptr, 1));
  PLAY(tavik_rpcmem_alloc_zero(nullptr, 1));
  PLAY(tavik_rpcmem_to_fd(nullptr, nullptr));
  PLAY(tavik_malloc(&block, too_much));
  PLAY(tavik_malloc_zero(&block, too_much));
  PLAY(tavik_malloc(&block, 100));
  PLAY(tavik_realloc(&block, 200));
  PLAY(tavik_realloc(&block, 0));
  PLAY(tavik_malloc_zero(&block, 100) + static_cast<uint8_t*>(block)[99]);
  PLAY(tavik_realloc(&block, too_much));
  PLAY(tavik_malloc(&block, 0));
  PLAY(tavik_malloc_zero(&(block = &block), 0));
  PLAY(tavik_rpcmem_alloc(&shared, 0x80000000u));
  PLAY(tavik_rpcmem_alloc_zero(&shared, 0x80000000u));
  PLAY(tavik_rpcmem_alloc(&(shared = &shared), 0));
  PLAY(tavik_rpcmem_alloc_zero(&(shared = &shared), 0));
  PLAY(tavik_rpcmem_alloc(&shared, 5000));
  PLAY(tavik_rpcmem_to_fd(&shared_fd, shared));
  PLAY(tavik_rpcmem_mmap(shared_fd, shared, 5000));
  PLAY(tavik_rpcmem_munmap(shared_fd, shared, 5000));
  prepare([this] { start(); });
  PLAY(tavik_rpcmem_mmap(shared_fd, shared, 5000));
  PLAY(tavik_rpcmem_munmap(shared_fd, shared, 5000));
  PLAY((tavik_rpcmem_free(shared), tavik_rpcmem_free(nullptr), 0));
  PLAY(tavik_rpcmem_alloc_zero(&shared, 100) + static_cast<uint8_t*>(shared)[99]);
  PLAY((tavik_rpcmem_free(shared), 0));
  know("stack", &block);
  PLAY(tavik_rpcmem_to_fd(&shared_fd, &block));
  // Cut to its low 32 bits.
  PLAY(tavik_rpcmem_alloc(&shared, (uint64_t{1} << 32) + 7));
  PLAY((tavik_rpcmem_free(shared), 0));
}

// ---- Products

using products::f16, products::a8w8, products::a8w4, products::Kind, products::WeightPlace;
using test::make_view;

// All weights of a matrix have one value, and the activations are 0 and 1 in turn: every element of a result is the value
// n_inner / 2 times.
class ProductTranscripts : public LowerTranscript {
 protected:
  static constexpr int32_t n_row = 67, n_col = 64, n_inner = 96;
  static constexpr uint64_t part_bytes = 1 << 16;

  using Weights = std::vector<WeightPlace>;
  using Result = std::vector<float>;
  using N = std::array<int32_t, 3>;  // rows, columns, inner dimension

  // Opens two sessions and locks the matrix unit. Each session has a large buffer with three matrices; the values of the
  // six matrices are 1 to 6.
  void begin(Kind kind, int n_session = 2) {
    start(n_session);
    tavik_lock_compute_device(c);
    for (int i = 0; i < 3 * n_session; ++i) fill(kind, matrix(i), pointer[i / 3], i + 1);
    for (Result& a : A) a.assign(n_row * n_col, -7);
    memset(c->X, 0x5a, c->X_size);
    aftermath = [this] { return results(); };
  }
  static WeightPlace place(uint32_t of, uint32_t q = 0) { return {of, q, q + 16384, q + 18432, q + 20480}; }
  WeightPlace matrix(int i) const {
    return place(static_cast<uint32_t>(fd[i / 3]), static_cast<uint32_t>(i % 3 * part_bytes + 2048));
  }
  static void fill(Kind kind, const WeightPlace& w, void* base, int value) {
    const auto at = [&]<class T>(T, uint64_t offset) {
      return reinterpret_cast<T*>(static_cast<char*>(base) + offset);
    };
    constexpr uint16_t halves[] = {0, 0x3c00, 0x4000, 0x4200, 0x4400, 0x4500, 0x4600};
    if (kind == f16) std::fill_n(at(uint16_t{}, w.q), n_inner * n_col, halves[value]);
    if (kind == a8w8) memset(at(uint8_t{}, w.q), value, n_inner * n_col);
    if (kind == a8w4) memset(at(uint8_t{}, w.q), value * 0x11, n_inner * n_col / 2);
    if (kind == f16) return;
    memset(at(uint8_t{}, w.z), 0, n_col);
    std::fill_n(at(uint16_t{}, w.s), n_col, halves[1]);
    std::fill_n(at(int32_t{}, w.sum), n_col, n_inner * value);
  }
  // What stands in the results, and whether X was written.
  std::string results() const {
    std::ostringstream told;
    told << "results";
    for (const Result& a : A) {
      const bool same = std::count(a.begin(), a.end(), a[0]) == static_cast<ptrdiff_t>(a.size());
      if (a[0] != -7 || !same) told << " " << (same ? "" : "from ") << a[0];
      if (a[0] == -7 && same) told << " -";
    }
    if (c == nullptr || c->X == nullptr) return told.str();
    told << "; X " << (*static_cast<uint8_t*>(c->X) == 0x5a ? "untouched" : "staged");
    return told.str();
  }

  uint32_t multiply(Kind kind, const Weights& w, const N& n = {n_row, n_col, n_inner}, int32_t n_col_kv = n_col) {
    return products::multiply(c, kind, {n[0], n[1], n_col_kv, n[2], {A[0].data(), A[1].data(), A[2].data()}, X.data()},
                              w);
  }
  // The first of three has fewer columns than the others.
  uint32_t multiply_matrices(Kind kind, const Weights& w) {
    const bool is_three = w.size() == 3;
    if (is_three) A[0].resize(n_row * 32);
    return multiply(kind, w, {n_row, is_three ? 32 : n_col, n_inner});
  }

  const std::vector<float> X = [] {
    std::vector<float> x(16384);
    for (size_t i = 1; i < x.size(); i += 2) x[i] = 1;
    return x;
  }();
  Result A[3];
};

class Products : public ProductTranscripts, public testing::WithParamInterface<Kind> {
 protected:
  // The products of one to three matrices, in one session and in two. Matrices 0 to 2 are in the first.
  struct Case {
    const char* call;
    std::function<uint32_t()> run;
  };
  std::vector<Case> cases() {
    const Kind kind = GetParam();
    const auto of = [=, this](auto... i) { return [=, this] { return multiply_matrices(kind, {matrix(i)...}); }; };
    return {{"of one matrix", of(1)},
            {"of one matrix in the second session", of(3)},
            {"of two in one session", of(1, 2)},
            {"of two in two sessions", of(1, 3)},
            {"of three in one session", of(0, 1, 2)},
            {"of three, the second and third in the second session", of(0, 4, 5)},
            {"of three, the third in the second session", of(0, 1, 4)},
            {"of three, the second in the second session", of(0, 4, 1)}};
  }
};
INSTANTIATE_TEST_SUITE_P(Of, Products, testing::Values(f16, a8w8, a8w4),
                         [](const auto& kind) { return products::kind_names[kind.param]; });

TEST_P(Products, ProductsCalls) {
  for (const Case& each : cases()) {
    start_afresh();
    prepare([this] { begin(GetParam()); });
    play(each.call, each.run);
    play("again", each.run);
  }
  PLAY(tavik_unlock_compute_device(c));
  play("of one matrix, after that", [this] { return multiply(GetParam(), {matrix(5)}); });
  if (GetParam() != f16) {
    const auto* const staged = static_cast<const char*>(c->X) + 4 * (n_row - 1);
    float scale;
    uint32_t sum;
    memcpy(&scale, staged + 12288, sizeof scale);
    memcpy(&sum, staged + 12288 + 2048, sizeof sum);
    say("X holds behind its bytes the last row's scale, one in " + std::to_string(1 / scale) + ", and sum " +
        std::to_string(sum));
  }
}

TEST_P(Products, ProductsFailures) {
  for (const Case& each : cases())
    play_failures(
        each.call, [this] { begin(GetParam()); }, each.run);
}

TEST_P(Products, ProductsRefusals) {
  const Kind kind = GetParam();
  prepare([=, this] { begin(kind); });
  say("--- dimensions: the limits are 8192 elements of a result, 16384 of an activation, 256 rows");
  for (const N& n : {N{1, 48, 40},
                     {1, 64, 40},
                     {1, 64, -40},
                     {128, 96, 32},
                     {128, 32, 160},
                     {257, 32, 32},
                     {-1, 32, 32},
                     {1, -32, 32},
                     {1, 32, INT32_MIN},
                     {1, 32, 8192},
                     {1, 8192, 32},
                     {1, 224, 32},
                     {1, 32, 544},
                     {1, 512, 32},
                     {1, 544, 32},
                     {1, 32, 576}})
    for (const size_t count : {1, 2, 3})
      play(std::to_string(count) + " of " + std::to_string(n[0]) + " x " + std::to_string(n[1]) + ", inner " +
               std::to_string(n[2]),
           [&] { return multiply(kind, Weights(count, place(2000)), n, 32); });
  A[0].resize(128 * n_col);
  play("128 x 64, inner 96, and 256 x 32, inner 64, which are at the limits", [&] {
    return multiply(kind, {matrix(0)}, {128, 64, n_inner}) | multiply(kind, {matrix(0)}, {256, 32, 64});
  });
  for (const auto& [q, kv] : {std::pair{16, 32}, {32, 16}, {128, 32}, {32, 128}})
    play("three matrices of " + std::to_string(q) + " and " + std::to_string(kv) + " columns", [&, q = q, kv = kv] {
      return multiply(kind, Weights(3, place(2000)), {n_row, q, n_inner}, kv);
    });
  say("--- weights that are not there, and rows that are not");
  for (Result& a : A) a.assign(n_row * n_col, -7);
  memset(c->X, 0x5a, c->X_size);
  for (const uint32_t of : {1024u, ~0u, 1023u})
    play("weights at descriptor " + std::to_string(static_cast<int32_t>(of)),
         [&, of] { return multiply(kind, {place(of)}); });
  play("second weights at descriptor 1024", [&] { return multiply(kind, {matrix(0), place(1024)}); });
  play("second weights at descriptor -1", [&] { return multiply(kind, {matrix(0), place(~0u)}); });
  play("no rows", [&] { return multiply(kind, {matrix(0)}, {0, n_col, n_inner}); });
  play("no inner dimension", [&] { return multiply(kind, {matrix(0)}, {n_row, n_col, 0}); });
  play("weights past the end of their buffer",
       [&] { return multiply(kind, {place(static_cast<uint32_t>(fd[0]), large - 32)}); });
  play("a context that was never initialised", [&] {
    const uint64_t active = std::exchange(c->active_session, ~uint64_t{0});
    const uint32_t status = multiply(kind, {matrix(0)});
    c->active_session = active;
    return status;
  });
}

// Where the side data of quantised weights may lie: up to the buffer's last byte.
TEST_F(ProductTranscripts, ProductsSideData) {
  for (const Kind kind : {a8w8, a8w4})
    for (uint64_t WeightPlace::*offset : {&WeightPlace::z, &WeightPlace::s, &WeightPlace::sum}) {
      start_afresh();
      prepare([=, this] { begin(kind); });
      const uint64_t bytes = offset == &WeightPlace::sum ? 4 * n_col
                             : offset == &WeightPlace::s ? 2 * n_col
                             : kind == a8w8              ? n_col
                                                         : n_col / 2;
      for (const uint64_t at : {large - bytes, large - bytes + 1, large, large + 1, ~uint64_t{0}}) {
        WeightPlace moved = matrix(0);
        moved.*offset = at;
        A[0].assign(n_row * n_col, -7);
        play(std::string(products::kind_names[kind]) +
                 (offset == &WeightPlace::z   ? " zero points"
                  : offset == &WeightPlace::s ? " scales"
                                              : " sums") +
                 " of " + std::to_string(bytes) + " bytes at " + std::to_string(at) + " of " + std::to_string(large),
             [&] { return multiply(kind, {moved}); });
      }
    }
}

TEST_F(ProductTranscripts, ProductsOfTilesAndIntegers) {
  prepare([this] { begin(f16); });
  const auto W = static_cast<uint32_t>(fd[0]);
  const auto wide = static_cast<uint32_t>(fd[1]);
  aftermath = [this] {
    const auto* const halves = static_cast<const uint16_t*>(pointer[1]) + 1024;
    return "first half of the buffer's A " + std::to_string(halves[0]) + ", of A0 " +
           std::to_string(*static_cast<int32_t*>(c->A0));
  };
  prepare([this] { std::fill_n(static_cast<uint16_t*>(pointer[1]) + 8192, 64 * 96, uint16_t{0x3c00}); });
  PLAY(tavik_npu_mm_f16_ah_f16_ah_f16_wh(c, 33, 64, 96, wide, wide, wide, 2048, 16384, 2048 + 65536));
  PLAY(tavik_npu_mm_f16_ah_f16_ah_f16_wh(c, 33, 64, 96, wide, wide, W, 2048, 16384, 2048));
  PLAY(tavik_npu_mm_f16_ah_f16_ah_f16_wh(c, 1, 64, 40, wide, wide, W, 0, 0, 0));
  PLAY(tavik_npu_mm_f16_ah_f16_ah_f16_wh(c, 1, 64, 32, wide, wide, 1024, 0, 0, 0));
  PLAY(tavik_npu_test(c, 3, W) | static_cast<uint8_t*>(pointer[0])[2] << 8 |
       static_cast<uint8_t*>(pointer[0])[3] << 16);
  PLAY(tavik_npu_test(c, 1 << 30, W));
  PLAY(tavik_npu_test(c, 3, 1024));
  PLAY(tavik_npu_test(c, 4, wide));
  prepare([this] {
    memset(c->X, 2, c->X_size);
    memset(c->A0, 0, c->A_size);
    memset(pointer[0], 0x33, large);
    tavik_lock_compute_device(c);
  });
  for (const auto run : {tavik_veyra_1mm_ui8i8_i32_tessel, tavik_veyra_1mm_ui8i4_i32_tessel}) {
    say(run == tavik_veyra_1mm_ui8i8_i32_tessel ? "--- 8-bit weights" : "--- 4-bit weights");
    PLAY(run(c, 100, 64, 96, ~0u, ~0u, W, 1, 2, 48));
    PLAY(run(c, 100, 33, 96, ~0u, ~0u, 2000, 0, 0, 0));
    PLAY(run(c, 100, 96, 32, ~0u, ~0u, 2000, 0, 0, 0));
    PLAY(run(c, -32, 32, 32, ~0u, ~0u, W, 0, 0, 0));
    PLAY(run(c, 1, 32, 2048, ~0u, ~0u, W, 0, 0, 0));
    PLAY(run(c, 1, 512, 32, ~0u, ~0u, W, 0, 0, 0));
    PLAY(run(c, 1, 32, 32, ~0u, ~0u, 1024, 0, 0, 0));
    PLAY(run(c, 1, 32, 0, ~0u, ~0u, W, 0, 0, 0));
    PLAY(run(c, 1, 32, 32, ~0u, W, wide, 0, 0, 0));
    for (const int method : {15, 19}) {
      parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, method, 1, 0x77, EIO);
      PLAY(run(c, 64, 32, 32, ~0u, ~0u, W, 0, 0, 0));
    }
    parlo_emulator_clear_fault();
  }
}

// ---- The upper interface

using UpperCall = std::function<int32_t(int32_t domain, std::array<int32_t, 3> n, void* A, void* X, void* W)>;
template <class A, class X, class W>
UpperCall erased(int32_t (*call)(int32_t, int32_t, int32_t, int32_t, A*, const X*, const W*)) {
  return [call](int32_t domain, std::array<int32_t, 3> n, void* a, void* x, void* w) {
    return call(domain, n[0], n[1], n[2], static_cast<A*>(a), static_cast<X*>(x), static_cast<W*>(w));
  };
}
struct NamedCall {
  const char* name;
  UpperCall call;
};
const NamedCall upper_calls[] = {{"morun_npu_mm_f16", erased(morun_npu_mm_f16)},
                                 {"morun_npu_mm_f16f16_f16", erased(morun_npu_mm_f16f16_f16)},
                                 {"morun_npu_mm_f32f16_f32", erased(morun_npu_mm_f32f16_f32)},
                                 {"morun_npu_mm_u8i8_i32", erased(morun_npu_mm_u8i8_i32)},
                                 {"morun_npu_mm_u8i4_i32", erased(morun_npu_mm_u8i4_i32)}};

// A path of morun_mm_tensor, of 64 x 32 times 32 x 32 elements.
UpperCall tensors(const test::TensorFormats& f) {
  return [f](int32_t platform, std::array<int32_t, 3>, void* a, void* x, void* w) {
    const auto matrix = [&](uint64_t n_row, size_t i, void* data) {
      return morun_tensor_matrix(n_row, 32, f.types[i], f.layouts[i], data);
    };
    const morun_tensor left = matrix(64, 0, x), right = matrix(32, 1, w), result = matrix(64, 2, a);
    return morun_mm_tensor(static_cast<uint32_t>(platform), &result, &left, &right);
  };
}
const NamedCall tensor_paths[] = {
    {"morun_mm_tensor, path P1", tensors(test::paths::P1)}, {"morun_mm_tensor, path P2", tensors(test::paths::P2)},
    {"morun_mm_tensor, path P3", tensors(test::paths::P3)}, {"morun_mm_tensor, path P5", tensors(test::paths::P5)},
    {"morun_mm_tensor, path P4", tensors(test::paths::P4)}, {"morun_mm_tensor, path P6", tensors(test::paths::P6)}};

class UpperTranscripts : public test::Transcript {
 protected:
  void start(int n_buffer = 0) {
    morun_npu_initialize(3);
    for (int i = 0; i < n_buffer; ++i) {
      morun_npu_alloc(1 << 16, &shared[i]);
      // Every half 1, as an activation, weights or a result; two to a value, one as a float in a row-major activation.
      std::fill_n(static_cast<uint16_t*>(shared[i]), 1 << 15, uint16_t{0x3c00});
    }
    know("heap", heap);
    know("inside", static_cast<char*>(shared[0]) + 2);
  }
  // The dead address that stays behind is not looked at.
  static int64_t finalise() {
    const void* const before = context;
    const int32_t status = morun_npu_finalize(3);
    if (context != before) return -99;
    if (status == 0) context = nullptr;
    return status;
  }
  static std::string result(const void* A) {
    const auto* const words = static_cast<const uint32_t*>(A);
    char told[64];
    snprintf(told, sizeof told, "A 0x%08x to 0x%08x", words[0], words[64 * 32 / 2 - 1]);
    return told;
  }

  void* shared[3] = {};
  alignas(64) uint32_t heap[64 * 96] = {};
  void* out = &out;
};

TEST_F(UpperTranscripts, UpperRuntime) {
  char text[64] = "";
  aftermath = [&] { return std::string(text) + (npu_version[0] == 0 ? "" : " ") + npu_version; };
  npu_version[0] = version_prerel[0] = '\0';
  know("stack", text);
  say("--- before anything");
  PLAY(morun_npu_initialize(2));
  PLAY(morun_npu_finalize(2));
  PLAY(morun_npu_lock_tessel(2));
  PLAY(morun_npu_unlock_tessel(2));
  PLAY(morun_npu_finalize(3));
  PLAY(morun_npu_lock_tessel(3));
  PLAY(morun_npu_unlock_tessel(3));
  PLAY(morun_npu_alloc(8, nullptr));
  PLAY(morun_npu_alloc(8, &out));
  PLAY(morun_npu_free(nullptr));
  PLAY(morun_npu_free(text));
  PLAY(morun_npu_get_version(3, nullptr));
  PLAY(morun_npu_get_version(3, text));
  PLAY(morun_mm_tensor(1, nullptr, nullptr, nullptr));
  for (const NamedCall& each : upper_calls)
    if (strstr(each.name, "u8") == nullptr)
      play(each.name, [&] { return each.call(2, {}, nullptr, nullptr, nullptr); });
  play_to_the_end("morun_npu_mm_u8i8_i32", [&] { upper_calls[3].call(3, {64, 32, 32}, text, text, text); });
  say("--- from start to stop");
  test::configure([](auto& config) { config.session_bytes = ~uint64_t{0}; });
  PLAY(morun_npu_initialize(3));
  PLAY(morun_npu_lock_tessel(3));
  PLAY(morun_npu_unlock_tessel(3));
  PLAY(morun_npu_unlock_tessel(3));
  PLAY(morun_npu_lock_tessel(3));
  for (const uint64_t handle : {uint64_t{0}, ~uint64_t{0}}) {
    const uint64_t valid = std::exchange(context->session_handle[0], handle);
    play("morun_npu_get_version with a handle that is none", [&] { return morun_npu_get_version(3, text); });
    context->session_handle[0] = valid;
  }
  PLAY(morun_npu_alloc(0, &out) + (out == nullptr ? 0 : 99));
  PLAY(morun_npu_alloc((uint64_t{1} << 32) + 5, &shared[0]));
  PLAY((morun_npu_alloc(6000, &shared[1]), morun_parlo_find_fd(shared[1])));
  PLAY(morun_parlo_find_fd(nullptr));
  PLAY(morun_parlo_find_fd(static_cast<char*>(shared[1]) + 1));
  know("inside", static_cast<char*>(shared[1]) + 1);
  PLAY(morun_npu_free(static_cast<char*>(shared[1]) + 1));
  PLAY(morun_npu_free(shared[1]));
  PLAY(morun_parlo_find_fd(shared[1]));
  PLAY(morun_npu_free(shared[1]));
  morun_map_db[1].address = morun_map_db[104].address;
  play("morun_npu_free, of a buffer that an older entry at a lower descriptor hides",
       [&] { return morun_npu_free(shared[0]); });
  morun_map_db[1].address = 0;
  PLAY(morun_npu_free(shared[0]));
  PLAY(finalise());
  PLAY(morun_parlo_find_fd(shared[1]));
  say("--- versions and architectures");
  struct Version {
    uint32_t major, minor, patch, compiled_for, runtime;
    const char* label;
  };
  for (const Version& v : {Version{1, 0, 0, 79, 0x79, "beta1"},
                           {1, 0, 0, 79, 0xffffff79, "beta1-rc"},
                           {1, 0, 1, 75, 0x79, "beta1"},
                           {1, 2, 0, 75, 0x79, "beta1"},
                           {2, 0, 0, 75, 0x79, "beta1"},
                           {1, 0, 0, 75, 0x79, "beta"},
                           {1, 0, 0, 75, 0x79, "beta1"}}) {
    test::configure([&](auto& config) {
      config.module_major = v.major, config.module_minor = v.minor, config.module_patch = v.patch;
      config.module_architecture = v.compiled_for, config.architecture = v.runtime;
      strcpy(config.module_label, v.label);
    });
    prepare([] { morun_npu_initialize(3); });
    play("morun_npu_get_version", [&] { return morun_npu_get_version(99, text); });
    prepare([] { finalise(); });
  }
}

TEST_F(UpperTranscripts, UpperProducts) {
  prepare([this] { start(3); });
  say("--- arguments in the order in which they are checked");
  for (const NamedCall& each : upper_calls) {
    const auto with = [&](int32_t domain, std::array<int32_t, 3> n, int given) {
      const auto operand = [&](int bit) { return given & bit ? heap : nullptr; };
      const auto named = [&](int bit) { return given & bit ? ", heap" : ", NULL"; };
      std::ostringstream call;
      call << each.name << "(" << domain << ", " << n[0] << ", " << n[1] << ", " << n[2] << named(1) << named(2)
           << named(4) << ")";
      play(call.str(), [&] { return each.call(domain, n, operand(1), operand(2), operand(4)); });
    };
    with(2, {0, 0, 0}, 0);
    with(2, {0, 0, 0}, 7);
    for (const int given : {1, 6, 5, 3}) with(3, {64, 64, 64}, given);
    for (const int32_t bad : {INT32_MIN, 0, 33, 48}) {
      with(3, {bad, bad, bad}, 7);
      with(3, {64, bad, bad}, 7);
      with(3, {64, 64, bad}, 7);
    }
    if (strstr(each.name, "u8i8") == nullptr) with(3, {64, 32, 32}, 7);
  }
  const auto &mm_f16 = upper_calls[0].call, &mm_f16f16 = upper_calls[1].call, &mm_f32f16 = upper_calls[2].call,
             &mm_u8i8 = upper_calls[3].call, &mm_u8i4 = upper_calls[4].call;
  PLAY(mm_u8i8(3, {32, 32, 32}, heap, heap, heap));
  say("--- which operands are shared");
  auto* const inside = static_cast<char*>(shared[0]) + 2;
  PLAY(mm_f16(3, {64, 32, 32}, inside, inside, inside));
  PLAY(mm_f16(3, {64, 32, 32}, shared[0], inside, inside));
  PLAY(mm_f16(3, {64, 32, 32}, shared[0], inside, shared[2]));
  say("--- products of 64 x 32 elements");
  const void* A = shared[0];
  aftermath = [&] { return result(A); };
  PLAY(mm_f16(3, {64, 32, 32}, shared[0], shared[1], shared[2]));
  PLAY(mm_f16f16(3, {64, 32, 64}, shared[0], shared[1], shared[2]));
  A = heap;
  std::fill(std::begin(heap), std::end(heap), 0x3f800000);
  PLAY(mm_f32f16(3, {64, 32, 32}, heap, std::vector<float>(64 * 32, 1).data(), shared[2]));
  memset(shared[2], 0x33, 1 << 16);
  std::vector<uint8_t> bytes(128 * 96, 2);
  PLAY(mm_u8i8(3, {64, 32, 96}, heap, bytes.data(), shared[2]));
  PLAY(mm_u8i4(3, {64, 32, 96}, heap, bytes.data(), shared[2]));
  PLAY(mm_u8i4(3, {128, 40, 64}, heap, bytes.data(), shared[2]));
}

// Products of tensors that are refused at once, or that fail after their first platform calls.
TEST_F(UpperTranscripts, UpperRefusals) {
  shows_registry = false;
  prepare([this] { start(3); });
  aftermath = [this] { return result(heap); };
  struct Triple {
    morun_tensor result, left, right;
  };
  using T = Triple&;
  using Change = std::function<void(T)>;
  constexpr auto P1 = test::paths::P1, P2 = test::paths::P2, P3 = test::paths::P3, P4 = test::paths::P4,
                 P5 = test::paths::P5, P6 = test::paths::P6;
  const std::vector<std::pair<const char*, test::TensorFormats>> every_path = {{"P1", P1}, {"P2", P2}, {"P3", P3},
                                                                               {"P4", P4}, {"P5", P5}, {"P6", P6}};
  const auto play_path = [&](const std::string& call, uint32_t platform, const test::TensorFormats& f,
                             std::array<uint64_t, 3> n, const Change& change) {
    const auto matrix = [&](uint64_t n_row, uint64_t n_col, size_t i, void* data) {
      return morun_tensor_matrix(n_row, n_col, f.types[i], f.layouts[i], data);
    };
    Triple t = {matrix(n[0], n[1], 2, heap), matrix(n[0], n[2], 0, shared[1]), matrix(n[2], n[1], 1, shared[2])};
    if (change) change(t);
    play(call, [&] { return morun_mm_tensor(platform, &t.result, &t.left, &t.right); });
  };
#define REFUSED(platform, path, ...)                                                                 \
  play_path(#path " on " #platform ": " #__VA_ARGS__, MORUN_PLATFORM_##platform, path, {64, 32, 32}, \
            [](T t) { t.result.is_contiguous = 1, __VA_ARGS__; })
  REFUSED(NPU0, P3, t.result.data = t.left.data = t.right.data = nullptr);
  REFUSED(NPU0, P3, t.left.data = t.right.data = nullptr);
  REFUSED(NPU0, P3, t.right.data = nullptr);
  REFUSED(NPU0, P3, t.left.dims[1] = t.left.strides[0] = 8);
  REFUSED(NPU0, P2, make_view(t.result, 1, 1, 64 * 32 - 1));
  REFUSED(NPU0, P5, make_view(t.result, 1, 1, 64 * 32 - 1));
  REFUSED(CPU, P5, make_view(t.result, 1, 1, 64 * 32 - 1));
  REFUSED(NPU0, P1, t.right.data_offset = 1u << 31, t.right.num_elements = uint64_t{1} << 32);
  REFUSED(NPU0, P3, t.right.data_offset = 1u << 31, t.right.num_elements = uint64_t{1} << 32);
  REFUSED(NPU0, P5, t.result.ndims = t.left.ndims = t.right.ndims = 1, t.result.layout = t.left.layout = 0,
          t.right.layout = 0, t.result.dims[0] = t.left.dims[0] = t.right.dims[0] = 1,
          t.result.strides[0] = t.left.strides[0] = t.right.strides[0] = 1);
#undef REFUSED
  // Extents that no memory has: those not 0.
  const auto claims = [](uint64_t n_row, uint64_t n_col, uint64_t n_inner) {
    return [=](T t) {
      for (morun_tensor* m : {&t.result, &t.left, &t.right}) m->num_elements = ~uint64_t{0};
      if (n_row != 0) t.result.dims[0] = t.left.dims[0] = n_row;
      if (n_col != 0) t.result.dims[1] = t.right.dims[1] = t.result.strides[0] = t.right.strides[0] = n_col;
      if (n_inner != 0) t.left.dims[1] = t.right.dims[0] = t.left.strides[0] = n_inner;
    };
  };
  constexpr uint64_t wraps = uint64_t{1} << 59, large = uint64_t{1} << 31;
  const std::pair<const char*, Change> changes[] = {
      {"a left with gaps", [](T t) { t.left.is_contiguous = 0; }},
      {"a right with gaps", [](T t) { t.right.is_contiguous = 0; }},
      {"left of i8", [](T t) { t.left.data_dtype = MORUN_DTYPE_I8; }},
      {"right of u8", [](T t) { t.right.data_dtype = MORUN_DTYPE_U8; }},
      {"result of i8", [](T t) { t.result.data_dtype = MORUN_DTYPE_I8; }},
      {"left of layout 6", [](T t) { t.left.layout = MORUN_LAYOUT_2D_6; }},
      {"right of layout 5", [](T t) { t.right.layout = MORUN_LAYOUT_2D_5; }},
      {"result of layout 2", [](T t) { t.result.layout = MORUN_LAYOUT_2D_2; }},
      {"a result with gaps in its rows", [](T t) { make_view(t.result, 64, 2, 1 << 20); }},
      {"too many rows", claims(large, 0, 0)},
      {"too many columns", claims(0, large, 0)},
      {"too large an inner dimension", claims(0, 0, large)}};
  for (const auto& [name, path] : every_path) {
    for (const auto& [change_name, change] : changes)
      play_path(std::string(name) + ", " + change_name, MORUN_PLATFORM_NPU0, path, {64, 32, 32}, change);
    for (const uint32_t platform : {0u, 1u, 2u, 4u})
      if (platform != 0 || path.types[1] != MORUN_DTYPE_F16 || path.layouts[1] != MORUN_LAYOUT_2D_RM)
        play_path(std::string(name) + " on platform " + std::to_string(platform), platform, path, {64, 32, 32}, {});
    for (const std::array<uint64_t, 3>& n :
         {std::array<uint64_t, 3>{32, 48, 32}, {48, 48, 32}, {48, 32, 32}, {32, 32, 32}})
      if (n[0] + n[1] != 64 || path.types[0] == MORUN_DTYPE_U8)
        play_path(std::string(name) + " of " + std::to_string(n[0]) + " x " + std::to_string(n[1]), 3, path, n, {});
    if (path.types[1] != MORUN_DTYPE_F16 || path.layouts[0] == MORUN_LAYOUT_2D_RM)
      play_path(std::string(name) + ", weights that are not shared", MORUN_PLATFORM_NPU0, path, {64, 32, 32},
                [this](T t) { t.right.data = static_cast<char*>(shared[0]) + 2; });
  }
  for (const auto& claim : {claims(wraps, 0, 0), claims(0, wraps, 0), claims(0, 0, wraps)})
    play_path("P5 on the CPU, extents past 64 bits", MORUN_PLATFORM_CPU, P5, {64, 32, 32}, claim);
  say("--- products of 4-bit weights");
  const auto multiply = [&](int32_t n_row, int32_t n_col, int32_t n_inner, void* X) {
    return upper_calls[4].call(3, {n_row, n_col, n_inner}, heap, X, shared[2]);
  };
  for (const auto& [n_row, n_inner] : {std::pair{-1, 32},
                                       {-31, 16384},
                                       {32, -32},
                                       {100001, 16384},
                                       {INT32_MAX, 32},
                                       {64, -1},
                                       {0, 48},
                                       {-64, 20000001},
                                       {64, INT32_MAX},
                                       {64, INT32_MIN + 1}})
    play(std::to_string(n_row) + " rows, inner " + std::to_string(n_inner),
         [&, r = n_row, k = n_inner] { return multiply(r, 32, k, heap); });
  void* const much = mmap(nullptr, 64 << 24, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  for (const auto& [n_row, n_col, n_inner] :
       {std::array{64, 32, 1 << 24}, {-64, 32, 32}, {-64, 32, -32}, {64, -1, 32}, {64, -31, 32}, {64, -32, 32}})
    play_to_the_end(std::to_string(n_row) + " x " + std::to_string(n_col) + ", inner " + std::to_string(n_inner),
                    [&, r = n_row, n = n_col, k = n_inner] { multiply(r, n, k, much); });
  munmap(much, 64 << 24);
}

TEST_F(UpperTranscripts, FailuresOfTheUpperInterface) {
  const auto started = [this] { start(3); };
  play_failures(
      "morun_npu_initialize", [] {}, [] { return morun_npu_initialize(3); });
  play_failures(
      "morun_npu_lock_tessel", [this] { start(), morun_npu_unlock_tessel(3); },
      [] { return morun_npu_lock_tessel(3); });
  play_failures(
      "morun_npu_unlock_tessel", [this] { start(); }, [] { return morun_npu_unlock_tessel(3); });
  play_failures(
      "morun_npu_alloc", [this] { start(); }, [this] { return morun_npu_alloc(8, &out); });
  play_failures("morun_npu_free", started, [this] { return morun_npu_free(shared[1]); });
  play_failures(
      "morun_npu_get_version", [this] { start(); },
      [] {
        char text[64];
        return morun_npu_get_version(3, text);
      });
  play_failures(
      "morun_npu_finalize", [this] { start(); }, finalise);
  aftermath = [this] { return result(shared[0]); };
  for (const NamedCall& each : {upper_calls[0], upper_calls[1]})
    play_failures(each.name, started, [&] { return each.call(3, {64, 32, 32}, shared[0], shared[1], shared[2]); });
  aftermath = [this] { return result(heap); };
  play_failures(
      upper_calls[2].name, [&] { started(), memset(heap, 0, sizeof heap); },
      [this] {
        return upper_calls[2].call(3, {64, 32, 32}, heap, heap, shared[2]);
      });

  for (const NamedCall& each : {tensor_paths[0], tensor_paths[1], tensor_paths[2], tensor_paths[3]})
    play_failures(
        each.name, [&] { started(), memset(heap, 0, sizeof heap); },
        [&] { return each.call(3, {}, heap, &heap[32 * 64], shared[2]); });

  // Integer products end the process, except where the copy of the weights cannot be freed.
  aftermath = [] { return ""; };
  const struct {
    const char* fails;
    int32_t operation, method;
    uint32_t nth;
  } faults[] = {{"its first allocation fails", PARLO_EMULATOR_MEM_ALLOC2, -1, 1},
                {"every allocation fails", PARLO_EMULATOR_MEM_ALLOC2, -1, 0},
                {"the product fails", PARLO_EMULATOR_HANDLE_INVOKE, 15, 1},
                {"the product fails", PARLO_EMULATOR_HANDLE_INVOKE, 19, 1},
                {"its copy is not freed", PARLO_EMULATOR_HANDLE_INVOKE, 2, 1}};
  for (const auto& fault : faults) {
    const bool is_4_bit = fault.method == 19;
    for (const NamedCall& each : {upper_calls[is_4_bit ? 4 : 3], tensor_paths[is_4_bit ? 4 : 5]}) {
      start_afresh();
      prepare([this] { start(1); });
      play_to_the_end(std::string(each.name) + " of which " + fault.fails, [&, this] {
        parlo_emulator_fail(fault.operation, fault.method, fault.nth, 0x77, EIO);
        exit(each.call(3, {64, 32, 32}, heap, heap, shared[0]) | 0x80);
      });
    }
  }
}

// ---- The stub

TEST_F(Transcripts, StubAndDescription) {
  say("--- every method on a handle that is none");
  PLAY(tavik_open("file:///none", &handle));
  PLAY(tavik_close(0x1234));
  PLAY(tavik_veyra_clear_cache(0x1234));
  PLAY(tavik_veyra_mmap_get_AX(0x1234, 1, 2, 3, 4));
  PLAY(tavik_veyra_mmap_put_AX(0x1234));
  PLAY(tavik_veyra_ressource_acquire(0x1234));
  PLAY(tavik_veyra_ressource_release(0x1234));
  PLAY(tavik_veyra_lock_tessel(0x1234));
  PLAY(tavik_veyra_unlock_tessel(0x1234));
  PLAY(tavik_veyra_mm_f16(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  PLAY(tavik_veyra_1mm_f16(0x1234, 1, 2, 3, 4, 5));
  PLAY(tavik_veyra_2mm_f16(0x1234, 1, 2, 3, 4, 5, 6, 7));
  PLAY(tavik_veyra_3mm_f16(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
  PLAY(tavik_veyra_test(0x1234, 1, 2));
  PLAY(tavik_veyra_mm_a8w8(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  PLAY(tavik_veyra_1mm_a8w8(0x1234, 1, 2, 3, 4, 5));
  PLAY(tavik_veyra_2mm_a8w8(0x1234, 1, 2, 3, 4, 5, 6, 7));
  PLAY(tavik_veyra_3mm_a8w8(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
  PLAY(tavik_veyra_mm_a8w4(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9));
  PLAY(tavik_veyra_1mm_a8w4(0x1234, 1, 2, 3, 4, 5));
  PLAY(tavik_veyra_2mm_a8w4(0x1234, 1, 2, 3, 4, 5, 6, 7));
  PLAY(tavik_veyra_3mm_a8w4(0x1234, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10));
  say("--- the version: numbers, architecture and label in a room of so many characters");
  uint32_t n[4] = {9, 9, 9, 9};
  std::string label(8, '?');
  aftermath = [&] {
    std::ostringstream told;
    told << "version " << n[0] << " " << n[1] << " " << n[2] << " " << n[3] << " ";
    for (const char character : label) told << (character == '\0' ? '0' : character);
    return told.str();
  };
  const auto version = [&](uint64_t at, uint32_t length) {
    return tavik_veyra_get_version(at, &n[0], &n[1], &n[2], label.data(), length, &n[3]);
  };
  PLAY(version(0x1234, 8));
  prepare([this] { start(); });
  const uint64_t handle_0 = c->session_handle[0];
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 22, 1, 0x77, EIO);
  PLAY(version(handle_0, 8));
  test::configure([](auto& config) { config.module_minor = 2, config.module_patch = 3; });
  prepare([this] { clean_up(), start(); });
  for (const uint32_t length : {0u, 1u, 4u, 8u}) {
    label.assign(8, '?');
    play("into " + std::to_string(length), [&] { return version(c->session_handle[0], length); });
  }
  say("--- the description");
  const auto& slim = tavik_slim;
  std::ostringstream told;
  told << slim.n_methods << " methods, " << slim.n_interface_ids << " interface ids, "
       << (slim.interface_ids == nullptr ? "none" : "some");
  for (uint32_t i = 0; i < slim.n_methods; ++i) {
    const tavik_slim_method& method = slim.methods[i];
    const uint16_t* name = slim.names + slim.method_names[i];
    told << "\n" << i << " " << slim.characters + *name++ << "(";
    for (int k = 0; k < method.n_parameters; ++k) {
      const tavik_slim_parameter& p = *method.parameters[k];
      constexpr const char* types[] = {"string", "handle", "u32", "characters"};
      told << (k == 0 ? "" : ", ") << slim.characters + *name++ << (p.direction == TAVIK_SLIM_IN ? ": in " : ": out ")
           << types[p.type] << " " << p.size << "/" << p.alignment;
    }
    told << ") counts 0x" << std::hex << method.buffer_counts << std::dec << ", in " << method.primitive_in_size << "/"
         << int{method.primitive_in_alignment} << ", out " << method.primitive_out_size << "/"
         << int{method.primitive_out_alignment} << ", at most " << method.max_arguments << " arguments";
  }
  say(told.str());
}

// ---- Capabilities

TEST_F(Transcripts, Capabilities) {
  uint32_t answer = 9;
  int domain = 9, count = 9;
  parlo_domain* domains = nullptr;
  std::vector<std::pair<const char*, std::function<int()>>> queries;
#define QUERY(...) queries.emplace_back(#__VA_ARGS__, [&]() -> int { return __VA_ARGS__; })
  QUERY(get_dsp_support(&domain));
  QUERY(get_vtcm_info(3, &answer, VTCM_PAGE));
  QUERY(get_vtcm_info(0, &answer, VTCM_PAGE));
  QUERY(get_vtcm_info(3, &answer, VTCM_COUNT));
  QUERY(is_unsignedpd_supported(3));
  QUERY(is_unsignedpd_supported(0));
  QUERY(get_unsignedpd_support());
  QUERY(is_async_parlo_supported(3));
  QUERY(is_status_notification_supported(3));
  QUERY(is_status_notification_supported(1));
  QUERY(get_tessel_support_info(3, &answer, TESSEL_SUPPORT_SPATIAL));
  QUERY(get_tessel_support_info(3, &answer, TESSEL_SUPPORT_DEPTH));
  QUERY(get_veyra_arch_ver(3, &answer));
  QUERY(get_veyra_arch_ver(0, &answer));
  QUERY(get_ondra_support_info(3, &answer, ONDRA_SUPPORT_128B));
  QUERY(get_effective_domain_id("cdsp", 0, &domain));
  QUERY(get_effective_domain_id("cdsp", 4, &domain));
  QUERY(get_domains_info(nullptr, &count, &domains));
  QUERY(get_domains_info("MIRVA", &count, &domains));
  QUERY(get_domains_info("TOSKA", &count, &domains));
  QUERY(get_domains_info("mirva", &count, &domains));
#undef QUERY
  aftermath = [&] {
    std::ostringstream told;
    told << "answer " << answer << ", domain " << domain << ", count " << count;
    for (int i = 0; domains != nullptr && i < count; ++i) told << " " << domains[i].name << "=" << domains[i].type;
    free(std::exchange(domains, nullptr));
    answer = 9, domain = 9, count = 9;
    return told.str();
  };
  say("--- what is refused before the platform is asked");
  PLAY(get_vtcm_info(9, &answer, 3));
  PLAY(get_vtcm_info(9, nullptr, 4));
  PLAY(get_tessel_support_info(9, &answer, 6));
  PLAY(get_tessel_support_info(9, nullptr, 7));
  PLAY(get_ondra_support_info(9, &answer, ONDRA_SUPPORT_64B));
  PLAY(get_ondra_support_info(9, &answer, 4));
  PLAY(get_ondra_support_info(9, nullptr, 3));
  PLAY(get_vtcm_info(1, &answer, 4));
  PLAY(get_tessel_support_info(0, &answer, 7));
  PLAY(get_ondra_support_info(0, &answer, 3));
  PLAY(is_async_parlo_supported(4));
  PLAY(get_veyra_arch_ver(3, nullptr));
  PLAY(get_dsp_support(nullptr));
  PLAY(get_effective_domain_id(nullptr, 0, &domain));
  PLAY(get_effective_domain_id("cdsp", 0, nullptr));
  PLAY(get_domains_info(nullptr, nullptr, &domains));
  PLAY(get_domains_info(nullptr, &count, nullptr));
  for (const int status : {0, 0x5, 0x16c}) {
    char text[64];
    snprintf(text, sizeof text, "--- the platform answers 0x%x", static_cast<unsigned>(status));
    say(text);
    for (const auto& [text_of_query, query] : queries) {
      if (status != 0) parlo_emulator_fail(PARLO_EMULATOR_ANY_OPERATION, -1, 0, status, 0);
      play(text_of_query, query);
    }
    parlo_emulator_clear_fault();
  }
  parlo_emulator_fail(PARLO_EMULATOR_SYSTEM_REQUEST, -1, 2, 0x5, 0);
  PLAY(get_domains_info("MIRVA", &count, &domains));
  parlo_emulator_clear_fault();
  domains_are_wrong = true;
  PLAY(get_domains_info("MIRVA", &count, &domains));
  PLAY(get_domains_info(nullptr, &count, &domains));
  domains_are_wrong = false;
  say("--- supported are: domain 0 alone, and none");
  for (const uint32_t nth : {1u, 0u}) {
    parlo_emulator_fail(PARLO_EMULATOR_HANDLE_CONTROL, -1, nth, 0, 0);
    PLAY(get_dsp_support(&domain));
  }
  parlo_emulator_clear_fault();
  say("--- domains without the platform");
  aftermath = [] { return ""; };
  for (int id = -1; id <= DSP_N_DOMAINS; ++id) {
    const dsp_domain* const found = get_domain(id);
    say(std::to_string(id) + (found == nullptr ? " none" : std::string(" ") + found->uri_suffix) +
        (is_CDSP(id) ? ", compute" : "") + (is_valid_domain_id(id, true) ? ", valid to compute" : "") +
        (is_valid_domain_id(id, false) ? ", valid" : ""));
  }
}
}  // namespace
