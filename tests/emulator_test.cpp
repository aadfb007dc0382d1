// The emulated platform, call by call: what it refuses and with which status, and what it keeps apart. Most stands in
// tests/transcripts/Emulator*.txt.
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tests/allocation_shim.h"
#include "tests/emulator_session.h"
#include "tests/transcript.h"

namespace {

using namespace test;

// ---- Scripts

// The commands name sessions and shared buffers as they like. The name of a buffer stands for its descriptor.
class EmulatorScripts : public Transcript {
 protected:
  void SetUp() override {
    for (const auto& command : own_commands_)  // the trace tells their statuses
      commands_[command.first] = [&command](const Words& w) { return command.second(w), 0; };
    Transcript::SetUp();
  }
  uint64_t value(const std::string& word) override {
    const auto found = buffers_.find(word);
    return found != buffers_.end() ? static_cast<uint64_t>(found->second.fd) : Transcript::value(word);
  }

 private:
  char* address_of(const Words& words, size_t i) {
    char* const start = static_cast<char*>(buffers_.at(words[i]).address);
    if (i + 1 == words.size()) return start;
    know("inside", start + value(words[i + 1]));
    return start + value(words[i + 1]);
  }

  void allocate(const Words& words) {
    const uint64_t size = value(words[1]);
    void* const memory =
        words.size() > 2 ? parlo_mem_alloc(25, 1, static_cast<int>(size)) : parlo_mem_alloc2(25, 1, size);
    buffers_[words[0]] = {memory, memory == nullptr ? -1 : parlo_mem_to_fd(memory), size};
  }
  void tell_usage() {
    const parlo_emulator_usage u = usage();
    std::ostringstream told;
    told << u.n_allocations << " buffers of " << u.n_bytes << " bytes, " << u.n_sessions << " sessions, " << u.n_handles
         << " handles, " << u.n_mappings << " mappings; freed twice: " << u.n_double_frees
         << ", never there: " << u.n_foreign_frees << "; faults " << parlo_emulator_faults_fired();
    tell(told.str());
  }
  void tell_version(const Session& session) {
    uint32_t label_length = 6, numbers[4] = {7, 7, 7, 7};
    char label[7] = "xxxxxx";
    parlo_argument version[] = {{&label_length, 4}, {numbers, 16}, {label, 6}};
    parlo_handle_invoke(session.handle, PARLO_SCALARS(22, 1, 2), version);
    std::string told;
    for (const uint32_t number : numbers) told += std::to_string(number) + " ";
    tell(told + label);
  }
  void log(const Words& words) {
    const char* const file = words[1].c_str();
    if (words.size() == 2) platform_debug_log_configure(static_cast<uint32_t>(value(words[0])), &file, 1);
    if (words.size() == 3) platform_debug_log(static_cast<int>(value(words[0])), file, 1, "%s", words[2].c_str());
  }

