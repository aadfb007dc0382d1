// The functions parlo_emulator_*: limits, usage, trace and faults.
#include "platform/emulator/client/platform.h"

using namespace parlo::client;

void parlo_emulator_get_config(parlo_emulator_config* config) {
  const PlatformLock lock(platform().mutex);
  *config = platform().config;
}

void parlo_emulator_set_config(const parlo_emulator_config* config) {
  const PlatformLock lock(platform().mutex);
  platform().config = *config;
}

void parlo_emulator_get_usage(parlo_emulator_usage* usage) {
  const Platform& p = platform();
  const PlatformLock lock(platform().mutex);
  *usage = {.n_allocations = p.memory.n_allocations(),
            .n_bytes = p.memory.n_bytes(),
            .n_sessions = p.sessions.n_sessions(),
            .n_handles = p.sessions.n_handles(),
            .n_mappings = p.sessions.n_mappings(),
            .n_double_frees = p.memory.n_double_frees(),
            .n_foreign_frees = p.memory.n_foreign_frees()};
}

size_t parlo_emulator_trace_length(void) {
  const PlatformLock lock(platform().mutex);
  return platform().trace.length();
}

int parlo_emulator_trace_get(size_t index, parlo_emulator_call* call) {
  const PlatformLock lock(platform().mutex);
  const parlo_emulator_call* recorded = platform().trace.at(index);
  if (!recorded) return -1;
  *call = *recorded;
  return 0;
}

void parlo_emulator_trace_clear(void) {
  const PlatformLock lock(platform().mutex);
  platform().trace.clear();
}

const char* parlo_emulator_profile_name(void) {
  const PlatformLock lock(platform().mutex);
  return platform().profile.name.c_str();
}

double parlo_emulator_estimated_seconds(void) {
  const PlatformLock lock(platform().mutex);
  return platform().profile.bytes_per_second > 0 ? platform().estimated_seconds : -1;
}

void parlo_emulator_begin_span(const char* name) {
  const PlatformLock lock(platform().mutex);
  platform().trace.timeline().begin_span(name);
}

void parlo_emulator_end_span(void) {
  const PlatformLock lock(platform().mutex);
  platform().trace.timeline().end_span();
}

void parlo_emulator_arm(const parlo_emulator_fault* fault) {
  const PlatformLock lock(platform().mutex);
  platform().fault.arm(*fault);
}

void parlo_emulator_fail(int32_t operation, int32_t method, uint32_t nth, int32_t status, int32_t error_number) {
  const parlo_emulator_fault fault = {
      .fault_class = nth == 0 ? PARLO_EMULATOR_FAULT_FROM_THEN_ON : PARLO_EMULATOR_FAULT_ONCE,
      .operation = operation,
      .method = method,
      .nth = nth,
      .status = status,
      .error_number = error_number};
  parlo_emulator_arm(&fault);
}

uint32_t parlo_emulator_faults_fired(void) {
  const PlatformLock lock(platform().mutex);
  return platform().fault.n_fired();
}

void parlo_emulator_clear_fault(void) {
  const PlatformLock lock(platform().mutex);
  platform().fault.clear();
}

void parlo_emulator_take_over(void) {
  Platform& p = platform();
  const PlatformLock lock(p.mutex);
  p.units.take_over();
  p.sessions.take_over();
  p.memory.take_over();
}

void parlo_emulator_set_carrier(int32_t carrier) {
  const PlatformLock lock(platform().mutex);
  platform().carrier.kind = carrier;
}

int32_t parlo_emulator_get_carrier(void) {
  const PlatformLock lock(platform().mutex);
  return platform().carrier.kind;
}

void parlo_emulator_set_call_limit(uint32_t milliseconds) {
  const PlatformLock lock(platform().mutex);
  platform().carrier.limit_milliseconds = milliseconds;
}

int parlo_emulator_process_of(uint64_t handle) {
  const PlatformLock lock(platform().mutex);
  Session* session;
  if (platform().sessions.with_handle(handle, session) != KESO_SUCCESS) return 0;
  return session->space->process();
}

void parlo_emulator_reset(void) {
  Platform& p = platform();
  const std::lock_guard no_opening(p.lifecycle);
  const PlatformLock lock(p.mutex);
  p.sessions.end_all();
  p.memory.release_all();
  p.trace.clear();
  p.trace.choose_output();
  p.is_configured = choose_profile(p.profile);
  p.fault = Fault::of(p.profile.fault);
  p.log_filter = LogFilter();
  p.config = p.profile.config;
  p.estimated_seconds = 0;
  p.carrier = default_carrier();
}
