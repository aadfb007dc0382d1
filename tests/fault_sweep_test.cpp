// Every platform call of each scenario fails in turn. Whatever fails, the status and the error record or the lines say
// so, nothing is lost or released twice, and what the caller still holds can be released as usual.
#include "tests/upper.h"

namespace {

using test::last_error;
using test::usage;

constexpr uint64_t buffer_bytes = 1 << 20;

// A context with one buffer in session 0, and what a scenario adds.
struct Runtime {
  tavik_context* context = nullptr;
  std::vector<int32_t> fds;
  std::vector<uint8_t> result = std::vector<uint8_t>(64 * 32 * 4, 0x55);
};

// What the upper interface makes of the failure of one of so many platform calls; nothing is said of the lower one.
struct Answer {
  uint32_t n_calls;
  std::string outcome = "";
  size_t n_buffers = 1;     // that are there then
  bool has_result = false;  // whether the result is written
  bool ends_process() const { return outcome.starts_with("exit"); }
};

struct Scenario {
  const char* name;
  std::function<void(Runtime&)> prepare;  // without faults
  std::function<int32_t(Runtime&)> run;   // under the fault
  std::vector<Answer> answers;            // one after the other
  bool is_lower() const { return answers[0].outcome.empty(); }
  const Answer* answer(uint32_t nth) const {
    for (const Answer& a : answers) {
      if (nth <= a.n_calls) return &a;
      nth -= a.n_calls;
    }
    return nullptr;
  }
  friend std::ostream& operator<<(std::ostream& stream, const Scenario& scenario) { return stream << scenario.name; }
};

int32_t run_init(Runtime& runtime) {
  const tavik_options options = {1 << 16, 256, 1 << 16, 0};
  return tavik_init(&options, &runtime.context);
}
int32_t run_alloc(Runtime& runtime) {
  void* pointer = &pointer;
  int32_t fd = 77;
  const int32_t status = tavik_buffer_alloc(runtime.context, buffer_bytes, &pointer, &fd);
  if (status == TAVIK_SUCCESS) runtime.fds.push_back(fd);
  EXPECT_EQ(pointer == nullptr, status != TAVIK_SUCCESS);
  EXPECT_EQ(fd == -1, status != TAVIK_SUCCESS);
  return status;
}
int32_t run_free(Runtime& runtime) {
  const int32_t status = tavik_buffer_free(runtime.context, runtime.fds.back());
  if (status == TAVIK_SUCCESS) runtime.fds.pop_back();
  return status;
}
int32_t run_switch(Runtime& runtime) {
  uint64_t handle;
  return tavik_context_get_handle_from_fd(runtime.context, runtime.fds.back(), &handle);
}
int32_t run_cleanup(Runtime& runtime) {
  const int32_t status = tavik_cleanup(runtime.context);
  if (status == TAVIK_SUCCESS) runtime.context = nullptr;
  return status;
}
void init(Runtime& runtime) {
  ASSERT_EQ(run_init(runtime), TAVIK_SUCCESS);
}
void init_and_alloc(Runtime& runtime) {
  init(runtime);
  ASSERT_EQ(run_alloc(runtime), TAVIK_SUCCESS);
}
void two_sessions(Runtime& runtime) {
  init_and_alloc(runtime);
  ASSERT_EQ(run_alloc(runtime), TAVIK_SUCCESS);
  ASSERT_EQ(runtime.context->n_sessions, 2u);
}
void two_sessions_locked(Runtime& runtime) {
  two_sessions(runtime);
  ASSERT_EQ(tavik_lock_compute_device(runtime.context), 0);
}
void two_sessions_without_buffers(Runtime& runtime) {
  two_sessions_locked(runtime);
  while (!runtime.fds.empty()) ASSERT_EQ(run_free(runtime), TAVIK_SUCCESS);
}

// ---- The upper interface, in its own context

template <auto call>
int32_t run_upper(Runtime&) {
  return call(3);
}
void upper_init(Runtime&) {
  ASSERT_EQ(morun_npu_initialize(3), 0);
}
void upper_init_and_unlock(Runtime& runtime) {
  upper_init(runtime);
  ASSERT_EQ(morun_npu_unlock_tessel(3), 0);
}
void upper_init_and_alloc(Runtime& runtime) {
  upper_init(runtime);
  void* pointer;
  ASSERT_EQ(morun_npu_alloc(64 * 32 * 4, &pointer), 0);
}
// What the upper interface still holds is released by the lower one.
void hand_over(Runtime& runtime) {
  tavik_context* const held = std::exchange(context, nullptr);
  if (usage().n_handles == 0) return;
  runtime.context = held;
  runtime.fds.assign(held->buffer_fd, held->buffer_fd + held->n_buffers);
}

int32_t run_version(Runtime& runtime) {
  return morun_npu_get_version(3, reinterpret_cast<char*>(runtime.result.data()));
}
uint16_t zeros[64 * 32 * 2];
int32_t run_f16f16(Runtime&) {
  auto* const shared = static_cast<uint16_t*>(context->buffer_pointer[0]);
  return morun_npu_mm_f16f16_f16(3, 64, 32, 32, shared, zeros, shared);
}
Scenario tensors(const char* name, const test::TensorFormats& formats, const std::vector<Answer>& answers) {
  const auto run = [=](Runtime& runtime) {
    const auto matrix = [&](uint64_t n_row, size_t i, void* data) {
      return morun_tensor_matrix(n_row, 32, formats.types[i], formats.layouts[i], data);
    };
    const morun_tensor X = matrix(64, 0, zeros), W = matrix(32, 1, context->buffer_pointer[0]),
                       A = matrix(64, 2, runtime.result.data());
    return morun_mm_tensor(MORUN_PLATFORM_NPU0, &A, &X, &W);
  };
  return {name, upper_init_and_alloc, run, answers};
}

const std::string started = "1 npu_initialize: Err = ", finalize = "1 npu_initialize.npu_finalize: Err = ",
                  lock = "1 npu_lock_tessel: Err = 119", unlock = "1 npu_lock_tessel.npu_unlock_tessel: Err = 119",
                  version = "119 npu_get_version: Get NPU ",
                  tensor = "tensor.mm_tensor: ", f16f16 = "npu_mm_f16f16_f16: ", alloc = "npu_alloc: Err = 1\n",
                  free_failed = "1 npu_alloc.npu_free: Err = 1", f16 = "1 npu_mm_f16: Err = 1\n";
Answer allocation(const std::string& name, const std::string& call = tensor) {
  return {2, "1 " + alloc + call + "Internal allocation of " + name + " failed\n"};
}
Answer ending_product(const std::string& bits, const std::string& dimensions) {
  const std::string call = "morun_npu_mm_u8i" + bits + "_i32", lower = "tavik_veyra_1mm_ui8i" + bits + "_i32_tessel",
                    remote = "tavik_veyra_1mm_a8w" + bits + "(handle, n_row, n_col, n_inner, W_fd, W_offset)";
  return {1, "exit 1 [Tavik] error 1 (" + lower + ", source/host/kernels):\n          Input/output error in " + remote +
                 " != KESO_SUCCESS\n[Tavik] error (" + call + ", source/morun_npu_macro/" + call + "): " + lower +
                 "(context, " + dimensions + ", A_fd, X_fd, W_fd, 0, 0, 0)"};
}
// A buffer that its session refuses goes to another one, where the product cannot be.
const Answer refused = {1, f16 + tensor + "Internal matmul failed\n"}, err_1 = {1, "1 " + tensor + "Err = 1"},
             internal = {2, f16 + f16f16 + "Internal morun_npu_mm_f16 call failed\n"},
             nErr_0 = {2, "exit 1 " + alloc + "npu_mm_u8i8_i32:  nErr = 0"};
const std::vector<Answer> copies = {allocation("A"), refused, allocation("W"), refused,
                                    allocation("X"), refused, refused,         {6, free_failed, 2, true}};

class FaultSweep : public testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    test::UpperTest::start_afresh();
    if (GetParam().is_lower())  // room for one buffer beside A and X
      test::configure([](auto& config) { config.session_bytes = 2 * buffer_bytes; });
    descriptors_ = test::open_descriptors();
  }
  void TearDown() override { parlo_emulator_reset(); }
  size_t descriptors_ = 0;
};

