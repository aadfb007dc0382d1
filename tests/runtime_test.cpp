// Error record, options, context, lifecycle and shared buffers of the lower interface, on the emulated platform.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <thread>

#include "include/morun.h"
#include "platform/parlo.h"
#include "tests/support.h"

namespace {

using test::last_error;
using test::printed_by;
using test::trace;
using Strings = std::vector<std::string>;

TEST(ErrorRecord, CutsItsTextsAndOutlivesSuccess) {
  const std::string text(200, 'x');
  tavik_set_error(3, text.c_str(), text.c_str(), 7, "%s", text.c_str());
  void* pointer = nullptr;
  EXPECT_EQ(tavik_malloc(&pointer, 0), TAVIK_SUCCESS);
  const std::string cut(127, 'x');
  EXPECT_EQ(last_error(), "3 " + cut + " " + cut + " 7: " + cut);
}

TEST(ErrorRecord, BelongsToItsThread) {
  tavik_set_error(1, "here", "file", 1, "message");
  std::thread([] {
    EXPECT_EQ(last_error(), "0   0: ");
    tavik_set_error(2, "there", "file", 1, "message");
  }).join();
  EXPECT_EQ(last_error(), "1 here file 1: message");
}

TEST(ErrorRecord, PrintsTwoLines) {
  const tavik_error error = {3, "failed to allocate 100 bytes", "tavik_malloc", "source/host/util", 35};
  testing::internal::CaptureStderr();
  tavik_error_print(&error);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "[Tavik] error 3 (tavik_malloc, source/host/util, line 35):\n          failed to allocate 100 bytes\n");
}

TEST(Options, PrintTwoOfTheirFields) {
  tavik_options* options = nullptr;
  ASSERT_EQ(tavik_options_alloc(&options), TAVIK_SUCCESS);
  EXPECT_EQ(printed_by([&](FILE* stream) { tavik_options_print(stream, options); }),
            "Options:\n--- output_matrix_size_max = 16777216\n--- input_matrix_size_max = 268435456\n");
  EXPECT_EQ(options->n_row_max, 1024u);
  tavik_options_free(options);
  EXPECT_EQ(printed_by([](FILE* stream) { tavik_options_print(stream, nullptr); }), "NULL options\n");
}

// An instrumented allocator ends the process on sizes that no allocator could give, instead of refusing them.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool allocator_refuses = false;
#else
constexpr bool allocator_refuses = true;
#endif

TEST(MemoryWrappers, ReportEachFailureAtItsLine) {
  const uint64_t too_much = uint64_t{1} << 62;
  void* pointer = nullptr;
  int32_t fd = 0;
  const auto check = [](int32_t status, const std::string& error) {
    EXPECT_EQ(last_error(), error);
    EXPECT_EQ(status, tavik_error_get_last()->code);
  };
  const std::string null_location = ": attempt to write to NULL location";
  check(tavik_malloc(nullptr, 1), "1 tavik_malloc source/host/util 26" + null_location);
  check(tavik_malloc_zero(nullptr, 1), "1 tavik_malloc_zero source/host/util 46" + null_location);
  check(tavik_rpcmem_alloc(nullptr, 1), "1 tavik_rpcmem_alloc source/host/util 66" + null_location);
  check(tavik_rpcmem_alloc_zero(nullptr, 1), "1 tavik_rpcmem_alloc_zero source/host/util 86" + null_location);
  check(tavik_rpcmem_to_fd(nullptr, nullptr), "1 tavik_rpcmem_to_fd source/host/util 124" + null_location);
  check(tavik_rpcmem_alloc(&pointer, 0x80000000u),
        "3 tavik_rpcmem_alloc source/host/util 75: failed to alloc shared 2147483648 bytes");
  check(tavik_rpcmem_alloc_zero(&pointer, 0x80000000u),
        "3 tavik_rpcmem_alloc_zero source/host/util 98: failed to alloc shared 2147483648 bytes");
  check(tavik_rpcmem_to_fd(&fd, &pointer),
        "3 tavik_rpcmem_to_fd source/host/util 128: failed to get rpcmem file descriptor");
  EXPECT_EQ(fd, -1);
  check(tavik_rpcmem_mmap(-1, &pointer, 1), "3 tavik_rpcmem_mmap source/host/util 136: failed to parlo_mmap");
  check(tavik_rpcmem_munmap(-1, &pointer, 1), "3 tavik_rpcmem_munmap source/host/util 144: failed to parlo_unmmap");
  if (!allocator_refuses) return;
  const std::string no_memory = ": failed to allocate 4611686018427387904 bytes";
  check(tavik_malloc(&pointer, too_much), "3 tavik_malloc source/host/util 35" + no_memory);
  check(tavik_malloc_zero(&pointer, too_much), "3 tavik_malloc_zero source/host/util 55" + no_memory);
  ASSERT_EQ(tavik_malloc(&pointer, 1), TAVIK_SUCCESS);
  check(tavik_realloc(&pointer, too_much), "3 tavik_realloc source/host/util 116" + no_memory);
}

