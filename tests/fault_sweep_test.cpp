// Every platform call of each scenario fails in turn. Whatever fails, the status and the error record say so, nothing
// is lost or released twice, and what the caller still holds can be released as usual.
#include <functional>

#include "tests/support.h"

namespace {

using test::last_error;
using test::usage;

constexpr uint64_t buffer_bytes = 1 << 20;

// A context with one buffer in session 0, and what a scenario adds.
struct Runtime {
  tavik_context* context = nullptr;
  std::vector<int32_t> fds;
};

struct Scenario {
  const char* name;
  std::function<void(Runtime&)> prepare;  // without faults
  std::function<int32_t(Runtime&)> run;   // under the fault
  uint32_t n_calls;                       // platform calls that can fail
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

class FaultSweep : public testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    parlo_emulator_reset();
    test::configure(
        [](auto& config) { config.session_bytes = 2 * buffer_bytes; });  // room for one buffer beside A and X
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
    const int32_t status = scenario.run(runtime);
    const bool fired = parlo_emulator_faults_fired() != 0;
    parlo_emulator_clear_fault();

    // A session that refuses a buffer is passed over: that fault alone is made good, by another session.
    const bool made_good = fired && status == TAVIK_SUCCESS;
    if (made_good) {
      EXPECT_EQ(runtime.fds.size(), n_buffers + 1);
    }
    if (fired && !made_good) {
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
    if (!fired) {
      EXPECT_EQ(nth, scenario.n_calls + 1);
      return;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(, FaultSweep,
                         testing::Values(Scenario{"Init", [](Runtime&) {}, run_init, 17},
                                         Scenario{"AllocInOpenSession", init, run_alloc, 3},
                                         Scenario{"AllocInNewSession", init_and_alloc, run_alloc, 13},
                                         Scenario{"Free", init_and_alloc, run_free, 2},
                                         Scenario{"SwitchLocked", two_sessions_locked, run_switch, 4},
                                         Scenario{"SwitchUnlocked", two_sessions, run_switch, 3},
                                         Scenario{"Cleanup", two_sessions_without_buffers, run_cleanup, 14}),
                         [](const auto& scenario) { return std::string(scenario.param.name); });

}  // namespace
