// Every call that allocates, maps or calls the DSP is played once for each of its platform calls, which fails: once,
// from then on, with a truncated reply, or because its session is lost; and once for each piece of host memory that it
// asks for in vain. Whatever fails, the status says so, nothing is lost or freed twice, what the caller still holds can
// be released, and a new context computes as if nothing had been.
#include <fnmatch.h>
#include <sys/mman.h>

#include <array>
#include <functional>

#include "include/dsp_capability.h"
#include "platform/parlo.h"
#include "tests/allocation_shim.h"
#include "tests/products.h"
#include "tests/upper.h"
#ifdef MORUN_WITH_WEIGHTS
#  include "tests/weight_files.h"
#endif

namespace {

using test::held, test::Held, test::last_error;

constexpr uint64_t large = 1 << 20;
constexpr int32_t injected = 0x77;

// ---- What differs from the rule that a failure leaves everything as it was

struct Exception {
  const char* where;                     // "scenario, class, call that failed"
  bool succeeds = false;                 // the call makes the failure good
  bool takes_back = false;               // some of what was there may be gone
  uint64_t n_buffer = 0, n_session = 0;  // that may be there in addition
  bool stays = false;                    // what is there in addition cannot be given back before the process ends
  bool by_hand = false;                  // a cleanup cannot end what is half mapped or lost
};
const Exception exceptions[] = {
    // A session that refuses a buffer is passed over; another one is opened for it, and stays.
    {"@(AllocIn*|UpperAlloc), *, parlo_mmap", true, false, 1, 1},
    {"@(AllocInNewSession|UpperAlloc|UpperF16F16|Tensor*), *", false, false, 0, 1},
    {"@(UpperF16F16|Tensor*), *, parlo_@(handle_invoke 2|munmap)", false, false, 1, 0},
    {"@(UpperF16F16|Tensor*), from then on, *", false, false, 3, 1},
    {"@(Hello|UpperU8I8|TensorP6), *", true},
    // When the DSP does not let go of a buffer of weights, the buffer stays in the context's table or in its handle.
    {"Load, *, parlo_mmap", true},
    {"Load, host memory, *", true},
    {"Load, *", false, false, 0, 1},
    {"Load, from then on, *", false, false, 1, 1},
    {"Release, *", false, true},
    // Stopping and unmapping end at the step that fails.
    {"@(Cleanup*|UpperFinalize), *", false, true},
    {"Unmap, *", false, true, 0, 0, false, true},
    // Mapping ends at the step that fails; what is mapped by then stays mapped.
    {"Map, *", false, true, 0, 1, false, true},
    // A lock that fails leaves the upper interface initialised.
    {"UpperInitialize, *, parlo_handle_invoke 7", false, false, 4, 1},
    // Without host memory, a conversion works without scratch memory, and the platform makes a call without its record.
    {"!(Load), host memory, *", true, false, 1, 1},
    // A session that is lost loses everything in it. Another session takes its place where one is opened for a buffer.
    {"*, lost, *", false, true, 3, 1},
    {"Tensor*, lost, parlo_mmap", true},
    // A session that a caller opened is not mapped yet.
    {"OpenSession, *", false, false, 0, 1, false, true},
    // A platform on which nothing works takes nothing back: a handle stays open.
    {"@(Init|UpperInitialize|OpenSession), from then on, *", false, false, 0, 1, true},
};

// ---- Scenarios

struct Runtime {
  Runtime() { fds.reserve(TAVIK_MAX_BUFFERS); }  // allocates no more under a fault
  tavik_context* context = nullptr;
  std::vector<int32_t> fds;
  void* memory = nullptr;  // shared, of no context
  int32_t memory_fd = -1;
  void* memory_of_upper = nullptr;
  char text[64];
#ifdef MORUN_WITH_WEIGHTS
  morun_weights_file* file = nullptr;
  morun_weights_loaded* loaded = nullptr;
#endif
};
using Step = std::function<int64_t(Runtime&)>;
#define STEP(statuses) [](Runtime& r) -> int64_t { return (void)r, statuses; }
struct Scenario {
  std::string name;
  Step prepare;         // without faults
  Step run;             // under the fault
  bool reports = true;  // a failure is in the error record
  bool ends = false;    // a failure may end the process
  friend void PrintTo(const Scenario& s, std::ostream* stream) { *stream << s.name; }
};

// Returns 0 when all statuses are 0. They are computed in their order.
int64_t all(std::initializer_list<int64_t> statuses) {
  int64_t any = 0;
  for (const int64_t status : statuses) any |= status;
  return any;
}

int64_t start(Runtime& r) {
  const tavik_options options = {1 << 16, 256, 1 << 16, 0};
  return tavik_init(&options, &r.context);
}
int64_t allocate(Runtime& r) {
  void* pointer = &pointer;
  int32_t fd = 77;
  const int32_t status = tavik_buffer_alloc(r.context, large, &pointer, &fd);
  EXPECT_EQ(pointer == nullptr, status != 0);
  EXPECT_EQ(fd == -1, status != 0);
  if (status == 0) r.fds.push_back(fd);
  return status;
}
int64_t release(Runtime& r) {
  const int32_t status = tavik_buffer_free(r.context, r.fds.back());
  if (status == 0) r.fds.pop_back();
  return status;
}
int64_t stop(Runtime& r) {
  const int32_t status = tavik_cleanup(r.context);
  if (status == 0) r.context = nullptr;
  return status;
}
const auto nothing = STEP(0);
const auto one_buffer = STEP(all({start(r), allocate(r)}));
const auto two_sessions = STEP(all({one_buffer(r), allocate(r)}));
const auto locked = STEP(all({two_sessions(r), tavik_lock_compute_device(r.context)}));
const auto emptied = STEP(all({locked(r), release(r), release(r)}));
// A third session that could not be opened is left reserved.
int64_t reserved_third(Runtime& r) {
  const int64_t status = locked(r);
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_OPEN, -1, 1, injected, EIO);
  if (allocate(r) == 0) return -1;
  parlo_emulator_fail(PARLO_EMULATOR_HANDLE_OPEN, -1, ~0u, 0, 0);  // counts its firing anew
  parlo_emulator_clear_fault();
  return all({status, release(r), release(r)});
}
int64_t switch_to_second(Runtime& r) {
  uint64_t handle;
  return tavik_context_get_handle_from_fd(r.context, r.fds[1], &handle);
}
const auto shared_memory =
    STEP(all({start(r), tavik_rpcmem_alloc(&r.memory, 4096), tavik_rpcmem_to_fd(&r.memory_fd, r.memory)}));