class Lifecycle : public test::PlatformTest {};

TEST_F(Lifecycle, DefaultContextPrintsItsBuffersAndState) {
  tavik_options* options = nullptr;
  ASSERT_EQ(tavik_options_alloc(&options), TAVIK_SUCCESS);
  tavik_context* const context = initialise(*options);
  tavik_options_free(options);
  const auto buffer = [](const char* name, uint64_t size, int32_t fd) {
    return std::string("--- ") + name + ": size " + std::to_string(size) + ", fd " + std::to_string(fd) + "\n";
  };
  EXPECT_EQ(printed_by([&](FILE* stream) { tavik_context_print(stream, context); }),
            "Tavik context:\n- Sessions:\n--- Session 0: id 0, name \"Tavik_0\", domain 3\n- Cross-session buffers:\n" +
                buffer("A0", 67108864, context->A0_fd) + buffer("A1", 67108864, context->A1_fd) +
                buffer("A2", 67108864, context->A2_fd) + buffer("X", 536879104, context->X_fd) +
                "- Per-session buffers: none\n- Management:\n--- Active session: 0\n--- TESSEL is locked: false\n");
  clean_up(context);

  tavik_context* fresh = nullptr;
  ASSERT_EQ(tavik_context_alloc(&fresh), TAVIK_SUCCESS);
  EXPECT_EQ(printed_by([&](FILE* stream) { tavik_context_print(stream, fresh); }),
            "Tavik context:\n- Sessions: none\n- Cross-session buffers:\n" + buffer("A0", 0, 0) + buffer("A1", 0, 0) +
                buffer("A2", 0, 0) + buffer("X", 0, 0) +
                "- Per-session buffers: none\n- Management:\n--- Active session: 18446744073709551615\n"
                "--- TESSEL is locked: false\n");
  tavik_context_free(fresh);
}

TEST_F(Lifecycle, ReservesMemoryWithoutTouchingIt) {
  tavik_options* options = nullptr;
  ASSERT_EQ(tavik_options_alloc(&options), TAVIK_SUCCESS);
  tavik_context* const context = initialise(*options);
  for (const int32_t fd : {context->A0_fd, context->A1_fd, context->A2_fd, context->X_fd}) {
    struct stat file;
    ASSERT_EQ(fstat(fd, &file), 0);
    EXPECT_GT(file.st_size, (1 << 26) - 1);
    EXPECT_EQ(file.st_blocks, 0);
  }
  clean_up(context);
  tavik_options_free(options);
}

