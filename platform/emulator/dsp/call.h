// One invocation as it crosses the seam between the halves: the call with the words of its primitive input, and the reply.
// Both are plain records of fixed size, which also travel between processes.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "platform/parlo.h"
#include "remote/methods.h"

namespace parlo::dsp {

inline constexpr size_t n_word_in = [] {
  uint32_t n = 0;
  for (const tavik::remote::Method& method : tavik::remote::methods) n = std::max(n, method.primitive_in_bytes() / 4);
  return n;
}();
inline constexpr size_t n_word_out = [] {
  uint32_t n = 0;
  for (const tavik::remote::Method& method : tavik::remote::methods) n = std::max(n, method.primitive_out_bytes() / 4);
  return n;
}();

inline constexpr uint32_t never = ~0u;

struct Call {
  uint32_t scalars;
  uint32_t words[n_word_in];
  // What a fault asks of the DSP.
  uint32_t late_milliseconds;  // before the method begins; `never` for a DSP that hangs
  uint32_t n_flipped_bit;      // in the result of a method that succeeds
};

struct Reply {
  uint32_t words[n_word_out];
  char text[32];
  uint64_t begin, end;  // nanoseconds of CLOCK_MONOTONIC at which the method began and ended
  uint64_t n_byte;      // bytes of the operands that the method read and wrote
};

uint64_t now();  // nanoseconds of CLOCK_MONOTONIC

// Returns the method of a scalars word, or nullptr when no method that may be invoked has this word.
const tavik::remote::Method* method_of(uint32_t scalars);

// Checks the scalars word and the buffers against the remote interface and stores the input in `call`. Returns a status.
int32_t pack(uint32_t scalars, const parlo_argument* arguments, Call& call);

// Writes the reply to a packed call into the caller's output buffers; into the front half of each when `in_part` is set.
void unpack(const Call& call, const Reply& reply, const parlo_argument* arguments, bool in_part);

}  // namespace parlo::dsp