const auto mapped_memory = STEP(all({shared_memory(r), tavik_rpcmem_mmap(r.memory_fd, r.memory, 4096)}));

// Products of 64 x 32 elements.
constexpr int32_t m = 64, n = 32, k = 32;
float A[3][64 * 32];
alignas(64) float X[64 * 32];
uint32_t weights(const Runtime& r, int i) {
  return static_cast<uint32_t>(r.fds[i == 0 ? 0 : 1]);
}
// All weights are in the second session, or the first weights alone are in the first session.
Step product(products::Kind kind, size_t count, bool in_one_session) {
  return [=](Runtime& r) -> int64_t {
    std::array<products::WeightPlace, 3> w;
    w.fill({weights(r, 1), 0, 4096, 5120, 6144});
    if (!in_one_session) w[0].fd = weights(r, 0);
    return products::multiply(r.context, kind, {m, n, n, k, {A[0], A[1], A[2]}, X}, {w.data(), count});
  };
}

// The upper interface keeps its context itself; what it leaves is released by the lower one.
const auto upper = STEP(morun_npu_initialize(3));
const auto upper_unlocked = STEP(all({upper(r), morun_npu_unlock_tessel(3)}));
const auto upper_buffer = STEP(all({upper(r), morun_npu_alloc(1 << 16, &r.memory_of_upper)}));
template <class T = uint16_t>
T* shared() {
  return static_cast<T*>(context->buffer_pointer[0]);
}
int64_t upper_finalize(Runtime&) {
  const int32_t status = morun_npu_finalize(3);
  if (status == 0) context = nullptr;
  return status;
}
template <class T>
T* operand(float* matrix = X) {
  return reinterpret_cast<T*>(matrix);
}

