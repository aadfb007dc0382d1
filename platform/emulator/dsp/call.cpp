#include "platform/emulator/dsp/call.h"

#include <chrono>
#include <cstring>

#include "platform/emulator/parlo_emulator.h"

namespace parlo::dsp {
namespace {

namespace remote = tavik::remote;

bool has_length(const parlo_argument& argument, uint64_t length) {
  return argument.length == length && (argument.data || length == 0);
}

// Writes `length` bytes: the text, cut to fit or followed by zeros.
void copy_text(const char* text, char* output, size_t length) {
  const size_t n = std::min(length, strnlen(text, sizeof Reply::text));
  std::memcpy(output, text, n);
  std::memset(output + n, 0, length - n);
}

size_t part_of(size_t length, bool in_part) {
  return in_part ? (length + 1) / 2 : length;
}

}  // namespace

uint64_t now() {
  const auto time = std::chrono::steady_clock::now().time_since_epoch();
  return static_cast<uint64_t>(std::chrono::nanoseconds(time).count());
}

const remote::Method* method_of(uint32_t scalars) {
  const uint32_t number = PARLO_SCALARS_METHOD(scalars);
  if (number >= remote::methods.size() || number == remote::open_method || number == remote::close_method)
    return nullptr;
  return scalars == remote::methods[number].scalars() ? &remote::methods[number] : nullptr;
}

int32_t pack(uint32_t scalars, const parlo_argument* arguments, Call& call) {
  const remote::Method* const method = method_of(scalars);
  if (!method) return PARLO_EMULATOR_BAD_SCALARS;
  if (!arguments && PARLO_SCALARS_N_IN(scalars) + PARLO_SCALARS_N_OUT(scalars) != 0) return PARLO_EMULATOR_BAD_ARGUMENT;
  call = {.scalars = scalars, .words = {}, .late_milliseconds = 0, .n_flipped_bit = 0};
  if (const uint32_t n_byte = method->primitive_in_bytes(); n_byte != 0) {
    if (!has_length(*arguments, n_byte)) return PARLO_EMULATOR_BAD_SCALARS;
    std::memcpy(call.words, arguments->data, n_byte);
    ++arguments;
  }
  if (const uint32_t n_byte = method->primitive_out_bytes(); n_byte != 0 && !has_length(*arguments++, n_byte))
    return PARLO_EMULATOR_BAD_SCALARS;
  // A method with a text has no other input than the length of the text.
  if (method->count(remote::ParameterKind::text_out) != 0 && !has_length(*arguments, call.words[0]))
    return PARLO_EMULATOR_BAD_SCALARS;
  return KESO_SUCCESS;
}

void unpack(const Call& call, const Reply& reply, const parlo_argument* arguments, bool in_part) {
  const remote::Method& method = *method_of(call.scalars);
  if (method.primitive_in_bytes() != 0) ++arguments;
  if (const uint32_t n_byte = method.primitive_out_bytes(); n_byte != 0)
    std::memcpy(arguments++->data, reply.words, part_of(n_byte, in_part));
  if (method.count(remote::ParameterKind::text_out) != 0 && arguments->length != 0)
    copy_text(reply.text, static_cast<char*>(arguments->data), part_of(arguments->length, in_part));
}

}  // namespace parlo::dsp