  std::map<std::string, Session> sessions_;
  std::map<std::string, Shared> buffers_;
  char uri_[256] = "";
  const std::map<std::string, std::function<void(const Words&)>> own_commands_ = {
      {"reserve", [this](const Words& w) { return sessions_[w[0]].reserve(); }},
      {"open", [this](const Words& w) { return sessions_[w[0]].open(); }},
      {"open_uri",
       [this](const Words& w) {
         uint64_t handle = 77;
         parlo_handle_open(w[0].c_str(), &handle);
         tell(handle == 77 ? "no handle" : "a handle");
       }},
      {"close", [this](const Words& w) { return sessions_[w[0]].close(); }},
      {"allow", [this](const Words& w) { return sessions_[w[0]].allow_unsigned(w.size() == 1); }},
      {"in_domain", [this](const Words& w) { sessions_[w[0]].domain = static_cast<int>(value(w[1])); }},
      {"with_handle", [this](const Words& w) { sessions_[w[0]].handle = value(w[1]); }},
      {"uri", [this](const Words& w) { return sessions_[w[0]].get_uri(uri_, static_cast<uint32_t>(value(w[1]))); }},
      {"effective_domain",
       [this](const Words& w) {
         const char* const name = w.size() > 1 ? w[1].c_str() : "cdsp";
         parlo_session_effective_domain record{name, 4, static_cast<uint32_t>(value(w[0])), 0};
         return control(PARLO_SESSION_EFFECTIVE_DOMAIN, record);
       }},
      {"map", [this](const Words& w) { return sessions_[w[0]].map(buffers_.at(w[1])); }},
      {"unmap", [this](const Words& w) { return sessions_[w[0]].unmap(buffers_.at(w[1])); }},
      {"mmap",
       [this](const Words& w) {
         const Shared& shared = buffers_.at(w[0]);
         const auto v = values(w, 1);
         const auto fd = static_cast<int>(v[1]), offset = static_cast<int>(v[2]);
         return parlo_mmap(static_cast<int>(v[0]), fd, shared.address, offset, v[3], 2);
       }},
      {"munmap",
       [this](const Words& w) {
         const Shared& shared = buffers_.at(w[0]);
         return parlo_munmap(static_cast<int>(value(w[1])), shared.fd, shared.address, value(w[2]));
       }},
      {"call", [this](const Words& w) { return sessions_[w[0]].invoke(methods_.at(w[1]), values<uint32_t>(w, 2)); }},
      {"version", [this](const Words& w) { tell_version(sessions_[w[0]]); }},
      {"allocate", [this](const Words& w) { allocate(w); }},
      {"free", [this](const Words& w) { parlo_mem_free(w.empty() ? nullptr : address_of(w, 0)); }},
      {"descriptor", [this](const Words& w) { return parlo_mem_to_fd(w.empty() ? nullptr : address_of(w, 0)); }},
      {"fill", [this](const Words& w) { memset(address_of({w[0]}, 0), std::stoi(w[1]), buffers_.at(w[0]).size); }},
      {"bytes", [this](const Words& w) { tell_bytes(buffers_.at(w[0]).address, buffers_.at(w[0]).size); }},
      {"usage", [this](const Words&) { tell_usage(); }},
      {"log", [this](const Words& w) { log(w); }}};
  const std::map<std::string, uint32_t> methods_ = {{"clear_cache", clear_cache},
                                                    {"get_AX", get_AX},
                                                    {"put_AX", put_AX},
                                                    {"acquire", acquire},
                                                    {"release", release},
                                                    {"lock", lock_unit},
                                                    {"unlock", unlock_unit},
                                                    {"self_test", self_test},
                                                    {"mm_f16", 9},
                                                    {"1mm_f16", 10},
                                                    {"2mm_f16", 11},
                                                    {"3mm_f16", 12},
                                                    {"mm_a8w8", 14},
                                                    {"1mm_a8w8", 15},
                                                    {"2mm_a8w8", 16},
                                                    {"3mm_a8w8", 17},
                                                    {"mm_a8w4", 18},
                                                    {"1mm_a8w4", 19},
                                                    {"2mm_a8w4", 20},
                                                    {"3mm_a8w4", 21}};
};

TEST_P(EmulatorScripts, Plays) {
  play();
}
INSTANTIATE_TEST_SUITE_P(, EmulatorScripts,
                         testing::Values("EmulatorMemory", "EmulatorSessions", "EmulatorMatrixUnits", "EmulatorFaults",
                                         "EmulatorProducts"),
                         [](const auto& name) { return std::string(name.param); });

// ---- What a script cannot do

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

// The program's limit may be below the descriptors of shared buffers. The system's limit ends the buffers.
TEST_F(Emulator, ALowLimitOfDescriptorsIsRaisedAsFarAsTheSystemAllows) {
  const int lowest = dup(0);
  close(lowest);
  rlimit limit;
  getrlimit(RLIMIT_NOFILE, &limit);
  const std::tuple<int, int, int> cases[] = {{lowest, lowest, EMFILE}, {64, 100, EINVAL}};
  for (const auto& [few, wanted, error] : cases) {
    configure([&, from = wanted](auto& config) { config.lowest_descriptor = from; });
    const rlimit below = {static_cast<rlim_t>(few), limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &below);
    const Shared shared = allocate(page);
    EXPECT_EQ(shared.fd, wanted);
    parlo_mem_free(shared.address);
    EXPECT_EQ(status_of_child([&, all = few] {
                const rlimit last = {static_cast<rlim_t>(all), static_cast<rlim_t>(all)};
                setrlimit(RLIMIT_NOFILE, &last);
                return parlo_mem_alloc2(25, 1, page) == nullptr ? errno : 0;
              }),
              error);
  }
  setrlimit(RLIMIT_NOFILE, &limit);
}

// What the tool shows of a profile stands in ToolEmulator.txt.
TEST_F(Emulator, ProfilesRefuseRepetitionsAndEstimateABoard) {
  const std::string profiles = MORUN_TRANSCRIPTS "/../../platform/emulator/profiles/";
  EXPECT_EQ(parlo_emulator_estimated_seconds(), -1);
  setenv("PARLO_PROFILE", (profiles + "strict.json").c_str(), 1);
  parlo_emulator_reset();
  open_first();
  const std::pair<uint32_t, int> calls[] = {{release, PARLO_EMULATOR_DSP_REPEATED}, {acquire, 0},
                                            {acquire, PARLO_EMULATOR_DSP_REPEATED}, {release, 0},
                                            {release, PARLO_EMULATOR_DSP_REPEATED}, {acquire, 0}};
  for (const auto& [method, status] : calls) EXPECT_EQ(first.invoke(method), status);

  setenv("PARLO_PROFILE", (profiles + "small.json").c_str(), 1);
  parlo_emulator_reset();
  unsetenv("PARLO_PROFILE");
  EXPECT_EQ(parlo_handle_control(PARLO_CONTROL_CAPABILITY, nullptr, 0), PARLO_CAPABILITY_UNSUPPORTED);
  EXPECT_EQ(platform_debug_log_configure(1, nullptr, 0), PARLO_CAPABILITY_UNSUPPORTED);
  open_first();
  const Shared shared = allocate(8000);
  ASSERT_EQ(first.map(shared) | first.invoke(self_test, {8000, static_cast<uint32_t>(shared.fd)}), 0);
  // 150 us for the call, and 8000 bytes read and written at 8 GB/s.
  EXPECT_NEAR(parlo_emulator_estimated_seconds(), 150e-6 + 16000 / 8e9, 1e-12);
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
  for (const uint32_t method : {0u, 1u, 31u}) EXPECT_EQ(first.invoke(method), PARLO_EMULATOR_BAD_SCALARS);
}

// The exit status of the child is 0 when the child found nothing wrong.
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
      status_of_child([&] {
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
  EXPECT_EQ(status_of_child([&] {
              parlo_emulator_take_over();
              // A process that carries a session knows no copies of the session.
              if (first.process() != 0)
                return first.invoke(self_test, {1, fd}) + second.invoke(acquire) + second.close();
              Session more;
              if (more.open() + more.invoke(self_test, {0, fd}) + more.close() != 0) return 99;
              return first.invoke(self_test, {1, fd}) + second.close() + first.unmap(shared) + first.close();
            }),
            0);
  EXPECT_EQ(*byte, 7);
  EXPECT_EQ(first.invoke(self_test, {1, fd}), 0);
  EXPECT_EQ(second.invoke(acquire), 0);

  // Child and parent number the buffers that they allocate from now on alike.
  const pid_t child = fork();
  if (child == 0) {
    raise(SIGSTOP);
    parlo_mem_free(allocate(page).address);
    _exit(0);
  }
  waitpid(child, nullptr, WUNTRACED);
  const Shared later = allocate(page);
  EXPECT_EQ(first.map(later), 0);
  kill(child, SIGCONT);
  waitpid(child, nullptr, 0);
  Session more;
  EXPECT_EQ(more.open() | more.close(), 0);  // forgets the buffers that are freed
  EXPECT_EQ(first.invoke(self_test, {1, static_cast<uint32_t>(later.fd)}), 0);

  const parlo_emulator_fault death = {PARLO_EMULATOR_FAULT_SESSION_LOST, PARLO_EMULATOR_HANDLE_INVOKE, -1, 1, 0, 0};
  parlo_emulator_arm(&death);
  EXPECT_EQ(second.invoke(acquire), PARLO_EMULATOR_SESSION_LOST);
  EXPECT_EQ(status_of_child([&] { return second.close() == PARLO_EMULATOR_INHERITED ? 0 : 1; }), 0);
}

// The printed lines of calls, which are made of what the trace holds, stand in the transcripts.
TEST_F(Emulator, TraceHoldsCallsAndTheLinesThatAreAskedFor) {
  EXPECT_EQ(first.invoke(self_test, {1, 999}), PARLO_EMULATOR_BAD_HANDLE);
  platform_debug_log(3, "build/tavik_stub", 453, "ERROR 0x%x\n", 7);
  platform_debug_log(2, "build/tavik_stub", 453, "not asked for");
  const std::tuple<int, int, int, std::vector<uint64_t>, std::string> expected[] = {
      {PARLO_EMULATOR_HANDLE_INVOKE, PARLO_EMULATOR_BAD_HANDLE, 13, {0, 0x0d010000, 1, 999}, ""},
      {PARLO_EMULATOR_DEBUG_LOG, 0, -1, {3, 453}, "ERROR 0x7\n"}};
  ASSERT_EQ(parlo_emulator_trace_length(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    parlo_emulator_call call;
    ASSERT_EQ(parlo_emulator_trace_get(i, &call), 0);
    const std::vector arguments(call.arguments, call.arguments + call.n_arguments);
    EXPECT_EQ(std::tuple(call.operation, call.result, call.method, arguments, std::string(call.text)), expected[i]);
  }
}

// A timeline is cut where its process is killed, at the end of a page at the earliest, or where the disk is full.
TEST_F(Emulator, TimelinesConsistOfWholeEventsOfOneProcess) {
  const std::string name = testing::TempDir() + "timeline." + std::to_string(getpid());
  for (const std::string behind : {".%p", ""}) {
    const auto timeline = [&] { return file_contents(name + (behind.empty() ? "" : "." + std::to_string(getpid()))); };
    setenv("PARLO_TRACE", (name + behind).c_str(), 1);
    parlo_emulator_reset();
    const auto names_thread = [&] {
      parlo_mem_free(nullptr);
      return timeline().find("main thread") != std::string::npos;
    };
    EXPECT_TRUE(names_thread());
    const std::string before = timeline();
    EXPECT_EQ(status_of_child([&] { return names_thread() ? 0 : 1; }), 0);
    EXPECT_EQ(timeline(), before);
  }
  unsetenv("PARLO_TRACE");
  const auto ends_with_event = [&](size_t length) {
    const std::string text = file_contents(name).substr(0, length);
    return text[text.find_last_not_of(" ,\n")] == '}';
  };
  parlo_emulator_begin_span(std::string(page + 1000, 'x').c_str());
  parlo_emulator_end_span();
  for (size_t i = 1; i < 9; ++i) EXPECT_TRUE(ends_with_event(i * page)) << i;

  rlimit before;
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full = {file_contents(name).size() + 200, before.rlim_max};
  const auto handler = signal(SIGXFSZ, SIG_IGN);
  testing::internal::CaptureStderr();
  setrlimit(RLIMIT_FSIZE, &full);
  for (int i = 0; i < 9; ++i) parlo_mem_free(nullptr);
  setrlimit(RLIMIT_FSIZE, &before);
  signal(SIGXFSZ, handler);
  EXPECT_NE(testing::internal::GetCapturedStderr().find("the timeline ends: "), std::string::npos);
  EXPECT_TRUE(ends_with_event(full.rlim_cur));
  for (const auto& entry : std::filesystem::directory_iterator(testing::TempDir()))
    if (entry.path().native().starts_with(name)) std::filesystem::remove(entry);
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

// Requests that the library never makes.
TEST_F(Emulator, RefusesRequestsThatAreNone) {
  const int bad = PARLO_EMULATOR_BAD_ARGUMENT, no_domain = PARLO_EMULATOR_UNSUPPORTED_DOMAIN;
  char uri[64];
  parlo_session_reserve reserve = {"cdsp", 4, "", 0, 0, 0}, elsewhere = {"adsp", 4, "s", 1, 0, 0};
  parlo_session_uri no_module = {"cdsp", 4, 0, nullptr, 0, uri, sizeof uri}, unknown = {"xdsp", 4, 0, "m", 1, uri, 64};
  parlo_session_effective_domain nameless = {nullptr, 0, 0, 0}, nowhere = {"xdsp", 4, 0, 0};
  parlo_capability ninth = {9, PARLO_ATTRIBUTE_DOMAIN_SUPPORT, 7}, other = {3, 99, 7}, narrow = {3, 2, 7};
  const auto session = [](uint32_t request, auto* record) {
    return parlo_session_control(request, record, sizeof *record);
  };
  const auto capability = [](parlo_capability* record) { return parlo_handle_control(2, record, sizeof *record); };
  const std::tuple<const char*, int, int> cases[] = {
      {"a session without a name", session(PARLO_SESSION_RESERVE, &reserve), bad},
      {"a session on another domain", session(PARLO_SESSION_RESERVE, &elsewhere), no_domain},
      {"a URI of no module", session(PARLO_SESSION_GET_URI, &no_module), bad},
      {"a URI of no domain", session(PARLO_SESSION_GET_URI, &unknown), no_domain},
      {"a domain without a name", session(PARLO_SESSION_EFFECTIVE_DOMAIN, &nameless), bad},
      {"an unknown domain", session(PARLO_SESSION_EFFECTIVE_DOMAIN, &nowhere), no_domain},
      {"no record", parlo_session_control(PARLO_SESSION_RESERVE, nullptr, sizeof reserve), bad},
      {"a short record", parlo_session_control(PARLO_SESSION_RESERVE, &reserve, 4), bad},
      {"an unknown request", session(99, &reserve), bad},
      {"a capability of no domain", capability(&ninth), no_domain},
      {"an unknown capability", capability(&other), bad},
      {"vectors of 64 bytes", capability(&narrow), 0},
      {"no query", parlo_handle_control(2, nullptr, sizeof ninth), bad},
      {"an unknown query", parlo_handle_control(3, &ninth, sizeof ninth), bad},
      {"no request of the system", parlo_system_request(nullptr), bad},
      {"no URI", parlo_handle_open(nullptr, &first.handle), bad},
      {"no place for the handle", parlo_handle_open("", nullptr), bad},
      {"lines of no files", platform_debug_log_configure(4, nullptr, 1), bad}};
  for (const auto& [name, status, expected] : cases) EXPECT_EQ(status, expected) << name;
  EXPECT_EQ(narrow.capability, 0u);
}

TEST_F(Emulator, TraceForgetsTheOldest) {
  for (int i = 0; i < PARLO_EMULATOR_TRACE_CAPACITY; ++i) parlo_mem_free(nullptr);
  parlo_mem_to_fd(nullptr);
  parlo_mem_to_fd(nullptr);
  parlo_emulator_call call;
  EXPECT_EQ(parlo_emulator_trace_get(1, &call), -1);
  for (size_t i = 2; i < PARLO_EMULATOR_TRACE_CAPACITY + 2; ++i) {
    ASSERT_EQ(parlo_emulator_trace_get(i, &call), 0);
    const bool is_old = i < PARLO_EMULATOR_TRACE_CAPACITY;
    EXPECT_EQ(call.operation, is_old ? PARLO_EMULATOR_MEM_FREE : PARLO_EMULATOR_MEM_TO_FD) << i;
  }
}

}  // namespace