#ifdef MORUN_WITH_WEIGHTS
// Opens a file of two matrices. The first session has room for the first matrix only.
int64_t weights_opened(Runtime& r) {
  const std::string path = testing::TempDir() + "/fault_sweep_test." + std::to_string(getpid());
  test::pack(path, "a f16 32 32 b f16 512 128");
  const int64_t status = all({one_buffer(r), morun_weights_file_open(path.c_str(), &r.file)});
  unlink(path.c_str());
  return status;
}
int64_t load_weights(Runtime& r) {
  const morun_weights_request requests[] = {{0, 0, 0}, {1, 0, 0}};
  const morun_weights_load_options options = {1 << 17, 0, 0};
  const int32_t status = morun_weights_load(r.file, r.context, 2, requests, &options, &r.loaded);
  EXPECT_EQ(r.loaded == nullptr, status != 0);
  return status;
}
const auto weights_loaded = STEP(all({weights_opened(r), load_weights(r)}));
int64_t release_weights(Runtime& r) {
  const int32_t status = morun_weights_release(r.loaded);
  if (status == 0) r.loaded = nullptr;
  return status;
}
void close_weights(Runtime& r) {
  morun_weights_file_close(std::exchange(r.file, nullptr));
}
#else
const auto release_weights = nothing;
void close_weights(Runtime&) {}
#endif

Scenario tensors(const char* name, const test::TensorFormats& formats, bool ends = false) {
  const auto run = [=](Runtime&) -> int64_t {
    const auto matrix = [&](uint64_t n_row, size_t i, void* data) {
      return morun_tensor_matrix(n_row, 32, formats.types[i], formats.layouts[i], data);
    };
    const morun_tensor left = matrix(64, 0, X), right = matrix(32, 1, shared()), result = matrix(64, 2, A[0]);
    return morun_mm_tensor(MORUN_PLATFORM_NPU0, &result, &left, &right);
  };
  return {name, upper_buffer, run, false, ends};
}

std::vector<Scenario> products_of_every_kind() {
  std::vector<Scenario> all;
  const char* const kinds[] = {"F16", "A8w8", "A8w4"};
  for (const products::Kind kind : products::kinds)
    for (const size_t count : {1, 2, 3})
      for (const bool in_one_session : {false, true}) {
        if (kind == products::a8w4 && count == 1 && in_one_session) continue;  // refused outside the first session
        all.push_back({kinds[kind] + std::to_string(count) + (in_one_session ? "InOneSession" : "InSessions"), locked,
                       product(kind, count, in_one_session)});
      }
  return all;
}