TEST_F(Lifecycle, InitAndCleanupCallThePlatformInTheirOrder) {
  tavik_options options = small_options();
  options.n_row_max = 1000;
  options.input_matrix_size_max = 2048;
  tavik_context* const context = initialise(options);
  EXPECT_EQ(context->X_size, 12192u);
  const Strings session = {"parlo_session_control", "parlo_session_control", "parlo_handle_open", "5"};
  Strings expected = session;
  expected.insert(expected.end(), 4, "parlo_mem_alloc");
  expected.insert(expected.end(), 4, "parlo_mem_to_fd");
  expected.insert(expected.end(), 4, "parlo_mmap");
  expected.push_back("3");
  EXPECT_EQ(trace(), expected);

  parlo_emulator_trace_clear();
  ASSERT_EQ(tavik_lock_compute_device(context), 0);
  ASSERT_EQ(tavik_lock_compute_device(context), 0);
  clean_up(context);
  expected = {"7", "8", "6", "4"};
  expected.insert(expected.end(), 4, "parlo_munmap");
  expected.push_back("parlo_handle_close");
  expected.insert(expected.end(), 4, "parlo_mem_free");
  EXPECT_EQ(trace(), expected);
}

TEST_F(Lifecycle, UnlocksOnlyWhatIsLockedAndPassesRemoteStatusesOn) {
  tavik_context* const context = initialise();
  parlo_emulator_trace_clear();
  EXPECT_EQ(tavik_unlock_compute_device(context), 0);
  EXPECT_EQ(trace(), Strings{});
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 7, 1, 0x77, EIO);
  EXPECT_EQ(tavik_lock_compute_device(context), 0x77);
  EXPECT_FALSE(context->tessel_locked);
  EXPECT_EQ(tavik_lock_compute_device(context), 0);
  EXPECT_EQ(tavik_unlock_compute_device(context), 0);
  EXPECT_EQ(trace(), (Strings{"7", "7", "8"}));
  clean_up(context);
}

