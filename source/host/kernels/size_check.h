// What every product checks before anything else, and the tile geometry that it works with.
#pragma once

#include <cstdint>

#include "include/tavik.h"

namespace tavik {

inline constexpr uint32_t tile_cols = 32;

// n_row rounded up to whole f16 tiles, in 32 bits as the DSP takes it.
constexpr uint32_t round_up_to_32(int32_t n_row) {
  return (static_cast<uint32_t>(n_row) + 31u) & ~31u;
}

// The same for the tiles of 64 rows of the 8-bit activations and 32-bit results.
constexpr uint32_t round_up_to_64(int32_t n_row) {
  return (static_cast<uint32_t>(n_row) + 63u) & ~63u;
}

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
