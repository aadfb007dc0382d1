// What happens when the DSP half of a session is slow, hangs, dies or never begins, and that other sessions go on. The
// tests run sessions in processes of their own, and where it makes sense also in the calling process.
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <thread>

#include "platform/emulator/process/records.h"
#include "tests/emulator_session.h"
#include "tests/products.h"

namespace {

using namespace test;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

bool eventually(auto condition, Clock::duration limit = 10s) {
  for (const auto end = Clock::now() + limit; Clock::now() < end; std::this_thread::sleep_for(1ms))
    if (condition()) return true;
  return condition();
}

// The state of a process in the letters of the system, or "" when it is gone.
std::string state_of(int process) {
  std::ifstream file("/proc/" + std::to_string(process) + "/stat");
  std::string number, name, state;
  file >> number >> name >> state;
  return state;
}
// A process that has ended may wait for another process to take note of its end.
bool is_running(int process) {
  const std::string state = state_of(process);
  return !state.empty() && state != "Z";
}

size_t n_line_of_maps(const char* text) {
  std::ifstream file("/proc/self/maps");
  size_t n = 0;
  for (std::string line; std::getline(file, line);) n += line.find(text) != line.npos;
  return n;
}

void arm(int32_t fault_class, int32_t status = 0, int32_t method = -1) {
  const parlo_emulator_fault fault = {fault_class, PARLO_EMULATOR_HANDLE_INVOKE, method, 1, status, EIO};
  parlo_emulator_arm(&fault);
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__x86_64__)
constexpr bool is_slow = true;  // a sanitizer, or an emulated processor
#else
constexpr bool is_slow = false;
#endif

// A context with ones for weights, of which the first part is in the first session and the second part in a session of
// the context's own.
struct Context {
  static constexpr int32_t n_row = 64, n_inner = 512, n_col = 256;
  static constexpr uint64_t n_byte = 2ull * n_inner * n_col;

  int32_t begin() {
    const tavik_options options = {1 << 16, 256, 1 << 16, 0};
    if (const int32_t status = tavik_init(&options, &context); status != 0) return status;
    if (const int32_t status = tavik_context_open_session(context); status != 0) return status;
    if (const int32_t status = tavik_context_mmap_cross_session_buffers(context, 1); status != 0) return status;
    for (const size_t part : {0, 1}) {
      const int32_t status = tavik_buffer_alloc(context, n_byte, &weights[part], &fds[part]);
      if (status != 0) return status;
      std::fill_n(static_cast<uint16_t*>(weights[part]), n_inner * n_col, uint16_t{0x3c00});
    }
    return 0;
  }
  // Returns the status of the product; a product that succeeds must be right.
  uint32_t multiply(size_t part) {
    const std::vector<float> X(n_row * n_inner, 1);
    std::vector<float> A(n_row * n_col, -1);
    const uint32_t status =
        tavik_npu_mm_f32_rm_f32_rm_f16_wh(context, n_row, n_col, n_inner, A.data(), X.data(), fd(part), 0);
    if (status == 0) {
      EXPECT_EQ(A, std::vector<float>(n_row * n_col, n_inner));
    }
    return status;
  }
  uint32_t fd(size_t part) const { return static_cast<uint32_t>(fds[part]); }
  // The process of the session that holds this part of the weights.
  int process(size_t part) const {
    return parlo_emulator_process_of(context->session_handle[context->buffer_session[part]]);
  }
  // Every step succeeds, whatever has become of the sessions.
  void end() {
    if (context == nullptr) return;
    while (context->n_buffers != 0) ASSERT_EQ(tavik_buffer_free(context, context->buffer_fd[0]), 0) << last_error();
    ASSERT_EQ(tavik_cleanup(context), 0) << last_error();
    context = nullptr;
  }

  tavik_context* context = nullptr;
  int32_t fds[2] = {-1, -1};
  void* weights[2] = {};
};

class SessionLoss : public PlatformTest, public testing::WithParamInterface<int32_t> {
 protected:
  void SetUp() override {
    PlatformTest::SetUp();
    parlo_emulator_set_carrier(carrier());
    // The first session of each context has room for its cross-session buffers and one part of the weights.
    configure([](auto& config) { config.session_bytes = 1160 << 10; });
  }
  void TearDown() override {
    EXPECT_EQ(n_line_of_maps("memfd:parlo"), 0u);
    PlatformTest::TearDown();
  }
  static int32_t carrier() { return GetParam(); }

