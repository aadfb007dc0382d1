// Helpers on contexts that the files of the lower interface share. They are not public.
#pragma once

#include "include/tavik.h"

namespace tavik {

// Tells whether tavik_init has completed on `context`; the index of the active session is valid only then.
inline bool has_active_session(const tavik_context* context) {
  return context != nullptr && context->active_session < context->n_sessions;
}

inline constexpr uint64_t no_handle = ~uint64_t{0};

// Tells whether the entry after the open sessions holds a session that is reserved but not open.
inline bool has_reservation(const tavik_context* context) {
  return context->n_sessions < TAVIK_MAX_SESSIONS && context->session_id[context->n_sessions] != 0;
}

// Unmaps the cross-session buffers from session `session` and ignores failures.
void munmap_what_is_left(const tavik_context* context, uint64_t session);

// Returns the index of the caller's buffer with descriptor `fd`, or n_buffers when there is none.
inline uint64_t find_buffer(const tavik_context* context, int32_t fd) {
  uint64_t index = 0;
  while (index < context->n_buffers && context->buffer_fd[index] != fd) ++index;
  return index;
}

inline constexpr char not_initialised[] = "context is not initialised (see tavik_init)";

inline bool is_in_descriptor_table(int32_t fd) {
  return fd >= 0 && fd <= TAVIK_MAX_DESCRIPTOR;
}

}  // namespace tavik
