// The emulated platform, call by call: what it refuses and with which status, and what it keeps apart.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/allocation_shim.h"
#include "tests/emulator_session.h"

namespace {

using namespace test;

TEST_F(Emulator, DescriptorsAreTheLowestFreeOnesAndReal) {
  const int lowest = dup(0);
  close(lowest);
  const Shared a = allocate(page), b = allocate(page + 1);
  EXPECT_EQ(a.fd, lowest);
  EXPECT_EQ(lseek(b.fd, 0, SEEK_END), static_cast<off_t>(page + 1));
  parlo_mem_free(a.address);
  EXPECT_EQ(lseek(a.fd, 0, SEEK_END), -1);
  EXPECT_EQ(allocate(page).fd, lowest);
  configure([](auto& config) { config.lowest_descriptor = 1024; });
  EXPECT_EQ(allocate(page).fd, 1024);
  EXPECT_EQ(allocate(page).fd, 1025);
}

TEST_F(Emulator, MemoryIsRefusedAndFoundByItsFirstByteOnly) {
  EXPECT_EQ(parlo_mem_alloc(25, 1, 0), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(parlo_mem_alloc(25, 1, -4096), nullptr);
  const Shared shared = allocate((uint64_t{2} << 30) + page);
  ASSERT_NE(shared.address, nullptr);
  std::memset(static_cast<char*>(shared.address) + shared.size - 1, 1, 1);
  EXPECT_EQ(parlo_mem_to_fd(static_cast<char*>(shared.address) + 1), -1);
  configure([&](auto& config) { config.allocation_bytes = shared.size + page; });
  EXPECT_EQ(parlo_mem_alloc2(25, 1, page + 1), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  EXPECT_NE(parlo_mem_alloc2(25, 1, page), nullptr);
}

TEST_F(Emulator, OpeningChecksTheUri) {
  uint64_t handle = 77;
  const std::pair<std::string, int> cases[] = {
      {"libtavik_skel.so", PARLO_EMULATOR_BAD_URI},
      {session_0_uri + "&_session=x", PARLO_EMULATOR_BAD_URI},
      {"file:///libother_skel.so?tavik_skel_handle_invoke&_modver=1.0&_dom=cdsp", PARLO_EMULATOR_NO_SUCH_MODULE},
      {"file:///libtavik_skel.so?tavik_skel_handle_invoke&_modver=1.1&_dom=cdsp", PARLO_EMULATOR_NO_SUCH_MODULE},
      {module_uri + "&_dom=adsp", PARLO_EMULATOR_UNSUPPORTED_DOMAIN},
      {session_0_uri + "&_session=1", PARLO_EMULATOR_NO_SUCH_SESSION},
      {session_0_uri, PARLO_EMULATOR_UNSIGNED_REFUSED},
  };
  for (const auto& [uri, status] : cases) EXPECT_EQ(parlo_handle_open(uri.c_str(), &handle), status) << uri;
  EXPECT_EQ(handle, 77u);
  EXPECT_EQ((Session{.domain = 0}.allow_unsigned()), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
  open_first();
  open_second();
  EXPECT_EQ(second.open(), PARLO_EMULATOR_SESSION_OPEN);
  EXPECT_EQ(errno, EBUSY);
}

TEST_F(Emulator, SessionsOpenAndEndAnyNumberOfTimes) {
  const Shared shared = allocate(page);
  for (int round = 0; round < 20; ++round) {
    uint64_t handle;
    EXPECT_EQ(parlo_handle_open(session_0_uri.c_str(), &handle), PARLO_EMULATOR_UNSIGNED_REFUSED);
    open_first();
    open_second();
    EXPECT_GT(second.domain, 4);
    EXPECT_EQ(first.map(shared) + second.map(shared), 0);
    EXPECT_EQ(first.invoke(get_AX, std::vector<uint32_t>(4, static_cast<uint32_t>(shared.fd))), 0);
    EXPECT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
    EXPECT_EQ(second.close() + first.close(), 0);
    EXPECT_EQ(usage().n_sessions + usage().n_mappings, 0u);
    for (const uint64_t handle_gone : {first.handle, second.handle, uint64_t{0}, ~uint64_t{0}}) {
      EXPECT_EQ(parlo_handle_close(handle_gone), PARLO_EMULATOR_BAD_HANDLE);
      EXPECT_EQ((Session{0, 3, handle_gone}).invoke(clear_cache), PARLO_EMULATOR_BAD_HANDLE);
    }
    EXPECT_EQ(first.map(shared), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
  }
}

TEST_F(Emulator, SessionsAreLimitedAndKnowTheirDomain) {
  configure([](auto& config) { config.n_sessions = 3; });
  Session third, fourth;
  EXPECT_EQ(second.reserve() + third.reserve(), 0);
  EXPECT_NE(second.domain, third.domain);
  EXPECT_EQ(fourth.reserve(), PARLO_EMULATOR_NO_MORE_SESSIONS);
  parlo_session_effective_domain record{"cdsp", 4, third.id, 0};
  EXPECT_EQ(control(PARLO_SESSION_EFFECTIVE_DOMAIN, record), 0);
  EXPECT_EQ(static_cast<int>(record.effective_domain_id), third.domain);
  record.session_id = 7;
  EXPECT_EQ(control(PARLO_SESSION_EFFECTIVE_DOMAIN, record), PARLO_EMULATOR_NO_SUCH_SESSION);
  char uri[80];
  EXPECT_EQ(first.get_uri(uri, static_cast<uint32_t>(session_0_uri.size())), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ(first.get_uri(uri, static_cast<uint32_t>(session_0_uri.size() + 1)), 0);
  EXPECT_EQ(uri, session_0_uri);
}

TEST_F(Emulator, MappingsAreChecked) {
  open_first();
  const Shared a = allocate(3 * page), b = allocate(page);
  const auto map = [&](int domain, int fd, int offset, uint64_t length) {
    return parlo_mmap(domain, fd, a.address, offset, length, 2);
  };
  EXPECT_EQ(map(9, a.fd, 0, a.size), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
  EXPECT_EQ(map(3, b.fd, 0, a.size), PARLO_EMULATOR_UNKNOWN_DESCRIPTOR);
  EXPECT_EQ(map(3, a.fd, 0, a.size - 1), PARLO_EMULATOR_WRONG_SIZE);
  EXPECT_EQ(map(3, a.fd, page, a.size), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ(first.unmap(a), PARLO_EMULATOR_NOT_MAPPED);
  EXPECT_EQ(first.map(a), 0);
  EXPECT_EQ(first.map(a), PARLO_EMULATOR_ALREADY_MAPPED);
  EXPECT_EQ(parlo_munmap(3, a.fd, a.address, page), PARLO_EMULATOR_WRONG_SIZE);
}

TEST_F(Emulator, AddressSpacesAreLimitedOneByOne) {
  configure([](auto& config) { config.session_bytes = 4 * page; });
  open_first();
  open_second();
  const Shared a = allocate(3 * page), b = allocate(2 * page), c = allocate(page);
  EXPECT_EQ(first.map(a), 0);
  EXPECT_EQ(first.map(b), PARLO_EMULATOR_ADDRESS_SPACE_FULL);
  EXPECT_EQ(first.map(c) + second.map(b) + second.map(c) + first.unmap(a) + first.map(b), 0);
}

TEST_F(Emulator, FreedMemoryStaysMappedBesideItsSuccessor) {
  open_first();
  const Shared old = allocate(page);
  EXPECT_EQ(first.map(old), 0);
  parlo_mem_free(old.address);
  EXPECT_EQ(first.invoke(self_test, {16, static_cast<uint32_t>(old.fd)}), 0);
  const Shared young = allocate(page);
  ASSERT_EQ(young.fd, old.fd);
  EXPECT_EQ(first.map(young), 0);
  EXPECT_EQ(first.invoke(self_test, {1, static_cast<uint32_t>(young.fd)}), 0);
  EXPECT_EQ(*static_cast<uint8_t*>(young.address), 1);
  EXPECT_EQ(first.unmap(young) + first.unmap(old), 0);
  EXPECT_NE(first.unmap(old), 0);
}

TEST_F(Emulator, InvokeChecksScalarsAndBuffers) {
  open_first();
  uint32_t words[9] = {};
  parlo_argument good{words, 8}, too_short{words, 4}, null{nullptr, 8};
  const uint32_t scalars = PARLO_SCALARS(self_test, 1, 0);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, nullptr), PARLO_EMULATOR_BAD_ARGUMENT);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, &too_short), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars, &null), PARLO_EMULATOR_BAD_SCALARS);
  EXPECT_EQ(parlo_handle_invoke(first.handle, scalars | 1, &good), PARLO_EMULATOR_BAD_SCALARS);
  for (const uint32_t method : {0u, 1u, 23u}) EXPECT_EQ(first.invoke(method), PARLO_EMULATOR_BAD_SCALARS);
}

TEST_F(Emulator, ResourcesAndMatrixUnitAreHeldByOneSession) {
  open_first();
  open_second();
  EXPECT_EQ(first.invoke(release), 0);
  EXPECT_EQ(first.invoke(lock_unit), PARLO_EMULATOR_DSP_NO_RESOURCE);
  EXPECT_EQ(first.invoke(acquire) + first.invoke(acquire) + second.invoke(acquire), 0);
  EXPECT_EQ(first.invoke(unlock_unit), PARLO_EMULATOR_DSP_NOT_LOCKED);
  EXPECT_EQ(first.invoke(lock_unit) + first.invoke(lock_unit), 0);
  EXPECT_EQ(second.invoke(lock_unit), PARLO_EMULATOR_DSP_BUSY);
  EXPECT_EQ(second.invoke(unlock_unit), PARLO_EMULATOR_DSP_NOT_LOCKED);
  EXPECT_EQ(first.invoke(release), 0);
  EXPECT_EQ(second.invoke(lock_unit), PARLO_EMULATOR_DSP_BUSY);
  EXPECT_EQ(first.invoke(unlock_unit), 0);
  EXPECT_EQ(second.invoke(lock_unit), 0);
  EXPECT_EQ(first.invoke(put_AX), PARLO_EMULATOR_DSP_NO_AX);
  EXPECT_EQ(second.close(), 0);
  EXPECT_EQ(first.invoke(acquire) + first.invoke(lock_unit), 0);
}

TEST_F(Emulator, TheFirstSessionHoldsAModuleForEachContext) {
  configure([](auto& config) { config.session_bytes = 2 * page; });
  Session rival;
  open_first();
  const Shared a = allocate(page), b = allocate(page), c = allocate(2 * page);
  EXPECT_EQ(first.map(a) + first.map(b), 0);
  EXPECT_EQ(first.map(c), PARLO_EMULATOR_ADDRESS_SPACE_FULL);
  EXPECT_EQ(rival.open(), 0);
  EXPECT_EQ(rival.map(c), 0);
  const auto AX = [](const Shared& s) { return std::vector<uint32_t>(4, static_cast<uint32_t>(s.fd)); };
  EXPECT_EQ(first.invoke(get_AX, AX(a)) + rival.invoke(get_AX, AX(b)), 0);
  EXPECT_EQ(first.invoke(acquire), 0);
  EXPECT_EQ(rival.invoke(lock_unit), PARLO_EMULATOR_DSP_NO_RESOURCE);

  parlo_mem_free(c.address);
  EXPECT_EQ(alive(), (Alive{2, 2 * page, 1, 2, 3}));
  EXPECT_EQ(first.close(), 0);
  EXPECT_EQ(alive(), (Alive{2, 2 * page, 1, 1, 2}));
  EXPECT_EQ(first.invoke(clear_cache), PARLO_EMULATOR_BAD_HANDLE);
  EXPECT_EQ(rival.invoke(self_test, {1, static_cast<uint32_t>(a.fd)}), 0);
  EXPECT_EQ(rival.map(allocate(page)), PARLO_EMULATOR_ADDRESS_SPACE_FULL);
  EXPECT_EQ(rival.unmap(a) + rival.map(allocate(page)), 0);
  EXPECT_EQ(rival.close(), 0);
  EXPECT_EQ(usage().n_sessions + usage().n_mappings, 0u);
}

TEST_F(Emulator, EachContextHasAMatrixUnitUnlessTheyShareOne) {
  for (const bool shared : {false, true}) {
    SCOPED_TRACE(shared);
    configure([&](auto& config) { config.shared_matrix_unit = shared; });
    Session rival;
    open_first();
    open_second();
    ASSERT_EQ(rival.open(), 0);
    const Shared a = allocate(page), b = allocate(page);
    for (const Session& session : {first, second, rival}) {
      const Shared& AX = session.handle == rival.handle ? b : a;
      EXPECT_EQ(session.map(AX) + session.invoke(get_AX, std::vector<uint32_t>(4, static_cast<uint32_t>(AX.fd))), 0);
      EXPECT_EQ(session.invoke(acquire), 0);
    }
    const int foreign = shared ? PARLO_EMULATOR_DSP_BUSY : 0;
    EXPECT_EQ(second.invoke(lock_unit), 0);
    EXPECT_EQ(first.invoke(lock_unit), PARLO_EMULATOR_DSP_BUSY);
    EXPECT_EQ(rival.invoke(lock_unit), foreign);
    EXPECT_EQ(second.invoke(put_AX) + second.invoke(unlock_unit) + first.invoke(lock_unit), 0);
    EXPECT_EQ(rival.invoke(lock_unit), foreign);
    parlo_emulator_reset();
  }
}

// What a forked child finds, as its exit status; 0 where nothing is amiss.
template <class Body>
int in_child(Body body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(Emulator, AForkedChildLeavesItsParentAlone) {
  configure([](auto& config) { config.n_sessions = 2; });
  open_first();
  open_second();
  const Shared shared = allocate(page);
  EXPECT_EQ(first.map(shared), 0);
  const auto fd = static_cast<uint32_t>(shared.fd);
  const auto byte = static_cast<uint8_t*>(shared.address);
  *byte = 5;
  char uri[256];
  parlo_session_effective_domain record{"cdsp", 4, second.id, 0};
  EXPECT_EQ(
      in_child([&] {
        int n = 0;
        for (const int status : {first.invoke(self_test, {1, fd}), second.invoke(acquire), first.map(shared),
                                 first.unmap(shared), first.close(), second.close(), second.get_uri(uri, sizeof uri),
                                 second.allow_unsigned(), control(PARLO_SESSION_EFFECTIVE_DOMAIN, record)})
          if (++n, status != PARLO_EMULATOR_INHERITED) return n;
        if (alive() != Alive{1, page, 0, 0, 0}) return 20;
        *byte = 77;  // in pages of its own
        Session own;
        if (own.open() != 0) return 21;
        if (own.map(shared) != PARLO_EMULATOR_INHERITED) return 22;
        const Shared mine = allocate(page);
        if (own.map(mine) + own.invoke(self_test, {1, static_cast<uint32_t>(mine.fd)}) != 0) return 23;
        if (own.invoke(self_test, {1, fd}) != PARLO_EMULATOR_DSP_NOT_MAPPED) return 24;
        if (Session other; other.reserve() != 0 || other.id == second.id) return 25;
        parlo_emulator_reset();
        return 0;
      }),
      0);
  EXPECT_EQ(first.invoke(self_test, {1, fd}), 0);
  EXPECT_EQ(*byte, 6);
  EXPECT_EQ(in_child([&] {
              parlo_emulator_take_over();
              Session more;
              if (more.open() + more.invoke(self_test, {0, fd}) + more.close() != 0) return 99;
              return first.invoke(self_test, {1, fd}) + second.close() + first.unmap(shared) + first.close();
            }),
            0);
  EXPECT_EQ(*byte, 7);
  EXPECT_EQ(first.invoke(self_test, {1, fd}), 0);
  EXPECT_EQ(second.invoke(acquire), 0);
}

TEST_F(Emulator, FreeingWhatIsNotThereIsReportedAndCounted) {
  const Shared shared = allocate(page);
  testing::internal::CaptureStderr();
  parlo_mem_free(nullptr);
  parlo_mem_free(static_cast<char*>(shared.address) + 1);
  parlo_mem_free(shared.address);
  EXPECT_EQ(usage().n_foreign_frees, 1u);
  EXPECT_EQ(usage().n_double_frees, 0u);
  errno = 0;
  parlo_mem_free(shared.address);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(usage().n_double_frees, 1u);
  char lines[200];
  snprintf(lines, sizeof lines,
           "[parlo] parlo_mem_free(address=%p): no shared buffer starts there\n"
           "[parlo] parlo_mem_free(address=%p): freed twice\n",
           static_cast<void*>(static_cast<char*>(shared.address) + 1), shared.address);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), lines);
  parlo_emulator_call call;
  ASSERT_EQ(parlo_emulator_trace_get(parlo_emulator_trace_length() - 1, &call), 0);
  EXPECT_EQ(call.result, PARLO_EMULATOR_DOUBLE_FREE);
  parlo_mem_free(allocate(page).address);  // of the same address, mostly
  EXPECT_EQ(usage().n_double_frees, 1u);
  parlo_emulator_reset();
}

void arm(int fault_class, int operation, uint32_t nth, int status = 0, int error = 0, int method = -1) {
  const parlo_emulator_fault fault = {fault_class, operation, method, nth, status, error};
  parlo_emulator_arm(&fault);
}

TEST_F(Emulator, FaultsStrikeFromThenOn) {
  open_first();
  arm(PARLO_EMULATOR_FAULT_FROM_THEN_ON, PARLO_EMULATOR_ANY_OPERATION, 2, 0x99, EIO);
  EXPECT_EQ(first.invoke(acquire), 0);
  EXPECT_EQ(first.invoke(acquire), 0x99);
  EXPECT_EQ(parlo_mem_to_fd(nullptr), -1);
  EXPECT_EQ(first.close(), 0x99);
  EXPECT_EQ(parlo_emulator_faults_fired(), 3u);
  parlo_emulator_clear_fault();
  EXPECT_EQ(first.close(), 0);
}

TEST_F(Emulator, TruncatedRepliesAreWrittenInPart) {
  open_first();
  const Shared shared = allocate(page);
  auto* const bytes = static_cast<uint8_t*>(shared.address);
  EXPECT_EQ(first.map(shared), 0);
  arm(PARLO_EMULATOR_FAULT_TRUNCATED_REPLY, PARLO_EMULATOR_ANY_OPERATION, 2, 0x55, EIO);
  const auto test = [&] { return first.invoke(self_test, {9, static_cast<uint32_t>(shared.fd)}); };
  EXPECT_EQ(test() + first.invoke(acquire), 0);
  EXPECT_EQ(test(), 0x55);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(std::string(bytes, bytes + 10), std::string("\2\2\2\2\1\1\1\1\1\0", 10));

  uint32_t label_length = 6, numbers[4] = {7, 7, 7, 7};
  char label[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
  parlo_argument version[] = {{&label_length, 4}, {numbers, 16}, {label, 6}};
  arm(PARLO_EMULATOR_FAULT_TRUNCATED_REPLY, PARLO_EMULATOR_HANDLE_INVOKE, 1, 0, 0, 22);
  EXPECT_EQ(parlo_handle_invoke(first.handle, PARLO_SCALARS(22, 1, 2), version), 0);
  EXPECT_EQ(std::vector(numbers, numbers + 4), (std::vector<uint32_t>{1, 0, 7, 7}));
  EXPECT_EQ(std::string(label, 6), "betxxx");

  // Of 192 rows the middle is 96, rounded down to 64.
  const Shared A = allocate(192 * 32 * 4), X = allocate(192 * 32), W = allocate(32 * 32);
  EXPECT_EQ(first.map(A) + first.map(X) + first.map(W) + first.invoke(acquire) + first.invoke(lock_unit), 0);
  std::memset(A.address, 0x33, A.size);
  std::vector<uint32_t> words = {192, 32, 32};
  for (const Shared& s : {A, X, W}) words.push_back(static_cast<uint32_t>(s.fd));
  words.resize(9);
  arm(PARLO_EMULATOR_FAULT_TRUNCATED_REPLY, PARLO_EMULATOR_HANDLE_INVOKE, 1);
  EXPECT_EQ(first.invoke(14, words), 0);
  const auto* const results = static_cast<uint8_t*>(A.address);
  EXPECT_EQ(std::count(results, results + A.size, 0), 64 * 32 * 4);
  EXPECT_EQ(results[64 * 32 * 4], 0x33);
}

TEST_F(Emulator, LostSessionsAnswerNothingButTheirClosing) {
  open_first();
  open_second();
  const Shared shared = allocate(page);
  EXPECT_EQ(first.map(shared) + second.map(shared), 0);
  arm(PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_ANY_OPERATION, 2, 0x55);
  EXPECT_NE(parlo_mem_to_fd(shared.address), -1);
  EXPECT_EQ(second.invoke(acquire), 0);
  EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(errno, ECONNRESET);
  EXPECT_EQ(first.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(first.map(shared), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(first.unmap(shared), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(alive(), (Alive{1, page, 2, 2, 1}));
  const Session lost = first;
  open_first();
  EXPECT_EQ(first.map(shared) + first.invoke(acquire) + first.unmap(shared), 0);
  EXPECT_EQ(lost.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(lost.close() + first.close(), 0);
  EXPECT_EQ(lost.close(), PARLO_EMULATOR_BAD_HANDLE);

  arm(PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_MUNMAP, 1);
  EXPECT_EQ(second.unmap(shared), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.close(), 0);
  open_second();
  arm(PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_HANDLE_CLOSE, 1);
  EXPECT_EQ(second.close(), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.allow_unsigned(), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.map(shared), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.close(), 0);
  arm(PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_SESSION_CONTROL, 1);
  ASSERT_EQ(second.reserve(), 0);
  EXPECT_EQ(second.allow_unsigned(), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(second.allow_unsigned(), PARLO_EMULATOR_UNSUPPORTED_DOMAIN);
  EXPECT_EQ(alive(), (Alive{1, page, 0, 0, 0}));
  ASSERT_EQ(second.reserve(), 0);
  arm(PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_HANDLE_OPEN, 1);
  EXPECT_EQ(second.open(), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(usage().n_sessions, 0u);
}

TEST_F(Emulator, FaultsStrikeTheChosenCall) {
  open_first();
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_INVOKE, clear_cache, 2, 0x123, EIO);
  EXPECT_EQ(first.invoke(clear_cache) + first.invoke(acquire), 0);
  EXPECT_EQ(first.invoke(clear_cache), 0x123);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(first.invoke(clear_cache), 0);
  EXPECT_EQ(parlo_emulator_faults_fired(), 1u);

  parlo_emulator_fail(PARLO_EMULATOR_ANY_OPERATION, -1, 0, 5, ENOMEM);
  parlo_mem_free(nullptr);
  EXPECT_EQ(parlo_mem_alloc(25, 1, 4096), nullptr);
  EXPECT_EQ(parlo_mem_to_fd(nullptr), -1);
  EXPECT_EQ(first.invoke(release), 5);
  EXPECT_EQ(parlo_emulator_faults_fired(), 3u);
  parlo_emulator_clear_fault();
  EXPECT_EQ(first.invoke(release) + first.close(), 0);
}

TEST_F(Emulator, TraceTellsEveryCall) {
  setenv("PARLO_TRACE", "1", 1);
  parlo_emulator_reset();
  testing::internal::CaptureStderr();
  open_first();
  const Shared shared = allocate(page);
  EXPECT_EQ(first.map(shared), 0);
  EXPECT_EQ(first.invoke(self_test, {1, 999}), PARLO_EMULATOR_DSP_NOT_MAPPED);
  platform_debug_log(3, "build/tavik_stub", 453, "ERROR 0x%x\n", 7);
  platform_debug_log(2, "build/tavik_stub", 453, "not asked for");
  const std::string printed = testing::internal::GetCapturedStderr();
  unsetenv("PARLO_TRACE");

  const auto fd = static_cast<uint64_t>(shared.fd), address = reinterpret_cast<uint64_t>(shared.address);
  const std::tuple<int, int, int, std::vector<uint64_t>, std::string> expected[] = {
      {PARLO_EMULATOR_SESSION_CONTROL, 0, -1, {PARLO_SESSION_GET_URI, 0, session_0_uri.size()}, session_0_uri},
      {PARLO_EMULATOR_SESSION_CONTROL, 0, -1, {PARLO_SESSION_UNSIGNED_MODULE, 3, 1}, ""},
      {PARLO_EMULATOR_HANDLE_OPEN, 0, -1, {first.handle}, session_0_uri},
      {PARLO_EMULATOR_MEM_ALLOC2, 0, -1, {25, 1, page, address}, ""},
      {PARLO_EMULATOR_MEM_TO_FD, shared.fd, -1, {address}, ""},
      {PARLO_EMULATOR_MMAP, 0, -1, {3, fd, address, 0, page, 2}, ""},
      {PARLO_EMULATOR_HANDLE_INVOKE, PARLO_EMULATOR_DSP_NOT_MAPPED, 13, {first.handle, 0x0d010000, 1, 999}, ""},
      {PARLO_EMULATOR_DEBUG_LOG, 0, -1, {3, 453}, "ERROR 0x7\n"}};
  ASSERT_EQ(parlo_emulator_trace_length(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    parlo_emulator_call call;
    ASSERT_EQ(parlo_emulator_trace_get(i, &call), 0);
    const std::vector arguments(call.arguments, call.arguments + call.n_arguments);
    EXPECT_EQ(std::tuple(call.operation, call.result, call.method, arguments, std::string(call.text)), expected[i]);
  }
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 8);
  EXPECT_NE(printed.find("veyra_test(size=1, v_fd=999)) = 0x401"), printed.npos) << printed;
  EXPECT_NE(printed.find("build/tavik_stub:453: ERROR 0x7\n"), printed.npos);
}

// Every allocation of each entry fails in turn: the entry says so and changes nothing, and the next try succeeds.
TEST_F(Emulator, MemoryThatRunsOutIsAStatus) {
  Shared A{}, X{};
  const auto allocation = [](Shared& s, uint64_t size) {
    return [&s, size] {
      s = {parlo_mem_alloc2(25, 1, size), -1, size};
      if (!s.address) return errno == ENOMEM ? PARLO_EMULATOR_NO_MEMORY : -1;
      s.fd = parlo_mem_to_fd(s.address);
      std::memset(s.address, 1, size);  // rows of zeros would not be worth a second thread
      return 0;
    };
  };
  // Of n_row x 256 = (n_row x 256) * (256 x 256), without an allocation of the test's own.
  const auto invoke = [&](uint32_t method, std::array<Shared, 4> buffers, uint32_t n_row) {
    uint32_t words[9] = {n_row, 256, 256};
    for (size_t i = 0; i < 4; ++i) words[n_row == 0 ? i : 3 + i] = static_cast<uint32_t>(buffers[i].fd);
    if (n_row != 0) words[6] = 0;
    parlo_argument argument{words, n_row == 0 ? 16u : sizeof words};
    return parlo_handle_invoke(first.handle, PARLO_SCALARS(method, 1, 0), &argument);
  };
  const char* const file = "a source file whose name is long enough for the heap";
  const std::pair<const char*, std::function<int()>> entries[] = {
      {"open", [&] { return first.open(); }},
      {"allocate", allocation(A, 256 * 256 * 2)},
      {"allocate another", allocation(X, 256 * 256 * 2)},
      {"reserve", [&] { return second.reserve(); }},
      {"open reserved", [&] { return second.open(); }},
      {"open the first again", [&] { return Session().open(); }},
      {"map", [&] { return first.map(A); }},
      {"map another", [&] { return first.map(X); }},
      {"get_AX",
       [&] {
         return invoke(get_AX, {A, A, A, X}, 0);
       }},
      {"lock", [&] { return first.invoke(acquire) | first.invoke(lock_unit); }},
      {"product on two threads",
       [&] {
         return invoke(9, {A, X, X}, 256);
       }},
      {"product aside",
       [&] {
         return invoke(9, {X, X, X}, 32);
       }},
      {"choose lines", [&] { return platform_debug_log_configure(4, &file, 1); }},
      {"log", [&] { return platform_debug_log(3, file, 1, "line"), 0; }},
      {"unmap", [&] { return first.unmap(X); }},
      {"close", [&] { return first.close() | second.close(); }},
      {"free", [&] { return parlo_mem_free(A.address), parlo_mem_free(X.address), 0; }},
  };
  for (int i = 0; i < 1025; ++i) parlo_mem_free(nullptr);  // the trace has room
  for (const auto& [name, entry] : entries) {
    uint64_t n_failed = 1;
    for (uint64_t nth = 1; n_failed != 0; ++nth) {
      SCOPED_TRACE(name + std::string(", allocation ") + std::to_string(nth));
      const auto before = alive();
      allocation_shim_fail(nth, nth % 2 == 0);
      const int status = entry();
      n_failed = allocation_shim_failed();
      allocation_shim_fail(0, false);
      EXPECT_EQ(status, status == 0 ? 0 : PARLO_EMULATOR_NO_MEMORY);
      if (n_failed == 0) {
        EXPECT_EQ(status, 0);
      }
      if (status != 0) {
        EXPECT_EQ(alive(), before);
      }
      ASSERT_LT(nth, 100u);
    }
  }

  setenv("PARLO_TRACE", "1", 1);
  parlo_emulator_reset();
  unsetenv("PARLO_TRACE");
  testing::internal::CaptureStderr();
  for (uint64_t nth = 1; nth < 10; ++nth) {
    allocation_shim_fail(nth, true);
    first.open(), parlo_mem_free(nullptr);
    allocation_shim_fail(0, false);
  }
  testing::internal::GetCapturedStderr();
}

TEST_F(Emulator, TraceForgetsTheOldest) {
  for (int i = 0; i < PARLO_EMULATOR_TRACE_CAPACITY + 1; ++i) parlo_mem_free(nullptr);
  parlo_emulator_call call;
  EXPECT_EQ(parlo_emulator_trace_get(0, &call), -1);
  EXPECT_EQ(parlo_emulator_trace_get(1, &call), 0);
  EXPECT_EQ(parlo_emulator_trace_get(PARLO_EMULATOR_TRACE_CAPACITY, &call), 0);
}

TEST_F(Emulator, DebugLogPrintsWhatWasChosen) {
  const char* files[] = {"build/tavik_stub"};
  EXPECT_EQ(platform_debug_log_configure(1u << 1, files, 1), 0);
  testing::internal::CaptureStderr();
  platform_debug_log(1, files[0], 1, "chosen");
  platform_debug_log(2, files[0], 1, "other level");
  platform_debug_log(1, "other", 1, "other file");
  platform_debug_log(3, files[0], 1, "error, traced only");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "[parlo] level 1, build/tavik_stub:1: chosen\n");
  EXPECT_EQ(parlo_emulator_trace_length(), 2u);
}

}  // namespace