  Session first, second;
};
const auto carrier_name = [](const auto& carrier) {
  return std::string(carrier.param == PARLO_EMULATOR_PROCESS ? "Process" : "Here");
};
INSTANTIATE_TEST_SUITE_P(, SessionLoss, testing::Values(PARLO_EMULATOR_IN_PROCESS, PARLO_EMULATOR_PROCESS),
                         carrier_name);

class SessionProcess : public SessionLoss {};
INSTANTIATE_TEST_SUITE_P(, SessionProcess, testing::Values(PARLO_EMULATOR_PROCESS), carrier_name);

// ---- Faults on purpose

TEST_P(SessionLoss, AContextOutlivesEachOfItsSessions) {
  for (const size_t session : {0u, 1u}) {
    Context lost, other;
    ASSERT_EQ(lost.begin() | other.begin(), 0) << last_error();
    ASSERT_EQ(lost.context->buffer_session[1], 1);
    ASSERT_EQ(lost.multiply(session), 0u);
    arm(PARLO_EMULATOR_FAULT_SESSION_LOST, 0, 10);
    EXPECT_EQ(lost.multiply(session), 1u);
    EXPECT_NE(last_error().find("Connection reset by peer in tavik_veyra_1mm_f16("), std::string::npos) << last_error();
    EXPECT_EQ(lost.multiply(session), 1u);
    // Both contexts have the first session in common.
    EXPECT_EQ(lost.multiply(1 - session), 0u);
    EXPECT_EQ(other.multiply(0), session == 0 ? 1u : 0u);
    EXPECT_EQ(other.multiply(1), 0u);
    Context anew;
    ASSERT_EQ(anew.begin(), 0) << last_error();
    EXPECT_EQ(anew.multiply(0) | anew.multiply(1), 0u);
    lost.end(), other.end();
    EXPECT_EQ(anew.multiply(0) | anew.multiply(1), 0u);
    anew.end();
  }
}

TEST_P(SessionLoss, AHangEndsAtTheLimitAndOtherSessionsGoOn) {
  parlo_emulator_set_call_limit(is_slow ? 3000 : 200);
  ASSERT_EQ(first.open() | second.reserve() | second.open(), 0);
  arm(PARLO_EMULATOR_FAULT_HANG, 0, acquire);
  const auto begin = Clock::now();
  std::atomic<int> status = 0;
  std::thread hanging([&] { status = first.invoke(acquire); });
  ASSERT_TRUE(eventually([] { return parlo_emulator_faults_fired() == 1; }));
  size_t n_call = 0;
  while (status == 0 && Clock::now() - begin < 20s) {
    EXPECT_EQ(second.invoke(acquire), 0);
    ++n_call;
  }
  hanging.join();
  EXPECT_EQ(status, PARLO_EMULATOR_TIMED_OUT);
  EXPECT_GE(Clock::now() - begin, 200ms);
  EXPECT_GT(n_call, 20u);
  EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(first.invoke(test::release) | first.close() | second.close(), 0);
}

TEST_P(SessionLoss, CallsAreLateOrAnswerWrongly) {
  Context c;
  ASSERT_EQ(c.begin(), 0) << last_error();
  auto begin = Clock::now();
  arm(PARLO_EMULATOR_FAULT_LATE, 50, 10);
  EXPECT_EQ(c.multiply(0), 0u);
  EXPECT_GE(Clock::now() - begin, 50ms);
  arm(PARLO_EMULATOR_FAULT_WRONG_STATUS, 0x77, 10);
  EXPECT_EQ(c.multiply(0), 1u);
  EXPECT_EQ(c.multiply(0), 0u);
  // Each kind has its own tiles. The result of one row is a row of the tiles, whose other rows nobody reads.
  constexpr int32_t n_row = Context::n_row, n_col = Context::n_col, n_inner = Context::n_inner;
  const std::vector<float> X(n_row * n_inner, 1);
  std::memset(c.weights[0], 0x3c, Context::n_byte);
  for (const products::Kind kind : products::kinds) {
    const int32_t row_bits = n_col * (kind == products::f16 ? 16 : 32);
    for (const auto& [n_used_row, n_bit, n_wrong] : {std::tuple(1, n_col, n_col), {n_row, 33 * row_bits, 33 * n_col}}) {
      const products::WeightPlace w = {c.fd(0), 0};
      std::vector<float> right(n_row * n_col), wrong = right;
      for (auto* const A : {&right, &wrong}) {
        EXPECT_EQ(products::multiply(c.context, kind, {n_used_row, n_col, 0, n_inner, {A->data()}, X.data()}, {&w, 1}),
                  0u);
        arm(PARLO_EMULATOR_FAULT_FLIPPED_BITS, n_bit);
      }
      parlo_emulator_clear_fault();
      int32_t n = 0;
      for (int32_t i = 0; i < 33 * n_col; ++i) n += right[i] != wrong[i];
      EXPECT_EQ(n, n_wrong) << products::kind_names[kind];
      EXPECT_TRUE(std::equal(right.begin() + 33 * n_col, right.end(), wrong.begin() + 33 * n_col));
    }
  }
  c.end();

  ASSERT_EQ(first.open(), 0);
  const Shared shared = test::allocate(page);
  ASSERT_EQ(first.map(shared), 0);
  const auto n_flipped = [&](int32_t n) {
    std::memset(shared.address, 6, page);
    arm(PARLO_EMULATOR_FAULT_FLIPPED_BITS, n);
    EXPECT_EQ(first.invoke(self_test, {1000, static_cast<uint32_t>(shared.fd)}), 0);
    const auto* const bytes = static_cast<uint8_t*>(shared.address);
    int n_bit = 0;
    for (uint64_t i = 0; i < page; ++i) n_bit += __builtin_popcount(bytes[i] ^ (i < 1000 ? 7u : 6u));
    return n_bit;
  };
  for (const int32_t n : {1, 2, 100, 8000}) EXPECT_EQ(n_flipped(n), n);
  EXPECT_EQ(n_flipped(9000), 8000);
  EXPECT_EQ(first.unmap(shared) | first.close(), 0);
  parlo_mem_free(shared.address);
}

// One product takes its time. Products of another context, in the same sessions and in others, end meanwhile.
TEST_P(SessionLoss, ContextsMultiplyAtTheSameTime) {
  Context slow, quick;
  ASSERT_EQ(slow.begin() | quick.begin(), 0) << last_error();
  std::atomic<bool> is_done = false;
  arm(PARLO_EMULATOR_FAULT_LATE, is_slow ? 3000 : 300, 10);
  std::thread thread([&] {
    EXPECT_EQ(slow.multiply(0), 0u);
    is_done = true;
  });
  ASSERT_TRUE(eventually([] { return parlo_emulator_faults_fired() == 1; }));
  size_t n = 0;
  for (; !is_done && n < 2; ++n) EXPECT_EQ(quick.multiply(n % 2), 0u);
  EXPECT_FALSE(is_done) << n;
  thread.join();
  slow.end(), quick.end();
}

// From its beginning to its end, with products of every kind and of several threads of the DSP.
TEST_P(SessionLoss, ContextsInThreadsMultiplyRightly) {
  configure([](auto& config) { config.session_bytes = 8 << 20; });
  constexpr int32_t n_row = 200, n_col = 256, n_inner = 256;
  const std::vector<float> X(n_row * n_inner, 0.25);
  const auto all_products = [&] {
    const tavik_options options = {1 << 16, 256, 1 << 16, 0};
    tavik_context* context = nullptr;
    EXPECT_EQ(tavik_init(&options, &context), 0) << last_error();
    void* weights;
    const auto fd = static_cast<uint32_t>(PlatformTest::allocate(context, 1 << 19, &weights));
    std::memset(weights, 0x2b, 1 << 19);
    std::vector<std::vector<float>> results;
    for (const products::Kind kind : products::kinds) {
      results.emplace_back(n_row * n_col);
      const products::WeightPlace w = {fd, 0, 1 << 17, 1 << 18, 3 << 17};
      const products::Operands operands = {n_row, n_col, n_col, n_inner, {results.back().data()}, X.data()};
      EXPECT_EQ(products::multiply(context, kind, operands, {&w, 1}), 0u) << last_error();
    }
    PlatformTest::release(context, static_cast<int32_t>(fd));
    clean_up(context);
    return results;
  };
  const auto expected = all_products();
  std::vector<std::thread> threads;
  for (int i = 0; i < 3; ++i) {
    threads.emplace_back([&] {
      for (int round = 0; round < 3; ++round) EXPECT_EQ(all_products(), expected);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

// ---- Processes

TEST_P(SessionProcess, EachSessionHasAProcessThatKnowsOnlyWhatIsMapped) {
  const Shared a = test::allocate(page), b = test::allocate(page);
  const int inheritable = dup(a.fd);  // by every program that the host starts
  ASSERT_EQ(first.open() | second.reserve() | second.open(), 0);
  Session sibling;
  const size_t n_descriptor = open_descriptors();
  ASSERT_EQ(sibling.open() | sibling.close(), 0);
  EXPECT_EQ(open_descriptors(), n_descriptor);
  ASSERT_EQ(sibling.open(), 0);
  EXPECT_NE(first.process(), second.process());
  EXPECT_EQ(first.process(), sibling.process());
  ASSERT_EQ(first.map(a) | second.map(b), 0);
  const auto n_buffer = [](int process) {
    std::ifstream maps("/proc/" + std::to_string(process) + "/maps");
    size_t n = 0;
    for (std::string line; std::getline(maps, line);) n += line.find("memfd:parlo") != line.npos;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/fd"))
      n += 100 * (read_symlink(entry).string().find("memfd:parlo") != std::string::npos);
    return n;
  };
  EXPECT_EQ(n_buffer(first.process()), 1u);  // a mapping, no descriptor
  EXPECT_EQ(first.unmap(a), 0);
  EXPECT_EQ(n_buffer(first.process()), 0u);
  const int process = first.process();
  EXPECT_EQ(sibling.close(), 0);
  EXPECT_TRUE(is_running(process));
  EXPECT_EQ(first.close() | second.close(), 0);
  EXPECT_FALSE(is_running(process));
  close(inheritable);
  parlo_mem_free(a.address), parlo_mem_free(b.address);
}

// Killed between two calls, of which the second one is each call in turn; or stopped, so that it answers no more.
TEST_P(SessionProcess, EveryCallFindsADeadOrStoppedSession) {
  constexpr int ok = 0, lost = PARLO_EMULATOR_SESSION_LOST, late = PARLO_EMULATOR_TIMED_OUT;
  const Shared a = test::allocate(page), b = test::allocate(page);
  Session extra;
  const struct {
    const char* name;
    int when_dead, when_stopped;
    std::function<int()> call;
  } calls[] = {{"acquire", lost, late, [&] { return first.invoke(acquire); }},
               {"version or test", lost, late,
                [&] {
                  return first.invoke(self_test, {1, static_cast<uint32_t>(a.fd)});
                }},
               {"map", lost, late, [&] { return first.map(b); }},
               {"open", lost, late, [&] { return extra.open(); }},
               {"unmap", ok, late, [&] { return first.unmap(a); }},
               {"release", ok, late, [&] { return first.invoke(test::release); }},
               {"unlock", ok, late, [&] { return first.invoke(unlock_unit); }},
               {"put_AX", ok, late, [&] { return first.invoke(put_AX); }},
               {"clear_cache", ok, late, [&] { return first.invoke(clear_cache); }},
               {"close", ok, ok, [&] { return first.close(); }}};
  parlo_emulator_set_call_limit(is_slow ? 3000 : 200);
  for (const int signal : {SIGKILL, SIGSTOP}) {
    for (const auto& call : calls) {
      SCOPED_TRACE(call.name);
      if (is_slow && signal == SIGSTOP && call.when_dead == ok) continue;  // each takes as long as the limit
      ASSERT_EQ(first.open() | first.map(a), 0);
      const int process = first.process();
      kill(process, signal);
      ASSERT_TRUE(eventually([&] { return state_of(process) == (signal == SIGKILL ? "Z" : "T"); }));
      const int status = call.call();
      EXPECT_EQ(status, signal == SIGKILL ? call.when_dead : call.when_stopped);
      if (status != ok) {
        EXPECT_EQ(errno, status == lost ? ECONNRESET : ETIMEDOUT);
      }
      EXPECT_TRUE(eventually([&] { return !is_running(process); }));
      if (std::string_view(call.name) == "close") continue;
      EXPECT_EQ(first.invoke(acquire), lost);
      EXPECT_EQ(first.unmap(a), ok);
      EXPECT_EQ(first.close(), ok);
      EXPECT_EQ(first.close(), PARLO_EMULATOR_BAD_HANDLE);
    }
  }
  parlo_mem_free(a.address), parlo_mem_free(b.address);
}

// A signal that a program handles begins a system call anew, with all its time.
TEST_P(SessionProcess, SignalsDoNotProlongTheLimit) {
  parlo_emulator_set_call_limit(is_slow ? 3000 : 200);
  ASSERT_EQ(first.open(), 0);
  arm(PARLO_EMULATOR_FAULT_HANG);
  signal(SIGUSR1, [](int) {});
  std::atomic<bool> has_ended = false;
  std::thread hanging([&] {
    EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_TIMED_OUT);
    has_ended = true;
  });
  EXPECT_TRUE(eventually([&] { return has_ended || pthread_kill(hanging.native_handle(), SIGUSR1) != 0; }));
  hanging.join();
  signal(SIGUSR1, SIG_DFL);
  EXPECT_EQ(first.close(), 0);
}

// The socket of a session that is busy has room for some hundred records. The session goes on, or has stopped for ever.
TEST_P(SessionProcess, NoReleaseOfABufferIsForgotten) {
  for (const bool goes_on : {true, false}) {
    parlo_emulator_set_call_limit(goes_on ? 30000 : is_slow ? 3000 : 500);
    Session sibling;
    ASSERT_EQ(first.open() | sibling.open(), 0);
    std::vector<Shared> buffers;
    for (int i = 0; i < 280; ++i) ASSERT_EQ(first.map(buffers.emplace_back(test::allocate(page))), 0);
    const int process = first.process();
    kill(process, SIGSTOP);
    ASSERT_TRUE(eventually([&] { return state_of(process) == "T"; }));
    for (const Shared& buffer : buffers) parlo_mem_free(buffer.address);
    if (goes_on) kill(process, SIGCONT);
    EXPECT_EQ(sibling.close(), 0);
    EXPECT_EQ(is_running(process), goes_on);
    EXPECT_EQ(usage().n_mappings, 0u);
    EXPECT_EQ(first.close(), 0);
  }
}

// The host's end of each socket is a descriptor of this process.
TEST_P(SessionProcess, AMalformedRecordEndsItsSessionAlone) {
  const auto sockets = [] {
    std::set<int> numbers;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
      if (read_symlink(entry).string().starts_with("socket:")) numbers.insert(stoi(entry.path().filename().string()));
    return numbers;
  };
  ASSERT_EQ(second.reserve() | second.open(), 0);
  const std::set<int> before = sockets();
  // A release comes alone and is not answered. The first of a session's sockets is that of its control.
  for (const size_t n_descriptor : {0u, 2u}) {
    // qemu-user does not tell the receiver that descriptors were cut off.
    if (n_descriptor != 0 && getenv("PARLO_DSP_LAUNCHER") != nullptr) continue;
    ASSERT_EQ(first.open(), 0);
    int control = -1;
    for (const int socket : sockets())
      if (!before.contains(socket) && control < 0) control = socket;
    parlo::process::Request record = {.kind = parlo::process::RequestKind::release};
    iovec part = {&record, sizeof record};
    alignas(cmsghdr) char descriptors[CMSG_SPACE(2 * sizeof(int))] = {};
    const cmsghdr side = {CMSG_LEN(2 * sizeof(int)), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(descriptors, &side, sizeof side);  // two times the descriptor 0
    msghdr message = {nullptr, 0, &part, 1, nullptr, 0, 0};
    if (n_descriptor != 0) message.msg_control = descriptors, message.msg_controllen = sizeof descriptors;
    ASSERT_EQ(sendmsg(control, &message, 0), static_cast<ssize_t>(sizeof record));
    Session sibling;
    EXPECT_EQ(sibling.open(), n_descriptor == 0 ? 0 : int{PARLO_EMULATOR_SESSION_LOST});
    EXPECT_EQ(sibling.close(), n_descriptor == 0 ? 0 : int{PARLO_EMULATOR_BAD_HANDLE});
    EXPECT_EQ(first.close(), 0);
  }
  for (const size_t n_byte : {0u, 1u, 2000u}) {
    ASSERT_EQ(first.open(), 0);
    // The first record may end the process before the record on its other socket is sent.
    int n_sent = 0;
    for (const int socket : sockets()) {
      const char record[2000] = {};
      if (before.contains(socket)) continue;
      n_sent += send(socket, record, n_byte, MSG_NOSIGNAL) == static_cast<ssize_t>(n_byte);
    }
    EXPECT_GE(n_sent, 1);
    EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
    EXPECT_EQ(first.close() | second.invoke(acquire), 0);
  }
  EXPECT_EQ(second.close(), 0);
}

TEST_P(SessionProcess, ADeadSessionGivesItsMatrixUnitBack) {
  configure([](auto& config) { config.shared_matrix_unit = 1; });
  ASSERT_EQ(first.open() | second.reserve() | second.open(), 0);
  ASSERT_EQ(first.invoke(acquire) | first.invoke(lock_unit) | second.invoke(acquire), 0);
  EXPECT_EQ(second.invoke(lock_unit), PARLO_EMULATOR_DSP_BUSY);
  kill(first.process(), SIGKILL);
  EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.invoke(lock_unit), 0);
  EXPECT_EQ(first.close() | second.close(), 0);
}

TEST_P(SessionProcess, ASessionThatNeverBeginsIsRefusedAndCanBeOpenedLater) {
  const char* const launcher = getenv("PARLO_DSP_LAUNCHER");
  const std::string before = launcher == nullptr ? "" : launcher;
  const std::pair<const char*, int> launchers[] = {
      {"/no/such/program", PARLO_EMULATOR_NO_PROCESS},
      {"/bin/false", PARLO_EMULATOR_SESSION_LOST},
      {"/bin/sleep 5", PARLO_EMULATOR_SESSION_LOST},
      {"/bin/sh -c echo>&3;exec${IFS}sleep${IFS}99", PARLO_EMULATOR_SESSION_LOST}};
  ASSERT_EQ(second.reserve(), 0);
  for (const auto& [program, status] : launchers) {
    // An emulated processor tells of a program that is not there when the new process has begun.
    if (!before.empty() && status == PARLO_EMULATOR_NO_PROCESS) continue;
    setenv("PARLO_DSP_LAUNCHER", program, 1);
    parlo_emulator_set_call_limit(5000);
    testing::internal::CaptureStderr();
    EXPECT_EQ(first.open(), status) << program;
    EXPECT_EQ(second.open(), status) << program;
    const std::string told = testing::internal::GetCapturedStderr();
    EXPECT_EQ(told.find("cannot start /no/such/program") != told.npos, status == PARLO_EMULATOR_NO_PROCESS) << told;
    tavik_context* context = nullptr;
    const tavik_options options = small_options();
    testing::internal::CaptureStderr();
    EXPECT_EQ(tavik_init(&options, &context), TAVIK_ERROR_FAILURE);
    testing::internal::GetCapturedStderr();
  }
  setenv("PARLO_DSP_LAUNCHER", before.c_str(), 1);
  EXPECT_EQ(first.open() | second.open() | first.close() | second.close(), 0);
}

// A process of its own is the host here, and is killed. A child of that host lives on with copies of its descriptors.
TEST_P(SessionProcess, WithoutAHostTheProcessesEnd) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const pid_t host = fork();
  if (host == 0) {
    Session busy, idle;
    if (busy.open() | idle.reserve() | idle.open()) _exit(1);
    const int told[] = {busy.process(), idle.process(), fork()};
    if (told[2] == 0) pause();
    if (write(ends[1], told, sizeof told) != sizeof told) _exit(2);
    arm(PARLO_EMULATOR_FAULT_HANG);
    parlo_emulator_set_call_limit(0);
    busy.invoke(acquire);
    _exit(3);
  }
  int told[3] = {};
  ASSERT_EQ(read(ends[0], told, sizeof told), static_cast<ssize_t>(sizeof told));
  EXPECT_TRUE(is_running(told[0]) && is_running(told[1]));
  std::this_thread::sleep_for(50ms);
  kill(host, SIGKILL);
  waitpid(host, nullptr, 0);
  EXPECT_TRUE(eventually([&] { return !is_running(told[0]) && !is_running(told[1]); }, is_slow ? 5s : 1s));
  kill(told[2], SIGKILL);
  close(ends[0]), close(ends[1]);
}

TEST_P(SessionProcess, AForkedChildThatCleansUpLeavesTheProcessesToItsParent) {
  Context c;
  ASSERT_EQ(c.begin(), 0) << last_error();
  EXPECT_EQ(status_of_child([&] {
              const bool refused = c.multiply(0) == 1 && tavik_cleanup(c.context) != 0;
              parlo_emulator_reset();
              Context own;
              return refused && own.begin() == 0 && own.multiply(1) == 0 && (own.end(), true) ? 0 : 1;
            }),
            0);
  EXPECT_EQ(c.multiply(0) | c.multiply(1), 0u);
  c.end();
}

// ---- Kills at random moments

// Each thread has a context, multiplies until a product fails, and begins anew. A kill is done when the context that it
// hits has told of a failure.
TEST_P(SessionProcess, KillsAtRandomMomentsAreStatuses) {
  const char* const asked = getenv("MORUN_KILLS");
  const int n_kill = asked == nullptr ? (is_slow ? 10 : 100) : atoi(asked);
  struct Worker {
    std::atomic<int> n_begun = 0, n_failure = 0;
    std::atomic<int> processes[2] = {0, 0};  // while products run
    std::thread thread;
  } workers[3];
  std::mutex beginning;  // a context that begins finds the room for which it has opened its sessions
  std::atomic<bool> is_over = false;
  std::atomic<int> n_product = 0, n_lost_beginning = 0, n_unexplained = 0;
  for (Worker& worker : workers) {
    worker.thread = std::thread([&, &worker = worker] {
      while (!is_over) {
        Context c;
        beginning.lock();
        const bool has_begun = c.begin() == 0;
        beginning.unlock();
        if (has_begun) {
          ++worker.n_begun;
          for (const size_t part : {0, 1}) worker.processes[part] = c.process(part);
          for (size_t i = 0; !is_over && c.multiply(i % 2) == 0; ++i) ++n_product;
          for (auto& process : worker.processes) process = 0;
        }
        if (!is_over) {
          ++worker.n_failure;
          if (!has_begun)
            ++n_lost_beginning;
          else if (last_error().find("onnection reset by peer") == std::string::npos)
            ++n_unexplained;
        }
        // A context whose beginning has failed is released by tavik_init, or half begun.
        c.end();
      }
    });
  }
  std::mt19937 random(1);
  const auto begin = Clock::now();
  for (int n = 0; n < n_kill && !HasFailure();) {
    std::this_thread::sleep_for(std::chrono::microseconds(random() % 3000));
    Worker& worker = workers[random() % 3];
    const int n_failure = worker.n_failure, process = worker.processes[random() % 2];
    std::map<Worker*, int> unconcerned;
    for (Worker& other : workers)
      if (other.processes[0] != process && other.processes[1] != process && is_running(other.processes[0]) &&
          is_running(other.processes[1]))
        unconcerned[&other] = other.n_failure;
    if (process <= 0 || kill(process, SIGKILL) != 0) continue;
    ++n;
    EXPECT_TRUE(eventually([&] { return worker.n_failure > n_failure; }, 60s)) << "kill " << n << " hangs";
    for (const auto& [other, n_before] : unconcerned) EXPECT_EQ(other->n_failure, n_before) << "kill " << n;
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  is_over = true;
  for (Worker& worker : workers) worker.thread.join();
  int n_failure = 0;
  for (Worker& worker : workers) n_failure += worker.n_failure;
  EXPECT_GE(n_failure, n_kill);
  EXPECT_EQ(n_unexplained, 0) << "products whose error record does not say that the session is lost";
  std::printf("%d kills, %d failures (%d of contexts that begin), %d products in %.1f s\n", n_kill, n_failure,
              n_lost_beginning.load(), n_product.load(), seconds);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

}  // namespace
