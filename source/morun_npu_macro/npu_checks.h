// The checks that the calls on the NPU make before all other work. A failed check prints a line that names `place` and
// returns the status.
#pragma once

#include <cstdint>

#include "source/log_line.h"
#include "source/morun_npu_macro/npu_state.h"
#include "source/tiles.h"

// Returns MORUN_ERROR_FAILURE (1) from the calling function when a call of the lower interface fails. The printed line
// shows the call's own status.
#define MORUN_TRY_LOWER_AT(place, expression)                                        \
  do {                                                                               \
    if (const auto lower = static_cast<int32_t>(expression); lower != TAVIK_SUCCESS) \
      return MORUN_FAIL_AT(place, MORUN_ERROR_FAILURE, "Err = %d\n", lower);         \
  } while (false)
#define MORUN_TRY_LOWER(expression) MORUN_TRY_LOWER_AT(MORUN_HERE, expression)

namespace morun {

struct Shape {
  int32_t n_row, n_col, n_inner;
};

// The multiples that the dimensions of a kind of product must have.
struct Multiples {
  const char* operation;
  int32_t n_row, n_col, n_inner;
};
inline constexpr Multiples f16_multiples = {"F16", tavik::tile_side, tavik::tile_side, tavik::tile_side};
inline constexpr Multiples int8_multiples = {"INT8", tavik::tall_tile_rows, tavik::tile_side, tavik::tile_side};

int32_t check_domain(const CallPlace& place, int32_t domain);
int32_t check_initialized(const CallPlace& place);
int32_t check_dimensions(const CallPlace& place, const Shape& shape, const Multiples& multiples);

// The checks of all f16 products: the interface is initialised, the domain and the dimensions are valid, no operand is
// NULL.
int32_t check_f16_product(const CallPlace& place, int32_t domain, const Shape& shape, const void* A, const void* X,
                          const void* W);

// The check of all integer products: no operand is NULL. X is checked first.
int32_t check_operands(const CallPlace& place, const void* X, const void* A, const void* W);

// Stores the descriptor of the buffer that starts at `operand`. `name` is the operand's name in the printed line.
int32_t find_registered(const CallPlace& place, const char* name, const void* operand, uint32_t* fd);

// The descriptors of a product whose operands all stand in shared buffers. A is looked up first, then W, then X.
struct Descriptors {
  uint32_t A, W, X;
};
int32_t find_all_registered(const CallPlace& place, const void* A, const void* W, const void* X, Descriptors* fds);

// Tells whether the u8 activation fits into the context's activation buffer. When it does not, the call still runs the
// product, and the product refuses the dimensions.
bool activation_fits(const Shape& shape);

// Prints the lower interface's error record and the failed call, and ends the process with exit status 1.
[[noreturn]] void end_process(const CallPlace& place, const char* call);

}  // namespace morun

// Kept: when the lower interface fails, an integer product ends the process. The printed line quotes the call's source
// text.
#define MORUN_DEMAND(call)                                              \
  do {                                                                  \
    if ((call) != TAVIK_SUCCESS) morun::end_process(MORUN_HERE, #call); \
  } while (false)