// The fault has gone away: everything still held is released by the calls that a caller would use.
void release_everything(Runtime& runtime) {
  if (runtime.context == nullptr) return;
  while (!runtime.fds.empty()) ASSERT_EQ(run_free(runtime), TAVIK_SUCCESS) << last_error();
  if (run_cleanup(runtime) == TAVIK_SUCCESS) return;
  // A cleanup that was cut short cannot be taken up again; its memory still goes.
  tavik_context_free(runtime.context);
}

TEST_P(FaultSweep, EveryPlatformCallMayFail) {
  const Scenario& scenario = GetParam();
  for (uint32_t nth = 1;; ++nth) {
    SCOPED_TRACE("platform call " + std::to_string(nth));
    Runtime runtime;
    scenario.prepare(runtime);
    const parlo_emulator_usage before = usage();
    const size_t n_buffers = runtime.fds.size();
    tavik_set_error(0, "", "", 0, "%s", "");
    parlo_emulator_fail(PARLO_EMULATOR_ANY_OPERATION, -1, nth, 0x77, EIO);
    int32_t status = -1;
    const auto run = [&] { return status = scenario.run(runtime); };
    const Answer* const answer = scenario.answer(nth);
    const bool is_lower = scenario.is_lower(), ends = answer != nullptr && answer->ends_process();
    const std::string outcome = ends ? test::ending(run) : test::outcome(run);
    const bool fired = ends || parlo_emulator_faults_fired() != 0;
    parlo_emulator_clear_fault();
    EXPECT_EQ(fired, answer != nullptr);
    if (!is_lower) hand_over(runtime);
    if (is_lower || !fired) {
      EXPECT_EQ(outcome, std::to_string(status));  // nothing is printed
    } else {
      EXPECT_EQ(outcome, answer->outcome);
      EXPECT_EQ(runtime.fds.size(), answer->n_buffers);
      EXPECT_EQ(runtime.result != Runtime().result, answer->has_result);
    }

    // A session that refuses a buffer is passed over: that fault alone is made good, by another session.
    const bool made_good = is_lower && fired && status == TAVIK_SUCCESS;
    if (made_good) {
      EXPECT_EQ(runtime.fds.size(), n_buffers + 1);
    }
    if (is_lower && fired && !made_good) {
      EXPECT_EQ(tavik_error_get_last()->code, status);
      EXPECT_NE(tavik_error_get_last()->message[0], '\0');
      EXPECT_EQ(runtime.fds.size(), n_buffers);
      EXPECT_EQ(usage().n_allocations, before.n_allocations);
      EXPECT_EQ(usage().n_bytes, before.n_bytes);
      EXPECT_LE(usage().n_mappings,
                before.n_mappings + 4);  // a session that stays open keeps its cross-session buffers
    }
    if (!fired) {
      EXPECT_EQ(status, TAVIK_SUCCESS);
    }

    const bool was_cleanup = std::string(scenario.name) == "Cleanup";
    release_everything(runtime);
    EXPECT_EQ(usage().n_allocations, 0u);
    EXPECT_EQ(test::open_descriptors(), descriptors_);
    if (!was_cleanup || !fired) {
      EXPECT_EQ(usage().n_mappings, 0u);
      EXPECT_EQ(usage().n_handles, 0u);
    }
    SetUp();
    if (!fired) return;
  }
}

