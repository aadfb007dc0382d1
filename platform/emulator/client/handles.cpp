// parlo_handle_open, parlo_handle_invoke, parlo_handle_close.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

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
                     .label = {},
                     .shares_matrix_unit = config.shared_matrix_unit != 0};
  std::copy_n(config.module_label, sizeof module.label - 1, module.label);
  return module;
}

// Describes the invocation for the trace, with as many words of the primitive input buffer as the record has room for.
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

// ---- Truncated replies -------------------------------------------------------------------------------------------

constexpr uint32_t self_test = 13;

// Runs a method that replies in shared memory for the first half of its work. The first word of the input is the number
// of rows, or for the self-test the number of bytes.
int32_t invoke_in_part(uint64_t handle, uint32_t scalars, const parlo_argument& input) {
  std::vector<uint32_t> words(input.length / sizeof(uint32_t));
  std::memcpy(words.data(), input.data, words.size() * sizeof(uint32_t));
  words[0] /= 2;
  if (PARLO_SCALARS_METHOD(scalars) != self_test) words[0] = words[0] / 64 * 64;
  const parlo_argument part = {words.data(), input.length};
  return parlo::dsp::invoke(handle, scalars, &part);
}

// The second half of a buffer with its current contents, which put_back() restores.
class BackHalf {
 public:
  explicit BackHalf(const parlo_argument& buffer)
      : begin_(static_cast<char*>(buffer.data) + (buffer.length + 1) / 2), bytes_(begin_, buffer.length / 2) {}
  void put_back() const { std::copy(bytes_.begin(), bytes_.end(), begin_); }

 private:
  char* begin_;
  std::string bytes_;
};

int32_t invoke_truncated(uint64_t handle, uint32_t scalars, const parlo_argument* arguments) {
  const uint32_t n_in = PARLO_SCALARS_N_IN(scalars), n_out = PARLO_SCALARS_N_OUT(scalars);
  const auto is_there = [](const parlo_argument& argument) { return argument.data && argument.length >= 4; };
  if (!arguments || n_in != 1 || !is_there(*arguments)) return parlo::dsp::invoke(handle, scalars, arguments);
  if (n_out == 0) return invoke_in_part(handle, scalars, *arguments);
  std::vector<BackHalf> kept;
  for (uint32_t i = 0; i < n_out; ++i)
    if (arguments[n_in + i].data) kept.emplace_back(arguments[n_in + i]);
  const int32_t status = parlo::dsp::invoke(handle, scalars, arguments);
  for (const BackHalf& half : kept) half.put_back();
  return status;
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
    Session* session;
    if (const int32_t status = p.sessions.with_handle(handle, session); status != KESO_SUCCESS)
      return outcome_of(status);
    const bool truncated = p.truncates_reply;
    lock.unlock();  // other calls continue while the DSP computes
    const int32_t status =
        truncated ? invoke_truncated(handle, scalars, arguments) : parlo::dsp::invoke(handle, scalars, arguments);
    lock.lock();
    return outcome_of(status);
  });
}

int parlo_handle_close(uint64_t handle) {
  parlo_emulator_call call = make_call(PARLO_EMULATOR_HANDLE_CLOSE, {handle});
  return carry_out(call, [&](Platform& p, PlatformLock&) { return outcome_of(p.sessions.close(handle)); });
}
