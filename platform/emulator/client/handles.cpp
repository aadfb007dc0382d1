// parlo_handle_open, parlo_handle_invoke, parlo_handle_close.
#include <algorithm>
#include <cstring>

#include "platform/emulator/client/platform.h"
#include "platform/emulator/dsp/dsp.h"
#include "platform/parlo.h"

namespace parlo::client {
namespace {

dsp::Module configured_module(const parlo_emulator_config& config) {
  dsp::Module module{.address_space_bytes = config.session_bytes,
                     .major = config.module_major,
                     .minor = config.module_minor,
                     .patch = config.module_patch,
                     .architecture = config.module_architecture,
                     .label = {}};
  std::copy_n(config.module_label, sizeof module.label - 1, module.label);
  return module;
}

// The call with as many words of its primitive input buffer as there is room for.
parlo_emulator_call describe_invoke(uint64_t handle, uint32_t scalars, const parlo_argument* arguments) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_HANDLE_INVOKE, {handle, scalars});
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

}  // namespace
}  // namespace parlo::client

using namespace parlo::client;

int parlo_handle_open(const char* uri, uint64_t* handle) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_HANDLE_OPEN, {});
  if (uri) set_text(call, uri);
  return carry_out(call, [&](Platform& p, PlatformLock&) {
    if (!uri || !handle) return outcome_of(PARLO_EMULATOR_BAD_ARGUMENT);
    const int32_t status = p.sessions.open(uri, configured_module(p.config), *handle);
    if (status == KESO_SUCCESS) call.arguments[call.n_arguments++] = *handle;
    return outcome_of(status);
  });
}

int parlo_handle_invoke(uint64_t handle, uint32_t scalars, parlo_argument* arguments) {
  parlo_emulator_call call = describe_invoke(handle, scalars, arguments);
  return carry_out(call, [&](Platform& p, PlatformLock& lock) {
    if (!p.sessions.with_handle(handle)) return outcome_of(PARLO_EMULATOR_BAD_HANDLE);
    lock.unlock();  // others go on while the DSP computes
    const int32_t status = parlo::dsp::invoke(handle, scalars, arguments);
    lock.lock();
    return outcome_of(status);
  });
}

int parlo_handle_close(uint64_t handle) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_HANDLE_CLOSE, {handle});
  return carry_out(call, [&](Platform& p, PlatformLock&) { return outcome_of(p.sessions.close(handle)); });
}