const Scenario scenarios[] = {
    {"Init", nothing, start},
    {"OpenSession", start, STEP(tavik_context_open_session(r.context))},
    {"Map", STEP(all({start(r), tavik_context_open_session(r.context)})),
     STEP(tavik_context_mmap_cross_session_buffers(r.context, 1))},
    {"Unmap", start, STEP(tavik_context_munmap_cross_session_buffers(r.context, 0))},
    {"AllocInOpenSession", start, allocate},
    {"AllocInNewSession", one_buffer, allocate},
    {"Free", two_sessions, release},
    {"SwitchLocked", locked, switch_to_second},
    {"SwitchUnlocked", two_sessions, switch_to_second},
    {"Lock", two_sessions, STEP(tavik_lock_compute_device(r.context)), false},
    {"Unlock", locked, STEP(tavik_unlock_compute_device(r.context)), false},
    {"Cleanup", emptied, stop},
    {"CleanupOfAReservation", reserved_third, stop},
    {"Hello", nothing, STEP(tavik_hello_veyra()), false, true},
    {"SelfTest", two_sessions, STEP(tavik_npu_test(r.context, 8, weights(r, 1)))},
    {"SharedMemory", start, STEP(tavik_rpcmem_alloc(&r.memory, 4096))},
    {"ClearedSharedMemory", start, STEP(tavik_rpcmem_alloc_zero(&r.memory, 4096))},
    {"Descriptor", shared_memory, STEP(tavik_rpcmem_to_fd(&r.memory_fd, r.memory))},
    {"MapMemory", shared_memory, STEP(tavik_rpcmem_mmap(r.memory_fd, r.memory, 4096))},
    {"UnmapMemory", mapped_memory, STEP(tavik_rpcmem_munmap(r.memory_fd, r.memory, 4096))},
    {"F16Tiles", locked,
     STEP(tavik_npu_mm_f16_ah_f16_ah_f16_wh(r.context, m, n, k, weights(r, 1), weights(r, 1), weights(r, 1), 0, 8192,
                                            16384))},
    {"IntegersOf8Bits", locked,
     STEP(tavik_veyra_1mm_ui8i8_i32_tessel(r.context, m, n, k, 0, 0, weights(r, 1), 0, 0, 0))},
    {"IntegersOf4Bits", locked,
     STEP(tavik_veyra_1mm_ui8i4_i32_tessel(r.context, m, n, k, 0, 0, weights(r, 1), 0, 0, 0))},
    {"UpperInitialize", nothing, upper, false},
    {"UpperFinalize", upper, upper_finalize, false},
    {"UpperUnlock", upper, STEP(morun_npu_unlock_tessel(3)), false},
    {"UpperLock", upper_unlocked, STEP(morun_npu_lock_tessel(3)), false},
    {"UpperAlloc", upper, STEP(morun_npu_alloc(8, &r.memory_of_upper)), false},
    {"UpperFree", upper_buffer, STEP(morun_npu_free(shared())), false},
    {"UpperVersion", upper, STEP(morun_npu_get_version(3, r.text)), false},
    {"UpperF16", upper_buffer, STEP(morun_npu_mm_f16(3, m, n, k, shared(), shared(), shared())), false},
    {"UpperF16F16", upper_buffer, STEP(morun_npu_mm_f16f16_f16(3, m, n, k, shared(), operand<uint16_t>(), shared())),
     false},
    {"UpperF32F16", upper_buffer, STEP(morun_npu_mm_f32f16_f32(3, m, n, k, A[0], X, shared())), false},
    {"UpperU8I8", upper_buffer,
     STEP(morun_npu_mm_u8i8_i32(3, m, n, k, operand<int32_t>(A[0]), operand<uint8_t>(), shared<int8_t>())), false,
     true},
    {"UpperU8I4", upper_buffer,
     STEP(morun_npu_mm_u8i4_i32(3, m, n, k, operand<int32_t>(A[0]), operand<uint8_t>(), shared<uint8_t>())), false,
     true},
#ifdef MORUN_WITH_WEIGHTS
    {"Load", weights_opened, load_weights, false},
    {"Release", weights_loaded, release_weights, false},
#endif
    tensors("TensorP1", test::paths::P1),
    tensors("TensorP2", test::paths::P2),
    tensors("TensorP3", test::paths::P3),
    tensors("TensorP4", test::paths::P4, true),
    tensors("TensorP5", test::paths::P5),
    tensors("TensorP6", test::paths::P6, true),
};

// ---- The sweep

struct FaultClass {
  const char* name;
  int32_t id;
};
constexpr int32_t host_memory = 100;
constexpr FaultClass fault_classes[] = {{"host memory", host_memory},
                                        {"once", PARLO_EMULATOR_FAULT_ONCE},
                                        {"from then on", PARLO_EMULATOR_FAULT_FROM_THEN_ON},
                                        {"truncated", PARLO_EMULATOR_FAULT_TRUNCATED_REPLY},
                                        {"lost", PARLO_EMULATOR_FAULT_SESSION_LOST}};

// The first call that did not succeed, by its name and, of an invocation, the number of its method.
std::string failed_call() {
  parlo_emulator_call call;
  for (size_t i = 0; parlo_emulator_trace_get(i, &call) == 0; ++i) {
    const bool gives_descriptor = call.operation == PARLO_EMULATOR_MEM_TO_FD;
    if (gives_descriptor ? call.result >= 0 : call.result == 0) continue;
    const std::string name = parlo_emulator_operation_name(call.operation);
    return call.method < 0 ? name : name + " " + std::to_string(call.method);
  }
  return "none";
}

