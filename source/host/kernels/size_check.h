// What every product checks before anything else.
#pragma once

#include <cstdint>

#include "include/tavik.h"
#include "source/host/util/tiles.h"

namespace tavik {

// A signed dimension widened with its sign, so that a negative one exceeds every limit.
constexpr uint64_t widen_dimension(int32_t n) {
  return static_cast<uint64_t>(int64_t{n});
}

// Columns and inner dimension in whole tiles, and all within the limits that the options set. Status 0 or 2.
int32_t mm_size_check(const tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner);

// Whether an activation and a result of that many bytes, padded to whole tiles, fit the cross-session buffers. Status 0
// or 2; a failure is recorded as one of mm_size_check.
int32_t cross_session_size_check(const tavik_context* context, uint64_t activation_bytes, uint64_t result_bytes);

// tavik_context_get_handle_from_fd of a descriptor as the products take it.
inline int32_t find_handle(tavik_context* context, uint32_t fd, uint64_t* handle) {
  *handle = ~uint64_t{0};
  return tavik_context_get_handle_from_fd(context, static_cast<int32_t>(fd), handle);
}

}  // namespace tavik