using S = Scenario;
const auto name_of = [](const auto& scenario) { return std::string(scenario.param.name); };
INSTANTIATE_TEST_SUITE_P(Lower, FaultSweep,
                         testing::Values(S{"Init", [](Runtime&) {}, run_init, {{17}}},
                                         S{"AllocInOpenSession", init, run_alloc, {{3}}},
                                         S{"AllocInNewSession", init_and_alloc, run_alloc, {{13}}},
                                         S{"Free", init_and_alloc, run_free, {{2}}},
                                         S{"SwitchLocked", two_sessions_locked, run_switch, {{4}}},
                                         S{"SwitchUnlocked", two_sessions, run_switch, {{3}}},
                                         S{"Cleanup", two_sessions_without_buffers, run_cleanup, {{14}}}),
                         name_of);

const std::vector<Answer> of_init = {{4, started + "1", 0},
                                     {8, started + "3", 0},
                                     {5, started + "1", 0},
                                     {1, started + "119", 0}},
                          of_version = {{1, version + "version failed", 0}, {1, version + "arch failed\n", 0, true}},
                          of_P6 = {nErr_0,
                                   {1, "0", 1, true},
                                   ending_product("8", "n_row_64, n_col, n_inner"),
                                   {2, free_failed + "\n" + tensor + "Err = 1", 2, true}};
INSTANTIATE_TEST_SUITE_P(
    Upper, FaultSweep,
    testing::Values(
        S{"Init", [](Runtime&) {}, run_upper<morun_npu_initialize>, of_init},
        S{"Cleanup", upper_init, run_upper<morun_npu_finalize>, {{1, finalize + "119", 0}, {7, finalize + "1", 0}}},
        S{"Unlock", upper_init, run_upper<morun_npu_unlock_tessel>, {{1, unlock, 0}}},
        S{"Lock", upper_init_and_unlock, run_upper<morun_npu_lock_tessel>, {{1, lock, 0}}},
        S{"Version", upper_init, run_version, of_version},
        S{"F16F16", upper_init_and_alloc, run_f16f16, {allocation("X_parlo", f16f16), internal, {2, free_failed, 2}}},
        tensors("P1", test::paths::P1, {err_1}), tensors("P2", test::paths::P2, copies),
        tensors("P3", test::paths::P3,
                {allocation("A"), err_1, allocation("X_parlo"), err_1, err_1, {4, free_failed, 2, true}}),
        tensors("P4", test::paths::P4, {ending_product("4", "n_row_32, n_col_32, n_inner_32")}),
        tensors("P5", test::paths::P5, copies), tensors("P6", test::paths::P6, of_P6)),
    name_of);

}  // namespace