// Whether the fault fired, in whichever process.
volatile bool& fired_flag() {
  static void* const page = mmap(nullptr, sizeof(bool), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return *static_cast<volatile bool*>(page);
}
void note_whether_fired() {
  fired_flag() = parlo_emulator_faults_fired() + allocation_shim_failed() != 0;
}

// In a process of its own: status 0, 1 where the process ended itself, or 3 for any other.
int64_t in_child(const std::function<void()>& arm, const Step& run, Runtime& r) {
  return test::status_of_child([&] {
    parlo_emulator_take_over();
    atexit([] {
      note_whether_fired();
      allocation_shim_fail(0, false);  // what measures coverage writes its counts at exit, and needs memory
    });
    arm();
    exit(run(r) == 0 ? 0 : 3);
    return 0;
  });
}

void start_afresh() {
  parlo_emulator_reset();
  std::fill(std::begin(morun_map_db), std::end(morun_map_db), morun_map_entry{});
  context = nullptr;
}

// Ends by hand what a cleanup cannot.
void salvage(Runtime& r) {
  for (uint64_t i = 0; i < r.context->n_buffers; ++i) tavik_rpcmem_free(r.context->buffer_pointer[i]);
  r.context->n_buffers = 0;
  EXPECT_EQ(release_weights(r), 0);
  for (uint64_t i = 0; i < r.context->n_sessions; ++i) tavik_close(r.context->session_handle[i]);
  tavik_context_free(std::exchange(r.context, nullptr));
}

// By the calls that a caller would use; a cleanup that fails may be tried again.
void release_everything(Runtime& r, bool by_hand) {
  tavik_rpcmem_free(r.memory);
  close_weights(r);
  if (r.context == nullptr) return;
  bool released = release_weights(r) == 0;
  r.fds.assign(r.context->buffer_fd, r.context->buffer_fd + r.context->n_buffers);
  while (released && !r.fds.empty()) released = release(r) == 0;
  released = released && (stop(r) == 0 || stop(r) == 0);
  EXPECT_TRUE(released || by_hand) << last_error();
  if (!released) salvage(r);
}

void expect_a_right_product() {
  Runtime r;
  ASSERT_EQ(one_buffer(r), 0) << last_error();
  std::fill_n(static_cast<uint16_t*>(r.context->buffer_pointer[0]), n * k, uint16_t{0x3c00});
  const std::vector<float> ones(m * k, 1);
  std::vector<float> result(m * n, -7);
  const products::WeightPlace w = {weights(r, 0), 0};
  ASSERT_EQ(products::multiply(r.context, products::f16, {m, n, n, k, {result.data()}, ones.data()}, {&w, 1}), 0u)
      << last_error();
  EXPECT_EQ(result, std::vector<float>(m * n, k));
  ASSERT_EQ(all({release(r), stop(r)}), 0) << last_error();
}

class FaultSweep : public testing::TestWithParam<Scenario> {
 protected:
  void TearDown() override { start_afresh(); }

  // False where there is no such call, so that the fault did not fire.
  bool play(const FaultClass& fault_class, uint32_t nth) {
    const Scenario& scenario = GetParam();
    start_afresh();
    fired_flag() = false;  // before a child shares the page, and before memory runs out
    const uint64_t n_descriptor = test::open_descriptors();
    Runtime r;
    const bool is_roomy = fnmatch("@(Upper*|Tensor*|Hello)", scenario.name.c_str(), FNM_EXTMATCH) == 0;
    test::configure([=](auto& config) { config.session_bytes = is_roomy ? 3ull << 30 : 2 * large; });
    const int64_t prepared = scenario.prepare(r);
    EXPECT_EQ(prepared, 0) << last_error();
    if (prepared != 0) return false;
    const Held before = held();
    tavik_set_error(0, "", "", 0, "%s", "");
    parlo_emulator_trace_clear();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto arm = [&] {
      const parlo_emulator_fault fault = {fault_class.id, PARLO_EMULATOR_ANY_OPERATION, -1, nth, injected, EIO};
      fault_class.id == host_memory ? allocation_shim_fail(nth, false) : parlo_emulator_arm(&fault);
    };
    if (!scenario.ends) arm();
    const int64_t status = scenario.ends ? in_child(arm, scenario.run, r) : scenario.run(r);
    if (!scenario.ends) note_whether_fired();
    allocation_shim_fail(0, false);
    testing::internal::GetCapturedStderr();
    testing::internal::GetCapturedStdout();
    const bool fired = fired_flag();
    parlo_emulator_clear_fault();
    const std::string where = scenario.name + ", " + fault_class.name + ", " + failed_call();
    SCOPED_TRACE(where);
    const Held after = held();

    Exception allowed = {""};
    for (const Exception& e : exceptions) {
      if (fnmatch(e.where, where.c_str(), FNM_EXTMATCH) != 0) continue;
      allowed.succeeds |= e.succeeds, allowed.takes_back |= e.takes_back, allowed.stays |= e.stays;
      allowed.by_hand |= e.by_hand;
      allowed.n_buffer = std::max(allowed.n_buffer, e.n_buffer);
      allowed.n_session = std::max(allowed.n_session, e.n_session);
    }
    if (!fired || !allowed.succeeds) {
      EXPECT_EQ(status != 0, fired) << last_error();
    }
    if (status != 0) expect_failure(scenario, status);
    if (status != 0) expect_as_before(before, after, allowed);

    if (context != nullptr) r.context = std::exchange(context, nullptr);
    release_everything(r, allowed.by_hand);
    if (!allowed.stays) {
      EXPECT_EQ(held(), (Held{0, n_descriptor, 0, 0, 0, 0}));
    }
    expect_a_right_product();
    EXPECT_EQ(test::usage().n_double_frees + test::usage().n_foreign_frees, 0u);
    return fired;
  }

 private:
  static void expect_failure(const Scenario& scenario, int64_t status) {
    if (scenario.ends) {
      EXPECT_TRUE(status == 1 || status == 3) << status;
    } else if (scenario.reports) {
      EXPECT_EQ(tavik_error_get_last()->code, status);
      EXPECT_NE(tavik_error_get_last()->message[0], '\0');
    }
  }
  static void expect_as_before(const Held& before, const Held& after, const Exception& allowed) {
    const auto& [n_buffer, n_session] = std::pair(allowed.n_buffer, allowed.n_session);
    // A session in a process of its own has two sockets.
    const uint64_t n_socket = parlo_emulator_get_carrier() == PARLO_EMULATOR_PROCESS ? 2 * n_session : 0;
    const Held more = {n_buffer,  n_buffer + n_socket,      n_session,
                       n_session, n_buffer + 4 * n_session, n_buffer == 0 ? 0 : 3ull << 30};
    for (size_t i = 0; i < more.size(); ++i) {
      EXPECT_LE(after[i], before[i] + more[i]) << test::held_names[i];
      EXPECT_TRUE(allowed.takes_back || after[i] >= before[i]) << test::held_names[i];
    }
  }
};

TEST_P(FaultSweep, EveryPlatformCallMayFail) {
  for (const FaultClass& fault_class : fault_classes) {
    uint32_t nth = 1;
    while (!HasFatalFailure() && play(fault_class, nth)) ++nth;
    // Every scenario makes a call, so these faults strike at least once. The other faults need a reply or a session,
    // which some scenarios do not have.
    if (fault_class.id == PARLO_EMULATOR_FAULT_ONCE || fault_class.id == PARLO_EMULATOR_FAULT_FROM_THEN_ON) {
      EXPECT_GT(nth, 1u);
    }
  }
}
const auto name_of = [](const auto& scenario) { return scenario.param.name; };
INSTANTIATE_TEST_SUITE_P(Of, FaultSweep, testing::ValuesIn(scenarios), name_of);
INSTANTIATE_TEST_SUITE_P(Products, FaultSweep, testing::ValuesIn(products_of_every_kind()), name_of);

}  // namespace
