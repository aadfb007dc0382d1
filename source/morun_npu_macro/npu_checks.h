// What the calls on the NPU check before anything else. Each check that fails prints its line in the name of `place` and
// gives the status.
#pragma once

#include <cstdint>

#include "source/host/util/tiles.h"
#include "source/log_line.h"
#include "source/morun_npu_macro/npu_state.h"

// Leaves the calling function with status 1 when a call of the lower interface fails; its own status is printed.
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

// What a kind of product asks of its dimensions.
struct Multiples {
  const char* operation;
  int32_t n_row, n_col, n_inner;
};
inline constexpr Multiples f16_multiples = {"F16", tavik::tile_side, tavik::tile_side, tavik::tile_side};
inline constexpr Multiples int8_multiples = {"INT8", tavik::tall_tile_rows, tavik::tile_side, tavik::tile_side};

int32_t check_domain(const Place& place, int32_t domain);
int32_t check_initialized(const Place& place);
int32_t check_dimensions(const Place& place, const Shape& shape, const Multiples& multiples);

// What the f16 products have in common: initialised, domain, dimensions, no operand NULL.
int32_t check_f16_product(const Place& place, int32_t domain, const Shape& shape, const void* A, const void* X,
                          const void* W);

// What the integer products have in common: no operand NULL, X first.
int32_t check_operands(const Place& place, const void* X, const void* A, const void* W);

// The descriptor of the buffer that starts at `operand`, as the products take it; `name` stands in the line.
int32_t find_registered(const Place& place, const char* name, const void* operand, uint32_t* fd);

// Those of a product that leaves all three in shared buffers: A, W and X, looked up in this order.
struct Descriptors {
  uint32_t A, W, X;
};
int32_t find_all_registered(const Place& place, const void* A, const void* W, const void* X, Descriptors* fds);

// Whether the u8 activation fits the context's buffer for it. Where it does not, the product that follows refuses the
// dimensions.
bool activation_fits(const Shape& shape);

// Prints the lower interface's error record and the call that failed, and ends the process with exit status 1.
[[noreturn]] void end_process(const Place& place, const char* call);

}  // namespace morun

// Kept: integer products do not return from a failure of the lower interface. The line shows the call's source text.
#define MORUN_DEMAND(call)                                              \
  do {                                                                  \
    if ((call) != TAVIK_SUCCESS) morun::end_process(MORUN_HERE, #call); \
  } while (false)
