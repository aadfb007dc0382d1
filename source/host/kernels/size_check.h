// The checks that each product makes before all other work.
#pragma once

#include <cstdint>

#include "include/tavik.h"
#include "source/tiles.h"

namespace tavik {

// Widens a dimension with its sign, so that a negative dimension exceeds every limit.
constexpr uint64_t widen_dimension(int32_t n) {
  return static_cast<uint64_t>(int64_t{n});
}

// Requires whole tiles of columns and of the inner dimension, and dimensions within the limits of the options. Returns
// 0 or 2.
int32_t mm_size_check(const tavik_context* context, uint64_t n_row, uint64_t n_col, uint64_t n_inner);

// Requires that the cross-session buffers have room for an activation and a result of these sizes, both padded to whole
// tiles. Returns 0 or 2; the error record names mm_size_check as the function that failed.
int32_t cross_session_size_check(const tavik_context* context, uint64_t activation_bytes, uint64_t result_bytes);

// Calls tavik_context_get_handle_from_fd with an unsigned descriptor, the type that the products take.
inline int32_t find_handle(tavik_context* context, uint32_t fd, uint64_t* handle) {
  *handle = ~uint64_t{0};
  return tavik_context_get_handle_from_fd(context, static_cast<int32_t>(fd), handle);
}

}  // namespace tavik
