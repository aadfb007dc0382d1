// parlo_handle_open, parlo_handle_invoke, parlo_handle_close.
#include <algorithm>
#include <cstring>

#include "platform/emulator/client/platform.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/emulator/process/host.h"
#include "platform/parlo.h"
#include "remote/methods.h"

namespace parlo::client {
namespace {

dsp::Module configured_module(const parlo_emulator_config& config, bool is_strict) {
  dsp::Module module{.address_space_bytes = config.session_bytes,
                     .major = config.module_major,
                     .minor = config.module_minor,
                     .patch = config.module_patch,
                     .architecture = config.module_architecture,
                     .label = {},
                     .shares_matrix_unit = config.shared_matrix_unit != 0,
                     .is_strict = is_strict};
  std::copy_n(config.module_label, sizeof module.label - 1, module.label);
  return module;
}

// Describes the invocation for the trace, with as many words of the primitive input buffer as the record has room for.
TracedCall describe_invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments) {
  TracedCall call = make_call(PARLO_EMULATOR_HANDLE_INVOKE, {handle, scalars});
  call.method = static_cast<int32_t>(PARLO_SCALARS_METHOD(scalars));
  if (PARLO_SCALARS_N_IN(scalars) == 0 || !arguments || !arguments->data) return call;
  const size_t n_word = std::min<size_t>(arguments->length / 4, PARLO_EMULATOR_MAX_ARGUMENTS - call.n_arguments);
  for (size_t i = 0; i < n_word; ++i) {
    uint32_t input;
    std::memcpy(&input, static_cast<const char*>(arguments->data) + 4 * i, sizeof input);
    call.arguments[call.n_arguments++] = input;
  }
  return call;
}

// ---- Openings ----------------------------------------------------------------------------------------------------

int32_t begin_session(Platform& p, const Carrier& carrier, std::shared_ptr<dsp::Space>& space) {
  switch (carrier.kind) {
    case PARLO_EMULATOR_IN_PROCESS:
      space = dsp::make_local_space(p.units, carrier.limit_milliseconds);
      return KESO_SUCCESS;
    case PARLO_EMULATOR_PROCESS:
      return process::start(p.units, carrier.limit_milliseconds, space);
    default:
      return PARLO_EMULATOR_BAD_CONFIGURATION;
  }
}

int32_t open(Platform& p, PlatformLock& lock, const char* uri, uint64_t& handle) {
  if (!p.is_configured) return PARLO_EMULATOR_BAD_CONFIGURATION;
  Session* session;
  uint64_t opened;
  if (const int32_t status = p.sessions.prepare_opening(uri, session, opened); status != KESO_SUCCESS) return status;
  const uint32_t id = session->id;
  const std::shared_ptr<dsp::Space> before = session->space;
  const dsp::Module module = configured_module(p.config, p.profile.is_strict);
  const Carrier carrier = p.carrier;
  std::shared_ptr<dsp::Space> space = before;
  int32_t status = KESO_SUCCESS;
  without_lock(lock, [&] {
    if (!space) status = begin_session(p, carrier, space);
    if (status == KESO_SUCCESS) status = space->open(opened, module);
  });
  if (status != KESO_SUCCESS) return noted(p, lock, before.get(), status);
  if (status = p.sessions.with_id(id, session); status != KESO_SUCCESS) return status;
  if (session->space != before) return PARLO_EMULATOR_SESSION_LOST;  // meanwhile
  p.sessions.add(*session, handle = opened, std::move(space));
  return KESO_SUCCESS;
}

int32_t close(Platform& p, PlatformLock& lock, uint64_t handle) {
  Session* session;
  const int32_t status = p.sessions.with_handle(handle, session);
  if (status != KESO_SUCCESS && status != PARLO_EMULATOR_SESSION_LOST) return status;
  if (const std::shared_ptr<dsp::Space> space = session->space; space && session->handles.size() > 1) {
    int32_t closed = KESO_SUCCESS;
    without_lock(lock, [&] { closed = space->close(handle); });
    noted(p, lock, space.get(), closed);
  }
  destroy(lock, p.sessions.remove(handle));
  return KESO_SUCCESS;
}

// ---- Invocations -------------------------------------------------------------------------------------------------

// The methods that give back what a session has. There is nothing left to give back in a lost session, so that a caller's
// cleanup succeeds there.
bool gives_back(uint32_t scalars) {
  const tavik::remote::Method* const method = dsp::method_of(scalars);
  if (!method) return false;
  switch (method->number) {
    case tavik::remote::tavik_veyra_clear_cache_arguments::method:
    case tavik::remote::tavik_veyra_mmap_put_AX_arguments::method:
    case tavik::remote::tavik_veyra_ressource_release_arguments::method:
    case tavik::remote::tavik_veyra_unlock_tessel_arguments::method:
      return true;
    default:
      return false;
  }
}

constexpr uint32_t self_test = 13;

// Halves the work of a method that replies in shared memory. The first word of the input is the number of rows, or for
// the self-test the number of bytes.
void halve(dsp::Call& call) {
  call.words[0] /= 2;
  if (PARLO_SCALARS_METHOD(call.scalars) != self_test) call.words[0] = call.words[0] / 64 * 64;
}

int32_t run(dsp::Space& space, TracedCall& traced, const Fault::Disturbance& disturbance, uint32_t scalars,
            const parlo_argument* arguments, uint64_t& n_byte) {
  dsp::Call call;
  if (const int32_t status = dsp::pack(scalars, arguments, call); status != KESO_SUCCESS) return status;
  call.late_milliseconds = disturbance.late_milliseconds;
  call.n_flipped_bit = disturbance.n_flipped_bit;
  if (disturbance.truncates_reply && PARLO_SCALARS_N_OUT(scalars) == 0) halve(call);
  dsp::Reply reply = {};
  const int32_t status = space.invoke(traced.arguments[0], call, reply);
  traced.dsp_begin = reply.begin;
  traced.dsp_end = reply.end;
  n_byte = reply.n_byte;
  if (status == KESO_SUCCESS) dsp::unpack(call, reply, arguments, disturbance.truncates_reply);
  return status;
}

int32_t invoke(Platform& p, PlatformLock& lock, TracedCall& call, uint32_t scalars, const parlo_argument* arguments) {
  Session* session;
  int32_t status = p.sessions.with_handle(call.arguments[0], session);
  if (status == KESO_SUCCESS) {
    const std::shared_ptr<dsp::Space> space = session->space;
    const Fault::Disturbance disturbance = p.disturbance;
    uint64_t n_byte = 0;
    without_lock(lock, [&] { status = run(*space, call, disturbance, scalars, arguments, n_byte); });
    noted(p, lock, space.get(), status);
    if (p.profile.bytes_per_second > 0 && call.dsp_end != 0) {
      call.estimated_seconds = p.profile.call_seconds + static_cast<double>(n_byte) / p.profile.bytes_per_second;
      p.estimated_seconds += call.estimated_seconds;
    }
  }
  return status == PARLO_EMULATOR_SESSION_LOST && gives_back(scalars) ? KESO_SUCCESS : status;
}

}  // namespace
}  // namespace parlo::client

using namespace parlo::client;

int parlo_handle_open(const char* uri, uint64_t* handle) {
  TracedCall call = make_call(PARLO_EMULATOR_HANDLE_OPEN, {});
  if (uri) set_text(call, uri);
  return carry_out(call, [&](Platform& p, PlatformLock& lock) {
    if (!uri || !handle) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    const LifecycleLock one_at_a_time(p, lock);
    const int32_t status = open(p, lock, uri, *handle);
    if (status == KESO_SUCCESS) call.arguments[call.n_arguments++] = *handle;
    return outcome_of(status);
  });
}

int parlo_handle_invoke(uint64_t handle, uint32_t scalars, parlo_argument* arguments) {
  TracedCall call = describe_invoke(handle, scalars, arguments);
  return carry_out(
      call, [&](Platform& p, PlatformLock& lock) { return outcome_of(invoke(p, lock, call, scalars, arguments)); });
}

int parlo_handle_close(uint64_t handle) {
  TracedCall call = make_call(PARLO_EMULATOR_HANDLE_CLOSE, {handle});
  return carry_out(call, [&](Platform& p, PlatformLock& lock) {
    const LifecycleLock one_at_a_time(p, lock);
    return outcome_of(close(p, lock, handle));
  });
}