TEST_F(Lifecycle, RefusesAContextThatWasNeverInitialised) {
  tavik_context* context = nullptr;
  ASSERT_EQ(tavik_context_alloc(&context), TAVIK_SUCCESS);
  parlo_emulator_trace_clear();
  uint64_t handle = 5;
  EXPECT_EQ(tavik_context_get_handle_from_fd(context, 0, &handle), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(tavik_lock_compute_device(context), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(tavik_cleanup(context), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(tavik_lock_compute_device(nullptr), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(tavik_unlock_compute_device(nullptr), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(handle, 5u);
  EXPECT_EQ(trace(), Strings{});
  tavik_context_free(context);
}

TEST_F(Lifecycle, RefusesBuffersThatCannotBeHad) {
  struct Case {
    const char* what;
    uint64_t output, rows, input;
    int32_t lowest_descriptor;
    const char* error;
  };
  const Case cases[] = {
      {"A of 2^33 bytes", uint64_t{1} << 31, 1, 1, 0,
       "3 tavik_init source/host/host 0: options ask for a shared buffer of more than 2147483647 bytes"},
      {"sizes that wrap", 1, 1, ~uint64_t{0} / 2 + 1, 0,
       "3 tavik_init source/host/host 0: options ask for a shared buffer of more than 2147483647 bytes"},
      {"nothing at all", 0, 1, 1, 0, "3 tavik_rpcmem_to_fd source/host/util 0: failed to get rpcmem file descriptor"},
      {"descriptors past the table", 1, 1, 1, 1024,
       "1 tavik_init source/host/host 0: descriptor 1024 too high for fd_to_session table (max: 1023)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    test::configure([&](auto& config) { config.lowest_descriptor = c.lowest_descriptor; });
    const tavik_options options = {c.output, c.rows, c.input, 0};
    tavik_context* context = nullptr;
    EXPECT_NE(tavik_init(&options, &context), TAVIK_SUCCESS);
    EXPECT_EQ(context, nullptr);
    EXPECT_EQ(last_error(false), c.error);
    EXPECT_EQ(test::usage().n_allocations + test::usage().n_handles, 0u);
  }
}

TEST_F(Lifecycle, WarnsWhenUnwindingFails) {
  const tavik_options options = small_options();
  tavik_context* context = nullptr;
  test::configure([](auto& config) { config.session_bytes = 4096; });  // no room for the cross-session buffers
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 6, 0, 0x77, EIO);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tavik_init(&options, &context), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[Tavik] warning: failed to release session ressources");
  EXPECT_EQ(last_error(),
            "1 tavik_context_mmap_cross_session_buffers source/host/context 190: "
            "Failed to mmap internal buffer for output activation A0, domain 3");

  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 5, 1, 0x77, EIO);
  testing::internal::CaptureStderr();
  EXPECT_EQ(tavik_init(&options, &context), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(last_error(),
            "1 tavik_init source/host/host 30: Input/output error in "
            "tavik_veyra_ressource_acquire(context->session_handle[0]) != KESO_SUCCESS");
}

TEST_F(Lifecycle, GreetsFromBothSides) {
  testing::internal::CaptureStderr();
  EXPECT_EQ(tavik_hello_host(), 0);
  EXPECT_EQ(tavik_hello_veyra(), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Hello Tavik [host says answer to life, universe and everything is 42]\n"
            "Hello Tavik [veyra says answer to life, universe and everything is 42]\n");
}

TEST_F(Lifecycle, GreetingEndsTheProcessWithoutAPlatform) {
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_OPEN, -1, 1, 0x77, EIO);
  EXPECT_EXIT(
      tavik_hello_veyra(), testing::ExitedWithCode(1),
      "tavik_context_open_session.*\n.*\n\\[Tavik\\] error \\(tavik_hello_veyra, source/host/host, line 173\\): "
      "tavik_init\\(options, &context\\)");
}

// A result row of n_inner times X where all weights are 1, which lie in any layout alike.
constexpr int32_t n_inner = 64, n_col = 32;
class Weights {
 public:
  explicit Weights(tavik_context* context) : context_(context) {
    void* pointer = nullptr;
    EXPECT_EQ(tavik_buffer_alloc(context, 2 * n_inner * n_col, &pointer, &fd_), TAVIK_SUCCESS) << last_error();
    std::fill_n(static_cast<uint16_t*>(pointer), n_inner * n_col, uint16_t{0x3c00});
  }
  ~Weights() { EXPECT_EQ(tavik_buffer_free(context_, fd_), TAVIK_SUCCESS) << last_error(); }
  // The product of one row of `x`, or the status that it fails with, negative.
  float multiply(float x) const {
    const std::vector<float> X(n_inner, x);
    std::vector<float> A(n_col);
    const uint32_t status = tavik_npu_mm_f32_rm_f32_rm_f16_wh(context_, 1, n_col, n_inner, A.data(), X.data(),
                                                              static_cast<uint32_t>(fd_), 0);
    return status == 0 && A[0] == A[n_col - 1] ? A[0] : -static_cast<float>(status);
  }

 private:
  tavik_context* context_;
  int32_t fd_ = -1;
};

class Contexts : public test::PlatformTest {};

TEST_F(Contexts, AndBothInterfacesWorkSideBySide) {
  tavik_context* const one = initialise();
  tavik_context* const two = initialise();
  ASSERT_EQ(morun_npu_initialize(MORUN_DOMAIN_NPU0), 0);
  void* W = nullptr;
  ASSERT_EQ(morun_npu_alloc(2 * n_inner * n_col, &W), 0);
  std::fill_n(static_cast<uint16_t*>(W), n_inner * n_col, uint16_t{0x3c00});
  {
    const Weights w1(one), w2(two);
    for (float x = 1; x < 4; ++x) {
      EXPECT_EQ(w1.multiply(x), 64 * x);
      EXPECT_EQ(w2.multiply(x + 1), 64 * (x + 1));
      std::vector<float> X(32 * n_inner, x), A(32 * n_col);
      EXPECT_EQ(morun_npu_mm_f32f16_f32(MORUN_DOMAIN_NPU0, 32, n_col, n_inner, A.data(), X.data(),
                                        static_cast<const uint16_t*>(W)),
                0);
      EXPECT_EQ(A, std::vector<float>(32 * n_col, 64 * x));
    }
    EXPECT_TRUE(one->tessel_locked && two->tessel_locked);
  }
  clean_up(one);
  {
    const Weights w(two);
    EXPECT_EQ(w.multiply(3), 192);
  }
  EXPECT_EQ(morun_npu_free(W), 0);
  EXPECT_EQ(morun_npu_finalize(MORUN_DOMAIN_NPU0), 0);
  clean_up(two);
}

TEST_F(Contexts, ThatShareAMatrixUnitFindItBusy) {
  test::configure([](auto& config) { config.shared_matrix_unit = 1; });
  tavik_context* const one = initialise();
  tavik_context* const two = initialise();
  {
    const Weights w1(one), w2(two);
    EXPECT_EQ(w1.multiply(1), 64);
    EXPECT_EQ(tavik_lock_compute_device(two), PARLO_EMULATOR_DSP_BUSY);
    EXPECT_EQ(w2.multiply(1), -1);
    EXPECT_EQ(last_error(),
              "1 tavik_context_get_handle_from_fd source/host/context 172: Device or resource busy in "
              "tavik_veyra_lock_tessel(active_handle) != KESO_SUCCESS");
    EXPECT_EQ(tavik_unlock_compute_device(one), 0);
    EXPECT_EQ(w2.multiply(1), 64);
  }
  clean_up(one);
  clean_up(two);
}

// Every platform call of a cleanup fails: once, from then on, or because its session is gone. A second cleanup then takes
// the rest. Another context never notices, unless the first session is lost, which it shares.
TEST_F(Contexts, CleanupGoesOnWhereItFailed) {
  const auto fail = [](int fault_class, int operation, uint32_t nth) {
    const parlo_emulator_fault fault = {fault_class, operation, -1, nth, 0x77, EIO};
    parlo_emulator_arm(&fault);
  };
  test::configure([](auto& config) { config.session_bytes = 1 << 21; });
  for (const int fault_class :
       {PARLO_EMULATOR_FAULT_ONCE, PARLO_EMULATOR_FAULT_FROM_THEN_ON, PARLO_EMULATOR_FAULT_SESSION_LOST}) {
    // Unlock, release, six calls for each session; then four for the reserved one, which a second failure leaves.
    const uint32_t n_call = fault_class == PARLO_EMULATOR_FAULT_FROM_THEN_ON ? 14 : 19;
    const bool shares = fault_class != PARLO_EMULATOR_FAULT_SESSION_LOST;
    tavik_context* const witness = shares ? initialise() : nullptr;
    const parlo_emulator_usage before = test::usage();
    for (uint32_t nth = 1; nth <= n_call; ++nth) {
      SCOPED_TRACE("class " + std::to_string(fault_class) + ", call " + std::to_string(nth));
      tavik_context* const context = initialise();
      // A second session with a buffer of its own, a third that is reserved only, the matrix unit locked in the second.
      const int32_t fds[] = {allocate(context, shares ? 2 << 20 : 1 << 20), allocate(context, 1 << 20)};
      fail(PARLO_EMULATOR_FAULT_ONCE, PARLO_EMULATOR_HANDLE_OPEN, 1);
      int32_t fd;
      EXPECT_EQ(tavik_buffer_alloc(context, 1 << 21, nullptr, &fd), TAVIK_ERROR_FAILURE);
      uint64_t handle;
      EXPECT_EQ(tavik_context_get_handle_from_fd(context, fds[1], &handle), TAVIK_SUCCESS);
      for (const int32_t buffer : fds) release(context, buffer);

      fail(fault_class, PARLO_EMULATOR_ANY_OPERATION, nth);
      const int32_t status = tavik_cleanup(context);
      const bool fired = nth <= 18;
      EXPECT_EQ(parlo_emulator_faults_fired() != 0, fired);
      EXPECT_EQ(status, fired ? TAVIK_ERROR_FAILURE : TAVIK_SUCCESS);
      if (fired && fault_class == PARLO_EMULATOR_FAULT_FROM_THEN_ON) {
        EXPECT_EQ(tavik_cleanup(context), TAVIK_ERROR_FAILURE);
        EXPECT_EQ(last_error(), "1 tavik_cleanup source/host/host 114: Failed to close the handle");
      }
      parlo_emulator_clear_fault();
      if (fired) clean_up(context);
      const parlo_emulator_usage after = test::usage();
      EXPECT_EQ(std::memcmp(&before, &after, sizeof after), 0);
      tavik_context* const other = shares ? witness : initialise();
      EXPECT_EQ(Weights(other).multiply(2), 128);
      if (!shares) clean_up(other);
    }
    if (shares) clean_up(witness);
  }
}

TEST_F(Contexts, ASecondCleanupTakesEveryStepAgainAndInsistsOnClosing) {
  test::configure([](auto& config) { config.session_bytes = 1 << 21; });
  tavik_context* const context = initialise();
  for (const int32_t fd : {allocate(context, 1 << 20), allocate(context, 1 << 20)}) release(context, fd);
  ASSERT_EQ(context->n_sessions, 2u);
  ASSERT_EQ(tavik_lock_compute_device(context), 0);
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 8, 1, 0x77, EIO);
  EXPECT_EQ(tavik_cleanup(context), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(last_error(), "1 tavik_cleanup source/host/host 93: Failed to unlock compute resource");
  parlo_emulator_trace_clear();
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_CLOSE, -1, 1, 0x77, EIO);
  EXPECT_EQ(tavik_cleanup(context), TAVIK_ERROR_FAILURE);
  const Strings session = {"4", "parlo_munmap", "parlo_munmap", "parlo_munmap", "parlo_munmap", "parlo_handle_close"};
  Strings expected = {"8", "6"};
  for (int i = 0; i < 2; ++i) expected.insert(expected.end(), session.begin(), session.end());
  EXPECT_EQ(trace(), expected);
  EXPECT_EQ(context->session_handle[1], ~uint64_t{0});
  clean_up(context);
}

TEST_F(Contexts, AForkedChildNeedsOneOfItsOwn) {
  tavik_context* const context = initialise();
  {
    const Weights w(context);
    EXPECT_EQ(w.multiply(1), 64);
    int to_child[2], status = -1;
    ASSERT_EQ(pipe(to_child), 0);
    const pid_t child = fork();
    if (child == 0) {
      char go;
      close(to_child[1]);
      for (int i = 0; i < 100; ++i)
        if (w.multiply(5) != -1) _exit(1);
      if (tavik_cleanup(context) != TAVIK_ERROR_FAILURE) _exit(2);
      const tavik_options options = small_options();
      tavik_context* own = nullptr;
      if (tavik_init(&options, &own) != TAVIK_SUCCESS) _exit(3);
      if (Weights(own).multiply(7) != 448) _exit(4);
      if (tavik_cleanup(own) != TAVIK_SUCCESS) _exit(6);
      _exit(read(to_child[0], &go, 1) == 0 ? 0 : 5);
    }
    close(to_child[0]);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(w.multiply(2), 128);
    close(to_child[1]);
    waitpid(child, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
  }
  clean_up(context);
}

class Buffers : public test::PlatformTest {
 protected:
  // Sessions that hold the cross-session buffers and one buffer of this size, no more.
  static constexpr uint64_t buffer_bytes = 1 << 20;
  static tavik_context* initialise_with_room_for_one() {
    test::configure([](auto& config) { config.session_bytes = 2 * buffer_bytes; });
    return initialise();
  }
};

TEST_F(Buffers, FillOneSessionAndOpenTheNext) {
  tavik_context* const context = initialise_with_room_for_one();
  const int32_t first = allocate(context, buffer_bytes);
  parlo_emulator_trace_clear();
  const int32_t second = allocate(context, buffer_bytes);
  const Strings expected = {"parlo_mem_alloc2",
                            "parlo_mem_to_fd",
                            "parlo_mmap",
                            "parlo_session_control",
                            "parlo_session_control",
                            "parlo_session_control",
                            "parlo_handle_open",
                            "parlo_mmap",
                            "parlo_mmap",
                            "parlo_mmap",
                            "parlo_mmap",
                            "3",
                            "parlo_mmap"};
  EXPECT_EQ(trace(), expected);
  EXPECT_EQ(context->n_sessions, 2u);
  EXPECT_STREQ(context->session_name[1], "Tavik_1");
  EXPECT_EQ(context->fd_to_session[first], 0);
  EXPECT_EQ(context->fd_to_session[second], 1);

  uint64_t session = 9, handle = 0;
  EXPECT_EQ(tavik_context_get_session_from_fd(context, second, &session), TAVIK_SUCCESS);
  EXPECT_EQ(session, 1u);
  parlo_emulator_trace_clear();
  for (const int32_t fd : {first, first, second, second, first}) {
    EXPECT_EQ(tavik_context_get_handle_from_fd(context, fd, &handle), TAVIK_SUCCESS);
    EXPECT_EQ(handle, context->session_handle[fd == first ? 0 : 1]);
  }
  EXPECT_EQ(trace(), (Strings{"7", "6", "8", "5", "7", "6", "8", "5", "7"}));
  release(context, first);
  release(context, second);
  clean_up(context);
}

TEST_F(Buffers, KeepTheSessionThatCouldNotBeOpenedForTheNextTry) {
  const auto domain = [](const tavik_context* context, uint64_t session) { return context->session_domain[session]; };
  for (const int operation : {PARLO_EMULATOR_SESSION_CONTROL, PARLO_EMULATOR_HANDLE_OPEN}) {
    tavik_context* const context = initialise_with_room_for_one();
    const int32_t first = allocate(context, buffer_bytes);
    parlo_emulator_fail(operation, -1, 2 - (operation == PARLO_EMULATOR_HANDLE_OPEN), 0x77, EIO);
    void* pointer = nullptr;
    EXPECT_EQ(tavik_buffer_alloc(context, buffer_bytes, &pointer, nullptr), TAVIK_ERROR_FAILURE);
    EXPECT_EQ(context->n_sessions, 1u);
    EXPECT_EQ(test::usage().n_sessions, 2u);
    const int32_t id = context->session_id[1], kept = domain(context, 1);
    parlo_emulator_trace_clear();
    const int32_t second = allocate(context, buffer_bytes);
    parlo_emulator_call call;
    ASSERT_EQ(parlo_emulator_trace_get(3, &call), 0);
    EXPECT_EQ(call.operation, PARLO_EMULATOR_SESSION_CONTROL);
    EXPECT_EQ(call.arguments[0], PARLO_SESSION_GET_URI);
    EXPECT_EQ(call.arguments[1], static_cast<uint64_t>(id));
    EXPECT_EQ(std::pair(context->session_id[1], domain(context, 1)), std::pair(id, kept));
    EXPECT_EQ(test::usage().n_sessions, 2u);

    // One that is closed again is no longer reserved.
    parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, 3, 1, 0x77, EIO);
    EXPECT_EQ(tavik_buffer_alloc(context, buffer_bytes, &pointer, nullptr), TAVIK_ERROR_FAILURE);
    EXPECT_EQ(test::usage().n_sessions, 2u);
    release(context, allocate(context, buffer_bytes));
    release(context, first);
    release(context, second);
    clean_up(context);
  }
}

TEST_F(Buffers, CloseTheGapThatAFreedOneLeaves) {
  tavik_context* const context = initialise();
  void* pointers[3] = {};
  int32_t fds[3];
  for (int i = 0; i < 3; ++i) fds[i] = allocate(context, 4096u * static_cast<unsigned>(i + 1), &pointers[i]);
  release(context, fds[1]);
  ASSERT_EQ(context->n_buffers, 2u);
  EXPECT_EQ(context->buffer_fd[1], fds[2]);
  EXPECT_EQ(context->buffer_size[1], 3 * 4096u);
  void* found = nullptr;
  EXPECT_EQ(tavik_context_get_pointer_from_fd(context, fds[2], &found), TAVIK_SUCCESS);
  EXPECT_EQ(found, pointers[2]);
  EXPECT_EQ(tavik_buffer_free(context, fds[1]), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(last_error(), "1 tavik_buffer_free source/host/buffer 118: Failed to find buffer with descriptor " +
                              std::to_string(fds[1]));
  release(context, fds[0]);
  release(context, fds[2]);
  clean_up(context);
}

TEST_F(Buffers, UnknownDescriptorsAreNotFound) {
  tavik_context* const context = initialise();
  void* pointer;
  uint64_t session, handle = 5;
  EXPECT_EQ(tavik_context_get_pointer_from_fd(context, context->A0_fd, &pointer), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(last_error(),
            "1 tavik_context_get_pointer_from_fd source/host/context 111: "
            "Failed to find pointer for buffer with descriptor " +
                std::to_string(context->A0_fd));
  EXPECT_EQ(tavik_context_get_session_from_fd(context, 1023, &session), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(last_error(),
            "1 tavik_context_get_session_from_fd source/host/context 132: "
            "Failed to find session for buffer with descriptor 1023");
  for (const int32_t fd : {1024, -1, INT32_MAX, INT32_MIN})
    EXPECT_EQ(tavik_context_get_handle_from_fd(context, fd, &handle), TAVIK_ERROR_FAILURE) << fd;
  EXPECT_EQ(handle, 5u);
  clean_up(context);
}

TEST_F(Buffers, RefusalsLeaveNothingBehind) {
  tavik_context* const context = initialise_with_room_for_one();
  const auto refused = [&](uint64_t size, const std::string& error) {
    const parlo_emulator_usage before = test::usage();
    void* pointer = &pointer;
    int32_t fd = 5;
    EXPECT_EQ(tavik_buffer_alloc(context, size, &pointer, &fd), TAVIK_ERROR_FAILURE);
    EXPECT_EQ(last_error(), error);
    EXPECT_EQ(pointer, nullptr);
    EXPECT_EQ(fd, -1);
    EXPECT_EQ(test::usage().n_allocations, before.n_allocations);
  };
  EXPECT_EQ(tavik_buffer_alloc(context, 1, nullptr, nullptr), TAVIK_ERROR_FAILURE);
  EXPECT_EQ(last_error(), "1 tavik_buffer_alloc source/host/buffer 23: no output address provided");
  refused(0, "1 tavik_buffer_alloc source/host/buffer 29: failed to allocate shared buffer of size 0");

  test::configure([](auto& config) { config.lowest_descriptor = 1024; });
  refused(1,
          "1 tavik_buffer_alloc source/host/buffer 39: "
          "descriptor 1024 too high for fd_to_session table (max: 1023)");
  test::configure([](auto& config) { config.lowest_descriptor = 0; });

  // Fits no session: each try opens one more, and that stays. The message names the domain after the new one's.
  for (int i = 0; i < 3; ++i)
    refused(16 * buffer_bytes, "1 tavik_buffer_alloc source/host/buffer 62: Failed to mmap buffer to domain 0");
  EXPECT_EQ(context->n_sessions, 4u);
  const size_t calls = trace().size();
  refused(16 * buffer_bytes, "1 tavik_context_open_session source/host/context 270: cannot open more than 4 sessions");
  EXPECT_EQ(trace().size() - calls, 7u);  // alloc, descriptor, four mappings refused, free

  std::vector<int32_t> fds;
  for (int i = 0; i < TAVIK_MAX_BUFFERS; ++i) fds.push_back(allocate(context, 1));
  parlo_emulator_trace_clear();
  refused(1, "1 tavik_buffer_alloc source/host/buffer 26: cannot hold more than 32 buffers");
  EXPECT_EQ(trace(), Strings{});
  for (const int32_t fd : fds) release(context, fd);
  clean_up(context);
}

}  // namespace
